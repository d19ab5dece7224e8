#!/usr/bin/env python3
"""Checks `ruvo-report --json` against the fixture trees.

Every figure is worked out here again from the fixture files themselves (the rows in bytes,
the client sums, the cycle bounds, the projection and the crossing dates, in the time zone
given), so the test does not lean on the program's own arithmetic.
"""
import argparse
import calendar
import datetime
import json
import os
import shlex
import subprocess
import sys
import zoneinfo

MIB = 1 << 20
KIB = 1 << 10

failures = []


def check(condition, message):
    if not condition:
        failures.append(message)


def run_report(args, root, tz):
    command = shlex.split(args.emulator) + [args.report, "--root", root, "--json"]
    env = dict(os.environ, TZ=tz)
    done = subprocess.run(command, capture_output=True, env=env, check=False)
    return done.returncode, done.stdout, done.stderr


def read_lines(path):
    try:
        with open(path, encoding="ascii") as f:
            return [line.rstrip("\n") for line in f if line.strip()]
    except FileNotFoundError:
        return None


def config_of(root):
    values = {}
    for line in read_lines(os.path.join(root, "usr/local/velto/conf/config")) or []:
        if "=" in line and not line.startswith("#"):
            key, value = line.split("=", 1)
            values[key] = value.strip('"')
    return values


def expected_rows(path, kind):
    rows = []
    for number, line in enumerate(read_lines(path) or [], start=1):
        f = line.split(",")
        if kind == "hourly":
            day, hour = f[0][:10], f[0][11:13]
            start, end = f"{day} {hour}:00", f"{day} {hour}:59"
        elif kind == "daily":
            start = end = f[0]
        else:
            start, end = f[0], f[1]
        rows.append({"start": start, "end": end, "counter1_bytes": int(f[-2]) * MIB,
                     "counter2_bytes": int(f[-1]) * MIB, "running": number == 1})
    return rows


def local(tz, y, m, d, h=0):
    return int(datetime.datetime(y, m, d, h, tzinfo=zoneinfo.ZoneInfo(tz)).timestamp())


def local_date(tz, t):
    return datetime.datetime.fromtimestamp(t, zoneinfo.ZoneInfo(tz)).strftime("%Y-%m-%d")


def cycle_end(tz, start_date, day):
    """The last second of the cycle that starts on start_date: day `day` of the next month
    (0: its last day; a day the month lacks runs on into the month after), minus 1 s."""
    y, m = start_date.year, start_date.month + 1
    if m == 13:
        y, m = y + 1, 1
    if day == 0:
        day = calendar.monthrange(y, m)[1]
    first = datetime.date(y, m, 1) + datetime.timedelta(days=day - 1)
    return local(tz, first.year, first.month, first.day) - 1


def expected_allowance(root, tz, wan, config):
    d = f"{root}/var/run/korel/wan{wan}"
    billing = read_lines(f"{d}/link_usage_billing.csv")
    hourly = read_lines(f"{d}/link_usage_hourly.csv")
    quota = config.get(f"WAN{wan}_USAGE_QUOTA", "")
    start_day = config.get(f"WAN{wan}_USAGE_START_DAY")
    action = config.get(f"WAN{wan}_USAGE_ACTION", "")
    suspended = os.path.exists(f"{d}/usage_suspend")
    out = {"allowance_bytes": int(quota) * MIB if quota else None,
           "actions": [a for a in ("email", "disconnect") if a in action],
           "suspended": suspended}
    if not billing:
        out.update(used_bytes=None, percent=None, cycle_start=None, cycle_end=None,
                   projected_cycle_bytes=None, projected_crossings=[])
        return out
    first, last, c1, c2 = billing[0].split(",")
    used_mib = int(c1) + int(c2)
    used = used_mib * MIB
    out["used_bytes"] = used
    out["percent"] = None if not quota else (used_mib * 2000 + int(quota)) // (2 * int(quota)) / 10
    if start_day is None:
        out.update(cycle_start=None, cycle_end=None, projected_cycle_bytes=None, projected_crossings=[])
        return out
    s = datetime.date.fromisoformat(first)
    start = local(tz, s.year, s.month, s.day)
    end = cycle_end(tz, s, int(start_day))
    l = datetime.date.fromisoformat(last) + datetime.timedelta(days=1)
    now = local(tz, l.year, l.month, l.day)
    if hourly and hourly[0][:10] == last:
        h = hourly[0].split(",")[0]
        now = local(tz, int(h[:4]), int(h[5:7]), int(h[8:10]), int(h[11:13])) + 3600
    now = min(max(now, start + 1), end + 1)
    elapsed, length = now - start, end + 1 - start
    projected = used if suspended else used * length // elapsed
    out.update(cycle_start=first, cycle_end=local_date(tz, end), projected_cycle_bytes=projected)
    crossings = []
    if quota:
        for key, permille in (("75", 750), ("95", 950), ("suspension", 995)):
            line = -(-int(quota) * MIB * permille // 1000)
            c = {"line": key, "line_bytes": line, "date": None}
            if used >= line:
                c["state"] = "crossed"
            elif projected < line:
                c["state"] = "not_in_cycle"
            else:
                at = -(-line * elapsed // used)  # the first second with used * s // elapsed >= line
                c["state"] = "expected"
                c["date"] = local_date(tz, start + at)
            crossings.append(c)
    out["projected_crossings"] = crossings
    return out


def check_links(doc, root, tz, label):
    config = config_of(root)
    wans = int(read_lines(f"{root}/etc/VELTO_wanno")[0])
    plain = [link for link in doc["links"] if link["sim"] == 0]
    check([link["id"] for link in plain] == [f"wan{n}" for n in range(1, wans + 1)], f"{label}: link ids")
    for link in plain:
        wan = link["wan"]
        check(link["name"] == config.get(f"WAN{wan}_NAME", ""), f"{label}: wan{wan} name")
        d = f"{root}/var/run/korel/wan{wan}"
        for kind in ("hourly", "daily", "monthly", "billing"):
            rows = expected_rows(f"{d}/link_usage_{kind}.csv", kind)
            check(link[kind]["rows"] == rows, f"{label}: wan{wan} {kind} rows")
        got = {k: v for k, v in link["allowance"].items() if k != "projection_unavailable"}
        for c in got.get("projected_crossings", []):
            c.pop("percent", None)
        want = expected_allowance(root, tz, wan, config)
        for key, value in want.items():
            check(got.get(key) == value, f"{label}: wan{wan} allowance {key}: {got.get(key)!r}, expected {value!r}")


def check_clients(doc, root, label):
    for key, directory, mac in (("by_ip", "client_usage_hourly", False), ("by_ip", "client_usage_daily", False),
                                ("by_ip", "client_usage_monthly", False),
                                ("by_mac", "client_usage_mac_hourly", True)):
        period = "hourly" if "hourly" in directory else directory.split("_")[-1]
        table = doc["clients"][key][period]
        full = f"{root}/var/run/korel/{directory}"
        names = sorted(os.listdir(full)) if os.path.isdir(full) else []
        if not names:
            check(table["read"] is False and table["clients"] == [], f"{label}: {directory} empty")
            continue
        sums = {}
        for line in read_lines(f"{full}/{names[-1]}"):
            f = line.split(",")
            c = sums.setdefault(f[0], [0, 0])
            c[0] += int(f[2]) * KIB
            c[1] += int(f[3]) * KIB
        got = {c["mac" if mac else "address"]: [c["counter1_bytes"], c["counter2_bytes"]] for c in table["clients"]}
        check(got == sums, f"{label}: {directory} client sums")
        totals = [c["counter1_bytes"] + c["counter2_bytes"] for c in table["clients"]]
        check(totals == sorted(totals, reverse=True), f"{label}: {directory} largest first")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--report", required=True)
    ap.add_argument("--fixtures", required=True)
    ap.add_argument("--emulator", default="")
    args = ap.parse_args()

    for fixture, tz in (("router", "UTC"), ("allowance", "UTC"), ("allowance", "Europe/Berlin"),
                        ("broken", "UTC")):
        root = os.path.join(args.fixtures, fixture)
        label = f"{fixture} ({tz})"
        status, out, err = run_report(args, root, tz)
        check(status == 0, f"{label}: exit status {status}: {err!r}")
        try:
            doc = json.loads(out.decode("utf-8"))
        except ValueError as e:
            failures.append(f"{label}: not JSON: {e}")
            continue
        for key in ("links", "totals", "clients", "problems"):
            check(key in doc, f"{label}: no {key!r}")
        for link in doc["links"]:
            for key in ("id", "name", "hourly", "daily", "monthly", "billing", "allowance"):
                check(key in link, f"{label}: {link.get('id')}: no {key!r}")
            for key in ("used_bytes", "allowance_bytes", "percent", "actions", "suspended", "cycle_start",
                        "cycle_end", "projected_cycle_bytes", "projected_crossings"):
                check(key in link["allowance"], f"{label}: {link.get('id')}: allowance has no {key!r}")
        for key in ("hourly", "daily", "monthly"):
            check(key in doc["totals"], f"{label}: totals have no {key!r}")
        if fixture == "broken":
            check(any("missing" in p for p in doc["problems"]), f"{label}: missing files not among the problems")
            check(any("malformed" in p for p in doc["problems"]), f"{label}: malformed lines not among the problems")
            continue
        check_links(doc, root, tz, label)
        if fixture == "router":
            ids = [link["id"] for link in doc["links"]]
            check(ids == ["wan1", "wan2", "wan3", "wan3.sim1", "wan3.sim2"], f"{label}: ids {ids}")
            check_clients(doc, root, label)
            hourly = expected_rows(f"{root}/var/run/korel/link_usage_hourly_total.csv", "hourly")
            check(doc["totals"]["hourly"]["rows"] == hourly, f"{label}: router hourly rows")
        if fixture == "allowance":
            states = [[c["state"] for c in link["allowance"]["projected_crossings"]] for link in doc["links"]]
            check(states == [["expected"] * 3, ["expected", "not_in_cycle", "not_in_cycle"], ["crossed"] * 3,
                             ["crossed"] * 3, [], []], f"{label}: crossing states {states}")
            check(doc["links"][5]["allowance"]["projection_unavailable"] == "no billing cycle configured",
                  f"{label}: wan6 without a cycle")

    for f in failures:
        print("FAIL:", f)
    print(f"{len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
