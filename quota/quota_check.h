// Allowance check, link suspension and resumption, and the alerts they lead to.
#pragma once

#include "core/wan_usage.h"

// Recomputes alert_state and quota_snapshot of every record; returns 0.
int check_wan_usage(wan_usage* records, int count);
// Carries out suspension, resumption, syslog lines and e-mails; returns 0.
int wan_usage_alert(wan_usage* records, int count, wan_usage* sim_records, int sim_count);
