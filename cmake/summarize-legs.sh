#!/usr/bin/env bash
# Prints the summary of `make test` from the legs' summary lines and a closing
# total in the plain form "total: N passed, N failed".
#
#   summarize-legs.sh SUMMARY-FILE [STATUS]
#
# STATUS is the overall exit status of the legs (0: all passed).
#
# A leg line reads "leg NAME: N <things> passed ..." or
# "leg NAME: FAILED (N passed, N failed ...)"; a failed leg that gives no
# counts (its build failed) adds one failure to the total.
set -uo pipefail
file=$1
status=${2:-0}
passed=0 failed=0
echo "=== summary"
while IFS= read -r line; do
  echo "$line"
  if [[ $line =~ FAILED\ \(([0-9]+)\ passed,\ ([0-9]+)\ failed(,\ ([0-9]+)\ crashed)? ]]; then
    passed=$((passed + BASH_REMATCH[1]))
    failed=$((failed + BASH_REMATCH[2] + ${BASH_REMATCH[4]:-0}))
    [[ ${BASH_REMATCH[2]} -eq 0 && -z ${BASH_REMATCH[4]} ]] && failed=$((failed + 1))
  elif [[ $line == *FAILED* ]]; then
    failed=$((failed + 1))
  elif [[ $line =~ :\ ([0-9]+)\ [a-z]+\ passed ]]; then
    passed=$((passed + BASH_REMATCH[1]))
  fi
done <"$file"
if [[ $status -ne 0 ]]; then
  echo "make test: FAILED"
  [[ $failed -eq 0 ]] && failed=1
else
  echo "make test: all legs passed"
fi
echo "total: $passed passed, $failed failed"
