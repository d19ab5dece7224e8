#include "sandbox.h"

#include "daemon/daemon.h"
#include "daemon/signals.h"
#include "daemon_commands.h"

#include <csignal>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {


class Daemon : public Sandbox {
protected:
    void SetUp() override
    {
        Sandbox::SetUp();
        plat.clock = 1709647200; // 2024-03-05 14:00:00 UTC
        write_file("/var/run/korel/.keep", "");
        write_file("/tmp/.keep", "");
    }
    void TearDown() override
    {
        // The start-up installs the daemon's handlers; the test process gets its own back.
        for (int signo : {SIGALRM, SIGHUP, SIGUSR1, SIGINT, SIGTERM, SIGPIPE})
            signal(signo, SIG_DFL);
        Sandbox::TearDown();
    }
    void start(int wan_count)
    {
        ASSERT_EQ(daemon_start(state, wan_count), 0);
        plat.alarms.clear();
        plat.commands.clear();
    }
    mode_t mode_of(const std::string& absolute)
    {
        struct stat st;
        if (stat(real(absolute).c_str(), &st) != 0)
            return 0;
        return st.st_mode & 07777;
    }
    daemon_state state;
};

TEST_F(Daemon, StartWritesPidFileAndLogsStartLine)
{
    start(2);
    EXPECT_EQ(read_file("/var/run/ruvo.pid"), std::to_string(getpid()) + "\n");
    ASSERT_EQ(plat.logs.size(), 1u);
    EXPECT_EQ(plat.logs[0].ident, "ruvo");
    EXPECT_EQ(plat.logs[0].facility, LOG_DAEMON);
    EXPECT_EQ(plat.logs[0].priority, LOG_NOTICE);
    EXPECT_EQ(plat.logs[0].text,
              "starting Ardenta Usage Monitor (ruvo). Tue Mar  5 14:00:00 2024 UTC(+0000)");
}

TEST_F(Daemon, StartLineShowsLocalZone)
{
    set_tz("Europe/Berlin");
    start(2);
    EXPECT_EQ(plat.logs[0].text,
              "starting Ardenta Usage Monitor (ruvo). Tue Mar  5 15:00:00 2024 CET(+0100)");
}

TEST_F(Daemon, StartRemovesLiveHistoryFilesOfEveryWan)
{
    const char* kinds[] = {"hourly", "daily", "monthly", "billing"};
    for (int n = 1; n <= 5; ++n)
        for (const char* kind : kinds)
            write_file("/var/run/korel/wan" + std::to_string(n) + "/usage_history." + kind, "x\n");
    write_file("/var/run/korel/wan1/link_usage_hourly.csv", "kept\n");
    start(4);
    for (int n = 1; n <= 5; ++n)
        for (const char* kind : kinds)
            EXPECT_EQ(exists("/var/run/korel/wan" + std::to_string(n) + "/usage_history." + kind), n == 5)
                << n << " " << kind;
    EXPECT_EQ(read_file("/var/run/korel/wan1/link_usage_hourly.csv"), "kept\n");
}

TEST_F(Daemon, StartCreatesBackupDirectoriesWithMode0755)
{
    mode_t old_mask = umask(022);
    start(3);
    umask(old_mask);
    EXPECT_EQ(mode_of("/tmp/ruvo_backup"), 0755u);
    EXPECT_EQ(mode_of("/tmp/ruvo_backup/wan1"), 0755u);
    EXPECT_EQ(mode_of("/tmp/ruvo_backup/wan3"), 0755u);
    EXPECT_FALSE(exists("/tmp/ruvo_backup/wan4"));
}

TEST_F(Daemon, StartRemovesLiveClientDirectoriesThenRestoresThemFromTheBackups)
{
    ASSERT_EQ(daemon_start(state, 2), 0);
    EXPECT_EQ(plat.commands, start_up_commands());
}

TEST_F(Daemon, StartAllocatesWanRecordsAndArmsFirstAlarm)
{
    ASSERT_EQ(daemon_start(state, 3), 0);
    ASSERT_EQ(state.wan_count, 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(state.wan[i].wan_index, i);
        EXPECT_EQ(state.wan[i].sim_slot_index, -1);
        EXPECT_EQ(state.wan[i].sim_number, 0);
        EXPECT_EQ(state.wan[i].periods_initialised, 0);
    }
    EXPECT_EQ(state.sim, nullptr);
    EXPECT_EQ(state.sim_count, 0);
    EXPECT_EQ(plat.alarms, std::vector<unsigned>{30});
}

TEST_F(Daemon, StartTakesBaselineSoFirstTickCountsOnlyNewTraffic)
{
    write_file("/proc/korel/config/link_usage", "timestamp:1709647200\nCON:1\nOVERALL:5000 6000\n");
    start(2);
    EXPECT_EQ(state.wan[0].last_counter[0], 5000u);
    write_file("/proc/korel/config/link_usage", "timestamp:1709647230\nCON:1\nOVERALL:5100 6300\n");
    tick_pending = 1;
    loop_pass(state);
    EXPECT_EQ(state.wan[0].delta[0], 100u);
    EXPECT_EQ(state.wan[0].delta[1], 300u);
}

TEST_F(Daemon, DualSimSetUpGivesPairsAndRemovesSimHistoryFiles)
{
    const char* kinds[] = {"hourly", "daily", "monthly", "billing"};
    for (int n = 1; n <= 4; ++n)
        for (int s = 1; s <= 2; ++s)
            for (const char* kind : kinds)
                write_file("/var/run/korel/wan" + std::to_string(n) + "/sim" + std::to_string(s) +
                               "_usage_history." + kind, "x\n");
    write_file("/etc/gobi_dual_sim_support", "2 3\n");
    write_file("/etc/gpio_map/cell1_slot", "2\n");
    write_file("/proc/korel/config/link_usage", "CON:3\nOVERALL:700 800\n");
    start(4);
    ASSERT_EQ(state.sim_count, 4);
    EXPECT_EQ(state.sim[0].wan_index, 1);
    EXPECT_EQ(state.sim[1].sim_number, 2);
    EXPECT_EQ(state.sim[2].wan_index, 2);
    EXPECT_EQ(state.sim[3].sim_number, 2);
    // The second baseline read finds no traffic since the first one: WAN 3's active SIM
    // (slot 2, the pair's second record) is credited nothing.
    EXPECT_EQ(state.wan[2].last_counter[0], 700u);
    EXPECT_EQ(state.sim[3].last_counter[0], 0u);
    EXPECT_EQ(state.sim[3].delta[0], 0u);
    for (int n = 1; n <= 4; ++n)
        for (int s = 1; s <= 2; ++s)
            for (const char* kind : kinds)
                EXPECT_EQ(exists("/var/run/korel/wan" + std::to_string(n) + "/sim" + std::to_string(s) +
                                 "_usage_history." + kind),
                          n == 1 || n == 4)
                    << n << " " << s << " " << kind;
}

TEST_F(Daemon, AlarmTickReloadsConfigSamplesCountersAndRearmsAlarm)
{
    write_file("/usr/local/velto/conf/config", "WAN1_NAME=Fibre\n");
    start(2);
    write_file("/proc/korel/config/link_usage", "timestamp:1709647230\nCON:2\nOVERALL:10 20\n");
    raise(SIGALRM);
    EXPECT_EQ(tick_pending, 1);
    loop_pass(state);
    EXPECT_EQ(tick_pending, 0);
    EXPECT_EQ(plat.alarms, (std::vector<unsigned>{0, 30}));
    EXPECT_STREQ(state.wan[0].wan_name, "Fibre");
    EXPECT_EQ(state.wan[1].last_counter[1], 20u);
    EXPECT_EQ(state.wan[1].sample_time, 1709647230);
    EXPECT_EQ(ticks_since_backup, 1);
    EXPECT_TRUE(plat.commands.empty());
}

TEST_F(Daemon, WakeUpWithoutPendingTickDoesNoTickWork)
{
    start(2);
    write_file("/proc/korel/config/link_usage", "CON:1\nOVERALL:10 20\n");
    loop_pass(state);
    EXPECT_EQ(state.wan[0].last_counter[0], 0u);
    EXPECT_TRUE(plat.alarms.empty());
    EXPECT_EQ(ticks_since_backup, 1);
}

TEST_F(Daemon, SighupGivesOneImmediateTickThenFullBackupWithConfigurationSaver)
{
    start(2);
    write_file("/proc/korel/config/link_usage", "CON:1\nOVERALL:10 20\n");
    ticks_since_backup = 7;
    raise(SIGHUP);
    EXPECT_EQ(tick_pending, 1);
    EXPECT_EQ(ticks_since_backup, 61);
    loop_pass(state);
    EXPECT_EQ(state.wan[0].last_counter[0], 10u);
    EXPECT_EQ(plat.commands, full_backup_commands());
    EXPECT_EQ(ticks_since_backup, 1);
}

TEST_F(Daemon, SigusrOneWhileIdleBacksUpWithoutConfigurationSaverAndRestartsCount)
{
    start(2);
    ticks_since_backup = 40;
    raise(SIGUSR1);
    EXPECT_EQ(backup_requested, 1);
    EXPECT_EQ(ticks_since_backup, 0);
    loop_pass(state);
    EXPECT_EQ(backup_requested, 0);
    EXPECT_EQ(plat.commands, client_backup_commands()); // no configuration saver
    EXPECT_EQ(ticks_since_backup, 1);
    EXPECT_TRUE(plat.alarms.empty()); // no tick was processed
}

TEST_F(Daemon, PeriodicBackupFollowsThe61stTick)
{
    start(2);
    loop_pass(state); // the first pass after start-up: no tick pending
    for (int tick = 1; tick <= 60; ++tick) {
        tick_pending = 1;
        loop_pass(state);
    }
    EXPECT_TRUE(plat.commands.empty());
    EXPECT_EQ(ticks_since_backup, 61);
    tick_pending = 1;
    loop_pass(state);
    EXPECT_EQ(plat.commands, full_backup_commands());
    EXPECT_EQ(ticks_since_backup, 1);
}

TEST_F(Daemon, SaveBackupRunsConfigurationSaverInBackgroundAndRestartsCount)
{
    ticks_since_backup = 33;
    EXPECT_EQ(save_backup(), 0);
    EXPECT_EQ(plat.commands, std::vector<std::string>{SAVECONFIG_COMMAND});
    EXPECT_EQ(ticks_since_backup, 0);
}

TEST_F(Daemon, WithoutTimeInitializedBucketTimesStayUnchanged)
{
    start(2);
    for (int tick = 0; tick < 3; ++tick) {
        plat.clock += 30;
        tick_pending = 1;
        loop_pass(state);
    }
    EXPECT_EQ(state.wan[0].periods_initialised, 0);
    EXPECT_EQ(state.wan[0].hour_bucket_time, 0);
    EXPECT_EQ(state.wan[0].day_bucket_time, 0);
}

TEST_F(Daemon, WithTimeInitializedFirstTickInitialisesBucketsAtHourAndDayStart)
{
    write_file("/var/run/korel/time_initialized", "");
    start(2);
    plat.clock = 1709649000; // 14:30:00
    tick_pending = 1;
    loop_pass(state);
    EXPECT_EQ(state.wan[1].periods_initialised, 1);
    EXPECT_EQ(state.wan[1].sample_time, 1709649000);
    EXPECT_EQ(show(state.wan[1].hour_bucket_time), "2024-03-05 14:00:00 UTC");
    EXPECT_EQ(show(state.wan[1].day_bucket_time), "2024-03-05 00:00:00 UTC");
}

TEST_F(Daemon, FirstTickMarksTotalsBuilt)
{
    start(2);
    EXPECT_EQ(state.totals.flags & TOTALS_BUILT, 0u);
    tick_pending = 1;
    loop_pass(state);
    EXPECT_EQ(state.totals.flags & TOTALS_BUILT, TOTALS_BUILT);
}

TEST_F(Daemon, SignalsThatMatterAreUnblockedOthersStayBlocked)
{
    sigset_t blocked, old;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigaddset(&blocked, SIGALRM);
    sigaddset(&blocked, SIGUSR2);
    sigprocmask(SIG_BLOCK, &blocked, &old);
    unblock_daemon_signals();
    sigset_t now;
    sigprocmask(SIG_SETMASK, nullptr, &now);
    EXPECT_FALSE(sigismember(&now, SIGUSR1));
    EXPECT_FALSE(sigismember(&now, SIGALRM));
    EXPECT_TRUE(sigismember(&now, SIGUSR2));
    sigprocmask(SIG_SETMASK, &old, nullptr);
}

TEST_F(Daemon, SigpipeIsCaughtByEmptyHandler)
{
    start(2);
    raise(SIGPIPE); // would end the process with the default action
    struct sigaction action;
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_NE(action.sa_handler, SIG_DFL);
    EXPECT_NE(action.sa_handler, SIG_IGN);
}

TEST_F(Daemon, PidFileSymlinkIsNotWrittenThrough)
{
    write_file("/etc/victim", "precious\n");
    ASSERT_EQ(symlink(real("/etc/victim").c_str(), real("/var/run/ruvo.pid").c_str()), 0);
    start(2);
    EXPECT_EQ(read_file("/etc/victim"), "precious\n");
    EXPECT_EQ(read_file("/var/run/ruvo.pid"), std::to_string(getpid()) + "\n");
}

} // namespace
