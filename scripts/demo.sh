#!/usr/bin/env bash
# The main job: builds ruvo, runs it for a few ticks on a fake router tree in a private
# mount namespace, and prints the files it wrote.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/ensure-packages.sh
ensure_packages "${BUILD_PACKAGES[@]}"
cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRUVO_TESTS=OFF >/dev/null
cmake --build build-demo -j"$(nproc)" --target ruvo >/dev/null
exec python3 scripts/demo.py build-demo/ruvo
