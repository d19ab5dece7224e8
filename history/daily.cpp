#include "history/daily.h"

// The daily history is not kept yet: a tick leaves the day buckets, sums and files alone.
void daily_rollover(wan_usage&) {}
void export_daily_csv(const wan_usage&) {}
void sum_month_usage(wan_usage&) {}
void sum_billing_usage(wan_usage&) {}
void rebuild_daily_total(const usage_totals&) {}
void update_daily_total(const usage_totals&) {}
