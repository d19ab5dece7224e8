// Directories of dated files, one file per hour, day or month named after the period's
// start: the names of the files and the retention of a directory.
#pragma once

#include <ctime>
#include <string>

// The name of the period of the given kind that starts at start: "%Y-%m-%d-%H" for hours,
// "%Y-%m-%d" for days and months (of the month's first day); empty when the local time
// cannot be formatted.
std::string dated_file_stem(int kind, time_t start);

// "dir/stem.csv".
std::string dated_file_path(const char* dir, const std::string& stem);

// Keeps the keep newest dated files of a directory (names compared as text), after deleting
// the files dated after the current period once the clock is marked as set.
void client_usage_dir_limit(const char* dir, int kind, int keep);
