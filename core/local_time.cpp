#include "core/local_time.h"

#include <cstring>

struct tm local_tm(time_t t)
{
    struct tm tm;
    if (!localtime_r(&t, &tm))
        memset(&tm, 0, sizeof tm);
    return tm;
}

time_t normalise_local(struct tm* tm)
{
    tm->tm_isdst = -1;
    return mktime(tm);
}

time_t local_time_of(const struct tm& tm)
{
    struct tm copy = tm;
    return normalise_local(&copy);
}

namespace {

// t's local date at the given time of day, normalised; a negative hour keeps t's own hour.
time_t at_time_of_day(time_t t, int hour, int min, int sec)
{
    struct tm tm = local_tm(t);
    if (hour >= 0)
        tm.tm_hour = hour;
    tm.tm_min = min;
    tm.tm_sec = sec;
    return normalise_local(&tm);
}

} // namespace

time_t start_of_hour(time_t t) { return at_time_of_day(t, -1, 0, 0); }
time_t end_of_hour(time_t t) { return at_time_of_day(t, -1, 59, 59); }
time_t start_of_day(time_t t) { return at_time_of_day(t, 0, 0, 0); }
time_t end_of_day(time_t t) { return at_time_of_day(t, 23, 59, 59); }

time_t start_of_month(time_t t)
{
    struct tm tm = local_tm(t);
    tm.tm_mday = 1;
    tm.tm_hour = 0;
    tm.tm_min = 0;
    tm.tm_sec = 0;
    return normalise_local(&tm);
}

struct tm last_day_of_month(const struct tm& tm)
{
    struct tm end = tm;
    end.tm_mday = 0;
    end.tm_mon += 1;
    if (end.tm_mon == 12) {
        end.tm_mon = 0;
        end.tm_year += 1;
    }
    end.tm_hour = 23;
    end.tm_min = 59;
    end.tm_sec = 59;
    end = local_tm(normalise_local(&end));
    // Broken down again and set to 23:59:59 once more, so that a day whose last hour a
    // daylight-saving change moved still ends at 23:59:59.
    end.tm_hour = 23;
    end.tm_min = 59;
    end.tm_sec = 59;
    normalise_local(&end);
    return end;
}
