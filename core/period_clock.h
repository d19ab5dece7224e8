// The process-wide period clock: start and end of the current local hour and day.
#pragma once

#include "core/wan_usage.h"

#include <ctime>

struct period_clock {
    time_t hour_start; // mm:ss 00:00 of the current local hour
    time_t hour_end;   // mm:ss 59:59
    time_t day_start;  // 00:00:00 of the current local day
    time_t day_end;    // 23:59:59
};

// The clock as the last update_period_clock left it (all zero before the first update).
const period_clock& current_period_clock();

// Reads the time and sets the hour and day bounds from its local time.
void update_period_clock();

// For a record whose periods_initialised is 0: takes the current time as its sample time,
// starts its hour and day buckets at the current hour and day, and marks it initialised.
// The bucket counters are not touched. Records already initialised are left alone.
void init_period_buckets(wan_usage& record);
