#include "sandbox.h"

#include "core/wan_usage.h"

namespace {

usage_entry hour_entry(int hour)
{
    usage_entry e{};
    e.when.tm_year = 124;
    e.when.tm_mday = 1;
    e.when.tm_hour = hour;
    e.when.tm_isdst = -1;
    e.bytes[0] = static_cast<uint64_t>(hour);
    return e;
}

TEST(WanUsageRing, TenHourlyRolloversOnFreshRecordLeaveHead10Tail0)
{
    wan_usage r{};
    for (int i = 0; i < 10; ++i)
        ring_push(r.hourly, HOURLY_RING_SIZE, &r.hourly_head, &r.hourly_tail, hour_entry(i));
    EXPECT_EQ(r.hourly_head, 10u);
    EXPECT_EQ(r.hourly_tail, 0u);
}

TEST(WanUsageRing, ThirtyTwoHourlyRolloversLeaveHead32Tail1With31Entries)
{
    wan_usage r{};
    for (int i = 0; i < 32; ++i)
        ring_push(r.hourly, HOURLY_RING_SIZE, &r.hourly_head, &r.hourly_tail, hour_entry(i));
    EXPECT_EQ(r.hourly_head, 32u);
    EXPECT_EQ(r.hourly_tail, 1u);
    EXPECT_EQ(r.hourly_head - r.hourly_tail, 31u);
    EXPECT_FALSE(ring_empty(r.hourly_head, r.hourly_tail, HOURLY_RING_SIZE));
    // The oldest kept entry is the second one pushed; the newest the last.
    EXPECT_EQ(r.hourly[r.hourly_tail % HOURLY_RING_SIZE].bytes[0], 1u);
    EXPECT_EQ(r.hourly[(r.hourly_head - 1) % HOURLY_RING_SIZE].bytes[0], 31u);
}

TEST(WanUsageRing, DailyRingHoldsAtMost63Days)
{
    wan_usage r{};
    for (int i = 0; i < 100; ++i)
        ring_push(r.daily, DAILY_RING_SIZE, &r.daily_head, &r.daily_tail, hour_entry(i % 24));
    EXPECT_EQ(r.daily_head, 100u);
    EXPECT_EQ(r.daily_head - r.daily_tail, 63u);
}

TEST(WanUsageRing, IndicesKeepCountingPastTheWrapOf32Bits)
{
    wan_usage r{};
    r.hourly_head = UINT32_MAX;
    r.hourly_tail = UINT32_MAX - 31;
    ring_push(r.hourly, HOURLY_RING_SIZE, &r.hourly_head, &r.hourly_tail, hour_entry(3));
    EXPECT_EQ(r.hourly_head, 0u);
    EXPECT_EQ(r.hourly_tail, UINT32_MAX - 30);
    EXPECT_EQ(r.hourly[UINT32_MAX % HOURLY_RING_SIZE].bytes[0], 3u);
}

TEST(WanUsageRing, EmptyRingHasEqualIndicesModuloSize)
{
    EXPECT_TRUE(ring_empty(0, 0, 32));
    EXPECT_TRUE(ring_empty(40, 8, 32));
    EXPECT_FALSE(ring_empty(41, 8, 32));
}

} // namespace
