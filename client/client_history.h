// The client history files: one CSV file per hour, day and month, their retention, and
// their copies under "/tmp".
#pragma once

#include "client/client_table.h"
#include "core/dated_files.h"

#include <ctime>

// The live directory of a period kind.
const char* client_live_dir(int kind);
// The backup directory of a period kind.
const char* client_backup_dir(int kind);

// Writes every table's present clients to the file of its period; a period without traffic
// leaves no file (and an older file of that name alone). Also limits the directories.
void save_client_usage(client_usage_tables* tables);

// Loads the history file of the period that holds tm into the table: with the baseline flag
// the file's values become the clients' counters and raw values, without it the first line
// of each client only creates the client.
void load_client_period_file(const struct tm& tm, client_table& table, int kind, bool baseline);

// Copies the live directories to their backup places.
void create_backup_client_usage(client_usage_tables* tables);
// Removes the live directories (start-up, before the restore from the backups).
void client_usage_cleanup_history_files();
