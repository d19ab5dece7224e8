"""Backups across a restart, and allowances with their e-mails and suspensions.

The real executable runs on a SharedTmpRouter (its /var/run lies inside /tmp, so
that the daemon's renames from /tmp/ruvo.tmp work) with the clock set
(time_initialized present).  The clock and the "timestamp" of
/proc/korel/config/link_usage move together; counters grow by whole MiB, some by
600 KiB more, to show where bytes are kept (the rings, the running buckets and the
backups) and where they are cut to MiB (the live files, the e-mail).

Rules the derivations below rely on:
- the first tick after start-up counts the traffic since the baseline read at
  start-up; the whole delta of a sample goes to the hour and the day in which the
  sample was taken; an hour or day enters its ring at the first sample after it;
  a month or billing cycle closes on the first sample after its last second;
- the backups hold bytes: the running hour, day, month and cycle, then the rings
  (newest first) and the history files' lines shifted back from MiB; SIGHUP gives a
  tick followed by a backup and "saveconfig usage", SIGUSR1 a backup alone,
  SIGTERM none;
- at start-up the live history files are deleted and written again from the
  backups, before the first tick; the running buckets come back with the
  backups' bytes, and traffic while the daemon was down is not counted;
- the allowance lines are 75 %, 95 % and 99.5 % (the "100 %" line) of the allowance;
  usage is the billing cycle's counter 1 + counter 2; an e-mail is due only on the
  tick that crosses its line, judged against the previous tick, so never on the
  first tick after start-up; the mailer is run as
  "(sendemail -v -f F; /bin/rm F) &" with F a copy of the whole message.
"""

import calendar
import email
import glob
import os
import re
import shlex
import signal
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean when CTest runs this from here
import harness  # noqa: E402
from harness import SharedTmpTestCase  # noqa: E402

MIB = 1 << 20
KIB = 1 << 10

LINK_USAGE = "/proc/korel/config/link_usage"
CONFIG = "/usr/local/velto/conf/config"
TIME_INITIALIZED = "/var/run/korel/time_initialized"
LIFETIME_INIT = "/var/run/korel/lifetime_usage.init"
BACKUP_DIR = "/tmp/ruvo_backup"
PID_FILE = "/var/run/ruvo.pid"

# syslog priorities as they arrive: LOG_DAEMON|LOG_NOTICE and LOG_LOCAL0|LOG_NOTICE.
RUVO = 29
BALANCE = 133

HISTORY_KINDS = ("hourly", "daily", "monthly", "billing")
EXPORTS = ("link_usage_hourly.csv", "link_usage_daily.csv",
           "link_usage_monthly.csv", "link_usage_billing.csv")


def utc(text):
    """Epoch seconds of a "YYYY-mm-dd HH:MM:SS" UTC time."""
    return calendar.timegm(time.strptime(text, "%Y-%m-%d %H:%M:%S"))


def lines(*items):
    """A file text: the given lines, each ended by a newline."""
    return "".join(item + "\n" for item in items)


def crlf(*items):
    """A message text: the given lines, each ended by CR LF."""
    return "".join(item + "\r\n" for item in items)


def wan(n, name):
    return "/var/run/korel/wan%d/%s" % (n, name)


def backup(n, name):
    return "%s/wan%d/%s" % (BACKUP_DIR, n, name)


def mib(c1, c2):
    """A counter pair given in MiB, as bytes."""
    return (c1 * MIB, c2 * MIB)


def row(date, c1, c2):
    """A backup line: a date (or two, "first,last") and two byte counts."""
    return "%s,%d,%d" % (date, c1, c2)


class KernelCounters:
    """The cumulative byte counters of /proc/korel/config/link_usage, one pair per WAN."""

    def __init__(self, *start):
        self.counters = [list(pair) for pair in start]

    def add(self, deltas):
        for counter, delta in zip(self.counters, deltas):
            counter[0] += delta[0]
            counter[1] += delta[1]

    def text(self, timestamp):
        out = "timestamp:%d\n" % timestamp
        for n, (c1, c2) in enumerate(self.counters, start=1):
            out += "CON:%d\nOVERALL:%d %d\n" % (n, c1, c2)
        return out


class TickingTestCase(SharedTmpTestCase):
    """Starts a daemon at a given time with given counters and drives its ticks."""

    def start_at(self, when, counters, config, wans=2):
        router = self.router
        self.counters = counters
        # The firmware makes the per-WAN run directories; the daemon only writes into them.
        for n in range(1, wans + 1):
            os.makedirs(router.host("/var/run/korel/wan%d" % n), mode=0o755, exist_ok=True)
        router.write(TIME_INITIALIZED, "")
        router.write(CONFIG, config)
        router.write(LINK_USAGE, counters.text(when))
        router.set_clock(when)
        router.start()
        return router

    def sample(self, when, *deltas):
        """Moves the clock and the kernel counters on, without waking the daemon."""
        self.counters.add(deltas)
        self.router.write(LINK_USAGE, self.counters.text(when))
        self.router.set_clock(when)

    def tick(self, when, *deltas, signo=signal.SIGALRM):
        """One sample at when (epoch) with the given per-WAN byte deltas, then one tick."""
        self.sample(when, *deltas)
        self.router.send(signo)

    def assertFiles(self, moment, expected):
        """Every path holds exactly its text; a path given None does not exist."""
        for path in sorted(expected):
            content = expected[path]
            with self.subTest(moment=moment, path=path):
                if content is None:
                    self.assertFalse(self.router.exists(path), "%s should not exist" % path)
                else:
                    self.assertTrue(self.router.exists(path), "%s is missing" % path)
                    self.assertEqual(self.router.read(path), content, path)

    def snapshot(self, paths):
        """The texts of paths as they are now (None for a missing one)."""
        return {path: self.router.read(path) if self.router.exists(path) else None
                for path in paths}


# ---------------------------------------------------------------------------
# Backup, stop and restore

CONFIG_BACKUP = ("WAN1_NAME=Fibre\n"
                 "WAN2_NAME=LTE\n"
                 "WAN1_USAGE_START_DAY=2\n")

# Lifetime count kept since 14 November 2023, with the totals of earlier boots.
LIFETIME = "1700000000\n123456789012\n9876543210\n"

EXTRA = 600 * KIB


def history_paths():
    return [wan(n, "usage_history.%s" % kind) for n in (1, 2) for kind in HISTORY_KINDS]


def export_paths():
    return [wan(n, name) for n in (1, 2) for name in EXPORTS]


def backup_paths():
    return ([backup(n, "ruvo.%s.csv" % kind) for n in (1, 2) for kind in HISTORY_KINDS]
            + [BACKUP_DIR + "/lifetime_usage", BACKUP_DIR + "/timestamp"])


class BackupRestoreTest(TickingTestCase):
    """Two WANs in UTC; WAN1 is billed from the 2nd of the month, WAN2 has no cycle.

    First run, started 2024-01-31 21:00:00 (deltas in MiB, counter 1/counter 2):

        tick  time              WAN1          WAN2
        1     01-31 21:10:00    10/1          20/2
        2     01-31 22:05:00    5+600K/2      3/1
        3     02-01 00:00:30    7/3           1/4      (January closes)
        4     02-01 13:20:00    4/0           0/6
        5     02-02 00:10:00    100/10        50/5     (WAN1's cycle 01-02 .. 02-01 closes)
        6     02-02 01:20:00    2+600K/1      1/1      SIGHUP: tick, backup, "saveconfig usage"
        7     02-02 01:40:00    3/3           4/4      same hour: no history file changes
        SIGTERM: no backup, so the backups keep the state of tick 6.

    While the daemon is down the counters grow by 50/50 (WAN1) and 60/60 (WAN2).
    Second run, started 2024-02-02 01:50:00 on the same tree:

        8     02-02 01:55:00    1/2           2/1      the restored 01 hour goes on
        9     02-02 02:10:00    6/5           7/7      the 01 hour closes
        10    02-03 00:05:00    8/8           9/9      02-02 closes
        SIGUSR1: backup without "saveconfig usage".

    State after tick 6 (what the backups hold), in bytes:
      WAN1: running hour 02-02-01 2M+600K/1M; hours 02-02-00 100M/10M,
            02-01-13 4M/0, 02-01-00 7M/3M, 01-31-22 5M+600K/2M, 01-31-21 10M/1M;
            running day 02-02 100M+2M+600K/10M+1M; days 02-01 7M+4M/3M+0,
            01-31 10M+5M+600K/1M+2M; month February 11M+102M+600K/3M+11M;
            January 15/3 (MiB); cycle from 02-02: 102M+600K/11M; closed cycle
            01-02 .. 02-01: 01-31 15M+600K/3M + 02-01 11M/3M = 26/6 (MiB).
      WAN2: running hour 02-02-01 1M/1M; hours 02-02-00 50M/5M, 02-01-13 0/6M,
            02-01-00 1M/4M, 01-31-22 3M/1M, 01-31-21 20M/2M; running day 02-02
            51M/6M; days 02-01 1M/10M, 01-31 23M/3M; month February 52M/16M;
            January 23/3 (MiB); no cycle.
    """

    def setUp(self):
        super().setUp()
        self.router.write(LIFETIME_INIT, LIFETIME)

    def test_histories_survive_a_restart_through_the_backups(self):
        router = self.router
        self.start_at(utc("2024-01-31 21:00:00"),
                      KernelCounters((5000000000, 123456789), (987654321, 42)), CONFIG_BACKUP)
        self.tick(utc("2024-01-31 21:10:00"), mib(10, 1), mib(20, 2))
        self.tick(utc("2024-01-31 22:05:00"), (5 * MIB + EXTRA, 2 * MIB), mib(3, 1))
        self.tick(utc("2024-02-01 00:00:30"), mib(7, 3), mib(1, 4))
        self.tick(utc("2024-02-01 13:20:00"), mib(4, 0), mib(0, 6))
        self.tick(utc("2024-02-02 00:10:00"), mib(100, 10), mib(50, 5))
        self.assertEqual(router.calls_when_done(), "", "no backup was due yet")
        self.assertFalse(router.exists(BACKUP_DIR + "/timestamp"))

        self.tick(utc("2024-02-02 01:20:00"), (2 * MIB + EXTRA, 1 * MIB), mib(1, 1),
                  signo=signal.SIGHUP)
        self.assertEqual(router.calls_when_done(), "usage\n")
        self.assertEqual(router.files_under(BACKUP_DIR), sorted(backup_paths()))
        # The timestamp file is empty: only its modification time counts.
        backups_after_sighup = {
            backup(1, "ruvo.hourly.csv"): lines(
                row("2024-02-02-01", 2 * MIB + EXTRA, 1 * MIB),
                row("2024-02-02-00", 100 * MIB, 10 * MIB),
                row("2024-02-01-13", 4 * MIB, 0),
                row("2024-02-01-00", 7 * MIB, 3 * MIB),
                row("2024-01-31-22", 5 * MIB + EXTRA, 2 * MIB),
                row("2024-01-31-21", 10 * MIB, 1 * MIB)),
            backup(1, "ruvo.daily.csv"): lines(
                row("2024-02-02", 102 * MIB + EXTRA, 11 * MIB),
                row("2024-02-01", 11 * MIB, 3 * MIB),
                row("2024-01-31", 15 * MIB + EXTRA, 3 * MIB)),
            # Running month, then the history's January line, MiB shifted back to bytes
            # (so without its 600 KiB).
            backup(1, "ruvo.monthly.csv"): lines(
                row("2024-02-01,2024-02-02", 113 * MIB + EXTRA, 14 * MIB),
                row("2024-01-01,2024-01-31", 15 * MIB, 3 * MIB)),
            backup(1, "ruvo.billing.csv"): lines(
                row("2024-02-02,2024-02-02", 102 * MIB + EXTRA, 11 * MIB),
                row("2024-01-02,2024-02-01", 26 * MIB, 6 * MIB)),
            backup(2, "ruvo.hourly.csv"): lines(
                row("2024-02-02-01", 1 * MIB, 1 * MIB),
                row("2024-02-02-00", 50 * MIB, 5 * MIB),
                row("2024-02-01-13", 0, 6 * MIB),
                row("2024-02-01-00", 1 * MIB, 4 * MIB),
                row("2024-01-31-22", 3 * MIB, 1 * MIB),
                row("2024-01-31-21", 20 * MIB, 2 * MIB)),
            backup(2, "ruvo.daily.csv"): lines(
                row("2024-02-02", 51 * MIB, 6 * MIB),
                row("2024-02-01", 1 * MIB, 10 * MIB),
                row("2024-01-31", 23 * MIB, 3 * MIB)),
            backup(2, "ruvo.monthly.csv"): lines(
                row("2024-02-01,2024-02-02", 52 * MIB, 16 * MIB),
                row("2024-01-01,2024-01-31", 23 * MIB, 3 * MIB)),
            # No cycle: the running line (billing_start 0) falls under the 2009 rule and
            # there is no history, so the file is empty.
            backup(2, "ruvo.billing.csv"): "",
            BACKUP_DIR + "/timestamp": "",
            # Raw counters of the last sample: WAN1 5000000000+128M+1200K = 5135446528 and
            # 123456789+17M = 141282581; WAN2 987654321+75M = 1066297521 and 42+19M =
            # 19922986; added to the stored totals: 123456789012 + 6201744049 and
            # 9876543210 + 161205567.
            BACKUP_DIR + "/lifetime_usage": "1700000000\n129658533061\n10037748777\n",
        }
        self.assertFiles("after SIGHUP", backups_after_sighup)

        # Tick 7 stays in the 01 hour: the histories keep their lines, the exports change.
        self.tick(utc("2024-02-02 01:40:00"), mib(3, 3), mib(4, 4))
        histories_before_stop = {
            wan(1, "usage_history.hourly"): lines("2024-02-02-00,100,10",
                                                  "2024-02-01-13,4,0",
                                                  "2024-02-01-00,7,3",
                                                  "2024-01-31-22,5,2",
                                                  "2024-01-31-21,10,1"),
            wan(1, "usage_history.daily"): lines("2024-02-01,11,3",
                                                 "2024-01-31,15,3"),
            wan(1, "usage_history.monthly"): lines("2024-01-01,2024-01-31,15,3"),
            wan(1, "usage_history.billing"): lines("2024-01-02,2024-02-01,26,6"),
            wan(2, "usage_history.hourly"): lines("2024-02-02-00,50,5",
                                                  "2024-02-01-13,0,6",
                                                  "2024-02-01-00,1,4",
                                                  "2024-01-31-22,3,1",
                                                  "2024-01-31-21,20,2"),
            wan(2, "usage_history.daily"): lines("2024-02-01,1,10",
                                                 "2024-01-31,23,3"),
            wan(2, "usage_history.monthly"): lines("2024-01-01,2024-01-31,23,3"),
            wan(2, "usage_history.billing"): None,
        }
        exports_before_stop = {
            # 01 hour: 2M+600K+3M / 1+3; day 02-02: 102M+600K+3M / 11+3.
            wan(1, "link_usage_hourly.csv"): lines("2024-02-02-01,5,4",
                                                   "2024-02-02-00,100,10",
                                                   "2024-02-01-13,4,0",
                                                   "2024-02-01-00,7,3",
                                                   "2024-01-31-22,5,2",
                                                   "2024-01-31-21,10,1"),
            wan(1, "link_usage_daily.csv"): lines("2024-02-02,105,14",
                                                  "2024-02-01,11,3",
                                                  "2024-01-31,15,3"),
            # February 11+105(+600K) / 3+14; the cycle from 02-02 holds today only.
            wan(1, "link_usage_monthly.csv"): lines("2024-02-01,2024-02-02,116,17",
                                                    "2024-01-01,2024-01-31,15,3"),
            wan(1, "link_usage_billing.csv"): lines("2024-02-02,2024-02-02,105,14",
                                                    "2024-01-02,2024-02-01,26,6"),
            wan(2, "link_usage_hourly.csv"): lines("2024-02-02-01,5,5",
                                                   "2024-02-02-00,50,5",
                                                   "2024-02-01-13,0,6",
                                                   "2024-02-01-00,1,4",
                                                   "2024-01-31-22,3,1",
                                                   "2024-01-31-21,20,2"),
            wan(2, "link_usage_daily.csv"): lines("2024-02-02,55,10",
                                                  "2024-02-01,1,10",
                                                  "2024-01-31,23,3"),
            wan(2, "link_usage_monthly.csv"): lines("2024-02-01,2024-02-02,56,20",
                                                    "2024-01-01,2024-01-31,23,3"),
            wan(2, "link_usage_billing.csv"): None,
        }
        self.assertFiles("before the stop", histories_before_stop)
        self.assertFiles("before the stop", exports_before_stop)
        self.assertEqual(self.snapshot(history_paths()), histories_before_stop)
        timestamp_time = os.stat(router.host(BACKUP_DIR + "/timestamp")).st_mtime_ns
        first_run_syslog = router.syslog.collect()

        self.assertStopsCleanly(router)
        self.assertFalse(router.exists(PID_FILE))
        self.assertEqual(first_run_syslog, [
            (RUVO, "ruvo",
             "starting Ardenta Usage Monitor (ruvo). Wed Jan 31 21:00:00 2024 UTC(+0000)"),
        ])
        # Nothing was backed up on the way out: tick 7's traffic is in no backup.
        self.assertFiles("after SIGTERM", backups_after_sighup)
        self.assertEqual(os.stat(router.host(BACKUP_DIR + "/timestamp")).st_mtime_ns,
                         timestamp_time)
        self.assertEqual(router.calls(), "usage\n")

        # Traffic while the daemon is down is never counted.
        self.sample(utc("2024-02-02 01:50:00"), mib(50, 50), mib(60, 60))
        router.start_again()
        self.assertEqual(router.syslog.collect(), [
            (RUVO, "ruvo",
             "starting Ardenta Usage Monitor (ruvo). Fri Feb  2 01:50:00 2024 UTC(+0000)"),
        ])
        # Start-up deleted the live histories and wrote them again from the backups:
        # the same texts, cut to MiB.  WAN2's empty billing backup still empties (so
        # creates) its billing history.
        restored = dict(histories_before_stop)
        restored[wan(2, "usage_history.billing")] = ""
        self.assertFiles("after the restart", restored)
        # No tick yet: the exports are those of tick 7, the backups untouched.
        self.assertFiles("after the restart", exports_before_stop)
        self.assertFiles("after the restart", backups_after_sighup)

        # Tick 8: the 01 hour goes on from the backup's 2M+600K/1M (tick 7's 3/3 is
        # lost with the run that had no backup after it): +1/2 gives 3(+600K)/3.
        self.tick(utc("2024-02-02 01:55:00"), mib(1, 2), mib(2, 1))
        self.assertFiles("first tick after the restart", dict(restored, **{
            wan(1, "link_usage_hourly.csv"): lines("2024-02-02-01,3,3",
                                                   "2024-02-02-00,100,10",
                                                   "2024-02-01-13,4,0",
                                                   "2024-02-01-00,7,3",
                                                   "2024-01-31-22,5,2",
                                                   "2024-01-31-21,10,1"),
            # 02-02: 102M+600K+1M / 11+2.
            wan(1, "link_usage_daily.csv"): lines("2024-02-02,103,13",
                                                  "2024-02-01,11,3",
                                                  "2024-01-31,15,3"),
            wan(1, "link_usage_monthly.csv"): lines("2024-02-01,2024-02-02,114,16",
                                                    "2024-01-01,2024-01-31,15,3"),
            wan(1, "link_usage_billing.csv"): lines("2024-02-02,2024-02-02,103,13",
                                                    "2024-01-02,2024-02-01,26,6"),
            # WAN2: 01 hour 1/1 + 2/1; 02-02 51/6 + 2/1; February 1/10 + 53/7.
            wan(2, "link_usage_hourly.csv"): lines("2024-02-02-01,3,2",
                                                   "2024-02-02-00,50,5",
                                                   "2024-02-01-13,0,6",
                                                   "2024-02-01-00,1,4",
                                                   "2024-01-31-22,3,1",
                                                   "2024-01-31-21,20,2"),
            wan(2, "link_usage_daily.csv"): lines("2024-02-02,53,7",
                                                  "2024-02-01,1,10",
                                                  "2024-01-31,23,3"),
            wan(2, "link_usage_monthly.csv"): lines("2024-02-01,2024-02-02,54,17",
                                                    "2024-01-01,2024-01-31,23,3"),
            wan(2, "link_usage_billing.csv"): None,
        }))

        # Tick 9: the restored 01 hour closes into the ring behind the restored hours.
        self.tick(utc("2024-02-02 02:10:00"), mib(6, 5), mib(7, 7))
        self.assertFiles("the restored hour closed", {
            wan(1, "usage_history.hourly"): lines("2024-02-02-01,3,3",
                                                  "2024-02-02-00,100,10",
                                                  "2024-02-01-13,4,0",
                                                  "2024-02-01-00,7,3",
                                                  "2024-01-31-22,5,2",
                                                  "2024-01-31-21,10,1"),
            wan(1, "link_usage_hourly.csv"): lines("2024-02-02-02,6,5",
                                                   "2024-02-02-01,3,3",
                                                   "2024-02-02-00,100,10",
                                                   "2024-02-01-13,4,0",
                                                   "2024-02-01-00,7,3",
                                                   "2024-01-31-22,5,2",
                                                   "2024-01-31-21,10,1"),
            wan(2, "usage_history.hourly"): lines("2024-02-02-01,3,2",
                                                  "2024-02-02-00,50,5",
                                                  "2024-02-01-13,0,6",
                                                  "2024-02-01-00,1,4",
                                                  "2024-01-31-22,3,1",
                                                  "2024-01-31-21,20,2"),
        })

        # Tick 10: 02-02 closes (WAN1 103M+600K+6M / 13+5 = 109(+600K)/18,
        # WAN2 53+7/7+7 = 60/14) and stays in WAN1's cycle, which began on 02-02.
        self.tick(utc("2024-02-03 00:05:00"), mib(8, 8), mib(9, 9))
        after_tick_10 = {
            wan(1, "usage_history.hourly"): lines("2024-02-02-02,6,5",
                                                  "2024-02-02-01,3,3",
                                                  "2024-02-02-00,100,10",
                                                  "2024-02-01-13,4,0",
                                                  "2024-02-01-00,7,3",
                                                  "2024-01-31-22,5,2",
                                                  "2024-01-31-21,10,1"),
            wan(1, "usage_history.daily"): lines("2024-02-02,109,18",
                                                 "2024-02-01,11,3",
                                                 "2024-01-31,15,3"),
            wan(1, "usage_history.monthly"): lines("2024-01-01,2024-01-31,15,3"),
            wan(1, "usage_history.billing"): lines("2024-01-02,2024-02-01,26,6"),
            wan(1, "link_usage_hourly.csv"): lines("2024-02-03-00,8,8",
                                                   "2024-02-02-02,6,5",
                                                   "2024-02-02-01,3,3",
                                                   "2024-02-02-00,100,10",
                                                   "2024-02-01-13,4,0",
                                                   "2024-02-01-00,7,3",
                                                   "2024-01-31-22,5,2",
                                                   "2024-01-31-21,10,1"),
            wan(1, "link_usage_daily.csv"): lines("2024-02-03,8,8",
                                                  "2024-02-02,109,18",
                                                  "2024-02-01,11,3",
                                                  "2024-01-31,15,3"),
            # February 11+109(+600K)+8 / 3+18+8; cycle 109(+600K)+8 / 18+8.
            wan(1, "link_usage_monthly.csv"): lines("2024-02-01,2024-02-03,128,29",
                                                    "2024-01-01,2024-01-31,15,3"),
            wan(1, "link_usage_billing.csv"): lines("2024-02-02,2024-02-03,117,26",
                                                    "2024-01-02,2024-02-01,26,6"),
            wan(2, "usage_history.hourly"): lines("2024-02-02-02,7,7",
                                                  "2024-02-02-01,3,2",
                                                  "2024-02-02-00,50,5",
                                                  "2024-02-01-13,0,6",
                                                  "2024-02-01-00,1,4",
                                                  "2024-01-31-22,3,1",
                                                  "2024-01-31-21,20,2"),
            wan(2, "usage_history.daily"): lines("2024-02-02,60,14",
                                                 "2024-02-01,1,10",
                                                 "2024-01-31,23,3"),
            wan(2, "usage_history.monthly"): lines("2024-01-01,2024-01-31,23,3"),
            wan(2, "usage_history.billing"): "",
            wan(2, "link_usage_hourly.csv"): lines("2024-02-03-00,9,9",
                                                   "2024-02-02-02,7,7",
                                                   "2024-02-02-01,3,2",
                                                   "2024-02-02-00,50,5",
                                                   "2024-02-01-13,0,6",
                                                   "2024-02-01-00,1,4",
                                                   "2024-01-31-22,3,1",
                                                   "2024-01-31-21,20,2"),
            wan(2, "link_usage_daily.csv"): lines("2024-02-03,9,9",
                                                  "2024-02-02,60,14",
                                                  "2024-02-01,1,10",
                                                  "2024-01-31,23,3"),
            wan(2, "link_usage_monthly.csv"): lines("2024-02-01,2024-02-03,70,33",
                                                    "2024-01-01,2024-01-31,23,3"),
            wan(2, "link_usage_billing.csv"): None,
        }
        self.assertFiles("a day after the restart", after_tick_10)
        self.assertFiles("no backup was due since the restart", backups_after_sighup)

        # SIGUSR1: the backups, without the configuration saver.
        router.send(signal.SIGUSR1)
        self.assertEqual(router.calls_when_done(), "usage\n")
        self.assertEqual(router.files_under(BACKUP_DIR), sorted(backup_paths()))
        self.assertFiles("after SIGUSR1", {
            # The restored hours keep their bytes (the 600 KiB of 01-31-22 too).
            backup(1, "ruvo.hourly.csv"): lines(
                row("2024-02-03-00", 8 * MIB, 8 * MIB),
                row("2024-02-02-02", 6 * MIB, 5 * MIB),
                row("2024-02-02-01", 3 * MIB + EXTRA, 3 * MIB),
                row("2024-02-02-00", 100 * MIB, 10 * MIB),
                row("2024-02-01-13", 4 * MIB, 0),
                row("2024-02-01-00", 7 * MIB, 3 * MIB),
                row("2024-01-31-22", 5 * MIB + EXTRA, 2 * MIB),
                row("2024-01-31-21", 10 * MIB, 1 * MIB)),
            backup(1, "ruvo.daily.csv"): lines(
                row("2024-02-03", 8 * MIB, 8 * MIB),
                row("2024-02-02", 109 * MIB + EXTRA, 18 * MIB),
                row("2024-02-01", 11 * MIB, 3 * MIB),
                row("2024-01-31", 15 * MIB + EXTRA, 3 * MIB)),
            backup(1, "ruvo.monthly.csv"): lines(
                row("2024-02-01,2024-02-03", 128 * MIB + EXTRA, 29 * MIB),
                row("2024-01-01,2024-01-31", 15 * MIB, 3 * MIB)),
            backup(1, "ruvo.billing.csv"): lines(
                row("2024-02-02,2024-02-03", 117 * MIB + EXTRA, 26 * MIB),
                row("2024-01-02,2024-02-01", 26 * MIB, 6 * MIB)),
            backup(2, "ruvo.hourly.csv"): lines(
                row("2024-02-03-00", 9 * MIB, 9 * MIB),
                row("2024-02-02-02", 7 * MIB, 7 * MIB),
                row("2024-02-02-01", 3 * MIB, 2 * MIB),
                row("2024-02-02-00", 50 * MIB, 5 * MIB),
                row("2024-02-01-13", 0, 6 * MIB),
                row("2024-02-01-00", 1 * MIB, 4 * MIB),
                row("2024-01-31-22", 3 * MIB, 1 * MIB),
                row("2024-01-31-21", 20 * MIB, 2 * MIB)),
            backup(2, "ruvo.daily.csv"): lines(
                row("2024-02-03", 9 * MIB, 9 * MIB),
                row("2024-02-02", 60 * MIB, 14 * MIB),
                row("2024-02-01", 1 * MIB, 10 * MIB),
                row("2024-01-31", 23 * MIB, 3 * MIB)),
            backup(2, "ruvo.monthly.csv"): lines(
                row("2024-02-01,2024-02-03", 70 * MIB, 33 * MIB),
                row("2024-01-01,2024-01-31", 23 * MIB, 3 * MIB)),
            backup(2, "ruvo.billing.csv"): "",
            BACKUP_DIR + "/timestamp": "",
            # Raw counters now: WAN1 5135446528+68M = 5206749696 and 141282581+68M =
            # 212585749; WAN2 1066297521+82M = 1152280753 and 19922986+81M = 104857642
            # (ticks 7-10 and the time down all count in the kernel's counters).
            BACKUP_DIR + "/lifetime_usage": "1700000000\n129815819461\n10193986601\n",
        })
        self.assertFiles("after SIGUSR1", after_tick_10)
        self.assertStopsCleanly(router)


# ---------------------------------------------------------------------------
# Allowances: fake firmware tools

FAKE_SUSPEND = """#!/bin/sh
# Stands in for the firmware's suspension tool: records its arguments and, like the
# real one, creates the marker on "on" and removes it on "off".
echo "$*" >> {log}
if [ -n "$3" ]; then
    marker=/var/run/korel/wan$1/usage_suspend.sim$3
else
    marker=/var/run/korel/wan$1/usage_suspend
fi
case "$2" in
    on) : > "$marker" ;;
    off) rm -f "$marker" ;;
esac
"""

FAKE_SENDEMAIL = """#!/bin/sh
# Stands in for the firmware's mail sender: records its arguments and keeps a copy
# of the message file given after -f.
echo "$*" >> {log}
while [ $# -gt 0 ]; do
    if [ "$1" = "-f" ]; then
        cp "$2" {kept}/
    fi
    shift
done
"""

FAKE_WAN_ACTION = """#!/bin/sh
# Stands in for the firmware's wan_action: records its arguments.
echo "$*" >> {log}
"""

MESSAGE_NAME = re.compile(r"usage_alert_msg\.[A-Za-z0-9]{6}\Z")
SENDEMAIL_LINE = re.compile(r"-v -f /tmp/(usage_alert_msg\.[A-Za-z0-9]{6})\Z")

FOOTER_BRAND = "Ardenta | www.ardenta.com"
GREETING = "This is an automated message generated from ruvo-host (RV-2000:HOST0000001)."


class QuotaTestCase(TickingTestCase):
    """A router with recording stand-ins for the suspension tool, the mailer and wan_action."""

    def setUp(self):
        super().setUp()
        router = self.router
        q = shlex.quote
        # Kept outside the paths the namespace covers, so both sides see them.
        self.suspend_log = os.path.join(router.root, "wan_usage_suspend.log")
        self.sendemail_log = os.path.join(router.root, "sendemail.log")
        self.wan_action_log = os.path.join(router.root, "wan_action.log")
        self.kept = os.path.join(router.root, "mail")
        os.mkdir(self.kept, 0o755)
        router.write("/usr/local/korel/bin/wan_usage_suspend",
                     FAKE_SUSPEND.format(log=q(self.suspend_log)), mode=0o755)
        router.write("/usr/local/korel/bin/sendemail",
                     FAKE_SENDEMAIL.format(log=q(self.sendemail_log), kept=q(self.kept)),
                     mode=0o755)
        # "wan_action" is found through PATH.
        path = os.environ.get("PATH", "").split(":")
        self.assertTrue("/usr/local/bin" in path or "/usr/local/sbin" in path,
                        "PATH must hold /usr/local/bin or /usr/local/sbin for the fake "
                        "wan_action: %r" % os.environ.get("PATH"))
        for directory in ("/usr/local/bin", "/usr/local/sbin"):
            router.write(directory + "/wan_action",
                         FAKE_WAN_ACTION.format(log=q(self.wan_action_log)), mode=0o755)
        self.messages_seen = []

    def log(self, path):
        try:
            with open(path) as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def settle(self):
        """Waits until the commands the last tick started in the background have ended."""
        self.router.wait_for_background_jobs()

    def new_messages(self):
        """The messages handed to the mailer since the last call, as (name, bytes)."""
        self.settle()
        names = sorted(os.listdir(self.kept))
        fresh = [name for name in names if name not in self.messages_seen]
        self.messages_seen = names
        out = []
        for name in fresh:
            with open(os.path.join(self.kept, name), "rb") as f:
                out.append((name, f.read()))
        return out

    def assertNoMessageLeft(self):
        """Every message file of the daemon was removed after sending."""
        self.settle()
        self.assertEqual(glob.glob(self.router.host("/tmp/usage_alert_msg.*")), [])

    def assertSentOnce(self, subject, body):
        """Exactly one new message, with this subject and body; its file was removed."""
        messages = self.new_messages()
        self.assertEqual(len(messages), 1, "expected one message, got %r" % messages)
        name, data = messages[0]
        self.assertRegex(name, MESSAGE_NAME)
        # The whole file: the header, the empty line, the body.
        self.assertEqual(data.decode("ascii"), "Subject: " + subject + "\r\n\r\n" + body)
        message = email.message_from_bytes(data)
        self.assertEqual(message.defects, [])
        self.assertEqual(message.keys(), ["Subject"])
        self.assertEqual(message["Subject"], subject)
        self.assertEqual(message.get_payload().split("\r\n"), body.split("\r\n"))
        sent = self.log(self.sendemail_log).splitlines()
        self.assertRegex(sent[-1], SENDEMAIL_LINE)
        self.assertEqual(SENDEMAIL_LINE.match(sent[-1]).group(1), name)
        self.assertNoMessageLeft()

    def assertNoNewMessage(self):
        self.assertEqual(self.new_messages(), [])
        self.assertNoMessageLeft()


# ---------------------------------------------------------------------------
# One WAN's allowance through a whole billing cycle

CONFIG_QUOTA = ("WAN1_NAME=Fibre\n"
                "WAN2_NAME=LTE\n"
                "WAN1_USAGE_START_DAY=1\n"
                "WAN1_USAGE_QUOTA=1000\n"
                "WAN1_USAGE_ACTION=email,disconnect\n")

STARTED_QUOTA = (RUVO, "ruvo",
                 "starting Ardenta Usage Monitor (ruvo). Wed Mar 20 10:00:00 2024 UTC(+0000)")
LINE_75 = (BALANCE, "balance", "Bandwidth usage for Fibre hits 75% of the 1000MB allowance.")
LINE_95 = (BALANCE, "balance", "Bandwidth usage for Fibre hits 95% of the 1000MB allowance.")
LINE_100 = (BALANCE, "balance", "Bandwidth usage for Fibre hits 100% of the 1000MB allowance.")
LINE_RESUME = (BALANCE, "balance", "Bandwidth allowance monitor: Fibre has entered a new "
                                   "billing cycle, the connection will resume")

SUSPENDED_1 = "/var/run/korel/wan1/usage_suspend"
TIMESYNC_1 = "/var/run/korel/wan1/timesync_privilege_mode"


class QuotaAlertTest(QuotaTestCase):
    """WAN1 "Fibre" has 1000 MB (1048576000 bytes) from the 1st, with e-mail and disconnect.

    Its lines: 75 % = 750 MiB, 95 % = 950 MiB, 99.5 % = 995 MiB (all exact in double).
    Samples in UTC on 20 March 2024 (one billing cycle and one day, so the cycle's
    usage is the day's), WAN1's counter 1/counter 2 and the usage after the tick:

        tick  time              WAN1 delta        usage           WAN2
        1     03-20 10:10:00    600M+600K/100M+100K  700M+700K (70.07 %)  20/2
        2     03-20 11:10:00    50M/13M           763M+700K (76.37 %)  5/5+600K
        3     03-20 12:10:00    190M/8M           961M+700K (96.17 %)  1/1
        4     03-20 13:10:00    30M+324K/3M       995M exactly (the line)  0/0
        5     03-20 14:10:00    6M/2M             1003M            0/0
        6     04-01 00:00:20    5M/1M             6M (new cycle)   1/1

    The time-sync privilege marker appears before tick 3 and goes before tick 5.
    """

    def test_emails_at_75_and_95_then_suspension_and_resumption_in_a_new_cycle(self):
        router = self.router
        self.start_at(utc("2024-03-20 10:00:00"),
                      KernelCounters((7000000000, 3000000000), (1000, 2000)), CONFIG_QUOTA)

        # Tick 1 is the first after start-up: the snapshot is 0, so nothing is judged.
        self.tick(utc("2024-03-20 10:10:00"), (600 * MIB + EXTRA, 100 * MIB + 100 * KIB),
                  mib(20, 2))
        self.assertNoNewMessage()
        self.assertEqual(router.syslog.collect(), [STARTED_QUOTA])
        self.assertEqual(self.log(self.suspend_log), "")
        self.assertEqual(router.calls_when_done(), "")
        self.assertFalse(router.exists(BACKUP_DIR + "/timestamp"))

        # Tick 2 crosses 75 %: one line, one e-mail, a backup and "saveconfig usage".
        self.tick(utc("2024-03-20 11:10:00"), mib(50, 13), (5 * MIB, 5 * MIB + EXTRA))
        self.assertEqual(router.syslog.collect(), [STARTED_QUOTA, LINE_75])
        self.assertSentOnce(
            "[ruvo-host] Fibre Bandwidth Usage Hits 75%",
            crlf(GREETING,
                 "",
                 "Wed Mar 20 11:10:00 UTC 2024",
                 # No closing sentence at 75 %: the line ends in its space.
                 "Bandwidth usage for Fibre hits 75% of the 1000MB allowance. ",
                 "Current Usage for All WAN:",
                 "",
                 # (763M+700K)*100 / 1000M = 76.37: 76.
                 "Fibre : 763MB / 1000MB (76%) used in this billing cycle",
                 # No start day: the calendar month, 20+5 / 2+5(+600K) = 32 MB.
                 "LTE : 32MB used in this calendar month",
                 "",
                 FOOTER_BRAND,
                 "Mar 20, 2024",
                 "",
                 ""))
        self.assertEqual(self.log(self.suspend_log), "")
        self.assertEqual(router.calls_when_done(), "usage\n")
        self.assertFiles("after the 75 % e-mail", {
            # The backup that followed the e-mail: the running cycle in bytes.
            backup(1, "ruvo.billing.csv"): lines(
                row("2024-03-01,2024-03-20", 650 * MIB + EXTRA, 113 * MIB + 100 * KIB)),
            BACKUP_DIR + "/timestamp": "",
        })

        # Tick 3 crosses 95 %: the last e-mail of the cycle.
        router.write(TIMESYNC_1, "")
        self.tick(utc("2024-03-20 12:10:00"), mib(190, 8), mib(1, 1))
        self.assertEqual(router.syslog.collect(), [STARTED_QUOTA, LINE_75, LINE_95])
        self.assertSentOnce(
            "[ruvo-host] Fibre Bandwidth Usage Hits 95%",
            crlf(GREETING,
                 "",
                 "Wed Mar 20 12:10:00 UTC 2024",
                 "Bandwidth usage for Fibre hits 95% of the 1000MB allowance. "
                 "No further notification email will be sent.",
                 "",
                 "Current Usage for All WAN:",
                 "",
                 # (961M+700K)*100 / 1000M = 96.17: 96.
                 "Fibre : 961MB / 1000MB (96%) used in this billing cycle",
                 "LTE : 34MB used in this calendar month",
                 "",
                 FOOTER_BRAND,
                 "Mar 20, 2024",
                 "",
                 ""))
        self.assertEqual(self.log(self.suspend_log), "")
        self.assertEqual(router.calls_when_done(), "usage\nusage\n")

        # Tick 4 reaches the line exactly: the 100 % line and a suspension, no e-mail.
        self.tick(utc("2024-03-20 13:10:00"), (30 * MIB + 324 * KIB, 3 * MIB), mib(0, 0))
        self.assertNoNewMessage()
        self.assertEqual(router.syslog.collect(), [STARTED_QUOTA, LINE_75, LINE_95, LINE_100])
        self.assertEqual(self.log(self.suspend_log), "1 on\n")
        self.assertEqual(router.calls_when_done(), "usage\nusage\nusage\n")
        self.assertTrue(router.exists(SUSPENDED_1), "the fake tool makes the marker")
        self.assertEqual(self.log(self.wan_action_log), "")

        # Tick 5: still over, the marker is there: nothing is asked again.  The
        # time-sync privilege marker went away: "wan_action 1 stop" runs once.
        os.unlink(router.host(TIMESYNC_1))
        self.tick(utc("2024-03-20 14:10:00"), mib(6, 2), mib(0, 0))
        self.assertNoNewMessage()
        self.assertEqual(router.syslog.collect(), [STARTED_QUOTA, LINE_75, LINE_95, LINE_100])
        self.assertEqual(self.log(self.suspend_log), "1 on\n")
        self.assertEqual(router.calls_when_done(), "usage\nusage\nusage\n")
        self.assertEqual(self.log(self.wan_action_log), "1 stop\n")
        self.assertTrue(router.exists(SUSPENDED_1))

        # Tick 6, the first sample of April: the March cycle closes, usage falls to
        # 6M, the link resumes.
        self.tick(utc("2024-04-01 00:00:20"), mib(5, 1), mib(1, 1))
        self.assertNoNewMessage()
        self.assertEqual(router.syslog.collect(),
                         [STARTED_QUOTA, LINE_75, LINE_95, LINE_100, LINE_RESUME])
        self.assertEqual(self.log(self.suspend_log), "1 on\n1 off\n")
        self.assertEqual(router.calls_when_done(), "usage\nusage\nusage\nusage\n")
        self.assertFalse(router.exists(SUSPENDED_1), "the fake tool removes the marker")
        self.assertEqual(self.log(self.wan_action_log), "1 stop\n")
        self.assertFiles("in the new cycle", {
            # March: 600+50+190+30+6 (+924K) / 100+13+8+3+2 (+100K).
            wan(1, "usage_history.billing"): lines("2024-03-01,2024-03-31,876,126"),
            wan(1, "link_usage_billing.csv"): lines("2024-04-01,2024-04-01,5,1",
                                                    "2024-03-01,2024-03-31,876,126"),
        })
        self.assertEqual(len(self.log(self.sendemail_log).splitlines()), 2)
        self.assertEqual(router.syslog.malformed, [])
        self.assertStopsCleanly(router)


# ---------------------------------------------------------------------------
# A dual-SIM WAN whose second SIM crosses its allowance

CONFIG_DUAL_SIM = ("WAN1_NAME=Fibre\n"
                   "WAN2_NAME=LTE\n"
                   "PIF2_GOBI_USAGE_START_DAY=1\n"
                   "PIF2_GOBI_USAGE_QUOTA=500\n"
                   "PIF2_GOBI_USAGE_ACTION=email,disconnect\n"
                   "PIF2_GOBI_USAGE_START_DAY_2=1\n"
                   "PIF2_GOBI_USAGE_QUOTA_2=200\n"
                   "PIF2_GOBI_USAGE_ACTION_2=email,disconnect\n")
SLOT = "/etc/gpio_map/cell0_slot"
SUSPENDED_2 = "/var/run/korel/wan2/usage_suspend"
SUSPENDED_2_A = "/var/run/korel/wan2/usage_suspend.sim1"
SUSPENDED_2_B = "/var/run/korel/wan2/usage_suspend.sim2"

STARTED_SIM = (RUVO, "ruvo",
               "starting Ardenta Usage Monitor (ruvo). Tue Apr 30 20:00:00 2024 UTC(+0000)")
SIM_B_75 = (BALANCE, "balance", "Bandwidth usage for LTE SIM B hits 75% of the 200MB allowance.")
# The 100 % and resume lines name the WAN only, also for a SIM.
SIM_B_100 = (BALANCE, "balance", "Bandwidth usage for LTE hits 100% of the 200MB allowance.")
SIM_B_RESUME = (BALANCE, "balance", "Bandwidth allowance monitor: LTE has entered a new "
                                    "billing cycle, the connection will resume")


class DualSimQuotaTest(QuotaTestCase):
    """WAN2 "LTE" holds two SIMs (slot index 0); SIM B (slot 2) is in use throughout.

    SIM A: 500 MB, SIM B: 200 MB (lines 150, 190 and 199 MiB), both billed from the
    1st with e-mail and disconnect; the WAN records have no allowance and no cycle.
    Samples in UTC (MiB, counter 1/counter 2); SIM B takes WAN2's deltas, SIM A zero:

        tick  time              WAN1    WAN2     SIM B usage
        1     04-30 20:10:00    30/3    80/20    100 (50 %)
        2     04-30 21:10:00    5/1     50/10    160 (80 %): the 75 % e-mail
        3     04-30 22:10:00    1/1     35/5     200: past 95 % and the line at once
        4     05-01 00:00:20    2/2     4/4      8 (new cycle)
    """

    def test_only_sim_b_crosses_its_allowance(self):
        router = self.router
        router.write("/etc/gobi_dual_sim_support", "2\n")
        router.write(SLOT, "2\n")
        self.start_at(utc("2024-04-30 20:00:00"),
                      KernelCounters((1000, 2000), (3000, 4000)), CONFIG_DUAL_SIM)

        self.tick(utc("2024-04-30 20:10:00"), mib(30, 3), mib(80, 20))
        self.assertNoNewMessage()
        self.assertEqual(router.syslog.collect(), [STARTED_SIM])
        self.assertEqual(router.calls_when_done(), "")

        self.tick(utc("2024-04-30 21:10:00"), mib(5, 1), mib(50, 10))
        self.assertEqual(router.syslog.collect(), [STARTED_SIM, SIM_B_75])
        self.assertSentOnce(
            "[ruvo-host] LTE SIM B Bandwidth Usage Hits 75%",
            crlf(GREETING,
                 "",
                 "Tue Apr 30 21:10:00 UTC 2024",
                 "Bandwidth usage for LTE SIM B hits 75% of the 200MB allowance. ",
                 "Current Usage for All WAN:",
                 "",
                 # Neither WAN record has a start day: calendar months, 35+4 and 130+30.
                 "Fibre : 39MB used in this calendar month",
                 "LTE : 160MB used in this calendar month",
                 "",
                 "Current Usage for All Celluar WAN:",
                 "",
                 "LTE SIM A : 0MB / 500MB (0%) used in this billing cycle",
                 "LTE SIM B : 160MB / 200MB (80%) used in this billing cycle",
                 "",
                 FOOTER_BRAND,
                 "Apr 30, 2024",
                 "",
                 ""))
        self.assertEqual(self.log(self.suspend_log), "")
        self.assertEqual(router.calls_when_done(), "usage\n")

        # 160 -> 200 MiB passes 95 % and the line on one tick: no e-mail, the 100 % line
        # and SIM B's suspension.
        self.tick(utc("2024-04-30 22:10:00"), mib(1, 1), mib(35, 5))
        self.assertNoNewMessage()
        self.assertEqual(router.syslog.collect(), [STARTED_SIM, SIM_B_75, SIM_B_100])
        self.assertEqual(self.log(self.suspend_log), "2 on 2\n")
        self.assertEqual(router.calls_when_done(), "usage\nusage\n")
        self.assertTrue(router.exists(SUSPENDED_2_B), "the fake tool makes SIM B's marker")
        self.assertFalse(router.exists(SUSPENDED_2_A))
        self.assertFalse(router.exists(SUSPENDED_2))
        # The backup after the suspension covers the SIM records too (bytes).
        self.assertFiles("after SIM B's suspension", {
            backup(2, "ruvo.sim2.billing.csv"): lines(
                row("2024-04-01,2024-04-30", 165 * MIB, 35 * MIB)),
            backup(2, "ruvo.sim1.billing.csv"): lines(
                row("2024-04-01,2024-04-30", 0, 0)),
            backup(2, "ruvo.sim2.hourly.csv"): lines(
                row("2024-04-30-22", 35 * MIB, 5 * MIB),
                row("2024-04-30-21", 50 * MIB, 10 * MIB),
                row("2024-04-30-20", 80 * MIB, 20 * MIB)),
        })

        # 1 May: SIM B's cycle closes, its usage falls to 4+4: it resumes.
        self.tick(utc("2024-05-01 00:00:20"), mib(2, 2), mib(4, 4))
        self.assertNoNewMessage()
        self.assertEqual(router.syslog.collect(),
                         [STARTED_SIM, SIM_B_75, SIM_B_100, SIM_B_RESUME])
        self.assertEqual(self.log(self.suspend_log), "2 on 2\n2 off 2\n")
        self.assertEqual(router.calls_when_done(), "usage\nusage\nusage\n")
        self.assertFalse(router.exists(SUSPENDED_2_B), "the fake tool removes SIM B's marker")
        self.assertEqual(self.log(self.wan_action_log), "")
        self.assertFiles("in SIM B's new cycle", {
            wan(2, "sim2_usage_history.billing"): lines("2024-04-01,2024-04-30,165,35"),
            wan(2, "sim2_usage_billing.csv"): lines("2024-05-01,2024-05-01,4,4",
                                                    "2024-04-01,2024-04-30,165,35"),
        })
        self.assertEqual(router.syslog.malformed, [])
        self.assertStopsCleanly(router)


if __name__ == "__main__":
    harness.main()
