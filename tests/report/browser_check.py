"""Opens the HTML page of ruvo-report in headless Chromium.

Runs ruvo-report --html on a fixture tree and has Chromium take a 1280x2000 screenshot of
the page, with the browser's log on standard error. Passes when
- Chromium logged no console message for the page: the page has no script, so any
  console message is an error (a script error, a resource that could not be loaded, an
  SVG attribute the browser refused);
- the screenshot is a picture and not a blank page: many distinct colours, and the colours
  of the charts (both counters) and of the allowance gauges in it, each over many pixels.

The console detection is checked on every run: a control page with a deliberately broken
script is opened alongside the report (in a second browser), and its error must be found
in that browser's log in the same way, or the check fails.

The PNG is decoded here with zlib and struct alone. Exits 77 (skipped) when there is no
Chromium; the test command treats a skipped test as a failure in CI.

Usage: browser_check.py --report PATH --root DIR --out-dir DIR [--chromium PATH]
"""

import argparse
import collections
import os
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import zlib

SKIPPED = 77
WIDTH, HEIGHT = 1280, 2000
BROWSER_TIMEOUT = 120
# A console message in Chromium's log: "[...:INFO:CONSOLE:1] "message", source: url (1)";
# older versions write "CONSOLE(1)".
CONSOLE = re.compile(r":CONSOLE[:(]")
CONTROL_ERROR = "brokenControlScriptCall"
CONTROL_PAGE = f"""<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>control</title></head>
<body><p>A page whose script fails: its error must show in the browser's log.</p>
<script>{CONTROL_ERROR}();</script></body></html>
"""

# Colours the report's stylesheet gives the charts and gauges, which must be in the
# screenshot: (name, RGB, the fewest pixels of it).
CHART_COLOURS = [
    ("counter 1 (.c1)", (0x34, 0x65, 0xA4), 2000),
    ("counter 2 (.c2)", (0xCE, 0x5C, 0x00), 500),
    ("gauge, used (.ok)", (0x4E, 0x9A, 0x06), 2000),
    ("gauge, suspended (.over)", (0xCC, 0x00, 0x00), 2000),
    ("gauge, projected (.proj)", (0xB4, 0xDC, 0x8C), 2000),
]
# A page of text and charts has hundreds of colours (anti-aliased text and edges); a blank
# or nearly blank page a handful.
MIN_COLOURS = 100
# The white page around the figures: at most this share of the pixels.
MAX_BACKGROUND = 0.97


def chromium_command(chromium, profile, url, screenshot):
    return [chromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
            "--disable-background-networking", "--disable-component-update", "--disable-sync",
            f"--user-data-dir={profile}", "--enable-logging=stderr", "--v=0",
            f"--screenshot={screenshot}", f"--window-size={WIDTH},{HEIGHT}", url]


def start_browser(chromium, out_dir, page, screenshot):
    """Starts Chromium on page with a new empty profile; returns the process and its log."""
    profile = tempfile.mkdtemp(prefix="chromium-profile-", dir=out_dir)
    log = open(os.path.join(out_dir, os.path.basename(page) + ".log"), "w+b")
    url = "file://" + os.path.abspath(page)
    process = subprocess.Popen(chromium_command(chromium, profile, url, screenshot), stdin=subprocess.DEVNULL,
                               stdout=log, stderr=subprocess.STDOUT, start_new_session=True)
    return process, log, profile


def finish_browser(process, log, profile, deadline):
    """Waits for Chromium until deadline; returns its exit status (None on time-out) and
    its log. The browser's own process group is ended on time-out."""
    try:
        status = process.wait(timeout=max(0.0, deadline - time.monotonic()))
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()
        status = None
    log.seek(0)
    text = log.read().decode("utf-8", "replace")
    log.close()
    shutil.rmtree(profile, ignore_errors=True)
    return status, text


def console_lines(log):
    return [line for line in log.splitlines() if CONSOLE.search(line)]


def paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    if pa <= pb and pa <= pc:
        return a
    return b if pb <= pc else c


def read_png(path):
    """The pixels of an 8-bit RGB or RGBA PNG without interlacing: (width, height, rows of
    RGB bytes)."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("not a PNG file")
    pos, idat, header = 8, [], None
    while pos + 8 <= len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        if zlib.crc32(kind + body) != struct.unpack(">I", data[pos + 8 + length:pos + 12 + length])[0]:
            raise ValueError(f"chunk {kind!r}: bad CRC")
        pos += 12 + length
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            idat.append(body)
        elif kind == b"IEND":
            break
    if header is None:
        raise ValueError("no IHDR chunk")
    width, height, depth, colour, _, _, interlace = header
    if depth != 8 or colour not in (2, 6) or interlace != 0:
        raise ValueError(f"unsupported PNG: depth {depth}, colour type {colour}, interlace {interlace}")
    bpp = 3 if colour == 2 else 4
    stride = width * bpp
    raw = zlib.decompress(b"".join(idat))
    if len(raw) != height * (stride + 1):
        raise ValueError("image data of the wrong size")
    rows, prev = [], bytearray(stride)
    for y in range(height):
        kind = raw[y * (stride + 1)]
        line = bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        if kind == 1:
            for i in range(bpp, stride):
                line[i] = (line[i] + line[i - bpp]) & 0xFF
        elif kind == 2:
            line = bytearray((a + b) & 0xFF for a, b in zip(line, prev))
        elif kind == 3:
            for i in range(stride):
                left = line[i - bpp] if i >= bpp else 0
                line[i] = (line[i] + ((left + prev[i]) >> 1)) & 0xFF
        elif kind == 4:
            for i in range(stride):
                if i >= bpp:
                    line[i] = (line[i] + paeth(line[i - bpp], prev[i], prev[i - bpp])) & 0xFF
                else:
                    line[i] = (line[i] + prev[i]) & 0xFF
        elif kind != 0:
            raise ValueError(f"row {y}: filter type {kind}")
        rows.append(bytes(line) if bpp == 3 else bytes(b for i, b in enumerate(line) if i % 4 != 3))
        prev = line
    return width, height, rows


def check_screenshot(path):
    errors = []
    try:
        width, height, rows = read_png(path)
    except (OSError, ValueError, zlib.error) as e:
        return [f"{path}: {e}"]
    if (width, height) != (WIDTH, HEIGHT):
        errors.append(f"the screenshot is {width}x{height}, not {WIDTH}x{HEIGHT}")
    counts = collections.Counter()
    for row in rows:
        counts.update(zip(row[0::3], row[1::3], row[2::3]))
    pixels = width * height
    background, most = counts.most_common(1)[0]
    print(f"screenshot: {width}x{height}, {len(counts)} colours, background {background} "
          f"on {100 * most / pixels:.1f} % of the pixels")
    if len(counts) < MIN_COLOURS:
        errors.append(f"the screenshot has {len(counts)} colours, fewer than {MIN_COLOURS}: a blank page?")
    if most > MAX_BACKGROUND * pixels:
        errors.append(f"{100 * most / pixels:.1f} % of the screenshot is {background}: a blank page?")
    for name, rgb, least in CHART_COLOURS:
        print(f"  {name} #{bytes(rgb).hex()}: {counts[rgb]} pixels")
        if counts[rgb] < least:
            errors.append(f"{name}: {counts[rgb]} pixels of #{bytes(rgb).hex()}, fewer than {least}")
    return errors


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--report", required=True)
    ap.add_argument("--root", required=True)
    ap.add_argument("--out-dir", required=True)
    ap.add_argument("--chromium", default="/usr/bin/chromium")
    args = ap.parse_args()

    if not (os.path.isfile(args.chromium) and os.access(args.chromium, os.X_OK)):
        print(f"{args.chromium}: no such program; install chromium to run this test (skipped)")
        return SKIPPED

    start = time.monotonic()
    os.makedirs(args.out_dir, exist_ok=True)
    page = os.path.join(args.out_dir, "report.html")
    control = os.path.join(args.out_dir, "control.html")
    screenshot = os.path.join(args.out_dir, "report.png")
    for f in (page, screenshot, os.path.join(args.out_dir, "control.png")):
        if os.path.exists(f):
            os.remove(f)
    run = subprocess.run([args.report, "--root", args.root, "--html", page], stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, check=False, env=dict(os.environ, TZ="UTC0"))
    if run.returncode != 0:
        print(f"ruvo-report exited with {run.returncode}: {run.stderr.decode()}")
        return 1
    with open(control, "w", encoding="utf-8") as f:
        f.write(CONTROL_PAGE)

    deadline = time.monotonic() + BROWSER_TIMEOUT
    browsers = [start_browser(args.chromium, args.out_dir, page, screenshot),
                start_browser(args.chromium, args.out_dir, control, os.path.join(args.out_dir, "control.png"))]
    (page_status, page_log), (control_status, control_log) = [finish_browser(*b, deadline) for b in browsers]

    errors = []
    for name, status in (("the report", page_status), ("the control page", control_status)):
        if status != 0:
            errors.append(f"chromium on {name}: " + ("timed out" if status is None else f"exit status {status}"))
    if not any(CONTROL_ERROR in line for line in console_lines(control_log)):
        errors.append("the control page's script error is not in chromium's log: the console cannot be "
                      "watched this way")
    for line in console_lines(page_log):
        errors.append(f"console message of the report: {line.strip()}")
    if os.path.exists(screenshot):
        errors += check_screenshot(screenshot)
    else:
        errors.append("chromium wrote no screenshot")

    for e in errors:
        print(e)
    print(f"{len(errors)} problems; {time.monotonic() - start:.1f} s (logs in {args.out_dir})")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
