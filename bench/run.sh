#!/bin/sh
# Builds the benchmarks (build-bench/, -DRUVO_BENCH=ON) and runs them:
#   - the client reading + save (the MAC work included): time, heap, instructions
#     (callgrind), the MAC operations' share, peak memory;
#   - the whole tick with 5 WAN links (one dual-SIM) at 0, 1,000 and 16,384 clients: time,
#     instructions and their top entries (callgrind), system calls (strace, when
#     installed), the pass with the periodic backup, start-up with full backups, ticks
#     early and after a simulated year, peak memory;
#   - the stripped size of the ruvo executable (RelWithDebInfo, and MinSizeRel for -Os);
#   - the I/O floor of a tick against the tick itself at 0 and 16,384 clients, in one
#     process: CPU time and their ratio, and the files each reads and writes (strace);
#   - the private memory of the real ruvo process after ticks and after a start-up with
#     full backups, at 0 and 16,384 clients (bench/memory.py, where the end-to-end tests
#     can run).
# Usage: bench/run.sh   (from any directory; about 6 to 7 minutes on 2 cores)
#        bench/run.sh --year-instructions   also counts the instructions of a tick with 1,000
#                                           clients after a simulated year (about 5 more
#                                           minutes: the year runs under valgrind)
#        bench/run.sh --io-floor            builds and runs only the I/O floor step (about a
#                                           minute after the build)
# RUVO_BENCH_BUILD_DIR names another build directory than build-bench/.
set -eu

year_instructions=no
io_floor_only=no
case "${1:-}" in
    --year-instructions) year_instructions=yes ;;
    --io-floor) io_floor_only=yes ;;
esac

here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(dirname "$here")
build_dir="${RUVO_BENCH_BUILD_DIR:-$source_dir/build-bench}"

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
cmake --build "$build_dir" --target ruvo_bench ruvo -j2 >/dev/null
bench="$build_dir/bench/ruvo_bench"

# ---- The I/O floor (run last, or alone with --io-floor) ----------------------------------------

# What one strace of the bench did between the markers of the measured pass: calls, files read
# (opened for reading, each once), files written (renamed over, or opened for writing without
# being created: the event pipe), directories listed, paths only looked at (access, stat, an
# open that failed; not opened, renamed or removed otherwise), and the bytes of read and write.
strace_files() {
    awk '
    function path1(s) { return match(s, /"[^"]*"/) ? substr(s, RSTART + 1, RLENGTH - 2) : "" }
    function path2(s) { sub(/^[^"]*"[^"]*"/, "", s); return path1(s) }
    /ruvo-bench-measured-begin/ { on = 1; next }
    /ruvo-bench-measured-end/ { on = 0 }
    !on { next }
    {
        sub(/^[0-9]+ +/, "")
        calls++
        call = $0; sub(/\(.*/, "", call)
        ok = $0 !~ /= -1 [A-Z]/
        p = path1($0)
        if (call == "openat" && ok) {
            if ($0 ~ /O_DIRECTORY/) listed[p] = 1
            else if ($0 ~ /O_RDONLY/) got[p] = 1
            else if ($0 ~ /O_WRONLY/ && $0 !~ /O_CREAT/) in_place[p] = 1
            opened[p] = 1
        } else if (call == "rename" && ok) {
            moved[p] = 1; target[path2($0)] = 1
        } else if (call == "unlink" && ok) {
            removed[p] = 1
        } else if ((call == "read" || call == "write") && ok) {
            n = $0; sub(/.*= /, "", n); bytes[call] += n
        }
        if (call == "access" || call == "newfstatat" && $0 ~ /AT_FDCWD/ || call == "stat" ||
            call == "lstat" || call == "openat" && !ok)
            looked[p] = 1
    }
    END {
        for (p in got) n_read++
        for (p in listed) n_dirs++
        for (p in target) if (!(p in removed)) n_replaced++
        for (p in in_place) n_in_place++
        for (p in looked)
            if (!(p in opened) && !(p in moved) && !(p in target) && !(p in removed)) n_looked++
        printf "%5d calls; files read %d, written %d (%d replaced, %d in place), directories listed %d, paths looked at %d; bytes read %d, written %d\n",
            calls, n_read, n_replaced + n_in_place, n_replaced, n_in_place, n_dirs, n_looked, bytes["read"],
            bytes["write"]
    }' "$1"
}

io_floor_step() {
    echo
    echo "== The I/O floor of a tick (5 WAN links, WAN 5 dual-SIM, full backups): only the file I/O"
    echo "   that one real tick made (the same files read, listed, taken and written, the same bytes"
    echo "   written, each replaced file through a scratch file and a rename), every byte prepared,"
    echo "   no formatting or parsing; CPU time (user + system) per pass, medians of 5 runs of each"
    echo "   case in one process, the runs interleaved at random"
    "$bench" --benchmark_filter='^BM_(Tick/clients:(0|16384)/full_backups:1$|IoFloor/clients:(0|16384)/|TickAndFloor/)' \
        --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
        --benchmark_report_aggregates_only=true --benchmark_format=json >"$work/floor.json"
    # The medians, one line per case; BM_TickAndFloor alternates a tick and a floor pass, its
    # tick_cpu_ms and floor_cpu_ms are the medians over its 100 iterations.
    awk -F': ' '
        function value(s) { sub(/,$/, "", s); return s + 0 }
        /"name"/ { gsub(/[",]/, "", $2); name = $2; median = name ~ /_median$/; sub(/_median$/, "", name)
                   sub(/\/iterations:[0-9]+$/, "", name); next }
        !median { next }
        /"cpu_time"/ { cpu[name] = value($2) }
        /"user_ms"/ { user[name] = value($2) }
        /"sys_ms"/ { sys[name] = value($2) }
        /"tick_cpu_ms"/ { tick[name] = value($2) }
        /"floor_cpu_ms"/ { fl[name] = value($2) }
        /"tick_over_floor"/ { ratio[name] = value($2) }
        END {
            split("0 16384", clients, " ")
            for (i = 1; i <= 2; i++) {
                c = clients[i]
                t = "BM_Tick/clients:" c "/full_backups:1"; f = "BM_IoFloor/clients:" c
                a = "BM_TickAndFloor/clients:" c
                printf "%-36s CPU %7.3f ms (user %6.3f, system %6.3f)\n", t, cpu[t], user[t], sys[t]
                printf "%-36s CPU %7.3f ms (user %6.3f, system %6.3f)\n", f, cpu[f], user[f], sys[f]
                printf "%-36s tick %7.3f ms, floor %6.3f ms, tick / floor %5.2f\n", a, tick[a], fl[a], ratio[a]
            }
            for (i = 1; i <= 2; i++)
                printf "ratio at %s clients: %.2f\n", clients[i], ratio["BM_TickAndFloor/clients:" clients[i]]
        }' "$work/floor.json"
    if command -v strace >/dev/null 2>&1; then
        echo "-- files of one tick and of one floor pass (strace, between the markers)"
        for clients in 0 16384; do
            strace -o "$work/strace.txt" "$bench" \
                --benchmark_filter="^BM_OneTick/clients:$clients/full_backups:1/" >/dev/null 2>&1
            printf 'tick  %5s clients: %s\n' "$clients" "$(strace_files "$work/strace.txt")"
            strace -o "$work/strace.txt" "$bench" --benchmark_filter="^BM_OneIoFloor/clients:$clients/" \
                >/dev/null 2>&1
            printf 'floor %5s clients: %s\n' "$clients" "$(strace_files "$work/strace.txt")"
        done
    else
        echo "-- files of a tick and of the floor: strace is not installed, skipped"
    fi
}

if [ "$io_floor_only" = yes ]; then
    io_floor_step
    exit 0
fi

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

# ---- The whole tick ------------------------------------------------------------------------

# Prints callgrind's total of one run of the bench with the given filter, and keeps its
# profile as $work/callgrind.<name>.out.
count_instructions() {
    name=$1
    filter=$2
    valgrind --tool=callgrind --instr-atstart=no --collect-atstart=no \
        --callgrind-out-file="$work/callgrind.$name.out" \
        "$bench" --benchmark_filter="$filter" >"$work/callgrind.log" 2>&1
    count=$(sed -n 's/^==[0-9]*== Collected : //p' "$work/callgrind.log")
    if [ -z "$count" ]; then
        cat "$work/callgrind.log" >&2
        exit 1
    fi
    echo "$count"
}

# The instructions of the calls from process_tick to one function, read from the calling
# tree of a profile (0 when there is no such call).
called_from_tick() {
    n=$(awk -v fn="$2" '/\*  .*daemon\.cpp:process_tick\(/ { on = 1; next } on && /^$/ { exit }
        on && index($0, fn) { gsub(",", "", $1); print $1; exit }' "$1")
    echo "${n:-0}"
}

echo
echo "== Time of one whole tick: 5 WAN links, WAN 5 dual-SIM (7 records), at the 30 s pace;"
echo "   full_backups:1 restored at start-up (histories full), :0 an empty tree"
"$bench" --benchmark_filter='^BM_Tick/' --benchmark_counters_tabular=true

echo
echo "== The pass of every 61st tick (tick + all backups) and start-up with full backups;"
echo "   Time is wall time (it includes the cp and rm children), CPU the process's own"
"$bench" --benchmark_filter='^BM_(TickWithPeriodicBackup|Startup)/' --benchmark_counters_tabular=true

echo
echo "== 240 ticks at the 30 s pace with 1,000 clients, early (hourly_ticks:0) and after a"
echo "   simulated year of 8,760 ticks one hour apart; glibc's per-thread cache off for the heap"
GLIBC_TUNABLES=glibc.malloc.tcache_count=0 "$bench" \
    --benchmark_filter='^BM_TickAfterHourlyTicks/clients:1000/' --benchmark_counters_tabular=true

echo
echo "== Instructions of one tick (callgrind, user space only); the WAN part is everything but"
echo "   the client reading and save"
printf '%-30s %12s %12s %12s %12s\n' case 'whole tick' 'WAN part' 'client read' 'client save'
for case in clients:0/full_backups:1 clients:1000/full_backups:1 clients:16384/full_backups:1 \
            clients:0/full_backups:0; do
    name=tick_$(echo "$case" | sed 's/clients://; s|/full_backups:|_|')
    total=$(count_instructions "$name" "^BM_OneTick/$case/")
    callgrind_annotate --tree=calling --inclusive=yes --threshold=100 "$work/callgrind.$name.out" \
        >"$work/tree.$name.txt" 2>/dev/null
    read_part=$(called_from_tick "$work/tree.$name.txt" 'read_client_usage(')
    save_part=$(called_from_tick "$work/tree.$name.txt" 'save_client_usage(')
    wan_part=$(echo "$total" | tr -d , | awk -v r="$read_part" -v s="$save_part" '{ print $1 - r - s }')
    printf '%-30s %12s %12s %12s %12s\n' "$case" "$total" "$wan_part" "$read_part" "$save_part"
done
echo "-- the calls of one tick at 0 clients, full backups (inclusive instructions)"
awk '/\*  .*daemon\.cpp:process_tick\(/ { on = 1; next } on && /^$/ { exit } on' "$work/tree.tick_0_1.txt" |
    head -n 14 | sed 's|  >  *| |; s|[^ ]*/\([a-z_]*/[a-z_]*\.cpp:\)|\1|'
for clients in 0 1000 16384; do
    echo "-- top entries at $clients clients, full backups (exclusive instructions)"
    callgrind_annotate "$work/callgrind.tick_${clients}_1.out" 2>/dev/null |
        awk '/file:function/ { on = 1; getline; next } on && NF { print } ' | head -n 8 |
        sed 's|\[[^]]*\]$||; s|[^ ]*/src/||; s|\./[a-z-]*/\./[a-z-]*/||'
done

echo
echo "== Instructions of start-up with full backups (callgrind; the cp and rm children not counted)"
for clients in 1000 16384; do
    printf '%-8s clients: %14s instructions\n' "$clients" \
        "$(count_instructions "start_$clients" "^BM_OneStartup/clients:$clients/")"
done

echo
echo "== Instructions of one tick early and after a simulated year (callgrind; the year runs"
echo "   uninstrumented under valgrind)"
year_cases="clients:0/hourly_ticks:0 clients:0/hourly_ticks:8760"
if [ "$year_instructions" = yes ]; then
    year_cases="$year_cases clients:1000/hourly_ticks:0 clients:1000/hourly_ticks:8760"
fi
for case in $year_cases; do
    printf '%-32s %14s instructions\n' "$case" \
        "$(count_instructions year "^BM_OneTickAfterHourlyTicks/$case/")"
done

echo
if command -v strace >/dev/null 2>&1; then
    echo "== System calls of one tick (strace), full backups restored"
    for clients in 0 1000 16384; do
        strace -o "$work/strace.txt" "$bench" --benchmark_filter="^BM_OneTick/clients:$clients/full_backups:1/" \
            >/dev/null 2>&1
        awk -v c="$clients" '/ruvo-bench-measured-begin/ { on = 1; next } /ruvo-bench-measured-end/ { on = 0 }
            on { split($0, a, "("); n[a[1]]++; total++ }
            END { printf "%-6s clients: %4d calls:", c, total
                  for (k in n) printf " %s %d", k, n[k]; printf "\n" }' "$work/strace.txt"
    done
else
    echo "== System calls of one tick: strace is not installed, skipped"
fi

echo
echo "== Peak memory (/usr/bin/time -v) of a process that builds the tree and then starts"
echo "   with full backups, or starts and makes three ticks"
for case in OneStartup/clients:1000 OneStartup/clients:16384 OneTick/clients:1000/full_backups:1 \
            OneTick/clients:16384/full_backups:1; do
    /usr/bin/time -v "$bench" --benchmark_filter="^BM_$case/" --benchmark_format=json \
        >"$work/out.json" 2>"$work/time.log"
    rss=$(sed -n 's/^[[:space:]]*Maximum resident set size (kbytes): //p' "$work/time.log")
    heap=$(awk -F': ' '/"heap_KiB"/ { sub(/,$/, "", $2); printf "%.0f", $2 }' "$work/out.json")
    before=$(awk -F': ' '/"rss_(peak_)?KiB_before(_start)?"/ { sub(/,$/, "", $2); printf "%.0f", $2 }' "$work/out.json")
    started=$(awk -F': ' '/"rss_peak_KiB(_after_start)?"/ { sub(/,$/, "", $2); v = $2 } END { printf "%.0f", v }' \
        "$work/out.json")
    printf '%-37s peak RSS %6s KiB (before start-up %5s, after it %5s); daemon heap %5s KiB\n' \
        "$case" "$rss" "$before" "$started" "$heap"
done

echo
echo "== Size of the ruvo executable, stripped (strip -o)"
strip -o "$work/ruvo.relwithdebinfo" "$build_dir/ruvo"
cmake -S "$source_dir" -B "$work/build-minsize" -DRUVO_TESTS=OFF -DCMAKE_BUILD_TYPE=MinSizeRel >/dev/null
cmake --build "$work/build-minsize" --target ruvo -j2 >/dev/null
strip -o "$work/ruvo.minsizerel" "$work/build-minsize/ruvo"
for build in relwithdebinfo minsizerel; do
    printf '%-16s %8s bytes   ' "$build" "$(stat -c %s "$work/ruvo.$build")"
    size "$work/ruvo.$build" | awk 'NR == 2 { printf "text %s, data %s, bss %s\n", $1, $2, $3 }'
done

echo
echo "== Private memory of the real ruvo process (bench/memory.py: the end-to-end tests' fake"
echo "   router, 0 and 16,384 clients)"
# It needs what the end-to-end tests need (unshare, a private mount namespace, Debian's
# faketime); where they are missing it says why and the rest of the run goes on.
python3 "$here/memory.py" --ruvo "$build_dir/ruvo" || echo "(bench/memory.py could not run here)"

io_floor_step
