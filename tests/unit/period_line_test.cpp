#include "sandbox.h"

#include "core/local_time.h"
#include "history/period_line.h"

#include <cstdio>
#include <random>
#include <string>

namespace {

class PeriodLine : public Sandbox {
protected:
    // Runs a writer against a memory stream and returns what it wrote.
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

TEST_F(PeriodLine, HourlyLineShowsHourAndTwoMiBValues)
{
    struct tm tm = local_tm(local(2024, 3, 5, 14, 20));
    EXPECT_EQ(written([&](FILE* f) { write_hourly_line(f, tm, 812, 96); }), "2024-03-05-14,812,96\n");
}

TEST_F(PeriodLine, DailyLineShowsDay)
{
    struct tm tm = local_tm(local(2024, 3, 5, 14, 20));
    EXPECT_EQ(written([&](FILE* f) { write_daily_line(f, tm, 2210, 318); }), "2024-03-05,2210,318\n");
}

TEST_F(PeriodLine, MonthlyLineShowsFirstAndLastDay)
{
    struct tm first = local_tm(local(2024, 5, 1));
    struct tm last = local_tm(local(2024, 5, 31, 23, 59, 59));
    EXPECT_EQ(written([&](FILE* f) { write_period_line(f, first, last, 1532, 210); }),
              "2024-05-01,2024-05-31,1532,210\n");
}

TEST_F(PeriodLine, LinesDatedBefore2009AreNeverWritten)
{
    struct tm before = local_tm(1230767999); // 2008-12-31 23:59:59 UTC
    struct tm at = local_tm(1230768000);     // 2009-01-01 00:00:00 UTC
    EXPECT_EQ(written([&](FILE* f) { write_hourly_line(f, before, 1, 2); }), "");
    EXPECT_EQ(written([&](FILE* f) { write_hourly_line(f, at, 1, 2); }), "2009-01-01-00,1,2\n");
    EXPECT_EQ(written([&](FILE* f) { write_daily_line(f, local_tm(0), 1, 2); }), "");
    EXPECT_EQ(written([&](FILE* f) { write_period_line(f, at, before, 1, 2); }), "");
    EXPECT_EQ(written([&](FILE* f) { write_period_line(f, before, at, 1, 2); }), "");
}

TEST_F(PeriodLine, The2009RuleIsJudgedInLocalTime)
{
    // A line's date is its local start turned into a time: in New York, 31 December 2008
    // 19:00 is 2009-01-01 00:00 UTC, so that hour is written, and 18:00 is not.
    set_tz("America/New_York");
    struct tm evening = local_tm(1230768000); // 2008-12-31 19:00 EST
    EXPECT_EQ(written([&](FILE* f) { write_hourly_line(f, evening, 1, 2); }), "2008-12-31-19,1,2\n");
    evening.tm_hour = 18; // 23:00 UTC the day before: before 2009
    EXPECT_EQ(written([&](FILE* f) { write_hourly_line(f, evening, 1, 2); }), "");
}

TEST_F(PeriodLine, MiBAreCutTo32BitsOnEveryBuild)
{
    EXPECT_EQ(to_mib(5ull << 20), 5u);
    EXPECT_EQ(to_mib((5ull << 20) + 1048575), 5u);
    EXPECT_EQ(to_mib((1ull << 52) + (7ull << 20)), 7u); // 2^32 MiB wraps to 0
    struct tm tm = local_tm(local(2024, 3, 5, 14));
    EXPECT_EQ(written([&](FILE* f) { write_hourly_line(f, tm, to_mib(UINT64_MAX), 0); }),
              "2024-03-05-14,4294967295,0\n");
}

TEST_F(PeriodLine, ReaderTakesTwoDatesAndTwoNumbers)
{
    struct tm first, last;
    uint64_t v1 = 0, v2 = 0;
    ASSERT_TRUE(read_period_line("2024-05-01,2024-05-31,1532,210\n", &first, &last, &v1, &v2));
    EXPECT_EQ(first.tm_year, 124);
    EXPECT_EQ(first.tm_mon, 4);
    EXPECT_EQ(first.tm_mday, 1);
    EXPECT_EQ(last.tm_mday, 31);
    EXPECT_EQ(v1, 1532u);
    EXPECT_EQ(v2, 210u);
    EXPECT_EQ(first.tm_isdst, -1);
}

TEST_F(PeriodLine, ReaderAcceptsAnySingleSeparator)
{
    struct tm first, last;
    uint64_t v1 = 0, v2 = 0;
    ASSERT_TRUE(read_period_line("2024-05-01 2024-05-31;7/8", &first, &last, &v1, &v2));
    EXPECT_EQ(v1, 7u);
    EXPECT_EQ(v2, 8u);
}

TEST_F(PeriodLine, ReaderRefusesLinesThatDoNotParse)
{
    struct tm first, last;
    uint64_t v1, v2;
    for (const char* line : {"", "\n", "garbage", "2024-05-01", "2024-05-01,2024-05-31",
                             "2024-05-01,2024-05-31,12", "2024-05-01,2024-05-31,12,",
                             "2024-05-01,2024-05-31,x,3", "2024-05-01,junk,1,2",
                             "2024-05-01,2024-05-31,-1,2",
                             "2024-05-01,2024-05-31,99999999999999999999,2"}) {
        SCOPED_TRACE(line);
        EXPECT_FALSE(read_period_line(line, &first, &last, &v1, &v2));
    }
}

TEST_F(PeriodLine, RewriteKeepsParsedLinesBeforeTheLimitAndDropsTheRest)
{
    char input[] = "2024-05-01,2024-05-31,1,2\n"
                   "not a line\n"
                   "2024-04-01,2024-04-30,3,4\n"
                   "2008-12-01,2008-12-31,5,6\n"
                   "2024-03-01,2024-03-31,7,8\n";
    FILE* in = fmemopen(input, sizeof input - 1, "r");
    std::string all = written([&](FILE* f) { rewrite_period_lines(f, in, ALL_LINES, local(2024, 5, 1)); });
    fclose(in);
    EXPECT_EQ(all, "2024-04-01,2024-04-30,3,4\n2024-03-01,2024-03-31,7,8\n");

    in = fmemopen(input, sizeof input - 1, "r");
    std::string first_three = written([&](FILE* f) { rewrite_period_lines(f, in, 3, local(2030, 1, 1)); });
    fclose(in);
    // Three lines are read (one does not parse), two are written.
    EXPECT_EQ(first_three, "2024-05-01,2024-05-31,1,2\n2024-04-01,2024-04-30,3,4\n");
}

} // namespace

namespace {

// The lines as strftime and fprintf write them: the reference of the writers.
std::string reference_dated(const struct tm& tm, const char* format, unsigned long long v1, unsigned long long v2)
{
    if (!dated_since_2009(tm))
        return "";
    char date[16];
    if (strftime(date, sizeof date, format, &tm) == 0)
        return "";
    char line[128];
    snprintf(line, sizeof line, "%s,%llu,%llu\n", date, v1, v2);
    return line;
}

std::string reference_two_dates(const struct tm& first, const struct tm& last, unsigned long long v1,
                                unsigned long long v2)
{
    if (!dated_since_2009(first) || !dated_since_2009(last))
        return "";
    char from[16], to[16];
    if (strftime(from, sizeof from, "%Y-%m-%d", &first) == 0 || strftime(to, sizeof to, "%Y-%m-%d", &last) == 0)
        return "";
    char line[128];
    snprintf(line, sizeof line, "%s,%s,%llu,%llu\n", from, to, v1, v2);
    return line;
}

// Fields of every kind: real dates from 2008 to 12000, and fields out of their ranges as a
// line read back from a damaged file can give them.
struct tm random_fields(std::mt19937_64& random)
{
    struct tm tm = {};
    const unsigned kind = random() % 4;
    if (kind == 0) {
        const time_t t = static_cast<time_t>(1200000000 + random() % 9000000000ULL);
        tm = local_tm(t);
    } else {
        tm.tm_year = static_cast<int>(random() % 12000) - 1900;
        tm.tm_mon = static_cast<int>(random() % 16) - 2;
        tm.tm_mday = static_cast<int>(random() % 40) - 4;
        tm.tm_hour = static_cast<int>(random() % 30) - 3;
        if (kind == 3) {
            tm.tm_year = 2009 - 1900 + static_cast<int>(random() % 40);
            tm.tm_mon = static_cast<int>(random() % 12);
            tm.tm_mday = 1 + static_cast<int>(random() % 31);
            tm.tm_hour = static_cast<int>(random() % 24);
        }
        tm.tm_isdst = -1;
    }
    return tm;
}

} // namespace

TEST_F(PeriodLine, WritersGiveWhatStrftimeAndFprintfGiveForAnyFields)
{
    set_tz("Europe/Berlin");
    std::mt19937_64 random(20261124);
    for (int i = 0; i < 20000; ++i) {
        const struct tm a = random_fields(random);
        const struct tm b = random_fields(random);
        const uint64_t v1 = random() >> (random() % 64);
        const uint64_t v2 = random() >> (random() % 64);
        const uint32_t m1 = static_cast<uint32_t>(v1);
        const uint32_t m2 = static_cast<uint32_t>(v2);
        ASSERT_EQ(written([&](FILE* f) { write_hourly_line(f, a, m1, m2); }), reference_dated(a, "%Y-%m-%d-%H", m1, m2));
        ASSERT_EQ(written([&](FILE* f) { write_daily_line(f, a, m1, m2); }), reference_dated(a, "%Y-%m-%d", m1, m2));
        ASSERT_EQ(written([&](FILE* f) { write_hourly_backup_line(f, a, v1, v2); }),
                  reference_dated(a, "%Y-%m-%d-%H", v1, v2));
        ASSERT_EQ(written([&](FILE* f) { write_daily_backup_line(f, a, v1, v2); }), reference_dated(a, "%Y-%m-%d", v1, v2));
        ASSERT_EQ(written([&](FILE* f) { write_period_line(f, a, b, m1, m2); }), reference_two_dates(a, b, m1, m2));
        ASSERT_EQ(written([&](FILE* f) { write_period_backup_line(f, a, b, v1, v2); }),
                  reference_two_dates(a, b, v1, v2));
    }
}
