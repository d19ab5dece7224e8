// The report's scaled units and the exact arithmetic of its projections.
#include "tools/report/charts.h"
#include "tools/report/projection.h"
#include "tools/report/units.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

using report::mul_div;
using report::scaled_bytes;

TEST(ScaledBytes, BytesBelowOneKibAreWholeBytes)
{
    EXPECT_EQ(scaled_bytes(0), "0 B");
    EXPECT_EQ(scaled_bytes(1), "1 B");
    EXPECT_EQ(scaled_bytes(1023), "1023 B");
}

TEST(ScaledBytes, BelowOneHundredOfAUnitHasOneDecimal)
{
    EXPECT_EQ(scaled_bytes(1024), "1.0 KiB");
    EXPECT_EQ(scaled_bytes(1536), "1.5 KiB");
    EXPECT_EQ(scaled_bytes(96ull << 20), "96.0 MiB");
    EXPECT_EQ(scaled_bytes(1832840ull << 10), "1.7 GiB");
    // 99.94 KiB rounds to 99.9, 99.95 KiB half up to 100.
    EXPECT_EQ(scaled_bytes(102339), "99.9 KiB");
    EXPECT_EQ(scaled_bytes(102349), "100 KiB");
}

TEST(ScaledBytes, FromOneHundredOfAUnitWholeNumbers)
{
    EXPECT_EQ(scaled_bytes(100ull << 20), "100 MiB");
    EXPECT_EQ(scaled_bytes(1023ull << 20), "1023 MiB");
    EXPECT_EQ(scaled_bytes((1000ull << 20) + (1ull << 19)), "1001 MiB");  // 1000.5 half up
}

TEST(ScaledBytes, AFigureThatRoundsToTheNextUnitIsWrittenInIt)
{
    // 1023.5 MiB rounds to 1024 MiB: written as 1.0 GiB.
    EXPECT_EQ(scaled_bytes((1023ull << 20) + (1ull << 19)), "1.0 GiB");
    EXPECT_EQ(scaled_bytes((1ull << 30) - 1), "1.0 GiB");
    EXPECT_EQ(scaled_bytes((1ull << 10) * 1023 + 1023), "1.0 MiB");
}

TEST(ScaledBytes, TibIsTheLargestUnit)
{
    EXPECT_EQ(scaled_bytes(1ull << 40), "1.0 TiB");
    EXPECT_EQ(scaled_bytes(1ull << 50), "1024 TiB");
    EXPECT_EQ(scaled_bytes(UINT64_MAX), "16777216 TiB");
}

TEST(ScaledBytes, FilesUnitsAndRawFigures)
{
    EXPECT_EQ(report::show_mib(1730, true), "1730 MiB");
    EXPECT_EQ(report::show_mib(1730, false), "1.7 GiB");
    EXPECT_EQ(report::show_kib(1832840, true), "1832840 KiB");
    EXPECT_EQ(report::show_kib(1832840, false), "1.7 GiB");
    EXPECT_EQ(report::show_link_bytes((5ull << 20) + 1000, true), "5 MiB");
    EXPECT_EQ(report::kib_to_bytes(UINT64_MAX), UINT64_MAX);
    EXPECT_EQ(report::mib_to_bytes(uint64_t{1} << 44), UINT64_MAX);
}

TEST(MulDiv, IsExactWhereTheProductOverflows)
{
    // 2^53 bytes over 744 h of a cycle of which 1 h has passed: the product needs 75 bits.
    const uint64_t used = uint64_t{1} << 53;
    EXPECT_EQ(mul_div(used, 744 * 3600, 3600), used * 744);
    EXPECT_EQ(mul_div(7, 3, 2), 10u);
    EXPECT_EQ(mul_div(UINT64_MAX, 2, 1), UINT64_MAX);
    EXPECT_EQ(mul_div(UINT64_MAX, 1, 1), UINT64_MAX);
}

// A link whose running cycle and hour are given as the files would hold them.
report::Link link_with(const std::string& cycle, const std::string& hour, uint64_t used_mib, int start_day,
                       uint64_t quota_mib, bool suspended)
{
    report::Link link;
    link.tables.resize(4);
    report::UsageRow row;
    row.period = hour;
    row.line = 1;
    link.tables[0].rows.push_back(row);
    report::Allowance& a = link.allowance;
    a.cycle_known = true;
    a.cycle = cycle;
    a.first = used_mib;
    a.quota = quota_mib ? report::Allowance::Quota::set : report::Allowance::Quota::none;
    a.quota_mib = quota_mib;
    a.start_day_set = true;
    a.start_day = start_day;
    a.suspended = suspended;
    return link;
}

class InZone : public ::testing::Test {
protected:
    void use(const char* zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }
    void TearDown() override
    {
        unsetenv("TZ");
        tzset();
    }
};

TEST_F(InZone, TheUsageAtTheLineIsCrossedAndOneByteLessIsNot)
{
    use("UTC");
    // An allowance of 1000 MiB: the 75 % line is 750 MiB exactly.
    report::Link at = link_with("2024-03-05 .. 2024-03-20", "2024-03-20 14:00", 750, 5, 1000, false);
    report::project_allowance(&at);
    ASSERT_TRUE(at.allowance.projection.known);
    EXPECT_EQ(at.allowance.projection.crossings[0].line_bytes, 750ull << 20);
    EXPECT_EQ(at.allowance.projection.crossings[0].when, report::Crossing::When::crossed);
    report::Link below = link_with("2024-03-05 .. 2024-03-20", "2024-03-20 14:00", 749, 5, 1000, false);
    report::project_allowance(&below);
    EXPECT_EQ(below.allowance.projection.crossings[0].when, report::Crossing::When::in_cycle);
    // 749 MiB in 375 h: 750 MiB after 375.5 h, on 2024-03-20 at 15:30.
    EXPECT_EQ(below.allowance.projection.crossings[0].date, "2024-03-20");
}

TEST_F(InZone, TheLastDayRuleAndALeapYearFebruary)
{
    use("UTC");
    // Start day 0: the cycle from 29 February 2024 runs to 30 March 23:59:59.
    report::Link link = link_with("2024-02-29 .. 2024-03-10", "2024-03-10 23:00", 100, 0, 0, false);
    report::project_allowance(&link);
    const report::Projection& p = link.allowance.projection;
    ASSERT_TRUE(p.known);
    EXPECT_EQ(p.end_date, "2024-03-30");
    EXPECT_EQ(p.cycle_end + 1 - p.cycle_start, 31 * 86400);
    // 100 MiB in 11 days, on to 31 days: 281.8 MiB, rounded down to the byte.
    EXPECT_EQ(p.projected_bytes, (uint64_t{100} << 20) * 31 / 11);
    EXPECT_TRUE(p.crossings.empty());
}

TEST_F(InZone, ADaylightSavingChangeShortensTheCycleByAnHour)
{
    use("Europe/Berlin");
    report::Link link = link_with("2024-03-15 .. 2024-03-20", "2024-03-20 23:00", 600, 15, 0, false);
    report::project_allowance(&link);
    const report::Projection& p = link.allowance.projection;
    ASSERT_TRUE(p.known);
    EXPECT_EQ(p.end_date, "2024-04-14");
    EXPECT_EQ(p.cycle_end + 1 - p.cycle_start, 31 * 86400 - 3600);
    EXPECT_EQ(p.now - p.cycle_start, 6 * 86400);
    EXPECT_EQ(p.projected_bytes, (uint64_t{600} << 20) * (31 * 86400 - 3600) / (6 * 86400));
}

TEST_F(InZone, AStartDayBeyondAnyMonthIsNotProjected)
{
    use("UTC");
    report::Link link = link_with("2024-03-05 .. 2024-03-20", "2024-03-20 14:00", 100, 400, 1000, false);
    report::project_allowance(&link);
    EXPECT_FALSE(link.allowance.projection.known);
    EXPECT_EQ(link.allowance.projection.why_not, "cycle end unknown");
}

TEST_F(InZone, ASuspendedLinkKeepsWhatItHas)
{
    use("UTC");
    report::Link link = link_with("2024-03-10 .. 2024-03-20", "2024-03-20 14:00", 990, 10, 1000, true);
    report::project_allowance(&link);
    const report::Projection& p = link.allowance.projection;
    EXPECT_TRUE(p.held);
    EXPECT_EQ(p.projected_bytes, uint64_t{990} << 20);
    EXPECT_EQ(p.crossings[2].when, report::Crossing::When::not_in_cycle);
    EXPECT_EQ(p.crossings[1].when, report::Crossing::When::crossed);
}

constexpr uint64_t MIB = uint64_t{1} << 20;

TEST(RoundAxis, StepsOfOneTwoOrFiveAtMostFiveOfThem)
{
    // 271 MiB: steps of 100 MiB up to 300 MiB.
    report::Axis a = report::round_axis(271 * MIB, MIB, false);
    EXPECT_EQ(a.step, 100 * MIB);
    EXPECT_EQ(a.steps, 3u);
    // 61 MiB: 20 MiB up to 80 MiB.
    a = report::round_axis(61 * MIB, MIB, false);
    EXPECT_EQ(a.step, 20 * MIB);
    EXPECT_EQ(a.steps, 4u);
    // A figure on a gridline needs no step above it.
    a = report::round_axis(300 * MIB, MIB, false);
    EXPECT_EQ(a.top(), 300 * MIB);
}

TEST(RoundAxis, ScaledLabelsStayExactAndRawOnesKeepTheUnit)
{
    // 1,500 MiB scaled: steps of 500 MiB would give "1500 MiB" written as "1.5 GiB", so the
    // axis moves to GiB steps.
    report::Axis a = report::round_axis(1500 * MIB, MIB, false);
    EXPECT_EQ(a.step, 1024 * MIB);
    EXPECT_EQ(a.steps, 2u);
    // Raw, every label is in MiB: 500 MiB steps are fine.
    a = report::round_axis(1500 * MIB, MIB, true);
    EXPECT_EQ(a.step, 500 * MIB);
    EXPECT_EQ(a.steps, 3u);
}

TEST(RoundAxis, NothingToShowIsOneStepOfTheUnitAndHugeFiguresDoNotOverflow)
{
    report::Axis a = report::round_axis(0, MIB, false);
    EXPECT_EQ(a.step, MIB);
    EXPECT_EQ(a.steps, 1u);
    a = report::round_axis(UINT64_MAX, MIB, false);
    EXPECT_GE(a.step, UINT64_MAX / 5);
    EXPECT_LE(a.steps, 5u);
}

} // namespace
