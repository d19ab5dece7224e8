#include "sandbox.h"

#include "core/link_usage.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr const char* LINK_USAGE = "/proc/korel/config/link_usage";

class LinkUsage : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        wan.assign(4, wan_usage{});
        for (int i = 0; i < 4; ++i) {
            wan[i].wan_index = i;
            wan[i].sim_slot_index = -1;
        }
    }
    void read(int count = 4, wan_usage* sims = nullptr)
    {
        read_link_usage(wan.data(), count, sims);
    }
    std::vector<wan_usage> wan;
};

TEST_F(LinkUsage, FirstReadTakesWholeCountersAndSampleTime)
{
    write_file(LINK_USAGE, "timestamp:1709647200\nCON:1\nOVERALL:1000 2000\nCON:2\nOVERALL:5 7\n");
    read();
    EXPECT_EQ(wan[0].sample_time, 1709647200);
    EXPECT_EQ(wan[0].sample_tm.tm_hour, 14);
    EXPECT_EQ(wan[0].last_counter[0], 1000u);
    EXPECT_EQ(wan[0].last_counter[1], 2000u);
    EXPECT_EQ(wan[0].delta[0], 1000u);
    EXPECT_EQ(wan[0].delta[1], 2000u);
    EXPECT_EQ(wan[1].delta[0], 5u);
    EXPECT_EQ(wan[1].delta[1], 7u);
    EXPECT_EQ(link_usage_raw_sum[0], 1005u);
    EXPECT_EQ(link_usage_raw_sum[1], 2007u);
}

TEST_F(LinkUsage, SecondReadGivesTrafficSincePreviousSample)
{
    write_file(LINK_USAGE, "timestamp:100\nCON:1\nOVERALL:1000 2000\n");
    read();
    write_file(LINK_USAGE, "timestamp:130\nCON:1\nOVERALL:1500 2600\n");
    read();
    EXPECT_EQ(wan[0].prev_sample_time, 100);
    EXPECT_EQ(wan[0].sample_time, 130);
    EXPECT_EQ(wan[0].delta[0], 500u);
    EXPECT_EQ(wan[0].delta[1], 600u);
    // Raw sums are the counters of the last read, not the deltas.
    EXPECT_EQ(link_usage_raw_sum[0], 1500u);
    EXPECT_EQ(link_usage_raw_sum[1], 2600u);
}

TEST_F(LinkUsage, CounterGoingDownIsTakenAsWrapOneByteShort)
{
    write_file(LINK_USAGE, "CON:1\nOVERALL:1000 1000\n");
    read();
    write_file(LINK_USAGE, "CON:1\nOVERALL:400 1000\n");
    read();
    // 400 + (2^64 - 1 - 1000), modulo 2^64.
    EXPECT_EQ(wan[0].delta[0], 18446744073709551015ull);
    EXPECT_EQ(wan[0].delta[1], 0u);
    EXPECT_EQ(wan[0].last_counter[0], 400u);
}

TEST_F(LinkUsage, CounterDeltaAtTheTopOfTheRange)
{
    EXPECT_EQ(counter_delta(UINT64_MAX - 10, 5), 15u);
    EXPECT_EQ(counter_delta(UINT64_MAX, 0), 0u);
    EXPECT_EQ(counter_delta(7, UINT64_MAX), UINT64_MAX - 7);
}

TEST_F(LinkUsage, OverallBeforeAnyConBelongsToWan1)
{
    write_file(LINK_USAGE, "timestamp:50\nOVERALL:11 22\n");
    read();
    EXPECT_EQ(wan[0].last_counter[0], 11u);
    EXPECT_EQ(wan[0].last_counter[1], 22u);
    EXPECT_EQ(wan[0].sample_time, 50);
    EXPECT_EQ(wan[1].last_counter[0], 0u);
}

TEST_F(LinkUsage, ConAboveWanCountMakesFollowingOverallIgnored)
{
    write_file(LINK_USAGE, "timestamp:50\nCON:3\nOVERALL:11 22\nCON:1\nOVERALL:1 2\n");
    read(2);
    EXPECT_EQ(wan[0].last_counter[0], 1u);
    EXPECT_EQ(wan[1].last_counter[0], 0u);
    EXPECT_EQ(wan[2].last_counter[0], 0u); // beyond the array the reader was given
    EXPECT_EQ(wan[2].sample_time, 0);
    EXPECT_EQ(link_usage_raw_sum[0], 1u);
}

TEST_F(LinkUsage, FileWithoutTimestampGivesSampleTimeZero)
{
    wan[0].sample_time = 777;
    write_file(LINK_USAGE, "CON:1\nOVERALL:1 2\nCON:2\nOVERALL:3 4\n");
    read();
    EXPECT_EQ(wan[0].sample_time, 0);
    EXPECT_EQ(wan[0].prev_sample_time, 777);
    EXPECT_EQ(wan[1].sample_time, 0);
}

TEST_F(LinkUsage, TimestampsAfter2038AndAfter2106AreReadWhole)
{
    // 2038-01-19 03:14:08 UTC is one second past what a 32-bit time_t or long holds, and
    // 2106-02-07 06:28:16 UTC one past an unsigned 32-bit number: both read whole on every
    // build.
    write_file(LINK_USAGE, "timestamp:2147483648\nCON:1\nOVERALL:1 2\n");
    read();
    EXPECT_EQ(wan[0].sample_time, static_cast<time_t>(2147483648LL));
    write_file(LINK_USAGE, "timestamp:4294967296\nCON:1\nOVERALL:1 2\n");
    read();
    EXPECT_EQ(wan[0].sample_time, static_cast<time_t>(4294967296LL));
    EXPECT_EQ(wan[0].prev_sample_time, static_cast<time_t>(2147483648LL));
}

TEST_F(LinkUsage, MissingFileChangesNothing)
{
    wan[0].delta[0] = 42;
    wan[0].last_counter[0] = 99;
    wan[0].sample_time = 5;
    link_usage_raw_sum[0] = 123;
    read();
    EXPECT_EQ(wan[0].delta[0], 42u);
    EXPECT_EQ(wan[0].last_counter[0], 99u);
    EXPECT_EQ(wan[0].sample_time, 5);
    EXPECT_EQ(link_usage_raw_sum[0], 123u);
}

TEST_F(LinkUsage, ConWithZeroNegativeHugeOrTextNamesNoLink)
{
    // After each of these the following OVERALL belongs to no link and is ignored, rather
    // than being credited to the link named before.
    for (const char* con : {"CON:0", "CON:-2", "CON:99999999999999999999", "CON:abc", "CON:"}) {
        SCOPED_TRACE(con);
        wan[0].last_counter[0] = 0;
        write_file(LINK_USAGE, std::string("CON:1\n") + con + "\nOVERALL:10 20\n");
        read();
        EXPECT_EQ(wan[0].last_counter[0], 0u);
        EXPECT_EQ(wan[0].sample_time, 0);
    }
}

TEST_F(LinkUsage, OverallWithOneNumberTextOrSignIsNotASample)
{
    for (const char* overall : {"OVERALL:123", "OVERALL:123 ", "OVERALL:abc def", "OVERALL:",
                                "OVERALL:-5 6", "OVERALL:5 -6", "OVERALL:5 x",
                                "OVERALL:99999999999999999999 1"}) {
        SCOPED_TRACE(overall);
        write_file(LINK_USAGE, std::string("timestamp:60\nCON:1\n") + overall + "\n");
        read();
        EXPECT_EQ(wan[0].last_counter[0], 0u);
        EXPECT_EQ(wan[0].last_counter[1], 0u);
        EXPECT_EQ(wan[0].sample_time, 0);
    }
}

TEST_F(LinkUsage, OverallSeparatorIsAnySingleCharacter)
{
    write_file(LINK_USAGE, "CON:1\nOVERALL:7/9\nCON:2\nOVERALL: 3 4\n");
    read();
    EXPECT_EQ(wan[0].last_counter[0], 7u);
    EXPECT_EQ(wan[0].last_counter[1], 9u);
    EXPECT_EQ(wan[1].last_counter[0], 3u);
    EXPECT_EQ(wan[1].last_counter[1], 4u);
}

TEST_F(LinkUsage, LargestCountersAreTakenWhole)
{
    write_file(LINK_USAGE, "CON:1\nOVERALL:18446744073709551615 18446744073709551614\n");
    read();
    EXPECT_EQ(wan[0].last_counter[0], UINT64_MAX);
    EXPECT_EQ(wan[0].last_counter[1], UINT64_MAX - 1);
}

TEST_F(LinkUsage, GarbageAndLinesWithoutColonAreIgnored)
{
    write_file(LINK_USAGE,
               "\n\x01\x02garbage\xff\n"
               "timestamp 1709647200\n" // no ':' : not a time stamp
               "CON 2\n"                // no ':' : the current link stays WAN 1
               "OVERALL 5 6\n"          // no ':' : not a sample
               "link:3\n"
               "OVERALL:8 9\n");
    read();
    EXPECT_EQ(wan[0].last_counter[0], 8u);
    EXPECT_EQ(wan[0].last_counter[1], 9u);
    EXPECT_EQ(wan[0].sample_time, 0);
    EXPECT_EQ(wan[1].last_counter[0], 0u);
}

TEST_F(LinkUsage, OverlongLineIsReadInPiecesEachMatchedLikeALine)
{
    // 127 bytes of garbage, then a piece that begins with "CON:2": read as its own line.
    std::string overlong(127, 'x');
    write_file(LINK_USAGE, overlong + "CON:2\nOVERALL:5 6\n" + std::string(300, 'y') + "\n");
    read();
    EXPECT_EQ(wan[0].last_counter[0], 0u);
    EXPECT_EQ(wan[1].last_counter[0], 5u);
    EXPECT_EQ(wan[1].last_counter[1], 6u);
}

class LinkUsageDualSim : public LinkUsage {
protected:
    void SetUp() override
    {
        LinkUsage::SetUp();
        // WAN 2 is the dual-SIM link at slot index 0 with its pair of SIM records.
        wan[1].sim_slot_index = 0;
        sims.assign(2, wan_usage{});
        for (int s = 0; s < 2; ++s) {
            sims[s].wan_index = 1;
            sims[s].sim_slot_index = 0;
            sims[s].sim_number = s + 1;
        }
    }
    std::vector<wan_usage> sims;
};

TEST_F(LinkUsageDualSim, SlotTwoCreditsThePairsSecondRecord)
{
    write_file("/etc/gpio_map/cell0_slot", "2\n");
    write_file(LINK_USAGE, "timestamp:1000\nCON:2\nOVERALL:100 200\n");
    read(4, sims.data());
    write_file(LINK_USAGE, "timestamp:1030\nCON:2\nOVERALL:150 260\n");
    read(4, sims.data());
    EXPECT_EQ(sims[1].delta[0], 50u);
    EXPECT_EQ(sims[1].delta[1], 60u);
    EXPECT_EQ(sims[0].delta[0], 0u);
    EXPECT_EQ(sims[0].delta[1], 0u);
    EXPECT_EQ(sims[0].sample_time, 1030);
    EXPECT_EQ(sims[1].sample_time, 1030);
    EXPECT_EQ(sims[0].prev_sample_time, 1000);
    EXPECT_EQ(sims[1].prev_sample_time, 1000);
}

TEST_F(LinkUsageDualSim, SimLastCounterStartsAtZeroAndGrowsOnlyByCreditedDeltas)
{
    EXPECT_EQ(sims[0].last_counter[0], 0u);
    write_file("/etc/gpio_map/cell0_slot", "1\n");
    write_file(LINK_USAGE, "CON:2\nOVERALL:1000000 2000000\n");
    read(4, sims.data());
    EXPECT_EQ(sims[0].last_counter[0], 1000000u); // the first delta is the whole counter
    write_file(LINK_USAGE, "CON:2\nOVERALL:1000300 2000400\n");
    read(4, sims.data());
    EXPECT_EQ(sims[0].last_counter[0], 1000300u);
    EXPECT_EQ(sims[0].last_counter[1], 2000400u);
    write_file("/etc/gpio_map/cell0_slot", "2\n");
    write_file(LINK_USAGE, "CON:2\nOVERALL:1000310 2000420\n");
    read(4, sims.data());
    // SIM 1 is no longer in use: its sum stays; SIM 2 starts from its first credited delta.
    EXPECT_EQ(sims[0].last_counter[0], 1000300u);
    EXPECT_EQ(sims[1].last_counter[0], 10u);
    EXPECT_EQ(sims[1].last_counter[1], 20u);
}

TEST_F(LinkUsageDualSim, MissingSlotFileOrSlotBelowOneOrAboveTwoCreditsNoSim)
{
    write_file(LINK_USAGE, "timestamp:1000\nCON:2\nOVERALL:100 200\n");
    read(4, sims.data());
    for (const char* slot : {"0\n", "-1\n", "3\n", "abc\n", ""}) {
        SCOPED_TRACE(slot);
        write_file("/etc/gpio_map/cell0_slot", slot);
        read(4, sims.data());
        EXPECT_EQ(wan[1].sample_time, 1000);
        EXPECT_EQ(sims[0].sample_time, 0);
        EXPECT_EQ(sims[1].sample_time, 0);
        EXPECT_EQ(sims[0].last_counter[0], 0u);
        EXPECT_EQ(sims[1].last_counter[0], 0u);
    }
}

TEST_F(LinkUsageDualSim, WithoutSimArrayNoSimIsCredited)
{
    write_file("/etc/gpio_map/cell0_slot", "1\n");
    write_file(LINK_USAGE, "CON:2\nOVERALL:100 200\n");
    read(4, nullptr);
    EXPECT_EQ(wan[1].last_counter[0], 100u);
    EXPECT_EQ(sims[0].last_counter[0], 0u);
}

} // namespace
