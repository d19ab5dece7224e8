#!/usr/bin/env bash
# Builds ruvo for one of the routers' CPUs with Debian's cross compiler and runs, under
# qemu-user, the whole unit suite and the simulator's default scenario with its check.
#
#   scripts/cross-test.sh mips     32-bit big-endian MIPS   (build-mips/)
#   scripts/cross-test.sh armhf    32-bit ARM, hard float   (build-armhf/)
#   scripts/cross-test.sh i686     32-bit x86               (build-i686/)
#
# Checks that the daemon is an executable for that CPU with 64-bit time (on MIPS, that it
# calls glibc's 64-bit time functions), and ends with "total: N passed, N failed".
set -euo pipefail
cd "$(dirname "$0")/.."

arch=${1:-}
case $arch in
    mips)
        triple=mips-linux-gnu
        elf_data=02    # big-endian
        elf_machine=8  # EM_MIPS
        ;;
    armhf)
        triple=arm-linux-gnueabihf
        elf_data=01    # little-endian
        elf_machine=40 # EM_ARM
        ;;
    i686)
        triple=i686-linux-gnu
        elf_data=01    # little-endian
        elf_machine=3  # EM_386
        ;;
    *)
        echo "usage: $0 mips|armhf|i686" >&2
        exit 2
        ;;
esac

. scripts/ensure-packages.sh
ensure_packages "${BUILD_PACKAGES[@]}" googletest qemu-user "g++-$triple"

dir=build-$arch
jobs=$(nproc)
passed=0
failed=0

cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="cmake/toolchain-$arch.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRUVO_TESTS=ON -DRUVO_GTEST_FROM_SOURCE=ON >/dev/null
cmake --build "$dir" -j"$jobs" >/dev/null

# Byte n of a file, as two hexadecimal digits.
byte_at() { od -An -tx1 -j"$2" -N1 "$1" | tr -d ' \n'; }
# The 16-bit ELF machine number at offset 18, read in the file's own byte order.
elf_machine_of() {
    local lo hi
    if [ "$elf_data" = 02 ]; then hi=$(byte_at "$1" 18) lo=$(byte_at "$1" 19)
    else lo=$(byte_at "$1" 18) hi=$(byte_at "$1" 19); fi
    echo $((16#$hi$lo))
}

check() {
    if "$@"; then
        passed=$((passed + 1))
    else
        echo "FAILED: $*" >&2
        failed=$((failed + 1))
    fi
}

is_target_executable() {
    [ "$(byte_at "$1" 4)" = 01 ] && [ "$(byte_at "$1" 5)" = "$elf_data" ] &&
        [ "$(elf_machine_of "$1")" = "$elf_machine" ]
}

# glibc's 64-bit time functions are named apart on 32-bit targets; a daemon that imports
# them counts past 2038.
imports_64_bit_time() {
    local symbols
    symbols=$("$triple-nm" -D --undefined-only "$1")
    grep -qw '__mktime64' <<<"$symbols" && grep -qw '__localtime64_r' <<<"$symbols"
}

# Runs one CTest label (one test per core) and adds its counts to the totals.
run_tests() {
    local label=$1 log status=0 total fails
    log=$(mktemp)
    ctest --test-dir "$dir" -L "$label" -j"$jobs" --output-on-failure 2>&1 | tee "$log" || status=$?
    total=$(sed -n 's/.*tests failed out of \([0-9]*\).*/\1/p' "$log" | tail -n 1)
    fails=$(sed -n 's/.* \([0-9]*\) tests failed out of.*/\1/p' "$log" | tail -n 1)
    rm -f "$log"
    if [ -z "$total" ]; then
        echo "no $label tests ran in $dir" >&2
        failed=$((failed + 1))
        return
    fi
    passed=$((passed + total - ${fails:-0}))
    failed=$((failed + ${fails:-0}))
    [ "$status" -eq 0 ] || echo "the $label tests of $dir failed" >&2
}

for program in ruvo ruvo-sim ruvo-report tests/ruvo_unit_tests; do
    path=$dir/$program
    [ -f "$path" ] || path=$(find "$dir" -name "$(basename "$program")" -type f -perm -u+x | head -n 1)
    check is_target_executable "$path"
done
check imports_64_bit_time "$dir/ruvo"

run_tests unit
# Anchored: -L takes a regular expression, and "sim" alone would also pick the week
# with faults (label sim_faults), which the native build runs.
run_tests '^sim$'

echo "total: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
