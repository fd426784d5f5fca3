#!/usr/bin/env bash
# Sets everything up, builds the ovra-kb command, and runs its demo on a temporary bank.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${OVRA_KB_BUILD_DIR:-$root/build}"

bash "$root/scripts/setup.sh" demo
# An existing build folder keeps its generator and settings; a new one gets Ninja and no tests.
if [ -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build"
else
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOVRA_KB_BUILD_TESTS=OFF
fi
cmake --build "$build" --target ovra-kb -j "$(nproc)"

# Run from the build tree, ovra-kb finds the knowledge-base package in the source tree's python/.
"$build/tools/ovra-kb" demo
