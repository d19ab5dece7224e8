// Per-link allowance settings from the router's configuration file.
#pragma once

#include "core/wan_usage.h"

#include <ctime>

constexpr const char* CONFIG_PATH = "/usr/local/velto/conf/config";

// The modification time of the file at one of the daemon's absolute paths, or 0 when it
// cannot be read with stat.
time_t get_config_time(const char* absolute_path);

// The last second of the billing cycle that follows the one starting at billing_start, for
// start day d (1..31 a day of the month, 0 the last day of the month). Days a month lacks
// are left to mktime's normalisation (day 31 in April becomes 1 May).
time_t billing_end_for(time_t billing_start, int d);

// Copies the billing start day, allowance, action, link name and router name of every
// record from the configuration file, and works out each record's billing_end, unless the
// file's modification time still equals *saved_mtime. When the file cannot be loaded the
// records and *saved_mtime stay as they are, so the next call tries again.
void load_wan_quota_config(wan_usage* records, int count, time_t* saved_mtime);
