#include "sandbox.h"

#include "core/usage_totals.h"

#include <cstring>

namespace {

class UsageTotals : public Sandbox {
protected:
    static usage_entry hour(int mday, int h, uint64_t b1, uint64_t b2)
    {
        usage_entry e{};
        e.when.tm_year = 124;
        e.when.tm_mon = 2;
        e.when.tm_mday = mday;
        e.when.tm_hour = h;
        e.when.tm_isdst = -1;
        e.bytes[0] = b1;
        e.bytes[1] = b2;
        return e;
    }
    static wan_usage record_with_hours(int hours)
    {
        wan_usage r{};
        r.hour_bucket_time = local(2024, 3, 5, 14, 10);
        r.hour_bytes[0] = 1000;
        r.hour_bytes[1] = 2000;
        for (int h = 0; h < hours; ++h)
            ring_push(r.hourly, HOURLY_RING_SIZE, &r.hourly_head, &r.hourly_tail,
                      hour(5, 14 - hours + h, 10, 20));
        return r;
    }
};

TEST_F(UsageTotals, ClearKeepsFlagsAndZeroesRows)
{
    usage_totals t{};
    t.flags = TOTALS_BUILT | TOTALS_DAILY_CHANGED;
    t.hourly_count = 5;
    t.daily[3].bytes[0] = 9;
    clear_usage_totals(t);
    EXPECT_EQ(t.flags, TOTALS_BUILT | TOTALS_DAILY_CHANGED);
    EXPECT_EQ(t.hourly_count, 0);
    EXPECT_EQ(t.daily[3].bytes[0], 0u);
}

TEST_F(UsageTotals, RowsAreSummedByPositionAndCountIsTheLongestRecord)
{
    usage_totals t{};
    wan_usage a = record_with_hours(2);
    wan_usage b = record_with_hours(5);
    aggregate_hourly_daily(t, a);
    aggregate_hourly_daily(t, b);
    EXPECT_EQ(t.hourly_count, 6);
    EXPECT_EQ(t.hourly[0].bytes[0], 2000u);
    EXPECT_EQ(t.hourly[0].bytes[1], 4000u);
    EXPECT_EQ(t.hourly[0].when.tm_hour, 14);
    EXPECT_EQ(t.hourly[1].bytes[0], 20u); // both records' newest finished hour
    EXPECT_EQ(t.hourly[3].bytes[0], 10u); // only the longer record reaches row 3
    EXPECT_EQ(t.hourly[1].when.tm_hour, 13);
    EXPECT_EQ(t.hourly[5].when.tm_hour, 9);
    EXPECT_EQ(t.daily_count, 1); // empty daily rings: the current day only
}

TEST_F(UsageTotals, AtMost24HourlyRowsFromAFullRing)
{
    usage_totals t{};
    wan_usage r = record_with_hours(31);
    aggregate_hourly_daily(t, r);
    EXPECT_EQ(t.hourly_count, 24);
}

TEST_F(UsageTotals, LastRecordToReachARowDecidesItsTime)
{
    usage_totals t{};
    wan_usage a = record_with_hours(1);
    wan_usage b{};
    b.hour_bucket_time = local(2024, 3, 5, 14, 10);
    ring_push(b.hourly, HOURLY_RING_SIZE, &b.hourly_head, &b.hourly_tail, hour(4, 2, 1, 1));
    aggregate_hourly_daily(t, a);
    aggregate_hourly_daily(t, b);
    EXPECT_EQ(t.hourly[1].when.tm_mday, 4);
    EXPECT_EQ(t.hourly[1].when.tm_hour, 2);
    EXPECT_EQ(t.hourly[1].bytes[0], 11u);
}

TEST_F(UsageTotals, HistoryChangedBitsMoveIntoTotalsFlags)
{
    usage_totals t{};
    wan_usage r{};
    r.history_flags = HISTORY_HOURLY_CHANGED | HISTORY_DAILY_CHANGED | HISTORY_MONTHLY_CHANGED;
    aggregate_hourly_daily(t, r);
    EXPECT_EQ(t.flags, TOTALS_HOURLY_CHANGED | TOTALS_DAILY_CHANGED);
    EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED); // the monthly bit is moved later
}

} // namespace
