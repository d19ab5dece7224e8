// Daily history of a WAN usage record: the ring of finished days, its history file and CSV
// export, the router-wide daily total file, and the month and billing-cycle sums.
#pragma once

#include "core/usage_totals.h"
#include "core/wan_usage.h"

#include <cstdio>
#include <ctime>

// Moves a finished day into the ring, or repairs the ring after the clock went back, then
// adds the tick's delta to the current day.
void daily_rollover(wan_usage& record);
// Rewrites the record's daily history file from its ring: newest day first, at most 59.
void write_daily_history(wan_usage& record);
void export_daily_csv(const wan_usage& record);
// Recomputes month_bytes: the finished days of the current month plus the current day.
void sum_month_usage(wan_usage& record);
// Recomputes billing_bytes: the finished days of the billing cycle plus the current day.
void sum_billing_usage(wan_usage& record);
void rebuild_daily_total(const usage_totals& totals);
void update_daily_total(const usage_totals& totals);
// Writes up to count days before the day of tm from the client daily directory.
void fill_daily_total_from_clients(FILE* stream, const struct tm& tm, int count);
