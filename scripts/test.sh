#!/usr/bin/env bash
# Builds the project and runs every test. CI runs exactly this.
#
# The jobs run one after the other, each to its end even when one before it failed; the run ends with
# one summary line (each job's passed, failed and skipped tests and its seconds) and fails when any job
# failed. A job's counts come from its log: CTest's own summary lines and lines of the form
# "[NAME: ]P passed, F failed[, S skipped]"; a job that fails without a failed test counts as one
# failure. The logs stay in BUILD/ci-logs.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${OVRA_KB_BUILD_DIR:-$root/build}"
jobs="$(nproc)"
logs="$build/ci-logs"

bash "$root/scripts/setup.sh" || { echo "test: the packages could not be installed; no job can run" >&2; exit 1; }
mkdir -p "$logs"

# The sid job's chroot is made meanwhile: that waits on the network, not on the cores. Its own process
# group, so that an interrupted run stops it whole.
setsid bash "$root/scripts/ci_sid.sh" prepare >"$logs/sid-prepare.log" 2>&1 &
sid_prepare=$!
trap 'kill -TERM -- "-$sid_prepare" 2>/dev/null' EXIT

main_suite() {
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOVRA_KB_BUILD_TESTS=ON \
    -DOVRA_KB_BUILD_BENCH=ON &&
    cmake --build "$build" -j "$jobs" &&
    ctest --test-dir "$build" -j "$jobs" --output-on-failure --timeout 300
}

# "PASSED FAILED SKIPPED" of a job's log, given the job's exit status.
count_tests() {
  awk -v status="$2" '
    /^[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+$/ { ctest_failed += $4; ctest_total += $NF }
    /^[ \t]*[0-9]+ - .* \(Skipped\)$/ { ctest_skipped++ }
    /^([A-Za-z0-9_.+ -]+: )?[0-9]+ passed, [0-9]+ failed(, [0-9]+ skipped)?$/ {
      sub(/^[^:]*: /, ""); gsub(/,/, ""); passed += $1; failed += $3; skipped += $5
    }
    END {
      passed += ctest_total - ctest_failed - ctest_skipped; failed += ctest_failed; skipped += ctest_skipped
      if (status != 0 && failed == 0) failed = 1
      print passed, failed, skipped
    }' "$1"
}

summary=""
failed_jobs=()
# run_job NAME COMMAND...: runs the command with its output shown and kept in the job's log.
run_job() {
  local name="$1" log="$logs/$1.log" started=$SECONDS status passed failed skipped
  shift
  echo "==== job $name: $*"
  "$@" 2>&1 | tee "$log"
  status=${PIPESTATUS[0]}
  read -r passed failed skipped < <(count_tests "$log" "$status")
  summary+="${summary:+; }$name: $passed passed, $failed failed, $skipped skipped, $((SECONDS - started)) s"
  if [ "$status" -ne 0 ]; then
    summary+=" (exit $status)"
    failed_jobs+=("$name")
  fi
  echo "==== job $name: exit $status"
}

started=$SECONDS
run_job main main_suite
run_job postgres bash "$root/scripts/ci_postgres.sh"
run_job install bash "$root/scripts/ci_install.sh" "$build"
# The reliability jobs (README, "Reliability jobs"): sanitizer builds, fuzzing, valgrind, the newest toolchain.
run_job sanitizers bash "$root/scripts/ci_sanitizers.sh"
run_job fuzz bash "$root/scripts/ci_fuzz.sh"
run_job valgrind bash "$root/scripts/ci_valgrind.sh" "$build"
run_job sid bash "$root/scripts/ci_sid.sh" --prepared-by "$sid_prepare" "$logs/sid-prepare.log"

if [ ${#failed_jobs[@]} -eq 0 ]; then
  verdict="every job passed"
else
  verdict="FAILED: ${failed_jobs[*]}"
fi
echo "summary: $summary; $((SECONDS - started)) s in all, $verdict"
[ ${#failed_jobs[@]} -eq 0 ]
