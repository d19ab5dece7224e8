// Backup of the records' histories under "/tmp/ruvo_backup" and their restore at start-up.
//
// The live history files under "/var/run/korel" do not survive a restart of the router;
// the backup directory is stored away by the firmware's configuration saver. Backups hold
// bytes where the live files hold MiB.
#pragma once

#include "core/wan_usage.h"

// Writes the four backup files of every record (running period and ring or history), the
// time-stamp file and the lifetime totals.
void backup_usage(wan_usage* records, int count);

// Reads every record's backups back (hourly, daily, monthly, billing) and rewrites its live
// history files from them. A record without backup files starts empty.
void restore_usage(wan_usage* records, int count);

// The restore of one record's hourly or daily state, and of its monthly or billing history.
void restore_hourly(wan_usage& record);
void restore_daily(wan_usage& record);
void restore_monthly(wan_usage& record);
void restore_billing(wan_usage& record);
