"""End-to-end harness: runs the unchanged ruvo executable on a fake router.

Each test gets a fresh tree under /var/tmp/ruvo-e2e-XXXX.  A private mount
namespace (unshare) lays that tree over the real paths the daemon uses:

    /etc, /usr/local   overlayfs: the real directory below, the tree's upper dir above
    /run (= /var/run)  bind of <tree>/run
    /tmp               bind of <tree>/tmp
    /dev               bind of <tree>/dev: null, zero, full, random, urandom
                       (bound from the real /dev) and "log", a datagram socket
                       that the test itself binds and reads
    /proc              bind of <tree>/proc, a plain directory with the korel
                       files (mounted last: mount(8) needs the real one)

The tree itself lives outside /tmp and /run, which the namespace covers, so
that the test and the daemon see the same files.  The daemon's clock comes
from libfaketime: the clock file holds an epoch second, and writing another
number moves the clock.  The launcher shell ends with "exec", so the daemon is
the direct child of unshare, has the pid the shell had, and its exit status
is unshare's.  Nothing is mounted outside the namespace; it dies with the
daemon.

Run a test module as:  python3 test_x.py --ruvo /path/to/ruvo
(or with RUVO_BIN=/path/to/ruvo in the environment).  It exits with 1 when a
test failed, with SKIPPED_EXIT_STATUS (77) when the host cannot run these
tests at all (no unshare, no private mount namespace, no libfaketime; CTest
then reports the script as skipped, not as passed), and with 0 otherwise.
"""

import ctypes
import ctypes.util
import errno
import glob
import os
import platform
import re
import select
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

# 2024-03-05 14:00:00 UTC, a Tuesday.
DEFAULT_CLOCK = 1709647200

# How long a tick, the start-up or the exit may take before the test fails.
IDLE_TIMEOUT = 5.0
START_TIMEOUT = 10.0
EXIT_TIMEOUT = 10.0
CALL_TIMEOUT = 5.0

# Syscall number of pause(2), as the first field of /proc/PID/syscall shows it.
PAUSE_SYSCALL = {"x86_64": "34"}

# Device nodes bound into the fake /dev when the host has them.
DEVICES = ("null", "zero", "full", "random", "urandom")

# Real directories that the namespace covers; the daemon must leave no trace there.
COVERED_REAL_DIRS = ("/tmp", "/run")
# Names the daemon's files and directories there would start with.
DAEMON_NAME_PREFIXES = ("ruvo", "korel")
# The unit tests' sandboxes (tests/unit/sandbox.cpp), which CTest may be creating
# at the same time; the daemon never makes these.
UNIT_SANDBOX_PREFIX = "ruvo-test-"

_ruvo_binary = None

# Exit status of a test script whose tests were skipped because the host cannot run
# end-to-end tests; tests/CMakeLists.txt gives it to CTest as SKIP_RETURN_CODE.
SKIPPED_EXIT_STATUS = 77


# ---------------------------------------------------------------------------
# Command line

def main():
    """Runs the unittest main of the calling module after taking --ruvo PATH from argv.

    Exits non-zero when a test fails (unittest.main does so).
    """
    global _ruvo_binary
    argv = list(sys.argv)
    rest = [argv[0]]
    i = 1
    while i < len(argv):
        arg = argv[i]
        if arg == "--ruvo":
            if i + 1 >= len(argv):
                sys.exit("--ruvo needs the path of the ruvo executable")
            _ruvo_binary = argv[i + 1]
            i += 2
            continue
        if arg.startswith("--ruvo="):
            _ruvo_binary = arg[len("--ruvo="):]
            i += 1
            continue
        rest.append(arg)
        i += 1
    if _ruvo_binary is None:
        _ruvo_binary = os.environ.get("RUVO_BIN")
    if not _ruvo_binary:
        sys.exit("usage: %s --ruvo PATH [unittest options] (or set RUVO_BIN)" % argv[0])
    if not os.access(_ruvo_binary, os.X_OK):
        sys.exit("ruvo executable %s not found or not executable" % _ruvo_binary)
    result = unittest.main(argv=rest, verbosity=2, exit=False).result
    sys.exit(exit_status(result))


def exit_status(result):
    """1 when a test failed, SKIPPED_EXIT_STATUS when a test was skipped because the
    host cannot run end-to-end tests (then every test is), else 0."""
    if not result.wasSuccessful():
        return 1
    if any(isinstance(reason, str) and reason.startswith(HOST_SKIP_PREFIX)
           for _, reason in result.skipped):
        return SKIPPED_EXIT_STATUS
    return 0


def ruvo_binary():
    """The absolute path of the daemon under test (--ruvo, else RUVO_BIN), or None."""
    path = _ruvo_binary or os.environ.get("RUVO_BIN")
    return os.path.abspath(path) if path else None


# ---------------------------------------------------------------------------
# Host facilities

def faketime_library():
    """Path of Debian's libfaketime.so.1 (package faketime), or None."""
    found = sorted(glob.glob("/usr/lib/*/faketime/libfaketime.so.1"))
    return found[0] if found else None


def namespace_command():
    """The unshare command that gives a private mount namespace to us as we are."""
    # --kill-child: the daemon dies with unshare if the harness has to kill that.
    if os.geteuid() == 0:
        return ["unshare", "--mount", "--fork", "--kill-child"]
    return ["unshare", "--user", "--map-root-user", "--mount", "--fork", "--kill-child"]


_namespace_probe = None


def namespace_problem():
    """Why a private mount namespace cannot be made here, or None when it can."""
    global _namespace_probe
    if _namespace_probe is None:
        try:
            done = subprocess.run(namespace_command() + ["true"], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  timeout=30)
        except (OSError, subprocess.TimeoutExpired) as error:
            _namespace_probe = "%s: %s" % (" ".join(namespace_command()), error)
        else:
            if done.returncode != 0:
                _namespace_probe = "%s true: exit %d: %s" % (
                    " ".join(namespace_command()), done.returncode,
                    done.stdout.decode(errors="replace").strip())
            else:
                _namespace_probe = ""
    return _namespace_probe or None


# The start of the message of a test skipped because the host cannot run it.
HOST_SKIP_PREFIX = "this host cannot run end-to-end tests: "


def skip_reason():
    """Why the end-to-end tests cannot run on this host, or None."""
    if platform.machine() not in PAUSE_SYSCALL:
        return "the syscall number of pause(2) on %s is not known" % platform.machine()
    if shutil.which("unshare") is None:
        return "unshare (util-linux) is not installed"
    problem = namespace_problem()
    if problem:
        return "private mount namespaces are not available: " + problem
    if faketime_library() is None:
        return "libfaketime is not installed (apt-get install faketime)"
    return None


def covered_real_entries():
    """Entries of the real /tmp and /run that look like the daemon's."""
    found = set()
    for directory in COVERED_REAL_DIRS:
        for name in os.listdir(directory):
            if name.startswith(DAEMON_NAME_PREFIXES) and not name.startswith(UNIT_SANDBOX_PREFIX):
                found.add(os.path.join(directory, name))
    return found


# ---------------------------------------------------------------------------
# Process state

class DaemonGone(AssertionError):
    """The daemon exited while the test expected it to run."""


def _read_text(path):
    with open(path) as f:
        return f.read()


def process_state(pid):
    """(syscall, pending, state) of a live process, or None when it is gone.

    syscall is the first field of /proc/PID/syscall ("running" while it runs),
    pending the union of its thread and shared pending signal masks, and state
    the one-letter state of /proc/PID/status.

    The status is read first, on purpose: right after kill(2) the target may
    still show the pause it is being woken from, so a signal seen as no longer
    pending must have been taken before the syscall is read.  Then "in pause"
    can only mean the pause after the handler.
    """
    try:
        status = _read_text("/proc/%d/status" % pid)
        syscall = _read_text("/proc/%d/syscall" % pid).split()[0]
    except (FileNotFoundError, ProcessLookupError):
        return None
    except OSError as error:
        if error.errno == errno.ESRCH:
            return None
        raise
    fields = dict(line.split(":", 1) for line in status.splitlines() if ":" in line)
    state = fields["State"].split()[0]
    if state in ("Z", "X"):
        return None
    pending = int(fields["SigPnd"].strip(), 16) | int(fields["ShdPnd"].strip(), 16)
    return syscall, pending, state


def signal_mask(pid, field):
    """The signal mask named field ("SigIgn", "SigCgt", ...) of /proc/PID/status."""
    for line in _read_text("/proc/%d/status" % pid).splitlines():
        if line.startswith(field + ":"):
            return int(line.split(":", 1)[1].strip(), 16)
    raise KeyError(field)


def signal_bit(signo):
    return 1 << (signo - 1)


def wait_idle(pid, timeout=IDLE_TIMEOUT, signo=None):
    """Waits until the process sleeps in pause(2) with signal signo no longer pending.

    That is the moment a tick driven by signo has finished.  Raises DaemonGone
    when the process exits and AssertionError when the deadline passes.
    """
    pause = PAUSE_SYSCALL[platform.machine()]
    deadline = time.monotonic() + timeout
    seen = None
    while True:
        seen = process_state(pid)
        if seen is None:
            raise DaemonGone("ruvo (pid %d) exited while waiting for it to be idle" % pid)
        syscall, pending, _ = seen
        if syscall == pause and (signo is None or not pending & signal_bit(signo)):
            return
        if time.monotonic() > deadline:
            raise AssertionError(
                "ruvo (pid %d) not back in pause after %.1f s: syscall %s, pending %#x, state %s"
                % (pid, timeout, seen[0], seen[1], seen[2]))
        time.sleep(0.005)


def wait_for(condition, timeout, what):
    """Polls condition() until it returns a true value, which it returns; fails at the deadline."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("timed out after %.1f s waiting for %s" % (timeout, what))
        time.sleep(0.01)


# ---------------------------------------------------------------------------
# Syslog

SYSLOG_LINE = re.compile(
    r"<(?P<pri>\d+)>(?P<stamp>[A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d) "
    r"(?P<ident>[^\s:\[]+): (?P<message>.*)\Z", re.S)


class SyslogReader:
    """The fake /dev/log: a unix datagram socket that collects what the daemon logs.

    Every datagram is kept as (priority, ident, message).  The time stamp glibc
    puts in front is the real clock, not the faked one, so only its shape is checked.
    """

    def __init__(self, path):
        self.path = path
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(path)
        self.sock.setblocking(False)
        self.records = []
        self.malformed = []

    def collect(self):
        """Takes every datagram waiting in the socket; returns all records so far."""
        while True:
            try:
                data = self.sock.recv(65536)
            except BlockingIOError:
                break
            text = data.decode("utf-8", errors="replace")
            match = SYSLOG_LINE.match(text)
            if match is None:
                self.malformed.append(text)
                continue
            self.records.append((int(match.group("pri")), match.group("ident"),
                                 match.group("message")))
        return list(self.records)

    def wait_for_count(self, count, timeout=IDLE_TIMEOUT):
        """Waits until at least count records arrived; returns all records."""
        deadline = time.monotonic() + timeout
        while True:
            records = self.collect()
            if len(records) >= count:
                return records
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                raise AssertionError("expected %d syslog lines within %.1f s, got %r"
                                     % (count, timeout, records))
            select.select([self.sock], [], [], remaining)

    def close(self):
        self.sock.close()


# ---------------------------------------------------------------------------
# File opens (inotify through ctypes)

IN_OPEN = 0x20
IN_NONBLOCK = 0o4000
_INOTIFY_EVENT = struct.Struct("iIII")


class OpenCounter:
    """Counts the times a file is opened, by anyone and through any mount of it."""

    def __init__(self, path):
        self._libc = ctypes.CDLL(ctypes.util.find_library("c") or "libc.so.6", use_errno=True)
        self._fd = self._libc.inotify_init1(IN_NONBLOCK)
        if self._fd < 0:
            raise OSError(ctypes.get_errno(), "inotify_init1")
        if self._libc.inotify_add_watch(self._fd, os.fsencode(path), IN_OPEN) < 0:
            error = ctypes.get_errno()
            os.close(self._fd)
            raise OSError(error, "inotify_add_watch", path)
        self.count = 0

    def take(self):
        """Counts the events that arrived; returns the total so far."""
        while True:
            try:
                data = os.read(self._fd, 4096)
            except BlockingIOError:
                return self.count
            offset = 0
            while offset < len(data):
                _, mask, _, name_len = _INOTIFY_EVENT.unpack_from(data, offset)
                if mask & IN_OPEN:
                    self.count += 1
                offset += _INOTIFY_EVENT.size + name_len

    def close(self):
        os.close(self._fd)


# ---------------------------------------------------------------------------
# The fake router

LINK_USAGE = ("timestamp:1709647200\n"
              "CON:1\n"
              "OVERALL:1000 2000\n")
PROC_NET_ARP = "IP address       HW type     Flags       HW address            Mask     Device\n"
VELTO_CONFIG = ("WAN1_NAME=Fibre\n"
                "WAN2_NAME=LTE\n"
                "WAN3_NAME=DSL\n"
                "WAN4_NAME=Backup\n")
FAKE_SAVECONFIG = """#!/bin/sh
# Stands in for the firmware's configuration saver: records its arguments.
echo "$*" >> {log}
"""


class FakeRouter:
    """A fresh router tree under /var/tmp and the daemon running on it.

    Paths given to the helpers are the paths the daemon sees ("/etc/...",
    "/var/run/...", "/tmp/...", "/proc/...", "/usr/local/..."); host() maps
    them into the tree.
    """

    def __init__(self):
        self.root = tempfile.mkdtemp(prefix="ruvo-e2e-", dir="/var/tmp")
        os.chmod(self.root, 0o755)
        self.dirs = {}
        for name in ("etc", "etc.work", "usr-local", "usr-local.work", "run", "tmp", "dev", "proc"):
            path = os.path.join(self.root, name)
            os.mkdir(path, 0o755)
            self.dirs[name] = path
        self.clock_file = os.path.join(self.root, "clock")
        self.calls_log = os.path.join(self.root, "calls.log")
        self.launcher_pid_file = os.path.join(self.root, "launcher.pid")
        self.output = os.path.join(self.root, "ruvo.out")
        self.syslog = None
        self.process = None
        self.pid = None
        self.namespace = None
        self.exit_status = None
        self.set_clock(DEFAULT_CLOCK)
        self.write("/proc/korel/config/link_usage", LINK_USAGE)
        self.write("/proc/net/arp", PROC_NET_ARP)
        self.write("/usr/local/velto/conf/config", VELTO_CONFIG)
        self.write("/usr/local/korel/bin/saveconfig",
                   FAKE_SAVECONFIG.format(log=shlex.quote(self.calls_log)), mode=0o755)
        # The daemon's run directory on the router.
        os.mkdir(self.host("/var/run/korel"), 0o755)

    # -- paths and files ---------------------------------------------------

    def host(self, path):
        """Where a path the daemon sees lives in the tree."""
        mapping = (("/var/run/", "run"), ("/run/", "run"), ("/etc/", "etc"),
                   ("/usr/local/", "usr-local"), ("/tmp/", "tmp"), ("/proc/", "proc"),
                   ("/dev/", "dev"))
        for prefix, name in mapping:
            if path.startswith(prefix):
                return os.path.join(self.dirs[name], path[len(prefix):])
        raise ValueError("%s is not inside the fake tree" % path)

    def write(self, path, content, mode=None):
        """Writes a file the daemon will see at path, creating its directories."""
        target = self.host(path)
        os.makedirs(os.path.dirname(target), mode=0o755, exist_ok=True)
        with open(target, "w") as f:
            f.write(content)
        if mode is not None:
            os.chmod(target, mode)

    def read(self, path):
        with open(self.host(path)) as f:
            return f.read()

    def exists(self, path):
        return os.path.lexists(self.host(path))

    def files_under(self, path):
        """Sorted daemon-side paths of all regular files below path."""
        base = self.host(path)
        found = []
        for directory, _, names in os.walk(base):
            for name in names:
                full = os.path.join(directory, name)
                found.append(os.path.join(path, os.path.relpath(full, base)))
        return sorted(found)

    def set_clock(self, epoch):
        """Moves the daemon's clock to epoch (seconds)."""
        temporary = self.clock_file + ".new"
        with open(temporary, "w") as f:
            f.write("%d\n" % epoch)
        os.replace(temporary, self.clock_file)

    def calls(self):
        """The argument lines the fake saveconfig recorded so far."""
        try:
            with open(self.calls_log) as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def background_jobs(self):
        """Pids of processes the daemon started that still run.

        They are the processes in the daemon's mount namespace other than the
        daemon and unshare; a process keeps its namespace through exec, which
        its environment or command line does not show at every instant.
        """
        jobs = []
        for name in os.listdir("/proc"):
            if not name.isdigit() or int(name) in (self.pid, self.process.pid):
                continue
            try:
                namespace = os.readlink("/proc/%s/ns/mnt" % name)
            except OSError:
                continue
            if namespace == self.namespace:
                jobs.append(int(name))
        return jobs

    def wait_for_background_jobs(self, timeout=CALL_TIMEOUT):
        """Waits until every command the daemon started in the background has ended.

        The daemon runs "saveconfig usage &" through system(), which returns once
        the shell has forked the job; so when the daemon is idle again, every job
        of that tick already exists and is found here.
        """
        wait_for(lambda: not self.background_jobs(), timeout,
                 "the daemon's background commands to end")

    def calls_when_done(self):
        """The saveconfig log once every background command has ended."""
        self.wait_for_background_jobs()
        return self.calls()

    # -- the daemon -----------------------------------------------------------

    def _launcher(self, tz):
        q = shlex.quote
        d = self.dirs
        steps = [
            "set -e",
            # The daemon's own directories are created with the umask of a router's init.
            "umask 022",
            "mount -t overlay overlay -o %s /etc"
            % q("lowerdir=/etc,upperdir=%s,workdir=%s" % (d["etc"], d["etc.work"])),
            "mount -t overlay overlay -o %s /usr/local"
            % q("lowerdir=/usr/local,upperdir=%s,workdir=%s" % (d["usr-local"], d["usr-local.work"])),
            "mount --bind %s /run" % q(d["run"]),
            "mount --bind %s /tmp" % q(d["tmp"]),
        ]
        for device in DEVICES:
            if os.path.exists("/dev/" + device):
                node = os.path.join(d["dev"], device)
                # The mount point; outside the namespace it stays an empty file.
                open(node, "w").close()
                steps.append("mount --bind /dev/%s %s" % (device, q(node)))
        steps += [
            "mount --bind %s /dev" % q(d["dev"]),
            # Last: mount(8) reads /proc/self/mountinfo.
            "mount --bind %s /proc" % q(d["proc"]),
            "echo $$ > %s" % q(self.launcher_pid_file),
            "exec env LD_PRELOAD=%s FAKETIME_TIMESTAMP_FILE=%s FAKETIME_NO_CACHE=1 "
            "FAKETIME_FMT=%%s TZ=%s %s"
            % (q(faketime_library()), q(self.clock_file), q(tz), q(ruvo_binary())),
        ]
        return "\n".join(steps)

    def start(self, tz="UTC"):
        """Starts the daemon; returns once it has written its pid file and sleeps in pause."""
        binary = ruvo_binary()
        for covered in ("/tmp/", "/run/", "/var/run/", "/proc/", "/dev/"):
            if binary.startswith(covered):
                raise AssertionError("the ruvo executable must not live under %s: %s"
                                     % (covered, binary))
        self.syslog = SyslogReader(os.path.join(self.dirs["dev"], "log"))
        with open(self.output, "wb") as out:
            self.process = subprocess.Popen(
                namespace_command() + ["sh", "-c", self._launcher(tz)],
                stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT,
                start_new_session=True)
        pid_text = wait_for(self._launched_pid, START_TIMEOUT, "the launcher to exec ruvo")
        self.pid = int(pid_text)
        self.namespace = os.readlink("/proc/%d/ns/mnt" % self.pid)
        wait_for(self._pid_file_written, START_TIMEOUT, "ruvo to write /var/run/ruvo.pid")
        wait_idle(self.pid, START_TIMEOUT)
        return self.pid

    def start_again(self, tz="UTC"):
        """Starts the daemon once more on this same tree after the previous run has exited.

        Everything the earlier run left (/tmp, /var/run, the overlays' upper
        directories, the clock file, the saveconfig log) stays as it is; only the
        launcher's pid file and the /dev/log socket are made anew.  The syslog
        records of the earlier run go with its socket: take them before.
        Returns like start().
        """
        if self.alive():
            raise AssertionError("ruvo is still running; stop it before starting it again")
        if self.syslog is not None:
            self.syslog.close()
            self.syslog = None
        for path in (os.path.join(self.dirs["dev"], "log"), self.launcher_pid_file):
            try:
                os.unlink(path)
            except FileNotFoundError:
                pass
        self.process = None
        self.pid = None
        self.namespace = None
        self.exit_status = None
        return self.start(tz)

    def _launched_pid(self):
        self._fail_if_exited("before it wrote its pid file")
        try:
            text = _read_text(self.launcher_pid_file)
        except FileNotFoundError:
            return None
        return text.strip() if text.endswith("\n") else None

    def _pid_file_written(self):
        self._fail_if_exited("before it wrote its pid file")
        # Complete once the daemon is back in pause, which start() waits for next.
        return os.path.exists(self.host("/var/run/ruvo.pid"))

    def _fail_if_exited(self, when):
        status = self.process.poll()
        if status is not None:
            raise AssertionError("ruvo exited with status %d %s; output:\n%s"
                                 % (status, when, self.launcher_output()))

    def launcher_output(self):
        try:
            with open(self.output, errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def alive(self):
        return self.process is not None and self.process.poll() is None \
            and process_state(self.pid) is not None

    def send(self, signo, timeout=IDLE_TIMEOUT):
        """Sends signo to the daemon and waits until the tick it drives has finished."""
        os.kill(self.pid, signo)
        wait_idle(self.pid, timeout, signo)

    def stop(self, signo=signal.SIGTERM, timeout=EXIT_TIMEOUT):
        """Sends signo and waits for the daemon to exit; returns its exit status."""
        os.kill(self.pid, signo)
        try:
            self.exit_status = self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("ruvo did not exit within %.1f s of signal %d" % (timeout, signo))
        return self.exit_status

    def kill(self):
        """Ends the daemon and its namespace if they still run."""
        if self.process is None or self.process.poll() is not None:
            return
        if self.pid is not None and self._is_our_daemon(self.pid):
            try:
                os.kill(self.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            self.process.wait(EXIT_TIMEOUT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()

    def _is_our_daemon(self, pid):
        try:
            status = _read_text("/proc/%d/status" % pid)
        except OSError:
            return False
        return ("\nPPid:\t%d\n" % self.process.pid) in status

    def cleanup(self):
        """Kills the daemon if needed and removes the tree."""
        self.kill()
        if self.syslog is not None:
            self.syslog.close()

        # overlayfs leaves a "work" directory with mode 0 in each work dir.
        for directory, subdirectories, _ in os.walk(self.root):
            for name in subdirectories:
                path = os.path.join(directory, name)
                if not os.path.islink(path):
                    os.chmod(path, 0o700)
        shutil.rmtree(self.root)


# ---------------------------------------------------------------------------
# Test case base

class RuvoTestCase(unittest.TestCase):
    """A test with its own fake router; checks that the daemon left the real /tmp and /run alone."""

    def setUp(self):
        reason = skip_reason()
        if reason:
            self.skipTest(HOST_SKIP_PREFIX + reason)
        binary = ruvo_binary()
        self.assertTrue(binary and os.access(binary, os.X_OK),
                        "no ruvo executable at %r (give --ruvo PATH or RUVO_BIN)" % binary)
        self.covered_before = covered_real_entries()
        self.routers = []
        self.router = self.new_router()

    def tearDown(self):
        for router in self.routers:
            router.kill()
        appeared = covered_real_entries() - self.covered_before
        self.assertEqual(appeared, set(), "ruvo wrote outside its fake tree")

    def new_router(self):
        """A fresh fake router (one per daemon run); removed when the test ends."""
        router = FakeRouter()
        self.routers.append(router)
        self.addCleanup(router.cleanup)
        return router

    def assertStopsCleanly(self, router, signo=signal.SIGTERM):
        """The daemon is still running, and exits with status 0 on signo."""
        self.assertTrue(router.alive(), "ruvo died before the test stopped it")
        self.assertEqual(router.stop(signo), 0)


# ---------------------------------------------------------------------------
# A router whose /var/run lies on the /tmp file system

class SharedTmpRouter(FakeRouter):
    """A fake router whose /var/run is the directory "run" inside its /tmp.

    The daemon writes every file to /tmp/ruvo.tmp and renames it over its target
    under /var/run, which works only when both lie on one mount, as on routers
    whose /var is kept on the same tmpfs as /tmp.  In FakeRouter /tmp and /run are
    two bind mounts, so such a rename fails (EXDEV) and no history file appears.

    Here the namespace also binds <tree>/var over /var: in it "run" is a symlink
    to /tmp/run, and "tmp" shows the real /var/tmp (which holds the tree, the
    clock file and the pid file of the launcher).  The daemon's /var/run/... is
    then <tree>/tmp/run/... and host() maps it there.  /run is a bind of that
    same directory.  The rest of the real /var is hidden from the daemon, so its
    executable must not live under /var other than in /var/tmp.
    """

    def __init__(self):
        super().__init__()
        var = os.path.join(self.root, "var")
        os.mkdir(var, 0o755)
        os.mkdir(os.path.join(var, "tmp"), 0o755)
        os.symlink("/tmp/run", os.path.join(var, "run"))
        self.dirs["var"] = var
        run = os.path.join(self.dirs["tmp"], "run")
        os.mkdir(run, 0o755)
        self.dirs["run"] = run
        os.mkdir(self.host("/var/run/korel"), 0o755)

    def _launcher(self, tz):
        q = shlex.quote
        steps = super()._launcher(tz).split("\n")
        # Before /proc is covered: mount(8) reads /proc/self/mountinfo.
        anchor = "mount --bind %s /proc" % q(self.dirs["proc"])
        at = steps.index(anchor)
        var = self.dirs["var"]
        steps[at:at] = [
            "mount --bind /var/tmp %s" % q(os.path.join(var, "tmp")),
            "mount --rbind %s /var" % q(var),
        ]
        return "\n".join(steps)


class SharedTmpTestCase(RuvoTestCase):
    """A RuvoTestCase whose routers are SharedTmpRouter."""

    def new_router(self):
        router = SharedTmpRouter()
        self.routers.append(router)
        self.addCleanup(router.cleanup)
        return router


# ---------------------------------------------------------------------------
# Paths as the running daemon sees them

def path_inside(router, path):
    """The host path that reaches path through the running daemon's own mounts.

    /proc/PID/root walks the daemon's mount namespace, so the overlays over /etc
    and /usr/local apply.  That matters for a FIFO: overlayfs gives a FIFO of its
    upper directory an inode of its own, so opening the FIFO in the tree (host())
    and opening it as the daemon does give two unconnected pipes.
    """
    if router.pid is None:
        raise AssertionError("ruvo is not running")
    return "/proc/%d/root%s" % (router.pid, path)
