// Per-client usage on the LAN side, keyed by client IP address: one kernel reading per
// tick into the hourly, daily and monthly tables.
#pragma once

#include "client/client_history.h"
#include "client/client_table.h"

#include <memory>

// Allocates the three tables, restores the live directories from their backups and loads
// the current hour's, day's and month's files. Null when memory runs out, which ends the
// start-up.
client_usage_tables* client_usage_init();

// One reading of "/proc/korel/config/client_usage": period checks, classification, then
// every client line counted into the three tables.
void read_client_usage(client_usage_tables* tables);

// Checks that the table still describes the period that starts at start; a new period zeroes
// every client's counters (raw values, baseline flags and types stay) and loads the new
// period's file when there is one.
void check_client_period(client_table& table, time_t start);

// Frees the tables and every client. The daemon never does while it runs; this is for a
// clean shutdown of the tools and tests that run the daemon's code.
void client_usage_free(client_usage_tables* tables);

struct client_tables_deleter {
    void operator()(client_usage_tables* tables) const { client_usage_free(tables); }
};
using client_tables_ptr = std::unique_ptr<client_usage_tables, client_tables_deleter>;
