#!/usr/bin/env bash
# Runs a Windows executable under Wine for the mingw build: the emulator that
# CTest and CMake use for cross-compiled programs.
#
#   wine-run.sh PROGRAM.exe [ARGS...]
#
# The Wine prefix lives in the build tree (<build>/wineprefix, found from the
# program's bin/ directory unless GXSTORAGE_WINEPREFIX or WINEPREFIX is set),
# so a build never touches the user's ~/.wine and `make clean` removes it.
# The first run creates the prefix (some seconds); a lock keeps two parallel
# tests from creating it at once.
set -euo pipefail

if [[ $# -lt 1 ]]; then
  echo "usage: $0 PROGRAM.exe [ARGS...]" >&2
  exit 2
fi

program=$1
shift

if [[ -n ${GXSTORAGE_WINEPREFIX:-} ]]; then
  prefix=$GXSTORAGE_WINEPREFIX
elif [[ -n ${WINEPREFIX:-} ]]; then
  prefix=$WINEPREFIX
else
  bindir=$(cd "$(dirname "$program")" && pwd)
  prefix=$(dirname "$bindir")/wineprefix
fi

export WINEPREFIX=$prefix
export WINEDEBUG=-all
# No Mono or Gecko installers: the tests are console programs.
export WINEDLLOVERRIDES="mscoree,mshtml="
# Wine must not try to open windows even if a display happens to be set.
unset DISPLAY WAYLAND_DISPLAY

# Debian's `wine` starts wine64 for 64-bit programs by itself.
wine=$(command -v wine || command -v wine64 || true)
if [[ -z $wine ]]; then
  echo "wine-run.sh: wine is not installed (scripts/install-deps.sh installs it)" >&2
  exit 127
fi

mkdir -p "$(dirname "$prefix")"
if [[ ! -f $prefix/system.reg ]]; then
  (
    flock 9
    if [[ ! -f $prefix/system.reg ]]; then
      "$wine" wineboot --init >/dev/null 2>&1 || true
      # Let the server settle so that the registry is written before use.
      wineserver -w 2>/dev/null || true
    fi
  ) 9>"$prefix.lock"
fi

exec "$wine" "$program" "$@"
