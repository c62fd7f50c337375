#!/usr/bin/env bash
# Builds and runs the benchmarks: workloads W1-W6 through the library, the
# plain-file limit and libgsf, printed as one table per backend of the
# library (the platform one only where the host has it); then W7, edits of a
# 1 GiB file in place against copying it.
#
#   scripts/bench.sh [gxStorageBench options...]
#     e.g. --repetitions 9, --only W3,W6, --impl ours,libgsf,
#     --backend portable, --inputs ours, --keep
#
# Installs Google Benchmark and libgsf (with pkg-config) through apt-get when
# they are missing, and only then. Builds in build/bench (Release).
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(libbenchmark-dev libgsf-1-dev pkg-config)
missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ $status == "install ok installed" ]] || missing+=("$p")
done
if [[ ${#missing[@]} -gt 0 ]]; then
  if [[ $(id -u) -eq 0 ]]; then sudo=(); else sudo=(sudo); fi
  echo "bench: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  "${sudo[@]}" apt-get update -q
  "${sudo[@]}" apt-get install -y -q "${missing[@]}"
fi

cmake --preset bench >/dev/null
cmake --build --preset bench -j "${JOBS:-2}" >/dev/null
python=$(bash scripts/python-env.sh) && "$python" python/bench/bench.py || echo "bench: the Python bench did not run" >&2
build/bench/bin/gxStorageBench "$@"
build/bench/bin/gxStorageBenchEdit
