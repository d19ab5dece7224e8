#include "history/hourly.h"

#include "history/ring_history.h"

void hourly_rollover(wan_usage& record) { ring_rollover(record, hourly_period); }
void write_hourly_history(wan_usage& record) { write_ring_history(record, hourly_period); }
void export_hourly_csv(const wan_usage& record) { export_ring_csv(record, hourly_period); }

void rebuild_hourly_total(const usage_totals& totals)
{
    rebuild_ring_total(totals.hourly, totals.hourly_count, hourly_period);
}

void update_hourly_total(const usage_totals& totals)
{
    update_ring_total(totals.hourly, totals.hourly_count, hourly_period);
}

void fill_hourly_total_from_clients(FILE* stream, const struct tm& tm, int count)
{
    fill_ring_total_from_clients(stream, tm, count, hourly_period);
}
