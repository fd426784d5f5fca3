#!/usr/bin/env bash
# Builds the project and runs every test. CI runs exactly this.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${OVRA_KB_BUILD_DIR:-$root/build}"
jobs="$(nproc)"

bash "$root/scripts/setup.sh"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOVRA_KB_BUILD_TESTS=ON -DOVRA_KB_BUILD_BENCH=ON
cmake --build "$build" -j "$jobs"
ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 300
bash "$root/scripts/ci_postgres.sh"
bash "$root/scripts/ci_install.sh" "$build"
# The reliability jobs (README, "Reliability jobs"): sanitizer builds, fuzzing, valgrind.
bash "$root/scripts/ci_sanitizers.sh"
bash "$root/scripts/ci_fuzz.sh"
bash "$root/scripts/ci_valgrind.sh" "$build"
