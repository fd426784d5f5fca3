#!/usr/bin/env bash
# The fuzzing job: builds the libFuzzer targets of tests/fuzz (clang, with AddressSanitizer and
# UndefinedBehaviorSanitizer), replays their seed corpora (tests/fuzz/corpus/<target>), then runs each
# target for OVRA_KB_FUZZ_SECONDS seconds, as many at a time as there are cores. A crash, a sanitizer
# report, a leak or a broken property fails the job; the input that caused it is kept as
# <build>/fuzz-run/<target>/crash-* (or leak-*, timeout-*, oom-*) and its log is printed.
#
#   OVRA_KB_FUZZ_BUILD_DIR  build directory (default: build-fuzz)
#   OVRA_KB_FUZZ_SECONDS    fuzzing time of each target (default: 60)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${OVRA_KB_FUZZ_BUILD_DIR:-$root/build-fuzz}"
seconds="${OVRA_KB_FUZZ_SECONDS:-60}"
jobs="$(nproc)"
targets=(fuzz_error_text)

say() { echo "ci_fuzz: $*"; }

symbolizer="$(command -v llvm-symbolizer || true)"
symbolize="${symbolizer:+:external_symbolizer_path=$symbolizer}"
export ASAN_OPTIONS="halt_on_error=1:abort_on_error=1:detect_leaks=1$symbolize"
export UBSAN_OPTIONS="halt_on_error=1:abort_on_error=1:print_stacktrace=1$symbolize"

started=$SECONDS
# The tests directory is configured with one interpreter only: the fuzz targets need none.
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_C_COMPILER=clang -DOVRA_KB_BUILD_TESTS=ON -DOVRA_KB_BUILD_FUZZ=ON -DOVRA_KB_TEST_PYTHONS="default=$(command -v python3)"
cmake --build "$build" --target fuzz_targets -j "$jobs"
say "build took $((SECONDS - started)) s"

ctest --test-dir "$build" -L fuzz --output-on-failure

# New inputs go to a scratch corpus; the seed corpus in the source tree is only read.
fuzz_one() {
  local target="$1" work="$build/fuzz-run/$1"
  rm -rf "$work"
  mkdir -p "$work/corpus"
  if "$build/tests/fuzz/$target" "$work/corpus" "$root/tests/fuzz/corpus/$target" \
    -dict="$root/tests/fuzz/error_text.dict" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="$work/" -print_final_stats=1 > "$work/log" 2>&1; then
    echo "$target passed"
  else
    echo "$target FAILED"
  fi
}
export -f fuzz_one
export build root seconds

started=$SECONDS
results="$(printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'fuzz_one "$1"' _ {})"
say "fuzzing took $((SECONDS - started)) s"

passed=0
failed=0
for target in "${targets[@]}"; do
  log="$build/fuzz-run/$target/log"
  if grep -qx "$target passed" <<< "$results"; then
    passed=$((passed + 1))
    say "$target: $(grep -E '^Done [0-9]+ runs' "$log" || echo done), corpus $(ls "$build/fuzz-run/$target/corpus" | wc -l) new inputs"
  else
    failed=$((failed + 1))
    say "$target FAILED; its log:"
    tail -n 80 "$log"
    ls "$build/fuzz-run/$target" | grep -E '^(crash|leak|timeout|oom|slow-unit)-' | sed "s|^|ci_fuzz: kept $build/fuzz-run/$target/|" || true
  fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
