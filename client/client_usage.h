// Per-client usage on the LAN side, keyed by client IP address.
#pragma once

#include <memory>

// The block of the hourly, daily and monthly client tables.
struct client_usage_tables;

// Removes the live client history directories (start-up, before the restore).
void client_usage_cleanup_history_files();
// Allocates the client tables and restores them from the backups; null when memory runs
// out, which ends the start-up.
client_usage_tables* client_usage_init();
void read_client_usage(client_usage_tables* tables);
void save_client_usage(client_usage_tables* tables);
void create_backup_client_usage(client_usage_tables* tables);
// Frees the tables. The daemon never does while it runs; this is for a clean shutdown of
// the tools and tests that run the daemon's code.
void client_usage_free(client_usage_tables* tables);

struct client_tables_deleter {
    void operator()(client_usage_tables* tables) const { client_usage_free(tables); }
};
using client_tables_ptr = std::unique_ptr<client_usage_tables, client_tables_deleter>;
