// Sampling of the kernel's per-link byte counters ("/proc/korel/config/link_usage").
#pragma once

#include "core/wan_usage.h"

#include <cstdint>

// Sums of the raw counter values of all links of the last read (counter 1, counter 2);
// the lifetime backup adds them to the stored lifetime totals.
extern uint64_t link_usage_raw_sum[2];

// The traffic between two readings of one kernel counter. A counter that went down is
// taken to have wrapped or restarted: new + (2^64 - 1 - old), which counts a wrap one byte
// short; kept so because every history since has been counted this way.
uint64_t counter_delta(uint64_t old_value, uint64_t new_value);

// Reads the kernel's link counters: every WAN record of the file gets the traffic since its
// previous sample in `delta`, and, when sim_records is given, the SIM record of the SIM card
// in use on a dual-SIM link is credited with that link's delta. A file that cannot be opened
// changes nothing.
void read_link_usage(wan_usage* records, int count, wan_usage* sim_records);
