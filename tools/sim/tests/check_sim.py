#!/usr/bin/env python3
"""Checks the end state of a ruvo-sim run against the generator's own account.

    check_sim.py --root DIR                      checks a tree that ruvo-sim left
    check_sim.py --sim PATH [--days N] [--seed N] [--links N] [--clients N] [--keep]
                                                 runs ruvo-sim on a new tree, then checks it
    check_sim.py --faults ...                    the same for a run with faults (ruvo-sim
                                                 --faults): the checks listed at the end
    check_sim.py --check ...                     the run with ruvo-sim --check: its own checks
                                                 after every pass must hold too

The run's tree goes to /dev/shm when that is a writable directory (the daemon replaces
about 25 files per tick by rename, which a disk file system makes wait for the disk), else
to $TMPDIR or /var/tmp. It is removed after a successful check unless --keep is given.

What is checked (expected.txt describes its own format):
  - every line of every record's daily history, and the daily CSV's current line, shows
    exactly (bytes >> 20) & 0xffffffff MiB of the expected day; the days are all there (the
    newest 60 in a run of more days); the CSV repeats the history; in a run of at most 60
    days, for each counter whose days all stay below 2^52 bytes, the lines add up to the
    run's total less the cut-off parts:
        0 <= total - 2^20 * sum(MiB) < lines * 2^20;
  - the hourly history holds exactly the newest 23 finished hours of the expected hours
    (after the clock step back), each line and the CSV's current line exact;
  - the monthly and billing histories and the current lines of their CSV exports: the sums
    of the expected days within each line's dates;
  - the router-wide daily, hourly and monthly total files: the sums over the WAN records;
  - the clients add up to the links: for every hour of the router's hourly total whose
    client file the tree still holds, the file's lines add up to the total less the
    router's own traffic of the hour (expected.txt's own_hour), within what the files' cuts
    lose: a client line shows KiB cut from bytes (0 to 1,023 bytes lost per line and
    counter) and the total MiB cut from the bytes' sum (0 to 2^20 - 1 lost), so with n
    lines, per counter, in bytes:
        -1023 n <= 1024 * sum(KiB) + own - uncounted - 2^20 * MiB <= 2^20 - 1,
    where uncounted is what a wrap of a link's counter leaves uncounted (one byte, from the
    wrap's note). Excepted, each for its reason: the hour of the daemon's restart (it loads
    the hour's client file as a baseline and counts the clients' whole kernel counters on
    top of it), the hour the clock stepped back into (the hourly history resumes it with its
    earlier traffic while the client table counts as after a restart) and the hour of a link
    counter's restart (counted as a delta near 2^64); with --check ruvo-sim also checks
    every hour as it ends (tools/sim/tree_check.h) and must report no failure;
  - the alert e-mails (count, order, subjects, times), the allowance lines of syslog and the
    suspension commands are exactly the expected ones, and the suspension marker is left as
    the last command set it;
  - the restart kept the histories: every history file right after the restart equals the
    one right before it (a missing file counts as empty), and the daily history of that
    moment shows the expected days;
  - the scenario did what it is meant to: a counter wrap, a counter reset, 75 % and 95 %
    e-mails, a suspension and, once the new billing cycle is inside the run, the resumption.

With --faults the generator's account no longer holds (a kill loses what came after the
last backup, a damaged link counter file counts a sample twice, the clock jumps), and
ruvo-sim itself checks the tree after every pass and start-up (tools/sim/tree_check.h lists
the rules) and ends with status 1 when a rule broke. This script then checks:
  - ruvo-sim's status is 0 and its summary reports its checks with none failed, among them
    some hours whose clients added up to the router's total outside the faults;
  - every kind of fault happened: "/tmp" full, kills, clock jumps forward and back, and
    damaged inputs; sim/faults.log lists as many kills and damaged inputs as the summary
    counts, and every kill was followed by a start-up (a "starting" line in syslog);
  - on its own, every line of every history, CSV export, router total and backup file left
    at the end parses in its format and no file is over its line limit, no temporary file
    is left, and the client and MAC directories hold at most their files.
"""

import argparse
import glob
import os
import re
import shutil
import shlex
import subprocess
import sys
import tempfile
import time

MASK32 = 0xFFFFFFFF
MASK64 = (1 << 64) - 1
MIB = 1 << 20


def mib(value):
    return (value >> 20) & MASK32


class Checker:
    def __init__(self, root):
        self.root = root
        self.failures = []
        self.checked = 0
        self.notes = []

    # --- helpers ---------------------------------------------------------------------

    def expect(self, condition, message):
        self.checked += 1
        if not condition:
            self.failures.append(message)

    def equal(self, actual, wanted, what):
        self.expect(actual == wanted, f"{what}: got {actual!r}, expected {wanted!r}")

    def path(self, absolute):
        return os.path.join(self.root, absolute.lstrip("/"))

    def lines(self, absolute, missing=None):
        try:
            with open(self.path(absolute), encoding="utf-8") as f:
                return f.read().splitlines()
        except FileNotFoundError:
            if missing is None:
                self.failures.append(f"{absolute}: missing")
                return []
            return missing

    # --- expected.txt ----------------------------------------------------------------

    def load_expected(self):
        self.run = {}
        self.records = {}  # name -> (wan, sim, link name)
        self.order = []
        self.days = {}  # name -> {date: (c1, c2)}
        self.hours = {}  # name -> {hour: (c1, c2)}
        self.totals = {}
        self.client_days = {}  # traffic fed to the LAN clients; for information only
        self.own_hours = {}  # the router's own traffic per hour
        self.events = {"email": [], "syslog": [], "command": [], "note": []}
        with open(self.path("/sim/expected.txt"), encoding="utf-8") as f:
            for line in f:
                line = line.rstrip("\n")
                if not line or line.startswith("#"):
                    continue
                kind, rest = line.split(" ", 1)
                if kind == "run":
                    key, value = rest.split(" ", 1)
                    self.run[key] = value
                elif kind == "record":
                    name, wan, sim, link = rest.split(" ", 3)
                    self.records[name] = (int(wan), int(sim), link)
                    self.order.append(name)
                    self.days[name] = {}
                    self.hours[name] = {}
                elif kind in ("day", "hour"):
                    name, period, c1, c2 = rest.split(" ")
                    (self.days if kind == "day" else self.hours)[name][period] = (int(c1), int(c2))
                elif kind == "total":
                    name, c1, c2 = rest.split(" ")
                    self.totals[name] = (int(c1), int(c2))
                elif kind == "client_day":
                    day, first, second = rest.split(" ")
                    self.client_days[day] = (int(first), int(second))
                elif kind == "own_hour":
                    hour, c1, c2 = rest.split(" ")
                    self.own_hours[hour] = (int(c1), int(c2))
                elif kind in self.events:
                    when, text = rest.split(" ", 1)
                    self.events[kind].append((int(when), text))
                else:
                    self.failures.append(f"expected.txt: unknown line {line!r}")

    def record_files(self, name, period):
        """History file and CSV export of a record for "hourly", "daily", "monthly", "billing"."""
        wan, sim, _ = self.records[name]
        base = f"/var/run/korel/wan{wan}"
        if sim == 0:
            return f"{base}/usage_history.{period}", f"{base}/link_usage_{period}.csv"
        return f"{base}/sim{sim}_usage_history.{period}", f"{base}/sim{sim}_usage_{period}.csv"

    # --- histories -------------------------------------------------------------------

    def parse_short(self, line, what):
        parts = line.split(",")
        if len(parts) != 3:
            self.failures.append(f"{what}: malformed line {line!r}")
            return None
        return parts[0], int(parts[1]), int(parts[2])

    def parse_long(self, line, what):
        parts = line.split(",")
        if len(parts) != 4:
            self.failures.append(f"{what}: malformed line {line!r}")
            return None
        return parts[0], parts[1], int(parts[2]), int(parts[3])

    def check_line(self, what, label, mib1, mib2, table):
        wanted = table.get(label)
        if wanted is None:
            self.failures.append(f"{what}: line for {label}, which the generator never fed")
            return
        self.equal((mib1, mib2), (mib(wanted[0]), mib(wanted[1])), f"{what} {label} (MiB)")

    def check_daily(self, name):
        history_path, csv_path = self.record_files(name, "daily")
        history = [self.parse_short(l, history_path) for l in self.lines(history_path)]
        csv = [self.parse_short(l, csv_path) for l in self.lines(csv_path)]
        history = [h for h in history if h]
        csv = [c for c in csv if c]
        if not csv:
            self.failures.append(f"{csv_path}: empty")
            return
        self.equal(csv[1:], history, f"{csv_path}: the lines after the current day")
        shown = [csv[0]] + history
        expected = self.days[name]
        # The current day and the newest 59 finished days (a run of more than 60 days shows
        # its newest 60).
        self.equal(sorted(l[0] for l in shown), sorted(expected)[-60:], f"{name}: days shown")
        for label, m1, m2 in shown:
            self.check_line(f"{name} daily", label, m1, m2, expected)
        if len(expected) > 60:
            return
        # The lines add up to the run's total less at most one MiB per line and counter.
        total = self.totals[name]
        for c in (0, 1):
            values = [v[c] for v in expected.values()]
            self.equal(sum(values) & MASK64, total[c], f"{name}: expected days add up to the total, counter {c + 1}")
            if any(v >= 1 << 52 for v in values):
                self.notes.append(f"{name} counter {c + 1}: a day holds a number near 2^64 "
                                  "(its MiB are cut to 32 bits); checked per line only")
                continue
            shown_mib = sum(l[1 + c] for l in shown)
            lost = total[c] - shown_mib * MIB
            self.expect(0 <= lost < len(shown) * MIB,
                        f"{name} counter {c + 1}: total {total[c]} bytes, daily lines {shown_mib} MiB: "
                        f"difference {lost} not within [0, {len(shown)} MiB)")

    def check_hourly(self, name):
        history_path, csv_path = self.record_files(name, "hourly")
        history = [h for h in (self.parse_short(l, history_path) for l in self.lines(history_path)) if h]
        csv = [c for c in (self.parse_short(l, csv_path) for l in self.lines(csv_path)) if c]
        if not csv:
            self.failures.append(f"{csv_path}: empty")
            return
        self.equal(csv[1:], history, f"{csv_path}: the lines after the current hour")
        expected = self.hours[name]
        labels = sorted(expected)
        self.equal(csv[0][0], labels[-1], f"{csv_path}: current hour")
        newest = list(reversed(labels[:-1]))[:23]
        self.equal([h[0] for h in history], newest, f"{history_path}: the newest 23 finished hours")
        for label, m1, m2 in [csv[0]] + history:
            self.check_line(f"{name} hourly", label, m1, m2, expected)

    def sum_days(self, name, first, last):
        s1 = s2 = 0
        for day, (c1, c2) in self.days[name].items():
            if first <= day <= last:
                s1 += c1
                s2 += c2
        return s1 & MASK64, s2 & MASK64

    def check_period_file(self, name, period):
        history_path, csv_path = self.record_files(name, period)
        for path, lines in ((history_path, self.lines(history_path, [])), (csv_path, self.lines(csv_path, []))):
            for line in lines:
                parsed = self.parse_long(line, path)
                if not parsed:
                    continue
                first, last, m1, m2 = parsed
                s1, s2 = self.sum_days(name, first, last)
                self.equal((m1, m2), (mib(s1), mib(s2)), f"{path} {first}..{last} (MiB)")

    def check_month_and_billing(self, name):
        last_day = max(self.days[name])
        history_path, csv_path = self.record_files(name, "monthly")
        csv = self.lines(csv_path)
        self.expect(csv and csv[0].startswith(last_day[:8] + "01," + last_day + ","),
                    f"{csv_path}: first line {csv[:1]} is not the running month up to {last_day}")
        self.check_period_file(name, "monthly")
        wan, sim, _ = self.records[name]
        if sim == 0 and wan == int(self.run["quota_wan"].split()[0]):
            history_path, csv_path = self.record_files(name, "billing")
            history = self.lines(history_path)
            self.expect(len(history) >= 1 or int(self.run["days"]) < 2,
                        f"{history_path}: no closed billing cycle")
            self.check_period_file(name, "billing")

    # --- router totals ---------------------------------------------------------------

    def wan_records(self):
        return [n for n in self.order if self.records[n][1] == 0]

    def check_totals(self):
        wans = self.wan_records()
        for period, table_of in (("daily", self.days), ("hourly", self.hours)):
            path = f"/var/run/korel/link_usage_{period}_total.csv"
            rows = [r for r in (self.parse_short(l, path) for l in self.lines(path)) if r]
            self.expect(len(rows) > 0, f"{path}: empty")
            for label, m1, m2 in rows:
                sums = [0, 0]
                for n in wans:
                    v = table_of[n].get(label)
                    if v is None:
                        self.failures.append(f"{path}: row {label} that {n} does not have")
                        break
                    sums[0] += v[0]
                    sums[1] += v[1]
                self.equal((m1, m2), (mib(sums[0] & MASK64), mib(sums[1] & MASK64)), f"{path} {label} (MiB)")
        path = "/var/run/korel/link_usage_monthly_total.csv"
        rows = [r for r in (self.parse_long(l, path) for l in self.lines(path)) if r]
        if not rows:
            self.failures.append(f"{path}: empty")
            return
        first, last, m1, m2 = rows[0]
        sums = [0, 0]
        for n in wans:
            s = self.sum_days(n, first, last)
            sums[0] += s[0]
            sums[1] += s[1]
        self.equal((m1, m2), (mib(sums[0] & MASK64), mib(sums[1] & MASK64)), f"{path} running month (MiB)")
        # Closed months: the sum of the records' history lines, which are MiB already.
        for first, last, m1, m2 in rows[1:]:
            sums = [0, 0]
            for n in wans:
                s = self.sum_days(n, first, last)
                sums[0] += mib(s[0])
                sums[1] += mib(s[1])
            self.equal((m1, m2), (sums[0] & MASK32, sums[1] & MASK32), f"{path} {first}..{last} (MiB)")

    # --- the clients against the links ----------------------------------------------

    @staticmethod
    def hour_of(epoch):
        return time.strftime("%Y-%m-%d-%H", time.gmtime(epoch))

    def check_client_hours(self):
        # The hours the daemon counts otherwise, each with its reason.
        excepted = {}
        restart = int(self.run["restart"])
        for when in (restart, restart + 10):
            excepted[self.hour_of(when)] = ("the daemon restarted in it: it loads the hour's client file as a "
                                            "baseline and counts the clients' whole kernel counters on top")
        excepted[self.hour_of(int(self.run["clock_back"].split()[1]))] = (
            "the clock stepped back into it: the hourly history resumes it with its earlier traffic, the client "
            "table loads its file as a baseline and counts the clients' whole kernel counters on top")
        # A wrap is counted one byte short: "wrap WAN n counter c old -> new, fed F, counted C".
        uncounted = {}
        for when, text in self.events["note"]:
            kind = text.split(" ", 1)[0]
            if kind == "reset":
                excepted[self.hour_of(when)] = "a link's counter restarted in it: counted as a delta near 2^64"
            elif kind == "wrap":
                found = re.search(r"counter (\d) .*, fed (\d+), counted (\d+)$", text)
                self.expect(found is not None, f"expected.txt: wrap note without its numbers: {text!r}")
                if found:
                    per_counter = uncounted.setdefault(self.hour_of(when), [0, 0])
                    per_counter[int(found.group(1)) - 1] += int(found.group(2)) - int(found.group(3))

        directory = "/var/run/korel/client_usage_hourly"
        names = sorted(f[:-4] for f in os.listdir(self.path(directory)) if f.endswith(".csv"))
        path = "/var/run/korel/link_usage_hourly_total.csv"
        compared = 0
        for label, m1, m2 in [r for r in (self.parse_short(l, path) for l in self.lines(path)) if r]:
            if label in excepted:
                self.notes.append(f"client hour {label} not summed: {excepted[label]}")
                continue
            if label not in names and len(names) >= 24 and label < names[0]:
                continue  # the directory keeps its newest 24 files
            kib = [0, 0]
            lines = 0
            for line in self.lines(f"{directory}/{label}.csv", missing=[]):
                parts = line.split(",")
                if len(parts) != 4:
                    self.failures.append(f"{directory}/{label}.csv: malformed line {line!r}")
                    continue
                kib[0] += int(parts[2])
                kib[1] += int(parts[3])
                lines += 1
            own = self.own_hours.get(label)
            if own is None:
                self.failures.append(f"expected.txt: no own_hour line for {label}, an hour of {path}")
                continue
            short = uncounted.get(label, [0, 0])
            for c, total_mib in enumerate((m1, m2)):
                difference = (kib[c] << 10) + own[c] - short[c] - (total_mib << 20)
                self.expect(-1023 * lines <= difference <= MIB - 1,
                            f"{directory}/{label}.csv: counter {c + 1}: {lines} client lines of {kib[c]} KiB and the "
                            f"router's own {own[c]} bytes against {total_mib} MiB in {path}: {difference} bytes "
                            f"apart, not within [-1023 x {lines}, 2^20 - 1]")
            compared += 1
        self.expect(compared >= min(20, len(self.own_hours) - len(excepted)),
                    f"only {compared} hours of clients summed against {path}")

    def check_sim_summary(self, status, output):
        """ruvo-sim --check: its status and its own checks, the hourly sums of the clients among them."""
        self.equal(status, 0, "ruvo-sim's exit status")
        checks = re.search(r"checks:\s+(\d+) after (\d+) passes and (\d+) start-ups: (\d+) failed", output)
        self.expect(checks is not None, "summary: no line of the checks")
        if checks:
            self.equal(int(checks.group(4)), 0, "failed checks of ruvo-sim")
        hours = re.search(r"(\d+) hours ended with their clients' hourly file adding up", output)
        self.expect(hours is not None and int(hours.group(1)) > 0,
                    "summary: no hour's clients summed against the router's total")

    # --- e-mails, syslog, commands ---------------------------------------------------

    def log_lines(self, name):
        result = []
        for line in self.lines(f"/sim/{name}"):
            result.append(line.split("\t"))
        return result

    def check_events(self):
        commands = self.log_lines("commands.log")
        mails = [(int(c[0]), c[3]) for c in commands if c[2].startswith("(/usr/local/korel/bin/sendemail ")]
        outbox = sorted(glob.glob(self.path("/sim/outbox/*.eml")))
        subjects = []
        for f in outbox:
            with open(f, encoding="utf-8", newline="") as m:
                first = m.readline().rstrip("\r\n")
            subjects.append(first[len("Subject: "):] if first.startswith("Subject: ") else first)
        wanted = self.events["email"]
        self.equal(len(outbox), len(wanted), "number of e-mails in sim/outbox")
        self.equal(subjects, [text for _, text in wanted], "e-mail subjects")
        self.equal([when for when, _ in mails], [when for when, _ in wanted], "times of the e-mails")
        self.expect(all(effect.startswith("sent as ") for _, effect in mails), "every e-mail reached the outbox")

        suspensions = [(int(c[0]), c[2]) for c in commands if c[2].startswith("/usr/local/korel/bin/wan_usage_suspend ")]
        self.equal(suspensions, self.events["command"], "suspension commands (time, command)")
        balance = [(int(s[0]), s[4]) for s in self.log_lines("syslog.log") if s[2] == "balance"]
        self.equal(balance, self.events["syslog"], "allowance lines of syslog (time, text)")
        if self.events["command"]:
            quota_wan = int(self.run["quota_wan"].split()[0])
            marker = self.path(f"/var/run/korel/wan{quota_wan}/usage_suspend")
            last_on = self.events["command"][-1][1].endswith(" on &")
            self.equal(os.path.exists(marker), last_on, f"WAN {quota_wan} suspension marker at the end")

    # --- restart ---------------------------------------------------------------------

    def check_restart(self):
        before = self.path("/sim/restart/before")
        after = self.path("/sim/restart/after")
        names = set()
        for top in (before, after):
            for dirpath, _, files in os.walk(top):
                for f in files:
                    names.add(os.path.relpath(os.path.join(dirpath, f), top))
        self.expect(any(n.endswith("usage_history.daily") for n in names), "restart: no daily history copied")

        def content(top, name):
            try:
                with open(os.path.join(top, name), encoding="utf-8") as f:
                    return f.read()
            except FileNotFoundError:
                return ""

        for name in sorted(names):
            self.equal(content(after, name), content(before, name), f"restart: {name} after the restart")
        starts = [s for s in self.log_lines("syslog.log") if s[2] == "ruvo" and s[4].startswith("starting ")]
        self.equal([int(s[0]) for s in starts][1:2], [int(self.run["restart"]) + 10], "restart: start-up line")
        # The finished days of that moment are final: the run never steps the clock across midnight.
        restart_day = time.strftime("%Y-%m-%d", time.gmtime(int(self.run["restart"])))
        for name in self.order:
            wan, sim, _ = self.records[name]
            file = f"wan{wan}/" + ("usage_history.daily" if sim == 0 else f"sim{sim}_usage_history.daily")
            lines = [l for l in (self.parse_short(x, file) for x in content(before, file).splitlines()) if l]
            wanted_days = sorted(d for d in self.days[name] if d < restart_day)[-59:]
            self.equal(sorted(l[0] for l in lines), wanted_days, f"restart: days in {file}")
            for label, m1, m2 in lines:
                self.check_line(f"restart: {file}", label, m1, m2, self.days[name])
            # Hours before the clock's step back are final too.
            file = f"wan{wan}/" + ("usage_history.hourly" if sim == 0 else f"sim{sim}_usage_history.hourly")
            step_to = int(self.run["clock_back"].split()[1])
            untouched = time.strftime("%Y-%m-%d-%H", time.gmtime(step_to))
            for x in content(before, file).splitlines():
                parsed = self.parse_short(x, file)
                if parsed and parsed[0] < untouched:
                    self.check_line(f"restart: {file}", parsed[0], parsed[1], parsed[2], self.hours[name])

    # --- the scenario itself ---------------------------------------------------------

    def check_scenario(self):
        notes = [text.split(" ", 1)[0] for _, text in self.events["note"]]
        self.expect("wrap" in notes, "scenario: no counter wrap")
        self.expect("reset" in notes, "scenario: no counter reset")
        subjects = [text for _, text in self.events["email"]]
        self.expect(any(s.endswith("Hits 75%") for s in subjects), "scenario: no 75 % e-mail")
        self.expect(any(s.endswith("Hits 95%") for s in subjects), "scenario: no 95 % e-mail")
        commands = [text for _, text in self.events["command"]]
        self.expect(any(c.endswith(" on &") for c in commands), "scenario: no suspension")
        if int(self.run["days"]) >= 2:
            self.expect(any(c.endswith(" off &") for c in commands), "scenario: no resumption")
            self.expect(len(self.lines(self.record_files("wan1", "billing")[0])) >= 1,
                        "scenario: no closed billing cycle")
        if int(self.run["days"]) >= 3:
            self.expect(len(self.lines(self.record_files("wan1", "monthly")[0])) >= 1,
                        "scenario: no closed month")

    # --- a run with faults ------------------------------------------------------------

    HOUR = r"\d{4}-\d{2}-\d{2}-\d{2}"
    DAY = r"\d{4}-\d{2}-\d{2}"

    def check_format(self, absolute, pattern, most, limit=None):
        lines = self.lines(absolute, missing=[])
        self.expect(len(lines) <= most, f"{absolute}: {len(lines)} lines, more than {most}")
        compiled = re.compile(pattern + "$")
        for number, line in enumerate(lines, 1):
            match = compiled.match(line)
            ok = match is not None and all(int(v) <= limit for v in match.groups()) if limit else match is not None
            self.expect(ok, f"{absolute}: line {number} does not parse: {line!r}")
            if not ok:
                break

    def check_fault_run(self, status):
        self.equal(status, 0, "ruvo-sim's exit status")
        summary = self.lines("/sim/summary.txt")
        text = "\n".join(summary)
        counts = {}
        for key, label in (("tmp_full", "/tmp full:"), ("kill", "daemon killed:"), ("input", "inputs damaged:")):
            found = re.search(re.escape(label) + r"\s+(\d+)", text)
            self.expect(found is not None, f"summary: no line {label!r}")
            counts[key] = int(found.group(1)) if found else 0
            self.expect(counts[key] > 0, f"summary: no fault of the kind {key}")
        jumps = re.search(r"clock jumps:\s+(\d+) forward, (\d+) back", text)
        self.expect(jumps is not None and int(jumps.group(1)) > 0 and int(jumps.group(2)) > 0,
                    "summary: no clock jump forward and back")
        checks = re.search(r"checks:\s+(\d+) after (\d+) passes and (\d+) start-ups: (\d+) failed", text)
        self.expect(checks is not None, "summary: no line of the checks")
        if checks:
            self.expect(int(checks.group(1)) > 0, "summary: no check was made")
            self.equal(int(checks.group(4)), 0, "failed checks of ruvo-sim")
        hours = re.search(r"(\d+) hours ended with their clients' hourly file adding up", text)
        self.expect(hours is not None and int(hours.group(1)) > 0,
                    "summary: no hour's clients summed against the router's total")
        log = [l.split("\t") for l in self.lines("/sim/faults.log")]
        kills = [l for l in log if len(l) >= 4 and l[2] == "kill"]
        inputs = [l for l in log if len(l) >= 4 and l[2] == "input"]
        self.equal(len(kills), counts["kill"], "kills in sim/faults.log")
        self.equal(len(inputs), counts["input"], "damaged inputs in sim/faults.log")
        self.expect(all(k[3].startswith("killed ") for k in kills), "every kill ended the pass's process with SIGKILL")
        starts = [s for s in self.log_lines("syslog.log") if s[2] == "ruvo" and s[4].startswith("starting ")]
        # The first start, the scenario's restart and one start-up after every kill.
        self.equal(len(starts), 2 + len(kills), "start-up lines in syslog")

        wans = int(self.run["links"])
        dual = int(self.run["dual_sim_wan"])
        records = [(w, 0) for w in range(1, wans + 1)] + [(dual, 1), (dual, 2)]
        mib = 0xFFFFFFFF
        for wan, sim in records:
            base = f"/var/run/korel/wan{wan}/"
            history = f"sim{sim}_usage_history." if sim else "usage_history."
            export = f"sim{sim}_usage_" if sim else "link_usage_"
            backup = f"/tmp/ruvo_backup/wan{wan}/ruvo." + (f"sim{sim}." if sim else "")
            short_h = rf"{self.HOUR},(\d+),(\d+)"
            short_d = rf"{self.DAY},(\d+),(\d+)"
            period = rf"{self.DAY},{self.DAY},(\d+),(\d+)"
            for path, pattern, most, limit in (
                    (base + history + "hourly", short_h, 23, mib), (base + history + "daily", short_d, 59, mib),
                    (base + history + "monthly", period, 61, mib), (base + history + "billing", period, 61, mib),
                    (base + export + "hourly.csv", short_h, 24, mib), (base + export + "daily.csv", short_d, 60, mib),
                    (base + export + "monthly.csv", period, 60, mib), (base + export + "billing.csv", period, 60, mib),
                    (backup + "hourly.csv", short_h, 32, MASK64), (backup + "daily.csv", short_d, 64, MASK64),
                    (backup + "monthly.csv", period, 62, MASK64), (backup + "billing.csv", period, 62, MASK64)):
                self.check_format(path, pattern, most, limit)
        for name, pattern, most in (("hourly", rf"{self.HOUR},(\d+),(\d+)", 24), ("daily", rf"{self.DAY},(\d+),(\d+)", 60),
                                    ("monthly", rf"{self.DAY},{self.DAY},(\d+),(\d+)", 60)):
            self.check_format(f"/var/run/korel/link_usage_{name}_total.csv", pattern, most, mib)
        for temporary in ("/tmp/ruvo.tmp", "/tmp/ruvo_client.tmp", "/var/run/korel/client_usage_mac_hourly/hour.tmp",
                          "/var/run/ruvo.pid.tmp"):
            self.expect(not os.path.exists(self.path(temporary)), f"{temporary}: left at the end")
        client = r"\d{1,3}\.\d{1,3}\.\d{1,3}\.\d{1,3},(?:lan|sroute|pptp|vpn|l2tp),\d+,\d+"
        mac = r"(?:[0-9A-F]{2}(?::[0-9A-F]{2}){5}|\*\d{1,3}\.\d{1,3}\.\d{1,3}\.\d{1,3}),[A-Za-z0-9]+,\d+,\d+"
        for top in ("/var/run/korel/client_usage_", "/tmp/ruvo_client_"):
            for name, keep, pattern, most in (("hourly", 24, client, None), ("daily", 32, client, None),
                                              ("monthly", 60, client, None), ("mac_hourly", 3, mac, 8192)):
                directory = self.path(top + name)
                files = sorted(f for f in os.listdir(directory) if not f.startswith(".")) \
                    if os.path.isdir(directory) else []
                self.expect(len(files) <= keep + 1, f"{top}{name}: {len(files)} files, more than {keep} + 1")
                for f in files:
                    self.check_format(f"{top}{name}/{f}", pattern, most or 10 ** 9)
        return not self.failures

    def check_all(self):
        self.load_expected()
        for name in self.order:
            self.check_daily(name)
            self.check_hourly(name)
            self.check_month_and_billing(name)
        self.check_totals()
        self.check_client_hours()
        self.check_events()
        self.check_restart()
        self.check_scenario()
        return not self.failures


def tree_base():
    shm = "/dev/shm"
    if os.path.isdir(shm) and os.access(shm, os.W_OK | os.X_OK):
        return shm
    return os.environ.get("TMPDIR") or "/var/tmp"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--root", help="check this tree (from an earlier run)")
    parser.add_argument("--sim", help="run this ruvo-sim first")
    parser.add_argument("--days", type=int, default=3)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--links", type=int)
    parser.add_argument("--clients", type=int)
    parser.add_argument("--keep", action="store_true", help="keep the tree after a successful check")
    parser.add_argument("--faults", action="store_true",
                        help="a run with faults (ruvo-sim --faults) and its checks; with --root, a tree it left")
    parser.add_argument("--check", action="store_true",
                        help="run ruvo-sim with --check (its checks after every pass) and require them to hold")
    parser.add_argument("--emulator", default="",
                        help="run ruvo-sim through this command (qemu-user for a cross build)")
    args = parser.parse_args()
    if bool(args.root) == bool(args.sim):
        parser.error("give either --root or --sim")

    root = args.root
    made = False
    if args.sim:
        root = tempfile.mkdtemp(prefix="ruvo-sim-check-", dir=tree_base())
        made = True
        command = shlex.split(args.emulator) + [args.sim, "--days", str(args.days), "--seed", str(args.seed), "--root", root, "--quiet"]
        if args.links:
            command += ["--links", str(args.links)]
        if args.clients is not None:
            command += ["--clients", str(args.clients)]
        if args.faults:
            command += ["--faults"]
        elif args.check:
            command += ["--check"]
        print("$ " + " ".join(command), flush=True)
        started = time.monotonic()
        captured = args.faults or args.check
        result = subprocess.run(command, stdout=subprocess.PIPE if captured else None, text=True)
        print(f"ruvo-sim took {time.monotonic() - started:.1f} s", flush=True)
        status = result.returncode
        if args.faults:
            # The summary, without the list of the faults (sim/faults.log has it).
            for line in result.stdout.splitlines():
                if not line.startswith("      ") or re.match(r"\s+\d+: ", line):
                    print(line)
        elif args.check:
            print(result.stdout, end="")
        if result.returncode != 0 and not args.faults and not args.check:
            print(f"FAIL: ruvo-sim ended with status {result.returncode}; tree kept at {root}")
            return 1
    else:
        status = 0

    checker = Checker(root)
    try:
        if args.faults:
            checker.load_expected()
            ok = checker.check_fault_run(status)
        else:
            if args.check and args.sim:
                checker.check_sim_summary(status, result.stdout)
            ok = checker.check_all()
    except (OSError, ValueError, KeyError, IndexError) as error:
        checker.failures.append(f"cannot check the tree: {error!r}")
        ok = False
    for note in checker.notes:
        print("note: " + note)
    if not ok:
        for failure in checker.failures:
            print("FAIL: " + failure)
        print(f"{len(checker.failures)} of {checker.checked} checks failed; tree kept at {root}")
        return 1
    print(f"OK: {checker.checked} checks passed")
    if made and not args.keep:
        shutil.rmtree(root, ignore_errors=True)
    elif made:
        print(f"tree kept at {root}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
