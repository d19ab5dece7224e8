#!/usr/bin/env python3
"""install.init_script: the init script, dist/ruvo.init and its installed copy etc/init.d/ruvo.

Static checks, on both: "sh -n" exits 0 and prints nothing; "shellcheck --norc -s sh" finds
nothing (exit 0, no output); an LSB header that provides ruvo.

Behaviour, run with sh as root would run it, twice: once with start-stop-daemon on PATH and
once with a PATH that lacks it (then the script starts the daemon with "&"). The script's two
test variables point it at a pid file in a new directory (RUVO_PIDFILE) and at a stand-in
daemon (RUVO_DAEMON): a shell script named ruvo that, like the daemon, writes its pid file,
stays in the foreground and, on SIGTERM, removes its pid file and exits with 0; it reports
its start and every signal it gets on a FIFO that the test reads (no sleeps: the test waits
for each report). Checked, with exit statuses and messages:
- status without a pid file: 3; with a pid file holding no number, or the pid of a process
  that is not ruvo: 1;
- backup and reload while nothing runs: 7; stop while nothing runs: 0;
- start over a stale pid file: 0, "ruvo started (pid N)", the stand-in reports its start with
  pid N and the pid file holds N; start again: 0, "already running";
- status: 0, "ruvo is running (pid N)";
- backup: 0, the stand-in gets SIGUSR1; reload and force-reload: 0, SIGHUP;
- restart: 0, the old process gets SIGTERM and a new one starts;
- stop: 0, the stand-in gets SIGTERM, its process is gone and the pid file too; then
  status: 3;
- an unknown action and no action: 2 with the usage on standard error;
- start with a daemon that is not an executable program: 5.
"""

import os
import re
import select
import shutil
import signal
import stat
import sys
import tempfile

from install_tree import SKIPPED, Checks, describe, install, parse_arguments, run

FAKE_DAEMON = """#!/bin/sh
# Stands in for ruvo: writes its pid file, reports its start and the signals it gets on the
# FIFO $RUVO_TEST_EVENTS, and on SIGTERM removes its pid file and exits with 0.
events=$RUVO_TEST_EVENTS
child=
trap 'echo HUP >"$events"' HUP
trap 'echo USR1 >"$events"' USR1
trap 'rm -f "$RUVO_PIDFILE"; [ -n "$child" ] && kill "$child" 2>/dev/null; echo TERM >"$events"; exit 0' TERM
sleep 600 &
child=$!
echo $$ >"$RUVO_PIDFILE"
echo "START $$" >"$events"
while kill -0 "$child" 2>/dev/null; do
    wait "$child"
done
"""

# How long the test waits for a report of the stand-in before it fails.
REPORT_TIMEOUT = 20


class Events:
    """The reports of the stand-in daemon, read from a FIFO. The test holds a write end
    open too, so that reading waits for data instead of seeing an end of file."""

    def __init__(self, path):
        os.mkfifo(path)
        self.read_fd = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
        self.write_fd = os.open(path, os.O_WRONLY)
        self.buffer = b""

    def next(self):
        """The next report line, or None when none comes within REPORT_TIMEOUT seconds."""
        while b"\n" not in self.buffer:
            ready, _, _ = select.select([self.read_fd], [], [], REPORT_TIMEOUT)
            if not ready:
                return None
            self.buffer += os.read(self.read_fd, 4096)
        line, self.buffer = self.buffer.split(b"\n", 1)
        return line.decode()

    def close(self):
        os.close(self.read_fd)
        os.close(self.write_fd)


def alive(pid):
    """Whether process pid exists and is no zombie."""
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8") as f:
            state = f.read().rsplit(")", 1)[1].split()[0]
    except (OSError, IndexError):
        return False
    return state not in ("Z", "X")


def static_checks(checks, script, label):
    result = run(["/bin/sh", "-n", script])
    checks.true(f"sh -n {label} exits 0 and prints nothing",
                result.returncode == 0 and not result.stdout and not result.stderr, describe(result))
    with open(script, encoding="utf-8") as f:
        text = f.read()
    header = re.search(r"^### BEGIN INIT INFO\n(.*?)^### END INIT INFO$", text, re.MULTILINE | re.DOTALL)
    checks.true(f"{label} has an LSB header that provides ruvo",
                header is not None and re.search(r"^# Provides:\s+ruvo$", header.group(1), re.MULTILINE))
    if shutil.which("shellcheck"):
        result = run(["shellcheck", "--norc", "-s", "sh", script])
        checks.true(f"shellcheck finds nothing in {label}",
                    result.returncode == 0 and not result.stdout and not result.stderr, describe(result))
        return True
    return False


class Behaviour:
    def __init__(self, checks, script, work, path, mode):
        self.checks = checks
        self.script = script
        self.mode = mode
        self.pidfile = os.path.join(work, "ruvo.pid")
        self.daemon = os.path.join(work, "bin", "ruvo")
        self.events = Events(os.path.join(work, "events"))
        self.env = dict(os.environ, PATH=path, RUVO_PIDFILE=self.pidfile, RUVO_DAEMON=self.daemon,
                        RUVO_TEST_EVENTS=os.path.join(work, "events"))
        self.started = []

    def action(self, name, status, stdout=None, stderr_start=None, env=None):
        result = run(["/bin/sh", self.script] + ([name] if name else []), env=env or self.env)
        what = f"[{self.mode}] {name or '(no action)'}"
        self.checks.equal(f"{what}: exit status ({describe(result)})", result.returncode, status)
        if stdout is not None:
            self.checks.equal(f"{what}: output", result.stdout.strip(), stdout)
        if stderr_start is not None:
            self.checks.true(f"{what}: standard error starts with {stderr_start!r}",
                             result.stderr.startswith(stderr_start), result.stderr)
        return result

    def report(self, expected):
        """Waits for the stand-in's next report and checks it; returns it."""
        line = self.events.next()
        self.checks.true(f"[{self.mode}] the stand-in reports {expected}",
                         line is not None and re.fullmatch(expected, line), repr(line))
        return line or ""

    def start(self, expected_output_pattern):
        result = self.action("start", 0)
        line = self.report(r"START \d+")
        pid = int(line.split()[1]) if line else 0
        self.started.append(pid)
        self.checks.equal(f"[{self.mode}] start: output", result.stdout.strip(),
                          expected_output_pattern.format(pid=pid))
        return pid

    def pidfile_text(self):
        try:
            with open(self.pidfile, encoding="utf-8") as f:
                return f.read()
        except FileNotFoundError:
            return None

    def write_pidfile(self, text):
        with open(self.pidfile, "w", encoding="utf-8") as f:
            f.write(text)

    def run_all(self):
        self.action("status", 3, "ruvo is not running")
        self.write_pidfile("not a number\n")
        self.action("status", 1, f"ruvo is not running, but {self.pidfile} exists")
        self.write_pidfile(f"{os.getpid()}\n")
        self.action("status", 1, f"ruvo is not running, but {self.pidfile} exists")
        self.action("backup", 7)
        self.action("reload", 7)
        self.action("stop", 0, "ruvo is not running")
        self.checks.equal(f"[{self.mode}] stop removes a stale pid file", self.pidfile_text(), None)

        self.write_pidfile("4194304\n")  # above the kernel's largest pid: stale
        pid = self.start("ruvo started (pid {pid})")
        self.checks.equal(f"[{self.mode}] the pid file holds the started process",
                          self.pidfile_text(), f"{pid}\n")
        self.checks.true(f"[{self.mode}] the started process runs", alive(pid))
        self.action("start", 0, f"ruvo is already running (pid {pid})")
        self.action("status", 0, f"ruvo is running (pid {pid})")

        self.action("backup", 0, f"ruvo (pid {pid}): backup requested")
        self.report("USR1")
        self.action("reload", 0, f"ruvo (pid {pid}): tick and full backup requested")
        self.report("HUP")
        self.action("force-reload", 0, f"ruvo (pid {pid}): tick and full backup requested")
        self.report("HUP")

        result = self.action("restart", 0)
        self.report("TERM")
        line = self.report(r"START \d+")
        new_pid = int(line.split()[1]) if line else 0
        self.started.append(new_pid)
        self.checks.equal(f"[{self.mode}] restart: output", result.stdout.strip(),
                          f"ruvo stopped\nruvo started (pid {new_pid})")
        self.checks.true(f"[{self.mode}] restart ends the old process", not alive(pid))
        self.checks.true(f"[{self.mode}] restart starts a new process", new_pid != pid and alive(new_pid))

        self.action("stop", 0, "ruvo stopped")
        self.report("TERM")
        self.checks.true(f"[{self.mode}] stop ends the process", not alive(new_pid))
        self.checks.equal(f"[{self.mode}] no pid file after stop", self.pidfile_text(), None)
        self.action("status", 3, "ruvo is not running")

        self.action("bogus", 2, stderr_start="usage: ")
        self.action(None, 2, stderr_start="usage: ")
        not_executable = os.path.join(os.path.dirname(self.daemon), "not-executable")
        with open(not_executable, "w", encoding="utf-8") as f:
            f.write("#!/bin/sh\n")
        self.action("start", 5, env=dict(self.env, RUVO_DAEMON=not_executable))

    def cleanup(self):
        for pid in self.started:
            if pid and alive(pid):
                os.kill(pid, signal.SIGTERM)
        self.events.close()


def behaviour(checks, script, mode, path):
    with tempfile.TemporaryDirectory(prefix="ruvo-init-") as work:
        os.makedirs(os.path.join(work, "bin"))
        daemon = os.path.join(work, "bin", "ruvo")
        with open(daemon, "w", encoding="utf-8") as f:
            f.write(FAKE_DAEMON)
        os.chmod(daemon, stat.S_IRWXU | stat.S_IRGRP | stat.S_IXGRP | stat.S_IROTH | stat.S_IXOTH)
        if path is None:
            # A PATH with only the programs the script and the stand-in use.
            tools = os.path.join(work, "tools")
            os.makedirs(tools)
            for tool in ("cat", "rm", "sleep"):
                os.symlink(shutil.which(tool), os.path.join(tools, tool))
            path = tools
        b = Behaviour(checks, script, work, path, mode)
        try:
            b.run_all()
        finally:
            b.cleanup()


def main():
    args = parse_arguments(__doc__)
    checks = Checks()
    with tempfile.TemporaryDirectory(prefix="ruvo-init-install-") as destdir:
        install(args, destdir)
        installed = os.path.join(destdir, "etc/init.d/ruvo")
        source = os.path.join(args.source_dir, "dist/ruvo.init")
        have_shellcheck = static_checks(checks, source, "dist/ruvo.init")
        static_checks(checks, installed, "the installed etc/init.d/ruvo")

        path = os.environ.get("PATH", "/usr/bin:/bin") + ":/usr/sbin:/sbin"
        if shutil.which("start-stop-daemon", path=path):
            behaviour(checks, installed, "start-stop-daemon", path)
        else:
            print("note: start-stop-daemon is not installed; only the start with & is run")
        behaviour(checks, installed, "&", None)

    status = checks.finish("install.init_script")
    if status == 0 and not have_shellcheck:
        print("SKIPPED: shellcheck is not installed (Debian package shellcheck); "
              "everything else passed")
        return SKIPPED
    return status


if __name__ == "__main__":
    sys.exit(main())
