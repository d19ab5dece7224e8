// The hourly history of a WAN usage record: the rollover of the current hour into the ring,
// the repair of the ring when the clock goes back, the history file and CSV export, the
// router-wide hourly total with its back-fill from the client files, and the summing of a
// client usage file. Every tick is simulated the way the main loop runs it: the clock is
// set, the period clock refreshed, the sample stored in the record, then the rollover runs.
#include "sandbox.h"

#include "core/local_time.h"
#include "core/period_clock.h"
#include "core/usage_totals.h"
#include "core/wan_usage.h"
#include "history/hourly.h"
#include "history/ring_history.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr uint64_t MiB = 1ull << 20;

constexpr const char* HISTORY = "/var/run/korel/wan1/usage_history.hourly";
constexpr const char* EXPORT = "/var/run/korel/wan1/link_usage_hourly.csv";
constexpr const char* TOTAL = "/var/run/korel/link_usage_hourly_total.csv";
constexpr const char* CLIENT_DIR = "/var/run/korel/client_usage_hourly";

class HourlyBase : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        write_file("/tmp/.keep", "");
        write_file("/var/run/korel/wan1/.keep", "");
        write_file("/var/run/korel/wan2/.keep", "");
    }

    // A WAN 1 record last sampled at t, whose current hour holds mib1/mib2 MiB.
    static wan_usage record_at(time_t t, uint64_t mib1, uint64_t mib2)
    {
        wan_usage r{};
        r.wan_index = 0;
        r.sim_number = 0;
        r.sim_slot_index = -1;
        r.sample_time = t;
        r.sample_tm = local_tm(t);
        r.hour_bucket_time = t;
        r.hour_bytes[0] = mib1 * MiB;
        r.hour_bytes[1] = mib2 * MiB;
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
        hourly_rollover(r);
    }

    std::string exported(const wan_usage& r)
    {
        export_hourly_csv(r);
        return read_file(EXPORT);
    }

    // glibc's mktime settles a local time that happens twice (tm_isdst = -1) on the side of
    // the conversion made just before it. A summer-time conversion right before a tick in a
    // repeated hour therefore makes the period clock take that hour's first occurrence.
    static void convert_a_summer_time(int month) { local(2024, month, 1); }

    static usage_entry hour_entry(int year, int month, int day, int hour, uint64_t b1, uint64_t b2)
    {
        usage_entry e{};
        e.when.tm_year = year - 1900;
        e.when.tm_mon = month - 1;
        e.when.tm_mday = day;
        e.when.tm_hour = hour;
        e.when.tm_isdst = -1;
        e.bytes[0] = b1;
        e.bytes[1] = b2;
        return e;
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
};

class HourlyRollover : public HourlyBase {};
class HourlyClockBack : public HourlyBase {};
class HourlyHistoryFile : public HourlyBase {};
class HourlyTotalFile : public HourlyBase {};
class HourlyClientUsageSum : public HourlyBase {};
class HourlyTimeZone : public HourlyBase {};

// ---------------------------------------------------------------------------------------
// Rollover

TEST_F(HourlyRollover, BucketAt105940TickAt110010_HourEntersRingDeltaCountsInNewHour)
{
    wan_usage r = record_at(local(2024, 3, 5, 10, 59, 10), 6, 3);
    tick(r, local(2024, 3, 5, 10, 59, 40), 1, 0); // same hour: nothing rolls
    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(read_file(HISTORY), "<missing>");

    tick(r, local(2024, 3, 5, 11, 0, 10), 1, 2);
    // 10:59:40 lies before the new hour's start 11:00:00: the 10:00 hour enters the ring with
    // 6+1 and 3+0 MiB; the 30 s delta of the 11:00:10 sample is the 11:00 hour's.
    EXPECT_EQ(r.hourly_head, 1u);
    EXPECT_EQ(r.hourly_tail, 0u);
    EXPECT_EQ(r.hourly[0].when.tm_year, 124);
    EXPECT_EQ(r.hourly[0].when.tm_mon, 2);
    EXPECT_EQ(r.hourly[0].when.tm_mday, 5);
    EXPECT_EQ(r.hourly[0].when.tm_hour, 10);
    EXPECT_EQ(r.hourly[0].when.tm_min, 0);
    EXPECT_EQ(r.hourly[0].when.tm_sec, 0);
    EXPECT_EQ(r.hourly[0].when.tm_isdst, -1);
    EXPECT_EQ(r.hourly[0].bytes[0], 7 * MiB);
    EXPECT_EQ(r.hourly[0].bytes[1], 3 * MiB);
    EXPECT_EQ(r.hour_bytes[0], 1 * MiB);
    EXPECT_EQ(r.hour_bytes[1], 2 * MiB);
    EXPECT_EQ(r.hour_bucket_time, local(2024, 3, 5, 11, 0, 10));
    EXPECT_EQ(r.history_flags, HISTORY_HOURLY_CHANGED);
    EXPECT_EQ(read_file(HISTORY), "2024-03-05-10,7,3\n");
    EXPECT_EQ(exported(r), "2024-03-05-11,1,2\n"
                           "2024-03-05-10,7,3\n");
}

TEST_F(HourlyRollover, FortyHours_HistoryHolds23LinesExport24RingHolds31)
{
    // One tick at hh:30 of every hour from 2024-03-05 00:30 on; the sample of tick k brings
    // k+1 and 1 MiB, so hour k holds exactly (k+1, 1). Tick k (k >= 1) rolls hour k-1.
    wan_usage r = record_at(local(2024, 3, 5, 0, 0, 0), 0, 0);
    for (int k = 0; k <= 40; ++k) {
        tick(r, local(2024, 3, 5, k, 30, 0), k + 1, 1);
        if (k == 10) {
            EXPECT_EQ(r.hourly_head, 10u); // ten rollovers
            EXPECT_EQ(r.hourly_tail, 0u);
        }
        if (k == 32) {
            EXPECT_EQ(r.hourly_head, 32u); // the 32nd rollover drops the oldest hour
            EXPECT_EQ(r.hourly_tail, 1u);
        }
    }
    // 40 rollovers: head 40, tail 9; the ring holds hours 9..39 (31 hours).
    EXPECT_EQ(r.hourly_head, 40u);
    EXPECT_EQ(r.hourly_tail, 9u);
    EXPECT_EQ(r.hourly[9].when.tm_mday, 5); // oldest: hour 9 = 2024-03-05 09:00
    EXPECT_EQ(r.hourly[9].when.tm_hour, 9);
    EXPECT_EQ(r.hourly[9].bytes[0], 10 * MiB);
    EXPECT_EQ(r.hourly[7].when.tm_mday, 6); // newest: hour 39 = 2024-03-06 15:00, slot 39 % 32
    EXPECT_EQ(r.hourly[7].when.tm_hour, 15);
    EXPECT_EQ(r.hourly[7].bytes[0], 40 * MiB);

    // The file shows the newest 23 hours: 39 down to 17.
    const std::string history = "2024-03-06-15,40,1\n"
                                "2024-03-06-14,39,1\n"
                                "2024-03-06-13,38,1\n"
                                "2024-03-06-12,37,1\n"
                                "2024-03-06-11,36,1\n"
                                "2024-03-06-10,35,1\n"
                                "2024-03-06-09,34,1\n"
                                "2024-03-06-08,33,1\n"
                                "2024-03-06-07,32,1\n"
                                "2024-03-06-06,31,1\n"
                                "2024-03-06-05,30,1\n"
                                "2024-03-06-04,29,1\n"
                                "2024-03-06-03,28,1\n"
                                "2024-03-06-02,27,1\n"
                                "2024-03-06-01,26,1\n"
                                "2024-03-06-00,25,1\n"
                                "2024-03-05-23,24,1\n"
                                "2024-03-05-22,23,1\n"
                                "2024-03-05-21,22,1\n"
                                "2024-03-05-20,21,1\n"
                                "2024-03-05-19,20,1\n"
                                "2024-03-05-18,19,1\n"
                                "2024-03-05-17,18,1\n";
    EXPECT_EQ(read_file(HISTORY), history);
    // The export: the current hour 40 (2024-03-06 16:00, 41 and 1 MiB), then those 23.
    EXPECT_EQ(exported(r), "2024-03-06-16,41,1\n" + history);
}

TEST_F(HourlyRollover, ClockUnset_NothingRollsAndExportLeavesOutTheCurrentHour)
{
    // An unset clock runs in 1970: 1000000 is 1970-01-12 13:46:40 UTC.
    write_file(HISTORY, "2024-03-05-10,1,2\n"); // as restored from a backup
    wan_usage r = record_at(1000000 - 7200, 2, 2);
    tick(r, 1000000, 1, 1);
    tick(r, 1000000 + 7200, 1, 1); // another hour boundary passed: still nothing rolls
    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(r.hourly_tail, 0u);
    EXPECT_EQ(r.hour_bytes[0], 4 * MiB);
    EXPECT_EQ(r.hour_bytes[1], 4 * MiB);
    EXPECT_EQ(r.hour_bucket_time, 1000000 + 7200);
    EXPECT_EQ(r.history_flags, 0u);
    EXPECT_EQ(read_file(HISTORY), "2024-03-05-10,1,2\n");
    // The current hour is dated 1970: its line is left out, the history lines follow.
    EXPECT_EQ(exported(r), "2024-03-05-10,1,2\n");
}

TEST_F(HourlyRollover, BucketTimeExactly1230768000_NeverRollsButItsLineIsWritten)
{
    wan_usage r = record_at(1230768000, 5, 6); // 2009-01-01 00:00:00 UTC
    EXPECT_EQ(exported(r), "2009-01-01-00,5,6\n");
    tick(r, local(2024, 3, 5, 10, 0, 10), 1, 1);
    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(r.history_flags, 0u);
    EXPECT_EQ(read_file(HISTORY), "<missing>");
    EXPECT_EQ(r.hour_bytes[0], 6 * MiB);
    EXPECT_EQ(r.hour_bytes[1], 7 * MiB);
    EXPECT_EQ(r.hour_bucket_time, local(2024, 3, 5, 10, 0, 10));
    EXPECT_EQ(exported(r), "2024-03-05-10,6,7\n");
}

TEST_F(HourlyRollover, BucketTime1230768001_RollsIntoTheRing)
{
    wan_usage r = record_at(1230768001, 5, 6);
    tick(r, local(2024, 3, 5, 10, 0, 10), 1, 1);
    EXPECT_EQ(r.hourly_head, 1u);
    EXPECT_EQ(r.hourly_tail, 0u);
    EXPECT_EQ(r.history_flags, HISTORY_HOURLY_CHANGED);
    EXPECT_EQ(r.hour_bytes[0], 1 * MiB);
    EXPECT_EQ(r.hour_bytes[1], 1 * MiB);
    // The hour starts at 1230768000, which is not before 2009: its line is written.
    EXPECT_EQ(read_file(HISTORY), "2009-01-01-00,5,6\n");
    EXPECT_EQ(exported(r), "2024-03-05-10,1,1\n"
                           "2009-01-01-00,5,6\n");
}

TEST_F(HourlyRollover, NewYork_Bucket1230768001_HourStartsExactlyAt1230768000AndIsWritten)
{
    set_tz("America/New_York");
    // 1230768001 is 2008-12-31 19:00:01 EST; its hour starts at 19:00:00 EST, which is
    // 1230768000 itself: not before 2009, so the line is written with the local date.
    wan_usage r = record_at(1230768001, 5, 6);
    tick(r, local(2024, 3, 5, 10, 0, 10), 1, 1);
    EXPECT_EQ(r.hourly_head, 1u);
    EXPECT_EQ(read_file(HISTORY), "2008-12-31-19,5,6\n");
}

TEST_F(HourlyRollover, BucketTimeOneSecondBefore2009_ExportLineLeftOut)
{
    // 1230767999 is 2008-12-31 23:59:59 UTC, before 2009.
    wan_usage r = record_at(1230767999, 5, 6);
    EXPECT_EQ(exported(r), "");
}

// ---------------------------------------------------------------------------------------
// Clock going back

TEST_F(HourlyClockBack, SetBackTwoHours_NewerHoursRemovedAndNewTimesHourResumed)
{
    wan_usage r = record_at(local(2024, 3, 5, 10, 20), 10, 1);
    tick(r, local(2024, 3, 5, 11, 20), 11, 2);
    tick(r, local(2024, 3, 5, 12, 20), 12, 3);
    tick(r, local(2024, 3, 5, 13, 20), 13, 4);
    tick(r, local(2024, 3, 5, 14, 20), 14, 5);
    ASSERT_EQ(r.hourly_head, 4u); // hours 10, 11, 12, 13; 14 is current
    r.history_flags = 0;

    tick(r, local(2024, 3, 5, 12, 20, 30), 1, 1);
    // Bucket 14:20 lies after 12:59:59. The walk: 13:00 is not before 12:20:30, go on;
    // 12:00 is: stop, head = 2 removes 12:00 and 13:00. 12:20:30 is before 12:59:59, so the
    // 12:00 hour's 12/3 MiB are the current hour's again, plus the tick's 1/1. The 14:00
    // hour's traffic is given up.
    EXPECT_EQ(r.hourly_head, 2u);
    EXPECT_EQ(r.hourly_tail, 0u);
    EXPECT_EQ(r.hour_bytes[0], 13 * MiB);
    EXPECT_EQ(r.hour_bytes[1], 4 * MiB);
    EXPECT_EQ(r.hour_bucket_time, local(2024, 3, 5, 12, 20, 30));
    EXPECT_EQ(r.history_flags, HISTORY_HOURLY_CHANGED);
    EXPECT_EQ(read_file(HISTORY), "2024-03-05-11,11,2\n"
                                  "2024-03-05-10,10,1\n");
    EXPECT_EQ(exported(r), "2024-03-05-12,13,4\n"
                           "2024-03-05-11,11,2\n"
                           "2024-03-05-10,10,1\n");

    tick(r, local(2024, 3, 5, 13, 0, 10), 2, 2); // the resumed hour ends normally
    EXPECT_EQ(r.hourly_head, 3u);
    EXPECT_EQ(read_file(HISTORY), "2024-03-05-12,13,4\n"
                                  "2024-03-05-11,11,2\n"
                                  "2024-03-05-10,10,1\n");
}

TEST_F(HourlyClockBack, SetBackIntoAnHourWithoutEntry_StoppingEntryRemovedTrafficGivenUp)
{
    wan_usage r = record_at(local(2024, 3, 5, 10, 20), 10, 1);
    tick(r, local(2024, 3, 5, 11, 20), 11, 2);
    tick(r, local(2024, 3, 5, 14, 20), 14, 5); // no sample in 12:00 and 13:00
    tick(r, local(2024, 3, 5, 15, 20), 15, 6);
    ASSERT_EQ(r.hourly_head, 3u); // hours 10, 11, 14
    r.history_flags = 0;

    tick(r, local(2024, 3, 5, 12, 30), 1, 1);
    // 14:00 is not before 12:30: go on; 11:00 is: stop, head = 1 removes 11:00 and 14:00.
    // 12:30 is not before 11:59:59, the end of 11:00: that hour's traffic is given up.
    EXPECT_EQ(r.hourly_head, 1u);
    EXPECT_EQ(r.hourly_tail, 0u);
    EXPECT_EQ(r.hour_bytes[0], 1 * MiB);
    EXPECT_EQ(r.hour_bytes[1], 1 * MiB);
    EXPECT_EQ(r.history_flags, HISTORY_HOURLY_CHANGED);
    EXPECT_EQ(read_file(HISTORY), "2024-03-05-10,10,1\n");
}

TEST_F(HourlyClockBack, SingleEntry_DroppedAndNotResumed)
{
    wan_usage r = record_at(local(2024, 3, 5, 10, 20), 10, 1);
    tick(r, local(2024, 3, 5, 11, 20), 11, 2);
    ASSERT_EQ(r.hourly_head, 1u);
    r.history_flags = 0;

    tick(r, local(2024, 3, 5, 10, 30), 1, 1);
    // One entry: head - 1 equals the tail, the entry is dropped. Although 10:30 falls in
    // its hour, its traffic is not taken back.
    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(r.hourly_tail, 0u);
    EXPECT_EQ(r.hour_bytes[0], 1 * MiB);
    EXPECT_EQ(r.hour_bytes[1], 1 * MiB);
    EXPECT_EQ(r.history_flags, HISTORY_HOURLY_CHANGED);
    EXPECT_EQ(read_file(HISTORY), "");
    EXPECT_EQ(exported(r), "2024-03-05-10,1,1\n");
}

TEST_F(HourlyClockBack, SetBackBeforeTheWholeRing_WalkStopsAtTailAndResumesLastExaminedHour)
{
    wan_usage r = record_at(local(2024, 3, 5, 10, 20), 10, 1);
    tick(r, local(2024, 3, 5, 11, 20), 11, 2);
    tick(r, local(2024, 3, 5, 12, 20), 12, 3);
    tick(r, local(2024, 3, 5, 13, 20), 13, 4);
    ASSERT_EQ(r.hourly_head, 3u); // hours 10, 11, 12
    r.history_flags = 0;

    tick(r, local(2024, 3, 5, 9, 30), 1, 1);
    // 12:00 and 11:00 are not before 09:30; after 11:00 the index reaches the tail and the
    // walk ends without looking at 10:00. head = tail: the ring is empty. The entry last
    // examined is 11:00, and 09:30 is before its end 11:59:59, so its 11/2 MiB become the
    // current hour's, plus the tick's 1/1.
    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(r.hourly_tail, 0u);
    EXPECT_EQ(r.hour_bytes[0], 12 * MiB);
    EXPECT_EQ(r.hour_bytes[1], 3 * MiB);
    EXPECT_EQ(r.history_flags, HISTORY_HOURLY_CHANGED);
    EXPECT_EQ(read_file(HISTORY), "");
    EXPECT_EQ(exported(r), "2024-03-05-09,12,3\n");
}

TEST_F(HourlyClockBack, EmptyRing_CurrentHourDroppedWithoutFileOrFlag)
{
    wan_usage r = record_at(local(2024, 3, 5, 14, 20), 14, 5);
    tick(r, local(2024, 3, 5, 12, 30), 1, 1);
    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(r.hour_bytes[0], 1 * MiB);
    EXPECT_EQ(r.hour_bytes[1], 1 * MiB);
    EXPECT_EQ(r.hour_bucket_time, local(2024, 3, 5, 12, 30));
    EXPECT_EQ(r.history_flags, 0u);
    EXPECT_EQ(read_file(HISTORY), "<missing>");
}

// ---------------------------------------------------------------------------------------
// History file and export

TEST_F(HourlyHistoryFile, EmptyRing_WritesAnEmptyFile)
{
    wan_usage r{};
    write_hourly_history(r);
    EXPECT_EQ(read_file(HISTORY), "");
}

TEST_F(HourlyHistoryFile, ExportWithoutHistoryFile_HoldsTheCurrentHourOnly)
{
    wan_usage r = record_at(local(2024, 3, 5, 14, 10), 0, 0);
    // MiB are whole: 5 MiB + 1048575 bytes shows 5; 2^52 + 3 MiB is 2^32 + 3 MiB, cut to
    // 32 bits: 3.
    r.hour_bytes[0] = 5 * MiB + 1048575;
    r.hour_bytes[1] = (1ull << 52) + 3 * MiB;
    EXPECT_EQ(exported(r), "2024-03-05-14,5,3\n");
}

TEST_F(HourlyHistoryFile, ExportCopiesAtMost23HistoryLines)
{
    std::string history;
    for (int k = 1; k <= 30; ++k)
        history += "line " + std::to_string(k) + "\n";
    write_file(HISTORY, history);
    wan_usage r = record_at(local(2024, 3, 5, 14, 10), 7, 8);
    std::string expected = "2024-03-05-14,7,8\n";
    for (int k = 1; k <= 23; ++k)
        expected += "line " + std::to_string(k) + "\n";
    EXPECT_EQ(exported(r), expected);
}

TEST_F(HourlyHistoryFile, SimRecord_UsesTheSimFileNames)
{
    wan_usage r = record_at(local(2024, 3, 5, 10, 20), 10, 1);
    r.wan_index = 1;
    r.sim_number = 2;
    r.sim_slot_index = 0;
    tick(r, local(2024, 3, 5, 11, 20), 11, 2);
    export_hourly_csv(r);
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim2_usage_history.hourly"), "2024-03-05-10,10,1\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim2_usage_hourly.csv"), "2024-03-05-11,11,2\n"
                                                                      "2024-03-05-10,10,1\n");
    EXPECT_FALSE(exists("/var/run/korel/wan2/usage_history.hourly"));
    EXPECT_FALSE(exists("/var/run/korel/wan2/link_usage_hourly.csv"));
}

// ---------------------------------------------------------------------------------------
// Router-wide total

TEST_F(HourlyTotalFile, Rebuild_BackfillsEveryHourOfADayFromItsDateNamedClientFile)
{
    // Row 0: the current hour 2024-03-05 02:10 (3/4 MiB); row 1: 01:00 (5/6 MiB).
    wan_usage r = record_at(local(2024, 3, 5, 2, 10), 3, 4);
    ring_push(r.hourly, HOURLY_RING_SIZE, &r.hourly_head, &r.hourly_tail,
              hour_entry(2024, 3, 5, 1, 5 * MiB, 6 * MiB));
    usage_totals totals{};
    aggregate_hourly_daily(totals, r);
    ASSERT_EQ(totals.hourly_count, 2);

    // The 22 hours before 01:00 are 00:00 on the 5th and 23:00 .. 03:00 on the 4th; each is
    // looked up as "<date>.csv" of its own date.
    write_file(std::string(CLIENT_DIR) + "/2024-03-05.csv",
               "192.168.1.10,lan,3072,1024\n192.168.1.11,lan,4096,2048\n"); // 7168/3072 -> 7, 3
    write_file(std::string(CLIENT_DIR) + "/2024-03-04.csv", "192.168.1.10,lan,10240,5120\n"); // 10, 5
    write_file(std::string(CLIENT_DIR) + "/2024-03-03.csv", "192.168.1.10,lan,99328,99328\n"); // not reached
    rebuild_hourly_total(totals);

    std::string expected = "2024-03-05-02,3,4\n"
                           "2024-03-05-01,5,6\n"
                           "2024-03-05-00,7,3\n"
                           "2024-03-04-23,10,5\n"
                           "2024-03-04-22,10,5\n"
                           "2024-03-04-21,10,5\n"
                           "2024-03-04-20,10,5\n"
                           "2024-03-04-19,10,5\n"
                           "2024-03-04-18,10,5\n"
                           "2024-03-04-17,10,5\n"
                           "2024-03-04-16,10,5\n"
                           "2024-03-04-15,10,5\n"
                           "2024-03-04-14,10,5\n"
                           "2024-03-04-13,10,5\n"
                           "2024-03-04-12,10,5\n"
                           "2024-03-04-11,10,5\n"
                           "2024-03-04-10,10,5\n"
                           "2024-03-04-09,10,5\n"
                           "2024-03-04-08,10,5\n"
                           "2024-03-04-07,10,5\n"
                           "2024-03-04-06,10,5\n"
                           "2024-03-04-05,10,5\n"
                           "2024-03-04-04,10,5\n"
                           "2024-03-04-03,10,5\n";
    EXPECT_EQ(read_file(TOTAL), expected);
}

TEST_F(HourlyTotalFile, RebuildWithoutClientDirectory_HoldsTheRowsOnly)
{
    wan_usage r = record_at(local(2024, 3, 5, 2, 10), 3, 4);
    ring_push(r.hourly, HOURLY_RING_SIZE, &r.hourly_head, &r.hourly_tail,
              hour_entry(2024, 3, 5, 1, 5 * MiB, 6 * MiB));
    usage_totals totals{};
    aggregate_hourly_daily(totals, r);
    rebuild_hourly_total(totals);
    EXPECT_EQ(read_file(TOTAL), "2024-03-05-02,3,4\n"
                                "2024-03-05-01,5,6\n");
}

TEST_F(HourlyTotalFile, RebuildWhenNoReachableDayHasAFile_HoldsTheRowsOnly)
{
    wan_usage r = record_at(local(2024, 3, 5, 2, 10), 3, 4);
    ring_push(r.hourly, HOURLY_RING_SIZE, &r.hourly_head, &r.hourly_tail,
              hour_entry(2024, 3, 5, 1, 5 * MiB, 6 * MiB));
    usage_totals totals{};
    aggregate_hourly_daily(totals, r);
    // Only the 3rd has a file, and hours of the 3rd are out of reach (the last is 03:00 on
    // the 4th); the file named by an hour is not what the lookup asks for.
    write_file(std::string(CLIENT_DIR) + "/2024-03-03.csv", "192.168.1.10,lan,10240,5120\n");
    write_file(std::string(CLIENT_DIR) + "/2024-03-05-00.csv", "192.168.1.10,lan,10240,5120\n");
    rebuild_hourly_total(totals);
    EXPECT_EQ(read_file(TOTAL), "2024-03-05-02,3,4\n"
                                "2024-03-05-01,5,6\n");
}

TEST_F(HourlyTotalFile, RebuildWith24Rows_LooksUpNoClientFile)
{
    // The current hour 2024-03-05 23:10 and the 23 finished hours 22:00 .. 00:00 (hour h
    // with h and 1 MiB) make 24 rows: nothing is back-filled although the 4th has a file.
    wan_usage r = record_at(local(2024, 3, 5, 23, 10), 23, 1);
    for (int h = 0; h <= 22; ++h)
        ring_push(r.hourly, HOURLY_RING_SIZE, &r.hourly_head, &r.hourly_tail,
                  hour_entry(2024, 3, 5, h, h * MiB, 1 * MiB));
    usage_totals totals{};
    aggregate_hourly_daily(totals, r);
    ASSERT_EQ(totals.hourly_count, 24);
    write_file(std::string(CLIENT_DIR) + "/2024-03-04.csv", "a,lan,10240,5120\n");
    rebuild_hourly_total(totals);
    std::string expected;
    for (int h = 23; h >= 0; --h)
        expected += std::string("2024-03-05-") + static_cast<char>('0' + h / 10) +
                    static_cast<char>('0' + h % 10) + "," + std::to_string(h) + ",1\n";
    EXPECT_EQ(read_file(TOTAL), expected);
}

TEST_F(HourlyTotalFile, FillFromClients_StepsBackHourByHour)
{
    write_file(std::string(CLIENT_DIR) + "/2024-03-05.csv", "a,lan,2048,1024\n");
    write_file(std::string(CLIENT_DIR) + "/2024-03-04.csv", "a,lan,4096,3072\n");
    struct tm from = local_tm(local(2024, 3, 5, 1, 40, 15));
    EXPECT_EQ(written([&](FILE* f) { fill_hourly_total_from_clients(f, from, 3); }),
              "2024-03-05-00,2,1\n"
              "2024-03-04-23,4,3\n"
              "2024-03-04-22,4,3\n");
    EXPECT_EQ(written([&](FILE* f) { fill_hourly_total_from_clients(f, from, 0); }), "");
}

TEST_F(HourlyTotalFile, Update_ReplacesFirstLineAndKeepsAtMost23OldLines)
{
    std::string old;
    for (int k = 1; k <= 30; ++k)
        old += "old " + std::to_string(k) + "\n";
    write_file(TOTAL, old);
    wan_usage r = record_at(local(2024, 3, 5, 14, 10), 7, 8);
    usage_totals totals{};
    aggregate_hourly_daily(totals, r);
    update_hourly_total(totals);
    // Old line 1 was the previous tick's current hour; lines 2 .. 24 follow the new one.
    std::string expected = "2024-03-05-14,7,8\n";
    for (int k = 2; k <= 24; ++k)
        expected += "old " + std::to_string(k) + "\n";
    EXPECT_EQ(read_file(TOTAL), expected);
}

TEST_F(HourlyTotalFile, UpdateWithMissingTotalFile_LeavesRowZeroOnly)
{
    wan_usage r = record_at(local(2024, 3, 5, 14, 10), 7, 8);
    usage_totals totals{};
    aggregate_hourly_daily(totals, r);
    update_hourly_total(totals);
    EXPECT_EQ(read_file(TOTAL), "2024-03-05-14,7,8\n");
}

TEST_F(HourlyTotalFile, UpdateWithoutRows_KeepsOldLinesAfterTheFirst)
{
    write_file(TOTAL, "first\nsecond\nthird\n");
    usage_totals totals{};
    update_hourly_total(totals);
    EXPECT_EQ(read_file(TOTAL), "second\nthird\n");
}

// ---------------------------------------------------------------------------------------
// Summing a client usage file

TEST_F(HourlyClientUsageSum, AddsTheThirdAndFourthFields)
{
    write_file("/var/run/korel/client_usage_daily/2024-03-05.csv",
               "a,lan,1024,2048\n"
               "b,vpn,4096,8192\n");
    uint64_t sum1 = 99;
    uint64_t sum2 = 99;
    sum_client_usage_file("/var/run/korel/client_usage_daily/2024-03-05.csv", &sum1, &sum2);
    EXPECT_EQ(sum1, 5120u);
    EXPECT_EQ(sum2, 10240u);
}

TEST_F(HourlyClientUsageSum, MissingFile_SumsZero)
{
    uint64_t sum1 = 99;
    uint64_t sum2 = 99;
    sum_client_usage_file("/var/run/korel/client_usage_daily/2024-03-05.csv", &sum1, &sum2);
    EXPECT_EQ(sum1, 0u);
    EXPECT_EQ(sum2, 0u);
}

TEST_F(HourlyClientUsageSum, OneOutputMissing_TouchesNothing)
{
    write_file("/var/run/korel/client_usage_daily/2024-03-05.csv", "a,lan,1024,2048\n");
    uint64_t sum1 = 99;
    sum_client_usage_file("/var/run/korel/client_usage_daily/2024-03-05.csv", &sum1, nullptr);
    EXPECT_EQ(sum1, 99u);
}

TEST_F(HourlyClientUsageSum, LinesWithFewerCommas)
{
    // "a,lan,100": the third field is 100, the fourth is empty (0).
    // "x,7,9": past the first and second comma stands 9, the third field; no fourth.
    // "broken" and "one,comma" have no second comma: nothing to add.
    write_file("/var/run/korel/client_usage_daily/2024-03-05.csv",
               "a,lan,1024,2048\n"
               "a,lan,100\n"
               "x,7,9\n"
               "broken\n"
               "one,comma\n"
               "b,lan,1,2");
    uint64_t sum1 = 0;
    uint64_t sum2 = 0;
    sum_client_usage_file("/var/run/korel/client_usage_daily/2024-03-05.csv", &sum1, &sum2);
    EXPECT_EQ(sum1, 1024u + 100u + 9u + 1u);
    EXPECT_EQ(sum2, 2048u + 2u);
}

// ---------------------------------------------------------------------------------------
// Time zones. Each zone across its 2024 spring-forward day, its fall-back day, a month end,
// 29 February 2024 and 28 February 2023. Lines show the local hour of the period's start.

TEST_F(HourlyTimeZone, Utc_SpringForwardDateIsAnOrdinaryDay)
{
    // UTC has no daylight saving: 2024-03-31 02:00 is an ordinary hour.
    wan_usage r = record_at(local(2024, 3, 31, 1, 59, 50), 1, 1);
    tick(r, local(2024, 3, 31, 2, 0, 20), 2, 1); // 01:00 rolls
    tick(r, local(2024, 3, 31, 2, 59, 50), 3, 1);
    tick(r, local(2024, 3, 31, 3, 0, 20), 4, 1); // 02:00 rolls with 2+3, 1+1
    EXPECT_EQ(r.hourly_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-03-31-02,5,2\n"
                                  "2024-03-31-01,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-31-03,4,1\n"
                           "2024-03-31-02,5,2\n"
                           "2024-03-31-01,1,1\n");
}

TEST_F(HourlyTimeZone, Berlin_SpringForward_HourTwoDoesNotExist)
{
    set_tz("Europe/Berlin");
    // 2024-03-31 02:00 CET becomes 03:00 CEST. 01:59:50 CET and 03:00:20 CEST are 30 s
    // apart; at 03:00:20 the hour starts at 03:00 CEST, so 01:00 rolls. No 02 line exists.
    time_t before = local(2024, 3, 31, 1, 59, 50);
    time_t after = local(2024, 3, 31, 3, 0, 20);
    ASSERT_EQ(after - before, 30);
    wan_usage r = record_at(before, 1, 1);
    tick(r, after, 2, 1);
    EXPECT_EQ(show(current_period_clock().hour_start), "2024-03-31 03:00:00 CEST");
    tick(r, local(2024, 3, 31, 3, 59, 50), 3, 1);
    tick(r, local(2024, 3, 31, 4, 0, 20), 4, 1);
    EXPECT_EQ(r.hourly_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-03-31-03,5,2\n"
                                  "2024-03-31-01,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-31-04,4,1\n"
                           "2024-03-31-03,5,2\n"
                           "2024-03-31-01,1,1\n");
}

TEST_F(HourlyTimeZone, NewYork_SpringForward_HourTwoDoesNotExist)
{
    set_tz("America/New_York");
    // 2024-03-10 02:00 EST becomes 03:00 EDT; as in Berlin, 01:00 rolls at 03:00:20 EDT.
    time_t before = local(2024, 3, 10, 1, 59, 50);
    time_t after = local(2024, 3, 10, 3, 0, 20);
    ASSERT_EQ(after - before, 30);
    wan_usage r = record_at(before, 1, 1);
    tick(r, after, 2, 1);
    EXPECT_EQ(show(current_period_clock().hour_start), "2024-03-10 03:00:00 EDT");
    tick(r, local(2024, 3, 10, 3, 59, 50), 3, 1);
    tick(r, local(2024, 3, 10, 4, 0, 20), 4, 1);
    EXPECT_EQ(r.hourly_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-03-10-03,5,2\n"
                                  "2024-03-10-01,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-10-04,4,1\n"
                           "2024-03-10-03,5,2\n"
                           "2024-03-10-01,1,1\n");
}

TEST_F(HourlyTimeZone, LordHowe_SpringForward_HourTwoLastsHalfAnHour)
{
    set_tz("Australia/Lord_Howe");
    // 2024-10-06 02:00 +1030 becomes 02:30 +11: 02:00 .. 02:29 do not exist. At 02:30:20
    // the hour's start 02:00 lies in the gap; mktime (tm_isdst = -1) settles it on the
    // daylight-saving side, 02:30 +11, which is after the 01:59:50 bucket: 01:00 rolls.
    // The 02 hour then runs from 02:30 to 02:59:59 and rolls at 03:00:20.
    time_t before = local(2024, 10, 6, 1, 59, 50);
    time_t after = local(2024, 10, 6, 2, 30, 20);
    ASSERT_EQ(after - before, 30);
    wan_usage r = record_at(before, 1, 1);
    tick(r, after, 2, 1);
    EXPECT_EQ(show(current_period_clock().hour_start), "2024-10-06 02:30:00 +11");
    EXPECT_EQ(show(current_period_clock().hour_end), "2024-10-06 02:59:59 +11");
    EXPECT_EQ(r.hourly_head, 1u);
    tick(r, local(2024, 10, 6, 2, 59, 50), 3, 1);
    tick(r, local(2024, 10, 6, 3, 0, 20), 4, 1);
    EXPECT_EQ(r.hourly_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-10-06-02,5,2\n"
                                  "2024-10-06-01,1,1\n");
    EXPECT_EQ(exported(r), "2024-10-06-03,4,1\n"
                           "2024-10-06-02,5,2\n"
                           "2024-10-06-01,1,1\n");
}

TEST_F(HourlyTimeZone, Utc_FallBackDateIsAnOrdinaryDay)
{
    // The same real-time ticks as in the zones with a repeated hour: in UTC every hour
    // rolls normally and nothing is lost.
    time_t t = local(2024, 10, 27, 0, 30);
    wan_usage r = record_at(t, 1, 1);
    tick(r, t + 3600, 2, 1);           // 01:30: 00:00 rolls
    tick(r, t + 5420, 3, 1);           // 02:00:20: 01:00 rolls
    tick(r, t + 9020, 4, 1);           // 03:00:20: 02:00 rolls
    tick(r, t + 10800, 5, 1);          // 03:30
    tick(r, t + 12620, 6, 1);          // 04:00:20: 03:00 rolls with 4+5, 1+1
    EXPECT_EQ(r.hourly_head, 4u);
    EXPECT_EQ(read_file(HISTORY), "2024-10-27-03,9,2\n"
                                  "2024-10-27-02,3,1\n"
                                  "2024-10-27-01,2,1\n"
                                  "2024-10-27-00,1,1\n");
    EXPECT_EQ(exported(r), "2024-10-27-04,6,1\n"
                           "2024-10-27-03,9,2\n"
                           "2024-10-27-02,3,1\n"
                           "2024-10-27-01,2,1\n"
                           "2024-10-27-00,1,1\n");
}

TEST_F(HourlyTimeZone, Berlin_FallBack_SecondOccurrenceOfHourTwoLooksLikeTheClockGoingBack)
{
    set_tz("Europe/Berlin");
    // 2024-10-27 03:00 CEST becomes 02:00 CET: 02:00 .. 02:59 happen twice. The period
    // clock takes the first occurrence (02:00 .. 02:59:59 CEST), so during the second one
    // the hour's end lies before now:
    // - 02:00:20 CET: the bucket 02:00:20 CEST lies inside the hour: nothing rolls.
    // - 02:30 CET: the bucket 02:00:20 CET is after 02:59:59 CEST: the clock "went back".
    //   The current hour (3+4 MiB) is dropped; the walk stops at once at 01:00 (before
    //   now), which is removed; now is not before its end 01:59:59: its traffic is given up.
    // - 03:00:20 CET: the bucket 02:30 CET rolls as "02" with the 5 MiB since the repair.
    time_t base = local(2024, 10, 27, 1, 30); // CEST, unambiguous
    time_t first = base + 1820;               // 02:00:20 CEST
    time_t second = base + 5420;              // 02:00:20 CET
    time_t repair = base + 7200;              // 02:30:00 CET
    time_t after = base + 9020;               // 03:00:20 CET
    ASSERT_EQ(show(first), "2024-10-27 02:00:20 CEST");
    ASSERT_EQ(show(second), "2024-10-27 02:00:20 CET");
    ASSERT_EQ(show(repair), "2024-10-27 02:30:00 CET");
    wan_usage r = record_at(base - 3600, 1, 1); // 00:30 CEST
    tick(r, base, 2, 1);
    convert_a_summer_time(7);
    tick(r, first, 3, 1);
    convert_a_summer_time(7);
    tick(r, second, 4, 1);
    EXPECT_EQ(show(current_period_clock().hour_end), "2024-10-27 02:59:59 CEST");
    EXPECT_EQ(r.hourly_head, 2u);
    EXPECT_EQ(r.hour_bytes[0], 7 * MiB);
    convert_a_summer_time(7);
    tick(r, repair, 5, 1);
    EXPECT_EQ(r.hourly_head, 1u);
    EXPECT_EQ(r.hour_bytes[0], 5 * MiB);
    EXPECT_EQ(read_file(HISTORY), "2024-10-27-00,1,1\n");
    tick(r, after, 6, 1);
    EXPECT_EQ(r.hourly_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-10-27-02,5,1\n"
                                  "2024-10-27-00,1,1\n");
    EXPECT_EQ(exported(r), "2024-10-27-03,6,1\n"
                           "2024-10-27-02,5,1\n"
                           "2024-10-27-00,1,1\n");
}

TEST_F(HourlyTimeZone, NewYork_FallBack_SecondOccurrenceOfHourOneLooksLikeTheClockGoingBack)
{
    set_tz("America/New_York");
    // 2024-11-03 02:00 EDT becomes 01:00 EST: 01:00 .. 01:59 happen twice. As in Berlin:
    // the hour is 01:00 .. 01:59:59 EDT; the tick at 01:00:20 EST keeps the bucket, the one
    // at 01:30 EST repairs (current hour dropped, 00:00 removed and given up), and 02:00:20
    // EST rolls "01" with 5 MiB.
    time_t base = local(2024, 11, 3, 0, 30); // EDT, unambiguous
    time_t first = base + 1820;              // 01:00:20 EDT
    time_t second = base + 5420;             // 01:00:20 EST
    time_t repair = base + 7200;             // 01:30:00 EST
    time_t after = base + 9020;              // 02:00:20 EST
    ASSERT_EQ(show(first), "2024-11-03 01:00:20 EDT");
    ASSERT_EQ(show(second), "2024-11-03 01:00:20 EST");
    ASSERT_EQ(show(repair), "2024-11-03 01:30:00 EST");
    wan_usage r = record_at(base - 3600, 1, 1); // 2024-11-02 23:30 EDT
    tick(r, base, 2, 1);
    convert_a_summer_time(7);
    tick(r, first, 3, 1);
    convert_a_summer_time(7);
    tick(r, second, 4, 1);
    EXPECT_EQ(show(current_period_clock().hour_start), "2024-11-03 01:00:00 EDT");
    EXPECT_EQ(show(current_period_clock().hour_end), "2024-11-03 01:59:59 EDT");
    EXPECT_EQ(r.hourly_head, 2u);
    EXPECT_EQ(r.hour_bytes[0], 7 * MiB);
    convert_a_summer_time(7);
    tick(r, repair, 5, 1);
    EXPECT_EQ(r.hourly_head, 1u);
    EXPECT_EQ(r.hour_bytes[0], 5 * MiB);
    EXPECT_EQ(read_file(HISTORY), "2024-11-02-23,1,1\n");
    tick(r, after, 6, 1);
    EXPECT_EQ(r.hourly_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-11-03-01,5,1\n"
                                  "2024-11-02-23,1,1\n");
    EXPECT_EQ(exported(r), "2024-11-03-02,6,1\n"
                           "2024-11-03-01,5,1\n"
                           "2024-11-02-23,1,1\n");
}

TEST_F(HourlyTimeZone, NewYork_FallBack_AfterAWinterConversionTheRepeatedHourIsItsSecondOccurrence)
{
    set_tz("America/New_York");
    // When the conversion made just before the tick is on standard time, glibc's mktime
    // settles 01:00 on its second occurrence (EST): at 01:00:20 EST the hour is 01:00 ..
    // 01:59:59 EST, the bucket 01:00:20 EDT lies before it and rolls as a first "01" line;
    // the second "01" hour rolls at 02:00:20 EST. Nothing is lost.
    time_t base = local(2024, 11, 3, 0, 30);
    time_t first = base + 1820;  // 01:00:20 EDT
    time_t second = base + 5420; // 01:00:20 EST
    time_t later = base + 7200;  // 01:30:00 EST
    time_t after = base + 9020;  // 02:00:20 EST
    wan_usage r = record_at(base - 3600, 1, 1);
    tick(r, base, 2, 1);
    convert_a_summer_time(7);
    tick(r, first, 3, 1);
    local(2024, 12, 1); // a standard-time conversion
    tick(r, second, 4, 1);
    EXPECT_EQ(show(current_period_clock().hour_start), "2024-11-03 01:00:00 EST");
    EXPECT_EQ(r.hourly_head, 3u);
    local(2024, 12, 1);
    tick(r, later, 5, 1);
    tick(r, after, 6, 1);
    EXPECT_EQ(r.hourly_head, 4u);
    EXPECT_EQ(read_file(HISTORY), "2024-11-03-01,9,2\n"
                                  "2024-11-03-01,3,1\n"
                                  "2024-11-03-00,2,1\n"
                                  "2024-11-02-23,1,1\n");
}

TEST_F(HourlyTimeZone, LordHowe_FallBack_SecondHalfHourOfHourOneLooksLikeTheClockGoingBack)
{
    set_tz("Australia/Lord_Howe");
    // 2024-04-07 02:00 +11 becomes 01:30 +1030: 01:30 .. 01:59 happen twice. The hour
    // 01:00 is 01:00 .. 01:59:59 +11 (14:00 .. 14:59:59 UTC). At 01:45 +1030 (15:15 UTC)
    // the bucket 01:45 +11 lies inside it: nothing rolls. At 01:55 +1030 the bucket
    // 15:15 UTC is after the hour's end: current hour (3+4) dropped, 00:00 removed and
    // given up. 02:00:20 +1030 exists once: "01" rolls with 5 MiB.
    time_t base = local(2024, 4, 7, 0, 30); // +11
    time_t first = base + 4500;             // 01:45 +11
    time_t second = first + 1800;           // 01:45 +1030
    time_t repair = second + 600;           // 01:55 +1030
    time_t after = repair + 320;            // 02:00:20 +1030
    ASSERT_EQ(show(first), "2024-04-07 01:45:00 +11");
    ASSERT_EQ(show(second), "2024-04-07 01:45:00 +1030");
    ASSERT_EQ(show(after), "2024-04-07 02:00:20 +1030");
    wan_usage r = record_at(base - 3600, 1, 1); // 2024-04-06 23:30 +11
    tick(r, base, 2, 1);
    convert_a_summer_time(1);
    tick(r, first, 3, 1);
    convert_a_summer_time(1);
    tick(r, second, 4, 1);
    EXPECT_EQ(show(current_period_clock().hour_end), "2024-04-07 01:59:59 +11");
    EXPECT_EQ(r.hourly_head, 2u);
    EXPECT_EQ(r.hour_bytes[0], 7 * MiB);
    convert_a_summer_time(1);
    tick(r, repair, 5, 1);
    EXPECT_EQ(r.hourly_head, 1u);
    EXPECT_EQ(r.hour_bytes[0], 5 * MiB);
    tick(r, after, 6, 1);
    EXPECT_EQ(r.hourly_head, 2u);
    EXPECT_EQ(read_file(HISTORY), "2024-04-07-01,5,1\n"
                                  "2024-04-06-23,1,1\n");
    EXPECT_EQ(exported(r), "2024-04-07-02,6,1\n"
                           "2024-04-07-01,5,1\n"
                           "2024-04-06-23,1,1\n");
}

// The last two hours of a day and the first tick of the next. None of these days has a
// daylight-saving change in any of the zones, so the rules give the same lines everywhere:
// 22:00 rolls at 23:00:20 with 1/1 MiB, 23:00 rolls at 00:00:20 of the next day with 2+3
// and 1+1 MiB, and the current hour is 00:00 of the next day with 4/1 MiB; the date rolls
// over the month end (30 April to 1 May; 29 February 2024 and 28 February 2023 to 1 March).
class HourlyDayEnd : public HourlyBase {
protected:
    void run(int y, int m, int d)
    {
        r = record_at(local(y, m, d, 22, 59, 50), 1, 1);
        tick(r, local(y, m, d, 23, 0, 20), 2, 1);
        tick(r, local(y, m, d, 23, 59, 50), 3, 1);
        tick(r, local(y, m, d + 1, 0, 0, 20), 4, 1);
    }
    wan_usage r{};
};

TEST_F(HourlyDayEnd, Utc_MonthEnd_2024_04_30)
{
    run(2024, 4, 30);
    EXPECT_EQ(read_file(HISTORY), "2024-04-30-23,5,2\n2024-04-30-22,1,1\n");
    EXPECT_EQ(exported(r), "2024-05-01-00,4,1\n2024-04-30-23,5,2\n2024-04-30-22,1,1\n");
}

TEST_F(HourlyDayEnd, Utc_LeapDay_2024_02_29)
{
    run(2024, 2, 29);
    EXPECT_EQ(read_file(HISTORY), "2024-02-29-23,5,2\n2024-02-29-22,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-01-00,4,1\n2024-02-29-23,5,2\n2024-02-29-22,1,1\n");
}

TEST_F(HourlyDayEnd, Utc_February28_2023)
{
    run(2023, 2, 28);
    EXPECT_EQ(read_file(HISTORY), "2023-02-28-23,5,2\n2023-02-28-22,1,1\n");
    EXPECT_EQ(exported(r), "2023-03-01-00,4,1\n2023-02-28-23,5,2\n2023-02-28-22,1,1\n");
}

TEST_F(HourlyDayEnd, Berlin_MonthEnd_2024_04_30)
{
    set_tz("Europe/Berlin");
    run(2024, 4, 30);
    EXPECT_EQ(read_file(HISTORY), "2024-04-30-23,5,2\n2024-04-30-22,1,1\n");
    EXPECT_EQ(exported(r), "2024-05-01-00,4,1\n2024-04-30-23,5,2\n2024-04-30-22,1,1\n");
}

TEST_F(HourlyDayEnd, Berlin_LeapDay_2024_02_29)
{
    set_tz("Europe/Berlin");
    run(2024, 2, 29);
    EXPECT_EQ(read_file(HISTORY), "2024-02-29-23,5,2\n2024-02-29-22,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-01-00,4,1\n2024-02-29-23,5,2\n2024-02-29-22,1,1\n");
}

TEST_F(HourlyDayEnd, Berlin_February28_2023)
{
    set_tz("Europe/Berlin");
    run(2023, 2, 28);
    EXPECT_EQ(read_file(HISTORY), "2023-02-28-23,5,2\n2023-02-28-22,1,1\n");
    EXPECT_EQ(exported(r), "2023-03-01-00,4,1\n2023-02-28-23,5,2\n2023-02-28-22,1,1\n");
}

TEST_F(HourlyDayEnd, NewYork_MonthEnd_2024_04_30)
{
    set_tz("America/New_York");
    run(2024, 4, 30);
    EXPECT_EQ(read_file(HISTORY), "2024-04-30-23,5,2\n2024-04-30-22,1,1\n");
    EXPECT_EQ(exported(r), "2024-05-01-00,4,1\n2024-04-30-23,5,2\n2024-04-30-22,1,1\n");
}

TEST_F(HourlyDayEnd, NewYork_LeapDay_2024_02_29)
{
    set_tz("America/New_York");
    run(2024, 2, 29);
    EXPECT_EQ(read_file(HISTORY), "2024-02-29-23,5,2\n2024-02-29-22,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-01-00,4,1\n2024-02-29-23,5,2\n2024-02-29-22,1,1\n");
}

TEST_F(HourlyDayEnd, NewYork_February28_2023)
{
    set_tz("America/New_York");
    run(2023, 2, 28);
    EXPECT_EQ(read_file(HISTORY), "2023-02-28-23,5,2\n2023-02-28-22,1,1\n");
    EXPECT_EQ(exported(r), "2023-03-01-00,4,1\n2023-02-28-23,5,2\n2023-02-28-22,1,1\n");
}

TEST_F(HourlyDayEnd, LordHowe_MonthEnd_2024_04_30)
{
    set_tz("Australia/Lord_Howe");
    run(2024, 4, 30);
    EXPECT_EQ(read_file(HISTORY), "2024-04-30-23,5,2\n2024-04-30-22,1,1\n");
    EXPECT_EQ(exported(r), "2024-05-01-00,4,1\n2024-04-30-23,5,2\n2024-04-30-22,1,1\n");
}

TEST_F(HourlyDayEnd, LordHowe_LeapDay_2024_02_29)
{
    set_tz("Australia/Lord_Howe");
    run(2024, 2, 29);
    EXPECT_EQ(read_file(HISTORY), "2024-02-29-23,5,2\n2024-02-29-22,1,1\n");
    EXPECT_EQ(exported(r), "2024-03-01-00,4,1\n2024-02-29-23,5,2\n2024-02-29-22,1,1\n");
}

TEST_F(HourlyDayEnd, LordHowe_February28_2023)
{
    set_tz("Australia/Lord_Howe");
    run(2023, 2, 28);
    EXPECT_EQ(read_file(HISTORY), "2023-02-28-23,5,2\n2023-02-28-22,1,1\n");
    EXPECT_EQ(exported(r), "2023-03-01-00,4,1\n2023-02-28-23,5,2\n2023-02-28-22,1,1\n");
}

} // namespace
