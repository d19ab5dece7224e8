#!/usr/bin/env bash
# Fuzzes every reader of the daemon's files: builds the libFuzzer targets of fuzz/ with clang,
# AddressSanitizer and UndefinedBehaviorSanitizer into build-fuzz/, runs each for SECONDS
# seconds on a fresh copy of its seed corpus (so fuzz/corpus/ is never grown), and prints
# each target's executions and coverage.
#
#   scripts/fuzz.sh SECONDS [TARGET...]     (FUZZ_JOBS=N runs N targets at a time; default 1)
#
# Exits non-zero when any target found a crash, a leak, a hang (over 5 s) or ran out of
# memory (over 512 MB), naming the target and the reproducer, which is kept under
# build-fuzz/fuzz-findings/TARGET/. Replay one with: build-fuzz/fuzz/TARGET_fuzz FILE
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    echo "usage: scripts/fuzz.sh SECONDS [TARGET...]" >&2
    exit 2
}
[ $# -ge 1 ] || usage
seconds=$1
shift
[[ $seconds =~ ^[1-9][0-9]*$ ]] || usage
jobs=${FUZZ_JOBS:-1}
[[ $jobs =~ ^[1-9][0-9]*$ ]] || usage

. scripts/ensure-packages.sh
ensure_packages "${BUILD_PACKAGES[@]}" "${FUZZ_PACKAGES[@]}"

build="build-fuzz"
findings=$build/fuzz-findings
started=$SECONDS
rm -rf "$findings"

# The inputs go to a RAM disk when there is one: every run writes and reads its files.
base=${TMPDIR:-/tmp}
if [ -d /dev/shm ] && [ -w /dev/shm ]; then
    base=/dev/shm
fi
work=$(mktemp -d "$base/ruvo-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT

echo "=== build ($build)"
mkdir -p "$build"
if ! CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DRUVO_FUZZ=ON -DRUVO_TESTS=OFF >"$work/build.log" 2>&1 ||
    ! cmake --build "$build" --target ruvo_fuzz -j2 >>"$work/build.log" 2>&1; then
    tail -n 40 "$work/build.log" >&2
    echo "fuzz: the build failed" >&2
    exit 1
fi
echo "built in $((SECONDS - started)) s"

# "NAME MAX_LEN" per target, written by fuzz/CMakeLists.txt.
names=()
declare -A max_len=()
while read -r name len; do
    [ -n "$name" ] || continue
    names+=("$name")
    max_len[$name]=$len
done <"$build/fuzz/targets.txt"
if [ $# -gt 0 ]; then
    for name in "$@"; do
        [ -n "${max_len[$name]:-}" ] || { echo "fuzz: no target $name" >&2; exit 2; }
    done
    names=("$@")
fi

# Runs one target in its own directory and leaves there "result" (the line to print) and,
# on a finding, "problem".
run_target() {
    local name=$1 dir=$work/$1 status=0
    mkdir -p "$dir/corpus" "$dir/tmp"
    if [ -d "fuzz/corpus/$name" ]; then
        cp -r "fuzz/corpus/$name/." "$dir/corpus/"
    fi
    TMPDIR=$dir/tmp UBSAN_OPTIONS=print_stacktrace=1 \
        "$build/fuzz/${name}_fuzz" -max_total_time="$seconds" -timeout=5 -rss_limit_mb=512 \
        -max_len="${max_len[$name]}" -print_final_stats=1 -artifact_prefix="$dir/" \
        "$dir/corpus" >"$dir/log" 2>&1 || status=$?

    local done_line execs rate cov ft corp
    done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$dir/log" | tail -n 1 || true)
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -n 1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$dir/log" | tail -n 1)
    cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$done_line")
    ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$done_line")
    corp=$(sed -n 's/.* corp: \([0-9]*\)\/.*/\1/p' <<<"$done_line")
    printf '%-24s %5ss %11s execs %7s exec/s  cov %5s  ft %6s  corp %5s\n' "$name" "$seconds" \
        "${execs:-?}" "${rate:-?}" "${cov:-?}" "${ft:-?}" "${corp:-?}" >"$dir/result"

    local artifacts=() kind file
    for file in "$dir"/crash-* "$dir"/leak-* "$dir"/timeout-* "$dir"/oom-*; do
        [ -e "$file" ] && artifacts+=("$file")
    done
    if [ "$status" -eq 0 ] && [ ${#artifacts[@]} -eq 0 ]; then
        return 0
    fi
    mkdir -p "$findings/$name"
    cp "$dir/log" "$findings/$name/log"
    {
        grep -E '^(==[0-9]+==ERROR|SUMMARY|.*runtime error:|==[0-9]+== ERROR: libFuzzer)' "$dir/log" |
            head -n 5 | sed 's/^/    /' || true
        if [ ${#artifacts[@]} -eq 0 ]; then
            echo "    $name: exit status $status without a reproducer; log: $findings/$name/log"
        fi
        for file in "${artifacts[@]}"; do
            kind=${file##*/}
            kind=${kind%%-*}
            cp "$file" "$findings/$name/"
            echo "    $name: $kind, reproducer $findings/$name/${file##*/} (log: $findings/$name/log)"
        done
    } >"$dir/problem"
}

report() {
    local name=$1
    if [ ! -e "$work/$name/result" ]; then
        mkdir -p "$work/$name"
        echo "    $name: the run could not be set up or evaluated" >"$work/$name/problem"
        echo "$name"
    else
        cat "$work/$name/result"
    fi
    if [ -e "$work/$name/problem" ]; then
        cat "$work/$name/problem"
    fi
}

echo "=== fuzzing ${#names[@]} targets, $seconds s each, $jobs at a time"
running=()
next_report=0
for name in "${names[@]}"; do
    run_target "$name" &
    running+=($!)
    while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do
        wait -n || true
    done
    # Reports in the order of the list, as soon as a target and all before it have ended.
    while [ $next_report -lt ${#running[@]} ] && ! kill -0 "${running[$next_report]}" 2>/dev/null; do
        wait "${running[$next_report]}" || true
        report "${names[$next_report]}"
        next_report=$((next_report + 1))
    done
done
while [ $next_report -lt ${#running[@]} ]; do
    wait "${running[$next_report]}" || true
    report "${names[$next_report]}"
    next_report=$((next_report + 1))
done

failed=()
for name in "${names[@]}"; do
    [ -e "$work/$name/problem" ] && failed+=("$name")
done
echo "fuzzing took $((SECONDS - started)) s in all"
if [ ${#failed[@]} -gt 0 ]; then
    echo "fuzz: ${#failed[@]} of ${#names[@]} targets found problems"
    exit 1
fi
echo "fuzz: ${#names[@]} targets clean"
