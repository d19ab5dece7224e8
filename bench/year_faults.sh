#!/bin/sh
# A year of the simulator with faults: ruvo-sim --days 365 --faults, the daemon's own code
# ticking 1,051,439 times on a simulated router while "/tmp" fills up, the daemon is killed,
# the clock jumps and input files are damaged, with the whole tree checked after every pass
# and start-up (tools/sim/README.md, "Faults"). Prints ruvo-sim's summary (ticks, faults by
# kind, checks, what the faults cost, slowest pass, peak memory), GNU time's figures and the
# largest files of the tree; bench/README.md, "A year with faults", has the figures.
#
# Usage: bench/year_faults.sh [--sim PATH] [--days N] [--clients N] [--seed N] [--keep]
#   --sim PATH   the ruvo-sim to run (default: build it in build-bench/, as bench/run.sh
#                configures it)
#   --days N     simulated days (default 365)
#   --clients N  LAN clients (default 10, which keeps the year at about half an hour on a
#                loaded 2-core machine; the client and MAC files are written and checked
#                every pass at any count)
#   --seed N     seed of the run and of its faults (default 1)
#   --keep       keep the router tree (under /dev/shm) for inspection
# Exit status: ruvo-sim's (1 when a check failed).
set -eu

sim=""
days=365
clients=10
seed=1
keep=no
while [ $# -gt 0 ]; do
    case "$1" in
    --sim) sim=$2; shift 2 ;;
    --days) days=$2; shift 2 ;;
    --clients) clients=$2; shift 2 ;;
    --seed) seed=$2; shift 2 ;;
    --keep) keep=yes; shift ;;
    *) echo "usage: $0 [--sim PATH] [--days N] [--clients N] [--seed N] [--keep]" >&2; exit 2 ;;
    esac
done

here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(dirname "$here")
if [ -z "$sim" ]; then
    build_dir="$source_dir/build-bench"
    cmake -S "$source_dir" -B "$build_dir" -DRUVO_BENCH=ON -DRUVO_TESTS=OFF \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build "$build_dir" --target ruvo-sim -j2 >/dev/null
    sim="$build_dir/tools/sim/ruvo-sim"
fi

# The tree goes to a tmpfs, like a router's /tmp and /var/run (on a disk every rename may
# wait for the disk).
if [ -d /dev/shm ] && [ -w /dev/shm ]; then
    work=$(mktemp -d /dev/shm/ruvo-year-XXXXXX)
else
    work=$(mktemp -d)
fi
if [ "$keep" = no ]; then
    trap 'rm -rf "$work"' EXIT INT TERM
fi

echo "== ruvo-sim --days $days --clients $clients --seed $seed --faults ($(date -u '+%Y-%m-%d %H:%M UTC'), load $(cut -d' ' -f1-3 /proc/loadavg))"
status=0
if [ -x /usr/bin/time ]; then
    /usr/bin/time -v "$sim" --days "$days" --clients "$clients" --seed "$seed" --faults --quiet \
        --root "$work/tree" >"$work/summary.txt" 2>"$work/time.log" || status=$?
else
    "$sim" --days "$days" --clients "$clients" --seed "$seed" --faults --quiet \
        --root "$work/tree" >"$work/summary.txt" || status=$?
fi
# The summary without its list of the first 100 faults (sim/faults.log has them all).
grep -v '^      ' "$work/summary.txt" || true

if [ -s "$work/time.log" ]; then
    echo
    echo "== GNU time"
    grep -E 'Elapsed|User time|System time|Maximum resident|Percent of CPU' "$work/time.log" | sed 's/^[[:space:]]*/  /'
fi

echo
echo "== The tree ($(du -sk "$work/tree" | cut -f1) KiB, $(find "$work/tree" -type f | wc -l) files)"
echo "-- largest files the daemon wrote (bytes)"
find "$work/tree" -type f -not -path "$work/tree/sim/*" -not -path "$work/tree/proc/*" \
    -printf '%s %P\n' | sort -n | tail -n 5 | sed 's/^/  /'
echo "-- largest files of the simulator (bytes)"
find "$work/tree/sim" -type f -printf '%s %P\n' | sort -n | tail -n 3 | sed 's/^/  /'
echo "-- faults by kind (sim/faults.log)"
awk -F'\t' '$4 != "space again" { print $3 }' "$work/tree/sim/faults.log" | sort | uniq -c | sed 's/^ */  /'
if [ "$keep" = yes ]; then
    echo "tree kept at $work/tree"
fi
exit "$status"
