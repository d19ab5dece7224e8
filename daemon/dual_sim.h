// The dual-SIM cellular links of the router ("/etc/gobi_dual_sim_support").
#pragma once

#include "core/wan_usage.h"

// Reads the first line of the dual-SIM list: 1-based WAN numbers separated by spaces. The
// j-th accepted number gives that WAN record sim_slot_index j. Numbers outside 1..count,
// text, and a WAN listed a second time are ignored, so that every slot index belongs to
// exactly one WAN record. Returns the number of dual-SIM links (0 when the file is missing).
int read_dual_sim_links(wan_usage* records, int count);

// Gives every WAN record with a slot index the next free pair of SIM records, walking the
// WAN records in ascending order: SIM 1 then SIM 2, both with the WAN's index and slot
// index. No pair is given out beyond sim_count records.
void assign_sim_pairs(const wan_usage* records, int count, wan_usage* sim_records, int sim_count);
