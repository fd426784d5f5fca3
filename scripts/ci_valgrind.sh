#!/usr/bin/env bash
# The valgrind job: Memcheck over the end-to-end tests of the exported functions (tests/test_api:
# start-up, write, search, delete, finalisation, refused configurations and failing Python calls),
# each case in a process of its own, as many at a time as there are cores, against the main build's
# default interpreter. Python allocates through malloc (PYTHONMALLOC=malloc), so Memcheck sees every
# object; scripts/sanitizers/valgrind.supp covers the Python runtime's own code only. An invalid
# access, a use of an uninitialised value or a definite leak fails the case, and so does the test.
#
#   usage: ci_valgrind.sh [BUILD_DIR]   (default: OVRA_KB_BUILD_DIR, else build; made by scripts/test.sh)
#   OVRA_KB_VALGRIND_FILTER  Google Test filter of the cases to run (default: all)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-${OVRA_KB_BUILD_DIR:-$root/build}}"
program="$build/tests/test_api"
filter="${OVRA_KB_VALGRIND_FILTER:-*}"
jobs="$(nproc)"
logs="$build/valgrind"

say() { echo "ci_valgrind: $*"; }

if [ ! -x "$program" ]; then
  say "$program is missing: build the project first (scripts/test.sh)" >&2
  exit 1
fi
rm -rf "$logs"
mkdir -p "$logs"
export PYTHONMALLOC=malloc
export program logs root

memcheck_one() {
  local name="$1" log="$logs/${1//\//_}" started=$SECONDS status=0
  valgrind --tool=memcheck --error-exitcode=97 --leak-check=full --errors-for-leak-kinds=definite \
    --show-leak-kinds=definite --suppressions="$root/scripts/sanitizers/valgrind.supp" --num-callers=40 \
    --child-silent-after-fork=yes --log-file="$log.memcheck" \
    "$program" --gtest_filter="$name" > "$log.out" 2>&1 || status=$?
  if [ "$status" -eq 0 ] && grep -q "^\[  PASSED  \] 1 test" "$log.out"; then
    echo "passed $name ($((SECONDS - started)) s)"
  else
    echo "FAILED $name (status $status)"
  fi
}
export -f memcheck_one

cases="$("$program" --gtest_list_tests --gtest_filter="$filter" | awk '/^[^ ]/ { suite = $1 } /^  / { print suite $1 }')"
say "$(wc -l <<< "$cases") cases of $program under memcheck"
started=$SECONDS
results="$(xargs -P "$jobs" -I{} bash -c 'memcheck_one "$1"' _ {} <<< "$cases")"
say "memcheck took $((SECONDS - started)) s"

failed="$(grep -c '^FAILED' <<< "$results" || true)"
passed="$(grep -c '^passed' <<< "$results" || true)"
sort -k2 <<< "$results"
while read -r _ name _; do
  log="$logs/${name//\//_}"
  say "---- $name: test output"
  tail -n 40 "$log.out"
  say "---- $name: memcheck"
  cat "$log.memcheck"
done < <(grep '^FAILED' <<< "$results" || true)
echo "valgrind: $passed passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
