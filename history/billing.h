// Billing-cycle history of a WAN usage record: cycle bounds, closed cycles and the export.
#pragma once

#include "core/wan_usage.h"

#include <ctime>

// Closes an ended cycle (or one cut short by a changed start day) into the history and
// works out the next bounds. Changes no counter: billing_bytes falls at the next sum
// because billing_start moved. Records without a start day are left alone.
void billing_rollover(wan_usage& record);
// Writes one closed cycle, start to end, in front of at most 60 lines of the history.
// Nothing happens for a start of 0 (nothing to close yet).
void billing_close(wan_usage& record, time_t start, time_t end);
// Rewrites the billing CSV: the running cycle, then at most 59 closed ones.
void export_billing_csv(const wan_usage& record);
