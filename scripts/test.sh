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
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    cmake --build "$dir" -j"$jobs" >/dev/null
}

sanitize="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"

stage "build" configure_and_build build
stage "unit tests" ctest --test-dir build -L unit -j"$jobs" --output-on-failure
stage "end-to-end tests" ctest --test-dir build -L e2e --output-on-failure
stage "build (ASan+UBSan)" configure_and_build build-sanitize \
    -DCMAKE_CXX_FLAGS="$sanitize" -DCMAKE_EXE_LINKER_FLAGS="$sanitize"
stage "unit tests (ASan+UBSan)" ctest --test-dir build-sanitize -L unit -j"$jobs" --output-on-failure
stage "build (32-bit)" configure_and_build build-m32 \
    -DCMAKE_CXX_FLAGS=-m32 -DCMAKE_C_FLAGS=-m32 -DCMAKE_EXE_LINKER_FLAGS=-m32 \
    -DRUVO_GTEST_FROM_SOURCE=ON
stage "unit tests (32-bit)" ctest --test-dir build-m32 -L unit -j"$jobs" --output-on-failure

echo "=== stage times"
printf '%s\n' "${summary[@]}"
