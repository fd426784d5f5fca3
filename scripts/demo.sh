#!/usr/bin/env bash
# Sets everything up, builds, and runs the demo.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${OVRA_KB_BUILD_DIR:-$root/build}"

bash "$root/scripts/setup.sh"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" -j "$(nproc)"

bank="$(mktemp -d /tmp/ovra-kb-demo.XXXXXX)"
packages="$root/tests/pypkgs"
PYTHONPATH="$packages/support:$packages/kb:$packages/log" "$build/examples/quickstart" "$bank"
rm -rf "$bank"
