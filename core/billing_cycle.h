// Bounds of a billing cycle that starts on day d of the month (1..31), or on the last day
// of the month (d = 0). Days a month lacks are left to mktime's normalisation: day 31 in
// April becomes 1 May.
#pragma once

#include <ctime>

// The start (local midnight) of the cycle that holds the instant at: the latest start on
// day d that is not after at. The search steps back a month at a time from the normalised
// candidate, deliberately: with d = 31 and at on 10 April, 31 April becomes 1 May, one month
// back gives 1 April, and the cycle starts on 1 April. For d = 0 only the first candidate
// is compared at 00:00:00; earlier months are compared at 23:59:59 of their last day.
time_t billing_cycle_start(time_t at, int d);

// The last second of the cycle that starts at start: day d (or the last day) of the next
// month at 00:00:00, minus one second.
time_t billing_cycle_end(time_t start, int d);
