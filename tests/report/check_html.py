"""Checks the HTML page of ruvo-report.

Runs ruvo-report --html on a fixture tree, once with scaled figures and once with --raw,
and parses both pages with html.parser:
- one doctype, exactly one html, head, body and title, head before body;
- every element that is opened is closed, in order (void elements excepted), and no
  closing tag without its opening one;
- nothing refers outside the page: no script, link, iframe, object, embed or img
  elements, no src attribute, no href other than "#...", no "http:" / "https:" / "//" in
  attributes, no url( or @import in the style;
- every svg has a viewBox and a width and height, a role="img" (or aria-hidden="true")
  and, when it is an image, a <title> that is also its aria-label; every bar is a rect
  with whole non-negative sizes;
- every amount in the page's text is written as the legend says: scaled ("17.4 MiB",
  "108 MiB", "0 B"), or with --raw in the files' own units ("108 MiB", "56576 KiB");
- the figures of the fixture appear in the page's text.
For the router fixture the overview (a block per link and one for the router), the
allowance gauges and the 24-hour column charts are compared in full with what the
fixture's files give, worked out here from the files: the local time zone is set to UTC
for ruvo-report, so that the projections' dates do not depend on the machine.

Usage: check_html.py --report PATH --root DIR --out FILE [--broken] [--emulator CMD]
"""

import argparse
import datetime
import os
import re
import shlex
import subprocess
import sys
from html.parser import HTMLParser

VOID = {"area", "base", "br", "col", "embed", "hr", "img", "input", "link", "meta",
        "source", "track", "wbr"}
FORBIDDEN_ELEMENTS = {"script", "link", "iframe", "object", "embed", "img", "frame",
                      "base", "audio", "video", "source", "image", "use"}

MIB = 1 << 20
KIB = 1 << 10
UNITS = ["B", "KiB", "MiB", "GiB", "TiB"]


def half_up(numerator, denominator):
    """numerator / denominator rounded half up (non-negative whole numbers)."""
    return (2 * numerator + denominator) // (2 * denominator)


def scaled(count):
    """A number of bytes as the report writes it for people: in the largest binary unit in
    which it is at least 1 (TiB at most), one decimal below 100 of the unit, none from 100
    on, rounded half up; a figure that rounds to 1024 of its unit goes to the next one."""
    if count < 1024:
        return f"{count} B"
    unit = 1
    while unit < 4 and count >= 1024 ** (unit + 1):
        unit += 1
    while True:
        tenths = half_up(count * 10, 1024 ** unit)
        if tenths < 1000:
            return f"{tenths // 10}.{tenths % 10} {UNITS[unit]}"
        whole = half_up(count, 1024 ** unit)
        if whole < 1024 or unit == 4:
            return f"{whole} {UNITS[unit]}"
        unit += 1


class Units:
    """The page's amounts: scaled, or raw in the files' units (MiB for links and the router,
    KiB for clients; a projection or an allowance's line in whole MiB, rounded down as the
    files round theirs)."""

    def __init__(self, raw):
        self.raw = raw

    def mib(self, mib):
        return f"{mib} MiB" if self.raw else scaled(mib * MIB)

    def kib(self, kib):
        return f"{kib} KiB" if self.raw else scaled(kib * KIB)

    def bytes(self, count):
        return f"{count // MIB} MiB" if self.raw else scaled(count)


def percent(tenths):
    return f"{tenths // 10}.{tenths % 10} %"


# Lines of the fixtures' tables as the bar charts write them: counter 1 + counter 2 = total,
# taken by hand from the files (a link's or the router's in MiB, a client's in KiB).
ROUTER_CHART_LINES = [
    ("MiB", 96, 12),          # wan1 hour 2024-03-20 14:00
    ("MiB", 3012, 402),       # wan1 day 2024-03-19
    ("MiB", 63350, 8421),     # wan1 month 2024-02
    ("MiB", 61234, 8012),     # wan1 cycle 2024-02-15 .. 2024-03-14
    ("MiB", 15011, 2040),     # wan2 month 2024-02
    ("MiB", 388, 52),         # wan3 sim1 day 2024-03-17
    ("MiB", 131, 19),         # wan3 sim2 cycle 2024-02-10 .. 2024-03-09
    ("MiB", 284, 40),         # router hour 2024-03-20 13:00
    ("MiB", 4226, 570),       # router day 2024-03-19
    ("MiB", 55442, 7462),     # router month 2024-03
    ("KiB", 52224, 4352),     # 192.168.1.20, lan + vpn, this hour
    ("KiB", 2500, 700),       # 192.168.2.40, the 10th client of the hour
    ("KiB", 9820000, 513000),  # 192.168.1.20, lan + sroute, this month
    ("KiB", 50000, 4000),     # 3C:22:FB:10:20:01 this hour
]
# Amounts of the allowance table (MiB): wan1 13500 + 1800 = 15300 of 20000, wan3 6180 of
# 10000, wan3 sim1 4980 of 5000, wan3 sim2 1200 of 3000.
ROUTER_AMOUNTS = [13500, 1800, 15300, 20000, 6180, 10000, 4980, 5000, 1200, 3000]
ROUTER_TEXTS = [
    "76.5 %", "61.8 %", "99.6 %", "40.0 %",
    "1. 192.168.1.20 (lan+vpn)", "10. 192.168.2.40 (l2tp)", "3. *10.8.0.6 (vpn)",
    "2024-03-15 .. 2024-03-20",
]
# Rows of the allowance table: (row start, text that must follow in the same row).
ROUTER_ROWS = [
    ("<tr><td>wan3 sim1 &quot;LTE&quot;</td>", "<td>suspended</td></tr>"),
    ("<tr><td>wan1 &quot;Fibre&quot;</td>", "<td>not suspended</td></tr>"),
    ("<tr><td>wan2 &quot;Cable&quot;</td>", "<td class=\"num\">none</td>"),
]
# Clients beyond the 10 largest are not in the page.
ROUTER_ABSENT = ["192.168.1.22", "192.168.1.27", "00:0C:29:9D:8E:7F"]

BROKEN_CHART_LINES = [("MiB", 96, 12), ("MiB", 50, 5), ("MiB", 13500, 1800)]
BROKEN_TEXTS = [
    "wan1 hourly: /var/run/korel/wan1/link_usage_hourly.csv: line 3 malformed, skipped",
    "wan1 daily: /var/run/korel/wan1/link_usage_daily.csv: missing",
    "wan2 hourly: /var/run/korel/wan2/link_usage_hourly.csv: is a directory",
    "wan1 allowance: WAN1_USAGE_QUOTA &quot;lots&quot; is not a number of MB",
    "clients by IP address, hour: /var/run/korel/client_usage_hourly: missing",
    # The allowance is invalid and the link suspended: what it has used is what it will have.
    "<p class=\"allowance\">allowance invalid, used {used}</p>",
    "<p class=\"projection\">projected {used} at the cycle&#39;s end, 2024-04-14</p>",
    "<p class=\"held\">suspended: no more traffic this cycle</p>",
    # Malformed lines leave their hours empty in the 24-hour chart.
    "2024-03-20 12:00: not recorded; 2024-03-20 13:00: {h13}; 2024-03-20 14:00: {h14}</desc>",
]
BROKEN_ABSENT = ["240 + 31", "205 + ", "240.0 MiB + 31", "205 MiB + "]

LEGEND_SCALED = ("Figures are scaled to B, KiB, MiB, GiB and TiB (1 KiB = 1024 B); the daemon's "
                 "files hold MiB for links and the router and KiB for clients, rounded down.")
LEGEND_RAW = ("Link and router figures are in MiB, client figures in KiB, as the daemon's files "
              "hold them.")


def chart_line(units, unit, first, second):
    show = units.mib if unit == "MiB" else units.kib
    return f"{show(first)} + {show(second)} = {show(first + second)}"


class PageChecker(HTMLParser):
    def __init__(self):
        super().__init__(convert_charrefs=True)
        self.stack = []
        self.counts = {}
        self.errors = []
        self.doctypes = 0
        self.order = []
        self.in_style = False
        self.style = ""
        self.text = []

    def error_at(self, message):
        line, col = self.getpos()
        self.errors.append(f"line {line}, column {col + 1}: {message}")

    def check_attrs(self, tag, attrs):
        names = [a for a, _ in attrs]
        if len(names) != len(set(names)):
            self.error_at(f"<{tag}> repeats an attribute")
        for name, value in attrs:
            value = value or ""
            if name == "src":
                self.error_at(f"<{tag}> has src={value!r}")
            if name in ("href", "xlink:href") and not value.startswith("#"):
                self.error_at(f"<{tag}> refers to {value!r}")
            low = value.lower()
            if "http:" in low or "https:" in low or low.startswith("//") or "url(" in low:
                self.error_at(f"<{tag} {name}> refers outside the page: {value!r}")
        if tag == "svg":
            d = dict(attrs)
            for need in ("viewbox", "width", "height"):
                if need not in d:
                    self.error_at(f"<svg> without {need}")
        if tag == "rect":
            d = dict(attrs)
            for need in ("x", "y", "width", "height"):
                if not re.fullmatch(r"[0-9]+", d.get(need) or ""):
                    self.error_at(f"<rect> with {need}={d.get(need)!r}")

    def start(self, tag, attrs, closed):
        # An svg's title is its accessible name, not the page's.
        in_svg = any(t == "svg" for t, _ in self.stack)
        key = "svg title" if tag == "title" and in_svg else tag
        self.counts[key] = self.counts.get(key, 0) + 1
        if tag in ("html", "head", "body"):
            self.order.append(tag)
        if tag in FORBIDDEN_ELEMENTS:
            self.error_at(f"<{tag}> element")
        self.check_attrs(tag, attrs)
        if tag == "style":
            self.in_style = True
        if tag not in VOID and not closed:
            self.stack.append((tag, self.getpos()))

    def handle_decl(self, decl):
        if decl.lower() == "doctype html":
            self.doctypes += 1
        else:
            self.error_at(f"declaration {decl!r}")

    def handle_starttag(self, tag, attrs):
        self.start(tag, attrs, False)

    def handle_startendtag(self, tag, attrs):
        if tag not in VOID and tag not in ("rect",):
            self.error_at(f"<{tag}/> self-closed")
        self.start(tag, attrs, True)

    def handle_endtag(self, tag):
        if tag in VOID:
            self.error_at(f"</{tag}> closes a void element")
            return
        if not self.stack:
            self.error_at(f"</{tag}> without an open element")
            return
        open_tag, pos = self.stack.pop()
        if open_tag != tag:
            self.error_at(f"</{tag}> closes <{open_tag}> opened at line {pos[0]}")
        if tag == "style":
            self.in_style = False

    def handle_data(self, data):
        if self.in_style:
            self.style += data
        else:
            self.text.append(data)

    def finish(self):
        self.close()
        for tag, pos in self.stack:
            self.errors.append(f"<{tag}> opened at line {pos[0]} is never closed")
        if self.doctypes != 1:
            self.errors.append(f"{self.doctypes} doctypes")
        for tag in ("html", "head", "body", "title"):
            if self.counts.get(tag, 0) != 1:
                self.errors.append(f"{self.counts.get(tag, 0)} <{tag}> elements")
        if self.order != ["html", "head", "body"]:
            self.errors.append(f"html, head and body in the order {self.order}")
        low = self.style.lower()
        for bad in ("url(", "@import", "http:", "https:"):
            if bad in low:
                self.errors.append(f"the style refers outside the page ({bad})")


class Node:
    """An element of the page: its tag, attributes and children (nodes and text)."""

    def __init__(self, tag, attrs, line):
        self.tag = tag
        self.attrs = dict(attrs)
        self.children = []
        self.line = line

    def classes(self):
        return (self.attrs.get("class") or "").split()

    def text(self):
        return "".join(c if isinstance(c, str) else c.text() for c in self.children)

    def all(self, tag=None, cls=None):
        """The descendants with this tag and class, in document order."""
        found = []
        for c in self.children:
            if isinstance(c, Node):
                if (tag is None or c.tag == tag) and (cls is None or cls in c.classes()):
                    found.append(c)
                found += c.all(tag, cls)
        return found

    def first(self, tag=None, cls=None):
        found = self.all(tag, cls)
        return found[0] if found else None

    def elements(self):
        return [c for c in self.children if isinstance(c, Node)]


class TreeBuilder(HTMLParser):
    """The page as a tree of Nodes (the page is known to be well formed by then)."""

    def __init__(self):
        super().__init__(convert_charrefs=True)
        self.root = Node("#document", [], 0)
        self.stack = [self.root]

    def handle_starttag(self, tag, attrs):
        node = Node(tag, attrs, self.getpos()[0])
        self.stack[-1].children.append(node)
        if tag not in VOID:
            self.stack.append(node)

    def handle_startendtag(self, tag, attrs):
        self.stack[-1].children.append(Node(tag, attrs, self.getpos()[0]))

    def handle_endtag(self, tag):
        while len(self.stack) > 1:
            if self.stack.pop().tag == tag:
                break

    def handle_data(self, data):
        self.stack[-1].children.append(data)


def parse_tree(page):
    builder = TreeBuilder()
    builder.feed(page)
    builder.close()
    return builder.root


# ---- What the router fixture's files give, worked out here. ----

UTC = datetime.timezone.utc
HOUR = datetime.timedelta(hours=1)
DAY = datetime.timedelta(days=1)
GAUGE_TRACK_PX = 440
PLOT_PX = 150

# The links of fixtures/router in report order: their label, directory and file prefix,
# the configuration keys of their billing cycle's start day and of their allowance (MB),
# and their suspension marker.
ROUTER_LINKS = [
    ('wan1 "Fibre"', "wan1", "link", "WAN1_USAGE_START_DAY", "WAN1_USAGE_QUOTA", "usage_suspend"),
    ('wan2 "Cable"', "wan2", "link", "WAN2_USAGE_START_DAY", "WAN2_USAGE_QUOTA", "usage_suspend"),
    ('wan3 "LTE"', "wan3", "link", "WAN3_USAGE_START_DAY", "WAN3_USAGE_QUOTA", "usage_suspend"),
    ('wan3 sim1 "LTE"', "wan3", "sim1", "PIF3_GOBI_USAGE_START_DAY", "PIF3_GOBI_USAGE_QUOTA",
     "usage_suspend.sim1"),
    ('wan3 sim2 "LTE"', "wan3", "sim2", "PIF3_GOBI_USAGE_START_DAY_2", "PIF3_GOBI_USAGE_QUOTA_2",
     "usage_suspend.sim2"),
]
ROUTER = "router (all WAN links)"

# The y-axes of the 24-hour charts, by hand: (step in MiB, steps), the fewest round steps
# (1, 2 or 5 times a power of ten) up to five that reach the largest hour.
ROUTER_AXES = {
    'wan1 "Fibre"': (100, 3),     # 12:00, 240 + 31 = 271 MiB
    'wan2 "Cable"': (20, 4),      # 11:00, 52 + 9 = 61 MiB
    'wan3 "LTE"': (20, 4),        # 13:00, 61 + 9 = 70 MiB
    'wan3 sim1 "LTE"': (1, 1),    # nothing: one step of the files' unit
    'wan3 sim2 "LTE"': (20, 4),   # 13:00, 61 + 9 = 70 MiB
    ROUTER: (100, 4),             # 13:00, 284 + 40 = 324 MiB
}

# The figures of wan1's block, worked out by hand (UTC): the cycle 2024-03-15 ..
# 2024-04-14 is 744 h long; at the end of the running hour 2024-03-20 14:00, 135 h into
# it, 15300 MiB are used, which runs on to 15300 * 744 / 135 = 84320 MiB (82.3 GiB, 421.6 %
# of 20000 MiB). 95 % (19000 MiB) is reached 19000 / 15300 * 135 h = 167.6 h in, on
# 2024-03-21; 99.5 % (19900 MiB) at 175.6 h, on 2024-03-22; 75 % (15000 MiB) is crossed.
WAN1_BY_HAND = {
    "allowance": "allowance 19.5 GiB, used 14.9 GiB (76.5 %)",
    "projection": "projected 82.3 GiB (421.6 %) at the cycle's end, 2024-04-14",
    "crossings": ["75 % line: crossed", "95 % line: expected on 2024-03-21",
                  "99.5 % line (suspension): expected on 2024-03-22"],
}


def read_rows(path):
    """The comma-separated lines of a fixture file, or None when it is missing."""
    try:
        with open(path, encoding="utf-8") as f:
            return [line.strip().split(",") for line in f if line.strip()]
    except FileNotFoundError:
        return None


def read_config(root):
    values = {}
    with open(os.path.join(root, "usr/local/velto/conf/config"), encoding="utf-8") as f:
        for line in f:
            m = re.fullmatch(r'([A-Z0-9_]+)=(.*)', line.strip())
            if m:
                values[m.group(1)] = m.group(2).strip('"')
    return values


def date_of(text):
    return datetime.date.fromisoformat(text)


def midnight(day):
    return datetime.datetime(day.year, day.month, day.day, tzinfo=UTC)


def next_cycle_start(first, start_day):
    """Day start_day of the month after first, counted on from that month's first day (a
    day the month lacks runs on into the next month)."""
    year, month = (first.year + 1, 1) if first.month == 12 else (first.year, first.month + 1)
    return datetime.date(year, month, 1) + (start_day - 1) * DAY


def figure_row(units, name, period, first, second):
    first, second = int(first), int(second)
    return [name, period, units.mib(first), units.mib(second), units.mib(first + second)]


def expected_summary(units, daily, monthly, billing):
    rows = []
    if daily:
        today = daily[0]
        rows.append(figure_row(units, "today", today[0], today[1], today[2]))
        before = (date_of(today[0]) - DAY).isoformat()
        yesterday = next((r for r in daily if r[0] == before), None)
        rows.append(figure_row(units, "yesterday", *yesterday) if yesterday else ["yesterday", "not recorded"])
    else:
        rows += [["today", "not recorded"], ["yesterday", "not recorded"]]
    for name, table in (("this month", monthly), ("this cycle", billing)):
        if table is False:
            continue
        if table:
            r = table[0]
            rows.append(figure_row(units, name, f"{r[0]} .. {r[1]}", r[2], r[3]))
        else:
            rows.append([name, "not recorded"])
    return rows


def bar_heights(first, second, top):
    """The heights of a column's two parts: the total scaled to the plot against the axis'
    top, rounded half up and at least 1 for traffic; counter 1's share scaled the same way
    at the foot, the rest counter 2's (all of it counter 1's when counter 2 is 0)."""
    length = half_up((first + second) * PLOT_PX, top)
    if length == 0 and first + second > 0:
        length = 1
    part1 = length if second == 0 else min(length, half_up(first * PLOT_PX, top))
    return part1, length - part1


def expected_hours(units, label, hourly):
    """The 24-hour chart of a link or the router: the hours up to the file's first line."""
    last = datetime.datetime.strptime(hourly[0][0], "%Y-%m-%d-%H")
    by_hour = {}
    for r in hourly:
        by_hour.setdefault(r[0], r)
    step, steps = ROUTER_AXES[label]
    top = step * steps * MIB
    desc, columns = [], []
    for i in range(24):
        hour = last - (23 - i) * HOUR
        name = hour.strftime("%Y-%m-%d %H:00")
        r = by_hour.get(hour.strftime("%Y-%m-%d-%H"))
        if r:
            first, second = int(r[1]), int(r[2])
            desc.append(f"{name}: {units.mib(first)} + {units.mib(second)} = {units.mib(first + second)}")
            columns.append((hour.strftime("%H"), bar_heights(first * MIB, second * MIB, top)))
        else:
            desc.append(f"{name}: not recorded")
            columns.append((hour.strftime("%H"), None))
    return {
        "h3": label,
        "title": f"{label}, the 24 hours to {last.strftime('%Y-%m-%d %H:00')} "
                 "(counter 1 and counter 2 per hour, stacked)",
        "desc": "; ".join(desc),
        "axis": [units.mib(step * i) for i in range(steps + 1)],
        "columns": columns,
    }


def expected_link(units, config, korel, link):
    label, directory, prefix, day_key, quota_key, marker = link
    base = os.path.join(korel, directory, prefix + "_usage_")
    hourly = read_rows(base + "hourly.csv")
    billing = read_rows(base + "billing.csv")
    block = {
        "h3": label,
        "rows": expected_summary(units, read_rows(base + "daily.csv"), read_rows(base + "monthly.csv"), billing),
        "held": None, "crossings": [], "gauge": None,
    }
    quota = int(config[quota_key]) if quota_key in config else None
    cycle = billing[0] if billing else None
    used = int(cycle[2]) + int(cycle[3]) if cycle else None
    block["allowance"] = f"allowance {units.mib(quota)}" if quota else "no allowance"
    if cycle:
        block["allowance"] += f", used {units.mib(used)}"
        if quota:
            block["allowance"] += f" ({percent(half_up(used * 1000, quota))})"
    if day_key not in config:
        block["projection"] = "no projection: no billing cycle configured"
        return block, hourly
    if not cycle:
        block["projection"] = "no projection: running cycle unknown"
        return block, hourly

    first, last = date_of(cycle[0]), date_of(cycle[1])
    start = midnight(first)
    end = midnight(next_cycle_start(first, int(config[day_key])))  # a second after the cycle
    now = midnight(last + DAY)
    if hourly and hourly[0][0][:10] == cycle[1]:
        now = datetime.datetime.strptime(hourly[0][0], "%Y-%m-%d-%H").replace(tzinfo=UTC) + HOUR
    now = min(max(now, start + datetime.timedelta(seconds=1)), end)
    elapsed = int((now - start).total_seconds())
    length = int((end - start).total_seconds())
    used_bytes = used * MIB
    held = os.path.exists(os.path.join(korel, directory, marker))
    projected = used_bytes if held else used_bytes * length // elapsed
    text = f"projected {units.bytes(projected)}"
    if quota:
        text += f" ({percent(half_up(projected * 1000, quota * MIB))})"
    block["projection"] = text + f" at the cycle's end, {(end - DAY).date().isoformat()}"
    if held:
        block["held"] = "suspended: no more traffic this cycle"
    if not quota:
        return block, hourly

    allowance = quota * MIB
    lines = [("75 %", "75 % line", 750), ("95 %", "95 % line", 950),
             ("99.5 %", "99.5 % line (suspension)", 995)]
    line_texts = []
    for tick, name, permille in lines:
        line = -(-allowance * permille // 1000)
        line_texts.append(f"{tick} at {units.bytes(line)}")
        if used_bytes >= line:
            block["crossings"].append(f"{name}: crossed")
        elif projected < line:
            block["crossings"].append(f"{name}: not within this cycle")
        else:
            reached = start + datetime.timedelta(seconds=-(-line * elapsed // used_bytes))
            block["crossings"].append(f"{name}: expected on {reached.date().isoformat()}")
    scale = min(max(allowance, used_bytes, projected), 2 * allowance)
    used_px = half_up(used_bytes * GAUGE_TRACK_PX, scale)
    projected_px = half_up(min(projected, scale) * GAUGE_TRACK_PX, scale)
    over = held or used_bytes >= -(-allowance * 995 // 1000)
    block["gauge"] = {
        "title": f"allowance {units.mib(quota)}; used {units.mib(used)} "
                 f"({percent(half_up(used * 1000, quota))}); projected {units.bytes(projected)} "
                 f"({percent(half_up(projected * 1000, allowance))}) at the cycle's end; lines: "
                 + ", ".join(line_texts),
        "used": ("over" if over else "ok", used_px),
        "projected": (("proj-over" if over else "proj", projected_px - used_px)
                      if projected_px > used_px else None),
        "arrow": max(used_bytes, projected) > scale,
        "ticks": [tick for tick, _, _ in lines],
    }
    return block, hourly


def expected_router_page(root, units):
    """The overview blocks and the 24-hour charts of fixtures/router."""
    korel = os.path.join(root, "var/run/korel")
    config = read_config(root)
    blocks, hours = [], []
    for link in ROUTER_LINKS:
        block, hourly = expected_link(units, config, korel, link)
        blocks.append(block)
        hours.append(expected_hours(units, link[0], hourly))
    blocks.append({
        "h3": ROUTER,
        "rows": expected_summary(units, read_rows(os.path.join(korel, "link_usage_daily_total.csv")),
                                 read_rows(os.path.join(korel, "link_usage_monthly_total.csv")), False),
        "allowance": None, "projection": None, "held": None, "crossings": [], "gauge": None,
    })
    hours.append(expected_hours(units, ROUTER, read_rows(os.path.join(korel, "link_usage_hourly_total.csv"))))
    return blocks, hours


# ---- What the page shows. ----

def text_of(node):
    return node.text() if node is not None else None


def page_blocks(tree):
    overview = tree.first("section", "overview")
    if overview is None:
        return None
    blocks = []
    for b in overview.all("section", "block"):
        table = b.first("table", "summary")
        block = {
            "h3": text_of(b.first("h3")),
            "rows": [[c.text() for c in tr.elements()] for tr in table.first("tbody").all("tr")] if table else None,
            "allowance": text_of(b.first("p", "allowance")),
            "projection": text_of(b.first("p", "projection")),
            "held": text_of(b.first("p", "held")),
            "crossings": [li.text() for li in b.all("li")],
            "gauge": None,
        }
        svg = b.first("svg", "gauge")
        if svg is not None:
            def part(classes):
                rect = next((r for r in svg.all("rect") if set(r.classes()) & classes), None)
                return (rect.classes()[0], int(rect.attrs["width"])) if rect is not None else None
            block["gauge"] = {
                "title": text_of(svg.first("title")),
                "used": part({"ok", "over"}),
                "projected": part({"proj", "proj-over"}),
                "arrow": svg.first("polygon") is not None,
                "ticks": [t.text() for t in svg.all("text")],
            }
            if svg.attrs.get("aria-label") != block["gauge"]["title"]:
                block["gauge"]["title"] = ("aria-label and title differ", svg.attrs.get("aria-label"))
        blocks.append(block)
    return blocks


def page_hours(tree):
    section = tree.first("section", "hours")
    if section is None:
        return None
    charts = []
    for b in section.all("section", "block"):
        svg = b.first("svg", "columns")
        chart = {"h3": text_of(b.first("h3"))}
        if svg is None:
            charts.append(chart)
            continue
        chart["title"] = text_of(svg.first("title"))
        if svg.attrs.get("aria-label") != chart["title"]:
            chart["title"] = ("aria-label and title differ", svg.attrs.get("aria-label"))
        chart["desc"] = text_of(svg.first("desc"))
        # The gridlines' amounts are listed from the top down; the expectation from 0 up.
        chart["axis"] = [t.text() for t in svg.elements() if t.tag == "text"][::-1]
        columns = []
        for g in (e for e in svg.elements() if e.tag == "g"):
            label = next((t.text() for t in g.all("text") if t.attrs.get("text-anchor") == "middle"), None)
            parts = {r.classes()[0]: int(r.attrs["height"]) for r in g.all("rect")}
            known = g.first("title") is not None
            columns.append((label, (parts.get("c1", 0), parts.get("c2", 0)) if known else None))
        chart["columns"] = columns
        charts.append(chart)
    return charts


def compare(what, expected, actual, errors):
    if expected == actual:
        return
    if isinstance(expected, dict) and isinstance(actual, dict):
        for key in expected:
            compare(f"{what} {key}", expected[key], actual.get(key), errors)
    elif isinstance(expected, list) and isinstance(actual, list) and len(expected) == len(actual):
        for i, (e, a) in enumerate(zip(expected, actual)):
            compare(f"{what} [{i}]", e, a, errors)
    else:
        errors.append(f"{what}: expected {expected!r}, the page has {actual!r}")


# An amount in the page's text: a number and a unit.
AMOUNT = re.compile(r"(?<![\w.])(\d+(?:\.\d+)?) (B|KiB|MiB|GiB|TiB)\b")


def amount_errors(tree, raw):
    """Every amount outside the legend is written as the legend says."""
    errors = []

    def walk(node):
        if node.tag in ("style",) or "legend" in node.classes():
            return
        for c in node.children:
            if isinstance(c, Node):
                walk(c)
                continue
            for m in AMOUNT.finditer(c):
                number, unit = m.group(1), m.group(2)
                if raw:
                    ok = unit in ("MiB", "KiB") and "." not in number
                elif unit == "B":
                    ok = "." not in number and int(number) < 1024
                elif "." in number:
                    ok = re.fullmatch(r"\d{1,2}\.\d", number) is not None and number != "0.0"
                else:
                    ok = 100 <= int(number) < 1024 and not number.startswith("0")
                if not ok:
                    errors.append(f"line {node.line}: amount {m.group(0)!r} is not written "
                                  f"{'in the files units' if raw else 'scaled'}")

    walk(tree)
    return errors[:20]


def check_page(args, raw):
    """Runs ruvo-report (with --raw when raw) and checks its page; returns the problems."""
    units = Units(raw)
    out = args.out
    if raw:
        stem, ext = os.path.splitext(args.out)
        out = stem + "-raw" + ext
    command = shlex.split(args.emulator) + [args.report, "--root", args.root, "--html", out]
    if raw:
        command.append("--raw")
    # The projections' dates are local dates: UTC here, as the expectations are worked out.
    run = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False,
                         env=dict(os.environ, TZ="UTC0"))
    if run.returncode != 0:
        return [f"ruvo-report exited with {run.returncode}: {run.stderr.decode()}"]

    with open(out, "rb") as f:
        data = f.read()
    page = data.decode("utf-8")
    errors = []
    if not page.startswith("<!DOCTYPE html>\n"):
        errors.append("the page does not start with <!DOCTYPE html>")
    for bad in ("http:", "https:", " src=", "<script", "<link"):
        if bad in page:
            errors.append(f"the page holds {bad!r}")

    checker = PageChecker()
    checker.feed(page)
    checker.finish()
    errors += checker.errors
    if checker.errors:
        return errors
    tree = parse_tree(page)

    for svg in tree.all("svg"):
        if svg.attrs.get("aria-hidden") == "true":
            continue
        title = svg.first("title")
        if svg.attrs.get("role") != "img" or title is None or title.text() != svg.attrs.get("aria-label"):
            errors.append(f"line {svg.line}: <svg> without role=\"img\" and a <title> equal to its aria-label")
    legend = tree.first("p", "legend")
    if legend is None or (LEGEND_RAW if raw else LEGEND_SCALED) not in legend.text():
        errors.append(f"the legend does not say the figures are {'raw' if raw else 'scaled'}: "
                      f"{text_of(legend)!r}")
    errors += amount_errors(tree, raw)

    if args.broken:
        lines, texts, absent = BROKEN_CHART_LINES, BROKEN_TEXTS, BROKEN_ABSENT
        values = {"used": units.mib(15300), "h13": chart_line(units, "MiB", 188, 25),
                  "h14": chart_line(units, "MiB", 96, 12)}
        texts = [t.format(**values) for t in texts]
    else:
        lines, texts, absent = ROUTER_CHART_LINES, ROUTER_TEXTS, ROUTER_ABSENT
        texts = texts + [f"<td class=\"num\">{units.mib(a)}</td>" for a in ROUTER_AMOUNTS]
    # The figures are looked for in the page's source (text of the HTML and of the SVG).
    for figure in [chart_line(units, *line) for line in lines] + texts:
        if figure not in page:
            errors.append(f"figure {figure!r} is missing")
    for figure in absent:
        if figure in page:
            errors.append(f"{figure!r} should not be in the page")

    sections = [text_of(s.first("h2")) for s in tree.first("body").elements() if s.tag == "section"]
    if sections[:2] != ["Overview", "The last 24 hours"]:
        errors.append(f"the page's sections begin {sections[:2]}, not with the overview and the last 24 hours")

    if not args.broken:
        for start, rest in ROUTER_ROWS:
            row = next((line for line in page.splitlines() if line.startswith(start)), None)
            if row is None or rest not in row:
                errors.append(f"allowance row {start!r} lacks {rest!r}")
        if checker.counts.get("svg", 0) < 30:
            errors.append(f"only {checker.counts.get('svg', 0)} svg pictures")
        blocks, hours = expected_router_page(args.root, units)
        if not raw:
            for key, value in WAN1_BY_HAND.items():
                compare(f"wan1 by hand: {key}", value, blocks[0][key], errors)
        actual_blocks = page_blocks(tree) or []
        if len(actual_blocks) != len(blocks):
            errors.append(f"{len(actual_blocks)} overview blocks, expected {len(blocks)}")
        for e, a in zip(blocks, actual_blocks):
            compare(f"overview {e['h3']}:", e, a, errors)
        actual_hours = page_hours(tree) or []
        if len(actual_hours) != len(hours):
            errors.append(f"{len(actual_hours)} 24-hour charts, expected {len(hours)}")
        for e, a in zip(hours, actual_hours):
            compare(f"24 hours {e['h3']}:", e, a, errors)

    print(f"{len(errors)} problems in {out} ({len(data)} bytes, "
          f"{checker.counts.get('svg', 0)} svg, {checker.counts.get('rect', 0)} rect)")
    return errors


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--report", required=True)
    ap.add_argument("--root", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--broken", action="store_true")
    ap.add_argument("--emulator", default="",
                    help="run ruvo-report through this command (qemu-user for a cross build)")
    args = ap.parse_args()

    errors = []
    for raw in (False, True):
        errors += [f"{'raw' if raw else 'scaled'}: {e}" for e in check_page(args, raw)]
    for e in errors:
        print(e)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
