#include "history/monthly.h"

// The monthly history is not kept yet: a tick leaves month_start and the files alone.
void wu_monthly_rollover(wan_usage&) {}
void export_monthly_csv(const wan_usage&) {}
void aggregate_monthly_total(usage_totals&, wan_usage&) {}
void rebuild_monthly_total(const usage_totals&) {}
void update_monthly_total(const usage_totals&) {}
