// The daily history of a WAN usage record: the rollover of the current day into the ring,
// the repair of the ring when the clock goes back, the history file and CSV export, the
// month and billing-cycle sums, and the router-wide daily total with its back-fill from the
// client daily files. Every tick is simulated the way the main loop runs it: the clock is
// set, the period clock refreshed, the sample stored in the record, then the rollover runs.
#include "sandbox.h"

#include "core/local_time.h"
#include "core/period_clock.h"
#include "core/usage_totals.h"
#include "core/wan_usage.h"
#include "history/daily.h"
#include "history/ring_history.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr uint64_t MiB = 1ull << 20;

constexpr const char* HISTORY = "/var/run/korel/wan1/usage_history.daily";
constexpr const char* EXPORT = "/var/run/korel/wan1/link_usage_daily.csv";
constexpr const char* TOTAL = "/var/run/korel/link_usage_daily_total.csv";
constexpr const char* CLIENT_DIR = "/var/run/korel/client_usage_daily";

class DailyBase : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        write_file("/tmp/.keep", "");
        write_file("/var/run/korel/wan1/.keep", "");
        write_file("/var/run/korel/wan2/.keep", "");
    }

    // A WAN 1 record last sampled at t, whose current day holds mib1/mib2 MiB.
    static wan_usage record_at(time_t t, uint64_t mib1, uint64_t mib2)
    {
        wan_usage r{};
        r.wan_index = 0;
        r.sim_number = 0;
        r.sim_slot_index = -1;
        r.start_day = -1;
        r.sample_time = t;
        r.sample_tm = local_tm(t);
        r.day_bucket_time = t;
        r.day_bytes[0] = mib1 * MiB;
        r.day_bytes[1] = mib2 * MiB;
        return r;
    }

    // One tick at t whose sample brought mib1/mib2 MiB.
    void tick(wan_usage& r, time_t t, uint64_t mib1, uint64_t mib2)
    {
        plat.clock = t;
        update_period_clock();
        r.prev_sample_time = r.sample_time;
        r.sample_time = t;
        r.sample_tm = local_tm(t);
        r.delta[0] = mib1 * MiB;
        r.delta[1] = mib2 * MiB;
        daily_rollover(r);
    }

    std::string exported(const wan_usage& r)
    {
        export_daily_csv(r);
        return read_file(EXPORT);
    }

    static usage_entry day_entry(int year, int month, int day, uint64_t b1, uint64_t b2)
    {
        usage_entry e{};
        e.when.tm_year = year - 1900;
        e.when.tm_mon = month - 1;
        e.when.tm_mday = day;
        e.when.tm_isdst = -1;
        e.bytes[0] = b1;
        e.bytes[1] = b2;
        return e;
    }

    static void push(wan_usage& r, const usage_entry& e)
    {
        ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail, e);
    }

    template <typename Write>
    static std::string written(Write write)
    {
        char* buffer = nullptr;
        size_t size = 0;
        FILE* stream = open_memstream(&buffer, &size);
        write(stream);
        fclose(stream);
        std::string text(buffer, size);
        free(buffer);
        return text;
    }

    static std::string lines(int from, int to)
    {
        std::string text;
        for (int k = from; k <= to; ++k)
            text += "old " + std::to_string(k) + "\n";
        return text;
    }
};

class DailyRollover : public DailyBase {};
class DailyClockBack : public DailyBase {};
class DailySums : public DailyBase {};
class DailyHistoryFile : public DailyBase {};
class DailyTotalFile : public DailyBase {};

// "2024-MM-DD" of the day j days after 2024-01-01 (j below 91): January has 31 days,
// February 29.
std::string date_2024(int j)
{
    static const int month_days[] = {31, 29, 31};
    int month = 0;
    while (j >= month_days[month]) {
        j -= month_days[month];
        ++month;
    }
    std::string text = "2024-";
    text += static_cast<char>('0' + (month + 1) / 10);
    text += static_cast<char>('0' + (month + 1) % 10);
    text += '-';
    text += static_cast<char>('0' + (j + 1) / 10);
    text += static_cast<char>('0' + (j + 1) % 10);
    return text;
}

// ---------------------------------------------------------------------------------------
// Rollover

TEST_F(DailyRollover, TickAt000020AfterBucket235950_WholeDayEntersRingDeltaCountsInNewDay)
{
    wan_usage r = record_at(local(2024, 3, 5, 12, 0, 0), 3, 1);
    tick(r, local(2024, 3, 5, 23, 59, 50), 4, 2); // same day: nothing rolls
    EXPECT_EQ(r.daily_head, 0u);

    tick(r, local(2024, 3, 6, 0, 0, 20), 1, 5);
    // 23:59:50 lies before the new day's start: the 5th enters the ring with 3+4 and 1+2
    // MiB; the delta of the 00:00:20 sample is the 6th's.
    EXPECT_EQ(r.daily_head, 1u);
    EXPECT_EQ(r.daily_tail, 0u);
    EXPECT_EQ(r.daily[0].when.tm_year, 124);
    EXPECT_EQ(r.daily[0].when.tm_mon, 2);
    EXPECT_EQ(r.daily[0].when.tm_mday, 5);
    EXPECT_EQ(r.daily[0].when.tm_hour, 0);
    EXPECT_EQ(r.daily[0].when.tm_min, 0);
    EXPECT_EQ(r.daily[0].when.tm_sec, 0);
    EXPECT_EQ(r.daily[0].when.tm_isdst, -1);
    EXPECT_EQ(r.daily[0].bytes[0], 7 * MiB);
    EXPECT_EQ(r.daily[0].bytes[1], 3 * MiB);
    EXPECT_EQ(r.day_bytes[0], 1 * MiB);
    EXPECT_EQ(r.day_bytes[1], 5 * MiB);
    EXPECT_EQ(r.day_bucket_time, local(2024, 3, 6, 0, 0, 20));
    EXPECT_EQ(r.history_flags, HISTORY_DAILY_CHANGED);
    EXPECT_EQ(read_file(HISTORY), "2024-03-05,7,3\n");
    EXPECT_EQ(exported(r), "2024-03-06,1,5\n"
                           "2024-03-05,7,3\n");
}

TEST_F(DailyRollover, SeventyDays_HistoryHolds59LinesExport60RingHolds63)
{
    // One tick at noon of every day from 2024-01-01 on; the sample of tick k brings k+1 and
    // 1 MiB, so day k holds exactly (k+1, 1). Tick k (k >= 1) rolls day k-1.
    wan_usage r = record_at(local(2024, 1, 1, 0, 0, 0), 0, 0);
    for (int k = 0; k <= 70; ++k) {
        tick(r, local(2024, 1, 1 + k, 12, 0, 0), k + 1, 1);
        if (k == 64) {
            EXPECT_EQ(r.daily_head, 64u); // the 64th rollover drops the oldest day
            EXPECT_EQ(r.daily_tail, 1u);
        }
    }
    // 70 rollovers: head 70, tail 7; the ring holds days 7..69 (63 days).
    EXPECT_EQ(r.daily_head, 70u);
    EXPECT_EQ(r.daily_tail, 7u);
    EXPECT_EQ(r.daily[7].when.tm_mon, 0); // oldest: day 7 = 2024-01-08
    EXPECT_EQ(r.daily[7].when.tm_mday, 8);
    EXPECT_EQ(r.daily[7].bytes[0], 8 * MiB);
    EXPECT_EQ(r.daily[5].when.tm_mon, 2); // newest: day 69 = 2024-03-10, slot 69 % 64
    EXPECT_EQ(r.daily[5].when.tm_mday, 10);
    EXPECT_EQ(r.daily[5].bytes[0], 70 * MiB);

    // The file shows the newest 59 days: 69 (2024-03-10) down to 11 (2024-01-12).
    std::string history;
    for (int j = 69; j >= 11; --j)
        history += date_2024(j) + "," + std::to_string(j + 1) + ",1\n";
    ASSERT_EQ(date_2024(69), "2024-03-10");
    ASSERT_EQ(date_2024(11), "2024-01-12");
    EXPECT_EQ(read_file(HISTORY), history);
    // The export: the current day 70 (2024-03-11, 71 and 1 MiB), then those 59.
    EXPECT_EQ(exported(r), "2024-03-11,71,1\n" + history);
}

TEST_F(DailyRollover, ClockUnset_NothingRollsAndExportLeavesOutTheCurrentDay)
{
    // An unset clock runs in 1970: 1000000 is 1970-01-12 13:46:40 UTC.
    write_file(HISTORY, "2024-03-05,1,2\n"); // as restored from a backup
    wan_usage r = record_at(1000000 - 2 * 86400, 2, 2);
    tick(r, 1000000, 1, 1);
    tick(r, 1000000 + 86400, 1, 1); // another midnight passed: still nothing rolls
    EXPECT_EQ(r.daily_head, 0u);
    EXPECT_EQ(r.day_bytes[0], 4 * MiB);
    EXPECT_EQ(r.day_bytes[1], 4 * MiB);
    EXPECT_EQ(r.day_bucket_time, 1000000 + 86400);
    EXPECT_EQ(r.history_flags, 0u);
    EXPECT_EQ(read_file(HISTORY), "2024-03-05,1,2\n");
    EXPECT_EQ(exported(r), "2024-03-05,1,2\n");
}

TEST_F(DailyRollover, BucketTimeExactly1230768000_NeverRollsButItsLineIsWritten)
{
    wan_usage r = record_at(1230768000, 5, 6); // 2009-01-01 00:00:00 UTC
    EXPECT_EQ(exported(r), "2009-01-01,5,6\n");
    tick(r, local(2024, 3, 5, 10, 0, 0), 1, 1);
    EXPECT_EQ(r.daily_head, 0u);
    EXPECT_EQ(r.history_flags, 0u);
    EXPECT_EQ(read_file(HISTORY), "<missing>");
    EXPECT_EQ(r.day_bytes[0], 6 * MiB);
    EXPECT_EQ(r.day_bytes[1], 7 * MiB);
    EXPECT_EQ(exported(r), "2024-03-05,6,7\n");
}

TEST_F(DailyRollover, BucketTime1230768001_RollsIntoTheRing)
{
    wan_usage r = record_at(1230768001, 5, 6);
    tick(r, local(2024, 3, 5, 10, 0, 0), 1, 1);
    EXPECT_EQ(r.daily_head, 1u);
    EXPECT_EQ(r.history_flags, HISTORY_DAILY_CHANGED);
    EXPECT_EQ(r.day_bytes[0], 1 * MiB);
    // The day starts at 1230768000, which is not before 2009: its line is written.
    EXPECT_EQ(read_file(HISTORY), "2009-01-01,5,6\n");
    EXPECT_EQ(exported(r), "2024-03-05,1,1\n"
                           "2009-01-01,5,6\n");
}

TEST_F(DailyRollover, NewYork_Bucket1230768001_DayRollsButItsLineIsBefore2009)
{
    set_tz("America/New_York");
    // 1230768001 is 2008-12-31 19:00:01 EST: not before 1230768001, so the day rolls; but
    // the day starts at 2008-12-31 00:00 EST, before 2009: the ring holds it, no line shows
    // it.
    wan_usage r = record_at(1230768001, 5, 6);
    tick(r, local(2024, 3, 5, 10, 0), 1, 1);
    EXPECT_EQ(r.daily_head, 1u);
    EXPECT_EQ(r.daily[0].when.tm_mday, 31);
    EXPECT_EQ(r.history_flags, HISTORY_DAILY_CHANGED);
    EXPECT_EQ(read_file(HISTORY), "");
    EXPECT_EQ(exported(r), "2024-03-05,1,1\n");
}

TEST_F(DailyRollover, BucketTimeOneSecondBefore2009_ExportLineLeftOut)
{
    // 1230767999 is 2008-12-31 23:59:59 UTC, before 2009.
    wan_usage r = record_at(1230767999, 5, 6);
    EXPECT_EQ(exported(r), "");
}

// ---------------------------------------------------------------------------------------
// Clock going back

TEST_F(DailyClockBack, SetBackTwoDays_NewerDaysRemovedAndNewTimesDayResumed)
{
    wan_usage r = record_at(local(2024, 3, 1, 12, 0), 10, 1);
    tick(r, local(2024, 3, 2, 12, 0), 11, 2);
    tick(r, local(2024, 3, 3, 12, 0), 12, 3);
    tick(r, local(2024, 3, 4, 12, 0), 13, 4);
    tick(r, local(2024, 3, 5, 12, 0), 14, 5);
    ASSERT_EQ(r.daily_head, 4u); // the 1st .. 4th; the 5th is current
    r.history_flags = 0;

    tick(r, local(2024, 3, 3, 15, 0), 1, 1);
    // The bucket (5th, 12:00) lies after the 3rd's 23:59:59. The walk: the 4th is not
    // before 3rd 15:00, go on; the 3rd is: stop, head = 2 removes the 3rd and the 4th.
    // 15:00 is before the 3rd's end, so its 12/3 MiB are the current day's again, plus the
    // tick's 1/1. The 5th's traffic is given up.
    EXPECT_EQ(r.daily_head, 2u);
    EXPECT_EQ(r.daily_tail, 0u);
    EXPECT_EQ(r.day_bytes[0], 13 * MiB);
    EXPECT_EQ(r.day_bytes[1], 4 * MiB);
    EXPECT_EQ(r.day_bucket_time, local(2024, 3, 3, 15, 0));
    EXPECT_EQ(r.history_flags, HISTORY_DAILY_CHANGED);
    EXPECT_EQ(read_file(HISTORY), "2024-03-02,11,2\n"
                                  "2024-03-01,10,1\n");
    EXPECT_EQ(exported(r), "2024-03-03,13,4\n"
                           "2024-03-02,11,2\n"
                           "2024-03-01,10,1\n");

    tick(r, local(2024, 3, 4, 0, 0, 10), 2, 2); // the resumed day ends normally
    EXPECT_EQ(read_file(HISTORY), "2024-03-03,13,4\n"
                                  "2024-03-02,11,2\n"
                                  "2024-03-01,10,1\n");
}

TEST_F(DailyClockBack, SetBackIntoADayWithoutEntry_StoppingEntryRemovedTrafficGivenUp)
{
    wan_usage r = record_at(local(2024, 3, 1, 12, 0), 10, 1);
    tick(r, local(2024, 3, 2, 12, 0), 11, 2);
    tick(r, local(2024, 3, 5, 12, 0), 14, 5); // no sample on the 3rd and 4th
    tick(r, local(2024, 3, 6, 12, 0), 15, 6);
    ASSERT_EQ(r.daily_head, 3u); // the 1st, 2nd and 5th
    r.history_flags = 0;

    tick(r, local(2024, 3, 3, 12, 0), 1, 1);
    // The 5th is not before 3rd 12:00: go on; the 2nd is: stop, head = 1 removes the 2nd
    // and the 5th. 3rd 12:00 is not before the 2nd's end: its traffic is given up.
    EXPECT_EQ(r.daily_head, 1u);
    EXPECT_EQ(r.daily_tail, 0u);
    EXPECT_EQ(r.day_bytes[0], 1 * MiB);
    EXPECT_EQ(r.day_bytes[1], 1 * MiB);
    EXPECT_EQ(r.history_flags, HISTORY_DAILY_CHANGED);
    EXPECT_EQ(read_file(HISTORY), "2024-03-01,10,1\n");
}

TEST_F(DailyClockBack, SingleEntry_DroppedAndNotResumed)
{
    wan_usage r = record_at(local(2024, 3, 4, 12, 0), 10, 1);
    tick(r, local(2024, 3, 5, 12, 0), 11, 2);
    ASSERT_EQ(r.daily_head, 1u);
    r.history_flags = 0;

    tick(r, local(2024, 3, 4, 18, 0), 1, 1);
    // One entry: it is dropped; although the new time falls on its day, its traffic is not
    // taken back.
    EXPECT_EQ(r.daily_head, 0u);
    EXPECT_EQ(r.daily_tail, 0u);
    EXPECT_EQ(r.day_bytes[0], 1 * MiB);
    EXPECT_EQ(r.day_bytes[1], 1 * MiB);
    EXPECT_EQ(r.history_flags, HISTORY_DAILY_CHANGED);
    EXPECT_EQ(read_file(HISTORY), "");
    EXPECT_EQ(exported(r), "2024-03-04,1,1\n");
}

TEST_F(DailyClockBack, SetBackBeforeTheWholeRing_WalkStopsAtTailAndResumesLastExaminedDay)
{
    wan_usage r = record_at(local(2024, 3, 1, 12, 0), 10, 1);
    tick(r, local(2024, 3, 2, 12, 0), 11, 2);
    tick(r, local(2024, 3, 3, 12, 0), 12, 3);
    tick(r, local(2024, 3, 4, 12, 0), 13, 4);
    ASSERT_EQ(r.daily_head, 3u); // the 1st, 2nd and 3rd
    r.history_flags = 0;

    tick(r, local(2024, 2, 20, 12, 0), 1, 1);
    // The 3rd and the 2nd are not before 20 February; after the 2nd the index reaches the
    // tail and the walk ends without looking at the 1st. head = tail: the ring is empty.
    // The day last examined is the 2nd, and 20 February is before its end: its 11/2 MiB
    // become the current day's, plus the tick's 1/1.
    EXPECT_EQ(r.daily_head, 0u);
    EXPECT_EQ(r.daily_tail, 0u);
    EXPECT_EQ(r.day_bytes[0], 12 * MiB);
    EXPECT_EQ(r.day_bytes[1], 3 * MiB);
    EXPECT_EQ(r.history_flags, HISTORY_DAILY_CHANGED);
    EXPECT_EQ(read_file(HISTORY), "");
    EXPECT_EQ(exported(r), "2024-02-20,12,3\n");
}

TEST_F(DailyClockBack, EmptyRing_CurrentDayDroppedWithoutFileOrFlag)
{
    wan_usage r = record_at(local(2024, 3, 5, 12, 0), 14, 5);
    tick(r, local(2024, 3, 3, 12, 0), 1, 1);
    EXPECT_EQ(r.daily_head, 0u);
    EXPECT_EQ(r.day_bytes[0], 1 * MiB);
    EXPECT_EQ(r.day_bytes[1], 1 * MiB);
    EXPECT_EQ(r.day_bucket_time, local(2024, 3, 3, 12, 0));
    EXPECT_EQ(r.history_flags, 0u);
    EXPECT_EQ(read_file(HISTORY), "<missing>");
}

// ---------------------------------------------------------------------------------------
// Month and billing-cycle sums

TEST_F(DailySums, MonthStartOnTheFirst_WalkStopsAtFirstDayOfPreviousMonth)
{
    // A ring out of order, oldest first: 3 March, 28 and 29 February, 1 and 2 March. From
    // the newest: 2 and 1 March count, 29 February stops the walk; 28 February and 3 March
    // further back are not looked at.
    wan_usage r = record_at(local(2024, 3, 4, 12, 0), 0, 0);
    push(r, day_entry(2024, 3, 3, 1000, 2000));
    push(r, day_entry(2024, 2, 28, 100, 200));
    push(r, day_entry(2024, 2, 29, 10, 20));
    push(r, day_entry(2024, 3, 1, 3, 4));
    push(r, day_entry(2024, 3, 2, 5, 6));
    r.day_bytes[0] = 7;
    r.day_bytes[1] = 8;
    r.month_start = local(2024, 3, 1);
    r.month_bytes[0] = 99;
    r.month_bytes[1] = 99;
    sum_month_usage(r);
    EXPECT_EQ(r.month_bytes[0], 3u + 5u + 7u);
    EXPECT_EQ(r.month_bytes[1], 4u + 6u + 8u);
}

TEST_F(DailySums, AllDaysInTheMonth_WalkCountsTheTailToo)
{
    wan_usage r = record_at(local(2024, 3, 3, 12, 0), 0, 0);
    push(r, day_entry(2024, 3, 1, 1, 2));
    push(r, day_entry(2024, 3, 2, 3, 4));
    r.day_bytes[0] = 5;
    r.day_bytes[1] = 6;
    r.month_start = local(2024, 3, 1);
    sum_month_usage(r);
    EXPECT_EQ(r.month_bytes[0], 9u);
    EXPECT_EQ(r.month_bytes[1], 12u);
}

TEST_F(DailySums, EmptyRing_SumsAreTheCurrentDay)
{
    wan_usage r = record_at(local(2024, 3, 3, 12, 0), 0, 0);
    r.day_bytes[0] = 7;
    r.day_bytes[1] = 8;
    r.month_start = local(2024, 3, 1);
    r.start_day = 1;
    r.billing_start = local(2024, 3, 1);
    sum_month_usage(r);
    sum_billing_usage(r);
    EXPECT_EQ(r.month_bytes[0], 7u);
    EXPECT_EQ(r.month_bytes[1], 8u);
    EXPECT_EQ(r.billing_bytes[0], 7u);
    EXPECT_EQ(r.billing_bytes[1], 8u);
}

TEST_F(DailySums, BillingWalkStopsAtFirstDayBeforeTheCycleStart)
{
    // Cycle from 15 February: 1 March, 16 and 15 February count; 14 February stops.
    wan_usage r = record_at(local(2024, 3, 2, 12, 0), 0, 0);
    push(r, day_entry(2024, 2, 13, 1, 10));
    push(r, day_entry(2024, 2, 14, 2, 20));
    push(r, day_entry(2024, 2, 15, 3, 30));
    push(r, day_entry(2024, 2, 16, 4, 40));
    push(r, day_entry(2024, 3, 1, 5, 50));
    r.day_bytes[0] = 6;
    r.day_bytes[1] = 60;
    r.start_day = 15;
    r.billing_start = local(2024, 2, 15);
    sum_billing_usage(r);
    EXPECT_EQ(r.billing_bytes[0], 3u + 4u + 5u + 6u);
    EXPECT_EQ(r.billing_bytes[1], 30u + 40u + 50u + 60u);
}

TEST_F(DailySums, StartDayZero_IsAConfiguredCycle)
{
    // 0 is the last day of the month; the cycle started on 29 February.
    wan_usage r = record_at(local(2024, 3, 2, 12, 0), 0, 0);
    push(r, day_entry(2024, 2, 28, 1, 1));
    push(r, day_entry(2024, 2, 29, 2, 2));
    push(r, day_entry(2024, 3, 1, 3, 3));
    r.day_bytes[0] = 4;
    r.day_bytes[1] = 4;
    r.start_day = 0;
    r.billing_start = local(2024, 2, 29);
    sum_billing_usage(r);
    EXPECT_EQ(r.billing_bytes[0], 9u);
    EXPECT_EQ(r.billing_bytes[1], 9u);
}

TEST_F(DailySums, StartDayMinusOne_BillingBytesStayZeroEveryTick)
{
    wan_usage r = record_at(local(2024, 3, 1, 12, 0), 1, 1);
    r.start_day = -1;
    r.billing_start = local(2024, 2, 1); // would qualify every day
    r.month_start = local(2024, 3, 1);
    r.billing_bytes[0] = 9;
    r.billing_bytes[1] = 9;
    const time_t ticks[] = {local(2024, 3, 1, 23, 59, 50), local(2024, 3, 2, 0, 0, 20),
                            local(2024, 3, 2, 12, 0, 0)};
    uint64_t mib = 2;
    for (time_t t : ticks) {
        tick(r, t, mib, mib);
        sum_month_usage(r);
        sum_billing_usage(r);
        EXPECT_EQ(r.billing_bytes[0], 0u);
        EXPECT_EQ(r.billing_bytes[1], 0u);
        ++mib;
    }
    // The month sum runs as usual: 1 March (1+2) and the 2nd so far (3+4).
    EXPECT_EQ(r.month_bytes[0], 10 * MiB);
    EXPECT_EQ(r.month_bytes[1], 10 * MiB);
}

TEST_F(DailySums, AfterTheRollover_SumsIncludeTheTickDelta)
{
    wan_usage r = record_at(local(2024, 3, 1, 23, 59, 50), 7, 3);
    r.month_start = local(2024, 3, 1);
    r.start_day = 1;
    r.billing_start = local(2024, 3, 1);
    tick(r, local(2024, 3, 2, 0, 0, 20), 1, 5);
    sum_month_usage(r);
    sum_billing_usage(r);
    // 1 March (7/3) from the ring and the 2nd's 1/5 from this tick.
    EXPECT_EQ(r.month_bytes[0], 8 * MiB);
    EXPECT_EQ(r.month_bytes[1], 8 * MiB);
    EXPECT_EQ(r.billing_bytes[0], 8 * MiB);
    EXPECT_EQ(r.billing_bytes[1], 8 * MiB);
}

// ---------------------------------------------------------------------------------------
// History file and export

TEST_F(DailyHistoryFile, EmptyRing_WritesAnEmptyFile)
{
    wan_usage r{};
    write_daily_history(r);
    EXPECT_EQ(read_file(HISTORY), "");
}

TEST_F(DailyHistoryFile, ExportWithoutHistoryFile_HoldsTheCurrentDayOnly)
{
    wan_usage r = record_at(local(2024, 3, 5, 14, 10), 0, 0);
    // 5 MiB + 1048575 bytes shows 5; 2^52 + 3 MiB is 2^32 + 3 MiB, cut to 32 bits: 3.
    r.day_bytes[0] = 5 * MiB + 1048575;
    r.day_bytes[1] = (1ull << 52) + 3 * MiB;
    EXPECT_EQ(exported(r), "2024-03-05,5,3\n");
}

TEST_F(DailyHistoryFile, ExportCopiesAtMost59HistoryLines)
{
    write_file(HISTORY, lines(1, 70));
    wan_usage r = record_at(local(2024, 3, 5, 14, 10), 7, 8);
    EXPECT_EQ(exported(r), "2024-03-05,7,8\n" + lines(1, 59));
}

TEST_F(DailyHistoryFile, SimRecord_UsesTheSimFileNames)
{
    wan_usage r = record_at(local(2024, 3, 4, 12, 0), 10, 1);
    r.wan_index = 0;
    r.sim_number = 1;
    r.sim_slot_index = 0;
    tick(r, local(2024, 3, 5, 12, 0), 11, 2);
    export_daily_csv(r);
    EXPECT_EQ(read_file("/var/run/korel/wan1/sim1_usage_history.daily"), "2024-03-04,10,1\n");
    EXPECT_EQ(read_file("/var/run/korel/wan1/sim1_usage_daily.csv"), "2024-03-05,11,2\n"
                                                                     "2024-03-04,10,1\n");
    EXPECT_FALSE(exists(HISTORY));
    EXPECT_FALSE(exists(EXPORT));
}

// ---------------------------------------------------------------------------------------
// Router-wide total

// Rows: the current day 5 March (8/9 MiB), then 4 March (4/5) and 3 March (2/3).
class DailyTotalRows : public DailyBase {
protected:
    usage_totals aggregated()
    {
        wan_usage r = record_at(local(2024, 3, 5, 10, 0), 8, 9);
        push(r, day_entry(2024, 3, 3, 2 * MiB, 3 * MiB));
        push(r, day_entry(2024, 3, 4, 4 * MiB, 5 * MiB));
        usage_totals totals{};
        aggregate_hourly_daily(totals, r);
        return totals;
    }
};

TEST_F(DailyTotalRows, RebuildAfterRestart_DaysWithoutClientFileGetNoLine)
{
    usage_totals totals = aggregated();
    ASSERT_EQ(totals.daily_count, 3);
    // 57 days before 3 March are back-filled: 2 March down to 6 January. Files exist for
    // 2 and 1 March, 28 February (not 29) and 6 January; 5 January is out of reach.
    // Sums are shifted right by 10 bits: 3072 -> 3, 2048 -> 2, 1023+1 -> 1, ...
    write_file(std::string(CLIENT_DIR) + "/2024-03-02.csv",
               "10.0.0.2,lan,2048,1024\n10.0.0.3,vpn,1024,1024\n");
    write_file(std::string(CLIENT_DIR) + "/2024-03-01.csv", "10.0.0.2,lan,5120,10240\n");
    write_file(std::string(CLIENT_DIR) + "/2024-02-28.csv",
               "10.0.0.2,lan,1023,1024\n10.0.0.4,pptp,1,0\n");
    write_file(std::string(CLIENT_DIR) + "/2024-01-06.csv", "10.0.0.2,lan,7168,3072\n");
    write_file(std::string(CLIENT_DIR) + "/2024-01-05.csv", "10.0.0.2,lan,9216,9216\n");
    rebuild_daily_total(totals);
    EXPECT_EQ(read_file(TOTAL), "2024-03-05,8,9\n"
                                "2024-03-04,4,5\n"
                                "2024-03-03,2,3\n"
                                "2024-03-02,3,2\n"
                                "2024-03-01,5,10\n"
                                "2024-02-28,1,1\n"
                                "2024-01-06,7,3\n");
}

TEST_F(DailyTotalRows, RebuildWithoutClientDirectory_HoldsTheRowsOnly)
{
    rebuild_daily_total(aggregated());
    EXPECT_EQ(read_file(TOTAL), "2024-03-05,8,9\n"
                                "2024-03-04,4,5\n"
                                "2024-03-03,2,3\n");
}

TEST_F(DailyTotalRows, Update_ReplacesFirstLineAndKeepsAtMost59OldLines)
{
    write_file(TOTAL, lines(1, 70));
    update_daily_total(aggregated());
    // Old line 1 was the previous tick's current day; lines 2 .. 60 follow the new one.
    EXPECT_EQ(read_file(TOTAL), "2024-03-05,8,9\n" + lines(2, 60));
}

TEST_F(DailyTotalRows, UpdateWithMissingTotalFile_LeavesRowZeroOnly)
{
    update_daily_total(aggregated());
    EXPECT_EQ(read_file(TOTAL), "2024-03-05,8,9\n");
}

TEST_F(DailyTotalFile, RebuildWith60Rows_LooksUpNoClientFile)
{
    // The current day 2024-03-01 (day 60 after 1 January) and the 59 finished days 29
    // February .. 2 January (day j with j and 1 MiB) make 60 rows: nothing is back-filled
    // although 1 January has a file.
    wan_usage r = record_at(local(2024, 3, 1, 10, 0), 60, 1);
    for (int j = 1; j <= 59; ++j) {
        struct tm day = {};
        day.tm_year = 124;
        day.tm_mday = 1 + j;
        normalise_local(&day);
        push(r, day_entry(2024, day.tm_mon + 1, day.tm_mday, j * MiB, 1 * MiB));
    }
    usage_totals totals{};
    aggregate_hourly_daily(totals, r);
    ASSERT_EQ(totals.daily_count, 60);
    write_file(std::string(CLIENT_DIR) + "/2024-01-01.csv", "a,lan,10240,5120\n");
    rebuild_daily_total(totals);
    std::string expected;
    for (int j = 60; j >= 1; --j)
        expected += date_2024(j) + "," + std::to_string(j) + ",1\n";
    ASSERT_EQ(date_2024(60), "2024-03-01");
    EXPECT_EQ(read_file(TOTAL), expected);
}

TEST_F(DailyTotalFile, FillFromClients_StepsBackDayByDay)
{
    write_file(std::string(CLIENT_DIR) + "/2024-03-01.csv", "a,lan,2048,1024\n");
    write_file(std::string(CLIENT_DIR) + "/2024-02-28.csv", "a,lan,4096,3072\n");
    struct tm from = local_tm(local(2024, 3, 2, 15, 20, 0));
    // 1 March, 29 February (no file: no line), 28 February.
    EXPECT_EQ(written([&](FILE* f) { fill_daily_total_from_clients(f, from, 3); }),
              "2024-03-01,2,1\n"
              "2024-02-28,4,3\n");
    EXPECT_EQ(written([&](FILE* f) { fill_daily_total_from_clients(f, from, 0); }), "");
}

TEST_F(DailyTotalFile, FillWithoutClientDirectory_WritesNothing)
{
    struct tm from = local_tm(local(2024, 3, 2, 15, 20, 0));
    EXPECT_EQ(written([&](FILE* f) { fill_daily_total_from_clients(f, from, 5); }), "");
}

// ---------------------------------------------------------------------------------------
// Time zones. Days are local days from 00:00:00 to 23:59:59. Each zone across its 2024
// spring-forward day and its fall-back day: the day before rolls at 00:00:20 (1/1 MiB),
// the ticks around the change (30 s apart in real time on the spring day, one in each
// occurrence of the repeated time on the fall-back day) stay in the day, which rolls at
// 00:00:20 of the next day with 2+3+4+5 and 1+1+1+1 MiB; the next day holds 6/1.

class DailyChangeDay : public DailyBase {
protected:
    // day: the day of the change; around1, around2: the two ticks around the change.
    void run(int y, int m, int d, time_t around1, time_t around2)
    {
        r = record_at(local(y, m, d - 1, 23, 59, 50), 1, 1);
        tick(r, local(y, m, d, 0, 0, 20), 2, 1);
        tick(r, around1, 3, 1);
        tick(r, around2, 4, 1);
        day_length = current_period_clock().day_end - current_period_clock().day_start + 1;
        tick(r, local(y, m, d, 23, 59, 50), 5, 1);
        tick(r, local(y, m, d + 1, 0, 0, 20), 6, 1);
    }
    wan_usage r{};
    time_t day_length = 0;
};

TEST_F(DailyChangeDay, Utc_SpringForwardDateIsAnOrdinaryDay)
{
    run(2024, 3, 31, local(2024, 3, 31, 1, 59, 50), local(2024, 3, 31, 2, 0, 20));
    EXPECT_EQ(day_length, 24 * 3600);
    EXPECT_EQ(r.daily_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-03-31,14,4\n2024-03-30,1,1\n");
    EXPECT_EQ(exported(r), "2024-04-01,6,1\n2024-03-31,14,4\n2024-03-30,1,1\n");
}

TEST_F(DailyChangeDay, Berlin_SpringForwardDayHas23Hours)
{
    set_tz("Europe/Berlin");
    time_t before = local(2024, 3, 31, 1, 59, 50); // CET
    time_t after = local(2024, 3, 31, 3, 0, 20);   // CEST, 30 s later
    ASSERT_EQ(after - before, 30);
    run(2024, 3, 31, before, after);
    EXPECT_EQ(day_length, 23 * 3600);
    EXPECT_EQ(r.daily_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-03-31,14,4\n2024-03-30,1,1\n");
    EXPECT_EQ(exported(r), "2024-04-01,6,1\n2024-03-31,14,4\n2024-03-30,1,1\n");
}

TEST_F(DailyChangeDay, NewYork_SpringForwardDayHas23Hours)
{
    set_tz("America/New_York");
    time_t before = local(2024, 3, 10, 1, 59, 50); // EST
    time_t after = local(2024, 3, 10, 3, 0, 20);   // EDT, 30 s later
    ASSERT_EQ(after - before, 30);
    run(2024, 3, 10, before, after);
    EXPECT_EQ(day_length, 23 * 3600);
    EXPECT_EQ(r.daily_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-03-10,14,4\n2024-03-09,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-11,6,1\n2024-03-10,14,4\n2024-03-09,1,1\n");
}

TEST_F(DailyChangeDay, LordHowe_SpringForwardDayHas23AndAHalfHours)
{
    set_tz("Australia/Lord_Howe");
    time_t before = local(2024, 10, 6, 1, 59, 50); // +1030
    time_t after = local(2024, 10, 6, 2, 30, 20);  // +11, 30 s later
    ASSERT_EQ(after - before, 30);
    run(2024, 10, 6, before, after);
    EXPECT_EQ(day_length, 23 * 3600 + 1800);
    EXPECT_EQ(r.daily_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-10-06,14,4\n2024-10-05,1,1\n");
    EXPECT_EQ(exported(r), "2024-10-07,6,1\n2024-10-06,14,4\n2024-10-05,1,1\n");
}

TEST_F(DailyChangeDay, Utc_FallBackDateIsAnOrdinaryDay)
{
    time_t first = local(2024, 10, 27, 2, 30);
    run(2024, 10, 27, first, first + 3600);
    EXPECT_EQ(day_length, 24 * 3600);
    EXPECT_EQ(read_file(HISTORY), "2024-10-27,14,4\n2024-10-26,1,1\n");
    EXPECT_EQ(exported(r), "2024-10-28,6,1\n2024-10-27,14,4\n2024-10-26,1,1\n");
}

TEST_F(DailyChangeDay, Berlin_FallBackDayHas25HoursAndRepeatedHourStaysInTheDay)
{
    set_tz("Europe/Berlin");
    time_t first = local(2024, 10, 27, 1, 30) + 3600; // 02:30 CEST
    time_t second = first + 3600;                     // 02:30 CET
    ASSERT_EQ(show(first), "2024-10-27 02:30:00 CEST");
    ASSERT_EQ(show(second), "2024-10-27 02:30:00 CET");
    run(2024, 10, 27, first, second);
    EXPECT_EQ(day_length, 25 * 3600);
    EXPECT_EQ(r.daily_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-10-27,14,4\n2024-10-26,1,1\n");
    EXPECT_EQ(exported(r), "2024-10-28,6,1\n2024-10-27,14,4\n2024-10-26,1,1\n");
}

TEST_F(DailyChangeDay, NewYork_FallBackDayHas25HoursAndRepeatedHourStaysInTheDay)
{
    set_tz("America/New_York");
    time_t first = local(2024, 11, 3, 0, 30) + 3600; // 01:30 EDT
    time_t second = first + 3600;                    // 01:30 EST
    ASSERT_EQ(show(first), "2024-11-03 01:30:00 EDT");
    ASSERT_EQ(show(second), "2024-11-03 01:30:00 EST");
    run(2024, 11, 3, first, second);
    EXPECT_EQ(day_length, 25 * 3600);
    EXPECT_EQ(r.daily_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-11-03,14,4\n2024-11-02,1,1\n");
    EXPECT_EQ(exported(r), "2024-11-04,6,1\n2024-11-03,14,4\n2024-11-02,1,1\n");
}

TEST_F(DailyChangeDay, LordHowe_FallBackDayHas24AndAHalfHoursAndRepeatedHalfHourStaysInTheDay)
{
    set_tz("Australia/Lord_Howe");
    time_t first = local(2024, 4, 7, 1, 15) + 1800; // 01:45 +11
    time_t second = first + 1800;                   // 01:45 +1030
    ASSERT_EQ(show(first), "2024-04-07 01:45:00 +11");
    ASSERT_EQ(show(second), "2024-04-07 01:45:00 +1030");
    run(2024, 4, 7, first, second);
    EXPECT_EQ(day_length, 24 * 3600 + 1800);
    EXPECT_EQ(r.daily_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-04-07,14,4\n2024-04-06,1,1\n");
    EXPECT_EQ(exported(r), "2024-04-08,6,1\n2024-04-07,14,4\n2024-04-06,1,1\n");
}

// A month end (30 April 2024), 29 February 2024 and 28 February 2023 in each zone. None of
// these days has a daylight-saving change in any of the zones, so the rules give the same
// lines everywhere: the day before rolls at 00:00:20 (1/1 MiB), the day rolls at 00:00:20 of
// the 1st of the next month (2+3, 1+1 MiB), which then holds 4/1. The month sum at the
// day's last tick counts the day before and the day (1+2+3, 1+1+1); right after the month
// change it holds the new day only (4/1), since the walk stops at the old month's last day.
class DailyMonthEnd : public DailyBase {
protected:
    void run(int y, int m, int d)
    {
        r = record_at(local(y, m, d - 1, 23, 59, 50), 1, 1);
        r.month_start = local(y, m, 1);
        tick(r, local(y, m, d, 0, 0, 20), 2, 1);
        tick(r, local(y, m, d, 23, 59, 50), 3, 1);
        sum_month_usage(r);
        month_at_day_end[0] = r.month_bytes[0];
        month_at_day_end[1] = r.month_bytes[1];
        r.month_start = local(y, m, d + 1);
        tick(r, local(y, m, d + 1, 0, 0, 20), 4, 1);
        sum_month_usage(r);
    }
    void expect_month_sums()
    {
        EXPECT_EQ(month_at_day_end[0], 6 * MiB);
        EXPECT_EQ(month_at_day_end[1], 3 * MiB);
        EXPECT_EQ(r.month_bytes[0], 4 * MiB);
        EXPECT_EQ(r.month_bytes[1], 1 * MiB);
    }
    wan_usage r{};
    uint64_t month_at_day_end[2] = {0, 0};
};

TEST_F(DailyMonthEnd, Utc_April30)
{
    run(2024, 4, 30);
    EXPECT_EQ(read_file(HISTORY), "2024-04-30,5,2\n2024-04-29,1,1\n");
    EXPECT_EQ(exported(r), "2024-05-01,4,1\n2024-04-30,5,2\n2024-04-29,1,1\n");
    expect_month_sums();
}

TEST_F(DailyMonthEnd, Utc_LeapDay_2024_02_29)
{
    run(2024, 2, 29);
    EXPECT_EQ(read_file(HISTORY), "2024-02-29,5,2\n2024-02-28,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-01,4,1\n2024-02-29,5,2\n2024-02-28,1,1\n");
    expect_month_sums();
}

TEST_F(DailyMonthEnd, Utc_February28_2023)
{
    run(2023, 2, 28);
    EXPECT_EQ(read_file(HISTORY), "2023-02-28,5,2\n2023-02-27,1,1\n");
    EXPECT_EQ(exported(r), "2023-03-01,4,1\n2023-02-28,5,2\n2023-02-27,1,1\n");
    expect_month_sums();
}

TEST_F(DailyMonthEnd, Berlin_April30)
{
    set_tz("Europe/Berlin");
    run(2024, 4, 30);
    EXPECT_EQ(read_file(HISTORY), "2024-04-30,5,2\n2024-04-29,1,1\n");
    EXPECT_EQ(exported(r), "2024-05-01,4,1\n2024-04-30,5,2\n2024-04-29,1,1\n");
    expect_month_sums();
}

TEST_F(DailyMonthEnd, Berlin_LeapDay_2024_02_29)
{
    set_tz("Europe/Berlin");
    run(2024, 2, 29);
    EXPECT_EQ(read_file(HISTORY), "2024-02-29,5,2\n2024-02-28,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-01,4,1\n2024-02-29,5,2\n2024-02-28,1,1\n");
    expect_month_sums();
}

TEST_F(DailyMonthEnd, Berlin_February28_2023)
{
    set_tz("Europe/Berlin");
    run(2023, 2, 28);
    EXPECT_EQ(read_file(HISTORY), "2023-02-28,5,2\n2023-02-27,1,1\n");
    EXPECT_EQ(exported(r), "2023-03-01,4,1\n2023-02-28,5,2\n2023-02-27,1,1\n");
    expect_month_sums();
}

TEST_F(DailyMonthEnd, NewYork_April30)
{
    set_tz("America/New_York");
    run(2024, 4, 30);
    EXPECT_EQ(read_file(HISTORY), "2024-04-30,5,2\n2024-04-29,1,1\n");
    EXPECT_EQ(exported(r), "2024-05-01,4,1\n2024-04-30,5,2\n2024-04-29,1,1\n");
    expect_month_sums();
}

TEST_F(DailyMonthEnd, NewYork_LeapDay_2024_02_29)
{
    set_tz("America/New_York");
    run(2024, 2, 29);
    EXPECT_EQ(read_file(HISTORY), "2024-02-29,5,2\n2024-02-28,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-01,4,1\n2024-02-29,5,2\n2024-02-28,1,1\n");
    expect_month_sums();
}

TEST_F(DailyMonthEnd, NewYork_February28_2023)
{
    set_tz("America/New_York");
    run(2023, 2, 28);
    EXPECT_EQ(read_file(HISTORY), "2023-02-28,5,2\n2023-02-27,1,1\n");
    EXPECT_EQ(exported(r), "2023-03-01,4,1\n2023-02-28,5,2\n2023-02-27,1,1\n");
    expect_month_sums();
}

TEST_F(DailyMonthEnd, LordHowe_April30)
{
    set_tz("Australia/Lord_Howe");
    run(2024, 4, 30);
    EXPECT_EQ(read_file(HISTORY), "2024-04-30,5,2\n2024-04-29,1,1\n");
    EXPECT_EQ(exported(r), "2024-05-01,4,1\n2024-04-30,5,2\n2024-04-29,1,1\n");
    expect_month_sums();
}

TEST_F(DailyMonthEnd, LordHowe_LeapDay_2024_02_29)
{
    set_tz("Australia/Lord_Howe");
    run(2024, 2, 29);
    EXPECT_EQ(read_file(HISTORY), "2024-02-29,5,2\n2024-02-28,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-01,4,1\n2024-02-29,5,2\n2024-02-28,1,1\n");
    expect_month_sums();
}

TEST_F(DailyMonthEnd, LordHowe_February28_2023)
{
    set_tz("Australia/Lord_Howe");
    run(2023, 2, 28);
    EXPECT_EQ(read_file(HISTORY), "2023-02-28,5,2\n2023-02-27,1,1\n");
    EXPECT_EQ(exported(r), "2023-03-01,4,1\n2023-02-28,5,2\n2023-02-27,1,1\n");
    expect_month_sums();
}

} // namespace
