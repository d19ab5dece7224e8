"""Per-client usage by IP address of the running daemon: hours, days, months, backups, restart.

The real executable runs on a SharedTmpRouter (its /var/run lies inside /tmp, so
that the renames from /tmp/ruvo_client.tmp work) with the clock set
(time_initialized present).  Every tick reads /proc/korel/config/client_usage
("timestamp:<epoch>", then one "address:first/second" line per client, in bytes)
and rewrites the files of the current hour, day and month; the header's time and
the daemon's clock move together.

The clients: i = 1 .. 300 at 192.168.(i // 256).(i % 256), so 192.168.0.1 up to
192.168.1.44.  Their types: 192.168.0.10 is a PPTP user ("pptp"), 192.168.0.77 an
L2TP user ("l2tp"), 192.168.0.128 a PPTP user that is also the network of a VPN link
("vpn": the VPN links come last), 192.168.1.0 the network of the static route
192.168.1.0/24 ("sroute"; 192.168.1.7 of that network stays "lan"), every other one
"lan".  A line of the PPTP file without a quoted user name (for 192.168.0.20) is
skipped.  Three more lines are never clients: the router's LAN address
192.168.3.1, 5.200.1.1 (inside 5.192.0.0/12) and WAN 1's address 203.0.113.7.

The kernel's counters at reading k (k = 0 for the first reading after the first
start, counted on through the restart), in bytes:
    first  = 1024 * i * (2 + T(k)),   T(k) = 0+1+...+k = k(k+1)/2
    second = 1024 * i + 512 + 1536 * k
except for the idle clients i = 60, 120, 180, 240, 300, which stay at
first = 2048 * i and second = 1024 * i + 512 (2i and i KiB).  So in KiB:

    k            0   1   2   3   4   5   6   7   8   9   10  11
    first / i    2   3   5   8   12  17  23  30  38  47  57  68
    second - i   0   2   3   5   6   8   9   11  12  14  15  17

and between two readings j < k the first counter grows by (T(k) - T(j)) * i KiB and
the second by 1536 * (k - j) bytes: 1, 3, 4, 6 KiB for 1, 2, 3, 4 readings (the sum is
taken in bytes, the remainder dropped only when a file is written).

Rules the derivations rely on:
- a client is counted from its second reading on, then with its whole kernel
  counters; after that every reading adds what its counters grew;
- a new hour, day or month zeroes the table's counters and clears "present": the
  first reading of a period counts only the growth since the last reading of the
  previous one, and a client whose counters did not move is not written;
- a file line is "address,type,first KiB,second KiB"; the lines follow the hash
  chains.  Modulo 8191, 2^13 is 1, so 192.168.x.y = 192*2^24 + 168*2^16 + 256x + y
  is 192*2048 + 168*8 + 256x + y = 394560 + 256x + y, i.e. chain 1392 + 256x + y:
  chains 1393 .. 1692 for our clients, one client each, rising with the address.
  So every file lists its clients in address order;
- SIGHUP gives a tick and then a full backup (rm -rf, then cp -rf of each live
  directory to /tmp/ruvo_client_hourly, _daily, _monthly); SIGUSR1 a backup alone;
  SIGTERM none;
- at start-up the live directories are removed and copied back from the backups;
  the current hour's, day's and month's files are loaded as baselines: a loaded
  client's first reading sets its counters to the loaded values plus the whole
  kernel counters.

The timeline (UTC), readings r0 .. r11:
    r0  03-30 23:35   every client new: nothing written
    r1  03-30 23:50   whole counters
    r2  03-31 00:10   new hour and day
    r3  03-31 00:40
    r4  03-31 01:15   new hour
    r5  04-01 00:05   new hour, day and month
    r6  04-01 00:35
    r7  04-01 01:05   new hour; by SIGHUP, so the backups follow
    r8  04-01 01:25   lost: no backup before the stop
    --  stop; start again at 04-01 01:40 with the r7 files
    r9  04-01 01:45   the loaded clients' first readings
    r10 04-01 01:55   the idle clients, new after the restart, counted whole
    r11 04-01 02:05   new hour; then SIGUSR1
"""

import calendar
import difflib
import os
import signal
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean when CTest runs this from here
import harness  # noqa: E402
from harness import SharedTmpTestCase  # noqa: E402

CLIENT_USAGE = "/proc/korel/config/client_usage"
CONFIG = "/usr/local/velto/conf/config"
TIME_INITIALIZED = "/var/run/korel/time_initialized"
SCRATCH = "/tmp/ruvo_client.tmp"

LIVE = {"hourly": "/var/run/korel/client_usage_hourly",
        "daily": "/var/run/korel/client_usage_daily",
        "monthly": "/var/run/korel/client_usage_monthly"}
BACKUP = {"hourly": "/tmp/ruvo_client_hourly",
          "daily": "/tmp/ruvo_client_daily",
          "monthly": "/tmp/ruvo_client_monthly"}

CLIENTS = range(1, 301)
IDLE = (60, 120, 180, 240, 300)
TYPES = {10: "pptp", 77: "l2tp", 128: "vpn", 256: "sroute"}
NOT_CLIENTS = ("192.168.3.1", "5.200.1.1", "203.0.113.7")

ROUTER_CONFIG = ("WAN1_NAME=Fibre\n"
                 "WAN2_NAME=LTE\n"
                 "LAN_STROUTE_ORDER=1\n"
                 "LAN_STROUTE1=192.168.1.0/24:192.168.0.254\n")
PPTP_USERS = ('"alice" 192.168.0.10 ppp0\n'
              "\n"
              "nobody 192.168.0.20 ppp1\n"
              '"bob" 192.168.0.128 ppp2\n')
L2TP_USERS = '"carol" 192.168.0.77 ppp3\n'
VPN_LINKS = "1 net 192.168.0.128 255.255.255.128\n"


def utc(text):
    """Epoch seconds of a "YYYY-mm-dd HH:MM:SS" UTC time."""
    return calendar.timegm(time.strptime(text, "%Y-%m-%d %H:%M:%S"))


def address(i):
    return "192.168.%d.%d" % (i // 256, i % 256)


def triangle(k):
    return k * (k + 1) // 2


def kernel_file(k, when):
    """/proc/korel/config/client_usage at reading k, stamped when."""
    out = ["timestamp:%d" % when]
    for text in NOT_CLIENTS:
        out.append("%s:%d/%d" % (text, 4096 * (k + 1), 8192 * (k + 1)))
    for i in CLIENTS:
        if i in IDLE:
            first, second = 2048 * i, 1024 * i + 512
        else:
            first, second = 1024 * i * (2 + triangle(k)), 1024 * i + 512 + 1536 * k
        out.append("%s:%d/%d" % (address(i), first, second))
    return "".join(line + "\n" for line in out)


def usage(first_per_client, second_per_client, second_plus, idle):
    """A client file: for every client i, in address order, the line
    "address,type,first,second" with first = first_per_client * i and
    second = second_per_client * i + second_plus (KiB); an idle client has the
    line "address,lan,2i,i" when idle is true and none otherwise."""
    out = []
    for i in CLIENTS:
        if i in IDLE:
            if idle:
                out.append("%s,lan,%d,%d\n" % (address(i), 2 * i, i))
            continue
        out.append("%s,%s,%d,%d\n" % (address(i), TYPES.get(i, "lan"), first_per_client * i,
                                      second_per_client * i + second_plus))
    return "".join(out)


# The files, as derived from the table in the module's docstring.
# r1: whole counters, 3i and i+2; the idle clients 2i and i.
AT_R1 = usage(3, 1, 2, idle=True)
# r1 -> r3: first (8-3)i = 5i, second 2 readings = 3.
HOUR_0331_00 = usage(5, 0, 3, idle=False)
# r3 -> r4: (12-8)i = 4i, 1.
HOUR_0331_01 = usage(4, 0, 1, idle=False)
# r1 -> r4: (12-3)i = 9i, 3 readings = 4 (4.5 dropped).
DAY_0331 = usage(9, 0, 4, idle=False)
# March, whole at r4: 12i, i+6; the idle clients were counted at r1.
MONTH_03 = usage(12, 1, 6, idle=True)
# r4 -> r5: (17-12)i = 5i, 1: the first reading of the new hour, day and month.
APRIL_R5 = usage(5, 0, 1, idle=False)
# r4 -> r6: (23-12)i = 11i, 3.
APRIL_R6 = usage(11, 0, 3, idle=False)
# r6 -> r7: (30-23)i = 7i, 1.
HOUR_0401_01_R7 = usage(7, 0, 1, idle=False)
# r4 -> r7: (30-12)i = 18i, 4.
APRIL_R7 = usage(18, 0, 4, idle=False)
# r6 -> r8: (38-23)i = 15i, 3.
HOUR_0401_01_R8 = usage(15, 0, 3, idle=False)
# r4 -> r8: (38-12)i = 26i, 6.
APRIL_R8 = usage(26, 0, 6, idle=False)
# After the restart the hour 01 file of r7 (7i, 1) and the April files of r7 (18i, 4) are
# the baselines.  r9: the loaded values plus the whole counters (47i and i+14, exactly
# 1024 * (i+14) bytes): hour 01 7i+47i = 54i, 1+i+14 = i+15; April 18i+47i = 65i,
# 4+i+14 = i+18.  The idle clients were in none of these files: r9 creates them.
HOUR_0401_01_R9 = usage(54, 1, 15, idle=False)
APRIL_R9 = usage(65, 1, 18, idle=False)
# r10 adds r9 -> r10, (57-47)i = 10i and 1536 bytes: hour 01 64i and
# 1024(i+15) + 1536 = 1024(i+16) + 512 bytes, so i+16; April 75i, i+19.  The idle
# clients' second reading: their whole counters, 2i and i.
HOUR_0401_01_R10 = usage(64, 1, 16, idle=True)
APRIL_R10 = usage(75, 1, 19, idle=True)
# r11, a new hour: r10 -> r11 (68-57)i = 11i, 1; the idle clients did not move.
# April adds 11i and 1536 bytes: 86i, 1024(i+19) + 512 + 1536 = 1024(i+21), so i+21.
HOUR_0401_02 = usage(11, 0, 1, idle=False)
APRIL_R11 = usage(86, 1, 21, idle=True)


class ClientUsageTest(SharedTmpTestCase):
    """Three hundred clients over a day and a month end, a backup, and a restart."""

    def setUp(self):
        super().setUp()
        router = self.router
        router.write(TIME_INITIALIZED, "")
        router.write(CONFIG, ROUTER_CONFIG)
        router.write("/etc/VELTO_wanno", "2\n")
        router.write("/var/run/korel/lan", "LAN_IPADDR=192.168.3.1\n")
        router.write("/var/run/korel/wanip/wan1", "203.0.113.7\n")
        router.write("/proc/korel/config/vpnlinks", VPN_LINKS)
        # /var/log is <tree>/var/log in the namespace of a SharedTmpRouter.
        log_dir = os.path.join(router.dirs["var"], "log")
        os.mkdir(log_dir, 0o755)
        for name, content in (("pptpd_user", PPTP_USERS), ("l2tps_user", L2TP_USERS)):
            with open(os.path.join(log_dir, name), "w") as f:
                f.write(content)

    def reading(self, k, when, signo=signal.SIGALRM):
        """Kernel reading k at when (UTC text), then the tick that signo drives."""
        epoch = utc(when)
        self.router.write(CLIENT_USAGE, kernel_file(k, epoch))
        self.router.set_clock(epoch)
        self.router.send(signo)

    def assertDirectories(self, moment, directories, expected):
        """Each directory (hourly, daily, monthly) holds exactly the expected files."""
        for kind in ("hourly", "daily", "monthly"):
            directory = directories[kind]
            files = expected[kind]
            with self.subTest(moment=moment, directory=directory):
                self.assertTrue(os.path.isdir(self.router.host(directory)),
                                "%s is not a directory" % directory)
                self.assertEqual(sorted(os.listdir(self.router.host(directory))),
                                 sorted(name + ".csv" for name in files))
                for name in sorted(files):
                    path = "%s/%s.csv" % (directory, name)
                    self.assertText(path, self.router.read(path), files[name])
        with self.subTest(moment=moment, path=SCRATCH):
            self.assertFalse(self.router.exists(SCRATCH), "%s was left behind" % SCRATCH)

    def assertText(self, path, actual, expected):
        """actual equals expected; a failure shows the start of a line diff, not a cut repr."""
        if actual == expected:
            return
        diff = list(difflib.unified_diff(expected.splitlines(True), actual.splitlines(True),
                                         "expected " + path, "actual " + path, n=1))
        shown = "".join(diff[:40]) + ("...\n" if len(diff) > 40 else "")
        self.fail("%s differs (%d lines expected, %d found):\n%s"
                  % (path, expected.count("\n"), actual.count("\n"), shown))

    def test_clients_across_a_month_end_backup_and_restart(self):
        router = self.router
        router.set_clock(utc("2024-03-30 23:30:00"))
        router.start()
        empty = {"hourly": {}, "daily": {}, "monthly": {}}
        self.assertDirectories("after start-up", LIVE, empty)
        self.assertDirectories("after start-up", BACKUP, empty)

        self.reading(0, "2024-03-30 23:35:00")
        self.assertDirectories("after the first reading", LIVE, empty)

        self.reading(1, "2024-03-30 23:50:00")
        self.assertDirectories("after the second reading", LIVE, {
            "hourly": {"2024-03-30-23": AT_R1},
            "daily": {"2024-03-30": AT_R1},
            "monthly": {"2024-03-01": AT_R1},
        })

        self.reading(2, "2024-03-31 00:10:00")
        self.reading(3, "2024-03-31 00:40:00")
        self.assertDirectories("after a new hour and day", LIVE, {
            "hourly": {"2024-03-30-23": AT_R1,
                       "2024-03-31-00": HOUR_0331_00},
            "daily": {"2024-03-30": AT_R1,
                      "2024-03-31": HOUR_0331_00},
            # March, whole at r3: 8i, i+5.
            "monthly": {"2024-03-01": usage(8, 1, 5, idle=True)},
        })

        self.reading(4, "2024-03-31 01:15:00")
        march = {
            "hourly": {"2024-03-30-23": AT_R1,
                       "2024-03-31-00": HOUR_0331_00,
                       "2024-03-31-01": HOUR_0331_01},
            "daily": {"2024-03-30": AT_R1,
                      "2024-03-31": DAY_0331},
            "monthly": {"2024-03-01": MONTH_03},
        }
        self.assertDirectories("after a new hour", LIVE, march)

        self.reading(5, "2024-04-01 00:05:00")
        self.assertDirectories("after the month end", LIVE, {
            "hourly": dict(march["hourly"], **{"2024-04-01-00": APRIL_R5}),
            "daily": dict(march["daily"], **{"2024-04-01": APRIL_R5}),
            "monthly": dict(march["monthly"], **{"2024-04-01": APRIL_R5}),
        })

        self.reading(6, "2024-04-01 00:35:00")
        self.reading(7, "2024-04-01 01:05:00", signal.SIGHUP)
        router.wait_for_background_jobs()
        backed_up = {
            "hourly": dict(march["hourly"], **{"2024-04-01-00": APRIL_R6,
                                               "2024-04-01-01": HOUR_0401_01_R7}),
            "daily": dict(march["daily"], **{"2024-04-01": APRIL_R7}),
            "monthly": dict(march["monthly"], **{"2024-04-01": APRIL_R7}),
        }
        self.assertDirectories("after SIGHUP", LIVE, backed_up)
        self.assertDirectories("after SIGHUP", BACKUP, backed_up)

        self.reading(8, "2024-04-01 01:25:00")
        self.assertDirectories("after a tick past the backup", LIVE, {
            "hourly": dict(backed_up["hourly"], **{"2024-04-01-01": HOUR_0401_01_R8}),
            "daily": dict(march["daily"], **{"2024-04-01": APRIL_R8}),
            "monthly": dict(march["monthly"], **{"2024-04-01": APRIL_R8}),
        })
        self.assertDirectories("after a tick past the backup", BACKUP, backed_up)
        self.assertStopsCleanly(router)

        # The restart: the live directories come back from the backups, r8 is lost.
        router.set_clock(utc("2024-04-01 01:40:00"))
        router.start_again()
        self.assertDirectories("after the restart", LIVE, backed_up)
        self.assertDirectories("after the restart", BACKUP, backed_up)

        self.reading(9, "2024-04-01 01:45:00")
        self.assertDirectories("after the first reading after the restart", LIVE, {
            "hourly": dict(backed_up["hourly"], **{"2024-04-01-01": HOUR_0401_01_R9}),
            "daily": dict(march["daily"], **{"2024-04-01": APRIL_R9}),
            "monthly": dict(march["monthly"], **{"2024-04-01": APRIL_R9}),
        })

        self.reading(10, "2024-04-01 01:55:00")
        self.assertDirectories("after the second reading after the restart", LIVE, {
            "hourly": dict(backed_up["hourly"], **{"2024-04-01-01": HOUR_0401_01_R10}),
            "daily": dict(march["daily"], **{"2024-04-01": APRIL_R10}),
            "monthly": dict(march["monthly"], **{"2024-04-01": APRIL_R10}),
        })

        self.reading(11, "2024-04-01 02:05:00")
        final = {
            "hourly": dict(backed_up["hourly"], **{"2024-04-01-01": HOUR_0401_01_R10,
                                                   "2024-04-01-02": HOUR_0401_02}),
            "daily": dict(march["daily"], **{"2024-04-01": APRIL_R11}),
            "monthly": dict(march["monthly"], **{"2024-04-01": APRIL_R11}),
        }
        self.assertDirectories("after a new hour after the restart", LIVE, final)
        # No backup since the restart: still the files of r7.
        self.assertDirectories("after a new hour after the restart", BACKUP, backed_up)

        router.send(signal.SIGUSR1)
        self.assertDirectories("after SIGUSR1", LIVE, final)
        self.assertDirectories("after SIGUSR1", BACKUP, final)
        self.assertStopsCleanly(router)


if __name__ == "__main__":
    harness.main()
