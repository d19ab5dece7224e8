#!/usr/bin/env python3
"""Checks that every include of the daemon's sources points down the layers:

    daemon/ -> quota/ -> history/ -> core/ -> platform/
    daemon/ -> client/ -> client_mac/ -> core/

A folder may include its own headers and those of the folders below it, never one above it
or beside it, so that the folders form no circle. Prints every include that breaks the rule
and exits 1 when there is one.
"""
import pathlib
import re
import sys

# What each folder may include besides itself.
ALLOWED = {
    "platform": set(),
    "core": {"platform"},
    "history": {"core", "platform"},
    "quota": {"history", "core", "platform"},
    "client_mac": {"core", "platform"},
    "client": {"client_mac", "core", "platform"},
    "daemon": {"quota", "history", "client", "client_mac", "core", "platform"},
}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"/]+)/[^"]+"')


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".").resolve()
    wrong = []
    checked = 0
    for folder, allowed in ALLOWED.items():
        files = sorted(p for p in (root / folder).glob("*") if p.suffix in (".h", ".cpp"))
        if not files:
            wrong.append(f"{folder}/: no sources found")
        for path in files:
            checked += 1
            for number, line in enumerate(path.read_text().splitlines(), 1):
                m = INCLUDE.match(line)
                if m and m.group(1) != folder and m.group(1) not in allowed:
                    wrong.append(f"{folder}/{path.name}:{number}: includes {m.group(1)}/")
    for line in wrong:
        print(line)
    print(f"{checked} files checked, {len(wrong)} includes pointing up or sideways")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
