#!/usr/bin/env bash
# Builds ruvo and runs every test: the unit tests and the end-to-end tests on a normal
# build, then the unit tests again under AddressSanitizer + UndefinedBehaviorSanitizer and
# as a 32-bit program (32-bit time_t, like the router).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/ensure-packages.sh
ensure_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"

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
    local dir=$1 label=$2 parallel=${3:-$jobs} log status=0 total fails
    log=$(mktemp)
    ctest --test-dir "$dir" -L "$label" -j"$parallel" --output-on-failure 2>&1 | tee "$log" || status=$?
    total=$(sed -n 's/.*tests failed out of \([0-9]*\).*/\1/p' "$log" | tail -n 1)
    fails=$(sed -n 's/.* \([0-9]*\) tests failed out of.*/\1/p' "$log" | tail -n 1)
    rm -f "$log"
    passed=$((passed + ${total:-0} - ${fails:-0}))
    failed=$((failed + ${fails:-0}))
    return "$status"
}

# The 32-bit build must really be one: the router's time_t is 32 bits wide.
check_32_bit() {
    if [ "$(od -An -tx1 -j4 -N1 build-m32/ruvo | tr -d ' \n')" != "01" ]; then
        echo "build-m32/ruvo is not a 32-bit executable" >&2
        return 1
    fi
}

sanitize="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"

stage "build" configure_and_build build
stage "unit tests" run_tests build unit
# One at a time: a daemon under test answers the wireless side's handshake within about
# 100 ms, which a second daemon competing for the cores must not delay.
stage "end-to-end tests" run_tests build e2e 1
stage "build (ASan+UBSan)" configure_and_build build-sanitize \
    -DCMAKE_CXX_FLAGS="$sanitize" -DCMAKE_EXE_LINKER_FLAGS="$sanitize"
stage "unit tests (ASan+UBSan)" run_tests build-sanitize unit
stage "build (32-bit)" configure_and_build build-m32 \
    -DCMAKE_CXX_FLAGS=-m32 -DCMAKE_C_FLAGS=-m32 -DCMAKE_EXE_LINKER_FLAGS=-m32 \
    -DRUVO_GTEST_FROM_SOURCE=ON
check_32_bit
stage "unit tests (32-bit)" run_tests build-m32 unit

echo "=== stage times"
printf '%s\n' "${summary[@]}"
echo "total: $passed passed, $failed failed"
