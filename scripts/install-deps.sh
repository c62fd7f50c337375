#!/usr/bin/env bash
# Installs the Debian packages that building and testing gxStorage needs, and
# only those that are missing: a no-op when everything is present.
#
#   scripts/install-deps.sh [EXTRA-PACKAGE...]
#
# Uses apt-get directly as root, through sudo otherwise.
set -euo pipefail

packages=(
  cmake g++ make          # native build
  libgtest-dev googletest # GoogleTest: native libraries, sources for mingw
  mingw-w64               # cross build for Windows
  wine wine64             # runs the Windows tests
  python3-olefile         # independent reader used by tests
  libgsf-bin              # gsf, a second independent reader
  python3-dev python3-pybind11 python3-venv python3-pytest  # Python package
  clang libclang-rt-dev   # libFuzzer and sanitizer runtimes for the fuzz leg
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  if [[ $status != "install ok installed" ]]; then
    missing+=("$p")
  fi
done

if [[ ${#missing[@]} -eq 0 ]]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

if [[ $(id -u) -eq 0 ]]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  echo "install-deps: missing ${missing[*]}, and not root and no sudo" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q "${missing[@]}"
