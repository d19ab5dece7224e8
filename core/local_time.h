// Local-time arithmetic shared by the whole daemon.
//
// All period arithmetic is done on broken-down local time and normalised by mktime with
// tm_isdst set to -1, so that the C library decides daylight saving for the time as it
// stands (day 0 of a month is the last day of the month before). Nothing here caches the
// time zone: TZ is read by the C library as usual.
#pragma once

#include <ctime>

// The local time of t. When t cannot be broken down (far outside the calendar the C
// library handles), the result is all zero rather than undefined.
struct tm local_tm(time_t t);

// mktime of tm with tm_isdst set to -1 first; tm is normalised in place.
time_t normalise_local(struct tm* tm);

// mktime of a copy of tm with tm_isdst set to -1; tm itself is left alone.
time_t local_time_of(const struct tm& tm);

// Start (mm:ss 00:00) and end (mm:ss 59:59) of the local hour that holds t.
time_t start_of_hour(time_t t);
time_t end_of_hour(time_t t);
// Start (00:00:00) and end (23:59:59) of the local day that holds t.
time_t start_of_day(time_t t);
time_t end_of_day(time_t t);
// The 1st of the local month that holds t, 00:00:00.
time_t start_of_month(time_t t);

// The last day of the month of tm, at 23:59:59, found as day 0 of the following month
// and normalised (so a leap year's February ends on the 29th).
struct tm last_day_of_month(const struct tm& tm);
