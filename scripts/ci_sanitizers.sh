#!/usr/bin/env bash
# The sanitizer jobs: the library, the tools and every test program built with clang twice, under
# AddressSanitizer+UndefinedBehaviorSanitizer and under ThreadSanitizer, and the whole test suite run
# in each build, against one interpreter. A sanitizer report stops the process that made it, which
# fails its test; the script exits non-zero when any test of either build failed.
#
#   OVRA_KB_ASAN_BUILD_DIR   build directory of the ASan+UBSan build (default: build-asan)
#   OVRA_KB_TSAN_BUILD_DIR   build directory of the TSan build (default: build-tsan)
#   OVRA_KB_SANITIZER_PYTHON the interpreter (default: pyenv's 3.11, else the python3 on PATH)
#
# Python itself is not instrumented; the library loads it with dlopen as usual. The options and
# suppression files (scripts/sanitizers) go through the environment, which every test and every
# process it starts inherits; they are also built into the programs of these builds
# (scripts/sanitizers/sanitizer_build.cmake) for the processes that a test starts with an environment
# of its own. The host tests, where Python is the process, run through a sanitized interpreter
# (scripts/sanitizers/run_host_tests.py).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
asan_build="${OVRA_KB_ASAN_BUILD_DIR:-$root/build-asan}"
tsan_build="${OVRA_KB_TSAN_BUILD_DIR:-$root/build-tsan}"
jobs="$(nproc)"
sanitizers="$root/scripts/sanitizers"
# Tests whose interpreter loads the instrumented library into its own process.
host_tests='\.HostInterpreter$|^example\.ctypes$'

say() { echo "ci_sanitizers: $*"; }

python="${OVRA_KB_SANITIZER_PYTHON:-}"
if [ -z "$python" ]; then
  for candidate in "${PYENV_ROOT:-$HOME/.pyenv}"/versions/3.11*/bin/python3; do
    if [ -x "$candidate" ]; then
      python="$candidate"
    fi
  done
fi
python="${python:-$(command -v python3)}"
label="py$("$python" -c 'import sys; print("%d.%d" % sys.version_info[:2])')"
say "interpreter $label = $python"

symbolizer="$(command -v llvm-symbolizer || true)"
symbolize="${symbolizer:+:external_symbolizer_path=$symbolizer}"
export ASAN_OPTIONS="halt_on_error=1:abort_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1$symbolize"
export LSAN_OPTIONS="suppressions=$sanitizers/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="halt_on_error=1:abort_on_error=1:print_stacktrace=1:suppressions=$sanitizers/ubsan.supp$symbolize"
export TSAN_OPTIONS="halt_on_error=1:abort_on_error=1:second_deadlock_stack=1:suppressions=$sanitizers/tsan.supp$symbolize"
# Every Python object is then a malloc block, which AddressSanitizer watches (a reference released
# once too often becomes a use after free) and LeakSanitizer scans.
export PYTHONMALLOC=malloc

configure() {
  local dir="$1" sanitizer="$2"
  cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_C_COMPILER=clang -DOVRA_KB_BUILD_TESTS=ON -DOVRA_KB_SANITIZE="$sanitizer" \
    -DOVRA_KB_TEST_PYTHONS="$label=$python" -DOVRA_KB_DEFAULT_TEST_PYTHON="$python" \
    -DCMAKE_PROJECT_INCLUDE="$sanitizers/sanitizer_build.cmake" \
    "-DOVRA_KB_SANITIZER_OPTIONS=ASAN_OPTIONS=$ASAN_OPTIONS;LSAN_OPTIONS=$LSAN_OPTIONS;UBSAN_OPTIONS=$UBSAN_OPTIONS;TSAN_OPTIONS=$TSAN_OPTIONS"
}

# Runs one build's tests: the suite with CTest, then the host tests.
run_tests() {
  local name="$1" dir="$2" parallel="$3" status=0
  ctest --test-dir "$dir" -j "$parallel" --output-on-failure --timeout 300 -E "$host_tests" || status=1
  python3 "$sanitizers/run_host_tests.py" "$dir" "$dir/ovra_kb_sanitized_python" "$host_tests" || status=1
  say "$name tests: $([ "$status" -eq 0 ] && echo passed || echo FAILED)"
  return "$status"
}

started=$SECONDS
for build in "address:$asan_build" "thread:$tsan_build"; do
  configure "${build#*:}" "${build%%:*}"
  cmake --build "${build#*:}" -j "$jobs"
done
say "both builds took $((SECONDS - started)) s"

# The two suites run side by side, one test at a time each: most tests wait on Python start-up and
# child processes, so this keeps both cores busier than one suite after the other.
started=$SECONDS
run_tests ASan+UBSan "$asan_build" 1 > "$asan_build/ci_sanitizers.log" 2>&1 &
asan_job=$!
run_tests TSan "$tsan_build" 1 > "$tsan_build/ci_sanitizers.log" 2>&1 &
tsan_job=$!
status=0
wait "$asan_job" || status=1
wait "$tsan_job" || status=1
for log in "$asan_build/ci_sanitizers.log" "$tsan_build/ci_sanitizers.log"; do
  say "---- $log"
  cat "$log"
done
say "tests took $((SECONDS - started)) s"
exit "$status"
