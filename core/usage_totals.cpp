#include "core/usage_totals.h"

#include "core/local_time.h"

#include <cstring>

void clear_usage_totals(usage_totals& totals)
{
    uint32_t flags = totals.flags;
    memset(&totals, 0, sizeof totals);
    totals.flags = flags;
}

namespace {

// Adds the current period and then the ring, newest entry first, into rows 0, 1, 2, ... and
// returns how many rows the record reached.
int aggregate_ring(usage_row* rows, int row_count, time_t bucket_time, const uint64_t* current,
                   const usage_entry* ring, uint32_t size, uint32_t head, uint32_t tail)
{
    rows[0].when = local_tm(bucket_time);
    rows[0].bytes[0] += current[0];
    rows[0].bytes[1] += current[1];
    int reached = 1;
    if (ring_empty(head, tail, size))
        return reached;
    for (uint32_t i = head - 1; reached < row_count; --i) {
        const usage_entry& entry = ring[i % size];
        rows[reached].when = entry.when;
        rows[reached].bytes[0] += entry.bytes[0];
        rows[reached].bytes[1] += entry.bytes[1];
        ++reached;
        if (i % size == tail % size)
            break;
    }
    return reached;
}

} // namespace

void aggregate_hourly_daily(usage_totals& totals, wan_usage& record)
{
    int hours = aggregate_ring(totals.hourly, TOTAL_HOURLY_ROWS, record.hour_bucket_time,
                               record.hour_bytes, record.hourly, HOURLY_RING_SIZE,
                               record.hourly_head, record.hourly_tail);
    if (hours > totals.hourly_count)
        totals.hourly_count = hours;
    if (record.history_flags & HISTORY_HOURLY_CHANGED) {
        totals.flags |= TOTALS_HOURLY_CHANGED;
        record.history_flags &= ~HISTORY_HOURLY_CHANGED;
    }

    int days = aggregate_ring(totals.daily, TOTAL_DAILY_ROWS, record.day_bucket_time,
                              record.day_bytes, record.daily, DAILY_RING_SIZE,
                              record.daily_head, record.daily_tail);
    if (days > totals.daily_count)
        totals.daily_count = days;
    if (record.history_flags & HISTORY_DAILY_CHANGED) {
        totals.flags |= TOTALS_DAILY_CHANGED;
        record.history_flags &= ~HISTORY_DAILY_CHANGED;
    }
}
