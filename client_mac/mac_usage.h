// Per-client usage of the current hour keyed by MAC address, and its hourly files.
#pragma once

#include <cstdint>
#include <ctime>

int ruvo_client_mac_usage_init();
void ruvo_client_mac_usage_fixup(time_t now);
int ruvo_client_mac_usage_prepare();
void ruvo_client_mac_usage_add(uint32_t address, int32_t type, uint64_t second, uint64_t first,
                               int32_t kind, int32_t is_delta);
void ruvo_client_mac_usage_finalize();
void ruvo_client_mac_usage_save();
int ruvo_client_mac_usage_history_limit();
int ruvo_client_mac_usage_history_backup();
int ruvo_client_mac_usage_history_clear();
