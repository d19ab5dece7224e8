// Per-client usage of the current hour keyed by MAC address, and its hourly files.
#pragma once

int ruvo_client_mac_usage_init();
int ruvo_client_mac_usage_history_backup();
int ruvo_client_mac_usage_history_clear();
