// Hourly history of a WAN usage record: the ring of finished hours, its history file and
// CSV export, and the router-wide hourly total file.
#pragma once

#include "core/usage_totals.h"
#include "core/wan_usage.h"

#include <cstdio>
#include <ctime>

// Moves a finished hour into the ring, or repairs the ring after the clock went back, then
// adds the tick's delta to the current hour.
void hourly_rollover(wan_usage& record);
// Rewrites the record's hourly history file from its ring: newest hour first, at most 23.
void write_hourly_history(wan_usage& record);
// Rewrites the record's hourly CSV export: the current hour, then its history.
void export_hourly_csv(const wan_usage& record);
// Rewrites the router-wide hourly total file from the totals.
void rebuild_hourly_total(const usage_totals& totals);
// Replaces only the first line (the current hour) of the router-wide hourly total file.
void update_hourly_total(const usage_totals& totals);
// Writes up to count hours before the hour of tm from the client hourly directory.
void fill_hourly_total_from_clients(FILE* stream, const struct tm& tm, int count);
