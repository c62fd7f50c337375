#!/usr/bin/env bash
# The python leg of `make test`: installs the gxstorage package into
# build/python-venv (scripts/python-env.sh) and runs its pytest suite in
# tests/python, then prints "leg python: N tests passed" (or FAILED with the
# counts) and appends that line to SUMMARY-FILE when given.
#
#   scripts/python-test.sh [SUMMARY-FILE] [PYTEST-ARGS...]
set -uo pipefail
cd "$(dirname "$0")/.."
summary=${1:-}
shift || true

report() {
  echo "$1"
  [[ -n $summary ]] && echo "$1" >>"$summary"
}

if ! python=$(bash scripts/python-env.sh); then
  report "leg python: FAILED (pip install ./python failed)"
  exit 1
fi
results=build/python-tests.xml
nice "$python" -m pytest -q -p no:cacheprovider --junitxml="$results" \
  tests/python "$@"
status=$?
read -r total failed < <("$python" - "$results" <<'PY' 2>/dev/null || echo "0 0"
import sys, xml.etree.ElementTree as ET
suite = ET.parse(sys.argv[1]).getroot()
suite = suite if suite.tag == "testsuite" else suite.find("testsuite")
count = lambda k: int(suite.get(k, 0))
print(count("tests") - count("skipped"), count("failures") + count("errors"))
PY
)
if [[ $status -eq 0 && $total -gt 0 ]]; then
  report "leg python: $total tests passed"
else
  report "leg python: FAILED ($((total - failed)) passed, $failed failed)"
  exit 1
fi
