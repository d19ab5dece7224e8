#!/usr/bin/env python3
"""The memory of the real ruvo process: private memory after ticks, and at start-up.

Runs the unchanged ruvo executable on the end-to-end tests' fake router (a private mount
namespace over the real paths, the clock from libfaketime: tests/e2e/harness.py) with the
tick benchmark's router: 5 WAN links, WAN 5 dual-SIM, and 0 or 16,384 LAN clients, each
with a complete br0 entry in /proc/net/arp. For each client count it

  1. starts the daemon and drives 10 ticks (SIGALRM, the clock 30 s further each time,
     every counter grown), then reads /proc/PID/smaps: the private memory (Private_Clean
     + Private_Dirty: what the process alone holds, its heap, stack, written data and the
     pages of files that no other process maps), by mapping;
  2. asks for a backup (SIGUSR1), stops the daemon and starts it again on the same tree,
     so that it starts with full backups, and reads the peak resident set of that start-up
     (VmHWM of /proc/PID/status, taken before the first tick: resident pages, shared ones
     included, so an upper bound of the private memory at its peak) and the private memory
     at the end of the start-up.

The libfaketime library that the harness preloads is not part of the daemon on a router:
its mappings are shown apart and left out of the figures "without libfaketime".

Usage (as root, or where unprivileged user namespaces are allowed; needs unshare and
Debian's faketime package, as the end-to-end tests):
    bench/memory.py --ruvo build/daemon/ruvo
The executable must not lie under /tmp, /run, /proc or /dev (the namespace covers them).
"""

import argparse
import os
import signal
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e"))

import harness  # noqa: E402

WAN_LINKS = 5
LINK_RATE = (400000, 150000, 60000, 25000, 8000)  # bytes per second, as the tick bench
TICKS = 10
TICK_SECONDS = 30


def client_address(i):
    """The i-th client: 10.2.0.0 upwards (never the LAN address 10.0.0.1)."""
    a = 0x0A020000 + i
    return "%d.%d.%d.%d" % (a >> 24, (a >> 16) & 255, (a >> 8) & 255, a & 255)


def write_inputs(router, clients, clock, step):
    """The kernel's link and client counters at the clock, grown with the step."""
    link = ["timestamp:%d" % clock]
    for n in range(1, WAN_LINKS + 1):
        rate = LINK_RATE[n - 1]
        link.append("CON:%d" % n)
        link.append("OVERALL:%d %d" % (1000000007 * n + rate * TICK_SECONDS * step,
                                       300000007 * n + rate // 5 * TICK_SECONDS * step))
    router.write("/proc/korel/config/link_usage", "\n".join(link) + "\n")
    lines = ["timestamp:%d" % clock]
    for i in range(clients):
        lines.append("%s:%d/%d" % (client_address(i), 4096 * (i + 1) + step * (50 + i % 101),
                                   1024 * (i + 1) + step * (20 + i % 53)))
    router.write("/proc/korel/config/client_usage", "\n".join(lines) + "\n")


def set_up(router, clients):
    router.write("/etc/VELTO_wanno", "%d\n" % WAN_LINKS)
    router.write("/etc/gobi_dual_sim_support", "5\n")
    router.write("/etc/gpio_map/cell0_slot", "1\n")
    router.write("/var/run/korel/time_initialized", "")
    router.write("/var/run/korel/lan", "LAN_IPADDR=10.0.0.1\n")
    for n in range(1, WAN_LINKS + 1):
        router.write("/var/run/korel/wanip/wan%d" % n, "203.0.113.%d\n" % n)
    config = []
    for n in range(1, WAN_LINKS + 1):
        config += ["WAN%d_NAME=Link %d" % (n, n), "WAN%d_USAGE_START_DAY=%d" % (n, n),
                   "WAN%d_USAGE_QUOTA=%d" % (n, 100000 * n)]
    router.write("/usr/local/velto/conf/config", "\n".join(config) + "\n")
    arp = [harness.PROC_NET_ARP.rstrip("\n")]
    for i in range(clients):
        mac = "02:00:%02x:%02x:%02x:%02x" % (10, 2 + (i >> 16), (i >> 8) & 255, i & 255)
        arp.append("%-16s 0x1         0x2         %s     *        br0" % (client_address(i), mac))
    router.write("/proc/net/arp", "\n".join(arp) + "\n")


def smaps(pid):
    """[(mapping name, private clean KiB, private dirty KiB)], one entry per mapping."""
    found = []
    name = None
    clean = dirty = 0
    with open("/proc/%d/smaps" % pid) as f:
        for line in f:
            fields = line.split()
            if not fields:
                continue
            if not fields[0].endswith(":") or "-" in fields[0]:
                if name is not None:
                    found.append((name, clean, dirty))
                name = fields[5] if len(fields) > 5 else "[anonymous]"
                clean = dirty = 0
            elif fields[0] == "Private_Clean:":
                clean += int(fields[1])
            elif fields[0] == "Private_Dirty:":
                dirty += int(fields[1])
    if name is not None:
        found.append((name, clean, dirty))
    return found


def status_kib(pid, field):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return -1


def private_summary(pid):
    """(private KiB without libfaketime, of it dirty, libfaketime's private KiB, by mapping
    name: [clean, dirty])."""
    by_name = {}
    for name, clean, dirty in smaps(pid):
        key = os.path.basename(name) if name.startswith("/") else name
        entry = by_name.setdefault(key, [0, 0])
        entry[0] += clean
        entry[1] += dirty
    own = sum(c + d for key, (c, d) in by_name.items() if "faketime" not in key)
    own_dirty = sum(d for key, (c, d) in by_name.items() if "faketime" not in key)
    faketime = sum(c + d for key, (c, d) in by_name.items() if "faketime" in key)
    return own, own_dirty, faketime, by_name


def show(title, pid):
    own, own_dirty, faketime, by_name = private_summary(pid)
    print("  %s: private %d KiB without libfaketime, of it %d KiB dirty (libfaketime %d KiB)"
          % (title, own, own_dirty, faketime))
    for key, (clean, dirty) in sorted(by_name.items(), key=lambda item: -sum(item[1])):
        if clean + dirty and "faketime" not in key:
            print("      %6d KiB  %s (%d KiB clean, %d KiB dirty)" % (clean + dirty, key, clean, dirty))
    return own, own_dirty


def run(clients):
    router = harness.SharedTmpRouter()
    try:
        set_up(router, clients)
        clock = harness.DEFAULT_CLOCK
        write_inputs(router, clients, clock, 0)
        router.set_clock(clock)
        router.start()
        for step in range(1, TICKS + 1):
            clock += TICK_SECONDS
            router.set_clock(clock)
            write_inputs(router, clients, clock, step)
            router.send(signal.SIGALRM, timeout=60)
        print("%d clients:" % clients)
        after_ticks = show("after %d ticks" % TICKS, router.pid)
        router.send(signal.SIGUSR1, timeout=60)
        router.stop()
        clock += TICK_SECONDS
        router.set_clock(clock)
        router.start_again()
        peak = status_kib(router.pid, "VmHWM")
        after_start = show("after a start-up with full backups", router.pid)
        print("  peak resident set of that start-up (VmHWM, shared pages included): %d KiB" % peak)
        router.stop()
        return after_ticks, after_start, peak
    finally:
        router.cleanup()


def write_back(path):
    """Writes the executable's pages in the page cache back to its file system. A page the
    cache holds dirty counts in smaps as dirty memory of every process that maps it, so a
    freshly built ruvo showed its 144 KiB of text as its own dirty memory in the first run
    after a build; on a router ruvo runs from its flash, whose pages are never dirty."""
    fd = os.open(path, os.O_RDONLY)
    try:
        os.fsync(fd)
    finally:
        os.close(fd)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--ruvo", required=True, help="the ruvo executable")
    parser.add_argument("--clients", type=int, nargs="*", default=[0, 16384])
    options = parser.parse_args()
    harness._ruvo_binary = options.ruvo
    write_back(options.ruvo)
    reason = harness.skip_reason()
    if reason:
        sys.exit("memory.py: this host cannot run the daemon in a fake router: " + reason)
    rows = []
    for clients in options.clients:
        rows.append((clients,) + run(clients))
    print()
    print("| Clients | Private after %d ticks (dirty) | Private after a start-up with full backups "
          "(dirty) | Peak resident set of that start-up |" % TICKS)
    print("|---|---|---|---|")
    for clients, after_ticks, after_start, peak in rows:
        print("| %d | %d KiB (%d KiB) | %d KiB (%d KiB) | %d KiB |"
              % (clients, after_ticks[0], after_ticks[1], after_start[0], after_start[1], peak))


if __name__ == "__main__":
    main()
