"""The daemon's core on a fake router: start-up, pid file, syslog, signals, ticks."""

import os
import signal
import stat
import sys

sys.dont_write_bytecode = True  # keep the source tree clean when CTest runs this from here
import harness  # noqa: E402
from harness import RuvoTestCase

HISTORY_SUFFIXES = ("hourly", "daily", "monthly", "billing")
PLANTED = "2024030513,100,200\n"

# 2024-07-01 12:00:00 UTC, in summer time in Berlin.
SUMMER_CLOCK = 1719835200


def usage_history_files(wans):
    return sorted("/var/run/korel/wan%d/usage_history.%s" % (n, suffix)
                  for n in wans for suffix in HISTORY_SUFFIXES)


def sim_history_files(wans):
    return sorted("/var/run/korel/wan%d/sim%d_usage_history.%s" % (n, sim, suffix)
                  for n in wans for sim in (1, 2) for suffix in HISTORY_SUFFIXES)


def plant(router, paths):
    for path in paths:
        router.write(path, PLANTED)


def remaining(router, name_part):
    """The files below /var/run/korel whose name contains name_part."""
    return [path for path in router.files_under("/var/run/korel")
            if name_part in os.path.basename(path)]


def usage_history_remaining(router):
    return [path for path in remaining(router, "usage_history")
            if os.path.basename(path).startswith("usage_history")]


class WanCountTest(RuvoTestCase):

    def assertBackupDirectories(self, router, wans):
        """/tmp/ruvo_backup holds exactly wan1..wanN, every one a directory with mode 0755."""
        for path in ["/tmp/ruvo_backup"] + ["/tmp/ruvo_backup/wan%d" % n for n in range(1, wans + 1)]:
            info = os.lstat(router.host(path))
            self.assertTrue(stat.S_ISDIR(info.st_mode), path)
            self.assertEqual(stat.S_IMODE(info.st_mode), 0o755, path)
        self.assertEqual(sorted(os.listdir(router.host("/tmp/ruvo_backup"))),
                         sorted("wan%d" % n for n in range(1, wans + 1)))

    def test_four_wans_get_backup_directories_and_lose_their_history(self):
        router = self.router
        router.write("/etc/VELTO_wanno", "4\n")
        plant(router, usage_history_files(range(1, 6)))
        router.start()

        self.assertBackupDirectories(router, 4)
        self.assertFalse(router.exists("/tmp/ruvo_backup/wan5"))
        self.assertEqual(usage_history_remaining(router), usage_history_files([5]))
        for path in usage_history_files([5]):
            self.assertEqual(router.read(path), PLANTED)
        self.assertStopsCleanly(router)

    def test_three_wans(self):
        router = self.router
        router.write("/etc/VELTO_wanno", "3\n")
        plant(router, usage_history_files(range(1, 6)))
        router.start()

        self.assertBackupDirectories(router, 3)
        self.assertEqual(usage_history_remaining(router), usage_history_files([4, 5]))
        self.assertStopsCleanly(router)

    def test_missing_small_or_unreadable_count_means_two_wans(self):
        self.assertFalse(os.path.exists("/etc/VELTO_wanno"),
                         "this host has a real /etc/VELTO_wanno; the missing-file case needs none")
        cases = (("missing", None), ("one", "1\n"), ("zero", "0\n"), ("negative", "-3\n"),
                 ("text", "many\n"), ("empty", ""))
        for name, content in cases:
            with self.subTest(name):
                router = self.router if name == "missing" else self.new_router()
                if content is not None:
                    router.write("/etc/VELTO_wanno", content)
                plant(router, usage_history_files(range(1, 6)))
                router.start()

                self.assertBackupDirectories(router, 2)
                self.assertFalse(router.exists("/tmp/ruvo_backup/wan3"))
                self.assertEqual(usage_history_remaining(router), usage_history_files([3, 4, 5]))
                self.assertStopsCleanly(router)


class DualSimTest(RuvoTestCase):

    def start_with_dual_sim(self, wanno, dual_sim):
        router = self.router
        if wanno is not None:
            router.write("/etc/VELTO_wanno", wanno)
        if dual_sim is not None:
            router.write("/etc/gobi_dual_sim_support", dual_sim)
        plant(router, sim_history_files(range(0, 6)))
        router.start()
        return router

    def test_listed_wans_lose_both_sims_history(self):
        router = self.start_with_dual_sim("4\n", "2 3\n")
        self.assertEqual(remaining(router, "sim"), sim_history_files([0, 1, 4, 5]))
        self.assertStopsCleanly(router)

    def test_numbers_outside_the_wans_are_ignored(self):
        router = self.start_with_dual_sim("4\n", "0 2 5\n")
        self.assertEqual(remaining(router, "sim"), sim_history_files([0, 1, 3, 4, 5]))
        self.assertStopsCleanly(router)

    def test_numbers_above_default_two_wans_are_ignored(self):
        router = self.start_with_dual_sim(None, "2 3\n")
        self.assertEqual(remaining(router, "sim"), sim_history_files([0, 1, 3, 4, 5]))
        self.assertStopsCleanly(router)

    def test_only_the_first_line_counts(self):
        router = self.start_with_dual_sim("4\n", "1\n3\n")
        self.assertEqual(remaining(router, "sim"), sim_history_files([0, 2, 3, 4, 5]))
        self.assertStopsCleanly(router)

    def test_without_dual_sim_file_sim_history_stays(self):
        router = self.start_with_dual_sim("4\n", None)
        self.assertEqual(remaining(router, "sim"), sim_history_files(range(0, 6)))
        self.assertStopsCleanly(router)


class PidFileTest(RuvoTestCase):

    def test_pid_file_holds_the_daemon_pid(self):
        router = self.router
        router.start()
        self.assertEqual(router.read("/var/run/ruvo.pid"), "%d\n" % router.pid)
        self.assertStopsCleanly(router)

    def test_sigterm_removes_pid_file_and_exits_zero(self):
        router = self.router
        router.start()
        self.assertTrue(router.exists("/var/run/ruvo.pid"))
        self.assertEqual(router.stop(signal.SIGTERM), 0)
        self.assertFalse(router.exists("/var/run/ruvo.pid"))

    def test_sigint_removes_pid_file_and_exits_zero(self):
        router = self.router
        router.start()
        self.assertTrue(router.exists("/var/run/ruvo.pid"))
        self.assertEqual(router.stop(signal.SIGINT), 0)
        self.assertFalse(router.exists("/var/run/ruvo.pid"))


class StartupLogTest(RuvoTestCase):

    def assertStartupLine(self, router, text):
        """The daemon, idle after start-up, has logged exactly this line.

        syslog(3) has sent its datagram before it returns, so an idle daemon's
        lines are all in the socket already.
        """
        self.assertEqual(router.syslog.collect(),
                         [(29, "ruvo", "starting Ardenta Usage Monitor (ruvo). " + text)])
        self.assertEqual(router.syslog.malformed, [])

    def assertZoneInstalled(self, zone):
        self.assertTrue(os.path.exists("/usr/share/zoneinfo/" + zone),
                        "time zone %s is not installed (package tzdata)" % zone)

    def test_startup_line_in_utc(self):
        router = self.router
        router.start(tz="UTC")
        self.assertStartupLine(router, "Tue Mar  5 14:00:00 2024 UTC(+0000)")
        self.assertStopsCleanly(router)

    def test_startup_line_in_berlin_winter(self):
        router = self.router
        self.assertZoneInstalled("Europe/Berlin")
        router.start(tz="Europe/Berlin")
        self.assertStartupLine(router, "Tue Mar  5 15:00:00 2024 CET(+0100)")
        self.assertStopsCleanly(router)

    def test_startup_line_in_berlin_summer(self):
        router = self.router
        self.assertZoneInstalled("Europe/Berlin")
        router.set_clock(SUMMER_CLOCK)
        router.start(tz="Europe/Berlin")
        self.assertStartupLine(router, "Mon Jul  1 14:00:00 2024 CEST(+0200)")
        self.assertStopsCleanly(router)


class SignalTest(RuvoTestCase):

    def test_signal_dispositions(self):
        router = self.router
        router.start()
        ignored = harness.signal_mask(router.pid, "SigIgn")
        caught = harness.signal_mask(router.pid, "SigCgt")
        # A write to a closed pipe must not end the daemon: SIGPIPE is taken by a handler
        # that does nothing (so it is caught, not ignored).
        self.assertFalse(ignored & harness.signal_bit(signal.SIGPIPE), "SIGPIPE is ignored")
        for signo in (signal.SIGALRM, signal.SIGHUP, signal.SIGUSR1, signal.SIGINT, signal.SIGTERM,
                      signal.SIGPIPE):
            self.assertTrue(caught & harness.signal_bit(signo), "%s is not caught" % signo.name)
        self.assertStopsCleanly(router)

    def test_sigalrm_runs_a_tick(self):
        router = self.router
        router.start()
        opens = harness.OpenCounter(router.host("/proc/korel/config/link_usage"))
        self.addCleanup(opens.close)
        router.send(signal.SIGALRM)
        self.assertEqual(opens.take(), 1)
        router.send(signal.SIGALRM)
        self.assertEqual(opens.take(), 2)
        self.assertEqual(router.calls_when_done(), "")
        self.assertStopsCleanly(router)

    def test_sighup_runs_a_tick_and_saves_the_configuration(self):
        router = self.router
        router.start()
        opens = harness.OpenCounter(router.host("/proc/korel/config/link_usage"))
        self.addCleanup(opens.close)
        router.send(signal.SIGHUP)
        self.assertEqual(opens.take(), 1)
        self.assertEqual(router.calls_when_done(), "usage\n")
        self.assertStopsCleanly(router)

    def test_sigusr1_backup_leaves_the_configuration_saver_alone(self):
        router = self.router
        router.start()
        router.send(signal.SIGUSR1)
        router.send(signal.SIGALRM)
        self.assertEqual(router.calls_when_done(), "")
        self.assertStopsCleanly(router)

    def test_every_61st_tick_saves_the_configuration(self):
        router = self.router
        router.start()
        for _ in range(60):
            router.send(signal.SIGALRM)
        self.assertEqual(router.calls_when_done(), "")
        router.send(signal.SIGALRM)
        self.assertEqual(router.calls_when_done(), "usage\n")
        for _ in range(60):
            router.send(signal.SIGALRM)
        self.assertEqual(router.calls_when_done(), "usage\n")
        router.send(signal.SIGALRM)
        self.assertEqual(router.calls_when_done(), "usage\nusage\n")
        self.assertStopsCleanly(router)

    def test_sigpipe_is_survived_without_a_tick(self):
        router = self.router
        router.start()
        opens = harness.OpenCounter(router.host("/proc/korel/config/link_usage"))
        self.addCleanup(opens.close)
        router.send(signal.SIGPIPE)
        self.assertTrue(router.alive())
        self.assertEqual(opens.take(), 0, "SIGPIPE ran a tick")
        router.send(signal.SIGALRM)
        self.assertEqual(opens.take(), 1)
        self.assertStopsCleanly(router)


if __name__ == "__main__":
    harness.main()
