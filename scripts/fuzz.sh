#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, build/fuzz) and runs them.
#
#   scripts/fuzz.sh [--smoke] [--summary FILE] [TARGET...]
#
# TARGET is probe, open, entry, writer, service_open or service_ops
# (default: all six, one after the other).
#
# Full mode (make fuzz): each target runs for FUZZ_SECONDS (default 300)
# from the committed seeds in fuzz/corpus/<target>/ plus a growing working
# corpus in build/fuzz/corpus/<target>/, with -rss_limit_mb=512,
# -malloc_limit_mb=256 and -timeout=5. Crash inputs land in
# build/fuzz/artifacts/; minimise one with
#   build/fuzz/bin/gxfuzz_<target> -minimize_crash=1 -runs=10000 <crash>
# and commit it to fuzz/corpus/<target>/ once the defect is fixed.
#
# Smoke mode (make test): replays every committed seed, then runs a fixed
# number of mutations (FUZZ_RUNS, default 3000, fixed seed) in a scratch
# corpus, capped at FUZZ_SMOKE_SECONDS (default 45) per target. The
# committed corpus is never modified.
#
# Each target prints one line "fuzz TARGET: ..."; with --summary the leg's
# line "leg fuzz: ..." is appended to FILE. Exits non-zero when a target
# finds a crash, a leak, a timeout or an out-of-memory.
set -uo pipefail

# The whole script is one function, read before it runs, so that editing the
# file during a long run does not disturb that run.
main() {

root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-$root/build/fuzz}
seconds=${FUZZ_SECONDS:-300}
runs=${FUZZ_RUNS:-3000}
smoke_seconds=${FUZZ_SMOKE_SECONDS:-45}
jobs=${JOBS:-2}

smoke=0 summary_file= targets=()
while [[ $# -gt 0 ]]; do
  case $1 in
    --smoke) smoke=1 ;;
    --summary) summary_file=$2; shift ;;
    probe|open|entry|writer|service_open|service_ops) targets+=("$1") ;;
    *) echo "usage: $0 [--smoke] [--summary FILE] [probe|open|entry|writer|service_open|service_ops...]" >&2; exit 2 ;;
  esac
  shift
done
[[ ${#targets[@]} -eq 0 ]] && targets=(probe open entry writer service_open service_ops)

leg_report() {  # leg_report LINE
  echo "$1"
  [[ -n $summary_file ]] && echo "$1" >>"$summary_file"
  return 0
}

if ! command -v clang++ >/dev/null; then
  leg_report "leg fuzz: FAILED (clang++ not found)"
  exit 1
fi
if ! { cmake -S "$root" -B "$build" -DCMAKE_CXX_COMPILER=clang++ \
         -DCMAKE_BUILD_TYPE=RelWithDebInfo -DGXSTORAGE_BUILD_FUZZ=ON \
         -DGXSTORAGE_SANITIZERS=address,undefined -DGXSTORAGE_BUILD_TESTS=OFF \
         -DGXSTORAGE_BUILD_TOOLS=OFF >"$build.configure.log" 2>&1 &&
       cmake --build "$build" -j "$jobs" \
         $(printf -- '--target gxfuzz_%s ' "${targets[@]}") >"$build.build.log" 2>&1; }; then
  tail -n 30 "$build.configure.log" "$build.build.log" 2>/dev/null
  leg_report "leg fuzz: FAILED (fuzz build failed, see $build.build.log)"
  exit 1
fi

mkdir -p "$build/logs" "$build/artifacts"
# The targets keep their scratch files in a directory of their own. A
# smaller quarantine keeps AddressSanitizer's own memory well below the
# RSS limit, which is meant for the library.
export TMPDIR=${TMPDIR:-/tmp}
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=64}
status=0 passed=0
for t in "${targets[@]}"; do
  bin=$build/bin/gxfuzz_$t
  seeds=$root/fuzz/corpus/$t
  log=$build/logs/$t.log
  mkdir -p "$seeds"
  # Writer inputs are call scripts; file inputs may be as large as the
  # largest seed (a file with a DIFAT sector is about 64 KiB).
  max_len=65536 len_control=100
  # Call scripts gain nothing from growing slowly.
  [[ $t == writer || $t == service_ops ]] && max_len=4096 len_control=0
  common=(-rss_limit_mb=512 -malloc_limit_mb=256 -timeout=5 -max_len=$max_len
          -len_control=$len_control
          -print_final_stats=1 -artifact_prefix="$build/artifacts/$t-")
  if [[ $smoke -eq 1 ]]; then
    work=$(mktemp -d)
    "$bin" "$work" "$seeds" "${common[@]}" -runs="$runs" -seed=1 \
      -max_total_time="$smoke_seconds" >"$log" 2>&1
    rc=$?
    rm -rf "$work"
  else
    work=$build/corpus/$t
    mkdir -p "$work"
    nice -n 19 "$bin" "$work" "$seeds" "${common[@]}" \
      -max_total_time="$seconds" >"$log" 2>&1
    rc=$?
  fi
  seeds_n=$(find "$seeds" -type f | wc -l)
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  cov=$(grep -Eo 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -n 1)
  if [[ $rc -eq 0 ]] && grep -q '^Done ' "$log"; then
    passed=$((passed + 1))
    echo "fuzz $t: ok, $seeds_n seeds replayed, ${execs:-?} runs, ${rate:-?} exec/s, ${cov:-cov ?}"
  else
    status=1
    echo "fuzz $t: FAILED (exit $rc), see $log"
    grep -E 'ERROR|gxfuzz:|SUMMARY|Test unit written' "$log" | head -n 8
  fi
done

if [[ $status -eq 0 ]]; then
  leg_report "leg fuzz: ${passed} targets passed (seed replay and $([[ $smoke -eq 1 ]] && echo "$runs-run smoke" || echo "${seconds}s run") each)"
else
  leg_report "leg fuzz: FAILED ($((${#targets[@]} - passed)) of ${#targets[@]} targets failed)"
fi
exit $status
}

main "$@"
