#!/usr/bin/env python3
"""Runs ruvo-sim on fixed scenarios and compares a hash of every file the run left in the
router tree with the hash recorded in output_hashes.txt beside this script.

The daemon's output must not change by one byte when its code is made faster; a changed
hash names the scenario, and --keep leaves the tree to compare. The hash covers every
file's path and content, the simulator's logs of the daemon's syslog lines, commands and
e-mails included, with two things left out because they differ from run to run: the
summary (wall time, tree path) and the random part of the alert message's temporary name.

  output_hash.py --sim build/tools/sim/ruvo-sim             check every scenario
  output_hash.py --sim build/tools/sim/ruvo-sim --record    write the hashes anew

The hashes stand for the daemon's output before its speed work (commit 3827fe7). A change
of the simulator's scenario changes them; then they are recorded anew with the changed
simulator built on the daemon's code of 3827fe7, and confirmed with the current daemon
(output_hashes.txt's header says when and how). --record keeps the file's comment lines.
"""
import argparse
import hashlib
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
HASHES = HERE / "output_hashes.txt"

# name: ruvo-sim arguments
SCENARIOS = {
    "default": ["--days", "3", "--seed", "1"],
    "clients-16384": ["--days", "1", "--seed", "1", "--clients", "16384"],
}

# The alert message's temporary name comes from mkstemp.
MESSAGE_NAME = re.compile(rb"usage_alert_msg\.[A-Za-z0-9]{6}")


def tree_hash(root):
    digest = hashlib.sha256()
    files = 0
    for path in sorted(p for p in pathlib.Path(root).rglob("*") if p.is_file() or p.is_symlink()):
        relative = path.relative_to(root).as_posix()
        if relative == "sim/summary.txt":
            continue
        content = os.readlink(path).encode() if path.is_symlink() else path.read_bytes()
        if relative == "sim/commands.log":
            content = MESSAGE_NAME.sub(b"usage_alert_msg.XXXXXX", content)
        digest.update(relative.encode() + b"\0" + str(len(content)).encode() + b"\0" + content)
        files += 1
    return digest.hexdigest(), files


def tree_base():
    # A tmpfs keeps the run quick; renames on a disk file system start write-backs.
    shm = pathlib.Path("/dev/shm")
    return str(shm) if shm.is_dir() and os.access(shm, os.W_OK) else None


def run(sim, emulator, name, arguments, keep):
    root = tempfile.mkdtemp(prefix=f"ruvo-hash-{name}-", dir=tree_base())
    command = shlex.split(emulator) + [sim, "--root", root, "--quiet"] + arguments
    print("$ " + " ".join(command), flush=True)
    started = time.monotonic()
    result = subprocess.run(command, stdout=subprocess.DEVNULL)
    if result.returncode != 0:
        print(f"FAIL: ruvo-sim ended with status {result.returncode}; tree kept at {root}")
        return None
    value, files = tree_hash(root)
    print(f"{name}: {files} files, sha256 {value} ({time.monotonic() - started:.1f} s)", flush=True)
    if keep:
        print(f"tree kept at {root}")
    else:
        shutil.rmtree(root)
    return value


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--sim", required=True, help="the ruvo-sim executable")
    parser.add_argument("--emulator", default="", help="run ruvo-sim through this command")
    parser.add_argument("--record", action="store_true", help="write output_hashes.txt anew")
    parser.add_argument("--keep", action="store_true", help="keep the trees")
    parser.add_argument("--only", choices=sorted(SCENARIOS), help="run one scenario")
    args = parser.parse_args()

    recorded = {}
    if HASHES.exists():
        for line in HASHES.read_text().splitlines():
            if line and not line.startswith("#"):
                name, value = line.split()
                recorded[name] = value
    names = [args.only] if args.only else list(SCENARIOS)
    results = {}
    for name in names:
        results[name] = run(args.sim, args.emulator, name, SCENARIOS[name], args.keep)
        if results[name] is None:
            return 1

    if args.record:
        recorded.update(results)
        header = [line for line in HASHES.read_text().splitlines() if line.startswith("#")] \
            if HASHES.exists() else []
        lines = header or ["# sha256 of the router tree ruvo-sim leaves, per scenario (output_hash.py)"]
        lines += [f"{name} {recorded[name]}" for name in SCENARIOS if name in recorded]
        HASHES.write_text("\n".join(lines) + "\n")
        print(f"recorded in {HASHES}")
        return 0

    failed = [name for name in names if recorded.get(name) != results[name]]
    for name in failed:
        print(f"FAIL: {name}: the output changed (recorded {recorded.get(name)}, now {results[name]})")
    print(f"{len(names) - len(failed)} of {len(names)} scenarios give the recorded output")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
