// Backup of the records under "/tmp/ruvo_backup" and their restore at start-up: the exact
// backup files (bytes where the live files show MiB), the time-stamp and lifetime files,
// the restore of the rings and histories with its duplicate and ring-full rules, the live
// files rewritten from the backups, a whole daemon restarted on the same root, and the
// backups that SIGUSR1 and SIGHUP ask the loop for.
#include "daemon_commands.h"
#include "sandbox.h"

#include "core/link_usage.h"
#include "core/period_clock.h"
#include "core/wan_usage.h"
#include "daemon/daemon.h"
#include "daemon/signals.h"
#include "history/backup.h"
#include "history/daily.h"
#include "history/hourly.h"

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr uint64_t MiB = 1ull << 20;

constexpr const char* HOURLY_BACKUP = "/tmp/ruvo_backup/wan1/ruvo.hourly.csv";
constexpr const char* DAILY_BACKUP = "/tmp/ruvo_backup/wan1/ruvo.daily.csv";
constexpr const char* MONTHLY_BACKUP = "/tmp/ruvo_backup/wan1/ruvo.monthly.csv";
constexpr const char* BILLING_BACKUP = "/tmp/ruvo_backup/wan1/ruvo.billing.csv";
constexpr const char* TIMESTAMP = "/tmp/ruvo_backup/timestamp";
constexpr const char* LIFETIME = "/tmp/ruvo_backup/lifetime_usage";
constexpr const char* LIFETIME_INIT = "/var/run/korel/lifetime_usage.init";

constexpr const char* LIVE_HOURLY = "/var/run/korel/wan1/usage_history.hourly";
constexpr const char* LIVE_DAILY = "/var/run/korel/wan1/usage_history.daily";
constexpr const char* LIVE_MONTHLY = "/var/run/korel/wan1/usage_history.monthly";
constexpr const char* LIVE_BILLING = "/var/run/korel/wan1/usage_history.billing";

constexpr const char* LINK_USAGE = "/proc/korel/config/link_usage";
constexpr const char* TIME_INITIALIZED = "/var/run/korel/time_initialized";
constexpr const char* CONFIG = "/usr/local/velto/conf/config";

// A finished hour of a ring.
usage_entry hour_entry(int year, int month, int day, int hour, uint64_t b1, uint64_t b2)
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

// A finished day of a ring.
usage_entry day_entry(int year, int month, int day, uint64_t b1, uint64_t b2)
{
    return hour_entry(year, month, day, 0, b1, b2);
}

// "YYYY-MM-DD HH:MM:SS b1 b2" of a ring entry, from its fields as they are.
std::string entry_text(const usage_entry& e)
{
    char text[96];
    snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d %llu %llu", e.when.tm_year + 1900,
             e.when.tm_mon + 1, e.when.tm_mday, e.when.tm_hour, e.when.tm_min, e.when.tm_sec,
             static_cast<unsigned long long>(e.bytes[0]), static_cast<unsigned long long>(e.bytes[1]));
    return text;
}

// The local time t formatted with fmt (the test's own formatting of generated rows).
std::string format_local(time_t t, const char* fmt)
{
    struct tm tm;
    localtime_r(&t, &tm);
    char text[64];
    strftime(text, sizeof text, fmt, &tm);
    return text;
}

std::string u64(uint64_t value) { return std::to_string(static_cast<unsigned long long>(value)); }

// Year and month k months before February 2024 (k = 0 is February 2024).
void month_back(int k, int* year, int* month)
{
    int index = 2024 * 12 + 1 - k;
    *year = index / 12;
    *month = index % 12 + 1;
}

std::string month_dates(int year, int month)
{
    char text[32];
    snprintf(text, sizeof text, "%04d-%02d-01,%04d-%02d-28", year, month, year, month);
    return text;
}

class BackupBase : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        write_file("/tmp/.keep", "");
        write_file("/tmp/ruvo_backup/wan1/.keep", "");
        write_file("/tmp/ruvo_backup/wan2/.keep", "");
        write_file("/var/run/korel/wan1/.keep", "");
        write_file("/var/run/korel/wan2/.keep", "");
        link_usage_raw_sum[0] = 0;
        link_usage_raw_sum[1] = 0;
    }
    void TearDown() override
    {
        // A daemon started in a test installs its handlers; the test process gets its own back.
        for (int signo : {SIGALRM, SIGHUP, SIGUSR1, SIGINT, SIGTERM, SIGPIPE})
            signal(signo, SIG_DFL);
        link_usage_raw_sum[0] = 0;
        link_usage_raw_sum[1] = 0;
        Sandbox::TearDown();
    }

    // A zeroed record of WAN wan_index + 1 (sim_number 0) or of one of its SIM cards.
    static wan_usage record(int wan_index, int sim_number = 0)
    {
        wan_usage r{};
        r.wan_index = wan_index;
        r.sim_number = sim_number;
        r.sim_slot_index = sim_number == 0 ? -1 : 0;
        r.start_day = -1;
        return r;
    }

    static void sampled_at(wan_usage& r, time_t t)
    {
        r.sample_time = t;
        localtime_r(&t, &r.sample_tm);
    }

    // The kernel's counters of WAN 1 and WAN 2 at time t, in bytes.
    void kernel(time_t t, uint64_t a1, uint64_t a2, uint64_t b1, uint64_t b2)
    {
        write_file(LINK_USAGE, "timestamp:" + std::to_string(static_cast<long long>(t)) + "\nCON:1\nOVERALL:" +
                                   u64(a1) + " " + u64(a2) + "\nCON:2\nOVERALL:" + u64(b1) + " " + u64(b2) +
                                   "\n");
    }

    // One tick of a whole daemon at t with the kernel's counters of both WANs.
    void tick(daemon_state& state, time_t t, uint64_t a1, uint64_t a2, uint64_t b1 = 0, uint64_t b2 = 0)
    {
        plat.clock = t;
        kernel(t, a1, a2, b1, b2);
        tick_pending = 1;
        loop_pass(state);
    }

    time_t mtime_of(const std::string& absolute)
    {
        struct stat st;
        if (stat(real(absolute).c_str(), &st) != 0)
            return -1;
        return st.st_mtime;
    }
};

class Backup : public BackupBase {};
class Restore : public BackupBase {};
class Restart : public BackupBase {};
class BackupLoop : public BackupBase {
protected:
    // A daemon of two WANs started at 2024-03-05 14:00:00 with the clock set and WAN 1's
    // billing cycle starting on the 1st, then its first tick at 14:00:30.
    void start_and_first_tick()
    {
        write_file(TIME_INITIALIZED, "");
        write_file(CONFIG, "WAN1_USAGE_START_DAY=1\n");
        write_file(LIFETIME_INIT, "1709000000\n5000000000\n7\n");
        plat.clock = local(2024, 3, 5, 14, 0, 0);
        kernel(plat.clock, 0, 0, 0, 0);
        ASSERT_EQ(daemon_start(state, 2), 0);
        loop_pass(state); // the pass straight after start-up: no tick yet
        tick(state, local(2024, 3, 5, 14, 0, 30), 3 * MiB + 100, 1 * MiB, 2 * MiB, 0);
        plat.commands.clear(); // those of the start-up
    }
    daemon_state state;
};

// ---------------------------------------------------------------------------------------
// The backup files

TEST_F(Backup, HourlyFileHoldsRunningHourThenRingNewestFirstInBytes)
{
    wan_usage r = record(0);
    r.hour_bucket_time = local(2024, 3, 5, 14, 20, 0);
    r.hour_bytes[0] = 5 * MiB + 123;
    r.hour_bytes[1] = 7;
    // Three hours in slots 30, 31 and 0: the ring wraps. Slots 29 and 1 lie outside it.
    r.hourly_tail = 30;
    r.hourly_head = 33;
    r.hourly[29] = hour_entry(2024, 3, 5, 9, 99, 99);
    r.hourly[30] = hour_entry(2024, 3, 5, 11, 1 * MiB + 1, 2);
    r.hourly[31] = hour_entry(2024, 3, 5, 12, 3 * MiB, 0);
    r.hourly[0] = hour_entry(2024, 3, 5, 13, 4096 * MiB, 9);
    r.hourly[1] = hour_entry(2024, 3, 5, 10, 98, 98);
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(HOURLY_BACKUP), "2024-03-05-14,5243003,7\n"
                                        "2024-03-05-13,4294967296,9\n"
                                        "2024-03-05-12,3145728,0\n"
                                        "2024-03-05-11,1048577,2\n");
}

TEST_F(Backup, HourlyFileOfAnEmptyRingHoldsOnlyTheRunningHour)
{
    wan_usage r = record(0);
    r.hour_bucket_time = local(2024, 3, 5, 14, 0, 0);
    r.hour_bytes[0] = 1;
    r.hour_bytes[1] = 2;
    r.hourly_tail = 7;
    r.hourly_head = 39; // 39 = 7 modulo 32: empty
    r.hourly[6] = hour_entry(2024, 3, 5, 13, 5, 5);
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(HOURLY_BACKUP), "2024-03-05-14,1,2\n");
}

TEST_F(Backup, DailyFileHoldsRunningDayThenRingNewestFirstInBytes)
{
    wan_usage r = record(0);
    r.day_bucket_time = local(2024, 3, 5, 14, 20, 0);
    r.day_bytes[0] = 10 * MiB + 5;
    r.day_bytes[1] = 3 * MiB;
    r.daily_tail = 62;
    r.daily_head = 65;
    r.daily[61] = day_entry(2024, 2, 28, 99, 99);
    r.daily[62] = day_entry(2024, 3, 2, 1, 2);
    r.daily[63] = day_entry(2024, 3, 3, 1 * MiB, 1 * MiB);
    r.daily[0] = day_entry(2024, 3, 4, 5000 * MiB, 1);
    r.daily[1] = day_entry(2024, 3, 1, 98, 98);
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(DAILY_BACKUP), "2024-03-05,10485765,3145728\n"
                                       "2024-03-04,5242880000,1\n"
                                       "2024-03-03,1048576,1048576\n"
                                       "2024-03-02,1,2\n");
}

TEST_F(Backup, MonthlyFileHoldsRunningMonthThenHistoryLinesScaledFromMiBToBytes)
{
    wan_usage r = record(0);
    sampled_at(r, local(2024, 3, 5, 14, 20, 0));
    r.month_start = local(2024, 3, 1);
    r.month_bytes[0] = 123456789;
    r.month_bytes[1] = 42;
    write_file(LIVE_MONTHLY, "2024-02-01,2024-02-29,1532,210\n"
                             "2024-01-01,2024-01-31,70000,0\n"
                             "2023-12-01,2023-12-31,4095,1\n");
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(MONTHLY_BACKUP), "2024-03-01,2024-03-05,123456789,42\n"
                                         "2024-02-01,2024-02-29,1606418432,220200960\n"
                                         "2024-01-01,2024-01-31,73400320000,0\n"
                                         "2023-12-01,2023-12-31,4293918720,1048576\n");
    // The live history is only read.
    EXPECT_EQ(read_file(LIVE_MONTHLY), "2024-02-01,2024-02-29,1532,210\n"
                                       "2024-01-01,2024-01-31,70000,0\n"
                                       "2023-12-01,2023-12-31,4095,1\n");
}

TEST_F(Backup, MonthlyFileCopiesEveryHistoryLineAndSkipsLinesThatDoNotParse)
{
    wan_usage r = record(0);
    sampled_at(r, local(2024, 3, 5, 14, 20, 0));
    r.month_start = local(2024, 3, 1);
    r.month_bytes[0] = 1;
    r.month_bytes[1] = 2;
    std::string history;
    std::string expected = "2024-03-01,2024-03-05,1,2\n";
    for (int k = 0; k < 63; ++k) {
        int year, month;
        month_back(k, &year, &month);
        history += month_dates(year, month) + "," + std::to_string(k + 1) + "," + std::to_string(k) + "\n";
        expected += month_dates(year, month) + "," + u64((k + 1) * MiB) + "," + u64(k * MiB) + "\n";
        if (k == 10)
            history += "garbage\n";
    }
    write_file(LIVE_MONTHLY, history);
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(MONTHLY_BACKUP), expected); // 1 + 63 lines, no limit
}

TEST_F(Backup, BillingFileHoldsRunningCycleThenHistoryLinesScaledFromMiBToBytes)
{
    wan_usage r = record(0);
    sampled_at(r, local(2024, 3, 5, 14, 20, 0));
    r.start_day = 15;
    r.billing_day_applied = 15;
    r.billing_start = local(2024, 2, 15);
    r.billing_end = local(2024, 3, 14, 23, 59, 59);
    r.billing_bytes[0] = 2 * MiB + 1;
    r.billing_bytes[1] = 3;
    write_file(LIVE_BILLING, "2024-01-15,2024-02-14,400,80\n"
                             "2023-12-15,2024-01-14,350,70\n");
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(BILLING_BACKUP), "2024-02-15,2024-03-05,2097153,3\n"
                                         "2024-01-15,2024-02-14,419430400,83886080\n"
                                         "2023-12-15,2024-01-14,367001600,73400320\n");
}

TEST_F(Backup, BillingFileIsWrittenAlsoForARecordWithoutBillingCycle)
{
    wan_usage r = record(0);
    sampled_at(r, local(2024, 3, 5, 14, 20, 0));
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(BILLING_BACKUP), ""); // billing_start 0: no running line

    write_file(LIVE_BILLING, "2024-01-15,2024-02-14,1,1\n");
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(BILLING_BACKUP), "2024-01-15,2024-02-14,1048576,1048576\n");
}

TEST_F(Backup, SimRecordsWriteTheSimFileNamesAndReadTheSimHistories)
{
    wan_usage sims[2] = {record(1, 1), record(1, 2)};
    sims[0].hour_bucket_time = local(2024, 3, 5, 14, 0, 10);
    sims[0].hour_bytes[0] = 1;
    sims[0].hour_bytes[1] = 2;
    wan_usage& s2 = sims[1];
    sampled_at(s2, local(2024, 3, 5, 14, 0, 10));
    s2.hour_bucket_time = local(2024, 3, 5, 14, 0, 10);
    s2.hour_bytes[0] = 3;
    s2.hour_bytes[1] = 4;
    s2.day_bucket_time = local(2024, 3, 5, 14, 0, 10);
    s2.day_bytes[0] = 5;
    s2.day_bytes[1] = 6;
    s2.month_start = local(2024, 3, 1);
    s2.month_bytes[0] = 7;
    s2.month_bytes[1] = 8;
    s2.start_day = 15;
    s2.billing_start = local(2024, 2, 15);
    s2.billing_bytes[0] = 9;
    s2.billing_bytes[1] = 10;
    write_file("/var/run/korel/wan2/sim2_usage_history.monthly", "2024-02-01,2024-02-29,2,3\n");
    write_file("/var/run/korel/wan2/sim2_usage_history.billing", "2024-01-15,2024-02-14,4,5\n");
    // The WAN's own histories are not the SIM's.
    write_file("/var/run/korel/wan2/usage_history.monthly", "2023-01-01,2023-01-31,9,9\n");
    write_file("/var/run/korel/wan2/usage_history.billing", "2023-01-15,2023-02-14,9,9\n");

    backup_usage(sims, 2);

    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.sim1.hourly.csv"), "2024-03-05-14,1,2\n");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.sim1.daily.csv"), "");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.sim1.monthly.csv"), "");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.sim1.billing.csv"), "");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.sim2.hourly.csv"), "2024-03-05-14,3,4\n");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.sim2.daily.csv"), "2024-03-05,5,6\n");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.sim2.monthly.csv"),
              "2024-03-01,2024-03-05,7,8\n2024-02-01,2024-02-29,2097152,3145728\n");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.sim2.billing.csv"),
              "2024-02-15,2024-03-05,9,10\n2024-01-15,2024-02-14,4194304,5242880\n");
    EXPECT_FALSE(exists("/tmp/ruvo_backup/wan2/ruvo.hourly.csv"));
    EXPECT_FALSE(exists("/tmp/ruvo_backup/wan2/ruvo.daily.csv"));
    EXPECT_FALSE(exists("/tmp/ruvo_backup/wan2/ruvo.monthly.csv"));
    EXPECT_FALSE(exists("/tmp/ruvo_backup/wan2/ruvo.billing.csv"));
}

TEST_F(Backup, RowsDatedBefore2009AreLeftOut)
{
    wan_usage r = record(0);
    sampled_at(r, local(2009, 1, 2, 5, 0, 0));
    r.hour_bucket_time = local(2009, 1, 1, 1, 10, 0);
    r.hour_bytes[0] = 1;
    r.hour_bytes[1] = 1;
    r.hourly_head = 2;
    r.hourly[0] = hour_entry(2008, 12, 31, 23, 2, 2);
    r.hourly[1] = hour_entry(2009, 1, 1, 0, 3, 3); // exactly 1230768000: kept
    r.day_bucket_time = local(2009, 1, 2, 5, 0, 0);
    r.day_bytes[0] = 4;
    r.day_bytes[1] = 4;
    r.daily_head = 2;
    r.daily[0] = day_entry(2008, 12, 31, 5, 5);
    r.daily[1] = day_entry(2009, 1, 1, 6, 6);
    // month_start 0: no running month line.
    write_file(LIVE_MONTHLY, "2009-01-01,2009-01-31,1,1\n2008-12-01,2008-12-31,2,2\n");
    r.start_day = 15;
    r.billing_start = local(2008, 12, 15);
    r.billing_bytes[0] = 7;
    write_file(LIVE_BILLING, "2008-12-15,2009-01-14,7,7\n2008-11-15,2008-12-14,1,1\n");

    backup_usage(&r, 1);

    EXPECT_EQ(read_file(HOURLY_BACKUP), "2009-01-01-01,1,1\n2009-01-01-00,3,3\n");
    EXPECT_EQ(read_file(DAILY_BACKUP), "2009-01-02,4,4\n2009-01-01,6,6\n");
    EXPECT_EQ(read_file(MONTHLY_BACKUP), "2009-01-01,2009-01-31,1048576,1048576\n");
    EXPECT_EQ(read_file(BILLING_BACKUP), "");
}

TEST_F(Backup, RowsBefore2009AreJudgedInLocalTime)
{
    // 2009-01-01 00:00 in Berlin is 2008-12-31 23:00 UTC, an hour before the limit.
    set_tz("Europe/Berlin");
    wan_usage r = record(0);
    sampled_at(r, local(2009, 2, 3, 12, 0, 0));
    r.hour_bucket_time = local(2009, 1, 1, 2, 5, 0);
    r.hour_bytes[0] = 3;
    r.hour_bytes[1] = 3;
    r.hourly_head = 2;
    r.hourly[0] = hour_entry(2009, 1, 1, 0, 1, 1);
    r.hourly[1] = hour_entry(2009, 1, 1, 1, 2, 2);
    r.day_bucket_time = local(2009, 1, 2, 0, 30, 0);
    r.day_bytes[0] = 4;
    r.day_bytes[1] = 4;
    r.daily_head = 1;
    r.daily[0] = day_entry(2009, 1, 1, 5, 5);
    r.month_start = local(2009, 2, 1);
    r.month_bytes[0] = 8;
    r.month_bytes[1] = 9;
    write_file(LIVE_MONTHLY, "2009-01-01,2009-01-31,6,6\n");

    backup_usage(&r, 1);

    EXPECT_EQ(read_file(HOURLY_BACKUP), "2009-01-01-02,3,3\n2009-01-01-01,2,2\n");
    EXPECT_EQ(read_file(DAILY_BACKUP), "2009-01-02,4,4\n");
    EXPECT_EQ(read_file(MONTHLY_BACKUP), "2009-02-01,2009-02-03,8,9\n");
}

TEST_F(Backup, TimestampFileIsRecreatedEmpty)
{
    wan_usage r = record(0);
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(TIMESTAMP), "");

    write_file(TIMESTAMP, "stale\n");
    set_mtime(TIMESTAMP, 1000000000);
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(TIMESTAMP), "");
    EXPECT_NE(mtime_of(TIMESTAMP), 1000000000); // made anew at this backup
}

TEST_F(Backup, LifetimeFileAddsTheRawSumsOfTheLastKernelReadToTheStoredTotals)
{
    write_file(LIFETIME_INIT, "1700000000\n9000000000\n12345\n");
    link_usage_raw_sum[0] = 3000000000ull;
    link_usage_raw_sum[1] = 678;
    wan_usage r = record(0);
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(LIFETIME), "1700000000\n12000000000\n13023\n");
}

TEST_F(Backup, LifetimeFileFollowsTheLatestKernelRead)
{
    write_file(LIFETIME_INIT, "1700000000\n1000\n2000\n");
    wan_usage wans[2] = {record(0), record(1)};
    write_file(LINK_USAGE, "timestamp:1709647230\nCON:1\nOVERALL:100 200\nCON:2\nOVERALL:50 60\n");
    read_link_usage(wans, 2, nullptr);
    backup_usage(wans, 2);
    EXPECT_EQ(read_file(LIFETIME), "1700000000\n1150\n2260\n");

    // The sums are those of the last read only, not a running total.
    write_file(LINK_USAGE, "timestamp:1709647260\nCON:1\nOVERALL:110 220\n");
    read_link_usage(wans, 2, nullptr);
    backup_usage(wans, 2);
    EXPECT_EQ(read_file(LIFETIME), "1700000000\n1110\n2220\n");
}

TEST_F(Backup, NoLifetimeFileWithoutTheInitFile)
{
    link_usage_raw_sum[0] = 5;
    link_usage_raw_sum[1] = 6;
    wan_usage r = record(0);
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(LIFETIME), "<missing>");
    EXPECT_EQ(read_file(TIMESTAMP), "");
}

TEST_F(Backup, NoLifetimeFileWhenTheStoredStartTimeIsZero)
{
    write_file(LIFETIME_INIT, "0\n100\n200\n");
    link_usage_raw_sum[0] = 5;
    link_usage_raw_sum[1] = 6;
    wan_usage r = record(0);
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(LIFETIME), "<missing>");
}

TEST_F(Backup, ScratchFileThatCannotBeOpenedLeavesTheOlderBackups)
{
    ASSERT_EQ(mkdir(real("/tmp/ruvo.tmp").c_str(), 0755), 0); // fopen for writing fails
    write_file(HOURLY_BACKUP, "old hourly\n");
    write_file(DAILY_BACKUP, "old daily\n");
    write_file(MONTHLY_BACKUP, "old monthly\n");
    write_file(BILLING_BACKUP, "old billing\n");
    write_file(LIFETIME, "old lifetime\n");
    write_file(LIFETIME_INIT, "1700000000\n1\n2\n");
    write_file(TIMESTAMP, "stale\n");
    wan_usage r = record(0);
    r.hour_bucket_time = local(2024, 3, 5, 14, 0, 0);
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(HOURLY_BACKUP), "old hourly\n");
    EXPECT_EQ(read_file(DAILY_BACKUP), "old daily\n");
    EXPECT_EQ(read_file(MONTHLY_BACKUP), "old monthly\n");
    EXPECT_EQ(read_file(BILLING_BACKUP), "old billing\n");
    EXPECT_EQ(read_file(LIFETIME), "old lifetime\n");
    EXPECT_EQ(read_file(TIMESTAMP), ""); // not written through the scratch file
}

// ---------------------------------------------------------------------------------------
// Restore

TEST_F(Restore, HourlyBackupGivesRunningHourAndRingFilledBackwardsFromSlotZero)
{
    write_file(HOURLY_BACKUP, "2024-03-05-14,5243003,7\n"
                              "2024-03-05-13,4294967296,9\n"
                              "2024-03-05-12,3145728,0\n"
                              "2024-03-05-11,1048577,2\n");
    wan_usage r = record(0);
    r.hourly_tail = 2; // whatever the ring held before
    r.hourly_head = 5;
    restore_hourly(r);
    EXPECT_EQ(r.hour_bytes[0], 5243003u);
    EXPECT_EQ(r.hour_bytes[1], 7u);
    EXPECT_EQ(show(r.hour_bucket_time), "2024-03-05 14:00:00 UTC");
    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(r.hourly_tail % HOURLY_RING_SIZE, 29u);
    EXPECT_EQ(entry_text(r.hourly[31]), "2024-03-05 13:00:00 4294967296 9");
    EXPECT_EQ(entry_text(r.hourly[30]), "2024-03-05 12:00:00 3145728 0");
    EXPECT_EQ(entry_text(r.hourly[29]), "2024-03-05 11:00:00 1048577 2");
    EXPECT_EQ(read_file(LIVE_HOURLY), "2024-03-05-13,4096,0\n"
                                      "2024-03-05-12,3,0\n"
                                      "2024-03-05-11,1,0\n");
}

TEST_F(Restore, FortyHoursAfterTheFirstLineRestoreTheNewest31AndRewriteTheLiveHistory)
{
    const time_t running = local(2024, 3, 5, 14);
    std::string backup = "2024-03-05-14,1,1\n";
    std::vector<std::string> lines(41);
    for (int k = 1; k <= 40; ++k) {
        lines[k] = format_local(running - k * 3600, "%Y-%m-%d-%H") + "," + u64(k * MiB + k) + "," +
                   std::to_string(k) + "\n";
        backup += lines[k];
    }
    write_file(HOURLY_BACKUP, backup);
    wan_usage r = record(0);
    restore_hourly(r);

    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(r.hourly_tail % HOURLY_RING_SIZE, 1u);
    for (int k = 1; k <= 31; ++k) {
        SCOPED_TRACE(k);
        EXPECT_EQ(entry_text(r.hourly[(32 - k) % 32]),
                  format_local(running - k * 3600, "%Y-%m-%d %H:00:00 ") + u64(k * MiB + k) + " " +
                      std::to_string(k));
    }
    EXPECT_EQ(entry_text(r.hourly[1]), "2024-03-04 07:00:00 32505887 31"); // the oldest kept

    // The live history shows the newest 23 of them, in MiB.
    std::string live;
    for (int k = 1; k <= 23; ++k)
        live += format_local(running - k * 3600, "%Y-%m-%d-%H") + "," + std::to_string(k) + ",0\n";
    EXPECT_EQ(read_file(LIVE_HOURLY), live);
    EXPECT_EQ(live.substr(0, 18), "2024-03-05-13,1,0\n");
    EXPECT_EQ(live.substr(live.size() - 19), "2024-03-04-15,23,0\n");

    // A backup of the restored record gives back the running hour and the 31 hours, in bytes.
    backup_usage(&r, 1);
    std::string expected = "2024-03-05-14,1,1\n";
    for (int k = 1; k <= 31; ++k)
        expected += lines[k];
    EXPECT_EQ(read_file(HOURLY_BACKUP), expected);
}

TEST_F(Restore, SixtyFourDaysAfterTheFirstLineRestoreTheNewest63)
{
    const time_t running = local(2024, 3, 5);
    std::string backup = "2024-03-05,1,1\n";
    for (int k = 1; k <= 64; ++k)
        backup += format_local(running - k * 86400, "%Y-%m-%d") + "," + u64(k * MiB) + ",0\n";
    write_file(DAILY_BACKUP, backup);
    wan_usage r = record(0);
    restore_daily(r);

    EXPECT_EQ(r.day_bytes[0], 1u);
    EXPECT_EQ(r.day_bytes[1], 1u);
    EXPECT_EQ(show(r.day_bucket_time), "2024-03-05 00:00:00 UTC");
    EXPECT_EQ(r.daily_head, 0u);
    EXPECT_EQ(r.daily_tail % DAILY_RING_SIZE, 1u);
    EXPECT_EQ(entry_text(r.daily[63]), "2024-03-04 00:00:00 1048576 0");
    EXPECT_EQ(entry_text(r.daily[1]), "2024-01-02 00:00:00 66060288 0"); // 63 MiB
    std::string live;
    for (int k = 1; k <= 59; ++k)
        live += format_local(running - k * 86400, "%Y-%m-%d") + "," + std::to_string(k) + ",0\n";
    EXPECT_EQ(read_file(LIVE_DAILY), live);
    EXPECT_EQ(live.substr(live.size() - 16), "2024-01-06,59,0\n");
}

TEST_F(Restore, RepeatedHourKeepsOnlyTheFirstOfTwoConsecutiveLines)
{
    write_file(HOURLY_BACKUP, "2024-03-05-14,1,1\n"
                              "2024-03-05-14,2,2\n"             // the running hour again
                              "2024-03-05-13,3145728,0\n"
                              "2024-03-05-13,4194304,0\n"       // repeated
                              "2024-03-05-12,5242880,0\n"
                              "2024-03-05-13,6291456,0\n");     // not consecutive: kept
    wan_usage r = record(0);
    restore_hourly(r);
    EXPECT_EQ(r.hour_bytes[0], 1u);
    EXPECT_EQ(r.hour_bytes[1], 1u);
    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(r.hourly_tail % HOURLY_RING_SIZE, 29u);
    EXPECT_EQ(entry_text(r.hourly[31]), "2024-03-05 13:00:00 3145728 0");
    EXPECT_EQ(entry_text(r.hourly[30]), "2024-03-05 12:00:00 5242880 0");
    EXPECT_EQ(entry_text(r.hourly[29]), "2024-03-05 13:00:00 6291456 0");
    EXPECT_EQ(read_file(LIVE_HOURLY), "2024-03-05-13,3,0\n2024-03-05-12,5,0\n2024-03-05-13,6,0\n");
}

TEST_F(Restore, RepeatedDayKeepsOnlyTheFirstOfTwoConsecutiveLines)
{
    write_file(DAILY_BACKUP, "2024-03-05,1,1\n"
                             "2024-03-05,9,9\n"
                             "2024-03-04,2097152,0\n"
                             "2024-03-04,7340032,0\n"
                             "2024-03-03,3145728,0\n");
    wan_usage r = record(0);
    restore_daily(r);
    EXPECT_EQ(r.day_bytes[0], 1u);
    EXPECT_EQ(r.day_bytes[1], 1u);
    EXPECT_EQ(r.daily_head, 0u);
    EXPECT_EQ(r.daily_tail % DAILY_RING_SIZE, 62u);
    EXPECT_EQ(entry_text(r.daily[63]), "2024-03-04 00:00:00 2097152 0");
    EXPECT_EQ(entry_text(r.daily[62]), "2024-03-03 00:00:00 3145728 0");
    EXPECT_EQ(read_file(LIVE_DAILY), "2024-03-04,2,0\n2024-03-03,3,0\n");
}

TEST_F(Restore, MonthlyHistoryLineForTheRunningMonthIsDropped)
{
    write_file(MONTHLY_BACKUP, "2024-03-01,2024-03-05,5,6\n"
                               "2024-03-01,2024-03-31,1048576,0\n"
                               "2024-02-01,2024-02-29,2097152,1048576\n");
    wan_usage r = record(0);
    restore_monthly(r);
    EXPECT_EQ(show(r.month_start), "2024-03-01 00:00:00 UTC");
    EXPECT_EQ(r.month_bytes[0], 5u);
    EXPECT_EQ(r.month_bytes[1], 6u);
    EXPECT_EQ(read_file(LIVE_MONTHLY), "2024-02-01,2024-02-29,2,1\n");
}

TEST_F(Restore, RepeatedMonthKeepsOnlyTheFirstLineOfTheMonthlyHistory)
{
    write_file(MONTHLY_BACKUP, "2024-03-01,2024-03-05,5,6\n"
                               "2024-02-01,2024-02-29,2097152,1048576\n"
                               "2024-02-01,2024-02-29,9437184,0\n"
                               "2024-02-15,2024-02-29,8388608,0\n" // same month, judged by the first date
                               "2024-01-01,2024-01-31,3145728,0\n");
    wan_usage r = record(0);
    restore_monthly(r);
    EXPECT_EQ(read_file(LIVE_MONTHLY), "2024-02-01,2024-02-29,2,1\n2024-01-01,2024-01-31,3,0\n");
}

TEST_F(Restore, RepeatedMonthKeepsOnlyTheFirstLineOfTheBillingHistory)
{
    write_file(BILLING_BACKUP, "2024-02-15,2024-03-05,1,2\n"
                               "2024-02-20,2024-03-19,4194304,0\n"
                               "2024-01-15,2024-02-14,5242880,1048576\n"
                               "2024-01-20,2024-02-14,6291456,0\n"
                               "2023-12-15,2024-01-14,7340032,0\n");
    wan_usage r = record(0);
    restore_billing(r);
    EXPECT_EQ(read_file(LIVE_BILLING), "2024-01-15,2024-02-14,5,1\n2023-12-15,2024-01-14,7,0\n");
}

TEST_F(Restore, BillingFirstLineSetsCycleStartAndEndFromItsDatesAtMidnight)
{
    write_file(BILLING_BACKUP, "2024-02-15,2024-03-05,26738688,10485760\n");
    write_file(LIVE_BILLING, "2023-01-15,2023-02-14,1,1\n");
    wan_usage r = record(0);
    restore_billing(r);
    EXPECT_EQ(show(r.billing_start), "2024-02-15 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_end), "2024-03-05 00:00:00 UTC");
    EXPECT_EQ(r.billing_bytes[0], 26738688u);
    EXPECT_EQ(r.billing_bytes[1], 10485760u);
    EXPECT_EQ(read_file(LIVE_BILLING), ""); // no closed cycle in the backup
}

TEST_F(Restore, BackupTakenBeforeTheFirstMonthRolloverReadsTheFirstHistoryLineAsRunningMonth)
{
    wan_usage before = record(0);
    sampled_at(before, local(2024, 3, 5, 14, 0, 30));
    before.month_bytes[0] = 77; // month_start still 0
    write_file(LIVE_MONTHLY, "2024-02-01,2024-02-29,10,1\n2024-01-01,2024-01-31,20,2\n");
    backup_usage(&before, 1);
    EXPECT_EQ(read_file(MONTHLY_BACKUP),
              "2024-02-01,2024-02-29,10485760,1048576\n2024-01-01,2024-01-31,20971520,2097152\n");

    wan_usage after = record(0);
    restore_monthly(after);
    EXPECT_EQ(show(after.month_start), "2024-02-01 00:00:00 UTC");
    EXPECT_EQ(after.month_bytes[0], 10485760u);
    EXPECT_EQ(after.month_bytes[1], 1048576u);
    EXPECT_EQ(read_file(LIVE_MONTHLY), "2024-01-01,2024-01-31,20,2\n");
}

TEST_F(Restore, MonthlyHistoryGetsWholeMiBWithoutRowLimitAndWithoutLinesBefore2009)
{
    std::string backup = "2024-03-01,2024-03-05,0,0\n";
    std::string live;
    for (int k = 0; k < 65; ++k) {
        int year, month;
        month_back(k, &year, &month);
        // One byte short of the next MiB, and 70000 MiB (more than 32 bits of bytes).
        backup += month_dates(year, month) + "," + u64((k + 2) * MiB - 1) + ",73400320000\n";
        live += month_dates(year, month) + "," + std::to_string(k + 1) + ",70000\n";
    }
    backup += "2008-12-01,2008-12-31,1048576,1048576\n";
    write_file(MONTHLY_BACKUP, backup);
    wan_usage r = record(0);
    restore_monthly(r);
    EXPECT_EQ(read_file(LIVE_MONTHLY), live); // 65 lines
    EXPECT_EQ(live.substr(0, 30), "2024-02-01,2024-02-28,1,70000\n");
    EXPECT_EQ(live.substr(live.size() - 31), "2018-10-01,2018-10-28,65,70000\n");
}

TEST_F(Restore, EmptyHourlyBackupEmptiesTheRingAndTheLiveHistory)
{
    write_file(HOURLY_BACKUP, "");
    write_file(LIVE_HOURLY, "2024-03-05-13,1,1\n");
    wan_usage r = record(0);
    r.hour_bucket_time = local(2024, 3, 5, 14, 0, 0);
    r.hour_bytes[0] = 7;
    r.hour_bytes[1] = 8;
    r.hourly_tail = 0;
    r.hourly_head = 3;
    restore_hourly(r);
    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(r.hourly_tail, 0u);
    EXPECT_EQ(read_file(LIVE_HOURLY), "");
    // Without a first line the running hour is left as it was.
    EXPECT_EQ(r.hour_bytes[0], 7u);
    EXPECT_EQ(r.hour_bytes[1], 8u);
    EXPECT_EQ(show(r.hour_bucket_time), "2024-03-05 14:00:00 UTC");
}

TEST_F(Restore, EmptyDailyBackupEmptiesTheRingAndTheLiveHistory)
{
    write_file(DAILY_BACKUP, "");
    write_file(LIVE_DAILY, "2024-03-04,1,1\n");
    wan_usage r = record(0);
    r.day_bucket_time = local(2024, 3, 5);
    r.day_bytes[0] = 7;
    r.daily_tail = 60;
    r.daily_head = 66;
    restore_daily(r);
    EXPECT_EQ(r.daily_head, 0u);
    EXPECT_EQ(r.daily_tail, 0u);
    EXPECT_EQ(read_file(LIVE_DAILY), "");
    EXPECT_EQ(r.day_bytes[0], 7u);
    EXPECT_EQ(show(r.day_bucket_time), "2024-03-05 00:00:00 UTC");
}

TEST_F(Restore, EmptyMonthlyAndBillingBackupsEmptyTheLiveHistories)
{
    write_file(MONTHLY_BACKUP, "");
    write_file(BILLING_BACKUP, "");
    write_file(LIVE_MONTHLY, "2024-02-01,2024-02-29,1,1\n");
    write_file(LIVE_BILLING, "2024-01-15,2024-02-14,1,1\n");
    wan_usage r = record(0);
    r.month_start = local(2024, 3, 1);
    r.billing_start = local(2024, 2, 15);
    restore_monthly(r);
    restore_billing(r);
    EXPECT_EQ(read_file(LIVE_MONTHLY), "");
    EXPECT_EQ(read_file(LIVE_BILLING), "");
    EXPECT_EQ(show(r.month_start), "2024-03-01 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_start), "2024-02-15 00:00:00 UTC");
}

TEST_F(Restore, MissingBackupsLeaveTheRecordAndTheLiveFilesAlone)
{
    write_file(LIVE_HOURLY, "2024-03-05-13,1,1\n");
    write_file(LIVE_DAILY, "2024-03-04,1,1\n");
    write_file(LIVE_MONTHLY, "2024-02-01,2024-02-29,1,1\n");
    write_file(LIVE_BILLING, "2024-01-15,2024-02-14,1,1\n");
    wan_usage r = record(0);
    r.hour_bucket_time = local(2024, 3, 5, 14, 0, 0);
    r.hour_bytes[0] = 3;
    r.hourly_tail = 4;
    r.hourly_head = 6;
    r.daily_tail = 1;
    r.daily_head = 2;
    r.month_start = local(2024, 3, 1);
    r.billing_start = local(2024, 2, 15);
    restore_usage(&r, 1);
    EXPECT_EQ(r.hour_bytes[0], 3u);
    EXPECT_EQ(show(r.hour_bucket_time), "2024-03-05 14:00:00 UTC");
    EXPECT_EQ(r.hourly_tail, 4u);
    EXPECT_EQ(r.hourly_head, 6u);
    EXPECT_EQ(r.daily_tail, 1u);
    EXPECT_EQ(r.daily_head, 2u);
    EXPECT_EQ(show(r.month_start), "2024-03-01 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_start), "2024-02-15 00:00:00 UTC");
    EXPECT_EQ(read_file(LIVE_HOURLY), "2024-03-05-13,1,1\n");
    EXPECT_EQ(read_file(LIVE_DAILY), "2024-03-04,1,1\n");
    EXPECT_EQ(read_file(LIVE_MONTHLY), "2024-02-01,2024-02-29,1,1\n");
    EXPECT_EQ(read_file(LIVE_BILLING), "2024-01-15,2024-02-14,1,1\n");
}

TEST_F(Restore, LinesThatDoNotParseAreSkipped)
{
    write_file(HOURLY_BACKUP, "2024-03-05-14,1,2\n"
                              "garbage\n"
                              "2024-03-05-13,3145728,0\n"
                              "\n"
                              "2024-03-05\n"
                              "2024-03-05-12,4194304,0\n");
    write_file(DAILY_BACKUP, "2024-03-05,1,2\nnot a day\n2024-03-04,2097152,0\n");
    write_file(MONTHLY_BACKUP, "2024-03-01,2024-03-05,1,2\n"
                               "broken\n"
                               "2024-02-01,2024-02-29,2097152,0\n"
                               "2024-01-01\n"
                               "2023-12-01,2023-12-31,1048576,0\n");
    write_file(BILLING_BACKUP, "2024-02-15,2024-03-05,1,2\n"
                               "2024-01-15\n"
                               "2024-01-15,2024-02-14,3145728,0\n");
    wan_usage r = record(0);
    restore_usage(&r, 1);
    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(r.hourly_tail % HOURLY_RING_SIZE, 30u);
    EXPECT_EQ(entry_text(r.hourly[31]), "2024-03-05 13:00:00 3145728 0");
    EXPECT_EQ(entry_text(r.hourly[30]), "2024-03-05 12:00:00 4194304 0");
    EXPECT_EQ(read_file(LIVE_HOURLY), "2024-03-05-13,3,0\n2024-03-05-12,4,0\n");
    EXPECT_EQ(r.daily_tail % DAILY_RING_SIZE, 63u);
    EXPECT_EQ(read_file(LIVE_DAILY), "2024-03-04,2,0\n");
    EXPECT_EQ(read_file(LIVE_MONTHLY), "2024-02-01,2024-02-29,2,0\n2023-12-01,2023-12-31,1,0\n");
    EXPECT_EQ(read_file(LIVE_BILLING), "2024-01-15,2024-02-14,3,0\n");
}

TEST_F(Restore, NextHourlyRolloverAfterRestoreAppendsTheRestoredRunningHour)
{
    write_file(HOURLY_BACKUP, "2024-03-05-14,5767168,1048576\n" // 5.5 MiB, 1 MiB
                              "2024-03-05-13,2097152,0\n"
                              "2024-03-05-12,1048576,3145728\n");
    wan_usage r = record(0);
    restore_hourly(r);
    ASSERT_EQ(r.hourly_head, 0u);
    ASSERT_EQ(r.hourly_tail % HOURLY_RING_SIZE, 30u);

    plat.clock = local(2024, 3, 5, 15, 0, 10);
    update_period_clock();
    sampled_at(r, plat.clock);
    r.delta[0] = 2 * MiB;
    r.delta[1] = 0;
    hourly_rollover(r);

    EXPECT_EQ(r.hourly_head, 1u);
    EXPECT_EQ(r.hourly_tail % HOURLY_RING_SIZE, 30u);
    EXPECT_EQ(entry_text(r.hourly[0]), "2024-03-05 14:00:00 5767168 1048576");
    EXPECT_EQ(r.hour_bytes[0], 2 * MiB);
    EXPECT_EQ(r.hour_bytes[1], 0u);
    EXPECT_EQ(show(r.hour_bucket_time), "2024-03-05 15:00:10 UTC");
    EXPECT_EQ(read_file(LIVE_HOURLY), "2024-03-05-14,5,1\n2024-03-05-13,2,0\n2024-03-05-12,1,3\n");
    backup_usage(&r, 1);
    EXPECT_EQ(read_file(HOURLY_BACKUP), "2024-03-05-15,2097152,0\n"
                                        "2024-03-05-14,5767168,1048576\n"
                                        "2024-03-05-13,2097152,0\n"
                                        "2024-03-05-12,1048576,3145728\n");
}

TEST_F(Restore, NextHourlyRolloverAfterAFullRestoreDropsTheOldestHour)
{
    const time_t running = local(2024, 3, 5, 14);
    std::string backup = "2024-03-05-14,1048576,0\n";
    for (int k = 1; k <= 31; ++k)
        backup += format_local(running - k * 3600, "%Y-%m-%d-%H") + "," + u64(k) + ",0\n";
    write_file(HOURLY_BACKUP, backup);
    wan_usage r = record(0);
    restore_hourly(r);
    ASSERT_EQ(r.hourly_tail % HOURLY_RING_SIZE, 1u);

    plat.clock = local(2024, 3, 5, 15, 0, 10);
    update_period_clock();
    sampled_at(r, plat.clock);
    r.delta[0] = 0;
    r.delta[1] = 0;
    hourly_rollover(r);

    EXPECT_EQ(r.hourly_head, 1u);
    EXPECT_EQ(r.hourly_tail % HOURLY_RING_SIZE, 2u);
    EXPECT_EQ(entry_text(r.hourly[0]), "2024-03-05 14:00:00 1048576 0");
    EXPECT_EQ(entry_text(r.hourly[2]), "2024-03-04 08:00:00 30 0"); // now the oldest
    backup_usage(&r, 1);
    std::string expected = "2024-03-05-15,0,0\n2024-03-05-14,1048576,0\n";
    for (int k = 1; k <= 30; ++k)
        expected += format_local(running - k * 3600, "%Y-%m-%d-%H") + "," + u64(k) + ",0\n";
    EXPECT_EQ(read_file(HOURLY_BACKUP), expected);
}

TEST_F(Restore, NextDailyRolloverAfterRestoreAppendsTheRestoredRunningDay)
{
    write_file(DAILY_BACKUP, "2024-03-05,9961472,2621440\n" // 9.5 MiB, 2.5 MiB
                             "2024-03-04,10485760,5242880\n");
    wan_usage r = record(0);
    restore_daily(r);
    ASSERT_EQ(r.daily_tail % DAILY_RING_SIZE, 63u);

    plat.clock = local(2024, 3, 6, 0, 0, 20);
    update_period_clock();
    sampled_at(r, plat.clock);
    r.delta[0] = 1 * MiB;
    r.delta[1] = 1;
    daily_rollover(r);

    EXPECT_EQ(r.daily_head, 1u);
    EXPECT_EQ(r.daily_tail % DAILY_RING_SIZE, 63u);
    EXPECT_EQ(entry_text(r.daily[0]), "2024-03-05 00:00:00 9961472 2621440");
    EXPECT_EQ(r.day_bytes[0], 1 * MiB);
    EXPECT_EQ(r.day_bytes[1], 1u);
    EXPECT_EQ(read_file(LIVE_DAILY), "2024-03-05,9,2\n2024-03-04,10,5\n");
}

TEST_F(Restore, DatesAreLocalTimesWithDaylightSavingLeftToTheLibrary)
{
    set_tz("Europe/Berlin");
    write_file(HOURLY_BACKUP, "2024-07-01-14,1,2\n2024-07-01-13,3,4\n");
    write_file(DAILY_BACKUP, "2024-07-01,5,6\n");
    write_file(MONTHLY_BACKUP, "2024-07-01,2024-07-01,7,8\n");
    write_file(BILLING_BACKUP, "2024-06-15,2024-07-01,9,10\n");
    wan_usage r = record(0);
    restore_usage(&r, 1);
    EXPECT_EQ(r.hour_bucket_time, 1719835200);      // 2024-07-01 14:00 CEST
    EXPECT_EQ(entry_text(r.hourly[31]), "2024-07-01 13:00:00 3 4");
    EXPECT_EQ(r.day_bucket_time, 1719784800);       // 2024-07-01 00:00 CEST
    EXPECT_EQ(r.month_start, 1719784800);
    EXPECT_EQ(r.billing_start, 1718402400);         // 2024-06-15 00:00 CEST
    EXPECT_EQ(r.billing_end, 1719784800);
    EXPECT_EQ(read_file(LIVE_HOURLY), "2024-07-01-13,0,0\n");
}

TEST_F(Restore, SimRecordsReadTheirOwnBackupsAndWriteTheirOwnLiveFiles)
{
    const std::string dir = "/tmp/ruvo_backup/wan2/";
    write_file(dir + "ruvo.sim2.hourly.csv", "2024-03-05-14,1,2\n2024-03-05-13,3145728,1048576\n");
    write_file(dir + "ruvo.sim2.daily.csv", "2024-03-05,1,2\n2024-03-04,2097152,0\n");
    write_file(dir + "ruvo.sim2.monthly.csv",
               "2024-03-01,2024-03-05,3,4\n2024-02-01,2024-02-29,5242880,0\n");
    write_file(dir + "ruvo.sim2.billing.csv",
               "2024-02-15,2024-03-05,5,6\n2024-01-15,2024-02-14,6291456,0\n");
    // The WAN's own backups belong to the WAN record.
    write_file(dir + "ruvo.hourly.csv", "2024-03-05-14,9,9\n2024-03-05-10,9437184,0\n");
    write_file(dir + "ruvo.monthly.csv",
               "2024-03-01,2024-03-05,9,9\n2023-01-01,2023-01-31,9437184,0\n");
    wan_usage sims[2] = {record(1, 1), record(1, 2)};
    restore_usage(sims, 2);

    EXPECT_EQ(sims[1].hour_bytes[0], 1u);
    EXPECT_EQ(sims[1].hour_bytes[1], 2u);
    EXPECT_EQ(show(sims[1].month_start), "2024-03-01 00:00:00 UTC");
    EXPECT_EQ(show(sims[1].billing_start), "2024-02-15 00:00:00 UTC");
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim2_usage_history.hourly"), "2024-03-05-13,3,1\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim2_usage_history.daily"), "2024-03-04,2,0\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim2_usage_history.monthly"), "2024-02-01,2024-02-29,5,0\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim2_usage_history.billing"), "2024-01-15,2024-02-14,6,0\n");
    // SIM 1 has no backups: it starts empty and gets no live files.
    EXPECT_EQ(sims[0].hour_bytes[0], 0u);
    EXPECT_EQ(sims[0].hour_bucket_time, 0);
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim1_usage_history.hourly"), "<missing>");
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim1_usage_history.monthly"), "<missing>");
    EXPECT_EQ(read_file("/var/run/korel/wan2/usage_history.hourly"), "<missing>");
    EXPECT_EQ(read_file("/var/run/korel/wan2/usage_history.monthly"), "<missing>");
}

// ---------------------------------------------------------------------------------------
// A whole daemon restarted on the same root

TEST_F(Restart, LiveHistoriesComeBackFromTheBackupsAndCountingGoesOn)
{
    write_file(TIME_INITIALIZED, "");
    write_file(CONFIG, "WAN1_USAGE_START_DAY=15\n");
    // What an earlier run of the daemon left in the backup directory of WAN 1.
    write_file(HOURLY_BACKUP, "2024-02-29-21,3670016,1048576\n" // 3.5 MiB, 1 MiB
                              "2024-02-29-20,2097152,0\n"
                              "2024-02-29-19,1048576,1048576\n");
    write_file(DAILY_BACKUP, "2024-02-29,6815744,2097152\n" // 6.5 MiB, 2 MiB
                             "2024-02-28,10485760,5242880\n"
                             "2024-02-27,4194304,1048576\n");
    write_file(MONTHLY_BACKUP, "2024-02-01,2024-02-29,20971520,8388608\n"
                               "2024-01-01,2024-01-31,524288000,104857600\n"
                               "2023-12-01,2023-12-31,314572800,52428800\n");
    write_file(BILLING_BACKUP, "2024-02-15,2024-02-29,16777216,7340032\n"
                               "2024-01-15,2024-02-14,419430400,83886080\n"
                               "2023-12-15,2024-01-14,367001600,73400320\n");

    // The first daemon: ticks across four hours, the end of February and the month.
    auto first = std::make_unique<daemon_state>();
    plat.clock = local(2024, 2, 29, 21, 55, 0);
    kernel(plat.clock, 1000 * MiB, 100 * MiB, 0, 0);
    ASSERT_EQ(daemon_start(*first, 2), 0);
    loop_pass(*first);
    tick(*first, local(2024, 2, 29, 22, 0, 10), 1001 * MiB, 100 * MiB + MiB / 2);
    tick(*first, local(2024, 2, 29, 23, 0, 10), 1003 * MiB, 100 * MiB + MiB / 2);
    tick(*first, local(2024, 3, 1, 0, 0, 10), 1004 * MiB + MiB / 2, 101 * MiB + MiB / 2);
    tick(*first, local(2024, 3, 1, 1, 0, 10), 1005 * MiB, 102 * MiB);

    const std::string hourly = "2024-03-01-00,1,1\n"
                               "2024-02-29-23,2,0\n"
                               "2024-02-29-22,1,0\n"
                               "2024-02-29-21,3,1\n"
                               "2024-02-29-20,2,0\n"
                               "2024-02-29-19,1,1\n";
    const std::string daily = "2024-02-29,9,2\n2024-02-28,10,5\n2024-02-27,4,1\n";
    const std::string monthly = "2024-02-01,2024-02-29,23,8\n"
                                "2024-01-01,2024-01-31,500,100\n"
                                "2023-12-01,2023-12-31,300,50\n";
    const std::string billing = "2024-01-15,2024-02-14,400,80\n2023-12-15,2024-01-14,350,70\n";
    const std::string hourly2 = "2024-03-01-00,0,0\n2024-02-29-23,0,0\n2024-02-29-22,0,0\n";
    const std::string daily2 = "2024-02-29,0,0\n";
    const std::string monthly2 = "2024-02-01,2024-02-29,0,0\n";
    EXPECT_EQ(read_file(LIVE_HOURLY), hourly);
    EXPECT_EQ(read_file(LIVE_DAILY), daily);
    EXPECT_EQ(read_file(LIVE_MONTHLY), monthly);
    EXPECT_EQ(read_file(LIVE_BILLING), billing);
    EXPECT_EQ(read_file("/var/run/korel/wan2/usage_history.hourly"), hourly2);
    EXPECT_EQ(read_file("/var/run/korel/wan2/usage_history.daily"), daily2);
    EXPECT_EQ(read_file("/var/run/korel/wan2/usage_history.monthly"), monthly2);
    EXPECT_EQ(read_file("/var/run/korel/wan2/usage_history.billing"), "<missing>"); // no cycle

    backup_requested = 1;
    loop_pass(*first);
    EXPECT_EQ(read_file(HOURLY_BACKUP), "2024-03-01-01,524288,524288\n"
                                        "2024-03-01-00,1572864,1048576\n"
                                        "2024-02-29-23,2097152,0\n"
                                        "2024-02-29-22,1048576,524288\n"
                                        "2024-02-29-21,3670016,1048576\n"
                                        "2024-02-29-20,2097152,0\n"
                                        "2024-02-29-19,1048576,1048576\n");
    EXPECT_EQ(read_file(DAILY_BACKUP), "2024-03-01,2097152,1572864\n"
                                       "2024-02-29,9961472,2621440\n"
                                       "2024-02-28,10485760,5242880\n"
                                       "2024-02-27,4194304,1048576\n");
    EXPECT_EQ(read_file(MONTHLY_BACKUP), "2024-03-01,2024-03-01,2097152,1572864\n"
                                         "2024-02-01,2024-02-29,24117248,8388608\n"
                                         "2024-01-01,2024-01-31,524288000,104857600\n"
                                         "2023-12-01,2023-12-31,314572800,52428800\n");
    EXPECT_EQ(read_file(BILLING_BACKUP), "2024-02-15,2024-03-01,26738688,10485760\n"
                                         "2024-01-15,2024-02-14,419430400,83886080\n"
                                         "2023-12-15,2024-01-14,367001600,73400320\n");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.billing.csv"), "");

    // The restart: the old daemon is gone; the new one deletes the live histories and
    // restores them from the backups.
    first.reset();
    plat.clock = local(2024, 3, 1, 1, 20, 0);
    kernel(plat.clock, 1005 * MiB, 102 * MiB, 0, 0);
    auto second = std::make_unique<daemon_state>();
    ASSERT_EQ(daemon_start(*second, 2), 0);
    EXPECT_EQ(read_file(LIVE_HOURLY), hourly);
    EXPECT_EQ(read_file(LIVE_DAILY), daily);
    EXPECT_EQ(read_file(LIVE_MONTHLY), monthly);
    EXPECT_EQ(read_file(LIVE_BILLING), billing);
    EXPECT_EQ(read_file("/var/run/korel/wan2/usage_history.hourly"), hourly2);
    EXPECT_EQ(read_file("/var/run/korel/wan2/usage_history.daily"), daily2);
    EXPECT_EQ(read_file("/var/run/korel/wan2/usage_history.monthly"), monthly2);
    // WAN 2's empty billing backup empties (creates) its live billing history.
    EXPECT_EQ(read_file("/var/run/korel/wan2/usage_history.billing"), "");
    const wan_usage& r = second->wan[0];
    EXPECT_EQ(show(r.hour_bucket_time), "2024-03-01 01:00:00 UTC");
    EXPECT_EQ(r.hour_bytes[0], MiB / 2);
    EXPECT_EQ(r.hour_bytes[1], MiB / 2);
    EXPECT_EQ(show(r.day_bucket_time), "2024-03-01 00:00:00 UTC");
    EXPECT_EQ(show(r.month_start), "2024-03-01 00:00:00 UTC");
    EXPECT_EQ(show(r.billing_start), "2024-02-15 00:00:00 UTC");

    // Counting goes on: the running hour and day keep their bytes and grow by the new delta.
    loop_pass(*second);
    tick(*second, local(2024, 3, 1, 1, 20, 30), 1006 * MiB, 102 * MiB + MiB / 2);
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_hourly.csv"), "2024-03-01-01,1,1\n" + hourly);
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_daily.csv"), "2024-03-01,3,2\n" + daily);
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_monthly.csv"), "2024-03-01,2024-03-01,3,2\n" + monthly);
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_billing.csv"), "2024-02-15,2024-03-01,26,10\n" + billing);
    tick(*second, local(2024, 3, 1, 2, 0, 10), 1006 * MiB, 102 * MiB + MiB / 2);
    EXPECT_EQ(read_file(LIVE_HOURLY), "2024-03-01-01,1,1\n" + hourly);
}

// ---------------------------------------------------------------------------------------
// Backups asked for by signal

TEST_F(BackupLoop, SigusrOneWritesTheBackupFilesWithoutTheConfigurationSaver)
{
    start_and_first_tick();
    write_file(TIMESTAMP, "stale\n");
    raise(SIGUSR1);
    loop_pass(state);

    EXPECT_EQ(read_file(HOURLY_BACKUP), "2024-03-05-14,3145828,1048576\n");
    EXPECT_EQ(read_file(DAILY_BACKUP), "2024-03-05,3145828,1048576\n");
    EXPECT_EQ(read_file(MONTHLY_BACKUP), "2024-03-01,2024-03-05,3145828,1048576\n");
    EXPECT_EQ(read_file(BILLING_BACKUP), "2024-03-01,2024-03-05,3145828,1048576\n");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.hourly.csv"), "2024-03-05-14,2097152,0\n");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.daily.csv"), "2024-03-05,2097152,0\n");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.monthly.csv"), "2024-03-01,2024-03-05,2097152,0\n");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.billing.csv"), "");
    EXPECT_EQ(read_file(TIMESTAMP), "");
    EXPECT_EQ(read_file(LIFETIME), "1709000000\n5005242980\n1048583\n");
    EXPECT_EQ(plat.commands, client_backup_commands()); // no configuration saver
    EXPECT_EQ(backup_requested, 0);
    EXPECT_EQ(ticks_since_backup, 1);
}

TEST_F(BackupLoop, SighupTicksThenWritesTheBackupFilesAndRunsTheConfigurationSaver)
{
    start_and_first_tick();
    EXPECT_EQ(read_file(HOURLY_BACKUP), "<missing>"); // no backup before the signal
    plat.clock = local(2024, 3, 5, 15, 0, 10);
    kernel(plat.clock, 4 * MiB + 100, 1 * MiB + 1, 2 * MiB, 0);
    raise(SIGHUP);
    loop_pass(state);

    EXPECT_EQ(read_file(HOURLY_BACKUP), "2024-03-05-15,1048576,1\n2024-03-05-14,3145828,1048576\n");
    EXPECT_EQ(read_file(DAILY_BACKUP), "2024-03-05,4194404,1048577\n");
    EXPECT_EQ(read_file(MONTHLY_BACKUP), "2024-03-01,2024-03-05,4194404,1048577\n");
    EXPECT_EQ(read_file(BILLING_BACKUP), "2024-03-01,2024-03-05,4194404,1048577\n");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.hourly.csv"), "2024-03-05-15,0,0\n2024-03-05-14,2097152,0\n");
    EXPECT_EQ(read_file("/tmp/ruvo_backup/wan2/ruvo.daily.csv"), "2024-03-05,2097152,0\n");
    EXPECT_EQ(read_file(TIMESTAMP), "");
    EXPECT_EQ(read_file(LIFETIME), "1709000000\n5006291556\n1048584\n");
    EXPECT_EQ(plat.commands, full_backup_commands());
    EXPECT_EQ(ticks_since_backup, 1);
}

TEST_F(BackupLoop, SixtyFirstWakeUpWritesTheBackupFilesAndRunsTheConfigurationSaver)
{
    start_and_first_tick();
    ticks_since_backup = 60;
    tick(state, local(2024, 3, 5, 14, 1, 0), 3 * MiB + 100, 1 * MiB, 2 * MiB, 0);
    EXPECT_EQ(read_file(HOURLY_BACKUP), "<missing>");
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_EQ(ticks_since_backup, 61);
    tick(state, local(2024, 3, 5, 14, 1, 30), 3 * MiB + 100, 1 * MiB, 2 * MiB, 0);
    EXPECT_EQ(read_file(HOURLY_BACKUP), "2024-03-05-14,3145828,1048576\n");
    EXPECT_EQ(plat.commands, full_backup_commands());
    EXPECT_EQ(ticks_since_backup, 1);
}

} // namespace
