"""Shared by the install tests: command line, running commands, installing a build into a
directory, and listing the files of a tree with their modes."""

import argparse
import os
import stat
import subprocess
import sys

# What "cmake --install BUILD --prefix /usr" puts under DESTDIR: path and mode of every file.
EXPECTED_USR_FILES = [
    ("etc/init.d/ruvo", 0o755),
    ("usr/bin/ruvo-report", 0o755),
    ("usr/bin/ruvo-sim", 0o755),
    ("usr/lib/systemd/system/ruvo.service", 0o644),
    ("usr/sbin/ruvo", 0o755),
    ("usr/share/man/man1/ruvo-report.1", 0o644),
    ("usr/share/man/man1/ruvo-sim.1", 0o644),
    ("usr/share/man/man8/ruvo.8", 0o644),
]

# The exit status by which CTest reports a test as skipped (SKIP_RETURN_CODE).
SKIPPED = 77


def parse_arguments(description, extra=None):
    """The arguments every install test takes: the build directory, the source directory,
    the built daemon, and the cmake and cpack of the build."""
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--source-dir", required=True)
    parser.add_argument("--ruvo", required=True, help="the built daemon")
    parser.add_argument("--cmake", default="cmake")
    parser.add_argument("--cpack", default="cpack")
    parser.add_argument("--cross", action="store_true", help="the build is a cross build")
    if extra:
        extra(parser)
    return parser.parse_args()


class Checks:
    """Collects failed assertions, so that one run reports all of them."""

    def __init__(self):
        self.failures = []
        self.count = 0

    def equal(self, what, actual, expected):
        self.count += 1
        if actual != expected:
            self.failures.append(f"{what}:\n    expected: {expected!r}\n    actual:   {actual!r}")

    def same_entries(self, what, actual, expected):
        """Two lists of (path, mode) entries; a failure names the entries missing and the
        ones not expected."""
        self.count += 1
        if actual != expected:
            missing = [e for e in expected if e not in actual]
            unexpected = [e for e in actual if e not in expected]
            self.failures.append(f"{what}:\n  missing:\n{show(missing)}\n  not expected:\n"
                                 f"{show(unexpected)}\n  all:\n{show(actual)}")

    def true(self, what, condition, detail=""):
        self.count += 1
        if not condition:
            self.failures.append(f"{what}" + (f": {detail}" if detail else ""))

    def finish(self, name):
        for failure in self.failures:
            print(f"FAIL {failure}")
        print(f"{name}: {self.count - len(self.failures)} passed, {len(self.failures)} failed")
        return 1 if self.failures else 0


def run(command, env=None, cwd=None):
    """Runs a command; returns its CompletedProcess with text output."""
    return subprocess.run(command, env=env, cwd=cwd, capture_output=True, text=True,
                          stdin=subprocess.DEVNULL, timeout=300)


def describe(result):
    return (f"{' '.join(result.args)} -> {result.returncode}\n"
            f"stdout: {result.stdout}\nstderr: {result.stderr}")


def install(args, destdir, prefix="/usr"):
    """DESTDIR=destdir cmake --install BUILD --prefix prefix; stops the test when it fails."""
    env = dict(os.environ, DESTDIR=destdir)
    result = run([args.cmake, "--install", args.build_dir, "--prefix", prefix], env=env)
    if result.returncode != 0:
        print(f"FAIL the install failed:\n{describe(result)}")
        sys.exit(1)
    return result


def list_tree(root):
    """Every entry below root that is not a directory, sorted: (relative path, mode) for
    regular files, (relative path, 'symlink' or 'other') for anything else."""
    entries = []
    for directory, dirnames, filenames in os.walk(root):
        dirnames.sort()
        for name in filenames + [d for d in dirnames if os.path.islink(os.path.join(directory, d))]:
            path = os.path.join(directory, name)
            relative = os.path.relpath(path, root)
            info = os.lstat(path)
            if stat.S_ISREG(info.st_mode):
                entries.append((relative, stat.S_IMODE(info.st_mode)))
            elif stat.S_ISLNK(info.st_mode):
                entries.append((relative, "symlink"))
            else:
                entries.append((relative, "other"))
    return sorted(entries)


def show(entries):
    return "\n".join(f"  {path} {mode:04o}" if isinstance(mode, int) else f"  {path} {mode}"
                     for path, mode in entries)
