// Router-wide totals over all WAN records, refilled on every tick.
#pragma once

#include "core/wan_usage.h"

#include <cstdint>
#include <ctime>

struct usage_row {
    struct tm when;
    uint64_t bytes[2];
};

struct usage_month_row {
    struct tm start;
    struct tm end;
    uint64_t bytes[2];
};

constexpr int TOTAL_HOURLY_ROWS = 24;
constexpr int TOTAL_DAILY_ROWS = 60;
constexpr int TOTAL_MONTHLY_ROWS = 60;

// flags bits.
constexpr uint32_t TOTALS_BUILT = 1u << 31;          // the total files were built since start
constexpr uint32_t TOTALS_HOURLY_CHANGED = 1u << 30; // some hourly history changed this tick
constexpr uint32_t TOTALS_DAILY_CHANGED = 1u << 29;
constexpr uint32_t TOTALS_MONTHLY_CHANGED = 1u << 28;

struct usage_totals {
    uint32_t flags;
    int hourly_count;   // valid rows of hourly
    int daily_count;    // valid rows of daily
    int monthly_count;  // valid rows of monthly
    usage_row hourly[TOTAL_HOURLY_ROWS];   // row 0 the current hour, row k the k-th before
    usage_row daily[TOTAL_DAILY_ROWS];     // row 0 the current day
    usage_month_row monthly[TOTAL_MONTHLY_ROWS]; // row 0 the current month
};

// Clears the counts and all rows; the flags word is kept.
void clear_usage_totals(usage_totals& totals);

// Adds one WAN record's current hour and hourly ring into the hourly rows, and its current
// day and daily ring into the daily rows, and moves its "history changed" bits for hours
// and days into the totals' flags. Rows are matched by position, not by date: the k-th
// newest entry of every record lands in row k, and the last record to reach a row decides
// its time, which keeps the rows a simple sum.
void aggregate_hourly_daily(usage_totals& totals, wan_usage& record);
