"""WAN usage histories of the running daemon over several days and a month end.

Each test starts the real executable with the clock set (time_initialized
present), feeds it kernel samples hours or days apart, and compares whole
history files, CSV exports and router totals with texts worked out by hand.
The daemon's clock and the "timestamp" of /proc/korel/config/link_usage move
together; all counters grow by whole MiB (a few by 600 KiB more, to show that
sums are taken in bytes and cut to MiB only when written).

Rules the derivations below rely on:
- the first tick after start-up counts the traffic since the baseline read at
  start-up; its rollovers find empty buckets, and the buckets are then set to
  the start of that tick's hour and day;
- the whole delta of a sample goes to the hour and the day in which the sample
  was taken; an hour or day enters its ring at the first sample after it;
- a month (or billing cycle) closes on the first sample after its last second,
  with the sums as they stood before that sample;
- the router totals are rebuilt on the first tick and whenever a history
  changed, otherwise only their first line is rewritten; SIM records never
  enter them; a total's row 0 takes its time from the last WAN record.
"""

import calendar
import os
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
HOURLY_TOTAL = "/var/run/korel/link_usage_hourly_total.csv"
DAILY_TOTAL = "/var/run/korel/link_usage_daily_total.csv"
MONTHLY_TOTAL = "/var/run/korel/link_usage_monthly_total.csv"


def utc(text):
    """Epoch seconds of a "YYYY-mm-dd HH:MM:SS" UTC time."""
    return calendar.timegm(time.strptime(text, "%Y-%m-%d %H:%M:%S"))


def lines(*items):
    """A file text: the given lines, each ended by a newline."""
    return "".join(item + "\n" for item in items)


def wan(n, name):
    return "/var/run/korel/wan%d/%s" % (n, name)


def mib(c1, c2):
    """A counter pair given in MiB, as bytes."""
    return (c1 * MIB, c2 * MIB)


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


class HistoryTestCase(SharedTmpTestCase):
    """Starts a daemon at a given time with given counters and drives its ticks."""

    def start_at(self, when, counters, config, tz="UTC"):
        """Starts the daemon at when (epoch) with counters as its baseline sample."""
        router = self.router
        self.counters = counters
        # The firmware makes the per-WAN run directories; the daemon only writes into them.
        for n in range(1, len(counters.counters) + 1):
            os.makedirs(router.host("/var/run/korel/wan%d" % n), mode=0o755, exist_ok=True)
        router.write(TIME_INITIALIZED, "")
        router.write(CONFIG, config)
        router.write(LINK_USAGE, counters.text(when))
        router.set_clock(when)
        router.start(tz=tz)
        return router

    def tick(self, when, *deltas):
        """One sample at when (epoch) with the given per-WAN byte deltas, then one tick."""
        self.counters.add(deltas)
        self.router.write(LINK_USAGE, self.counters.text(when))
        self.router.set_clock(when)
        self.router.send(signal.SIGALRM)

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


# ---------------------------------------------------------------------------
# Two WANs in UTC, 30 January to 15 February 2024

CONFIG_UTC = ("WAN1_NAME=Fibre\n"
              "WAN2_NAME=LTE\n"
              "WAN1_USAGE_START_DAY=15\n")

# 600 KiB: two of them make 1 MiB and 176 KiB.
EXTRA = 600 * KIB


class TwoWansAcrossMonthEndTest(HistoryTestCase):
    """WAN1 has a billing cycle starting on the 15th, WAN2 none.

    Samples (deltas in MiB, counter 1/counter 2), all UTC:

        tick  time              WAN1         WAN2
        1     01-30 22:10:00    10/1         20/2
        2     01-30 23:20:00    5/2          3/1
        3     01-30 23:50:00    4/0          0/6        (same hour as tick 2)
        4     01-31 01:30:00    7/3          1/4        (no sample in the 00 hour)
        5     01-31 23:59:30    100/10       50/5
        6     02-01 00:00:20    3/1          2/2        (January closes)
        7     02-01 13:45:00    20/4         8+600K/8
        8     02-10 09:00:00    1024/256     512+600K/64
        9     02-14 23:59:50    30/3         6/6        (last sample of the cycle)
        10    02-15 00:00:10    2/1          4/4        (WAN1's cycle closes)
        11    02-15 10:00:00    50/5         0/0

    Hours in the rings (newest first), by the hour of the sample before each roll:
      WAN1: 02-15-00 2/1, 02-14-23 30/3, 02-10-09 1024/256, 02-01-13 20/4,
            02-01-00 3/1, 01-31-23 100/10, 01-31-01 7/3, 01-30-23 5+4=9/2+0=2,
            01-30-22 10/1; current 02-15-10 50/5.
      WAN2: 02-15-00 4/4, 02-14-23 6/6, 02-10-09 512+600K/64, 02-01-13 8+600K/8,
            02-01-00 2/2, 01-31-23 50/5, 01-31-01 1/4, 01-30-23 3+0=3/1+6=7,
            01-30-22 20/2; current 02-15-10 0/0.
    Days:
      WAN1: 01-30 10+5+4=19/1+2+0=3, 01-31 7+100=107/3+10=13, 02-01 3+20=23/1+4=5,
            02-10 1024/256, 02-14 30/3; current 02-15 2+50=52/1+5=6.
      WAN2: 01-30 20+3+0=23/2+1+6=9, 01-31 1+50=51/4+5=9, 02-01 2+8=10(+600K)/2+8=10,
            02-10 512(+600K)/64, 02-14 6/6; current 02-15 4+0=4/4+0=4.
    """

    def test_hours_days_months_and_billing_cycle(self):
        counters = KernelCounters((5000000000, 123456789), (987654321, 42))
        self.start_at(utc("2024-01-30 22:00:00"), counters, CONFIG_UTC)

        # Tick 1: the buckets are set to 22:00 and 01-30; January becomes the running
        # month and WAN1's cycle runs 01-15 .. 02-14 23:59:59.
        self.tick(utc("2024-01-30 22:10:00"), mib(10, 1), mib(20, 2))
        self.assertFiles("after the first tick", {
            wan(1, "usage_history.hourly"): None,
            wan(1, "link_usage_hourly.csv"): lines("2024-01-30-22,10,1"),
            wan(1, "usage_history.daily"): None,
            wan(1, "link_usage_daily.csv"): lines("2024-01-30,10,1"),
            # No month was closed: month_start was 0, so no line and no file.
            wan(1, "usage_history.monthly"): None,
            # Running month: 1st of the month, date of the sample.
            wan(1, "link_usage_monthly.csv"): lines("2024-01-01,2024-01-30,10,1"),
            wan(1, "usage_history.billing"): None,
            wan(1, "link_usage_billing.csv"): lines("2024-01-15,2024-01-30,10,1"),
            wan(2, "link_usage_hourly.csv"): lines("2024-01-30-22,20,2"),
            wan(2, "link_usage_monthly.csv"): lines("2024-01-01,2024-01-30,20,2"),
            # No start day for WAN2: no billing export at all.
            wan(2, "link_usage_billing.csv"): None,
            # Totals rebuilt from row 0 only (10+20/1+2); the client
            # directories are empty, so nothing is back-filled.
            HOURLY_TOTAL: lines("2024-01-30-22,30,3"),
            DAILY_TOTAL: lines("2024-01-30,30,3"),
            # The total's row 0 ends on the month's last day.
            MONTHLY_TOTAL: lines("2024-01-01,2024-01-31,30,3"),
        })

        self.tick(utc("2024-01-30 23:20:00"), mib(5, 2), mib(3, 1))
        # Tick 3 stays in the 23 hour: the hourly total keeps its second line and only
        # row 0 is rewritten: 23 hour = WAN1 5+4/2+0 + WAN2 3+0/1+6 = 12/9.
        self.tick(utc("2024-01-30 23:50:00"), mib(4, 0), mib(0, 6))
        self.assertFiles("within the same hour", {
            wan(1, "usage_history.hourly"): lines("2024-01-30-22,10,1"),
            wan(1, "link_usage_hourly.csv"): lines("2024-01-30-23,9,2",
                                                   "2024-01-30-22,10,1"),
            wan(2, "usage_history.hourly"): lines("2024-01-30-22,20,2"),
            wan(2, "link_usage_hourly.csv"): lines("2024-01-30-23,3,7",
                                                   "2024-01-30-22,20,2"),
            HOURLY_TOTAL: lines("2024-01-30-23,12,9",
                                "2024-01-30-22,30,3"),
            # 01-30: WAN1 19/3 + WAN2 23/9.
            DAILY_TOTAL: lines("2024-01-30,42,12"),
            MONTHLY_TOTAL: lines("2024-01-01,2024-01-31,42,12"),
        })

        self.tick(utc("2024-01-31 01:30:00"), mib(7, 3), mib(1, 4))
        self.tick(utc("2024-01-31 23:59:30"), mib(100, 10), mib(50, 5))
        # Tick 6, 20 s into February: January closes with the sums of tick 5
        # (WAN1 19+107=126/3+13=16, WAN2 23+51=74/9+9=18); the delta of this sample
        # is February's.
        self.tick(utc("2024-02-01 00:00:20"), mib(3, 1), mib(2, 2))
        self.assertFiles("right after the month end", {
            wan(1, "usage_history.hourly"): lines("2024-01-31-23,100,10",
                                                  "2024-01-31-01,7,3",
                                                  "2024-01-30-23,9,2",
                                                  "2024-01-30-22,10,1"),
            wan(1, "link_usage_hourly.csv"): lines("2024-02-01-00,3,1",
                                                   "2024-01-31-23,100,10",
                                                   "2024-01-31-01,7,3",
                                                   "2024-01-30-23,9,2",
                                                   "2024-01-30-22,10,1"),
            wan(1, "usage_history.daily"): lines("2024-01-31,107,13",
                                                 "2024-01-30,19,3"),
            wan(1, "link_usage_daily.csv"): lines("2024-02-01,3,1",
                                                  "2024-01-31,107,13",
                                                  "2024-01-30,19,3"),
            wan(1, "usage_history.monthly"): lines("2024-01-01,2024-01-31,126,16"),
            wan(1, "link_usage_monthly.csv"): lines("2024-02-01,2024-02-01,3,1",
                                                    "2024-01-01,2024-01-31,126,16"),
            # The cycle goes on: 01-30 19/3 + 01-31 107/13 + today 3/1.
            wan(1, "usage_history.billing"): None,
            wan(1, "link_usage_billing.csv"): lines("2024-01-15,2024-02-01,129,17"),
            wan(2, "usage_history.hourly"): lines("2024-01-31-23,50,5",
                                                  "2024-01-31-01,1,4",
                                                  "2024-01-30-23,3,7",
                                                  "2024-01-30-22,20,2"),
            wan(2, "link_usage_hourly.csv"): lines("2024-02-01-00,2,2",
                                                   "2024-01-31-23,50,5",
                                                   "2024-01-31-01,1,4",
                                                   "2024-01-30-23,3,7",
                                                   "2024-01-30-22,20,2"),
            wan(2, "usage_history.daily"): lines("2024-01-31,51,9",
                                                 "2024-01-30,23,9"),
            wan(2, "link_usage_daily.csv"): lines("2024-02-01,2,2",
                                                  "2024-01-31,51,9",
                                                  "2024-01-30,23,9"),
            wan(2, "usage_history.monthly"): lines("2024-01-01,2024-01-31,74,18"),
            wan(2, "link_usage_monthly.csv"): lines("2024-02-01,2024-02-01,2,2",
                                                    "2024-01-01,2024-01-31,74,18"),
            wan(2, "usage_history.billing"): None,
            wan(2, "link_usage_billing.csv"): None,
            # All three totals rebuilt (every history changed), rows summed by position:
            # 02-01-00 3+2/1+2, 01-31-23 100+50/10+5, 01-31-01 7+1/3+4,
            # 01-30-23 9+3/2+7, 01-30-22 10+20/1+2.
            HOURLY_TOTAL: lines("2024-02-01-00,5,3",
                                "2024-01-31-23,150,15",
                                "2024-01-31-01,8,7",
                                "2024-01-30-23,12,9",
                                "2024-01-30-22,30,3"),
            # 02-01 3+2/1+2, 01-31 107+51/13+9, 01-30 19+23/3+9.
            DAILY_TOTAL: lines("2024-02-01,5,3",
                               "2024-01-31,158,22",
                               "2024-01-30,42,12"),
            # February (a leap year: ends on the 29th) 3+2/1+2; January 126+74/16+18.
            MONTHLY_TOTAL: lines("2024-02-01,2024-02-29,5,3",
                                 "2024-01-01,2024-01-31,200,34"),
        })

        self.tick(utc("2024-02-01 13:45:00"), mib(20, 4), (8 * MIB + EXTRA, 8 * MIB))
        self.tick(utc("2024-02-10 09:00:00"), mib(1024, 256), (512 * MIB + EXTRA, 64 * MIB))
        # Tick 9, ten seconds before the cycle's last second passes.
        self.tick(utc("2024-02-14 23:59:50"), mib(30, 3), mib(6, 6))
        self.assertFiles("on the last day of the billing cycle", {
            wan(1, "usage_history.billing"): None,
            # 01-30 19/3 + 01-31 107/13 + 02-01 23/5 + 02-10 1024/256 + today 30/3.
            wan(1, "link_usage_billing.csv"): lines("2024-01-15,2024-02-14,1203,280"),
            # February: 23/5 + 1024/256 + 30/3.
            wan(1, "link_usage_monthly.csv"): lines("2024-02-01,2024-02-14,1077,264",
                                                    "2024-01-01,2024-01-31,126,16"),
        })

        # Tick 10, ten seconds into 15 February: WAN1's cycle closes with the sums of
        # tick 9; the new one starts on 02-15 and holds only this sample's 2/1.
        self.tick(utc("2024-02-15 00:00:10"), mib(2, 1), mib(4, 4))
        self.assertFiles("right after the billing cycle closed", {
            wan(1, "usage_history.billing"): lines("2024-01-15,2024-02-14,1203,280"),
            wan(1, "link_usage_billing.csv"): lines("2024-02-15,2024-02-15,2,1",
                                                    "2024-01-15,2024-02-14,1203,280"),
            wan(2, "usage_history.billing"): None,
            wan(2, "link_usage_billing.csv"): None,
        })

        self.tick(utc("2024-02-15 10:00:00"), mib(50, 5), mib(0, 0))
        self.assertFiles("at the end", {
            wan(1, "usage_history.hourly"): lines("2024-02-15-00,2,1",
                                                  "2024-02-14-23,30,3",
                                                  "2024-02-10-09,1024,256",
                                                  "2024-02-01-13,20,4",
                                                  "2024-02-01-00,3,1",
                                                  "2024-01-31-23,100,10",
                                                  "2024-01-31-01,7,3",
                                                  "2024-01-30-23,9,2",
                                                  "2024-01-30-22,10,1"),
            wan(1, "link_usage_hourly.csv"): lines("2024-02-15-10,50,5",
                                                   "2024-02-15-00,2,1",
                                                   "2024-02-14-23,30,3",
                                                   "2024-02-10-09,1024,256",
                                                   "2024-02-01-13,20,4",
                                                   "2024-02-01-00,3,1",
                                                   "2024-01-31-23,100,10",
                                                   "2024-01-31-01,7,3",
                                                   "2024-01-30-23,9,2",
                                                   "2024-01-30-22,10,1"),
            wan(1, "usage_history.daily"): lines("2024-02-14,30,3",
                                                 "2024-02-10,1024,256",
                                                 "2024-02-01,23,5",
                                                 "2024-01-31,107,13",
                                                 "2024-01-30,19,3"),
            wan(1, "link_usage_daily.csv"): lines("2024-02-15,52,6",
                                                  "2024-02-14,30,3",
                                                  "2024-02-10,1024,256",
                                                  "2024-02-01,23,5",
                                                  "2024-01-31,107,13",
                                                  "2024-01-30,19,3"),
            wan(1, "usage_history.monthly"): lines("2024-01-01,2024-01-31,126,16"),
            # February: 23/5 + 1024/256 + 30/3 + 52/6.
            wan(1, "link_usage_monthly.csv"): lines("2024-02-01,2024-02-15,1129,270",
                                                    "2024-01-01,2024-01-31,126,16"),
            wan(1, "usage_history.billing"): lines("2024-01-15,2024-02-14,1203,280"),
            # The new cycle: today only, 2+50/1+5.
            wan(1, "link_usage_billing.csv"): lines("2024-02-15,2024-02-15,52,6",
                                                    "2024-01-15,2024-02-14,1203,280"),
            wan(2, "usage_history.hourly"): lines("2024-02-15-00,4,4",
                                                  "2024-02-14-23,6,6",
                                                  "2024-02-10-09,512,64",
                                                  "2024-02-01-13,8,8",
                                                  "2024-02-01-00,2,2",
                                                  "2024-01-31-23,50,5",
                                                  "2024-01-31-01,1,4",
                                                  "2024-01-30-23,3,7",
                                                  "2024-01-30-22,20,2"),
            wan(2, "link_usage_hourly.csv"): lines("2024-02-15-10,0,0",
                                                   "2024-02-15-00,4,4",
                                                   "2024-02-14-23,6,6",
                                                   "2024-02-10-09,512,64",
                                                   "2024-02-01-13,8,8",
                                                   "2024-02-01-00,2,2",
                                                   "2024-01-31-23,50,5",
                                                   "2024-01-31-01,1,4",
                                                   "2024-01-30-23,3,7",
                                                   "2024-01-30-22,20,2"),
            wan(2, "usage_history.daily"): lines("2024-02-14,6,6",
                                                 "2024-02-10,512,64",
                                                 "2024-02-01,10,10",
                                                 "2024-01-31,51,9",
                                                 "2024-01-30,23,9"),
            wan(2, "link_usage_daily.csv"): lines("2024-02-15,4,4",
                                                  "2024-02-14,6,6",
                                                  "2024-02-10,512,64",
                                                  "2024-02-01,10,10",
                                                  "2024-01-31,51,9",
                                                  "2024-01-30,23,9"),
            wan(2, "usage_history.monthly"): lines("2024-01-01,2024-01-31,74,18"),
            # February in bytes: 10 MiB+600K + 512 MiB+600K + 6 + 4 = 533 MiB + 176 KiB,
            # so 533 (the days' MiB figures alone would add up to 532); 10+64+6+4 = 84.
            wan(2, "link_usage_monthly.csv"): lines("2024-02-01,2024-02-15,533,84",
                                                    "2024-01-01,2024-01-31,74,18"),
            wan(2, "usage_history.billing"): None,
            wan(2, "link_usage_billing.csv"): None,
            # Rebuilt (the hour rolled): 02-15-10 50+0/5+0 (row 0's time from WAN2's
            # bucket, also 10:00), then by position 02-15-00 2+4/1+4, 02-14-23 30+6/3+6,
            # 02-10-09 1024+512(+600K)/256+64, 02-01-13 20+8(+600K)/4+8, 02-01-00 5/3,
            # and the January hours as before.
            HOURLY_TOTAL: lines("2024-02-15-10,50,5",
                                "2024-02-15-00,6,5",
                                "2024-02-14-23,36,9",
                                "2024-02-10-09,1536,320",
                                "2024-02-01-13,28,12",
                                "2024-02-01-00,5,3",
                                "2024-01-31-23,150,15",
                                "2024-01-31-01,8,7",
                                "2024-01-30-23,12,9",
                                "2024-01-30-22,30,3"),
            # Row 0 rewritten (no day closed on tick 11): 02-15 52+4/6+4; the rest as
            # rebuilt on tick 10: 02-14 30+6/3+6, 02-10 1024+512(+600K)/256+64,
            # 02-01 23+10(+600K)/5+10, 01-31 158/22, 01-30 42/12.
            DAILY_TOTAL: lines("2024-02-15,56,10",
                               "2024-02-14,36,9",
                               "2024-02-10,1536,320",
                               "2024-02-01,33,15",
                               "2024-01-31,158,22",
                               "2024-01-30,42,12"),
            # February 1129 + 533(+176K) / 270 + 84; January as closed.
            MONTHLY_TOTAL: lines("2024-02-01,2024-02-29,1662,354",
                                 "2024-01-01,2024-01-31,200,34"),
        })
        self.assertStopsCleanly(self.router)


# ---------------------------------------------------------------------------
# A dual-SIM WAN2 in UTC, 30 April to 1 May 2024

CONFIG_DUAL_SIM = ("WAN1_NAME=Fibre\n"
                   "WAN2_NAME=LTE\n"
                   "PIF2_GOBI_USAGE_START_DAY=1\n")
SLOT = "/etc/gpio_map/cell0_slot"


class DualSimAcrossMonthEndTest(HistoryTestCase):
    """WAN2 holds two SIMs (slot index 0); SIM 1 is billed from the 1st, SIM 2 has no cycle.

    Samples (MiB, counter 1/counter 2), all UTC; the active SIM takes WAN2's delta,
    the other one a zero delta with the same sample time:

        tick  time              slot  WAN1    WAN2 (to the active SIM)
        1     04-30 20:30:00    1     10/1    40/4
        2     04-30 23:10:00    2     5/5     16/2
        3     05-01 00:05:00    2     1/1     8/8     (April closes)
        4     05-01 06:00:00    1     2/0     32/1
    """

    def test_sim_histories_stay_out_of_the_router_totals(self):
        counters = KernelCounters((1000, 2000), (3000, 4000))
        self.router.write("/etc/gobi_dual_sim_support", "2\n")
        self.router.write(SLOT, "1\n")
        self.start_at(utc("2024-04-30 20:00:00"), counters, CONFIG_DUAL_SIM)

        self.tick(utc("2024-04-30 20:30:00"), mib(10, 1), mib(40, 4))
        self.router.write(SLOT, "2\n")
        self.tick(utc("2024-04-30 23:10:00"), mib(5, 5), mib(16, 2))
        self.assertFiles("after the switch to SIM 2", {
            # SIM 1's 20 hour closed with 40/4; its 23 hour has only the zero delta.
            wan(2, "sim1_usage_history.hourly"): lines("2024-04-30-20,40,4"),
            wan(2, "sim1_usage_hourly.csv"): lines("2024-04-30-23,0,0",
                                                   "2024-04-30-20,40,4"),
            # SIM 2 had nothing in the 20 hour; the 16/2 is its 23 hour.
            wan(2, "sim2_usage_history.hourly"): lines("2024-04-30-20,0,0"),
            wan(2, "sim2_usage_hourly.csv"): lines("2024-04-30-23,16,2",
                                                   "2024-04-30-20,0,0"),
        })

        self.tick(utc("2024-05-01 00:05:00"), mib(1, 1), mib(8, 8))
        self.router.write(SLOT, "1\n")
        self.tick(utc("2024-05-01 06:00:00"), mib(2, 0), mib(32, 1))
        self.assertFiles("at the end", {
            # SIM 1: hours 04-30-20 40/4, 04-30-23 0/0, 05-01-00 0/0; current 06 32/1.
            wan(2, "sim1_usage_history.hourly"): lines("2024-05-01-00,0,0",
                                                       "2024-04-30-23,0,0",
                                                       "2024-04-30-20,40,4"),
            wan(2, "sim1_usage_hourly.csv"): lines("2024-05-01-06,32,1",
                                                   "2024-05-01-00,0,0",
                                                   "2024-04-30-23,0,0",
                                                   "2024-04-30-20,40,4"),
            wan(2, "sim1_usage_history.daily"): lines("2024-04-30,40,4"),
            wan(2, "sim1_usage_daily.csv"): lines("2024-05-01,32,1",
                                                  "2024-04-30,40,4"),
            wan(2, "sim1_usage_history.monthly"): lines("2024-04-01,2024-04-30,40,4"),
            wan(2, "sim1_usage_monthly.csv"): lines("2024-05-01,2024-05-01,32,1",
                                                    "2024-04-01,2024-04-30,40,4"),
            # Cycle 04-01 .. 04-30 23:59:59 closed at 00:05 with April's 40/4.
            wan(2, "sim1_usage_history.billing"): lines("2024-04-01,2024-04-30,40,4"),
            wan(2, "sim1_usage_billing.csv"): lines("2024-05-01,2024-05-01,32,1",
                                                    "2024-04-01,2024-04-30,40,4"),
            # SIM 2: hours 04-30-20 0/0, 04-30-23 16/2, 05-01-00 8/8; current 06 0/0.
            wan(2, "sim2_usage_history.hourly"): lines("2024-05-01-00,8,8",
                                                       "2024-04-30-23,16,2",
                                                       "2024-04-30-20,0,0"),
            wan(2, "sim2_usage_hourly.csv"): lines("2024-05-01-06,0,0",
                                                   "2024-05-01-00,8,8",
                                                   "2024-04-30-23,16,2",
                                                   "2024-04-30-20,0,0"),
            wan(2, "sim2_usage_history.daily"): lines("2024-04-30,16,2"),
            wan(2, "sim2_usage_daily.csv"): lines("2024-05-01,8,8",
                                                  "2024-04-30,16,2"),
            wan(2, "sim2_usage_history.monthly"): lines("2024-04-01,2024-04-30,16,2"),
            wan(2, "sim2_usage_monthly.csv"): lines("2024-05-01,2024-05-01,8,8",
                                                    "2024-04-01,2024-04-30,16,2"),
            wan(2, "sim2_usage_history.billing"): None,
            wan(2, "sim2_usage_billing.csv"): None,
            # WAN2 itself: hours 20 40/4, 23 16/2, 00 8/8; current 06 32/1;
            # April 40+16=56/4+2=6; 1 May 8+32=40/8+1=9.
            wan(2, "usage_history.hourly"): lines("2024-05-01-00,8,8",
                                                  "2024-04-30-23,16,2",
                                                  "2024-04-30-20,40,4"),
            wan(2, "link_usage_hourly.csv"): lines("2024-05-01-06,32,1",
                                                   "2024-05-01-00,8,8",
                                                   "2024-04-30-23,16,2",
                                                   "2024-04-30-20,40,4"),
            wan(2, "usage_history.daily"): lines("2024-04-30,56,6"),
            wan(2, "link_usage_daily.csv"): lines("2024-05-01,40,9",
                                                  "2024-04-30,56,6"),
            wan(2, "usage_history.monthly"): lines("2024-04-01,2024-04-30,56,6"),
            wan(2, "link_usage_monthly.csv"): lines("2024-05-01,2024-05-01,40,9",
                                                    "2024-04-01,2024-04-30,56,6"),
            wan(2, "link_usage_billing.csv"): None,
            # WAN1: hours 20 10/1, 23 5/5, 00 1/1; current 06 2/0; April 15/6; May 3/1.
            wan(1, "usage_history.hourly"): lines("2024-05-01-00,1,1",
                                                  "2024-04-30-23,5,5",
                                                  "2024-04-30-20,10,1"),
            wan(1, "link_usage_hourly.csv"): lines("2024-05-01-06,2,0",
                                                   "2024-05-01-00,1,1",
                                                   "2024-04-30-23,5,5",
                                                   "2024-04-30-20,10,1"),
            wan(1, "link_usage_daily.csv"): lines("2024-05-01,3,1",
                                                  "2024-04-30,15,6"),
            wan(1, "link_usage_monthly.csv"): lines("2024-05-01,2024-05-01,3,1",
                                                    "2024-04-01,2024-04-30,15,6"),
            wan(1, "link_usage_billing.csv"): None,
            # WAN1 + WAN2 only (the SIMs would count WAN2 twice):
            # 06 2+32/0+1, 00 1+8/1+8, 23 5+16/5+2, 20 10+40/1+4.
            HOURLY_TOTAL: lines("2024-05-01-06,34,1",
                                "2024-05-01-00,9,9",
                                "2024-04-30-23,21,7",
                                "2024-04-30-20,50,5"),
            # 05-01 3+40/1+9; 04-30 15+56/6+6.
            DAILY_TOTAL: lines("2024-05-01,43,10",
                               "2024-04-30,71,12"),
            MONTHLY_TOTAL: lines("2024-05-01,2024-05-31,43,10",
                                 "2024-04-01,2024-04-30,71,12"),
        })
        self.assertStopsCleanly(self.router)


# ---------------------------------------------------------------------------
# Two WANs in Berlin across the spring change and the end of March 2024

CONFIG_BERLIN = ("WAN1_NAME=Fibre\n"
                 "WAN2_NAME=LTE\n"
                 "WAN1_USAGE_START_DAY=1\n")


class BerlinMonthEndTest(HistoryTestCase):
    """Hours, days and months follow Berlin's local time, not UTC.

    On 31 March 2024 the clocks go from 02:00 CET (+0100) to 03:00 CEST (+0200),
    and March ends at 23:59:59 CEST, which is 21:59:59 UTC. WAN1 is billed from
    the 1st, so its cycle closes with the month. Samples (MiB):

        tick  UTC               Berlin            WAN1    WAN2
        1     03-30 22:40:00    03-30 23:40 CET   10/1    2/2
        2     03-30 23:30:00    03-31 00:30 CET   20/2    4/4
        3     03-31 01:30:00    03-31 03:30 CEST  30/3    6/6    (no 02 hour that day)
        4     03-31 21:50:00    03-31 23:50 CEST  40/4    8/8
        5     03-31 22:10:00    04-01 00:10 CEST  50/5    10/10  (March closes)
    """

    def test_local_hours_days_and_month_end(self):
        router = self.router
        self.assertTrue(os.path.exists("/usr/share/zoneinfo/Europe/Berlin"),
                        "time zone Europe/Berlin is not installed (package tzdata)")
        counters = KernelCounters((10 * MIB, 20 * MIB), (30 * MIB, 40 * MIB))
        self.start_at(utc("2024-03-30 22:00:00"), counters, CONFIG_BERLIN, tz="Europe/Berlin")

        self.tick(utc("2024-03-30 22:40:00"), mib(10, 1), mib(2, 2))
        self.tick(utc("2024-03-30 23:30:00"), mib(20, 2), mib(4, 4))
        self.tick(utc("2024-03-31 01:30:00"), mib(30, 3), mib(6, 6))
        self.tick(utc("2024-03-31 21:50:00"), mib(40, 4), mib(8, 8))
        self.assertFiles("ten minutes before the end of March", {
            wan(1, "usage_history.hourly"): lines("2024-03-31-03,30,3",
                                                  "2024-03-31-00,20,2",
                                                  "2024-03-30-23,10,1"),
            wan(1, "usage_history.daily"): lines("2024-03-30,10,1"),
            # 31 March so far: 20+30+40/2+3+4.
            wan(1, "link_usage_daily.csv"): lines("2024-03-31,90,9",
                                                  "2024-03-30,10,1"),
            wan(1, "usage_history.monthly"): None,
            wan(1, "link_usage_monthly.csv"): lines("2024-03-01,2024-03-31,100,10"),
            wan(1, "usage_history.billing"): None,
            wan(1, "link_usage_billing.csv"): lines("2024-03-01,2024-03-31,100,10"),
            MONTHLY_TOTAL: lines("2024-03-01,2024-03-31,120,30"),
        })

        # 22:10 UTC is already 1 April in Berlin: March and WAN1's cycle close.
        self.tick(utc("2024-03-31 22:10:00"), mib(50, 5), mib(10, 10))
        self.assertFiles("ten minutes into April", {
            wan(1, "usage_history.hourly"): lines("2024-03-31-23,40,4",
                                                  "2024-03-31-03,30,3",
                                                  "2024-03-31-00,20,2",
                                                  "2024-03-30-23,10,1"),
            wan(1, "link_usage_hourly.csv"): lines("2024-04-01-00,50,5",
                                                   "2024-03-31-23,40,4",
                                                   "2024-03-31-03,30,3",
                                                   "2024-03-31-00,20,2",
                                                   "2024-03-30-23,10,1"),
            wan(1, "usage_history.daily"): lines("2024-03-31,90,9",
                                                 "2024-03-30,10,1"),
            wan(1, "link_usage_daily.csv"): lines("2024-04-01,50,5",
                                                  "2024-03-31,90,9",
                                                  "2024-03-30,10,1"),
            wan(1, "usage_history.monthly"): lines("2024-03-01,2024-03-31,100,10"),
            wan(1, "link_usage_monthly.csv"): lines("2024-04-01,2024-04-01,50,5",
                                                    "2024-03-01,2024-03-31,100,10"),
            wan(1, "usage_history.billing"): lines("2024-03-01,2024-03-31,100,10"),
            wan(1, "link_usage_billing.csv"): lines("2024-04-01,2024-04-01,50,5",
                                                    "2024-03-01,2024-03-31,100,10"),
            wan(2, "usage_history.hourly"): lines("2024-03-31-23,8,8",
                                                  "2024-03-31-03,6,6",
                                                  "2024-03-31-00,4,4",
                                                  "2024-03-30-23,2,2"),
            wan(2, "link_usage_hourly.csv"): lines("2024-04-01-00,10,10",
                                                   "2024-03-31-23,8,8",
                                                   "2024-03-31-03,6,6",
                                                   "2024-03-31-00,4,4",
                                                   "2024-03-30-23,2,2"),
            # 31 March: 4+6+8.
            wan(2, "usage_history.daily"): lines("2024-03-31,18,18",
                                                 "2024-03-30,2,2"),
            wan(2, "link_usage_daily.csv"): lines("2024-04-01,10,10",
                                                  "2024-03-31,18,18",
                                                  "2024-03-30,2,2"),
            # March: 2+4+6+8.
            wan(2, "usage_history.monthly"): lines("2024-03-01,2024-03-31,20,20"),
            wan(2, "link_usage_monthly.csv"): lines("2024-04-01,2024-04-01,10,10",
                                                    "2024-03-01,2024-03-31,20,20"),
            wan(2, "link_usage_billing.csv"): None,
            HOURLY_TOTAL: lines("2024-04-01-00,60,15",
                                "2024-03-31-23,48,12",
                                "2024-03-31-03,36,9",
                                "2024-03-31-00,24,6",
                                "2024-03-30-23,12,3"),
            DAILY_TOTAL: lines("2024-04-01,60,15",
                               "2024-03-31,108,27",
                               "2024-03-30,12,3"),
            # April ends on the 30th; March 100+20/10+20.
            MONTHLY_TOTAL: lines("2024-04-01,2024-04-30,60,15",
                                 "2024-03-01,2024-03-31,120,30"),
        })
        self.assertStopsCleanly(router)


if __name__ == "__main__":
    harness.main()
