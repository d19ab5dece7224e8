#!/bin/sh
# Builds the benchmarks (build-bench/, -DRUVO_BENCH=ON), runs them, counts the instructions
# of one client reading + save (the MAC work included) with callgrind, shows the part of
# them that the MAC operations take, and measures peak memory.
# Usage: bench/run.sh   (from any directory; about 2 to 3 minutes on 2 cores)
set -eu

here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(dirname "$here")
build_dir="$source_dir/build-bench"

# valgrind (callgrind) and GNU time; both are Debian packages.
missing=""
command -v valgrind >/dev/null 2>&1 || missing="$missing valgrind"
[ -x /usr/bin/time ] || missing="$missing time"
if [ -n "$missing" ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "run.sh: please install:$missing" >&2
        exit 1
    fi
    apt-get update >/dev/null
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive apt-get install -y $missing >/dev/null
fi

# The benchmark's router trees go to a tmpfs, like a router's /tmp and /var/run: on a disk
# file system a rename over an existing file may wait for the disk, which the daemon never
# meets on a router.
if [ -d /dev/shm ] && [ -w /dev/shm ]; then
    work=$(mktemp -d /dev/shm/clientbench-run-XXXXXX)
else
    work=$(mktemp -d)
fi
trap 'rm -rf "$work"' EXIT INT TERM
export TMPDIR="$work"

cmake -S "$source_dir" -B "$build_dir" -DRUVO_BENCH=ON -DRUVO_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build_dir" --target ruvo_bench -j2 >/dev/null
bench="$build_dir/bench/ruvo_bench"

echo "== Time of one reading + save (Google Benchmark; CPU is the process's user + system time)"
"$bench" --benchmark_filter='^BM_Reading' --benchmark_counters_tabular=true

echo
echo "== Heap over ticks, with glibc's per-thread cache off (its parked blocks count as in use)"
GLIBC_TUNABLES=glibc.malloc.tcache_count=0 "$bench" --benchmark_filter='^BM_ReadingAfterPriorReadings' \
    --benchmark_format=json >"$work/heap.json"
awk -F': ' '/"name"/ { name = $2 } /"heap_KiB"/ { heap = $2 }
    /"heap_growth_KiB"/ { sub(/,$/, "", heap); sub(/,$/, "", $2); gsub(/"/, "", name); sub(/,$/, "", name)
        printf "%-50s heap %9.1f KiB, growth over 200 readings %6.2f KiB\n", name, heap, $2 }' "$work/heap.json"

echo
echo "== Instructions of one reading + save (callgrind, user space only)"
for case in OneReadingAndSave/1000 OneReadingAndSave/16384 \
            OneReadingAfterPriorReadings/2 OneReadingAfterPriorReadings/1000; do
    valgrind --tool=callgrind --instr-atstart=no --collect-atstart=no \
        --callgrind-out-file="$work/callgrind.out" \
        "$bench" --benchmark_filter="^BM_$case/" >"$work/callgrind.log" 2>&1
    count=$(sed -n 's/^==[0-9]*== Collected : //p' "$work/callgrind.log")
    if [ -z "$count" ]; then
        cat "$work/callgrind.log" >&2
        exit 1
    fi
    printf '%-40s %14s instructions\n' "$case" "$count"
    cp "$work/callgrind.out" "$work/callgrind.$(echo "$case" | tr / _).out"
done

echo
echo "== Of those, the MAC operations (callgrind, inclusive instructions)"
for clients in 1000 16384; do
    out="$work/callgrind.OneReadingAndSave_$clients.out"
    callgrind_annotate --inclusive=yes --threshold=100 "$out" >"$work/annotate.txt" 2>/dev/null
    printf '%s clients:\n' "$clients"
    # A function's own total is the line that ends with the binary's name in brackets.
    for fn in 'ruvo_client_mac_usage_prepare()' 'load_proc_net_arp(' 'load_deleted_arp(' \
              'ruvo_client_mac_usage_add(' 'ruvo_client_mac_usage_finalize()' \
              'ruvo_client_mac_usage_history_limit()' 'ruvo_client_mac_usage_save()'; do
        n=$(grep -F "$fn" "$work/annotate.txt" | grep '\[.*ruvo_bench\]$' | head -n 1 | awk '{ print $1 }')
        printf '    %-40s %14s\n' "$fn" "${n:-0}"
    done
done

echo
echo "== Peak memory of a process that sets up C clients and makes one reading + save"
for clients in 1000 16384; do
    /usr/bin/time -v "$bench" --benchmark_filter="^BM_OneReadingAndSave/$clients/" \
        --benchmark_format=json >"$work/out.json" 2>"$work/time.log"
    rss=$(sed -n 's/^[[:space:]]*Maximum resident set size (kbytes): //p' "$work/time.log")
    heap=$(awk -F': ' '/"heap_KiB"/ { sub(/,$/, "", $2); printf "%.0f", $2 }' "$work/out.json")
    printf '%-8s clients: peak RSS %8s KiB; heap of the tables and clients %s KiB\n' \
        "$clients" "$rss" "$heap"
done
