#include "core/billing_cycle.h"

#include "core/local_time.h"

namespace {

// A month's search can step back through the whole calendar when d is far beyond any
// month's length; this many steps (a century) bound it.
constexpr int MAX_MONTHS_BACK = 1200;

// Day d of tm's month at 00:00:00, or, when d is 0, the month's last day at the given time
// of day; daylight saving is left to the library.
struct tm cycle_day(const struct tm& month, int d, int hour, int min, int sec)
{
    struct tm day = month;
    if (d == 0) {
        day = last_day_of_month(month);
    } else {
        day.tm_mday = d;
        hour = min = sec = 0;
    }
    day.tm_hour = hour;
    day.tm_min = min;
    day.tm_sec = sec;
    day.tm_isdst = -1;
    return day;
}

} // namespace

time_t billing_cycle_start(time_t at, int d)
{
    struct tm candidate = cycle_day(local_tm(at), d, 0, 0, 0);
    // mktime normalises the candidate in place, so each step back starts from the
    // normalised date.
    for (int steps = 0; normalise_local(&candidate) > at && steps < MAX_MONTHS_BACK; ++steps) {
        if (candidate.tm_mon == 0) {
            candidate.tm_mon = 11;
            candidate.tm_year -= 1;
        } else {
            candidate.tm_mon -= 1;
        }
        if (d == 0)
            candidate = cycle_day(candidate, d, 23, 59, 59);
    }
    // A cycle starts at midnight; the 23:59:59 of the last-day case only served the search.
    candidate.tm_hour = 0;
    candidate.tm_min = 0;
    candidate.tm_sec = 0;
    return normalise_local(&candidate);
}

time_t billing_cycle_end(time_t start, int d)
{
    struct tm next = local_tm(start);
    next.tm_mon += 1;
    if (next.tm_mon == 12) {
        next.tm_mon = 0;
        next.tm_year += 1;
    }
    next = cycle_day(next, d, 0, 0, 0);
    // The last second before the next cycle starts.
    return normalise_local(&next) - 1;
}
