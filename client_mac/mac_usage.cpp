#include "client_mac/mac_usage.h"

// Usage by MAC address is not kept yet.
int ruvo_client_mac_usage_init() { return 0; }
int ruvo_client_mac_usage_history_backup() { return 0; }
int ruvo_client_mac_usage_history_clear() { return 0; }
