#include "core/local_time.h"

#include <cstdlib>
#include <cstring>
#include <string>

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

namespace {

// The results of local_time_of, remembered: the histories' sums and writers turn the same
// few dozen dates into times every tick (the days of a month, the dates of the exported
// lines), and each mktime walks the zone's rules. mktime of the same fields, with
// daylight saving left to the library, gives the same time as long as the zone is the same;
// glibc reads the zone again only when the TZ variable changes, so the remembered times are
// dropped whenever TZ is not what it was. Direct-mapped by the fields; a slot holds the
// latest date that maps to it.
struct remembered_time {
    int year, mon, mday, hour, min, sec;
    time_t time;
    bool used;
};
constexpr unsigned REMEMBERED = 128;
remembered_time remembered[REMEMBERED];
std::string remembered_zone;   // the TZ value the remembered times were made with
bool remembered_zone_set = false; // whether TZ was set then

// Drops the remembered times when TZ is not what it was when they were made.
void check_zone()
{
    const char* zone = getenv("TZ");
    if (remembered_zone_set == (zone != nullptr) && (!zone || remembered_zone == zone))
        return;
    for (remembered_time& slot : remembered)
        slot.used = false;
    remembered_zone_set = zone != nullptr;
    remembered_zone = zone ? zone : "";
}

bool same_fields(const struct tm& a, const struct tm& b)
{
    return a.tm_year == b.tm_year && a.tm_mon == b.tm_mon && a.tm_mday == b.tm_mday && a.tm_hour == b.tm_hour &&
           a.tm_min == b.tm_min && a.tm_sec == b.tm_sec;
}

// Whether time is the one and only time whose local time shows tm's fields. Only then is
// mktime's answer the same whatever it computed before: for a time that a change of
// daylight saving (or of the zone's offset) skips, or shows twice, glibc's answer depends
// on its guess from the previous call, and such a time is never remembered. A local time
// shown twice, or skipped, lies within a day of the change that causes it, and the offset
// from UTC differs across that change; so a time that shows tm's fields and has the same
// offset a day before and a day after is the only one.
bool only_time_of(const struct tm& tm, time_t time)
{
    struct tm shown, before, after;
    const time_t day = 86400;
    const time_t earlier = time - day;
    const time_t later = time + day;
    return time != static_cast<time_t>(-1) && localtime_r(&time, &shown) && same_fields(shown, tm) &&
           localtime_r(&earlier, &before) && localtime_r(&later, &after) && before.tm_gmtoff == shown.tm_gmtoff &&
           after.tm_gmtoff == shown.tm_gmtoff;
}

} // namespace

time_t local_time_of(const struct tm& tm)
{
    check_zone();
    const unsigned hash = static_cast<unsigned>(tm.tm_year) * 31u * 31u * 31u + static_cast<unsigned>(tm.tm_mon) * 31u * 31u +
                          static_cast<unsigned>(tm.tm_mday) * 31u + static_cast<unsigned>(tm.tm_hour) +
                          static_cast<unsigned>(tm.tm_min) * 7u + static_cast<unsigned>(tm.tm_sec) * 11u;
    remembered_time& slot = remembered[hash % REMEMBERED];
    if (slot.used && slot.year == tm.tm_year && slot.mon == tm.tm_mon && slot.mday == tm.tm_mday &&
        slot.hour == tm.tm_hour && slot.min == tm.tm_min && slot.sec == tm.tm_sec)
        return slot.time;
    struct tm copy = tm;
    const time_t time = normalise_local(&copy);
    if (only_time_of(tm, time))
        slot = {tm.tm_year, tm.tm_mon, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, time, true};
    return time;
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
