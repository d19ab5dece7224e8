#include "sandbox.h"

#include "core/local_time.h"
#include "core/period_clock.h"

namespace {

class PeriodClock : public Sandbox {};

TEST_F(PeriodClock, HourAndDayBoundsInUtc)
{
    plat.clock = local(2024, 3, 5, 14, 27, 13);
    update_period_clock();
    const period_clock& c = current_period_clock();
    EXPECT_EQ(show(c.hour_start), "2024-03-05 14:00:00 UTC");
    EXPECT_EQ(show(c.hour_end), "2024-03-05 14:59:59 UTC");
    EXPECT_EQ(show(c.day_start), "2024-03-05 00:00:00 UTC");
    EXPECT_EQ(show(c.day_end), "2024-03-05 23:59:59 UTC");
}

TEST_F(PeriodClock, BerlinSpringForwardDayHas23Hours)
{
    set_tz("Europe/Berlin");
    plat.clock = local(2024, 3, 31, 3, 30, 0); // 02:00 does not exist that day
    update_period_clock();
    const period_clock& c = current_period_clock();
    EXPECT_EQ(show(c.hour_start), "2024-03-31 03:00:00 CEST");
    EXPECT_EQ(show(c.day_start), "2024-03-31 00:00:00 CET");
    EXPECT_EQ(show(c.day_end), "2024-03-31 23:59:59 CEST");
    EXPECT_EQ(c.day_end - c.day_start, 23 * 3600 - 1);
}

TEST_F(PeriodClock, NewYorkFallBackRepeatedHourIsTheFirstOccurrence)
{
    set_tz("America/New_York");
    // 2024-11-03 01:30 happens twice; this is the second time (EST, 06:30 UTC). The bounds
    // are worked out with daylight saving left to the library, which here takes 01:00 and
    // 01:59:59 of the first occurrence (EDT): the current hour's end lies before now.
    plat.clock = 1730615400;
    // glibc resolves an hour that happens twice from its previous conversion: one of a summer
    // date first, as the daemon's own work of the hour before would have done.
    struct tm summer = local_tm(local(2024, 7, 1));
    local_time_of(summer);
    update_period_clock();
    const period_clock& c = current_period_clock();
    EXPECT_EQ(show(c.hour_start), "2024-11-03 01:00:00 EDT");
    EXPECT_EQ(c.hour_start, 1730610000);
    EXPECT_EQ(c.hour_end, 1730613599);
    EXPECT_EQ(show(c.day_start), "2024-11-03 00:00:00 EDT");
    EXPECT_EQ(c.day_end - c.day_start, 25 * 3600 - 1);
}

TEST_F(PeriodClock, LordHoweHalfHourShiftDay)
{
    set_tz("Australia/Lord_Howe");
    // 2024-04-07: clocks go back from 02:00 (+11) to 01:30 (+1030).
    plat.clock = local(2024, 4, 7, 12, 10, 0);
    update_period_clock();
    const period_clock& c = current_period_clock();
    EXPECT_EQ(show(c.hour_start), "2024-04-07 12:00:00 +1030");
    EXPECT_EQ(show(c.day_start), "2024-04-07 00:00:00 +11");
    EXPECT_EQ(c.day_end - c.day_start, 24 * 3600 + 1800 - 1);
}

TEST_F(PeriodClock, InitPeriodBucketsStartsBucketsAtHourAndDayOfNow)
{
    set_tz("America/New_York");
    plat.clock = local(2024, 2, 29, 23, 59, 50);
    wan_usage r{};
    r.sample_time = 1234;
    r.hour_bytes[0] = 77;
    init_period_buckets(r);
    EXPECT_EQ(r.periods_initialised, 1);
    EXPECT_EQ(r.prev_sample_time, 1234);
    EXPECT_EQ(r.sample_time, plat.clock);
    EXPECT_EQ(r.sample_tm.tm_mday, 29);
    EXPECT_EQ(show(r.hour_bucket_time), "2024-02-29 23:00:00 EST");
    EXPECT_EQ(show(r.day_bucket_time), "2024-02-29 00:00:00 EST");
    EXPECT_EQ(r.hour_bytes[0], 77u); // counters are not touched
    EXPECT_EQ(show(current_period_clock().day_end), "2024-02-29 23:59:59 EST");
}

TEST_F(PeriodClock, InitPeriodBucketsRunsOnlyOnce)
{
    plat.clock = local(2024, 2, 28, 10, 0, 0);
    wan_usage r{};
    init_period_buckets(r);
    plat.clock = local(2024, 2, 28, 12, 0, 0);
    init_period_buckets(r);
    EXPECT_EQ(show(r.hour_bucket_time), "2024-02-28 10:00:00 UTC");
    EXPECT_EQ(show(r.sample_time), "2024-02-28 10:00:00 UTC");
}

TEST_F(PeriodClock, LastDayOfMonthInLeapAndCommonYears)
{
    struct tm feb = local_tm(local(2024, 2, 10));
    struct tm end = last_day_of_month(feb);
    EXPECT_EQ(show(local_time_of(end)), "2024-02-29 23:59:59 UTC");
    feb = local_tm(local(2023, 2, 10));
    EXPECT_EQ(show(local_time_of(last_day_of_month(feb))), "2023-02-28 23:59:59 UTC");
    struct tm dec = local_tm(local(2024, 12, 31, 12));
    EXPECT_EQ(show(local_time_of(last_day_of_month(dec))), "2024-12-31 23:59:59 UTC");
}

TEST_F(PeriodClock, StartOfMonthAcrossZones)
{
    set_tz("Australia/Lord_Howe");
    EXPECT_EQ(show(start_of_month(local(2024, 10, 6, 3, 0, 0))), "2024-10-01 00:00:00 +1030");
    set_tz("America/New_York");
    EXPECT_EQ(show(start_of_month(local(2024, 3, 31, 23, 0, 0))), "2024-03-01 00:00:00 EST");
}

} // namespace
