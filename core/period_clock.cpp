#include "core/period_clock.h"

#include "core/local_time.h"
#include "platform/platform.h"

namespace {
period_clock clock_now;
}

const period_clock& current_period_clock() { return clock_now; }

void update_period_clock()
{
    time_t now = sys_time();
    clock_now.hour_start = start_of_hour(now);
    clock_now.hour_end = end_of_hour(now);
    clock_now.day_start = start_of_day(now);
    clock_now.day_end = end_of_day(now);
}

void init_period_buckets(wan_usage& record)
{
    if (record.periods_initialised != 0)
        return;
    time_t now = sys_time();
    record.prev_sample_time = record.sample_time;
    record.sample_time = now;
    record.sample_tm = local_tm(now);
    update_period_clock();
    record.hour_bucket_time = start_of_hour(now);
    record.day_bucket_time = start_of_day(now);
    record.periods_initialised = 1;
}
