#include "client_mac/mac_usage.h"

// Usage by MAC address is not kept yet: the client accounting calls these at their places.
int ruvo_client_mac_usage_init() { return 0; }
void ruvo_client_mac_usage_fixup(time_t) {}
int ruvo_client_mac_usage_prepare() { return 0; }
void ruvo_client_mac_usage_add(uint32_t, int32_t, uint64_t, uint64_t, int32_t, int32_t) {}
void ruvo_client_mac_usage_finalize() {}
void ruvo_client_mac_usage_save() {}
int ruvo_client_mac_usage_history_limit() { return 0; }
int ruvo_client_mac_usage_history_backup() { return 0; }
int ruvo_client_mac_usage_history_clear() { return 0; }
