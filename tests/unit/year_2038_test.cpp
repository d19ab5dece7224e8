// Whole ticks of the daemon across 2038-01-19 03:14:07 UTC (2147483647, the last second a
// signed 32-bit time_t holds) and far beyond it: the hourly, daily, monthly and billing-cycle
// rollovers, their history files, CSV exports and router totals, the backups and their
// restore, all keep counting with the right dates. The times are written as epoch numbers,
// worked out by hand, so that the test does not lean on the C library's own arithmetic; on
// the 32-bit build (64-bit time_t) they exercise every place a time passes through.
#include "sandbox.h"

#include "core/link_usage.h"
#include "daemon/daemon.h"
#include "daemon/signals.h"

#include <csignal>
#include <memory>
#include <string>

namespace {

constexpr uint64_t MiB = 1ull << 20;

constexpr const char* LINK_USAGE = "/proc/korel/config/link_usage";
constexpr const char* TIME_INITIALIZED = "/var/run/korel/time_initialized";
constexpr const char* CONFIG = "/usr/local/velto/conf/config";

constexpr const char* LIVE_HOURLY = "/var/run/korel/wan1/usage_history.hourly";
constexpr const char* LIVE_DAILY = "/var/run/korel/wan1/usage_history.daily";
constexpr const char* LIVE_MONTHLY = "/var/run/korel/wan1/usage_history.monthly";
constexpr const char* LIVE_BILLING = "/var/run/korel/wan1/usage_history.billing";
constexpr const char* HOURLY_CSV = "/var/run/korel/wan1/link_usage_hourly.csv";
constexpr const char* DAILY_CSV = "/var/run/korel/wan1/link_usage_daily.csv";
constexpr const char* MONTHLY_CSV = "/var/run/korel/wan1/link_usage_monthly.csv";
constexpr const char* BILLING_CSV = "/var/run/korel/wan1/link_usage_billing.csv";
constexpr const char* HOURLY_TOTAL = "/var/run/korel/link_usage_hourly_total.csv";
constexpr const char* DAILY_TOTAL = "/var/run/korel/link_usage_daily_total.csv";
constexpr const char* MONTHLY_TOTAL = "/var/run/korel/link_usage_monthly_total.csv";

constexpr const char* HOURLY_BACKUP = "/tmp/ruvo_backup/wan1/ruvo.hourly.csv";
constexpr const char* DAILY_BACKUP = "/tmp/ruvo_backup/wan1/ruvo.daily.csv";
constexpr const char* MONTHLY_BACKUP = "/tmp/ruvo_backup/wan1/ruvo.monthly.csv";
constexpr const char* BILLING_BACKUP = "/tmp/ruvo_backup/wan1/ruvo.billing.csv";
constexpr const char* TIMESTAMP = "/tmp/ruvo_backup/timestamp";
constexpr const char* LIFETIME = "/tmp/ruvo_backup/lifetime_usage";
constexpr const char* LIFETIME_INIT = "/var/run/korel/lifetime_usage.init";

// 2038-01-19 03:14:07 UTC: the last second of a signed 32-bit time_t.
constexpr time_t LAST_32_BIT_SECOND = 2147483647;
// 2106-02-07 06:28:15 UTC: the last second of an unsigned 32-bit number.
constexpr time_t LAST_UNSIGNED_32_BIT_SECOND = 4294967295;

std::string u64(uint64_t value) { return std::to_string(static_cast<unsigned long long>(value)); }

class Year2038 : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        write_file("/tmp/.keep", "");
        write_file("/var/run/korel/wan1/.keep", "");
        write_file("/var/run/korel/wan2/.keep", "");
        write_file(TIME_INITIALIZED, "");
        link_usage_raw_sum[0] = 0;
        link_usage_raw_sum[1] = 0;
    }
    void TearDown() override
    {
        // The start-up installs the daemon's handlers; the test process gets its own back.
        for (int signo : {SIGALRM, SIGHUP, SIGUSR1, SIGINT, SIGTERM, SIGPIPE})
            signal(signo, SIG_DFL);
        link_usage_raw_sum[0] = 0;
        link_usage_raw_sum[1] = 0;
        Sandbox::TearDown();
    }
    // The kernel's counters of WAN 1 and WAN 2 at time t, in bytes.
    void kernel(time_t t, uint64_t a1, uint64_t a2, uint64_t b1 = 0, uint64_t b2 = 0)
    {
        write_file(LINK_USAGE, "timestamp:" + std::to_string(static_cast<long long>(t)) + "\nCON:1\nOVERALL:" +
                                   u64(a1) + " " + u64(a2) + "\nCON:2\nOVERALL:" + u64(b1) + " " + u64(b2) +
                                   "\n");
    }
    // A daemon of two WANs started at t with the kernel's counters of both WANs as its
    // baseline, and the pass straight after start-up (no tick yet).
    void start(daemon_state& state, time_t t, uint64_t a1 = 0, uint64_t a2 = 0, uint64_t b1 = 0,
               uint64_t b2 = 0)
    {
        plat.clock = t;
        kernel(t, a1, a2, b1, b2);
        ASSERT_EQ(daemon_start(state, 2), 0);
        loop_pass(state);
    }
    // One tick at t with the kernel's counters of both WANs.
    void tick(daemon_state& state, time_t t, uint64_t a1, uint64_t a2, uint64_t b1 = 0, uint64_t b2 = 0)
    {
        plat.clock = t;
        kernel(t, a1, a2, b1, b2);
        tick_pending = 1;
        loop_pass(state);
    }
    daemon_state state;
};

// ---------------------------------------------------------------------------------------
// Hours, days and months across the boundary

TEST_F(Year2038, HourlyRolloverAcross2038_01_19_03_14_07UtcPutsTheHourInTheRingAndTheHistory)
{
    write_file(CONFIG, "WAN1_NAME=Fibre\n"); // no billing cycle
    start(state, 2147482800);                // 2038-01-19 03:00:00 UTC
    tick(state, 2147482830, 5 * MiB, 1 * MiB, 1 * MiB, 0); // 03:00:30
    tick(state, LAST_32_BIT_SECOND, 12 * MiB, 2 * MiB, 1 * MiB, 0);
    tick(state, 2147483677, 20 * MiB, 4 * MiB, 1 * MiB, 0); // 03:14:37, past the boundary
    // The hour holds the traffic from both sides of the boundary: 5 + 7 + 8 and 1 + 1 + 2 MiB.
    EXPECT_EQ(state.wan[0].hour_bucket_time, 2147483677);
    EXPECT_EQ(read_file(HOURLY_CSV), "2038-01-19-03,20,4\n");
    EXPECT_EQ(read_file(HOURLY_TOTAL), "2038-01-19-03,21,4\n");
    EXPECT_EQ(read_file(LIVE_HOURLY), "<missing>"); // no hour has ended yet

    tick(state, 2147486390, 30 * MiB, 5 * MiB, 1 * MiB, 0); // 03:59:50
    tick(state, 2147486420, 33 * MiB, 9 * MiB, 2 * MiB, 0); // 04:00:20: the 03:00 hour ends
    EXPECT_EQ(read_file(LIVE_HOURLY), "2038-01-19-03,30,5\n");
    EXPECT_EQ(read_file(HOURLY_CSV), "2038-01-19-04,3,4\n2038-01-19-03,30,5\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/usage_history.hourly"), "2038-01-19-03,1,0\n");
    EXPECT_EQ(read_file(HOURLY_TOTAL), "2038-01-19-04,4,4\n2038-01-19-03,31,5\n");

    tick(state, 2147490010, 40 * MiB, 10 * MiB, 4 * MiB, 1 * MiB); // 05:00:10
    EXPECT_EQ(state.wan[0].hour_bucket_time, 2147490010);
    EXPECT_EQ(state.wan[0].hourly_head, 2u);
    EXPECT_EQ(state.wan[0].hourly_tail, 0u);
    EXPECT_EQ(read_file(LIVE_HOURLY), "2038-01-19-04,3,4\n2038-01-19-03,30,5\n");
    EXPECT_EQ(read_file(HOURLY_CSV), "2038-01-19-05,7,1\n2038-01-19-04,3,4\n2038-01-19-03,30,5\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/link_usage_hourly.csv"),
              "2038-01-19-05,2,1\n2038-01-19-04,1,0\n2038-01-19-03,1,0\n");
    EXPECT_EQ(read_file(HOURLY_TOTAL), "2038-01-19-05,9,2\n2038-01-19-04,4,4\n2038-01-19-03,31,5\n");
}

TEST_F(Year2038, DailyRolloverFrom2038_01_19To2038_01_20UtcPutsTheDayInTheHistoryExportAndTotal)
{
    write_file(CONFIG, "WAN1_NAME=Fibre\n");
    start(state, 2147483640);                                    // 2038-01-19 03:14:00 UTC
    tick(state, LAST_32_BIT_SECOND, 100 * MiB, 10 * MiB);        // 03:14:07
    tick(state, 2147483648, 150 * MiB, 20 * MiB);                // 03:14:08, one past the boundary
    tick(state, 2147558390, 5150 * MiB, 220 * MiB, 40 * MiB, 0); // 23:59:50
    EXPECT_EQ(read_file(DAILY_CSV), "2038-01-19,5150,220\n");
    EXPECT_EQ(read_file(LIVE_DAILY), "<missing>");

    tick(state, 2147558420, 5153 * MiB, 221 * MiB, 41 * MiB, 2 * MiB); // 2038-01-20 00:00:20
    // The whole 19th (its bytes beyond 4 GiB) enters the ring; the tick's delta is the 20th's.
    EXPECT_EQ(state.wan[0].day_bucket_time, 2147558420);
    EXPECT_EQ(state.wan[0].daily[0].bytes[0], 5150 * MiB);
    EXPECT_EQ(read_file(LIVE_DAILY), "2038-01-19,5150,220\n");
    EXPECT_EQ(read_file(DAILY_CSV), "2038-01-20,3,1\n2038-01-19,5150,220\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/link_usage_daily.csv"), "2038-01-20,1,2\n2038-01-19,40,0\n");
    EXPECT_EQ(read_file(DAILY_TOTAL), "2038-01-20,4,3\n2038-01-19,5190,220\n");
    // The month so far is the finished 19th plus the running 20th.
    EXPECT_EQ(read_file(MONTHLY_CSV), "2038-01-01,2038-01-20,5153,221\n");
}

TEST_F(Year2038, MonthlyRolloverFromJanuaryToFebruary2038UtcClosesJanuaryWithTrafficFromBothSides)
{
    write_file(CONFIG, "WAN1_NAME=Fibre\n");
    start(state, 2147428800, 0, 0, 10 * MiB, 0);                  // 2038-01-18 12:00:00 UTC
    tick(state, 2147428830, 100 * MiB, 10 * MiB, 10 * MiB, 0);   // 2038-01-18 12:00:30
    tick(state, LAST_32_BIT_SECOND, 300 * MiB, 30 * MiB, 10 * MiB, 0);
    tick(state, 2148595170, 1000 * MiB, 100 * MiB, 40 * MiB, 5 * MiB); // 2038-01-31 23:59:30
    EXPECT_EQ(read_file(MONTHLY_CSV), "2038-01-01,2038-01-31,1000,100\n");
    EXPECT_EQ(read_file(LIVE_MONTHLY), "<missing>");
    EXPECT_EQ(state.wan[0].month_start, 2145916800); // 2038-01-01 00:00:00 UTC

    tick(state, 2148595230, 1002 * MiB, 101 * MiB, 41 * MiB, 5 * MiB); // 2038-02-01 00:00:30
    EXPECT_EQ(state.wan[0].month_start, 2148595200); // 2038-02-01 00:00:00 UTC
    EXPECT_EQ(read_file(LIVE_MONTHLY), "2038-01-01,2038-01-31,1000,100\n");
    EXPECT_EQ(read_file(MONTHLY_CSV), "2038-02-01,2038-02-01,2,1\n2038-01-01,2038-01-31,1000,100\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/link_usage_monthly.csv"),
              "2038-02-01,2038-02-01,1,0\n2038-01-01,2038-01-31,30,5\n");
    EXPECT_EQ(read_file(MONTHLY_TOTAL), "2038-02-01,2038-02-28,3,1\n2038-01-01,2038-01-31,1030,105\n");
    EXPECT_EQ(read_file(LIVE_DAILY), "2038-01-31,700,70\n2038-01-19,200,20\n2038-01-18,100,10\n");
}

TEST_F(Year2038, BerlinSpringForwardAndEndOfMarch2038AreLocalHoursAndALocalMonth)
{
    set_tz("Europe/Berlin");
    write_file(CONFIG, "WAN1_NAME=Fibre\n");
    start(state, 2153347200);                         // 2038-03-28 01:00:00 CET
    tick(state, 2153347230, 10 * MiB, 1 * MiB);       // 01:00:30 CET
    tick(state, 2153350790, 14 * MiB, 2 * MiB);       // 01:59:50 CET
    tick(state, 2153350810, 15 * MiB, 2 * MiB);       // 03:00:10 CEST, 20 s later
    // The clocks went from 02:00 to 03:00: the 01:00 hour ends and 03:00 follows it.
    EXPECT_EQ(show(state.wan[0].hour_bucket_time), "2038-03-28 03:00:10 CEST");
    EXPECT_EQ(read_file(LIVE_HOURLY), "2038-03-28-01,14,2\n");
    EXPECT_EQ(read_file(HOURLY_CSV), "2038-03-28-03,1,0\n2038-03-28-01,14,2\n");

    tick(state, 2153685590, 50 * MiB, 5 * MiB);       // 2038-03-31 23:59:50 CEST
    EXPECT_EQ(read_file(MONTHLY_CSV), "2038-03-01,2038-03-31,50,5\n");
    EXPECT_EQ(read_file(LIVE_MONTHLY), "<missing>");

    // 2038-04-01 00:00:10 CEST, still 31 March in UTC: March ends by the local calendar.
    tick(state, 2153685610, 52 * MiB, 6 * MiB);
    EXPECT_EQ(state.wan[0].month_start, 2153685600);
    EXPECT_EQ(show(state.wan[0].month_start), "2038-04-01 00:00:00 CEST");
    EXPECT_EQ(read_file(LIVE_MONTHLY), "2038-03-01,2038-03-31,50,5\n");
    EXPECT_EQ(read_file(MONTHLY_CSV), "2038-04-01,2038-04-01,2,1\n2038-03-01,2038-03-31,50,5\n");
    EXPECT_EQ(read_file(MONTHLY_TOTAL), "2038-04-01,2038-04-30,2,1\n2038-03-01,2038-03-31,50,5\n");
    EXPECT_EQ(read_file(LIVE_DAILY), "2038-03-31,35,3\n2038-03-28,15,2\n");
    EXPECT_EQ(read_file(DAILY_CSV), "2038-04-01,2,1\n2038-03-31,35,3\n2038-03-28,15,2\n");
    EXPECT_EQ(read_file(HOURLY_CSV),
              "2038-04-01-00,2,1\n2038-03-31-23,35,3\n2038-03-28-03,1,0\n2038-03-28-01,14,2\n");
}

// ---------------------------------------------------------------------------------------
// Billing cycles

TEST_F(Year2038, NewYorkCycleOnThe19thEndingPastTheBoundaryClosesAtLocalMidnightAndNextAgain)
{
    set_tz("America/New_York");
    write_file(CONFIG, "WAN1_USAGE_START_DAY=19\n");
    start(state, 2147483640);                              // 2038-01-18 22:14:00 EST
    tick(state, LAST_32_BIT_SECOND, 100 * MiB, 10 * MiB);  // 22:14:07 EST
    // The running cycle began 2037-12-19 00:00 EST and ends 2038-01-18 23:59:59 EST, which is
    // 2038-01-19 04:59:59 UTC, past the boundary.
    EXPECT_EQ(state.wan[0].billing_start, 2144811600);
    EXPECT_EQ(state.wan[0].billing_end, 2147489999);
    EXPECT_EQ(read_file(BILLING_CSV), "2037-12-19,2038-01-18,100,10\n");

    tick(state, 2147483648, 150 * MiB, 20 * MiB);          // 22:14:08 EST
    EXPECT_EQ(read_file(BILLING_CSV), "2037-12-19,2038-01-18,150,20\n");
    tick(state, 2147489999, 400 * MiB, 40 * MiB);          // 23:59:59 EST, the cycle's last second
    EXPECT_EQ(read_file(LIVE_BILLING), "<missing>");
    EXPECT_EQ(read_file(BILLING_CSV), "2037-12-19,2038-01-18,400,40\n");

    tick(state, 2147490029, 403 * MiB, 41 * MiB);          // 2038-01-19 00:00:29 EST
    EXPECT_EQ(state.wan[0].billing_start, 2147490000);     // 2038-01-19 00:00:00 EST
    EXPECT_EQ(state.wan[0].billing_end, 2150168399);       // 2038-02-18 23:59:59 EST
    EXPECT_EQ(read_file(LIVE_BILLING), "2037-12-19,2038-01-18,400,40\n");
    EXPECT_EQ(read_file(BILLING_CSV), "2038-01-19,2038-01-19,3,1\n2037-12-19,2038-01-18,400,40\n");

    tick(state, 2150168390, 903 * MiB, 91 * MiB);          // 2038-02-18 23:59:50 EST
    EXPECT_EQ(read_file(BILLING_CSV), "2038-01-19,2038-02-18,503,51\n2037-12-19,2038-01-18,400,40\n");
    tick(state, 2150168410, 905 * MiB, 92 * MiB);          // 2038-02-19 00:00:10 EST
    // The next cycle ends after the change to summer time on 14 March.
    EXPECT_EQ(state.wan[0].billing_start, 2150168400);
    EXPECT_EQ(state.wan[0].billing_end, 2152583999);
    EXPECT_EQ(show(state.wan[0].billing_end), "2038-03-18 23:59:59 EDT");
    EXPECT_EQ(read_file(LIVE_BILLING), "2038-01-19,2038-02-18,503,51\n2037-12-19,2038-01-18,400,40\n");
    EXPECT_EQ(read_file(BILLING_CSV),
              "2038-02-19,2038-02-19,2,1\n2038-01-19,2038-02-18,503,51\n2037-12-19,2038-01-18,400,40\n");
}

// ---------------------------------------------------------------------------------------
// Backup and restore

TEST_F(Year2038, BackupOfLinesDatedAcrossTheBoundaryIsExactAndRestartRestoresThemIntoTheLiveFiles)
{
    write_file(CONFIG, "WAN1_USAGE_START_DAY=19\n");
    // What an earlier run left in WAN 1's backup directory on 2038-01-18.
    write_file(HOURLY_BACKUP, "2038-01-18-23,3145728,1048576\n"
                              "2038-01-18-22,2097152,0\n"
                              "2038-01-18-21,1048576,1048576\n");
    write_file(DAILY_BACKUP, "2038-01-18,6291456,2097152\n"
                             "2038-01-17,10485760,5242880\n");
    write_file(MONTHLY_BACKUP, "2038-01-01,2038-01-18,16777216,7340032\n"
                               "2037-12-01,2037-12-31,524288000,104857600\n");
    write_file(BILLING_BACKUP, "2037-12-19,2038-01-18,16777216,7340032\n"
                               "2037-11-19,2037-12-18,419430400,83886080\n");

    auto first = std::make_unique<daemon_state>();
    start(*first, 2147471940, 1000 * MiB, 100 * MiB); // 2038-01-18 23:59:00 UTC
    EXPECT_EQ(read_file(LIVE_HOURLY), "2038-01-18-22,2,0\n2038-01-18-21,1,1\n");
    EXPECT_EQ(read_file(LIVE_DAILY), "2038-01-17,10,5\n");
    EXPECT_EQ(first->wan[0].hour_bucket_time, 2147468400); // 2038-01-18 23:00:00 UTC

    tick(*first, 2147471970, 1001 * MiB, 100 * MiB + MiB / 2); // 23:59:30
    tick(*first, LAST_32_BIT_SECOND, 1003 * MiB, 101 * MiB + MiB / 2);
    tick(*first, 2147486410, 1003 * MiB + MiB / 2, 101 * MiB + MiB / 2); // 2038-01-19 04:00:10

    const std::string hourly = "2038-01-19-03,2,1\n"
                               "2038-01-18-23,4,1\n"
                               "2038-01-18-22,2,0\n"
                               "2038-01-18-21,1,1\n";
    const std::string daily = "2038-01-18,7,2\n2038-01-17,10,5\n";
    const std::string monthly = "2037-12-01,2037-12-31,500,100\n";
    const std::string billing = "2037-12-19,2038-01-18,17,7\n2037-11-19,2037-12-18,400,80\n";
    EXPECT_EQ(read_file(LIVE_HOURLY), hourly);
    EXPECT_EQ(read_file(LIVE_DAILY), daily);
    EXPECT_EQ(read_file(LIVE_MONTHLY), monthly);
    EXPECT_EQ(read_file(LIVE_BILLING), billing);

    write_file(TIMESTAMP, "stale\n");
    raise(SIGUSR1);
    loop_pass(*first);
    EXPECT_EQ(read_file(HOURLY_BACKUP), "2038-01-19-04,524288,0\n"
                                        "2038-01-19-03,2097152,1048576\n"
                                        "2038-01-18-23,4194304,1572864\n"
                                        "2038-01-18-22,2097152,0\n"
                                        "2038-01-18-21,1048576,1048576\n");
    EXPECT_EQ(read_file(DAILY_BACKUP), "2038-01-19,2621440,1048576\n"
                                       "2038-01-18,7340032,2621440\n"
                                       "2038-01-17,10485760,5242880\n");
    EXPECT_EQ(read_file(MONTHLY_BACKUP), "2038-01-01,2038-01-19,20447232,8912896\n"
                                         "2037-12-01,2037-12-31,524288000,104857600\n");
    EXPECT_EQ(read_file(BILLING_BACKUP), "2038-01-19,2038-01-19,2621440,1048576\n"
                                         "2037-12-19,2038-01-18,17825792,7340032\n"
                                         "2037-11-19,2037-12-18,419430400,83886080\n");
    EXPECT_EQ(read_file(TIMESTAMP), "");

    // The restart: the new daemon deletes the live histories and restores them.
    first.reset();
    auto second = std::make_unique<daemon_state>();
    start(*second, 2147487600, 1003 * MiB + MiB / 2, 101 * MiB + MiB / 2); // 2038-01-19 04:20:00
    EXPECT_EQ(read_file(LIVE_HOURLY), hourly);
    EXPECT_EQ(read_file(LIVE_DAILY), daily);
    EXPECT_EQ(read_file(LIVE_MONTHLY), monthly);
    EXPECT_EQ(read_file(LIVE_BILLING), billing);
    const wan_usage& r = second->wan[0];
    EXPECT_EQ(r.hour_bucket_time, 2147486400); // 2038-01-19 04:00:00 UTC
    EXPECT_EQ(r.hour_bytes[0], MiB / 2);
    EXPECT_EQ(r.hour_bytes[1], 0u);
    EXPECT_EQ(r.day_bucket_time, 2147472000);  // 2038-01-19 00:00:00 UTC
    EXPECT_EQ(r.day_bytes[0], 2 * MiB + MiB / 2);
    EXPECT_EQ(r.day_bytes[1], 1 * MiB);
    EXPECT_EQ(r.month_start, 2145916800);      // 2038-01-01 00:00:00 UTC
    EXPECT_EQ(r.billing_start, 2147472000);

    // Counting goes on from the restored running hour, day, month and cycle.
    tick(*second, 2147487630, 1004 * MiB + MiB / 2, 102 * MiB + MiB / 2);
    EXPECT_EQ(r.billing_end, 2150150399);      // 2038-02-18 23:59:59 UTC
    EXPECT_EQ(read_file(HOURLY_CSV), "2038-01-19-04,1,1\n" + hourly);
    EXPECT_EQ(read_file(DAILY_CSV), "2038-01-19,3,2\n" + daily);
    EXPECT_EQ(read_file(MONTHLY_CSV), "2038-01-01,2038-01-19,20,9\n" + monthly);
    EXPECT_EQ(read_file(BILLING_CSV), "2038-01-19,2038-01-19,3,2\n" + billing);
}

// ---------------------------------------------------------------------------------------
// Far beyond

TEST_F(Year2038, TicksAcross2106_02_07_06_28_15UtcKeepTheirDatesAndTheBackupsTheirNumbers)
{
    write_file(CONFIG, "WAN1_NAME=Fibre\n");
    write_file(LIFETIME_INIT, "4294967296\n5000000000\n7\n");
    start(state, 4294967280);                                   // 2106-02-07 06:28:00 UTC
    tick(state, LAST_UNSIGNED_32_BIT_SECOND, 100 * MiB, 10 * MiB);
    tick(state, 4294967296, 200 * MiB, 20 * MiB);               // 06:28:16
    tick(state, 4294969205, 4296 * MiB, 21 * MiB);              // 07:00:05
    EXPECT_EQ(state.wan[0].hour_bucket_time, 4294969205);
    EXPECT_EQ(state.wan[0].month_start, 4294425600);            // 2106-02-01 00:00:00 UTC
    EXPECT_EQ(read_file(LIVE_HOURLY), "2106-02-07-06,200,20\n");
    EXPECT_EQ(read_file(HOURLY_CSV), "2106-02-07-07,4096,1\n2106-02-07-06,200,20\n");
    EXPECT_EQ(read_file(DAILY_CSV), "2106-02-07,4296,21\n");
    EXPECT_EQ(read_file(MONTHLY_CSV), "2106-02-01,2106-02-07,4296,21\n");
    EXPECT_EQ(read_file(HOURLY_TOTAL), "2106-02-07-07,4096,1\n2106-02-07-06,200,20\n");
    EXPECT_EQ(read_file(DAILY_TOTAL), "2106-02-07,4296,21\n");
    EXPECT_EQ(read_file(MONTHLY_TOTAL), "2106-02-01,2106-02-28,4296,21\n");

    raise(SIGUSR1);
    loop_pass(state);
    EXPECT_EQ(read_file(HOURLY_BACKUP), "2106-02-07-07,4294967296,1048576\n2106-02-07-06,209715200,20971520\n");
    EXPECT_EQ(read_file(DAILY_BACKUP), "2106-02-07,4504682496,22020096\n");
    EXPECT_EQ(read_file(MONTHLY_BACKUP), "2106-02-01,2106-02-07,4504682496,22020096\n");
    // The start time past the unsigned 32-bit range is written whole.
    EXPECT_EQ(read_file(LIFETIME), "4294967296\n9504682496\n22020103\n");
}

} // namespace
