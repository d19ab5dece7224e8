#include "quota/quota_check.h"

// Allowances are not enforced yet.
int check_wan_usage(wan_usage*, int) { return 0; }
int wan_usage_alert(wan_usage*, int, wan_usage*, int) { return 0; }
