#!/usr/bin/env python3
"""install.file_list: what "cmake --install" puts in place.

Checks, for "DESTDIR=<new directory> cmake --install BUILD --prefix /usr":
- the sorted list of installed files with their modes is exactly EXPECTED_USR_FILES
  (programs and the init script 0755, man pages and the unit 0644; no links, nothing else);
- the installed daemon is the built one, byte for byte;
- the unit's ExecStart and the init script's DAEMON line name /usr/sbin/ruvo.
And for "--prefix /usr/local": the init script goes to usr/local/etc/init.d/ruvo, and both
the unit's ExecStart and the init script's DAEMON line name /usr/local/sbin/ruvo.
"""

import filecmp
import os
import sys
import tempfile

from install_tree import EXPECTED_USR_FILES, Checks, install, list_tree, parse_arguments

EXPECTED_USR_LOCAL_FILES = [
    ("usr/local/bin/ruvo-report", 0o755),
    ("usr/local/bin/ruvo-sim", 0o755),
    ("usr/local/etc/init.d/ruvo", 0o755),
    ("usr/local/lib/systemd/system/ruvo.service", 0o644),
    ("usr/local/sbin/ruvo", 0o755),
    ("usr/local/share/man/man1/ruvo-report.1", 0o644),
    ("usr/local/share/man/man1/ruvo-sim.1", 0o644),
    ("usr/local/share/man/man8/ruvo.8", 0o644),
]


def lines_starting(path, start):
    with open(path, encoding="utf-8") as f:
        return [line.rstrip("\n") for line in f if line.startswith(start)]


def check_prefix(args, checks, prefix, expected, sysconfdir):
    with tempfile.TemporaryDirectory(prefix="ruvo-install-") as destdir:
        install(args, destdir, prefix)
        files = list_tree(destdir)
        checks.same_entries(f"files installed for --prefix {prefix}", files, expected)
        root = os.path.join(destdir, prefix.lstrip("/"))
        daemon = os.path.join(root, "sbin", "ruvo")
        checks.true(f"{prefix}/sbin/ruvo is the built daemon {args.ruvo}",
                    os.path.isfile(daemon) and filecmp.cmp(daemon, args.ruvo, shallow=False))
        unit = os.path.join(root, "lib/systemd/system/ruvo.service")
        if os.path.isfile(unit):
            checks.equal(f"ExecStart of the unit installed for --prefix {prefix}",
                         lines_starting(unit, "ExecStart="), [f"ExecStart={prefix}/sbin/ruvo"])
        init = os.path.join(destdir, sysconfdir.lstrip("/"), "init.d", "ruvo")
        if os.path.isfile(init):
            checks.equal(f"DAEMON line of the init script installed for --prefix {prefix}",
                         lines_starting(init, "DAEMON="), [f"DAEMON={prefix}/sbin/ruvo"])


def main():
    args = parse_arguments(__doc__)
    checks = Checks()
    check_prefix(args, checks, "/usr", EXPECTED_USR_FILES, "/etc")
    check_prefix(args, checks, "/usr/local", EXPECTED_USR_LOCAL_FILES, "/usr/local/etc")
    return checks.finish("install.file_list")


if __name__ == "__main__":
    sys.exit(main())
