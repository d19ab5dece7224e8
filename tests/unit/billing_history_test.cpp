#include "sandbox.h"

#include "core/billing_cycle.h"
#include "core/local_time.h"
#include "core/wan_usage.h"
#include "history/billing.h"
#include "history/daily.h"

#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

namespace {

constexpr const char* HISTORY = "/var/run/korel/wan1/usage_history.billing";
constexpr const char* CSV = "/var/run/korel/wan1/link_usage_billing.csv";
constexpr const char* SCRATCH = "/tmp/ruvo.tmp";

// One closed cycle of start day 15: the 15th of year-month to the 14th of the next month.
std::string cycle_line(int year, int month, unsigned mib1, unsigned mib2)
{
    int next_year = month == 12 ? year + 1 : year;
    int next_month = month == 12 ? 1 : month + 1;
    char line[64];
    snprintf(line, sizeof line, "%04d-%02d-15,%04d-%02d-14,%u,%u\n", year, month, next_year,
             next_month, mib1, mib2);
    return line;
}

// count cycles of start day 15, newest first, from the one starting in year-month
// backwards; line i carries 2000 + i and i.
std::vector<std::string> cycles_back(int year, int month, int count)
{
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) {
        lines.push_back(cycle_line(year, month, 2000 + i, i));
        if (--month == 0) {
            month = 12;
            --year;
        }
    }
    return lines;
}

std::string join(const std::vector<std::string>& lines, size_t count)
{
    std::string text;
    for (size_t i = 0; i < count && i < lines.size(); ++i)
        text += lines[i];
    return text;
}

usage_entry day_entry(int year, int month, int day, uint64_t b1, uint64_t b2)
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

class BillingBase : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        write_file("/tmp/.keep", "");
        write_file("/var/run/korel/wan1/.keep", "");
        write_file("/var/run/korel/wan2/.keep", "");
    }
    static wan_usage record_at(time_t now, int start_day, int wan_index = 0, int sim_number = 0)
    {
        wan_usage r{};
        r.wan_index = wan_index;
        r.sim_slot_index = sim_number ? 0 : -1;
        r.sim_number = sim_number;
        r.sample_time = now;
        r.sample_tm = local_tm(now);
        r.start_day = start_day;
        return r;
    }
    static void move_to(wan_usage& r, time_t now)
    {
        r.sample_time = now;
        r.sample_tm = local_tm(now);
    }
    static wan_usage in_cycle(time_t now, int start_day, time_t start, time_t end)
    {
        wan_usage r = record_at(now, start_day);
        r.billing_day_applied = start_day;
        r.billing_start = start;
        r.billing_end = end;
        return r;
    }
};

// ---------------------------------------------------------------------------------------
// Cycle bounds

class BillingCycleBounds : public BillingBase {};

TEST_F(BillingCycleBounds, Day15On20MarchRunsFrom15MarchTo14April)
{
    time_t start = billing_cycle_start(local(2024, 3, 20, 10, 0, 0), 15);
    EXPECT_EQ(show(start), "2024-03-15 00:00:00 UTC");
    EXPECT_EQ(show(billing_cycle_end(start, 15)), "2024-04-14 23:59:59 UTC");
}

TEST_F(BillingCycleBounds, Day15On10MarchStartsOn15February)
{
    time_t start = billing_cycle_start(local(2024, 3, 10, 0, 0, 0), 15);
    EXPECT_EQ(show(start), "2024-02-15 00:00:00 UTC");
    EXPECT_EQ(show(billing_cycle_end(start, 15)), "2024-03-14 23:59:59 UTC");
}

TEST_F(BillingCycleBounds, Day15StartsAtTheFirstSecondOfThe15th)
{
    EXPECT_EQ(show(billing_cycle_start(local(2024, 3, 15, 0, 0, 0), 15)),
              "2024-03-15 00:00:00 UTC");
    EXPECT_EQ(show(billing_cycle_start(local(2024, 3, 14, 23, 59, 59), 15)),
              "2024-02-15 00:00:00 UTC");
}

TEST_F(BillingCycleBounds, Day31On10AprilRunsFrom1AprilTo30May)
{
    // 31 April is 1 May, after now; one month back from 1 May is 1 April.
    time_t start = billing_cycle_start(local(2024, 4, 10, 0, 0, 0), 31);
    EXPECT_EQ(show(start), "2024-04-01 00:00:00 UTC");
    time_t end = billing_cycle_end(start, 31);
    EXPECT_EQ(show(end), "2024-05-30 23:59:59 UTC");
    // The next cycle starts on 31 May and ends before 31 June = 1 July.
    time_t next = billing_cycle_start(end + 1, 31);
    EXPECT_EQ(show(next), "2024-05-31 00:00:00 UTC");
    EXPECT_EQ(show(billing_cycle_end(next, 31)), "2024-06-30 23:59:59 UTC");
}

TEST_F(BillingCycleBounds, Day31On10MarchStepsBackThroughTheNormalised31February)
{
    // 31 March is after now; 31 February 2024 normalises to 2 March, which is not. The end is
    // 31 April = 1 May minus one second.
    time_t start = billing_cycle_start(local(2024, 3, 10, 0, 0, 0), 31);
    EXPECT_EQ(show(start), "2024-03-02 00:00:00 UTC");
    EXPECT_EQ(show(billing_cycle_end(start, 31)), "2024-04-30 23:59:59 UTC");
}

TEST_F(BillingCycleBounds, Day0On10MarchRunsFrom29FebruaryTo30March)
{
    time_t start = billing_cycle_start(local(2024, 3, 10, 0, 0, 0), 0);
    EXPECT_EQ(show(start), "2024-02-29 00:00:00 UTC"); // local midnight of the last day
    EXPECT_EQ(show(billing_cycle_end(start, 0)), "2024-03-30 23:59:59 UTC");
}

TEST_F(BillingCycleBounds, Day0InACommonYearStartsOn28February)
{
    time_t start = billing_cycle_start(local(2023, 3, 10, 0, 0, 0), 0);
    EXPECT_EQ(show(start), "2023-02-28 00:00:00 UTC");
    EXPECT_EQ(show(billing_cycle_end(start, 0)), "2023-03-30 23:59:59 UTC");
}

TEST_F(BillingCycleBounds, Day0From31JanuaryEndsTheDayBeforeTheLastDayOfFebruary)
{
    EXPECT_EQ(show(billing_cycle_end(local(2023, 1, 31), 0)), "2023-02-27 23:59:59 UTC");
    EXPECT_EQ(show(billing_cycle_end(local(2024, 1, 31), 0)), "2024-02-28 23:59:59 UTC");
}

TEST_F(BillingCycleBounds, Day0OnTheLastDayItselfStartsThatDay)
{
    time_t start = billing_cycle_start(local(2024, 3, 31, 0, 0, 0), 0);
    EXPECT_EQ(show(start), "2024-03-31 00:00:00 UTC");
    EXPECT_EQ(show(billing_cycle_end(start, 0)), "2024-04-29 23:59:59 UTC");
}

TEST_F(BillingCycleBounds, Day20InJanuaryStepsBackIntoDecemberOfTheYearBefore)
{
    time_t start = billing_cycle_start(local(2024, 1, 10, 0, 0, 0), 20);
    EXPECT_EQ(show(start), "2023-12-20 00:00:00 UTC");
    EXPECT_EQ(show(billing_cycle_end(start, 20)), "2024-01-19 23:59:59 UTC");
}

TEST_F(BillingCycleBounds, Day1InDecemberEndsOnNewYearsEve)
{
    time_t start = billing_cycle_start(local(2024, 12, 31, 23, 59, 59), 1);
    EXPECT_EQ(show(start), "2024-12-01 00:00:00 UTC");
    EXPECT_EQ(show(billing_cycle_end(start, 1)), "2024-12-31 23:59:59 UTC");
}

TEST_F(BillingCycleBounds, Day29InACommonYearRollsInto1March)
{
    // 29 March 2023 is after now; 29 February 2023 is 1 March, which is not.
    time_t start = billing_cycle_start(local(2023, 3, 10, 0, 0, 0), 29);
    EXPECT_EQ(show(start), "2023-03-01 00:00:00 UTC");
    EXPECT_EQ(show(billing_cycle_end(start, 29)), "2023-04-28 23:59:59 UTC");
}

// ---------------------------------------------------------------------------------------
// Billing rollover

class BillingRollover : public BillingBase {};

TEST_F(BillingRollover, FirstRolloverOfAFreshRecordSetsTheBoundsAndWritesNothing)
{
    wan_usage r = record_at(local(2024, 3, 20, 10, 0, 0), 15);
    r.billing_bytes[0] = 5ull << 20;

    billing_rollover(r);

    EXPECT_EQ(r.billing_day_applied, 15);
    EXPECT_EQ(show(r.billing_start), "2024-03-15 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_end), "2024-04-14 23:59:59 UTC");
    EXPECT_EQ(r.billing_bytes[0], 5ull << 20);
    EXPECT_EQ(read_file(HISTORY), "<missing>");
    EXPECT_FALSE(exists(SCRATCH));
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(BillingRollover, FirstSampleAfterTheEndClosesTheCycle)
{
    write_file(HISTORY, "2024-02-15,2024-03-14,1400,190\n");
    wan_usage r = in_cycle(local(2024, 4, 15, 0, 0, 5), 15, local(2024, 3, 15),
                           local(2024, 4, 14, 23, 59, 59));
    r.billing_bytes[0] = (1532ull << 20) + 4095;
    r.billing_bytes[1] = 210ull << 20;
    r.history_flags = 0;

    billing_rollover(r);

    EXPECT_EQ(read_file(HISTORY),
              "2024-03-15,2024-04-14,1532,210\n"
              "2024-02-15,2024-03-14,1400,190\n");
    EXPECT_EQ(show(r.billing_start), "2024-04-15 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_end), "2024-05-14 23:59:59 UTC");
    EXPECT_EQ(r.billing_day_applied, 15);
    EXPECT_EQ(r.billing_bytes[0], (1532ull << 20) + 4095); // no counter changes
    EXPECT_EQ(r.billing_bytes[1], 210ull << 20);
    EXPECT_EQ(r.history_flags, 0u);
    EXPECT_FALSE(exists(SCRATCH));
}

TEST_F(BillingRollover, LastSecondOfTheCycleDoesNotCloseIt)
{
    wan_usage r = in_cycle(local(2024, 4, 14, 23, 59, 59), 15, local(2024, 3, 15),
                           local(2024, 4, 14, 23, 59, 59));
    r.billing_bytes[0] = 1532ull << 20;

    billing_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "<missing>");
    EXPECT_EQ(r.billing_start, local(2024, 3, 15));
    EXPECT_EQ(r.billing_end, local(2024, 4, 14, 23, 59, 59));
}

TEST_F(BillingRollover, Day31CycleFrom1AprilClosesOn31May)
{
    wan_usage r = record_at(local(2024, 4, 10, 9, 0, 0), 31);
    billing_rollover(r);
    ASSERT_EQ(show(r.billing_start), "2024-04-01 00:00:00 UTC");
    ASSERT_EQ(show(r.billing_end), "2024-05-30 23:59:59 UTC");
    r.billing_bytes[0] = 61ull << 20;
    r.billing_bytes[1] = 6ull << 20;

    move_to(r, local(2024, 5, 31, 0, 0, 30));
    billing_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "2024-04-01,2024-05-30,61,6\n");
    EXPECT_EQ(show(r.billing_start), "2024-05-31 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_end), "2024-06-30 23:59:59 UTC");
}

TEST_F(BillingRollover, ChangingTheDayFrom15To20ClosesAtOnceWithTodaysDate)
{
    write_file(HISTORY, "2024-02-15,2024-03-14,1400,190\n");
    wan_usage r = in_cycle(local(2024, 3, 25, 13, 0, 0), 15, local(2024, 3, 15),
                           local(2024, 4, 14, 23, 59, 59));
    r.start_day = 20;
    r.billing_bytes[0] = 300ull << 20;
    r.billing_bytes[1] = 30ull << 20;

    billing_rollover(r);

    EXPECT_EQ(read_file(HISTORY),
              "2024-03-15,2024-03-25,300,30\n"
              "2024-02-15,2024-03-14,1400,190\n");
    EXPECT_EQ(r.billing_day_applied, 20);
    EXPECT_EQ(show(r.billing_start), "2024-03-20 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_end), "2024-04-19 23:59:59 UTC");
    EXPECT_EQ(r.billing_bytes[0], 300ull << 20);
}

TEST_F(BillingRollover, ChangingTheDayFrom0To20KeepsTheOldBoundsUntilTheyEnd)
{
    // Day 0 was applied, which leaves billing_day_applied at 0 ("not yet set").
    wan_usage r = in_cycle(local(2024, 3, 25, 13, 0, 0), 0, local(2024, 2, 29),
                           local(2024, 3, 30, 23, 59, 59));
    r.start_day = 20;
    r.billing_bytes[0] = 300ull << 20;
    r.billing_bytes[1] = 30ull << 20;

    billing_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "<missing>");
    EXPECT_EQ(r.billing_day_applied, 20);
    EXPECT_EQ(show(r.billing_start), "2024-02-29 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_end), "2024-03-30 23:59:59 UTC");

    // At the old end the cycle closes, and the new bounds follow day 20 from now.
    move_to(r, local(2024, 3, 31, 0, 0, 10));
    billing_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "2024-02-29,2024-03-30,300,30\n");
    EXPECT_EQ(show(r.billing_start), "2024-03-20 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_end), "2024-04-19 23:59:59 UTC");
}

TEST_F(BillingRollover, ChangingTheDayFrom20To0ClosesAtOnce)
{
    wan_usage r = in_cycle(local(2024, 3, 25, 13, 0, 0), 20, local(2024, 3, 20),
                           local(2024, 4, 19, 23, 59, 59));
    r.start_day = 0;
    r.billing_bytes[0] = 50ull << 20;
    r.billing_bytes[1] = 5ull << 20;

    billing_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "2024-03-20,2024-03-25,50,5\n");
    EXPECT_EQ(r.billing_day_applied, 0);
    EXPECT_EQ(show(r.billing_start), "2024-02-29 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_end), "2024-03-30 23:59:59 UTC");
}

TEST_F(BillingRollover, NegativeDayWritesNoHistoryNoCsvAndSumsToZero)
{
    write_file(HISTORY, "2024-02-15,2024-03-14,1400,190\n");
    wan_usage r = record_at(local(2024, 4, 15, 0, 0, 5), -1);
    r.billing_bytes[0] = 77;
    r.billing_bytes[1] = 88;
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 4, 14, 100, 10));
    r.day_bytes[0] = 7;
    r.day_bytes[1] = 3;

    billing_rollover(r);
    export_billing_csv(r);
    sum_billing_usage(r);

    EXPECT_EQ(read_file(HISTORY), "2024-02-15,2024-03-14,1400,190\n");
    EXPECT_EQ(read_file(CSV), "<missing>");
    EXPECT_EQ(r.billing_day_applied, 0);
    EXPECT_EQ(r.billing_start, 0);
    EXPECT_EQ(r.billing_end, 0);
    EXPECT_EQ(r.billing_bytes[0], 0u);
    EXPECT_EQ(r.billing_bytes[1], 0u);
    EXPECT_FALSE(exists(SCRATCH));
}

TEST_F(BillingRollover, ScratchFileThatCannotBeOpenedLosesTheLineButTheBoundsMoveOn)
{
    write_file(HISTORY, "2024-02-15,2024-03-14,1400,190\n");
    write_file("/tmp/ruvo.tmp/blocker", ""); // a directory cannot be opened for writing
    wan_usage r = in_cycle(local(2024, 4, 15, 0, 0, 5), 15, local(2024, 3, 15),
                           local(2024, 4, 14, 23, 59, 59));
    r.billing_bytes[0] = 1532ull << 20;

    billing_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "2024-02-15,2024-03-14,1400,190\n");
    EXPECT_EQ(show(r.billing_start), "2024-04-15 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_end), "2024-05-14 23:59:59 UTC");
}

TEST_F(BillingRollover, SimRecordClosesIntoItsOwnHistoryFile)
{
    write_file(HISTORY, "2024-02-15,2024-03-14,1400,190\n");
    wan_usage r = record_at(local(2024, 4, 15, 0, 0, 5), 15, 1, 1);
    r.billing_day_applied = 15;
    r.billing_start = local(2024, 3, 15);
    r.billing_end = local(2024, 4, 14, 23, 59, 59);
    r.billing_bytes[0] = 12ull << 20;
    r.billing_bytes[1] = 1ull << 20;

    billing_rollover(r);

    EXPECT_EQ(read_file("/var/run/korel/wan2/sim1_usage_history.billing"),
              "2024-03-15,2024-04-14,12,1\n");
    EXPECT_EQ(read_file(HISTORY), "2024-02-15,2024-03-14,1400,190\n");
}

// ---------------------------------------------------------------------------------------
// Billing close

class BillingClose : public BillingBase {};

TEST_F(BillingClose, KeepsAtMost60OldLines)
{
    std::vector<std::string> old = cycles_back(2024, 2, 61); // 2024-02-15 back to 2019-02-15
    write_file(HISTORY, join(old, 61));
    wan_usage r = record_at(local(2024, 4, 15, 0, 0, 5), 15);
    r.billing_bytes[0] = 44ull << 20;
    r.billing_bytes[1] = 4ull << 20;

    billing_close(r, local(2024, 3, 15), local(2024, 4, 14, 23, 59, 59));

    EXPECT_EQ(read_file(HISTORY), "2024-03-15,2024-04-14,44,4\n" + join(old, 60));
}

TEST_F(BillingClose, SkipsLinesThatDoNotParseAndDropsLinesBefore2009)
{
    write_file(HISTORY,
               "2024-02-15,2024-03-14,0005,6\n"
               "not a history line\n"
               "2008-12-15,2009-01-14,1,2\n"
               "2024-01-15,2024-02-14,3,4\n");
    wan_usage r = record_at(local(2024, 4, 15, 0, 0, 5), 15);
    r.billing_bytes[0] = 44ull << 20;
    r.billing_bytes[1] = 4ull << 20;

    billing_close(r, local(2024, 3, 15), local(2024, 4, 14, 23, 59, 59));

    EXPECT_EQ(read_file(HISTORY),
              "2024-03-15,2024-04-14,44,4\n"
              "2024-02-15,2024-03-14,5,6\n"
              "2024-01-15,2024-02-14,3,4\n");
}

TEST_F(BillingClose, StartZeroClosesNothing)
{
    write_file(HISTORY, "not a history line\n");
    wan_usage r = record_at(local(2024, 4, 15, 0, 0, 5), 15);
    r.billing_bytes[0] = 44ull << 20;

    billing_close(r, 0, local(2024, 4, 14, 23, 59, 59));

    EXPECT_EQ(read_file(HISTORY), "not a history line\n");
    EXPECT_FALSE(exists(SCRATCH));
}

TEST_F(BillingClose, CycleDatedBefore2009WritesNoNewLine)
{
    write_file(HISTORY, "2024-02-15,2024-03-14,5,6\n");
    wan_usage r = record_at(local(2024, 4, 15, 0, 0, 5), 15);
    r.billing_bytes[0] = 44ull << 20;

    billing_close(r, local(2008, 12, 15), local(2009, 1, 14, 23, 59, 59));

    EXPECT_EQ(read_file(HISTORY), "2024-02-15,2024-03-14,5,6\n");
}

// ---------------------------------------------------------------------------------------
// Billing CSV export

class BillingExport : public BillingBase {};

TEST_F(BillingExport, RunningCycleUpToTheSampleDateThenAtMost59ClosedCycles)
{
    std::vector<std::string> old = cycles_back(2024, 2, 61);
    write_file(HISTORY, join(old, 61));
    wan_usage r = in_cycle(local(2024, 3, 20, 10, 0, 0), 15, local(2024, 3, 15),
                           local(2024, 4, 14, 23, 59, 59));
    r.billing_bytes[0] = (77ull << 20) + 1;
    r.billing_bytes[1] = 7ull << 20;

    export_billing_csv(r);

    EXPECT_EQ(read_file(CSV), "2024-03-15,2024-03-20,77,7\n" + join(old, 59));
    EXPECT_EQ(read_file(HISTORY), join(old, 61));
    EXPECT_FALSE(exists(SCRATCH));
}

TEST_F(BillingExport, CopiesHistoryLinesUnchanged)
{
    const std::string history = "2024-02-15,2024-03-14,0005,06\n"
                                "not a history line\n"
                                "2008-12-15,2009-01-14,1,2\n";
    write_file(HISTORY, history);
    wan_usage r = in_cycle(local(2024, 3, 15, 0, 0, 0), 15, local(2024, 3, 15),
                           local(2024, 4, 14, 23, 59, 59));

    export_billing_csv(r);

    EXPECT_EQ(read_file(CSV), "2024-03-15,2024-03-15,0,0\n" + history);
}

TEST_F(BillingExport, DayZeroIsAConfiguredCycle)
{
    wan_usage r = in_cycle(local(2024, 3, 10, 10, 0, 0), 0, local(2024, 2, 29),
                           local(2024, 3, 30, 23, 59, 59));
    r.billing_bytes[0] = 3ull << 20;
    r.billing_bytes[1] = 2ull << 20;

    export_billing_csv(r);

    EXPECT_EQ(read_file(CSV), "2024-02-29,2024-03-10,3,2\n");
}

TEST_F(BillingExport, BeforeTheFirstRolloverOnlyClosedCyclesAreShown)
{
    // billing_start 0 dates the running line in 1970: the 2009 rule suppresses it.
    write_file(HISTORY, "2024-02-15,2024-03-14,5,6\n");
    wan_usage r = record_at(local(2024, 3, 20, 10, 0, 0), 15);
    r.billing_bytes[0] = 3ull << 20;

    export_billing_csv(r);

    EXPECT_EQ(read_file(CSV), "2024-02-15,2024-03-14,5,6\n");
}

TEST_F(BillingExport, SimRecordExportsItsOwnHistory)
{
    write_file("/var/run/korel/wan2/sim2_usage_history.billing", "2024-02-15,2024-03-14,5,6\n");
    wan_usage r = record_at(local(2024, 3, 20, 10, 0, 0), 15, 1, 2);
    r.billing_day_applied = 15;
    r.billing_start = local(2024, 3, 15);
    r.billing_end = local(2024, 4, 14, 23, 59, 59);
    r.billing_bytes[0] = 9ull << 20;
    r.billing_bytes[1] = 8ull << 20;

    export_billing_csv(r);

    EXPECT_EQ(read_file("/var/run/korel/wan2/sim2_usage_billing.csv"),
              "2024-03-15,2024-03-20,9,8\n2024-02-15,2024-03-14,5,6\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/link_usage_billing.csv"), "<missing>");
}

// ---------------------------------------------------------------------------------------
// sum_billing_usage

class BillingSum : public BillingBase {};

TEST_F(BillingSum, DaysSinceTheCycleStartPlusTheRunningDayStoppingAtTheFirstOlderDay)
{
    // Oldest first: a stray 20 March entry, then 14, 15 and 16 March. The walk from 16 March
    // stops at 14 March and never reaches the stray entry.
    wan_usage r = in_cycle(local(2024, 3, 17, 12, 0, 0), 15, local(2024, 3, 15),
                           local(2024, 4, 14, 23, 59, 59));
    r.billing_bytes[0] = r.billing_bytes[1] = 99999;
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 3, 20, 9999, 9999));
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 3, 14, 50, 5));
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 3, 15, 100, 10));
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 3, 16, 200, 20));
    r.day_bytes[0] = 7;
    r.day_bytes[1] = 3;

    sum_billing_usage(r);

    EXPECT_EQ(r.billing_bytes[0], 307u); // 100 + 200 + 7
    EXPECT_EQ(r.billing_bytes[1], 33u);  // 10 + 20 + 3
}

TEST_F(BillingSum, DayZeroCountsLikeAnyOtherDay)
{
    wan_usage r = in_cycle(local(2024, 3, 2, 12, 0, 0), 0, local(2024, 2, 29),
                           local(2024, 3, 30, 23, 59, 59));
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 2, 28, 50, 5));
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 2, 29, 100, 10));
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 3, 1, 200, 20));
    r.day_bytes[0] = 7;
    r.day_bytes[1] = 3;

    sum_billing_usage(r);

    EXPECT_EQ(r.billing_bytes[0], 307u);
    EXPECT_EQ(r.billing_bytes[1], 33u);
}

// ---------------------------------------------------------------------------------------
// Cycle bounds in several time zones

struct bounds_case {
    int day;
    int now[6];   // year, month, day, hour, minute, second
    int start[3]; // local midnight
    int end[3];   // at 23:59:59
};

// The cases above, and cycles that end or start on daylight-saving days: Berlin 2024-03-31
// and 2024-10-27, New York 2024-03-10 and 2024-11-03, Lord Howe 2024-04-07 and 2024-10-06.
const bounds_case BOUNDS[] = {
    {15, {2024, 3, 20, 10, 0, 0}, {2024, 3, 15}, {2024, 4, 14}},
    {15, {2024, 3, 10, 0, 0, 0}, {2024, 2, 15}, {2024, 3, 14}},
    {31, {2024, 4, 10, 0, 0, 0}, {2024, 4, 1}, {2024, 5, 30}},
    {31, {2024, 5, 31, 0, 0, 0}, {2024, 5, 31}, {2024, 6, 30}},
    {31, {2024, 3, 10, 0, 0, 0}, {2024, 3, 2}, {2024, 4, 30}},
    {0, {2024, 3, 10, 0, 0, 0}, {2024, 2, 29}, {2024, 3, 30}},
    {0, {2023, 3, 10, 0, 0, 0}, {2023, 2, 28}, {2023, 3, 30}},
    {0, {2023, 2, 15, 0, 0, 0}, {2023, 1, 31}, {2023, 2, 27}},
    {0, {2024, 1, 31, 0, 0, 0}, {2024, 1, 31}, {2024, 2, 28}},
    {0, {2024, 3, 31, 0, 0, 0}, {2024, 3, 31}, {2024, 4, 29}},
    {0, {2024, 3, 30, 23, 59, 59}, {2024, 2, 29}, {2024, 3, 30}},
    {29, {2024, 3, 10, 0, 0, 0}, {2024, 2, 29}, {2024, 3, 28}},
    {29, {2023, 3, 10, 0, 0, 0}, {2023, 3, 1}, {2023, 4, 28}},
    {28, {2024, 10, 20, 12, 0, 0}, {2024, 9, 28}, {2024, 10, 27}},
    {27, {2024, 10, 27, 12, 0, 0}, {2024, 10, 27}, {2024, 11, 26}},
    {1, {2024, 3, 31, 12, 0, 0}, {2024, 3, 1}, {2024, 3, 31}},
    {11, {2024, 3, 5, 0, 0, 0}, {2024, 2, 11}, {2024, 3, 10}},
    {10, {2024, 3, 10, 12, 0, 0}, {2024, 3, 10}, {2024, 4, 9}},
    {4, {2024, 10, 20, 0, 0, 0}, {2024, 10, 4}, {2024, 11, 3}},
    {8, {2024, 3, 20, 0, 0, 0}, {2024, 3, 8}, {2024, 4, 7}},
    {6, {2024, 10, 6, 0, 0, 0}, {2024, 10, 6}, {2024, 11, 5}},
    {20, {2024, 1, 10, 0, 0, 0}, {2023, 12, 20}, {2024, 1, 19}},
    {1, {2024, 12, 31, 23, 59, 59}, {2024, 12, 1}, {2024, 12, 31}},
};

struct zone_case {
    const char* zone;
    const char* abbreviation_on_28_october; // after the European autumn change
};

const zone_case ZONES[] = {
    {"UTC", "UTC"},
    {"Europe/Berlin", "CET"},
    {"America/New_York", "EDT"},
    {"Australia/Lord_Howe", "+11"},
};

// Test names and failure messages show the zone.
void PrintTo(const zone_case& z, std::ostream* os) { *os << z.zone; }

class BillingZones : public BillingBase, public ::testing::WithParamInterface<zone_case> {
protected:
    void SetUp() override
    {
        BillingBase::SetUp();
        set_tz(GetParam().zone);
    }
    void TearDown() override
    {
        set_tz("UTC"); // the zone every other test of the sandbox starts from
        BillingBase::TearDown();
    }
};

TEST_P(BillingZones, CycleBoundsAreLocalMidnightAndTheLastSecondBeforeTheNextStart)
{
    for (const bounds_case& c : BOUNDS) {
        char label[64];
        snprintf(label, sizeof label, "day %d now %04d-%02d-%02d %02d:%02d:%02d", c.day, c.now[0],
                 c.now[1], c.now[2], c.now[3], c.now[4], c.now[5]);
        SCOPED_TRACE(label);
        time_t now = local(c.now[0], c.now[1], c.now[2], c.now[3], c.now[4], c.now[5]);
        time_t start = billing_cycle_start(now, c.day);
        EXPECT_EQ(start, local(c.start[0], c.start[1], c.start[2]));
        EXPECT_EQ(billing_cycle_end(start, c.day),
                  local(c.end[0], c.end[1], c.end[2], 23, 59, 59));
    }
}

TEST_P(BillingZones, CycleEndingOnTheAutumnChangeInBerlinClosesOnTheNextSecond)
{
    wan_usage r = record_at(local(2024, 10, 20, 12, 0, 0), 28);
    billing_rollover(r);
    ASSERT_EQ(r.billing_start, local(2024, 9, 28));
    ASSERT_EQ(r.billing_end, local(2024, 10, 27, 23, 59, 59));
    r.billing_bytes[0] = 28ull << 20;
    r.billing_bytes[1] = 2ull << 20;

    move_to(r, local(2024, 10, 27, 23, 59, 59));
    billing_rollover(r);
    EXPECT_EQ(read_file(HISTORY), "<missing>");

    move_to(r, local(2024, 10, 28, 0, 0, 0));
    billing_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "2024-09-28,2024-10-27,28,2\n");
    EXPECT_EQ(show(r.billing_start),
              std::string("2024-10-28 00:00:00 ") + GetParam().abbreviation_on_28_october);
    EXPECT_EQ(r.billing_end, local(2024, 11, 27, 23, 59, 59));
}

TEST_P(BillingZones, Day0CycleRunsThroughTheLastDayOfFebruaryInLeapAndCommonYears)
{
    wan_usage r = record_at(local(2024, 2, 29, 8, 0, 0), 0);
    billing_rollover(r);
    EXPECT_EQ(r.billing_start, local(2024, 2, 29));
    EXPECT_EQ(r.billing_end, local(2024, 3, 30, 23, 59, 59));
    r.billing_bytes[0] = 29ull << 20;

    move_to(r, local(2024, 3, 31, 0, 0, 1)); // Berlin springs forward later this day
    billing_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "2024-02-29,2024-03-30,29,0\n");
    EXPECT_EQ(r.billing_start, local(2024, 3, 31));
    EXPECT_EQ(r.billing_end, local(2024, 4, 29, 23, 59, 59));

    wan_usage c = record_at(local(2023, 2, 28, 8, 0, 0), 0, 1);
    billing_rollover(c);
    EXPECT_EQ(c.billing_start, local(2023, 2, 28));
    EXPECT_EQ(c.billing_end, local(2023, 3, 30, 23, 59, 59));
}

TEST_P(BillingZones, FirstRolloverOfAFreshRecordWritesNothingAndSetsTheBounds)
{
    wan_usage r = record_at(local(2024, 3, 20, 10, 0, 0), 15);

    billing_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "<missing>");
    EXPECT_EQ(r.billing_day_applied, 15);
    EXPECT_EQ(r.billing_start, local(2024, 3, 15));
    EXPECT_EQ(r.billing_end, local(2024, 4, 14, 23, 59, 59));
    EXPECT_TRUE(plat.logs.empty());
}

std::string zone_name(const ::testing::TestParamInfo<zone_case>& info)
{
    std::string name = info.param.zone;
    for (char& c : name)
        if (c == '/')
            c = '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(Billing, BillingZones, ::testing::ValuesIn(ZONES), zone_name);

} // namespace
