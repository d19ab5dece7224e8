#!/usr/bin/env python3
"""install.man_pages: the three manual pages.

For man/ruvo.8, man/ruvo-report.1 and man/ruvo-sim.1 of the source tree:
- "groff -man -ww -z PAGE" (every warning on, no output) exits 0 and prints nothing;
- the .TH line names the page as the file does (RUVO 8, RUVO\\-REPORT 1, RUVO\\-SIM 1);
- the page is written in man(7) macros, not mdoc (no .Dd/.Dt/.Nm);
- the NAME section, formatted by groff as plain text, is one line
  "PROGRAM - description" with the program's name, as whatis and apropos read it;
- the pages the install puts under usr/share/man are these very files.
"""

import filecmp
import os
import re
import shutil
import sys
import tempfile

from install_tree import SKIPPED, Checks, describe, install, parse_arguments, run

PAGES = [("ruvo", "8"), ("ruvo-report", "1"), ("ruvo-sim", "1")]


def name_section(text):
    """The lines of the formatted NAME section, stripped."""
    lines = text.splitlines()
    try:
        start = lines.index("NAME") + 1
    except ValueError:
        return []
    section = []
    for line in lines[start:]:
        if line and not line[0].isspace():
            break
        if line.strip():
            section.append(line.strip())
    return section


def main():
    args = parse_arguments(__doc__)
    if not shutil.which("groff"):
        print("SKIPPED: groff is not installed (Debian package groff-base)")
        return SKIPPED
    checks = Checks()
    with tempfile.TemporaryDirectory(prefix="ruvo-man-") as destdir:
        install(args, destdir)
        for program, section in PAGES:
            page = os.path.join(args.source_dir, "man", f"{program}.{section}")
            if not os.path.isfile(page):
                checks.true(f"{page} exists", False)
                continue
            result = run(["groff", "-man", "-ww", "-z", page])
            checks.true(f"groff -man -ww -z {program}.{section} exits 0 and prints nothing",
                        result.returncode == 0 and not result.stdout and not result.stderr,
                        describe(result))

            with open(page, encoding="utf-8") as f:
                source = f.read()
            title = program.upper().replace("-", "\\-")
            th = re.search(r"^\.TH (\S+) (\S+)", source, re.MULTILINE)
            checks.equal(f".TH of {program}.{section}", th.groups() if th else None, (title, section))
            checks.true(f"{program}.{section} uses man(7) macros, not mdoc",
                        not re.search(r"^\.(Dd|Dt|Nm)\b", source, re.MULTILINE))

            # Plain text without hyphenation or adjustment, as a name line is read.
            env = dict(os.environ, LC_ALL="C")
            result = run(["groff", "-man", "-Tascii", "-P-cbou", "-rLL=200n", page], env=env)
            lines = name_section(result.stdout)
            checks.equal(f"number of lines of the NAME section of {program}.{section}", len(lines), 1)
            checks.true(f"the NAME section of {program}.{section} reads \"{program} - ...\"",
                        bool(lines) and lines[0].startswith(f"{program} - ") and len(lines[0]) > len(program) + 3,
                        repr(lines))

            installed = os.path.join(destdir, "usr/share/man", f"man{section}", f"{program}.{section}")
            checks.true(f"the install puts {program}.{section} in usr/share/man/man{section} unchanged",
                        os.path.isfile(installed) and filecmp.cmp(installed, page, shallow=False))
    return checks.finish("install.man_pages")


if __name__ == "__main__":
    sys.exit(main())
