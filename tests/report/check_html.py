"""Checks the HTML page of ruvo-report.

Runs ruvo-report --html on a fixture tree and parses the page with html.parser:
- one doctype, exactly one html, head, body and title, head before body;
- every element that is opened is closed, in order (void elements excepted), and no
  closing tag without its opening one;
- nothing refers outside the page: no script, link, iframe, object, embed or img
  elements, no src attribute, no href other than "#...", no "http:" / "https:" / "//" in
  attributes, no url( or @import in the style;
- every svg has a viewBox and a width and height; every bar is a rect with whole
  non-negative sizes;
- the figures of the fixture appear in the page's text.

Usage: check_html.py --report PATH --root DIR --out FILE [--broken]
"""

import argparse
import re
import shlex
import subprocess
import sys
from html.parser import HTMLParser

VOID = {"area", "base", "br", "col", "embed", "hr", "img", "input", "link", "meta",
        "source", "track", "wbr"}
FORBIDDEN_ELEMENTS = {"script", "link", "iframe", "object", "embed", "img", "frame",
                      "base", "audio", "video", "source", "image", "use"}

# Figures of fixtures/router, worked out from its files by hand: allowances (counters,
# used, allowance, percentage), a line of each link table and of the router totals, and
# the top clients.
ROUTER_FIGURES = [
    # wan1: billing line 1 13500 + 1800 = 15300 of 20000 MB -> 76.5 %
    "13500 MiB", "1800 MiB", "15300 MiB", "20000 MiB", "76.5 %",
    # wan3: 5460 + 720 = 6180 of 10000 -> 61.8 %
    "6180 MiB", "10000 MiB", "61.8 %",
    # wan3 sim1: 4410 + 570 = 4980 of 5000 -> 99.6 %, marker usage_suspend.sim1
    "4980 MiB", "5000 MiB", "99.6 %",
    # wan3 sim2: 1050 + 150 = 1200 of 3000 -> 40.0 %
    "1200 MiB", "3000 MiB", "40.0 %",
    # chart lines: counter 1 + counter 2 = total
    "96 + 12 = 108 MiB",            # wan1 hour 2024-03-20 14:00
    "3012 + 402 = 3414 MiB",        # wan1 day 2024-03-19
    "63350 + 8421 = 71771 MiB",     # wan1 month 2024-02
    "61234 + 8012 = 69246 MiB",     # wan1 cycle 2024-02-15 .. 2024-03-14
    "15011 + 2040 = 17051 MiB",     # wan2 month 2024-02
    "388 + 52 = 440 MiB",           # wan3 sim1 day 2024-03-17
    "131 + 19 = 150 MiB",           # wan3 sim2 cycle 2024-02-10 .. 2024-03-09
    "284 + 40 = 324 MiB",           # router hour 2024-03-20 13:00
    "4226 + 570 = 4796 MiB",        # router day 2024-03-19
    "55442 + 7462 = 62904 MiB",     # router month 2024-03
    "52224 + 4352 = 56576 KiB",     # 192.168.1.20, lan + vpn, this hour
    "2500 + 700 = 3200 KiB",        # 192.168.2.40, the 10th client of the hour
    "9820000 + 513000 = 10333000 KiB",  # 192.168.1.20, lan + sroute, this month
    "50000 + 4000 = 54000 KiB",     # 3C:22:FB:10:20:01 this hour
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

BROKEN_FIGURES = [
    "wan1 hourly: /var/run/korel/wan1/link_usage_hourly.csv: line 3 malformed, skipped",
    "wan1 daily: /var/run/korel/wan1/link_usage_daily.csv: missing",
    "wan2 hourly: /var/run/korel/wan2/link_usage_hourly.csv: is a directory",
    "wan1 allowance: WAN1_USAGE_QUOTA &quot;lots&quot; is not a number of MB",
    "clients by IP address, hour: /var/run/korel/client_usage_hourly: missing",
    "96 + 12 = 108 MiB", "50 + 5 = 55 MiB", "13500 + 1800 = 15300 MiB",
]
BROKEN_ABSENT = ["240 + 31", "205 + "]


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


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--report", required=True)
    ap.add_argument("--root", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--broken", action="store_true")
    ap.add_argument("--emulator", default="",
                    help="run ruvo-report through this command (qemu-user for a cross build)")
    args = ap.parse_args()

    run = subprocess.run(shlex.split(args.emulator) + [args.report, "--root", args.root, "--html", args.out],
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
    if run.returncode != 0:
        print(f"ruvo-report exited with {run.returncode}: {run.stderr.decode()}")
        return 1

    with open(args.out, "rb") as f:
        raw = f.read()
    page = raw.decode("utf-8")
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

    if args.broken:
        expected, absent = BROKEN_FIGURES, BROKEN_ABSENT
    else:
        expected, absent = ROUTER_FIGURES, ROUTER_ABSENT
    # The figures are looked for in the page's source (text of the HTML and of the SVG).
    for figure in expected:
        if figure not in page:
            errors.append(f"figure {figure!r} is missing")
    if not args.broken:
        for start, rest in ROUTER_ROWS:
            row = next((line for line in page.splitlines() if line.startswith(start)), None)
            if row is None or rest not in row:
                errors.append(f"allowance row {start!r} lacks {rest!r}")
    for figure in absent:
        if figure in page:
            errors.append(f"{figure!r} should not be in the page")
    if not args.broken and checker.counts.get("svg", 0) < 20:
        errors.append(f"only {checker.counts.get('svg', 0)} svg charts")

    for e in errors:
        print(e)
    print(f"{len(errors)} problems in {args.out} ({len(raw)} bytes, "
          f"{checker.counts.get('svg', 0)} svg, {checker.counts.get('rect', 0)} rect)")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
