"""Per-client usage by MAC address of the running daemon: ARP snapshots, the deleted-ARP
list asked for on /etc/event_pipe, the hourly files, their retention, backup and restart.

The real executable runs on a SharedTmpRouter with the clock set (time_initialized
present), in UTC on 2024-03-05.  Every tick reads /proc/korel/config/client_usage
("timestamp:<epoch>", then "address:first/second" in bytes); the header's time and the
daemon's clock move together.  Each counted change of the hourly client table is resolved
to a MAC through the ARP table read at this tick, then the one read at the tick before,
then the deleted list of this tick; without a MAC it is kept as "*address" with the
client's type.  After every tick the hour's table is written whole to
/var/run/korel/client_usage_mac_hourly/<%Y-%m-%d-%H>.csv, one line
"key,type,first KiB,second KiB" per entry, largest total (first + second) first; a MAC
entry is always "lan".

The clients (all on 192.168.1.0/24; counters in KiB, k = the reading's number):
    A  .10  02:00:00:00:00:0A  br0, complete (0x2)        first 1000+200k, second 100+20k
    B  .20  02:00:00:00:00:0B  br0, complete (0x2); gone from the ARP table from r2 to
                               r5, back from r6                 600+100k, 60+10k
    C  .30  02:00:00:00:00:0C  br0, permanent (0x6) at r0 and r1: 300, 30 at r0, then
                               350, 35 for good
       .31  the same MAC, br0, permanent (0x6) from r2 on: new at r2 with 40, 4, then
                               +20, +2 a reading, so 40+20(k-2), 4+2(k-2)
    D  .40  02:00:00:00:00:0D  only a wlan0 entry (complete) and an incomplete br0 entry
                               (0x0, MAC 00:00:00:00:00:00): known only through the
                               deleted list                     80+30k, 8+3k
    E  .50  02:00:00:00:00:0E  an eth0 entry only; a PPTP user ("pptp")
                                                                20+5k, 2+k
Neither wlan0 nor eth0 begins with "br", so D and E are never found in the ARP table.

Rules the derivations rely on:
- a client is counted from its second reading on, then with its whole kernel counters;
  after that every reading adds what its counters grew; counters that did not move add
  nothing;
- the MAC entry gets exactly what the hourly client table counted, resolved at that tick;
- a new hour empties the MAC table: the first reading of the hour counts only the growth;
- the deleted list (address and MAC per line; the first MAC listed for an address wins,
  0.0.0.0 is skipped) counts for the one tick whose request it answers;
- the directory keeps the 3 newest hour files before each save, so right after the first
  save of a new hour it holds 4;
- at start-up the live directories are removed and copied back from /tmp; the current
  hour's MAC file is loaded (KiB * 1024) and the current hour's client file is loaded as
  baselines: a loaded client's first reading adds the loaded values plus its whole kernel
  counters, and that whole amount is added to the loaded MAC entry too.

The timeline (test_deleted_list_over_hours_backup_and_restart); the deleted list answered:
    r0  13:41  every client new: an empty file          list: empty
    r1  13:42  whole counters                           list: D (then D again with
                                                              another MAC, and 0.0.0.0)
    r2  13:43  B left the ARP table; C moved to .31     list: empty
    r3  13:44                                           list: D
    r4  14:05  new hour                                 list: D
    r5  15:05  new hour                                 list: empty
    r6  16:05  new hour; B back in the ARP table        list: D
    r7  17:05  new hour: 4 files                        list: D
    r8  17:20  3 files                                  list: D
    r9  17:30  by SIGHUP: the backup follows            list: D
    --  stop; start again at 17:40
    r10 17:45  the loaded hour continues                list: D
"""

import calendar
import difflib
import os
import select
import signal
import stat
import sys
import threading
import time

sys.dont_write_bytecode = True  # keep the source tree clean when CTest runs this from here
import harness  # noqa: E402
from harness import SharedTmpTestCase  # noqa: E402

CLIENT_USAGE = "/proc/korel/config/client_usage"
PROC_NET_ARP = "/proc/net/arp"
EVENT_PIPE = "/etc/event_pipe"
DELETED_ARP = "/var/run/korel/deleted_arp.wlan"
DELETED_ARP_TAKEN = "/var/run/korel/deleted_arp.wlan.ruvo"
TIME_INITIALIZED = "/var/run/korel/time_initialized"
MAC_LIVE = "/var/run/korel/client_usage_mac_hourly"
MAC_BACKUP = "/tmp/ruvo_client_mac_hourly"
REQUEST = b"[DUMP DELETED ARP]\n"

ROUTER_CONFIG = "WAN1_NAME=Fibre\nWAN2_NAME=LTE\n"
PPTP_USERS = '"erin" 192.168.1.50 ppp0\n'

A, B, C_OLD, C_NEW, D, E = ("192.168.1.10", "192.168.1.20", "192.168.1.30", "192.168.1.31",
                            "192.168.1.40", "192.168.1.50")
MAC = {"A": "02:00:00:00:00:0a", "B": "02:00:00:00:00:0b", "C": "02:00:00:00:00:0c",
       "D": "02:00:00:00:00:0d", "E": "02:00:00:00:00:0e"}


def utc(text):
    """Epoch seconds of a "YYYY-mm-dd HH:MM" UTC time."""
    return calendar.timegm(time.strptime(text, "%Y-%m-%d %H:%M"))


def kernel_counters(k):
    """The kernel's counters of reading k in KiB: {address: (first, second)}."""
    counters = {
        A: (1000 + 200 * k, 100 + 20 * k),
        B: (600 + 100 * k, 60 + 10 * k),
        C_OLD: (300, 30) if k == 0 else (350, 35),
        D: (80 + 30 * k, 8 + 3 * k),
        E: (20 + 5 * k, 2 + k),
    }
    if k >= 2:
        counters[C_NEW] = (40 + 20 * (k - 2), 4 + 2 * (k - 2))
    return counters


def kernel_file(k, epoch):
    lines = ["timestamp:%d\n" % epoch]
    for address, (first, second) in sorted(kernel_counters(k).items()):
        lines.append("%s:%d/%d\n" % (address, 1024 * first, 1024 * second))
    return "".join(lines)


def arp_line(address, flags, mac, device):
    """One line of /proc/net/arp as Linux prints it (net/ipv4/arp.c)."""
    return "%-16s 0x%-10x0x%-10x%-17s     *        %s\n" % (address, 1, flags, mac, device)


ARP_HEADER = "IP address       HW type     Flags       HW address            Mask     Device\n"
# D: known to the wireless side, incomplete on the bridge.  E: on the WAN side only.
ARP_D_AND_E = (arp_line(D, 0x2, MAC["D"], "wlan0") + arp_line(D, 0x0, "00:00:00:00:00:00", "br0")
               + arp_line(E, 0x2, MAC["E"], "eth0"))
# r0, r1.
ARP_FIRST = (ARP_HEADER + arp_line(A, 0x2, MAC["A"], "br0") + arp_line(B, 0x2, MAC["B"], "br0")
             + arp_line(C_OLD, 0x6, MAC["C"], "br0") + ARP_D_AND_E)
# r2 .. r5: B has left, C has its new address.
ARP_B_GONE = (ARP_HEADER + arp_line(A, 0x2, MAC["A"], "br0") + arp_line(C_NEW, 0x6, MAC["C"], "br0")
              + ARP_D_AND_E)
# r6 on: B is back.
ARP_B_BACK = (ARP_HEADER + arp_line(A, 0x2, MAC["A"], "br0") + arp_line(B, 0x2, MAC["B"], "br0")
              + arp_line(C_NEW, 0x6, MAC["C"], "br0") + ARP_D_AND_E)

LIST_EMPTY = ""
LIST_D = "%s %s\n" % (D, MAC["D"])
# The first MAC listed for an address wins; 0.0.0.0 is no client.
LIST_D_TWICE = "%s %s\n%s 02:00:00:00:00:99\n0.0.0.0 02:00:00:00:00:77\n" % (D, MAC["D"], D)


def mac_file(*lines):
    return "".join(line + "\n" for line in lines)


# -- The hour files of the deleted-list timeline, worked out from the docstring's table.
# r1, the whole counters at k = 1: A 1200/120 (total 1320), B 700/70 (770), C at .30
# 350/35 (385, permanent entry), D 110/11 (121, through the list), E 25/3 (28, eth0 only).
HOUR_13_R1 = mac_file("02:00:00:00:00:0A,lan,1200,120",
                      "02:00:00:00:00:0B,lan,700,70",
                      "02:00:00:00:00:0C,lan,350,35",
                      "02:00:00:00:00:0D,lan,110,11",
                      "*192.168.1.50,pptp,25,3")
# r2 adds one reading's growth: A +200/20 -> 1400/140; B +100/10 through the ARP table of
# r1 -> 800/80; C's .30 did not move and .31 is new: nothing; D +30/3 with an empty list
# -> "*192.168.1.40" 30/3 (33); E +5/1 -> 30/4 (34).
HOUR_13_R2 = mac_file("02:00:00:00:00:0A,lan,1400,140",
                      "02:00:00:00:00:0B,lan,800,80",
                      "02:00:00:00:00:0C,lan,350,35",
                      "02:00:00:00:00:0D,lan,110,11",
                      "*192.168.1.50,pptp,30,4",
                      "*192.168.1.40,lan,30,3")
# r3: A 1600/160 (1760); B +100/10 known to neither ARP table nor the list -> "*192.168.1.20"
# 100/10 (110); C's .31 whole at k = 3, 60/6, through its permanent entry -> 410/41 (451);
# D +30/3 through the list -> 140/14 (154); E 35/5 (40).
HOUR_13_R3 = mac_file("02:00:00:00:00:0A,lan,1600,160",
                      "02:00:00:00:00:0B,lan,800,80",
                      "02:00:00:00:00:0C,lan,410,41",
                      "02:00:00:00:00:0D,lan,140,14",
                      "*192.168.1.20,lan,100,10",
                      "*192.168.1.50,pptp,35,5",
                      "*192.168.1.40,lan,30,3")
# r4, a new hour: one reading's growth.  A 200/20 (220), B by address 100/10 (110),
# D 30/3 (33), C 20/2 (22), E 5/1 (6).
HOUR_14 = mac_file("02:00:00:00:00:0A,lan,200,20",
                   "*192.168.1.20,lan,100,10",
                   "02:00:00:00:00:0D,lan,30,3",
                   "02:00:00:00:00:0C,lan,20,2",
                   "*192.168.1.50,pptp,5,1")
# r5: the same growth; the list is empty, so D is kept by address.
HOUR_15 = mac_file("02:00:00:00:00:0A,lan,200,20",
                   "*192.168.1.20,lan,100,10",
                   "*192.168.1.40,lan,30,3",
                   "02:00:00:00:00:0C,lan,20,2",
                   "*192.168.1.50,pptp,5,1")
# r6: B is back in the ARP table, D in the list.
HOUR_16 = mac_file("02:00:00:00:00:0A,lan,200,20",
                   "02:00:00:00:00:0B,lan,100,10",
                   "02:00:00:00:00:0D,lan,30,3",
                   "02:00:00:00:00:0C,lan,20,2",
                   "*192.168.1.50,pptp,5,1")
HOUR_17_R7 = HOUR_16
# r8 and r9 add the same growth again.
HOUR_17_R8 = mac_file("02:00:00:00:00:0A,lan,400,40",
                      "02:00:00:00:00:0B,lan,200,20",
                      "02:00:00:00:00:0D,lan,60,6",
                      "02:00:00:00:00:0C,lan,40,4",
                      "*192.168.1.50,pptp,10,2")
HOUR_17_R9 = mac_file("02:00:00:00:00:0A,lan,600,60",
                      "02:00:00:00:00:0B,lan,300,30",
                      "02:00:00:00:00:0D,lan,90,9",
                      "02:00:00:00:00:0C,lan,60,6",
                      "*192.168.1.50,pptp,15,3")
# r10, the first reading after the restart.  The client file of hour 17 (backed up at r9)
# holds A 600/60, B 300/30, .31 60/6, D 90/9 (lan) and E 15/3 (pptp); .30 did not move in
# hour 17 and has no line.  Each loaded client's first reading counts the loaded values
# plus its whole kernel counters at k = 10, and the MAC entries loaded from HOUR_17_R9 get
# that amount on top:
#   A  600+3000 = 3600, 60+300 = 360  -> 600+3600 = 4200, 60+360 = 420  (4620)
#   B  300+1600 = 1900, 30+160 = 190  -> 300+1900 = 2200, 30+190 = 220  (2420)
#   .31 60+200 = 260,    6+20 = 26    ->  60+260  =  320,  6+26  =  32  (352)
#   D   90+380 = 470,    9+38 = 47    ->  90+470  =  560,  9+47  =  56  (616)
#   E   15+70  =  85,    3+12 = 15    ->  15+85   =  100,  3+15  =  18  (118)
# .30 is new to the reloaded hourly table: created, not counted.
HOUR_17_R10 = mac_file("02:00:00:00:00:0A,lan,4200,420",
                       "02:00:00:00:00:0B,lan,2200,220",
                       "02:00:00:00:00:0D,lan,560,56",
                       "02:00:00:00:00:0C,lan,320,32",
                       "*192.168.1.50,pptp,100,18")

# -- Without a deleted list (nobody reads the FIFO, or there is none): r0 .. r3 of the same
# clients; D is always kept by address.
# r1: D 110/11 (121) by address.
ARP_ONLY_R1 = mac_file("02:00:00:00:00:0A,lan,1200,120",
                       "02:00:00:00:00:0B,lan,700,70",
                       "02:00:00:00:00:0C,lan,350,35",
                       "*192.168.1.40,lan,110,11",
                       "*192.168.1.50,pptp,25,3")
# r2: B through the ARP table of r1; D 140/14 (154); E 30/4 (34).
ARP_ONLY_R2 = mac_file("02:00:00:00:00:0A,lan,1400,140",
                       "02:00:00:00:00:0B,lan,800,80",
                       "02:00:00:00:00:0C,lan,350,35",
                       "*192.168.1.40,lan,140,14",
                       "*192.168.1.50,pptp,30,4")
# r3: B by address 100/10 (110); C 410/41 (451); D 170/17 (187); E 35/5 (40).
ARP_ONLY_R3 = mac_file("02:00:00:00:00:0A,lan,1600,160",
                       "02:00:00:00:00:0B,lan,800,80",
                       "02:00:00:00:00:0C,lan,410,41",
                       "*192.168.1.40,lan,170,17",
                       "*192.168.1.20,lan,100,10",
                       "*192.168.1.50,pptp,35,5")
# A deleted list left lying about: read only when a request was sent.
STALE_LIST = "%s %s\n" % (D, MAC["D"])


class DeletedArpServer:
    """Stands in for the wireless side: answers every "[DUMP DELETED ARP]\\n" read from
    the daemon's /etc/event_pipe by writing /var/run/korel/deleted_arp.wlan (through the
    tree) with the current answer, and counts the requests.

    The FIFO is opened as the daemon sees it (through /proc/PID/root), for reading and
    for writing, so that the daemon's non-blocking open finds a reader and the reads
    never see end-of-file.  The answer is written under another name and renamed into
    place, so the daemon never sees half a list.
    """

    def __init__(self, router):
        self.router = router
        self.answer = LIST_EMPTY
        self.received = b""
        self.requests = 0
        self.answered = 0
        self.lock = threading.Lock()
        self.failure = None
        fifo = harness.path_inside(router, EVENT_PIPE)
        self.read_fd = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
        self.keep_fd = os.open(fifo, os.O_WRONLY)
        self.stop_read, self.stop_write = os.pipe()
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        pending = b""
        try:
            while True:
                ready, _, _ = select.select([self.read_fd, self.stop_read], [], [])
                if self.stop_read in ready:
                    return
                pending += os.read(self.read_fd, 4096)
                while b"\n" in pending:
                    message, pending = pending.split(b"\n", 1)
                    message += b"\n"
                    with self.lock:
                        self.received += message
                        if message != REQUEST:
                            continue
                        self.requests += 1
                        answer = self.answer
                    self._write_answer(answer)
                    with self.lock:
                        self.answered += 1
        except Exception as error:  # reported by the test thread
            self.failure = error

    def _write_answer(self, text):
        temporary = os.path.join(self.router.root, "deleted_arp.answer")
        with open(temporary, "w") as f:
            f.write(text)
        os.replace(temporary, self.router.host(DELETED_ARP))

    def take(self):
        """(requests read, bytes read, answers written) so far."""
        with self.lock:
            return self.requests, self.received, self.answered

    def close(self):
        os.write(self.stop_write, b"x")
        self.thread.join(harness.CALL_TIMEOUT)
        for fd in (self.read_fd, self.keep_fd, self.stop_read, self.stop_write):
            os.close(fd)


class MacUsageTest(SharedTmpTestCase):

    def setUp(self):
        super().setUp()
        router = self.router
        router.write(TIME_INITIALIZED, "")
        router.write("/usr/local/velto/conf/config", ROUTER_CONFIG)
        router.write("/etc/VELTO_wanno", "2\n")
        log_dir = os.path.join(router.dirs["var"], "log")
        os.mkdir(log_dir, 0o755)
        with open(os.path.join(log_dir, "pptpd_user"), "w") as f:
            f.write(PPTP_USERS)
        self.server = None

    def tearDown(self):
        if self.server is not None:
            self.server.close()
            self.server = None
        super().tearDown()

    # -- helpers ---------------------------------------------------------------

    def make_event_pipe(self):
        """/etc/event_pipe as a FIFO in the upper directory of the /etc overlay."""
        os.mkfifo(self.router.host(EVENT_PIPE), 0o600)

    def assertEventPipeIsFifoInside(self):
        mode = os.lstat(harness.path_inside(self.router, EVENT_PIPE)).st_mode
        self.assertTrue(stat.S_ISFIFO(mode), "%s is not a FIFO for the daemon (mode %o)"
                        % (EVENT_PIPE, mode))

    def reading(self, k, when, arp, signo=signal.SIGALRM):
        """Kernel reading k and ARP table arp at when (UTC), then the tick signo drives."""
        epoch = utc(when)
        self.router.write(CLIENT_USAGE, kernel_file(k, epoch))
        self.router.write(PROC_NET_ARP, arp)
        self.router.set_clock(epoch)
        self.router.send(signo)

    def served_reading(self, k, when, arp, answer, requests_before, signo=signal.SIGALRM):
        """A reading whose request the server answers with answer; checks that exactly one
        request came and that the answer was taken and removed."""
        self.server.answer = answer
        self.reading(k, when, arp, signo)
        expected = requests_before + 1
        harness.wait_for(lambda: self.server.take()[2] >= expected or self.server.failure,
                         harness.CALL_TIMEOUT, "the answer to the request of reading %d" % k)
        self.assertIsNone(self.server.failure)
        requests, received, _ = self.server.take()
        with self.subTest(reading=k, check="requests"):
            self.assertEqual(requests, expected)
            self.assertEqual(received, REQUEST * expected)
        with self.subTest(reading=k, check="deleted list taken"):
            self.assertFalse(self.router.exists(DELETED_ARP),
                             "%s still there after reading %d (not taken in time?)"
                             % (DELETED_ARP, k))
            self.assertFalse(self.router.exists(DELETED_ARP_TAKEN),
                             "%s left behind after reading %d" % (DELETED_ARP_TAKEN, k))
        return expected

    def assertHourFiles(self, moment, directory, expected):
        """directory holds exactly the hour files expected ({hour name: content})."""
        with self.subTest(moment=moment, directory=directory):
            host = self.router.host(directory)
            self.assertTrue(os.path.isdir(host), "%s is not a directory" % directory)
            self.assertEqual(sorted(os.listdir(host)), sorted(name + ".csv" for name in expected))
            for name in sorted(expected):
                path = "%s/%s.csv" % (directory, name)
                self.assertText(path, self.router.read(path), expected[name])

    def assertText(self, path, actual, expected):
        if actual == expected:
            return
        diff = "".join(difflib.unified_diff(expected.splitlines(True), actual.splitlines(True),
                                            "expected " + path, "actual " + path, n=1))
        self.fail("%s differs:\n%s" % (path, diff))

    def arp_only_readings(self):
        """r0 .. r3 without a deleted list: MAC resolution through the ARP tables alone."""
        self.reading(0, "2024-03-05 13:41", ARP_FIRST)
        self.assertHourFiles("r0", MAC_LIVE, {"2024-03-05-13": ""})
        self.reading(1, "2024-03-05 13:42", ARP_FIRST)
        self.assertHourFiles("r1", MAC_LIVE, {"2024-03-05-13": ARP_ONLY_R1})
        self.reading(2, "2024-03-05 13:43", ARP_B_GONE)
        self.assertHourFiles("r2", MAC_LIVE, {"2024-03-05-13": ARP_ONLY_R2})
        self.reading(3, "2024-03-05 13:44", ARP_B_GONE)
        self.assertHourFiles("r3", MAC_LIVE, {"2024-03-05-13": ARP_ONLY_R3})

    # -- tests -------------------------------------------------------------------

    def test_deleted_list_over_hours_backup_and_restart(self):
        router = self.router
        self.make_event_pipe()
        router.set_clock(utc("2024-03-05 13:40"))
        router.write(PROC_NET_ARP, ARP_FIRST)
        router.start()
        self.assertEventPipeIsFifoInside()
        self.assertHourFiles("after start-up", MAC_LIVE, {})
        self.server = DeletedArpServer(router)

        n = self.served_reading(0, "2024-03-05 13:41", ARP_FIRST, LIST_EMPTY, 0)
        self.assertHourFiles("r0", MAC_LIVE, {"2024-03-05-13": ""})
        n = self.served_reading(1, "2024-03-05 13:42", ARP_FIRST, LIST_D_TWICE, n)
        self.assertHourFiles("r1", MAC_LIVE, {"2024-03-05-13": HOUR_13_R1})
        n = self.served_reading(2, "2024-03-05 13:43", ARP_B_GONE, LIST_EMPTY, n)
        self.assertHourFiles("r2", MAC_LIVE, {"2024-03-05-13": HOUR_13_R2})
        n = self.served_reading(3, "2024-03-05 13:44", ARP_B_GONE, LIST_D, n)
        self.assertHourFiles("r3", MAC_LIVE, {"2024-03-05-13": HOUR_13_R3})

        n = self.served_reading(4, "2024-03-05 14:05", ARP_B_GONE, LIST_D, n)
        self.assertHourFiles("r4, a new hour", MAC_LIVE,
                             {"2024-03-05-13": HOUR_13_R3, "2024-03-05-14": HOUR_14})
        n = self.served_reading(5, "2024-03-05 15:05", ARP_B_GONE, LIST_EMPTY, n)
        n = self.served_reading(6, "2024-03-05 16:05", ARP_B_BACK, LIST_D, n)
        self.assertHourFiles("r6", MAC_LIVE, {"2024-03-05-13": HOUR_13_R3, "2024-03-05-14": HOUR_14,
                                              "2024-03-05-15": HOUR_15, "2024-03-05-16": HOUR_16})
        n = self.served_reading(7, "2024-03-05 17:05", ARP_B_BACK, LIST_D, n)
        self.assertHourFiles("r7, 3 kept + the new one", MAC_LIVE,
                             {"2024-03-05-14": HOUR_14, "2024-03-05-15": HOUR_15,
                              "2024-03-05-16": HOUR_16, "2024-03-05-17": HOUR_17_R7})
        n = self.served_reading(8, "2024-03-05 17:20", ARP_B_BACK, LIST_D, n)
        self.assertHourFiles("r8", MAC_LIVE, {"2024-03-05-15": HOUR_15, "2024-03-05-16": HOUR_16,
                                              "2024-03-05-17": HOUR_17_R8})
        self.assertHourFiles("r8, no backup yet", MAC_BACKUP, {})

        n = self.served_reading(9, "2024-03-05 17:30", ARP_B_BACK, LIST_D, n, signal.SIGHUP)
        router.wait_for_background_jobs()
        backed_up = {"2024-03-05-15": HOUR_15, "2024-03-05-16": HOUR_16,
                     "2024-03-05-17": HOUR_17_R9}
        self.assertHourFiles("after SIGHUP", MAC_LIVE, backed_up)
        self.assertHourFiles("after SIGHUP", MAC_BACKUP, backed_up)

        self.server.close()
        self.server = None
        self.assertStopsCleanly(router)

        router.set_clock(utc("2024-03-05 17:40"))
        router.start_again()
        self.assertEventPipeIsFifoInside()
        self.assertHourFiles("after the restart", MAC_LIVE, backed_up)
        self.assertHourFiles("after the restart", MAC_BACKUP, backed_up)
        self.server = DeletedArpServer(router)
        self.served_reading(10, "2024-03-05 17:45", ARP_B_BACK, LIST_D, 0)
        self.assertHourFiles("r10, after the restart", MAC_LIVE,
                             {"2024-03-05-15": HOUR_15, "2024-03-05-16": HOUR_16,
                              "2024-03-05-17": HOUR_17_R10})
        self.assertHourFiles("r10, after the restart", MAC_BACKUP, backed_up)
        self.server.close()
        self.server = None
        self.assertStopsCleanly(router)

    def test_fifo_without_reader_skips_the_request(self):
        router = self.router
        self.make_event_pipe()
        router.write(DELETED_ARP, STALE_LIST)
        router.set_clock(utc("2024-03-05 13:40"))
        router.write(PROC_NET_ARP, ARP_FIRST)
        router.start()
        self.assertEventPipeIsFifoInside()
        # Every tick ends (send waits for pause) although nobody reads the FIFO.
        self.arp_only_readings()
        self.assertEventPipeIsFifoInside()
        # No request went out, so the list lying there was neither taken nor used.
        self.assertEqual(router.read(DELETED_ARP), STALE_LIST)
        self.assertFalse(router.exists(DELETED_ARP_TAKEN))
        self.assertStopsCleanly(router)

    def test_without_event_pipe_no_request(self):
        router = self.router
        router.write(DELETED_ARP, STALE_LIST)
        router.set_clock(utc("2024-03-05 13:40"))
        router.write(PROC_NET_ARP, ARP_FIRST)
        router.start()
        self.arp_only_readings()
        # Nothing was created at the pipe's name, and the list lying there was not used.
        self.assertFalse(os.path.lexists(harness.path_inside(router, EVENT_PIPE)))
        self.assertFalse(router.exists(EVENT_PIPE))
        self.assertEqual(router.read(DELETED_ARP), STALE_LIST)
        self.assertFalse(router.exists(DELETED_ARP_TAKEN))
        self.assertStopsCleanly(router)


if __name__ == "__main__":
    harness.main()
