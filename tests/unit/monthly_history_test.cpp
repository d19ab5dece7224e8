#include "sandbox.h"

#include "core/local_time.h"
#include "core/usage_totals.h"
#include "core/wan_usage.h"
#include "daemon/daemon.h"
#include "daemon/signals.h"
#include "history/daily.h"
#include "core/own_files.h"
#include "history/monthly.h"

#include <csignal>
#include <cstdio>
#include <ostream>
#include <string>
#include <syslog.h>

namespace {

constexpr const char* HISTORY = "/var/run/korel/wan1/usage_history.monthly";
constexpr const char* CSV = "/var/run/korel/wan1/link_usage_monthly.csv";
constexpr const char* HISTORY2 = "/var/run/korel/wan2/usage_history.monthly";
constexpr const char* TOTAL = "/var/run/korel/link_usage_monthly_total.csv";
constexpr const char* CLIENT_DIR = "/var/run/korel/client_usage_monthly";
constexpr const char* SCRATCH = "/tmp/ruvo.tmp";

int days_in_month(int year, int month)
{
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : days[month - 1];
}

// One closed-month line, the shape every monthly file uses.
std::string month_line(int year, int month, unsigned mib1, unsigned mib2)
{
    char line[64];
    snprintf(line, sizeof line, "%04d-%02d-01,%04d-%02d-%02d,%u,%u\n", year, month, year, month,
             days_in_month(year, month), mib1, mib2);
    return line;
}

// count closed-month lines, newest first, from year-month backwards; line i carries the
// values 1000 + i and i, so every line is different.
std::vector<std::string> months_back(int year, int month, int count)
{
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) {
        lines.push_back(month_line(year, month, 1000 + i, i));
        if (--month == 0) {
            month = 12;
            --year;
        }
    }
    return lines;
}

std::string join(const std::vector<std::string>& lines, size_t first, size_t count)
{
    std::string text;
    for (size_t i = first; i < first + count && i < lines.size(); ++i)
        text += lines[i];
    return text;
}

std::string ymd_hms(const struct tm& tm)
{
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return text;
}

std::string ymd(const struct tm& tm)
{
    char text[16];
    strftime(text, sizeof text, "%Y-%m-%d", &tm);
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

class MonthlyBase : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        write_file("/tmp/.keep", "");
        write_file("/var/run/korel/wan1/.keep", "");
        write_file("/var/run/korel/wan2/.keep", "");
    }
    static wan_usage record_at(time_t now, int wan_index = 0, int sim_number = 0)
    {
        wan_usage r{};
        r.wan_index = wan_index;
        r.sim_slot_index = sim_number ? 0 : -1;
        r.sim_number = sim_number;
        r.sample_time = now;
        r.sample_tm = local_tm(now);
        r.start_day = -1;
        return r;
    }
    static void move_to(wan_usage& r, time_t now)
    {
        r.sample_time = now;
        r.sample_tm = local_tm(now);
    }
    // Exactly one syslog line, the daemon's own: ident "ruvo", LOG_DAEMON, LOG_NOTICE.
    void expect_one_log(const std::string& text)
    {
        std::vector<std::string> texts;
        for (const captured_log& line : plat.logs) {
            texts.push_back(line.text);
            EXPECT_EQ(line.ident, "ruvo");
            EXPECT_EQ(line.facility, LOG_DAEMON);
            EXPECT_EQ(line.priority, LOG_NOTICE);
        }
        EXPECT_EQ(texts, std::vector<std::string>{text});
    }
    void remove_file(const char* absolute) { std::remove(real(absolute).c_str()); }
};

// ---------------------------------------------------------------------------------------
// wu_monthly_rollover

class MonthlyRollover : public MonthlyBase {};

TEST_F(MonthlyRollover, FirstSampleOfJuneClosesMayAsNewFirstHistoryLine)
{
    write_file(HISTORY, "2024-04-01,2024-04-30,1400,190\n");
    wan_usage r = record_at(local(2024, 6, 1, 0, 0, 5));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = (1532ull << 20) + 1048575; // the remainder below 1 MiB is cut off
    r.month_bytes[1] = 210ull << 20;

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY),
              "2024-05-01,2024-05-31,1532,210\n"
              "2024-04-01,2024-04-30,1400,190\n");
    EXPECT_EQ(r.month_start, local(2024, 6, 1));
    EXPECT_EQ(show(r.month_start), "2024-06-01 00:00:00 UTC");
    EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED);
    EXPECT_EQ(r.month_bytes[0], (1532ull << 20) + 1048575); // only the sum recomputes it
    EXPECT_EQ(r.month_bytes[1], 210ull << 20);
    EXPECT_FALSE(exists(SCRATCH));
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(MonthlyRollover, LastSecondOfMayDoesNotCloseMay)
{
    wan_usage r = record_at(local(2024, 5, 31, 23, 59, 59));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 1532ull << 20;

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "<missing>");
    EXPECT_EQ(r.month_start, local(2024, 5, 1));
    EXPECT_EQ(r.history_flags, 0u);
    EXPECT_TRUE(plat.logs.empty());
}

TEST_F(MonthlyRollover, HistoryOf61LinesLosesItsOldestLine)
{
    std::vector<std::string> old = months_back(2024, 4, 61); // 2024-04 back to 2019-04
    write_file(HISTORY, join(old, 0, 61));
    wan_usage r = record_at(local(2024, 6, 1, 0, 0, 5));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 77ull << 20;
    r.month_bytes[1] = 7ull << 20;

    wu_monthly_rollover(r);

    // The new line and the 60 newest old lines: 2019-04 is gone.
    EXPECT_EQ(read_file(HISTORY), "2024-05-01,2024-05-31,77,7\n" + join(old, 0, 60));
    EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED);
}

TEST_F(MonthlyRollover, OldLinesAreReadAndWrittenAgainInTheLineShape)
{
    // Leading zeros do not survive a rewrite through the reader and the writer.
    write_file(HISTORY, "2024-04-01,2024-04-30,0400,040\n2024-03-01,2024-03-31,300,30\n");
    wan_usage r = record_at(local(2024, 6, 1, 0, 0, 5));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 500ull << 20;
    r.month_bytes[1] = 50ull << 20;

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY),
              "2024-05-01,2024-05-31,500,50\n"
              "2024-04-01,2024-04-30,400,40\n"
              "2024-03-01,2024-03-31,300,30\n");
}

TEST_F(MonthlyRollover, LineDatedBefore2009IsDroppedAtNextRewrite)
{
    // In UTC 2009-01-01 00:00:00 is exactly 1230768000, which is not before the limit.
    write_file(HISTORY,
               "2024-04-01,2024-04-30,400,40\n"
               "2008-12-01,2008-12-31,7,8\n"
               "2009-01-01,2009-01-31,9,9\n"
               "2008-11-01,2008-11-30,5,6\n");
    wan_usage r = record_at(local(2024, 6, 1, 0, 0, 5));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 500ull << 20;
    r.month_bytes[1] = 50ull << 20;

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY),
              "2024-05-01,2024-05-31,500,50\n"
              "2024-04-01,2024-04-30,400,40\n"
              "2009-01-01,2009-01-31,9,9\n");
}

TEST_F(MonthlyRollover, LineThatDoesNotParseIsSkipped)
{
    write_file(HISTORY,
               "2024-04-01,2024-04-30,400,40\n"
               "not a history line\n"
               "\n"
               "2024-03-01,2024-03-31,300,30\n");
    wan_usage r = record_at(local(2024, 6, 1, 0, 0, 5));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 500ull << 20;
    r.month_bytes[1] = 50ull << 20;

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY),
              "2024-05-01,2024-05-31,500,50\n"
              "2024-04-01,2024-04-30,400,40\n"
              "2024-03-01,2024-03-31,300,30\n");
}

TEST_F(MonthlyRollover, MibValuesAreCutTo32Bits)
{
    wan_usage r = record_at(local(2024, 6, 1, 0, 0, 5));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = (4294967296ull + 1532) << 20; // 2^32 + 1532 MiB shows as 1532
    r.month_bytes[1] = 4294967295ull << 20;          // the largest value that still fits

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "2024-05-01,2024-05-31,1532,4294967295\n");
}

TEST_F(MonthlyRollover, MonthStartOnThe15thLogsFixingAndClosesFromThe1st)
{
    wan_usage r = record_at(local(2024, 6, 1, 0, 0, 5));
    r.month_start = local(2024, 5, 15); // 1715731200 = 19858 days * 86400
    ASSERT_EQ(r.month_start, 1715731200);
    r.month_bytes[0] = 1532ull << 20;
    r.month_bytes[1] = 210ull << 20;

    wu_monthly_rollover(r);

    expect_one_log("wu_monthly_rollover(): start_tm.tm_day not at month start month 4 mday 15, "
                   "wu->month_start 1715731200. fixing...\n");
    EXPECT_EQ(read_file(HISTORY), "2024-05-01,2024-05-31,1532,210\n");
    EXPECT_EQ(r.month_start, local(2024, 6, 1));
    EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED);
}

TEST_F(MonthlyRollover, MonthStartOnThe15thWithASampleOnThe10thIsNoClockStepBack)
{
    // Taken as 2024-05-01, a sample on 2024-05-10 lies inside the month: the clock did not
    // go back, so there is no "> update_monthly_history" line and no flag.
    write_file(HISTORY, "2024-04-01,2024-04-30,400,40\n");
    wan_usage r = record_at(local(2024, 5, 10, 12, 0, 0));
    r.month_start = local(2024, 5, 15);

    wu_monthly_rollover(r);

    expect_one_log("wu_monthly_rollover(): start_tm.tm_day not at month start month 4 mday 15, "
                   "wu->month_start 1715731200. fixing...\n");
    EXPECT_EQ(read_file(HISTORY), "2024-04-01,2024-04-30,400,40\n");
    EXPECT_EQ(r.month_start, local(2024, 5, 1));
    EXPECT_EQ(r.history_flags, 0u);
}

TEST_F(MonthlyRollover, ClockSetBackFromJulyToMayDropsMayAndJuneLines)
{
    write_file(HISTORY,
               "2024-06-01,2024-06-30,600,60\n"
               "2024-05-01,2024-05-31,500,50\n"
               "2024-04-01,2024-04-30,400,40\n"
               "2024-03-01,2024-03-31,300,30\n");
    wan_usage r = record_at(local(2024, 5, 10, 12, 0, 0));
    r.month_start = local(2024, 7, 1);
    r.month_bytes[0] = 9ull << 20;

    wu_monthly_rollover(r);

    // year - 1900, month 0-11 and day of month_start (2024-07-01), then of the sample.
    expect_one_log("wu_monthly_rollover(): > update_monthly_history start_tm:year 124 mon 6 day "
                   "1, _time:year 124 mon 4 day 10\n");
    EXPECT_EQ(read_file(HISTORY),
              "2024-04-01,2024-04-30,400,40\n"
              "2024-03-01,2024-03-31,300,30\n");
    EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED);
    EXPECT_EQ(r.month_start, local(2024, 5, 1));
    EXPECT_EQ(r.month_bytes[0], 9ull << 20);
    EXPECT_FALSE(exists(SCRATCH));
}

TEST_F(MonthlyRollover, ClockStepBackRepairKeepsEveryOlderLineWithoutLimit)
{
    std::vector<std::string> older = months_back(2024, 4, 63); // 2024-04 back to 2019-02
    write_file(HISTORY, "2024-06-01,2024-06-30,600,60\n2024-05-01,2024-05-31,500,50\n" +
                            join(older, 0, 63));
    wan_usage r = record_at(local(2024, 5, 10, 12, 0, 0));
    r.month_start = local(2024, 7, 1);

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY), join(older, 0, 63));
    EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED);
}

TEST_F(MonthlyRollover, ClockStepBackRepairSkipsBadLinesAndDropsLinesBefore2009)
{
    write_file(HISTORY,
               "2024-06-01,2024-06-30,600,60\n"
               "not a history line\n"
               "2024-04-01,2024-04-30,0400,40\n"
               "2008-12-01,2008-12-31,7,8\n"
               "2024-03-01,2024-03-31,300,30\n");
    wan_usage r = record_at(local(2024, 5, 10, 12, 0, 0));
    r.month_start = local(2024, 7, 1);

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY),
              "2024-04-01,2024-04-30,400,40\n"
              "2024-03-01,2024-03-31,300,30\n");
}

TEST_F(MonthlyRollover, ClockStepBackLeavesHistoryAloneWhenItsNewestLineIsOlder)
{
    // The first line starts before 2024-06-01: nothing to repair, the file is not rewritten
    // (the bad line proves it).
    write_file(HISTORY, "2024-05-01,2024-05-31,500,50\nnot a history line\n");
    wan_usage r = record_at(local(2024, 6, 15, 8, 0, 0));
    r.month_start = local(2024, 7, 1);

    wu_monthly_rollover(r);

    expect_one_log("wu_monthly_rollover(): > update_monthly_history start_tm:year 124 mon 6 day "
                   "1, _time:year 124 mon 5 day 15\n");
    EXPECT_EQ(read_file(HISTORY), "2024-05-01,2024-05-31,500,50\nnot a history line\n");
    EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED);
    EXPECT_EQ(r.month_start, local(2024, 6, 1));
}

TEST_F(MonthlyRollover, ClockStepBackWithoutHistoryFileStillSetsTheFlag)
{
    wan_usage r = record_at(local(2024, 5, 10, 12, 0, 0));
    r.month_start = local(2024, 7, 1);

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "<missing>");
    EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED);
    EXPECT_EQ(r.month_start, local(2024, 5, 1));
    EXPECT_EQ(plat.logs.size(), 1u);
}

TEST_F(MonthlyRollover, FreshRecordWritesNoLineSetsTheFlagAndTakesTheRunningMonth)
{
    // A restored history is left exactly as it is (it would lose its bad line if rewritten).
    write_file(HISTORY, "2024-04-01,2024-04-30,400,40\nnot a history line\n");
    wan_usage r = record_at(local(2024, 5, 20, 12, 0, 0));
    r.month_bytes[0] = 5ull << 20;

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "2024-04-01,2024-04-30,400,40\nnot a history line\n");
    EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED);
    EXPECT_EQ(r.month_start, local(2024, 5, 1));
    EXPECT_TRUE(plat.logs.empty()); // local_tm(0) in UTC is 1970-01-01: day 1
}

TEST_F(MonthlyRollover, ScratchFileThatCannotBeOpenedLosesTheLineButTheMonthMovesOn)
{
    write_file(HISTORY, "2024-04-01,2024-04-30,400,40\n");
    write_file("/tmp/ruvo.tmp/blocker", ""); // a directory cannot be opened for writing
    wan_usage r = record_at(local(2024, 6, 1, 0, 0, 5));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 500ull << 20;

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "2024-04-01,2024-04-30,400,40\n");
    EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED);
    EXPECT_EQ(r.month_start, local(2024, 6, 1));
}

TEST_F(MonthlyRollover, SimRecordClosesIntoItsOwnHistoryFile)
{
    write_file(HISTORY, "2024-04-01,2024-04-30,400,40\n");
    write_file("/var/run/korel/wan1/sim2_usage_history.monthly", "2024-04-01,2024-04-30,4,1\n");
    wan_usage r = record_at(local(2024, 6, 1, 0, 0, 5), 0, 2);
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 6ull << 20;
    r.month_bytes[1] = 2ull << 20;

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file("/var/run/korel/wan1/sim2_usage_history.monthly"),
              "2024-05-01,2024-05-31,6,2\n2024-04-01,2024-04-30,4,1\n");
    EXPECT_EQ(read_file(HISTORY), "2024-04-01,2024-04-30,400,40\n");
}

TEST_F(MonthlyRollover, SecondWanClosesIntoTheWan2File)
{
    wan_usage r = record_at(local(2024, 6, 1, 0, 0, 5), 1);
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 3ull << 20;
    r.month_bytes[1] = 4ull << 20;

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY2), "2024-05-01,2024-05-31,3,4\n");
    EXPECT_EQ(read_file(HISTORY), "<missing>");
}

// ---------------------------------------------------------------------------------------
// Monthly CSV export

class MonthlyExport : public MonthlyBase {};

TEST_F(MonthlyExport, RunningMonthUpToTheSampleDateThenClosedMonths)
{
    write_file(HISTORY, "2024-04-01,2024-04-30,400,40\n2024-03-01,2024-03-31,300,30\n");
    wan_usage r = record_at(local(2024, 5, 20, 8, 30, 0));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = (1532ull << 20) + 1;
    r.month_bytes[1] = 210ull << 20;

    export_monthly_csv(r);

    EXPECT_EQ(read_file(CSV),
              "2024-05-01,2024-05-20,1532,210\n"
              "2024-04-01,2024-04-30,400,40\n"
              "2024-03-01,2024-03-31,300,30\n");
    EXPECT_EQ(read_file(HISTORY),
              "2024-04-01,2024-04-30,400,40\n2024-03-01,2024-03-31,300,30\n");
    EXPECT_FALSE(exists(SCRATCH));
}

TEST_F(MonthlyExport, ShowsAtMost59ClosedMonthsOfA61LineHistory)
{
    std::vector<std::string> old = months_back(2024, 4, 61);
    write_file(HISTORY, join(old, 0, 61));
    wan_usage r = record_at(local(2024, 5, 20, 8, 30, 0));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 12ull << 20;
    r.month_bytes[1] = 3ull << 20;

    export_monthly_csv(r);

    EXPECT_EQ(read_file(CSV), "2024-05-01,2024-05-20,12,3\n" + join(old, 0, 59));
}

TEST_F(MonthlyExport, CopiesHistoryLinesUnchanged)
{
    const std::string history = "2024-04-01,2024-04-30,0400,040\n"
                                "not a history line\n"
                                "2008-12-01,2008-12-31,7,8\n";
    write_file(HISTORY, history);
    wan_usage r = record_at(local(2024, 5, 2, 0, 0, 0));
    r.month_start = local(2024, 5, 1);

    export_monthly_csv(r);

    EXPECT_EQ(read_file(CSV), "2024-05-01,2024-05-02,0,0\n" + history);
}

TEST_F(MonthlyExport, FreshRecordHasNoRunningMonthLine)
{
    // month_start 0 dates the running line in 1970: the 2009 rule suppresses it.
    write_file(HISTORY, "2024-04-01,2024-04-30,400,40\n");
    wan_usage r = record_at(local(2024, 5, 20, 8, 30, 0));
    r.month_bytes[0] = 12ull << 20;

    export_monthly_csv(r);

    EXPECT_EQ(read_file(CSV), "2024-04-01,2024-04-30,400,40\n");
}

TEST_F(MonthlyExport, WithoutHistoryOnlyTheRunningMonth)
{
    wan_usage r = record_at(local(2024, 5, 31, 23, 59, 59));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 2ull << 20;
    r.month_bytes[1] = (1ull << 20) - 1;

    export_monthly_csv(r);

    EXPECT_EQ(read_file(CSV), "2024-05-01,2024-05-31,2,0\n");
}

TEST_F(MonthlyExport, SimRecordExportsItsOwnHistory)
{
    write_file(HISTORY, "2024-04-01,2024-04-30,400,40\n");
    write_file("/var/run/korel/wan1/sim1_usage_history.monthly", "2024-04-01,2024-04-30,4,1\n");
    wan_usage r = record_at(local(2024, 5, 20, 8, 30, 0), 0, 1);
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 8ull << 20;
    r.month_bytes[1] = 9ull << 20;

    export_monthly_csv(r);

    EXPECT_EQ(read_file("/var/run/korel/wan1/sim1_usage_monthly.csv"),
              "2024-05-01,2024-05-20,8,9\n2024-04-01,2024-04-30,4,1\n");
    EXPECT_EQ(read_file(CSV), "<missing>");
}

// ---------------------------------------------------------------------------------------
// Passes of the daemon without the clock marker

class MonthlyDaemonPass : public MonthlyBase {
protected:
    void TearDown() override
    {
        for (int signo : {SIGALRM, SIGHUP, SIGUSR1, SIGINT, SIGTERM, SIGPIPE})
            signal(signo, SIG_DFL);
        MonthlyBase::TearDown();
    }
    void sample(time_t at, unsigned long long c1, unsigned long long c2)
    {
        write_file("/proc/korel/config/link_usage", "timestamp:" + std::to_string(at) +
                                                        "\nCON:1\nOVERALL:" + std::to_string(c1) +
                                                        " " + std::to_string(c2) + "\n");
    }
};

TEST_F(MonthlyDaemonPass, WithoutClockMarkerNoRolloverRunsButTheCsvIsRewrittenEveryPass)
{
    plat.clock = local(2024, 4, 2, 10, 0, 0);
    daemon_state state;
    ASSERT_EQ(daemon_start(state, 2), 0);
    wan_usage& r = state.wan[0];
    r.month_start = local(2024, 3, 1);
    r.month_bytes[0] = 700ull << 20;
    r.month_bytes[1] = 70ull << 20;

    // A sample after March has ended: a rollover would close March, but none runs.
    plat.clock = local(2024, 4, 2, 10, 0, 30);
    sample(plat.clock, 5ull << 20, 6ull << 20);
    tick_pending = 1;
    loop_pass(state);

    EXPECT_EQ(r.month_start, local(2024, 3, 1));
    EXPECT_EQ(r.month_bytes[0], 700ull << 20);
    EXPECT_EQ(r.month_bytes[1], 70ull << 20);
    EXPECT_EQ(read_file(HISTORY), "<missing>");
    EXPECT_EQ(read_file(CSV), "2024-03-01,2024-04-02,700,70\n");

    plat.clock = local(2024, 4, 3, 9, 0, 0);
    sample(plat.clock, 50ull << 20, 60ull << 20);
    tick_pending = 1;
    loop_pass(state);

    EXPECT_EQ(r.month_bytes[0], 700ull << 20);
    EXPECT_EQ(read_file(HISTORY), "<missing>");
    EXPECT_EQ(read_file(CSV), "2024-03-01,2024-04-03,700,70\n");
}

// ---------------------------------------------------------------------------------------
// sum_month_usage

class MonthlySum : public MonthlyBase {};

TEST_F(MonthlySum, FinishedDaysOfTheMonthPlusTheRunningDay)
{
    wan_usage r = record_at(local(2024, 5, 3, 12, 0, 0));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = r.month_bytes[1] = 99999;
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 4, 30, 500, 5));
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 5, 1, 100, 10));
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 5, 2, 200, 20));
    r.day_bytes[0] = 7;
    r.day_bytes[1] = 3;

    sum_month_usage(r);

    EXPECT_EQ(r.month_bytes[0], 307u); // 100 + 200 + 7
    EXPECT_EQ(r.month_bytes[1], 33u);  // 10 + 20 + 3
}

TEST_F(MonthlySum, WalkStopsAtTheFirstDayBeforeTheMonth)
{
    // Oldest first: a 3 May entry left behind a clock repair, then 30 April, 1 and 2 May.
    // The walk from 2 May stops at 30 April and never reaches the stray 3 May.
    wan_usage r = record_at(local(2024, 5, 3, 12, 0, 0));
    r.month_start = local(2024, 5, 1);
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 5, 3, 1000, 1000));
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 4, 30, 500, 5));
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 5, 1, 100, 10));
    ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail,
              day_entry(2024, 5, 2, 200, 20));
    r.day_bytes[0] = 7;
    r.day_bytes[1] = 3;

    sum_month_usage(r);

    EXPECT_EQ(r.month_bytes[0], 307u);
    EXPECT_EQ(r.month_bytes[1], 33u);
}

TEST_F(MonthlySum, EmptyRingGivesTheRunningDayOnly)
{
    wan_usage r = record_at(local(2024, 5, 3, 12, 0, 0));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = r.month_bytes[1] = 99999;
    r.day_bytes[0] = 11;
    r.day_bytes[1] = 12;

    sum_month_usage(r);

    EXPECT_EQ(r.month_bytes[0], 11u);
    EXPECT_EQ(r.month_bytes[1], 12u);
}

// ---------------------------------------------------------------------------------------
// Router-wide monthly total

class MonthlyTotal : public MonthlyBase {
protected:
    void write_client(const std::string& name, const std::string& content)
    {
        write_file(std::string(CLIENT_DIR) + "/" + name, content);
    }
};

TEST_F(MonthlyTotal, AggregationSumsRowsByPositionAndTheLastRecordWinsTheDates)
{
    write_file(HISTORY, "2024-03-01,2024-03-31,300,30\n2024-02-01,2024-02-29,200,20\n");
    write_file(HISTORY2,
               "2024-04-01,2024-04-30,41,4\n"
               "2024-03-01,2024-03-31,31,3\n"
               "2024-02-01,2024-02-29,21,2\n");
    wan_usage a = record_at(local(2024, 5, 20, 12, 0, 0), 0);
    a.month_start = local(2024, 5, 1);
    a.month_bytes[0] = (100ull << 20) + 5;
    a.month_bytes[1] = 10ull << 20;
    a.history_flags = HISTORY_MONTHLY_CHANGED | HISTORY_DAILY_CHANGED;
    wan_usage b = record_at(local(2024, 5, 20, 12, 0, 0), 1);
    b.month_start = local(2024, 5, 1);
    b.month_bytes[0] = (200ull << 20) + 7;
    b.month_bytes[1] = 20ull << 20;
    usage_totals t{};
    t.flags = TOTALS_BUILT;

    aggregate_monthly_total(t, a);
    aggregate_monthly_total(t, b);

    EXPECT_EQ(t.monthly_count, 4); // 1 + the 3 lines of the second record
    EXPECT_EQ(ymd_hms(t.monthly[0].start), "2024-05-01 00:00:00");
    EXPECT_EQ(ymd_hms(t.monthly[0].end), "2024-05-31 23:59:59");
    EXPECT_EQ(t.monthly[0].bytes[0], (300ull << 20) + 12);
    EXPECT_EQ(t.monthly[0].bytes[1], 30ull << 20);
    // Row 1: first lines of both histories; the dates are the second record's.
    EXPECT_EQ(ymd(t.monthly[1].start), "2024-04-01");
    EXPECT_EQ(ymd(t.monthly[1].end), "2024-04-30");
    EXPECT_EQ(t.monthly[1].bytes[0], 341ull << 20);
    EXPECT_EQ(t.monthly[1].bytes[1], 34ull << 20);
    EXPECT_EQ(ymd(t.monthly[2].start), "2024-03-01");
    EXPECT_EQ(ymd(t.monthly[2].end), "2024-03-31");
    EXPECT_EQ(t.monthly[2].bytes[0], 231ull << 20);
    EXPECT_EQ(t.monthly[2].bytes[1], 23ull << 20);
    EXPECT_EQ(ymd(t.monthly[3].start), "2024-02-01");
    EXPECT_EQ(ymd(t.monthly[3].end), "2024-02-29");
    EXPECT_EQ(t.monthly[3].bytes[0], 21ull << 20);
    EXPECT_EQ(t.monthly[3].bytes[1], 2ull << 20);
    // Bit 29 of the first record moved to bit 28 of the totals; its bit 30 stays.
    EXPECT_EQ(t.flags, TOTALS_BUILT | TOTALS_MONTHLY_CHANGED);
    EXPECT_EQ(a.history_flags, HISTORY_DAILY_CHANGED);
    EXPECT_EQ(b.history_flags, 0u);
}

TEST_F(MonthlyTotal, AggregationInTheOtherOrderTakesTheFirstRecordsDates)
{
    write_file(HISTORY, "2024-03-01,2024-03-31,300,30\n");
    write_file(HISTORY2, "2024-04-01,2024-04-30,41,4\n");
    wan_usage a = record_at(local(2024, 5, 20, 12, 0, 0), 0);
    a.month_start = local(2024, 5, 1);
    wan_usage b = record_at(local(2024, 5, 20, 12, 0, 0), 1);
    b.month_start = local(2024, 5, 1);
    usage_totals t{};

    aggregate_monthly_total(t, b);
    aggregate_monthly_total(t, a);

    EXPECT_EQ(t.monthly_count, 2);
    EXPECT_EQ(ymd(t.monthly[1].start), "2024-03-01");
    EXPECT_EQ(ymd(t.monthly[1].end), "2024-03-31");
    EXPECT_EQ(t.monthly[1].bytes[0], 341ull << 20);
    EXPECT_EQ(t.flags, 0u);
}

// The rows of a history are kept between ticks only while the file is the one they came
// from: every change of the file, by rename or in place, is read again.
TEST_F(MonthlyTotal, AggregationReadsAHistoryAgainWhenItChanged)
{
    wan_usage a = record_at(local(2024, 5, 20, 12, 0, 0), 0);
    a.month_start = local(2024, 5, 1);
    auto rows = [&]() {
        usage_totals t{};
        aggregate_monthly_total(t, a);
        std::string text;
        for (int k = 1; k < t.monthly_count; ++k)
            text += ymd(t.monthly[k].start) + "," + ymd(t.monthly[k].end) + "," +
                    std::to_string(t.monthly[k].bytes[0] >> 20) + "," + std::to_string(t.monthly[k].bytes[1] >> 20) +
                    "\n";
        return text;
    };
    write_file(HISTORY, "2024-04-01,2024-04-30,41,4\n");
    EXPECT_EQ(rows(), "2024-04-01,2024-04-30,41,4\n");
    EXPECT_EQ(rows(), "2024-04-01,2024-04-30,41,4\n");
    // Replaced by rename with content of the same size.
    const std::string scratch = real("/tmp/other");
    {
        FILE* f = fopen(scratch.c_str(), "w");
        ASSERT_NE(f, nullptr);
        fputs("2024-04-01,2024-04-30,42,5\n", f);
        fclose(f);
    }
    ASSERT_EQ(rename(scratch.c_str(), real(HISTORY).c_str()), 0);
    EXPECT_EQ(rows(), "2024-04-01,2024-04-30,42,5\n");
    // Rewritten in place: the same inode, another size.
    {
        FILE* f = fopen(real(HISTORY).c_str(), "w");
        ASSERT_NE(f, nullptr);
        fputs("2024-03-01,2024-03-31,430,6\n", f);
        fclose(f);
    }
    EXPECT_EQ(rows(), "2024-03-01,2024-03-31,430,6\n");
    // Removed: no rows.
    ASSERT_EQ(unlink(real(HISTORY).c_str()), 0);
    EXPECT_EQ(rows(), "");
    // A FIFO without a writer reads as empty, every time.
    ASSERT_EQ(mkfifo(real(HISTORY).c_str(), 0644), 0);
    EXPECT_EQ(rows(), "");
}

// A line longer than the 255 bytes of a read is read in pieces, and a piece that parses
// is a row of its own, as when the history was read with fgets.
TEST_F(MonthlyTotal, AggregationTakesTheRowsOfALongLineInPieces)
{
    const std::string padding(255 - 26, 'x');
    write_file(HISTORY, "2024-04-01,2024-04-30,41,4\n" + std::string("2024-03-01,2024-03-31,31,3") + padding +
                            "2024-02-01,2024-02-29,21,2\n");
    wan_usage a = record_at(local(2024, 5, 20, 12, 0, 0), 0);
    a.month_start = local(2024, 5, 1);
    usage_totals t{};
    check_own_files();
    aggregate_monthly_total(t, a);

    // The first piece of the long line ends after its 255th byte: its numbers parse up to
    // the padding; the second piece is a line of its own.
    ASSERT_EQ(t.monthly_count, 4);
    EXPECT_EQ(ymd(t.monthly[1].start), "2024-04-01");
    EXPECT_EQ(ymd(t.monthly[2].start), "2024-03-01");
    EXPECT_EQ(t.monthly[2].bytes[0], 31ull << 20);
    EXPECT_EQ(ymd(t.monthly[3].start), "2024-02-01");
    EXPECT_EQ(t.monthly[3].bytes[1], 2ull << 20);
}

TEST_F(MonthlyTotal, RebuildWritesEveryRowWithoutBackFillWhenNoClientDirectory)
{
    write_file(HISTORY, "2024-03-01,2024-03-31,300,30\n2024-02-01,2024-02-29,200,20\n");
    write_file(HISTORY2,
               "2024-04-01,2024-04-30,41,4\n"
               "2024-03-01,2024-03-31,31,3\n"
               "2024-02-01,2024-02-29,21,2\n");
    wan_usage a = record_at(local(2024, 5, 20, 12, 0, 0), 0);
    a.month_start = local(2024, 5, 1);
    a.month_bytes[0] = (100ull << 20) + 5;
    a.month_bytes[1] = 10ull << 20;
    wan_usage b = record_at(local(2024, 5, 20, 12, 0, 0), 1);
    b.month_start = local(2024, 5, 1);
    b.month_bytes[0] = (200ull << 20) + 7;
    b.month_bytes[1] = 20ull << 20;
    usage_totals t{};
    aggregate_monthly_total(t, a);
    aggregate_monthly_total(t, b);

    rebuild_monthly_total(t);

    EXPECT_EQ(read_file(TOTAL),
              "2024-05-01,2024-05-31,300,30\n"
              "2024-04-01,2024-04-30,341,34\n"
              "2024-03-01,2024-03-31,231,23\n"
              "2024-02-01,2024-02-29,21,2\n");
    EXPECT_FALSE(exists(SCRATCH));
}

TEST_F(MonthlyTotal, RebuildBackFillsOlderMonthsFromClientMonthlyFiles)
{
    write_file(HISTORY, "2024-04-01,2024-04-30,400,40\n2024-03-01,2024-03-31,300,30\n");
    wan_usage a = record_at(local(2024, 5, 20, 12, 0, 0), 0);
    a.month_start = local(2024, 5, 1);
    a.month_bytes[0] = (100ull << 20) + 999;
    a.month_bytes[1] = 10ull << 20;
    usage_totals t{};
    aggregate_monthly_total(t, a);
    ASSERT_EQ(t.monthly_count, 3);

    // 57 months are back-filled, the months before the last row's 2024-03: 2024-02 back to
    // 2019-06 (2024-03 minus 57 months). Sums are in KiB: shifted right by 10.
    write_client("2024-04-01.csv", "192.168.1.10,lan,99999999,99999999\n"); // a row already
    write_client("2024-03-01.csv", "192.168.1.10,lan,99999999,99999999\n"); // a row already
    write_client("2024-02-01.csv",
                 "192.168.1.10,lan,1048576,2048\n192.168.1.11,vpn,1048576,1024\n"); // 2048, 3
    // 2024-01: no file, no line.
    write_client("2024-01-01.csv.old", "192.168.1.10,lan,1048576,1048576\n");
    write_client("2023-12-01.csv", "10.0.0.5,pptp,5120,10240\n"); // 5, 10
    write_client("2019-06-01.csv", "10.0.0.9,l2tp,1023,2047\n10.0.0.10,lan,1,1\n"); // 1, 2
    write_client("2019-05-01.csv", "10.0.0.9,l2tp,1048576,1048576\n"); // one step too far

    rebuild_monthly_total(t);

    EXPECT_EQ(read_file(TOTAL),
              "2024-05-01,2024-05-31,100,10\n"
              "2024-04-01,2024-04-30,400,40\n"
              "2024-03-01,2024-03-31,300,30\n"
              "2024-02-01,2024-02-29,2048,3\n"
              "2023-12-01,2023-12-31,5,10\n"
              "2019-06-01,2019-06-30,1,2\n");
}

TEST_F(MonthlyTotal, AggregationKeepsAtMost60RowsAndRebuildThenDoesNoBackFill)
{
    std::vector<std::string> old = months_back(2024, 4, 61);
    write_file(HISTORY, join(old, 0, 61));
    write_client("2019-03-01.csv", "10.0.0.9,lan,1048576,1048576\n");
    wan_usage a = record_at(local(2024, 5, 20, 12, 0, 0), 0);
    a.month_start = local(2024, 5, 1);
    a.month_bytes[0] = 12ull << 20;
    a.month_bytes[1] = 3ull << 20;
    usage_totals t{};

    aggregate_monthly_total(t, a);

    // Row 0 and the first 59 history lines; lines 60 and 61 find no row.
    EXPECT_EQ(t.monthly_count, 60);
    EXPECT_EQ(ymd(t.monthly[59].start), "2019-06-01");
    EXPECT_EQ(t.monthly[59].bytes[0], (1000ull + 58) << 20);
    EXPECT_EQ(t.monthly[59].bytes[1], 58ull << 20);

    rebuild_monthly_total(t);

    EXPECT_EQ(read_file(TOTAL), "2024-05-01,2024-05-31,12,3\n" + join(old, 0, 59));
}

TEST_F(MonthlyTotal, UpdateReplacesTheFirstLineAndKeepsAtMost59OldLines)
{
    std::vector<std::string> old = months_back(2024, 4, 60); // with the old row 0: 61 lines
    old[1] = "2024-03-01,2024-03-31,0300,030\n";               // copied as it is
    write_file(TOTAL, "2024-05-01,2024-05-20,90,9\n" + join(old, 0, 60));
    wan_usage a = record_at(local(2024, 5, 21, 12, 0, 0), 0);
    a.month_start = local(2024, 5, 1);
    a.month_bytes[0] = 95ull << 20;
    a.month_bytes[1] = 9ull << 20;
    usage_totals t{};
    aggregate_monthly_total(t, a);

    update_monthly_total(t);

    EXPECT_EQ(read_file(TOTAL), "2024-05-01,2024-05-31,95,9\n" + join(old, 0, 59));
    EXPECT_FALSE(exists(SCRATCH));
}

TEST_F(MonthlyTotal, UpdateWithoutRowsOnlyDropsTheOldFirstLine)
{
    write_file(TOTAL, "2024-05-01,2024-05-20,90,9\n2024-04-01,2024-04-30,400,40\n");
    usage_totals t{};

    update_monthly_total(t);

    EXPECT_EQ(read_file(TOTAL), "2024-04-01,2024-04-30,400,40\n");
}

TEST_F(MonthlyTotal, UpdateWithoutOldFileWritesRowZeroOnly)
{
    wan_usage a = record_at(local(2024, 5, 21, 12, 0, 0), 0);
    a.month_start = local(2024, 5, 1);
    a.month_bytes[0] = 95ull << 20;
    a.month_bytes[1] = 9ull << 20;
    usage_totals t{};
    aggregate_monthly_total(t, a);

    update_monthly_total(t);

    EXPECT_EQ(read_file(TOTAL), "2024-05-01,2024-05-31,95,9\n");
}

// ---------------------------------------------------------------------------------------
// Month bounds in several time zones

struct zone_case {
    const char* zone;
    const char* april_first;      // show() of local midnight on 2024-04-01
    const char* fresh_record_log; // what the first rollover of a fresh record logs
    bool keeps_2009_01_01;        // whether local 2009-01-01 00:00 is not before 1230768000
};

// local_tm(0) is 1969-12-31 19:00 in New York (day 31 of month 11), 1970-01-01 elsewhere.
// Local midnight of 2009-01-01 lies before 00:00 UTC east of UTC (Berlin +1, Lord Howe +11 in
// summer) and after it in New York.
const zone_case ZONES[] = {
    {"UTC", "2024-04-01 00:00:00 UTC", "", true},
    {"Europe/Berlin", "2024-04-01 00:00:00 CEST", "", false},
    {"America/New_York", "2024-04-01 00:00:00 EDT",
     "wu_monthly_rollover(): start_tm.tm_day not at month start month 11 mday 31, "
     "wu->month_start 0. fixing...\n",
     true},
    {"Australia/Lord_Howe", "2024-04-01 00:00:00 +11", "", false},
};

// Test names and failure messages show the zone.
void PrintTo(const zone_case& z, std::ostream* os) { *os << z.zone; }

class MonthlyZones : public MonthlyBase, public ::testing::WithParamInterface<zone_case> {
protected:
    void SetUp() override
    {
        MonthlyBase::SetUp();
        set_tz(GetParam().zone);
    }
    void TearDown() override
    {
        set_tz("UTC"); // the zone every other test of the sandbox starts from
        MonthlyBase::TearDown();
    }
};

struct month_case {
    int year, month;   // the month that closes
    const char* line;  // its history line
    int next_year, next_month;
};

// Month ends on and around daylight-saving days: Berlin 2024-03-31 (spring) and October,
// New York November, Lord Howe April; leap and common Februaries; a year end.
const month_case MONTHS[] = {
    {2024, 2, "2024-02-01,2024-02-29,21,2\n", 2024, 3},
    {2023, 2, "2023-02-01,2023-02-28,21,2\n", 2023, 3},
    {2024, 3, "2024-03-01,2024-03-31,21,2\n", 2024, 4},
    {2024, 4, "2024-04-01,2024-04-30,21,2\n", 2024, 5},
    {2024, 10, "2024-10-01,2024-10-31,21,2\n", 2024, 11},
    {2024, 11, "2024-11-01,2024-11-30,21,2\n", 2024, 12},
    {2024, 12, "2024-12-01,2024-12-31,21,2\n", 2025, 1},
};

TEST_P(MonthlyZones, MonthClosesOnTheFirstSecondOfTheNextMonth)
{
    for (const month_case& c : MONTHS) {
        SCOPED_TRACE(c.line);
        remove_file(HISTORY);
        wan_usage r = record_at(local(c.year, c.month, days_in_month(c.year, c.month), 23, 59, 59));
        r.month_start = local(c.year, c.month, 1);
        r.month_bytes[0] = 21ull << 20;
        r.month_bytes[1] = 2ull << 20;

        wu_monthly_rollover(r);

        EXPECT_EQ(read_file(HISTORY), "<missing>");
        EXPECT_EQ(r.history_flags, 0u);
        EXPECT_EQ(r.month_start, local(c.year, c.month, 1));

        move_to(r, local(c.next_year, c.next_month, 1, 0, 0, 0));
        wu_monthly_rollover(r);

        EXPECT_EQ(read_file(HISTORY), c.line);
        EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED);
        EXPECT_EQ(r.month_start, local(c.next_year, c.next_month, 1));
    }
    EXPECT_TRUE(plat.logs.empty());
}

TEST_P(MonthlyZones, ClosingMarchOnTheSpringForwardDayStartsAprilAtLocalMidnight)
{
    wan_usage r = record_at(local(2024, 4, 1, 0, 0, 5));
    r.month_start = local(2024, 3, 1);
    r.month_bytes[0] = 31ull << 20;
    r.month_bytes[1] = 3ull << 20;

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY), "2024-03-01,2024-03-31,31,3\n");
    EXPECT_EQ(show(r.month_start), GetParam().april_first);
}

TEST_P(MonthlyZones, FirstRolloverOfAFreshRecordWritesNoLineAndSetsTheFlag)
{
    wan_usage r = record_at(local(2024, 5, 20, 12, 0, 0));
    r.month_bytes[0] = 5ull << 20;

    wu_monthly_rollover(r);

    // month_start is 0, so no line and no file, whatever day local_tm(0) falls on.
    EXPECT_EQ(read_file(HISTORY), "<missing>");
    EXPECT_EQ(r.history_flags, HISTORY_MONTHLY_CHANGED);
    EXPECT_EQ(r.month_start, local(2024, 5, 1));
    const std::string expected_log = GetParam().fresh_record_log;
    if (expected_log.empty()) {
        EXPECT_TRUE(plat.logs.empty());
    } else {
        expect_one_log(expected_log);
    }
}

TEST_P(MonthlyZones, LinesBefore2009AreDroppedByLocalMidnight)
{
    write_file(HISTORY,
               "2024-04-01,2024-04-30,400,40\n"
               "2009-01-01,2009-01-31,9,9\n"
               "2008-12-01,2008-12-31,8,8\n");
    wan_usage r = record_at(local(2024, 6, 1, 0, 0, 5));
    r.month_start = local(2024, 5, 1);
    r.month_bytes[0] = 500ull << 20;
    r.month_bytes[1] = 50ull << 20;

    wu_monthly_rollover(r);

    EXPECT_EQ(read_file(HISTORY), std::string("2024-05-01,2024-05-31,500,50\n"
                                              "2024-04-01,2024-04-30,400,40\n") +
                                      (GetParam().keeps_2009_01_01
                                           ? "2009-01-01,2009-01-31,9,9\n"
                                           : ""));
}

TEST_P(MonthlyZones, AggregatedRowZeroRunsFromLocalMidnightToTheLastSecond)
{
    wan_usage a = record_at(local(2024, 2, 10, 12, 0, 0), 0);
    a.month_start = local(2024, 2, 1);
    a.month_bytes[0] = 1ull << 20;
    usage_totals t{};

    aggregate_monthly_total(t, a);
    rebuild_monthly_total(t);

    EXPECT_EQ(ymd_hms(t.monthly[0].start), "2024-02-01 00:00:00");
    EXPECT_EQ(ymd_hms(t.monthly[0].end), "2024-02-29 23:59:59");
    EXPECT_EQ(read_file(TOTAL), "2024-02-01,2024-02-29,1,0\n");
}

std::string zone_name(const ::testing::TestParamInfo<zone_case>& info)
{
    std::string name = info.param.zone;
    for (char& c : name)
        if (c == '/')
            c = '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(Monthly, MonthlyZones, ::testing::ValuesIn(ZONES), zone_name);

} // namespace
