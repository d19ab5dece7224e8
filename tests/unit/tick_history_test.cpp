// Whole ticks of the daemon and the files they leave: the order of the per-record work,
// the exports of SIM records, and the router-wide total files.
#include "sandbox.h"

#include "daemon/daemon.h"
#include "daemon/signals.h"

#include <csignal>
#include <string>

namespace {

constexpr const char* LINK_USAGE = "/proc/korel/config/link_usage";
constexpr uint64_t MiB = 1ull << 20;

class Tick : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        write_file("/tmp/.keep", "");
        write_file("/var/run/korel/wan1/.keep", "");
        write_file("/var/run/korel/wan2/.keep", "");
    }
    void TearDown() override
    {
        for (int signo : {SIGALRM, SIGHUP, SIGUSR1, SIGINT, SIGTERM, SIGPIPE})
            signal(signo, SIG_DFL);
        Sandbox::TearDown();
    }
    // The kernel's counters of WAN 1 and WAN 2 at time t, in bytes.
    void counters(time_t t, uint64_t a1, uint64_t a2, uint64_t b1, uint64_t b2)
    {
        write_file(LINK_USAGE, "timestamp:" + std::to_string(t) + "\nCON:1\nOVERALL:" +
                                   std::to_string(a1) + " " + std::to_string(a2) + "\nCON:2\nOVERALL:" +
                                   std::to_string(b1) + " " + std::to_string(b2) + "\n");
    }
    void start()
    {
        ASSERT_EQ(daemon_start(state, 2), 0);
        loop_pass(state); // the pass straight after start-up: no tick yet
    }
    void tick(time_t t)
    {
        plat.clock = t;
        tick_pending = 1;
        loop_pass(state);
    }
    daemon_state state;
};

TEST_F(Tick, FirstTickCountsTrafficSinceStartAndRebuildsTheThreeTotals)
{
    write_file("/var/run/korel/time_initialized", "");
    write_file("/usr/local/velto/conf/config", "WAN1_NAME=Fibre\n"); // no billing start day
    plat.clock = local(2024, 3, 5, 14, 0, 0);
    counters(plat.clock, 100 * MiB, 10 * MiB, 50 * MiB, 5 * MiB);
    start();
    time_t t = local(2024, 3, 5, 14, 0, 30);
    counters(t, 103 * MiB, 11 * MiB, 52 * MiB, 6 * MiB);
    tick(t);
    // The first tick's delta lands in the current hour, day and month; the buckets then start
    // at the current hour and day.
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_hourly.csv"), "2024-03-05-14,3,1\n");
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_daily.csv"), "2024-03-05,3,1\n");
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_monthly.csv"), "2024-03-01,2024-03-05,3,1\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/link_usage_hourly.csv"), "2024-03-05-14,2,1\n");
    EXPECT_FALSE(exists("/var/run/korel/wan1/link_usage_billing.csv")); // no start day
    EXPECT_EQ(show(state.wan[0].hour_bucket_time), "2024-03-05 14:00:00 UTC");
    EXPECT_EQ(read_file("/var/run/korel/link_usage_hourly_total.csv"), "2024-03-05-14,5,2\n");
    EXPECT_EQ(read_file("/var/run/korel/link_usage_daily_total.csv"), "2024-03-05,5,2\n");
    EXPECT_EQ(read_file("/var/run/korel/link_usage_monthly_total.csv"), "2024-03-01,2024-03-31,5,2\n");
    // The first month rollover of a fresh record closes nothing and writes no history line.
    EXPECT_EQ(read_file("/var/run/korel/wan1/usage_history.monthly"), "<missing>");
}

TEST_F(Tick, LaterTicksReplaceOnlyTheFirstLineOfATotalUntilAHistoryChanges)
{
    write_file("/var/run/korel/time_initialized", "");
    plat.clock = local(2024, 3, 5, 14, 0, 0);
    counters(plat.clock, 0, 0, 0, 0);
    start();
    counters(local(2024, 3, 5, 14, 0, 30), 1 * MiB, 0, 0, 0);
    tick(local(2024, 3, 5, 14, 0, 30));
    // Lines after the first one are kept by an update and dropped by a rebuild.
    write_file("/var/run/korel/link_usage_hourly_total.csv", "2024-03-05-14,1,0\n2024-03-05-13,9,9\n");
    write_file("/var/run/korel/link_usage_daily_total.csv", "2024-03-05,1,0\n2024-03-04,8,8\n");
    write_file("/var/run/korel/link_usage_monthly_total.csv",
               "2024-03-01,2024-03-31,1,0\n2024-02-01,2024-02-29,7,7\n");

    counters(local(2024, 3, 5, 14, 1, 0), 3 * MiB, 0, 1 * MiB, 0);
    tick(local(2024, 3, 5, 14, 1, 0));
    EXPECT_EQ(read_file("/var/run/korel/link_usage_hourly_total.csv"), "2024-03-05-14,4,0\n2024-03-05-13,9,9\n");
    EXPECT_EQ(read_file("/var/run/korel/link_usage_daily_total.csv"), "2024-03-05,4,0\n2024-03-04,8,8\n");
    // The first tick's month rollover left "monthly history changed" standing (the first
    // tick rebuilds and clears nothing), so this tick rebuilds the monthly total.
    EXPECT_EQ(read_file("/var/run/korel/link_usage_monthly_total.csv"), "2024-03-01,2024-03-31,4,0\n");

    // The hour ends: the hourly history changed, so the hourly total is rebuilt whole.
    write_file("/var/run/korel/link_usage_monthly_total.csv",
               "2024-03-01,2024-03-31,4,0\n2024-02-01,2024-02-29,7,7\n");
    counters(local(2024, 3, 5, 15, 0, 10), 4 * MiB, 0, 1 * MiB, 0);
    tick(local(2024, 3, 5, 15, 0, 10));
    EXPECT_EQ(read_file("/var/run/korel/link_usage_hourly_total.csv"), "2024-03-05-15,1,0\n2024-03-05-14,4,0\n");
    EXPECT_EQ(read_file("/var/run/korel/link_usage_daily_total.csv"), "2024-03-05,5,0\n2024-03-04,8,8\n");
    EXPECT_EQ(read_file("/var/run/korel/link_usage_monthly_total.csv"),
              "2024-03-01,2024-03-31,5,0\n2024-02-01,2024-02-29,7,7\n");
    EXPECT_EQ(read_file("/var/run/korel/wan1/usage_history.hourly"), "2024-03-05-14,3,0\n");
}

TEST_F(Tick, SimRecordsGetTheirExportsAndStayOutOfTheTotals)
{
    write_file("/var/run/korel/time_initialized", "");
    write_file("/etc/gobi_dual_sim_support", "2\n");
    write_file("/etc/gpio_map/cell0_slot", "2\n");
    plat.clock = local(2024, 3, 5, 14, 0, 0);
    counters(plat.clock, 0, 0, 10 * MiB, 10 * MiB);
    start();
    counters(local(2024, 3, 5, 14, 0, 30), 1 * MiB, 0, 16 * MiB, 12 * MiB);
    tick(local(2024, 3, 5, 14, 0, 30));
    EXPECT_EQ(read_file("/var/run/korel/wan2/link_usage_hourly.csv"), "2024-03-05-14,6,2\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim2_usage_hourly.csv"), "2024-03-05-14,6,2\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim1_usage_hourly.csv"), "2024-03-05-14,0,0\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim2_usage_daily.csv"), "2024-03-05,6,2\n");
    EXPECT_EQ(read_file("/var/run/korel/wan2/sim2_usage_monthly.csv"), "2024-03-01,2024-03-05,6,2\n");
    // WAN 1 and WAN 2 only: the SIM's traffic is already WAN 2's.
    EXPECT_EQ(read_file("/var/run/korel/link_usage_hourly_total.csv"), "2024-03-05-14,7,2\n");
}

TEST_F(Tick, WithoutTimeInitializedExportsAreRewrittenEveryTickWithUnchangedBuckets)
{
    plat.clock = local(2024, 3, 5, 14, 0, 0);
    counters(plat.clock, 0, 0, 0, 0);
    start();
    // A record as a restore leaves it: buckets of an earlier hour and day, a running month.
    wan_usage& r = state.wan[0];
    r.hour_bucket_time = local(2024, 3, 5, 13, 0, 0);
    r.hour_bytes[0] = 4 * MiB;
    r.day_bucket_time = local(2024, 3, 5, 0, 0, 0);
    r.day_bytes[0] = 9 * MiB;
    r.month_start = local(2024, 3, 1);
    r.month_bytes[0] = 20 * MiB;
    for (int k = 1; k <= 3; ++k) {
        SCOPED_TRACE(k);
        time_t t = local(2024, 3, 5, 14, 0, 30 * k);
        counters(t, static_cast<uint64_t>(k) * MiB, 0, 0, 0);
        unlink(real("/var/run/korel/wan1/link_usage_hourly.csv").c_str());
        tick(t);
        EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_hourly.csv"), "2024-03-05-13,4,0\n");
        EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_daily.csv"), "2024-03-05,9,0\n");
        EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_monthly.csv"), "2024-03-01,2024-03-05,20,0\n");
    }
    EXPECT_EQ(show(r.hour_bucket_time), "2024-03-05 13:00:00 UTC");
    EXPECT_EQ(r.month_bytes[0], 20 * MiB);
    EXPECT_EQ(r.periods_initialised, 0);
}

TEST_F(Tick, ClockSetFrom1970AtBootStartsCountingAtTheFirstTickWithTheMarker)
{
    // The router boots with its clock at 1970 and sets it later.
    plat.clock = 100;
    counters(100, 0, 0, 0, 0);
    start();
    counters(130, 2 * MiB, 0, 0, 0);
    tick(130);
    // Nothing is dated before 2009: the exports stay empty.
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_hourly.csv"), "");
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_daily.csv"), "");
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_monthly.csv"), "");
    EXPECT_EQ(read_file("/var/run/korel/link_usage_hourly_total.csv"), "");

    write_file("/var/run/korel/time_initialized", "");
    time_t t = local(2024, 3, 5, 14, 10, 0);
    counters(t, 5 * MiB, 0, 0, 0);
    tick(t);
    // Only the delta of the first tick with the clock set is counted; the unset ticks'
    // traffic entered no bucket.
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_hourly.csv"), "2024-03-05-14,3,0\n");
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_daily.csv"), "2024-03-05,3,0\n");
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_monthly.csv"), "2024-03-01,2024-03-05,3,0\n");
    EXPECT_EQ(read_file("/var/run/korel/wan1/usage_history.hourly"), "<missing>");
    EXPECT_EQ(read_file("/var/run/korel/link_usage_hourly_total.csv"), "2024-03-05-14,3,0\n");
}

} // namespace
