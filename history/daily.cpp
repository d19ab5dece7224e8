#include "history/daily.h"

#include "core/local_time.h"
#include "history/ring_history.h"

void daily_rollover(wan_usage& record) { ring_rollover(record, daily_period); }
void write_daily_history(wan_usage& record) { write_ring_history(record, daily_period); }
void export_daily_csv(const wan_usage& record) { export_ring_csv(record, daily_period); }

void rebuild_daily_total(const usage_totals& totals)
{
    rebuild_ring_total(totals.daily, totals.daily_count, daily_period);
}

void update_daily_total(const usage_totals& totals)
{
    update_ring_total(totals.daily, totals.daily_count, daily_period);
}

void fill_daily_total_from_clients(FILE* stream, const struct tm& tm, int count)
{
    fill_ring_total_from_clients(stream, tm, count, daily_period);
}

namespace {

// The finished days from the newest back to the first one that starts before since, plus
// the current day. Exact as far back as the ring reaches (63 days).
void sum_days_since(wan_usage& r, time_t since, uint64_t sum[2])
{
    sum[0] = 0;
    sum[1] = 0;
    if (!ring_empty(r.daily_head, r.daily_tail, DAILY_RING_SIZE)) {
        for (uint32_t i = r.daily_head - 1;; --i) {
            const usage_entry& day = r.daily[i % DAILY_RING_SIZE];
            if (local_time_of(day.when) < since)
                break;
            sum[0] += day.bytes[0];
            sum[1] += day.bytes[1];
            if (i % DAILY_RING_SIZE == r.daily_tail % DAILY_RING_SIZE)
                break;
        }
    }
    sum[0] += r.day_bytes[0];
    sum[1] += r.day_bytes[1];
}

} // namespace

void sum_month_usage(wan_usage& record)
{
    sum_days_since(record, record.month_start, record.month_bytes);
}

void sum_billing_usage(wan_usage& record)
{
    if (record.start_day < 0) {
        record.billing_bytes[0] = 0;
        record.billing_bytes[1] = 0;
        return;
    }
    sum_days_since(record, record.billing_start, record.billing_bytes);
}
