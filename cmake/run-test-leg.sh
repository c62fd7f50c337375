#!/usr/bin/env bash
# Runs the CTest suite of one build tree as one leg of `make test` and prints
# a one-line summary for it.
#
#   run-test-leg.sh LEG-NAME BUILD-DIR COUNT-MODE [SUMMARY-FILE] [-- CTEST-ARGS...]
#
# COUNT-MODE says what a "test" is in the summary:
#   ctest   one CTest test (native: one per GoogleTest case and script);
#   gtest   the GoogleTest cases inside the CTest tests (cross build: one CTest
#           test per executable, run under Wine), read from CTest's log
#           (Testing/Temporary/LastTest.log, which keeps every test's output).
# The leg fails when ctest fails, when no test ran, or when a count cannot be
# found. The summary line "leg NAME: N tests passed" (or "... FAILED ...") is
# printed and, when SUMMARY-FILE is given, appended to it.
set -uo pipefail

if [[ $# -lt 3 ]]; then
  echo "usage: $0 LEG-NAME BUILD-DIR ctest|gtest [SUMMARY-FILE] [-- CTEST-ARGS...]" >&2
  exit 2
fi
leg=$1 build=$2 mode=$3
shift 3
summary_file=
if [[ $# -gt 0 && $1 != -- ]]; then
  summary_file=$1
  shift
fi
[[ ${1:-} == -- ]] && shift

report() {  # report LINE
  echo "$1"
  if [[ -n $summary_file ]]; then
    echo "$1" >>"$summary_file"
  fi
}

if [[ ! -f $build/CTestTestfile.cmake ]]; then
  report "leg $leg: FAILED (no test tree in $build; configure with tests ON)"
  exit 1
fi

# Count first: `ctest -N` rewrites the log that the real run leaves behind.
ctest_total=$(ctest --test-dir "$build" -N 2>/dev/null | sed -n 's/^Total Tests: *\([0-9]*\).*/\1/p')
ctest_total=${ctest_total:-0}

log=$build/Testing/Temporary/LastTest.log
rm -f "$log"
ctest --test-dir "$build" --output-on-failure --no-tests=error "$@"
status=$?

passed=0 failed=0 unfinished=0
if [[ -f $log ]]; then
  case $mode in
    ctest)
      passed=$(grep -c '^Test Passed\.' "$log" || true)
      failed=$(grep -Ec '^Test (Failed|Fail)' "$log" || true)
      ;;
    gtest)
      # One "[       OK ]" line per passed case and one "[  FAILED  ] name
      # (N ms)" line per failed case; counted this way a program that
      # crashes midway still reports the cases it finished.
      passed=$(grep -c '^\[       OK \] ' "$log" || true)
      failed=$(grep -Ec '^\[  FAILED  \] .* \([0-9]+ ms\)$' "$log" || true)
      started=$(grep -c '^\[ RUN      \] ' "$log" || true)
      unfinished=$((started - passed - failed))
      ;;
    *)
      echo "run-test-leg.sh: unknown count mode '$mode'" >&2
      exit 2
      ;;
  esac
fi

if [[ $status -ne 0 ]]; then
  if [[ $mode == ctest ]]; then
    failed=$((ctest_total - passed))
  fi
  note=
  if [[ $unfinished -gt 0 ]]; then
    note=", $unfinished crashed"
  fi
  report "leg $leg: FAILED ($passed passed, $failed failed$note)"
  exit 1
fi
if [[ $passed -eq 0 ]]; then
  report "leg $leg: FAILED (no test ran)"
  exit 1
fi
if [[ $mode == gtest ]]; then
  report "leg $leg: $passed tests passed ($ctest_total test programs)"
else
  report "leg $leg: $passed tests passed"
fi
