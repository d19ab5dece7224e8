// local_time_of remembers the times it made: the remembered answer must be mktime's, in
// every zone, across every change of daylight saving, and never outlive a change of TZ.
#include "core/local_time.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

void set_zone(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

// mktime of a copy with daylight saving left to the library, as local_time_of is defined.
time_t mktime_of(const struct tm& tm)
{
    struct tm copy = tm;
    copy.tm_isdst = -1;
    return mktime(&copy);
}

// Every half hour of 2024 and of 2038 (both daylight-saving changes of each), local time
// fields taken from UTC steps, asked twice each and again after the whole sweep.
void expect_mktime_everywhere(const char* zone)
{
    set_zone(zone);
    for (time_t start : {static_cast<time_t>(1704067200), static_cast<time_t>(2145916800)}) {
        for (int pass = 0; pass < 2; ++pass)
            for (time_t t = start; t < start + 366 * 86400; t += 1800) {
                struct tm tm;
                ASSERT_NE(localtime_r(&t, &tm), nullptr);
                // A direct mktime of the same fields just before leaves glibc's guess where
                // local_time_of's own mktime would find it, so even a time shown twice
                // compares.
                const time_t expected = mktime_of(tm);
                ASSERT_EQ(local_time_of(tm), expected) << zone << " at " << t << ", pass " << pass;
                ASSERT_EQ(local_time_of(tm), expected) << zone << " at " << t << ", again";
            }
    }
}

} // namespace

TEST(LocalTime, RememberedTimesAreMktimesInEveryZone)
{
    expect_mktime_everywhere("Europe/Berlin");
    expect_mktime_everywhere("America/New_York");
    expect_mktime_everywhere("Australia/Lord_Howe"); // half-hour daylight saving
    expect_mktime_everywhere("UTC");
    set_zone("UTC");
}

TEST(LocalTime, ATimeShownTwiceIsOneOfItsTwoTimes)
{
    set_zone("Europe/Berlin");
    struct tm tm = {};
    tm.tm_year = 2024 - 1900;
    tm.tm_mon = 9;
    tm.tm_mday = 27;
    tm.tm_hour = 2;
    tm.tm_min = 30; // 2024-10-27 02:30 is shown at 00:30 UTC and again at 01:30 UTC
    const time_t t = local_time_of(tm);
    EXPECT_TRUE(t == 1729989000 || t == 1729992600) << t;
    set_zone("UTC");
}

TEST(LocalTime, AChangeOfTzDropsTheRememberedTimes)
{
    struct tm tm = {};
    tm.tm_year = 2024 - 1900;
    tm.tm_mon = 5;
    tm.tm_mday = 1;
    set_zone("UTC");
    EXPECT_EQ(local_time_of(tm), 1717200000);
    EXPECT_EQ(local_time_of(tm), 1717200000);
    set_zone("Europe/Berlin");
    EXPECT_EQ(local_time_of(tm), 1717200000 - 7200);
    set_zone("America/New_York");
    EXPECT_EQ(local_time_of(tm), 1717200000 + 4 * 3600);
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(local_time_of(tm), mktime_of(tm));
    set_zone("UTC");
    EXPECT_EQ(local_time_of(tm), 1717200000);
}
