// The hourly and the daily history work the same way: a ring of finished periods in the
// record, a history file rewritten from the ring, a CSV export of the current period and
// the history, and a router-wide total file. This unit does that work for both, each
// described by a ring_period.
#pragma once

#include "core/period_clock.h"
#include "core/usage_totals.h"
#include "core/wan_usage.h"

#include <cstdio>
#include <ctime>

struct ring_period {
    const char* history_wan;   // history file of a WAN record (format with the WAN number)
    const char* history_sim;   // ... of a SIM record (WAN number, SIM number)
    const char* export_wan;    // CSV export of a WAN record
    const char* export_sim;    // ... of a SIM record
    const char* total;         // router-wide total file
    const char* client_dir;    // client usage directory the total is back-filled from
    const char* client_path;   // format of a file in it
    uint32_t ring_size;        // 32 hours or 64 days
    int history_lines;         // lines of the history file: 23 or 59
    int total_rows;            // lines of the total file: 24 or 60
    uint32_t changed_flag;     // history_flags bit set when the history file is rewritten
    time_t wan_usage::*bucket_time;
    uint64_t (wan_usage::*current)[2];
    uint32_t wan_usage::*head;
    uint32_t wan_usage::*tail;
    usage_entry* (*ring)(wan_usage&);
    time_t period_clock::*clock_start; // start of the current period
    time_t period_clock::*clock_end;   // end of the current period
    void (*to_start)(struct tm*);      // the period's start: hour, or day, at 00:00
    void (*to_end)(struct tm*);        // the period's last second
    void (*write_line)(FILE*, const struct tm&, uint32_t, uint32_t);
};

extern const ring_period hourly_period;
extern const ring_period daily_period;

// Bucket times of exactly 1230768000 never roll over (their line is still written): the
// threshold of a finished period is one second later on purpose.
constexpr time_t EARLIEST_ROLLOVER_TIME = 1230768001;

void ring_rollover(wan_usage& record, const ring_period& period);
void write_ring_history(wan_usage& record, const ring_period& period);
void export_ring_csv(const wan_usage& record, const ring_period& period);
void rebuild_ring_total(const usage_row* rows, int count, const ring_period& period);
void update_ring_total(const usage_row* rows, int count, const ring_period& period);
void fill_ring_total_from_clients(FILE* stream, const struct tm& tm, int count,
                                  const ring_period& period);

// Adds up the third and fourth fields ("%[^:,],%[^:,],%llu,%llu") over all lines of a
// client usage file: only when both sums are given; a missing file leaves them 0.
void sum_client_usage_file(const char* path, uint64_t* sum1, uint64_t* sum2);
