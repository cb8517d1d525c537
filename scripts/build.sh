#!/usr/bin/env bash
# Configures and builds into ./build (or $VRX_BUILD_DIR).
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${VRX_BUILD_DIR:-build}
gen=()
command -v ninja >/dev/null 2>&1 && gen=(-G Ninja)
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S . -B "$dir" "${gen[@]}" -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
fi
cmake --build "$dir" -j "$(nproc)"
