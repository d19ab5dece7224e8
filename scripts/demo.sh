#!/usr/bin/env bash
# The main job: builds the simulator and the report, runs the daemon's real code on a
# simulated router for a few days (three WAN links, one of them dual-SIM, about 200 LAN
# clients, a month end, an allowance crossed, a restart), and prints the usage report of
# the files it wrote. Extra arguments go to ruvo-sim (see ruvo-sim --help).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/ensure-packages.sh
ensure_packages "${BUILD_PACKAGES[@]}"
cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRUVO_TESTS=OFF >/dev/null
cmake --build build-demo -j"$(nproc)" --target ruvo-sim ruvo-report >/dev/null
# A memory file system when there is one: the daemon replaces some 25 files per tick, which
# a disk file system would slow down many times over.
base=${TMPDIR:-/var/tmp}
if [ -d /dev/shm ] && [ -w /dev/shm ]; then
    base=/dev/shm
fi
root=$(mktemp -d "$base/ruvo-sim-XXXXXX")
exec build-demo/tools/sim/ruvo-sim --root "$root" "$@"
