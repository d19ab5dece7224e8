"""Inputs that are not what they should be, planted under the running daemon: a FIFO
without a writer, and a sparse file of 1 GiB + 1 byte, at the name of a file it reads.

The real executable runs on a SharedTmpRouter (its /var/run inside /tmp, /var/log in
the tree) with the clock set (time_initialized present), in UTC, with three WAN links,
WAN 2 a dual-SIM link on SIM 2, backups of WAN 1 and of WAN 2's SIM 1, client and MAC
files of the current hour, day and month in their backup places, the configuration
with names, allowances, billing days and a static route, the LAN file, PPTP and L2TP
users, a VPN link, WAN 1's address, the ARP table, lifetime counts, and a regular file
at /etc/event_pipe, so that every tick asks for the deleted-ARP list, which is put at
/var/run/korel/deleted_arp.wlan before every tick.

One run: start at 2024-03-05 13:58:00; SIGALRM ticks at 13:59:00 and, after the
client and MAC files of 14:00 have been put in the live directories, at 14:00:30;
SIGHUP at 14:01:00 (a tick, then a full backup); SIGTERM.  Every start-up and every
tick must end with the daemon back in pause within the harness's limits: a read that
blocked would show as a timeout here, not as a hang.

Each input gets runs of its own, with everything else as above:
- a FIFO there: the run's trace (every file of the tree, the syslog lines, the
  configuration saver's calls, the exit status) is exactly the trace of the same run
  with an empty file there;
- a 1 GiB + 1 byte file there: the trace is exactly the one with no file there (for
  /var/run/korel/wanip/timestamp, of which only the modification time counts, the one
  with a small file of the same time), and nothing read the file (inotify; not checked
  for the files that the start-up copies before the daemon reads the copy);
- and the run with the normal content there has another trace, so the input is one that
  the run reads.
The planted file itself, while it is still in place, is not part of the trace; the
copies that the start-up's restore and the backups make of it with cp show as an empty
file (of a FIFO) or not at all (of the 1 GiB + 1 byte file).

A FIFO is not planted among the MAC backups in /tmp/ruvo_client_mac_hourly: the
start-up restores them with "cp -f", which opens a FIFO and waits for a writer before
the daemon reads anything; the daemon's own reading of the MAC hour files is covered by
the FIFO planted for the next hour in the live directory.
"""

import calendar
import collections
import ctypes
import ctypes.util
import difflib
import os
import signal
import stat
import struct
import sys
import time

sys.dont_write_bytecode = True  # keep the source tree clean when CTest runs this from here
import harness  # noqa: E402
from harness import SharedTmpTestCase  # noqa: E402

OVERSIZED = (1 << 30) + 1
# The modification time of every file put in the tree, so that two runs see the same
# times (the configuration and the WAN addresses are reloaded when a time changes).
PLANTED_MTIME = 1709640000  # 2024-03-05 12:00:00 UTC

TIME_INITIALIZED = "/var/run/korel/time_initialized"
EVENT_PIPE = "/etc/event_pipe"
DELETED_ARP = "/var/run/korel/deleted_arp.wlan"

ROUTER_CONFIG = ("WAN1_NAME=Fibre\n"
                 "WAN2_NAME=LTE\n"
                 "WAN3_NAME=DSL\n"
                 "SNMP_NAME=edge-router\n"
                 "WAN1_USAGE_START_DAY=1\n"
                 "WAN1_USAGE_QUOTA=1000000\n"
                 "WAN1_USAGE_ACTION=email\n"
                 "PIF2_GOBI_USAGE_START_DAY=15\n"
                 "PIF2_GOBI_USAGE_QUOTA=2000000\n"
                 "LAN_STROUTE_ORDER=1\n"
                 "LAN_STROUTE1=192.168.50.0/24:br0\n")

# The kernel's clients: the router's LAN address, a plain LAN client with an ARP entry, a
# client only the deleted list knows, a PPTP and an L2TP user, a VPN network, a static
# route's network and the router's WAN 1 address.
CLIENTS = ("192.168.1.1", "192.168.1.20", "192.168.1.30", "192.168.1.50",
           "192.168.1.60", "10.8.0.0", "192.168.50.0", "203.0.113.5")


def utc(text):
    """Epoch seconds of a "YYYY-mm-dd HH:MM:SS" UTC time."""
    return calendar.timegm(time.strptime(text, "%Y-%m-%d %H:%M:%S"))


def arp_line(address, mac):
    return "%-16s %-11s %-11s %-17s     %-8s %s\n" % (address, "0x1", "0x2", mac, "*", "br0")


ARP_TABLE = ("IP address       HW type     Flags       HW address            Mask     Device\n"
             + arp_line("192.168.1.20", "02:00:00:00:00:20")
             + arp_line("192.168.1.50", "02:00:00:00:00:50")
             + arp_line("192.168.1.60", "02:00:00:00:00:60"))

START = utc("2024-03-05 13:58:00")
TICKS = ((1, utc("2024-03-05 13:59:00"), signal.SIGALRM),
         (2, utc("2024-03-05 14:00:30"), signal.SIGALRM),
         (3, utc("2024-03-05 14:01:00"), signal.SIGHUP))


def link_usage(k, when):
    mib = 1 << 20
    text = "timestamp:%d\n" % when
    for n in (1, 2, 3):
        text += "CON:%d\nOVERALL:%d %d\n" % (n, (100 * n + 3 * k) * mib, (10 * n + k) * mib)
    return text


def client_usage(k, when):
    text = "timestamp:%d\n" % when
    for i, address in enumerate(CLIENTS, 1):
        text += "%s:%d/%d\n" % (address, 4096 * (k + 1) * i, 1024 * (k + 1) * i)
    return text


Input = collections.namedtuple("Input", "path content when stat_only")
# when: "start" (in place before the start-up), "tick" (put again before every tick) or
# "next hour" (put after the first tick, for the second).  content None: normally absent.
INPUTS = (
    Input("/etc/VELTO_wanno", "3\n", "start", False),
    Input("/etc/gobi_dual_sim_support", "2\n", "start", False),
    Input("/etc/gpio_map/cell0_slot", "2\n", "start", False),
    Input("/proc/korel/config/link_usage", link_usage, "tick", False),
    Input("/usr/local/velto/conf/config", ROUTER_CONFIG, "start", False),
    Input("/var/run/korel/lan", "LAN_IPADDR=192.168.1.1\n", "start", False),
    Input("/var/log/pptpd_user", '"alice" 192.168.1.50 ppp0\n', "start", False),
    Input("/var/log/l2tps_user", '"bob" 192.168.1.60 ppp1\n', "start", False),
    Input("/proc/korel/config/vpnlinks", "1 net 10.8.0.0 255.255.255.0\n", "start", False),
    # Missing, so that the WAN addresses are read at every tick.
    Input("/var/run/korel/wanip/timestamp", None, "start", True),
    Input("/var/run/korel/wanip/wan1", "203.0.113.5\n", "start", False),
    Input("/proc/korel/config/client_usage", client_usage, "tick", False),
    Input("/proc/net/arp", ARP_TABLE, "start", False),
    Input(DELETED_ARP, "192.168.1.30 02:00:00:00:00:30\n", "tick", False),
    Input("/var/run/korel/lifetime_usage.init", "1700000000\n1000\n2000\n", "start", False),
    Input("/tmp/ruvo_backup/wan1/ruvo.hourly.csv",
          "2024-03-05-13,1048576,2097152\n2024-03-05-12,3145728,4194304\n"
          "2024-03-05-11,5242880,6291456\n", "start", False),
    Input("/tmp/ruvo_backup/wan1/ruvo.daily.csv",
          "2024-03-05,10485760,20971520\n2024-03-04,31457280,41943040\n", "start", False),
    Input("/tmp/ruvo_backup/wan1/ruvo.monthly.csv",
          "2024-03-01,2024-03-05,104857600,209715200\n"
          "2024-02-01,2024-02-29,314572800,419430400\n", "start", False),
    Input("/tmp/ruvo_backup/wan1/ruvo.billing.csv",
          "2024-03-01,2024-03-05,104857600,209715200\n"
          "2024-02-01,2024-02-29,314572800,419430400\n", "start", False),
    Input("/tmp/ruvo_backup/wan2/ruvo.sim1.hourly.csv",
          "2024-03-05-13,2097152,1048576\n2024-03-05-10,4194304,3145728\n", "start", False),
    Input("/tmp/ruvo_backup/wan2/ruvo.sim1.daily.csv",
          "2024-03-05,20971520,10485760\n2024-03-03,41943040,31457280\n", "start", False),
    Input("/tmp/ruvo_backup/wan2/ruvo.sim1.monthly.csv",
          "2024-03-01,2024-03-05,209715200,104857600\n"
          "2024-01-01,2024-01-31,419430400,314572800\n", "start", False),
    Input("/tmp/ruvo_backup/wan2/ruvo.sim1.billing.csv",
          "2024-02-15,2024-03-05,209715200,104857600\n"
          "2024-01-15,2024-02-14,419430400,314572800\n", "start", False),
    # The client and MAC files of the current hour, day and month: put in their backup
    # places, copied into the live directories by the start-up and read from there.
    Input("/tmp/ruvo_client_hourly/2024-03-05-13.csv",
          "192.168.1.20,lan,10,20\n192.168.1.77,lan,3,4\n", "start", False),
    Input("/tmp/ruvo_client_daily/2024-03-05.csv",
          "192.168.1.20,lan,100,200\n192.168.1.77,pptp,30,40\n", "start", False),
    Input("/tmp/ruvo_client_monthly/2024-03-01.csv",
          "192.168.1.20,lan,1000,2000\n192.168.1.78,lan,300,400\n", "start", False),
    Input("/tmp/ruvo_client_mac_hourly/2024-03-05-13.csv",
          "02:00:00:00:00:20,lan,7,8\n*192.168.1.99,lan,1,1\n", "start", False),
    # The next hour's files, read when the tick at 14:00:30 finds a new hour.  They appear
    # only after the first tick: the retention would remove a file dated after the hour.
    Input("/var/run/korel/client_usage_hourly/2024-03-05-14.csv",
          "192.168.1.20,lan,5,6\n192.168.1.88,lan,1,2\n", "next hour", False),
    Input("/var/run/korel/client_usage_mac_hourly/2024-03-05-14.csv",
          "02:00:00:00:00:20,lan,3,4\n*192.168.1.98,pptp,2,2\n", "next hour", False),
)

# "cp -f" of the start-up's MAC restore would open a FIFO there and wait for a writer.
NO_FIFO = ("/tmp/ruvo_client_mac_hourly/2024-03-05-13.csv",)

NORMAL, ABSENT, EMPTY, SMALL, FIFO, OVERSIZED_FILE = (
    "normal", "absent", "empty", "small", "fifo", "oversized")


# Files that the start-up's restore copies (cp) into a live directory, where the daemon
# reads the copy: whether the planted file itself is read says nothing of the daemon.
READ_AS_COPIES = ("/tmp/ruvo_client_hourly/2024-03-05-13.csv",
                  "/tmp/ruvo_client_daily/2024-03-05.csv",
                  "/tmp/ruvo_client_monthly/2024-03-01.csv",
                  "/tmp/ruvo_client_mac_hourly/2024-03-05-13.csv")

IN_ACCESS = 0x1
IN_NONBLOCK = 0o4000


class ReadCounter:
    """Counts the reads of the files it watches, by anyone and through any mount of them
    (inotify IN_ACCESS); an open or a stat is not a read."""

    def __init__(self):
        self._libc = ctypes.CDLL(ctypes.util.find_library("c") or "libc.so.6", use_errno=True)
        self._fd = self._libc.inotify_init1(IN_NONBLOCK)
        if self._fd < 0:
            raise OSError(ctypes.get_errno(), "inotify_init1")
        self.reads = 0

    def watch(self, host):
        if self._libc.inotify_add_watch(self._fd, os.fsencode(host), IN_ACCESS) < 0:
            error = ctypes.get_errno()
            raise OSError(error, "inotify_add_watch", host)

    def take(self):
        """Counts the events that arrived; returns the total so far."""
        while True:
            try:
                data = os.read(self._fd, 4096)
            except BlockingIOError:
                return self.reads
            offset = 0
            while offset < len(data):
                _, mask, _, name_len = struct.unpack_from("iIII", data, offset)
                if mask & IN_ACCESS:
                    self.reads += 1
                offset += 16 + name_len

    def close(self):
        os.close(self._fd)


def host_path(router, path):
    """Where a path the daemon sees lives in the tree (also /var/log)."""
    if path.startswith("/var/log/"):
        return os.path.join(router.dirs["var"], "log", path[len("/var/log/"):])
    return router.host(path)


def identity(info):
    """What tells one file from another that may later get its inode number."""
    return info.st_dev, info.st_ino, info.st_mode, info.st_size, info.st_mtime_ns


class Planter:
    """Writes the inputs of one run: the normal content everywhere but at the name under
    test, where it plants the run's file (and plants it again once the daemon took it)."""

    def __init__(self, router, under_test, mode, reads):
        self.router = router
        self.under_test = under_test
        self.mode = mode
        self.reads = reads  # a ReadCounter that watches every file planted
        self.planted = set()  # identities of the files planted

    def is_planted(self, host):
        try:
            return identity(os.lstat(host)) in self.planted
        except FileNotFoundError:
            return False

    def put(self, path, content):
        host = host_path(self.router, path)
        os.makedirs(os.path.dirname(host), mode=0o755, exist_ok=True)
        mode = self.mode if path == self.under_test else NORMAL
        if mode != NORMAL and self.is_planted(host):
            return
        if os.path.lexists(host):
            os.unlink(host)
        if mode == NORMAL:
            if content is None:
                return
            with open(host, "w") as f:
                f.write(content)
        elif mode == ABSENT:
            return
        elif mode in (EMPTY, SMALL):
            with open(host, "w") as f:
                f.write("" if mode == EMPTY else "1\n")
        elif mode == FIFO:
            os.mkfifo(host, 0o644)
        elif mode == OVERSIZED_FILE:
            with open(host, "wb") as f:
                f.truncate(OVERSIZED)
        os.utime(host, (PLANTED_MTIME, PLANTED_MTIME))
        if mode != NORMAL:
            self.planted.add(identity(os.lstat(host)))
            self.reads.watch(host)


def tree_text(router, planter):
    """Every entry of the tree that the daemon can see or write, in name order, with the
    content of the regular files; the planted file, while it is in place, is left out.

    The start-up's restore and the backups copy files with cp, so a planted file may also
    have copies that the daemon never replaced (a client file of an hour without traffic).
    Since the daemon itself never makes a FIFO nor a file of 1 GiB + 1 byte, a FIFO is
    shown as an empty file and a file of 1 GiB + 1 byte is left out: a copy of a planted
    FIFO then looks like the copy of an empty file, a copy of an oversized file like none.
    """
    roots = (("/tmp", router.dirs["tmp"]),  # /var/run lies in it, as /tmp/run
             ("/etc", router.dirs["etc"]),
             ("/usr/local", router.dirs["usr-local"]),
             ("/proc", router.dirs["proc"]),
             ("/var/log", os.path.join(router.dirs["var"], "log")))
    out = []
    for shown, base in roots:
        for directory, subdirectories, names in os.walk(base):
            subdirectories.sort()
            for name in sorted(subdirectories + names):
                host = os.path.join(directory, name)
                path = os.path.join(shown, os.path.relpath(host, base))
                info = os.lstat(host)
                if identity(info) in planter.planted:
                    continue
                if stat.S_ISDIR(info.st_mode):
                    out.append("%s/ %o" % (path, stat.S_IMODE(info.st_mode)))
                elif stat.S_ISFIFO(info.st_mode):
                    out.append("%s %o:\n<end>" % (path, stat.S_IMODE(info.st_mode)))
                elif stat.S_ISREG(info.st_mode) and info.st_size == OVERSIZED:
                    continue
                elif stat.S_ISREG(info.st_mode) and info.st_size <= 1 << 20:
                    with open(host, errors="replace") as f:
                        content = f.read().replace(router.root, "<tree>")
                    out.append("%s %o:\n%s<end>" % (path, stat.S_IMODE(info.st_mode), content))
                else:
                    out.append("%s mode %o size %d" % (path, info.st_mode, info.st_size))
    return out


class PlantedInputTest(SharedTmpTestCase):

    # The trace of the run with every input normal, made once for both tests.
    normal_trace = None

    def normal(self):
        if PlantedInputTest.normal_trace is None:
            PlantedInputTest.normal_trace, _ = self.run_router()
        return PlantedInputTest.normal_trace

    def run_router(self, under_test=None, mode=NORMAL):
        """One run (see the module's text) with the given file at under_test: its trace
        and the number of reads of the planted file."""
        router = harness.SharedTmpRouter()
        reads = ReadCounter()
        try:
            planter = Planter(router, under_test, mode, reads)
            router.write(TIME_INITIALIZED, "")
            router.write(EVENT_PIPE, "")
            for n in (1, 2, 3):  # made by the firmware on a router
                os.mkdir(router.host("/var/run/korel/wan%d" % n), 0o755)
            for item in INPUTS:
                if item.when == "start":
                    planter.put(item.path, item.content)
            self.put_tick_inputs(planter, 0, START)
            router.set_clock(START)
            router.start()
            for k, when, signo in TICKS:
                if k == 2:
                    for item in INPUTS:
                        if item.when == "next hour":
                            planter.put(item.path, item.content)
                self.put_tick_inputs(planter, k, when)
                router.set_clock(when)
                router.send(signo)
            calls = router.calls_when_done()
            self.assertStopsCleanly(router)
            trace = tree_text(router, planter)
            trace += ["syslog %d %s: %s" % record for record in router.syslog.collect()]
            trace += ["saveconfig " + calls, "exit %d" % router.exit_status]
            return trace, reads.take()
        finally:
            reads.close()
            router.cleanup()

    def put_tick_inputs(self, planter, k, when):
        for item in INPUTS:
            if item.when == "tick":
                content = item.content(k, when) if callable(item.content) else item.content
                planter.put(item.path, content)

    def assertSameTrace(self, expected, actual, what):
        if expected == actual:
            return
        diff = "".join(difflib.unified_diff([line + "\n" for line in expected],
                                            [line + "\n" for line in actual],
                                            "expected", what, n=2))
        self.fail("%s differs:\n%s" % (what, diff[:6000]))

    def test_fifo_without_writer_reads_as_an_empty_file(self):
        normal = self.normal()
        for item in INPUTS:
            if item.path in NO_FIFO:
                continue
            with self.subTest(input=item.path):
                with_fifo, _ = self.run_router(item.path, FIFO)
                with_empty_file, _ = self.run_router(item.path, EMPTY)
                self.assertSameTrace(with_empty_file, with_fifo, "the run with a FIFO at " + item.path)
                self.assertTrue(normal != with_empty_file,
                                "the normal content of %s changes nothing" % item.path)

    def test_file_over_the_limit_counts_as_missing(self):
        normal = self.normal()
        for item in INPUTS:
            with self.subTest(input=item.path):
                oversized, reads = self.run_router(item.path, OVERSIZED_FILE)
                reference, _ = self.run_router(item.path, SMALL if item.stat_only else ABSENT)
                self.assertSameTrace(reference, oversized,
                                     "the run with a 1 GiB + 1 byte file at " + item.path)
                if item.path not in READ_AS_COPIES:
                    self.assertEqual(reads, 0, "the 1 GiB + 1 byte file at %s was read" % item.path)
                self.assertTrue(normal != reference,
                                "the normal content of %s changes nothing" % item.path)


if __name__ == "__main__":
    harness.main()
