#!/usr/bin/env bash
# Plants the one-line faults of scripts/mutants.txt one at a time, rebuilds, runs the tests and says for each
# whether the tests caught it (killed) or not (survived). A developer tool, not part of CI: each fault costs a
# rebuild and a test run.
#
#   bash scripts/mutants.sh [--list] [--check] [--all-pythons] [NAME_PATTERN]
#
#   --list          print the faults and stop
#   --check         only verify that every fault's text is found exactly once in its file
#   --all-pythons   run the end-to-end tests on every interpreter of the matrix (default: one, py3.11)
#   NAME_PATTERN    an extended regular expression: only the faults whose name matches
#
# Environment: OVRA_KB_MUTANTS_BUILD_DIR (default build-mutants), OVRA_KB_MUTANTS_REPORT (default
# build-mutants/mutants-report.txt). The source files are restored after each fault, also on Ctrl-C.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${OVRA_KB_MUTANTS_BUILD_DIR:-$root/build-mutants}"
report="${OVRA_KB_MUTANTS_REPORT:-$build/mutants-report.txt}"
faults="$root/scripts/mutants.txt"
mode=run
pythons=one
pattern=.
for arg in "$@"; do
  case "$arg" in
    --list) mode=list ;;
    --check) mode=check ;;
    --all-pythons) pythons=all ;;
    -h | --help) sed -n '2,14p' "$0"; exit 0 ;;
    -*) echo "mutants: unknown option $arg" >&2; exit 2 ;;
    *) pattern="$arg" ;;
  esac
done

# The fault file, as "name<TAB>file<TAB>description" lines, one per fault (blocks are parsed by Python).
plant() { python3 "$root/scripts/mutants_plant.py" "$faults" "$@"; }

if [ "$mode" = list ]; then
  plant list "$pattern" | awk -F'\t' '{ printf "%-36s %-52s %s\n", $1, $2, $3 }'
  exit 0
fi
if [ "$mode" = check ]; then
  plant check "$pattern"
  exit $?
fi
plant check "$pattern"

if [ "$pythons" = one ]; then
  # The unit, command, package and platform tests, and the end-to-end matrix on one interpreter.
  select=(-E '^(py3\.(6|7|8|9|10|12|13)|system)\.')
else
  select=()
fi
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOVRA_KB_BUILD_TESTS=ON >/dev/null
cmake --build "$build" -j "$(nproc)" >/dev/null

# The tests must pass before any fault is planted, or every fault would look caught.
if ! ctest --test-dir "$build" -j "$(nproc)" --timeout 180 "${select[@]}" >"$build/mutant-tests.log" 2>&1; then
  echo "mutants: the tests fail without any fault; see $build/mutant-tests.log" >&2
  exit 1
fi

restore_all() { plant restore "$pattern" >/dev/null 2>&1 || true; }
trap restore_all EXIT
trap 'restore_all; exit 130' INT TERM

: >"$report"
killed=0
survived=0
broken=0
while IFS=$'\t' read -r name file description; do
  plant apply "^${name}\$"
  if ! cmake --build "$build" -j "$(nproc)" >"$build/mutant-build.log" 2>&1; then
    outcome="does not build"
    broken=$((broken + 1))
  elif ctest --test-dir "$build" -j "$(nproc)" --timeout 180 --stop-on-failure "${select[@]}" \
    >"$build/mutant-tests.log" 2>&1; then
    outcome=SURVIVED
    survived=$((survived + 1))
  else
    caught="$(grep -m1 -oE '[0-9]+ - [^ ]+ \((Failed|Timeout|SEGFAULT|Subprocess aborted|Exception)' \
      "$build/mutant-tests.log" | sed 's/^[0-9]* - //' || true)"
    outcome="killed by ${caught:-a failing test}"
    killed=$((killed + 1))
  fi
  plant restore "^${name}\$"
  printf '%-36s %s  (%s: %s)\n' "$name" "$outcome" "$file" "$description" | tee -a "$report"
done < <(plant list "$pattern")
cmake --build "$build" -j "$(nproc)" >/dev/null

total=$((killed + survived))
echo "killed $killed of $total faults ($((total > 0 ? 100 * killed / total : 0)) %), survived $survived; $broken did not build" |
  tee -a "$report"
