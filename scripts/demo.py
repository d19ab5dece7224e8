#!/usr/bin/env python3
"""Runs the real ruvo for a few ticks on a fake router tree and prints what it wrote.

The fake tree, the private mount namespace and the faked clock are those of the
end-to-end tests (tests/e2e/harness.py).  Usage: demo.py PATH_TO_RUVO
"""

import os
import signal
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import harness  # noqa: E402

START = 1709647200  # 2024-03-05 14:00:00 UTC
TICK = 30


def link_usage(when, counters):
    lines = ["timestamp:%d" % when]
    for n, (c1, c2) in enumerate(counters, start=1):
        lines += ["CON:%d" % n, "OVERALL:%d %d" % (c1, c2)]
    return "\n".join(lines) + "\n"


def show_tree(router, top, skip=()):
    """Prints the directories and files below top, except those below the skipped names."""
    base = router.host(top)
    for directory, names, _ in os.walk(base):
        names.sort()
        names[:] = [name for name in names if os.path.join(directory, name) not in skip]
        for name in sorted(names):
            print("--- %s/" % os.path.join(top, os.path.relpath(os.path.join(directory, name), base)))
    skipped = tuple(path + os.sep for path in skip)
    for path in router.files_under(top):
        if router.host(path).startswith(skipped):
            continue
        content = router.read(path)
        print("--- %s (%d bytes)" % (path, len(content)))
        if content:
            print(content, end="" if content.endswith("\n") else "\n")


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: demo.py PATH_TO_RUVO")
    os.environ["RUVO_BIN"] = os.path.abspath(sys.argv[1])
    reason = harness.skip_reason()
    if reason:
        sys.exit("cannot run the demo here: %s" % reason)

    # /var/run inside /tmp's mount, so that the daemon's renames from /tmp/ruvo.tmp work.
    router = harness.SharedTmpRouter()
    try:
        router.write("/etc/VELTO_wanno", "3\n")
        router.write("/etc/gobi_dual_sim_support", "3\n")
        router.write("/etc/gpio_map/cell0_slot", "1\n")
        router.write("/var/run/korel/time_initialized", "")
        for n in (1, 2, 3):
            os.makedirs(router.host("/var/run/korel/wan%d" % n), exist_ok=True)
        router.write("/usr/local/velto/conf/config",
                     "WAN1_NAME=Fibre\nWAN1_USAGE_START_DAY=15\nWAN1_USAGE_QUOTA=20480\n"
                     "WAN1_USAGE_ACTION=email,disconnect\nWAN2_NAME=DSL\nWAN3_NAME=LTE\n"
                     "PIF3_GOBI_USAGE_QUOTA=2048\nSNMP_NAME=branch-office\n")
        counters = [[10 << 20, 2 << 20], [5 << 20, 1 << 20], [1 << 20, 1 << 19]]
        now = START
        router.set_clock(now)
        router.write("/proc/korel/config/link_usage", link_usage(now, counters))
        pid = router.start()
        print("ruvo started as pid %d with 3 WAN links (WAN 3 dual-SIM)" % pid)

        for tick in range(1, 6):
            now += TICK
            counters = [[c1 + (tick * 3 << 20), c2 + (tick << 19)] for c1, c2 in counters]
            router.set_clock(now)
            router.write("/proc/korel/config/link_usage", link_usage(now, counters))
            router.send(signal.SIGALRM)
            print("tick %d done (clock %d)" % (tick, now))
        router.send(signal.SIGHUP)
        print("SIGHUP: one more tick and a full backup")
        router.wait_for_background_jobs()

        print("\n=== syslog")
        for priority, ident, message in router.syslog.collect():
            print("<%d> %s: %s" % (priority, ident, message))
        print("\n=== firmware tools called")
        print(router.calls() or "(none)", end="")
        print("\n=== files under /var/run/")
        show_tree(router, "/var/run/")
        print("\n=== files under /tmp/ (but /tmp/run, which is /var/run here)")
        show_tree(router, "/tmp/", skip=(router.host("/tmp/run"),))
        status = router.stop(signal.SIGTERM)
        print("\nSIGTERM: ruvo exited with status %d" % status)
    finally:
        router.kill()
        router.cleanup()


if __name__ == "__main__":
    main()
