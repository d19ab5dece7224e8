#include "history/hourly.h"

// The hourly history is not kept yet: a tick leaves the hour buckets and files alone.
void hourly_rollover(wan_usage&) {}
void export_hourly_csv(const wan_usage&) {}
void rebuild_hourly_total(const usage_totals&) {}
void update_hourly_total(const usage_totals&) {}
