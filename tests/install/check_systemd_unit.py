#!/usr/bin/env python3
"""install.systemd_unit: the installed ruvo.service.

Installs the build for /usr into a new directory and checks the unit installed at
usr/lib/systemd/system/ruvo.service:
- its settings: Type=simple, ExecStart=/usr/sbin/ruvo, ExecReload=/bin/kill -HUP $MAINPID,
  WantedBy=multi-user.target, none of the sandboxing options that would hide /tmp or make
  /etc, /usr or /var read-only (PrivateTmp, ProtectSystem, ProtectHome, ReadOnlyPaths, ...),
  and no User= or DynamicUser= (the daemon and the tools it runs need root);
- "systemd-analyze verify --man=no --root=ROOT /usr/lib/systemd/system/ruvo.service" exits 0
  and prints nothing (systemd reports unknown keys and bad values only as warnings, so the
  output must be empty). ROOT is the installed tree plus what verify looks up in the root:
  copies of this machine's *.target units and of /bin/kill (the ExecReload command).

systemd need not run: verify works on files. Whether it works on this machine is found out
first with a minimal reference unit in the same root; when systemd-analyze is missing, or
the reference unit does not verify cleanly, the test exits 77 and CTest reports it as
skipped, with the reason.
"""

import glob
import os
import shutil
import sys
import tempfile

from install_tree import SKIPPED, Checks, describe, install, parse_arguments, run

UNIT = "usr/lib/systemd/system/ruvo.service"
REFERENCE_UNIT = """[Unit]
Description=reference unit of the install test

[Service]
Type=simple
ExecStart=/usr/sbin/ruvo
ExecReload=/bin/kill -HUP $MAINPID

[Install]
WantedBy=multi-user.target
"""
# Options that would take /tmp (shared with the configuration saver), the writable system
# directories or root's rights away from the daemon and the firmware tools it runs.
FORBIDDEN = ["PrivateTmp", "ProtectSystem", "ProtectHome", "ReadOnlyPaths", "InaccessiblePaths",
             "TemporaryFileSystem", "PrivateNetwork", "DynamicUser", "User"]


def settings(path):
    """The unit's key=value lines (comments and section headers left out), in order."""
    result = []
    with open(path, encoding="utf-8") as f:
        for line in f:
            line = line.strip()
            if line and not line.startswith(("#", ";", "[")) and "=" in line:
                key, value = line.split("=", 1)
                result.append((key.strip(), value.strip()))
    return result


def host_unit_directory():
    for directory in ("/usr/lib/systemd/system", "/lib/systemd/system"):
        if os.path.isfile(os.path.join(directory, "sysinit.target")):
            return directory
    return None


def verify(root, unit_path):
    return run(["systemd-analyze", "verify", "--man=no", f"--root={root}", unit_path])


def main():
    args = parse_arguments(__doc__)
    checks = Checks()
    with tempfile.TemporaryDirectory(prefix="ruvo-unit-") as root:
        install(args, root)
        unit = os.path.join(root, UNIT)
        if not os.path.isfile(unit):
            print(f"FAIL {UNIT} was not installed")
            return 1

        found = settings(unit)
        keys = [key for key, _ in found]
        for key, value in [("Type", "simple"), ("ExecStart", "/usr/sbin/ruvo"),
                           ("ExecReload", "/bin/kill -HUP $MAINPID"),
                           ("WantedBy", "multi-user.target")]:
            checks.equal(f"{key} of the unit", [v for k, v in found if k == key], [value])
        for key in FORBIDDEN:
            checks.true(f"the unit does not set {key}", key not in keys)

        if not shutil.which("systemd-analyze"):
            checks.finish("install.systemd_unit (settings)")
            print("SKIPPED: systemd-analyze is not installed (Debian package systemd); "
                  "the unit was not verified")
            return 1 if checks.failures else SKIPPED

        # What verify looks up inside the root: the targets the unit is ordered after by
        # default (sysinit.target, basic.target, shutdown.target, multi-user.target, ...)
        # and the programs of its Exec lines (the daemon is installed there already).
        host_units = host_unit_directory()
        if host_units:
            for target in glob.glob(os.path.join(host_units, "*.target")):
                copy = os.path.join(root, "usr/lib/systemd/system", os.path.basename(target))
                if not os.path.exists(copy):
                    shutil.copyfile(target, copy)
        kill = shutil.which("kill", path="/bin:/usr/bin")
        if kill:
            os.makedirs(os.path.join(root, "bin"), exist_ok=True)
            shutil.copy2(kill, os.path.join(root, "bin", "kill"))

        reference = os.path.join(root, "usr/lib/systemd/system/ruvo-install-reference.service")
        with open(reference, "w", encoding="utf-8") as f:
            f.write(REFERENCE_UNIT)
        result = verify(root, "/usr/lib/systemd/system/ruvo-install-reference.service")
        if result.returncode != 0 or result.stdout or result.stderr:
            checks.finish("install.systemd_unit (settings)")
            print("SKIPPED: systemd-analyze verify cannot check units on this machine: even a "
                  f"minimal reference unit does not verify cleanly.\n{describe(result)}")
            return 1 if checks.failures else SKIPPED
        os.remove(reference)

        result = verify(root, "/" + UNIT)
        checks.true("systemd-analyze verify of the installed unit exits 0 and prints nothing",
                    result.returncode == 0 and not result.stdout and not result.stderr,
                    describe(result))
    return checks.finish("install.systemd_unit")


if __name__ == "__main__":
    sys.exit(main())
