#!/usr/bin/env bash
# Builds ruvo and runs every test: the unit, install and end-to-end tests and the report's
# HTML page in headless Chromium on a normal build, then the unit tests again under
# AddressSanitizer + UndefinedBehaviorSanitizer, and as 32-bit programs with 64-bit time,
# cross-built for 32-bit x86 and for the routers' CPUs (big-endian MIPS and 32-bit ARM) and
# run under qemu-user.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/ensure-packages.sh
ensure_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "${INSTALL_TEST_PACKAGES[@]}" \
    "${BROWSER_TEST_PACKAGES[@]}" "${CROSS_PACKAGES[@]}"

jobs=$(nproc)
summary=()
passed=0
failed=0

stage() {
    local name=$1
    shift
    local start=$SECONDS
    echo "=== $name"
    "$@"
    summary+=("$(printf '%-28s %4ds' "$name" $((SECONDS - start)))")
}

configure_and_build() {
    local dir=$1
    shift
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRUVO_TESTS=ON "$@" >/dev/null
    cmake --build "$dir" -j"$jobs" >/dev/null
}

# Runs one CTest label in a build directory (with the given parallelism, by default one
# test per core) and adds its counts to the totals.
run_tests() {
    local dir=$1 label=$2 parallel=${3:-$jobs} log status=0 total fails skipped
    log=$(mktemp)
    # A label without tests (e.g. one that CMake left out) fails rather than passing empty.
    ctest --test-dir "$dir" -L "$label" -j"$parallel" --output-on-failure --no-tests=error 2>&1 | tee "$log" ||
        status=$?
    total=$(sed -n 's/.*tests failed out of \([0-9]*\).*/\1/p' "$log" | tail -n 1)
    fails=$(sed -n 's/.* \([0-9]*\) tests failed out of.*/\1/p' "$log" | tail -n 1)
    # CTest counts a skipped test ("***Skipped": SKIP_RETURN_CODE, e.g. the end-to-end tests
    # on a host without private mount namespaces) among the passed ones; here it is not one.
    # In CI (CI=true) a test that was skipped or not run ("***Not Run") fails the command.
    skipped=$(grep -c '\*\*\*Skipped' "$log" || true)
    if [ "${CI:-}" = "true" ] && grep -qE '\*\*\*(Skipped|Not Run)' "$log"; then
        echo "CI: tests were skipped or not run; in CI every test must run" >&2
        status=1
    fi
    rm -f "$log"
    passed=$((passed + ${total:-0} - ${fails:-0} - skipped))
    failed=$((failed + ${fails:-0}))
    return "$status"
}

sanitize="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"

stage "build" configure_and_build build
stage "unit tests" run_tests build unit
stage "install tests" run_tests build install
# One at a time: a daemon under test answers the wireless side's handshake within about
# 100 ms, which a second daemon competing for the cores must not delay.
stage "end-to-end tests" run_tests build e2e 1
# One at a time: Chromium is heavy, and the test starts two of them.
stage "browser test" run_tests build browser 1
stage "output hash" run_tests build output_hash
stage "faulty simulation (7 days)" run_tests build sim_faults
stage "build (ASan+UBSan)" configure_and_build build-sanitize \
    -DCMAKE_CXX_FLAGS="$sanitize" -DCMAKE_EXE_LINKER_FLAGS="$sanitize"
stage "unit tests (ASan+UBSan)" run_tests build-sanitize unit
# Every reader under libFuzzer (clang, ASan+UBSan) for a few seconds per target.
stage "fuzz (5 s per target)" env FUZZ_JOBS=2 scripts/fuzz.sh 5

# A cross stage builds for a 32-bit CPU with 64-bit time, runs the unit suite and the
# simulator check under qemu-user, and ends with its own "total:" line, which is added to
# the totals here. i686 is the 32-bit build of the development machine's own CPU family.
cross_test() {
    local arch=$1 log status=0 line
    log=$(mktemp)
    scripts/cross-test.sh "$arch" 2>&1 | tee "$log" || status=$?
    line=$(grep '^total: [0-9]* passed, [0-9]* failed$' "$log" | tail -n 1)
    rm -f "$log"
    if [ -z "$line" ]; then
        failed=$((failed + 1))
        return 1
    fi
    passed=$((passed + $(sed 's/^total: \([0-9]*\) passed.*/\1/' <<<"$line")))
    failed=$((failed + $(sed 's/.* \([0-9]*\) failed$/\1/' <<<"$line")))
    return "$status"
}
stage "32-bit x86 (qemu)" cross_test i686
stage "cross mips (qemu)" cross_test mips
stage "cross armhf (qemu)" cross_test armhf

echo "=== stage times"
printf '%s\n' "${summary[@]}"
echo "total: $passed passed, $failed failed"
