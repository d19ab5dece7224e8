// The daemon: start-up, the alarm-driven loop and one tick of work.
#pragma once

#include "client/client_usage.h"
#include "core/usage_totals.h"
#include "core/wan_usage.h"

#include <cstdlib>
#include <ctime>
#include <memory>

struct record_array_deleter {
    void operator()(wan_usage* p) const { free(p); }
};
using record_array = std::unique_ptr<wan_usage[], record_array_deleter>;

// Everything the loop keeps between ticks. Allocated once at start-up; the daemon never
// frees it while it runs.
struct daemon_state {
    record_array wan;          // record i describes WAN i + 1
    int wan_count = 0;
    record_array sim;          // two records per dual-SIM link, SIM 1 first; null when none
    int sim_count = 0;         // 2 x the number of dual-SIM links
    time_t config_mtime_wan = -1; // -1 so that the first tick always loads the configuration
    time_t config_mtime_sim = -1;
    usage_totals totals{};
    client_tables_ptr clients;
};

constexpr unsigned TICK_SECONDS = 30;

// Start-up with wan_count WAN links: pid file, start-up log line, directories, signal
// handlers, records, baseline sample, restore, client tables, dual-SIM records, and the
// first alarm. Returns 0, or 1 when an allocation failed.
int daemon_start(daemon_state& state, int wan_count);

// One tick of work: configuration, counters, histories and exports, the router totals,
// the allowance check and alerts, client usage; then the next alarm is armed.
void process_tick(daemon_state& state);

// One pass of the loop after a wake-up: the tick when one is pending, the periodic and the
// requested backups when due, and the count of wake-ups since the last periodic backup.
void loop_pass(daemon_state& state);

// Runs the daemon with wan_count WAN links. Returns 1 when start-up fails; otherwise it
// never returns (the process ends on SIGINT or SIGTERM).
int run_daemon(int wan_count);
