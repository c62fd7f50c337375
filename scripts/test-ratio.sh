#!/usr/bin/env bash
# Prints how large the tests are against the code they test:
#   tests: N lines against M of code (P%); with the Python package: ...
# Lines are non-blank lines that are not only a comment, in C++ sources and
# headers, Python and shell scripts. Tests are everything under tests/; code
# is the library's and the tools' folders, and in the second figure also
# the Python package (python/), whose tests are under tests/ too. Fuzz
# targets (fuzz/) and benchmarks (bench/, python/bench/) count on neither
# side.
#   scripts/test-ratio.sh   (from any directory)
set -euo pipefail
cd "$(dirname "$0")/.."

count() {
  find "$@" -type f -not -path '*/bench/*' \( -name '*.h' -o -name '*.cpp' -o -name '*.cc' -o -name '*.c' -o -name '*.py' -o -name '*.sh' \) 2>/dev/null |
    xargs -r cat | grep -v '^[[:space:]]*$' | grep -vcE '^[[:space:]]*(//|#[^a-z!]|/\*|\*)'
}

code_dirs=()
for d in include public portable engine porting platform service tools; do
  [[ -d $d ]] && code_dirs+=("$d")
done
tests=$(count tests || true)
code=$(count "${code_dirs[@]}" || true)
if [[ ${code:-0} -eq 0 ]]; then
  echo "tests: ${tests:-0} lines against no code"
  exit 0
fi
line="tests: $tests lines against $code of code ($((tests * 100 / code))%)"
if [[ -d python ]]; then
  all=$((code + $(count python || true)))
  line+="; with the Python package: against $all ($((tests * 100 / all))%)"
fi
echo "$line"
