// Monthly history of a WAN usage record: closed calendar months, the monthly CSV export and
// the router-wide monthly total.
#pragma once

#include "core/usage_totals.h"
#include "core/wan_usage.h"

void wu_monthly_rollover(wan_usage& record);
void export_monthly_csv(const wan_usage& record);
// Adds the record's running month and its closed months into the monthly rows.
void aggregate_monthly_total(usage_totals& totals, wan_usage& record);
void rebuild_monthly_total(const usage_totals& totals);
void update_monthly_total(const usage_totals& totals);
