// Allowance check, link suspension and resumption, and the alerts they lead to.
#pragma once

#include "core/wan_usage.h"

// alert_state bits.
constexpr uint32_t ALERT_75 = 1;          // usage crossed 75 % of the allowance on this tick
constexpr uint32_t ALERT_95 = 2;          // usage crossed 95 % on this tick
constexpr uint32_t ALERT_BELOW_LINE = 4;  // below the 100 % line, or no "disconnect" action
constexpr uint32_t ALERT_AT_LINE = 8;     // at or above the 100 % line
constexpr uint32_t ALERT_RESUME = 16;     // fell below the line on this tick, or resumed
constexpr uint32_t ALERT_REACHED = 32;    // reached the line on this tick

// Places every record against its allowance: recomputes alert_state from the billing-cycle
// usage and the usage the previous check saw (quota_snapshot). The warnings are edge
// triggered: each is due only on the tick its line is crossed. Returns 0.
int check_wan_usage(wan_usage* records, int count);

// Whether the suspension marker of WAN wan_number (1-based), or of its SIM when sim_number
// is not 0, can be opened for reading.
int usage_suspended(int wan_number, int sim_number);

// Suspends or resumes one record's link as its alert_state asks, follows the time-sync
// privilege marker, and writes the allowance lines. Returns 1 when it wrote a line.
int update_usage_suspension(wan_usage& record);

// For every WAN record and the SIM records of its dual-SIM pair: suspension, resumption,
// the allowance lines and the e-mails; after any of these, the backups and the
// configuration saver. Returns 0.
int wan_usage_alert(wan_usage* records, int count, wan_usage* sim_records, int sim_count);
