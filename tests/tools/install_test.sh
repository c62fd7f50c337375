#!/usr/bin/env bash
# Installs the build into a temporary prefix, then builds examples/hello.cpp
# against the installed package twice, with find_package(gxStorage) and with
# pkg-config, runs both, and runs the installed gxstg on their output.
#   install_test.sh BIN_DIR SOURCE_DIR
set -euo pipefail
bin=$(cd "${1:-$GXSTORAGE_BIN_DIR}" && pwd)
src=$(cd "${2:-$GXSTORAGE_SOURCE_DIR}" && pwd)
build=$(dirname "$bin")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

# A sanitized build installs a sanitized library; its consumers need the same
# runtime.
san=$(sed -n 's/^GXSTORAGE_SANITIZERS:[A-Z]*=\(.\+\)$/-fsanitize=\1/p' "$build/CMakeCache.txt")

cmake --install "$build" --prefix "$prefix" >/dev/null
for f in include/gxStorage.h bin/gxstg; do
  [ -e "$prefix/$f" ] || { echo "FAIL: $f not installed"; exit 1; }
done
config=$(find "$prefix" -name gxStorageConfig.cmake)
pc=$(find "$prefix" -name gxStorage.pc)
lib=$(dirname "$(find "$prefix" -name 'libgxStorage.so*' | head -n1)")
[ -n "$config" ] && [ -n "$pc" ] && [ -n "$lib" ] || { echo "FAIL: package files missing"; exit 1; }
if grep -rqF "$src" "$(dirname "$config")" "$pc"; then
  echo "FAIL: the installed package refers to the source tree"
  exit 1
fi

# find_package consumer.
cmake -S "$src/examples" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="$san" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
mkdir "$work/run1" && (cd "$work/run1" && "$work/cmake-build/hello") |
  grep -qx 'read 21 bytes: Hello, compound file!' || { echo "FAIL: find_package consumer"; exit 1; }

# pkg-config consumer.
flags=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs gxStorage)
# shellcheck disable=SC2086
c++ -std=c++17 $san "$src/examples/hello.cpp" $flags -o "$work/hello-pc"
mkdir "$work/run2" && (cd "$work/run2" && LD_LIBRARY_PATH="$lib" "$work/hello-pc") |
  grep -qx 'read 21 bytes: Hello, compound file!' || { echo "FAIL: pkg-config consumer"; exit 1; }

"$prefix/bin/gxstg" tree "$work/run2/hello.cfb" | grep -qx $'Docs/Greeting\tstream\t21' ||
  { echo "FAIL: installed gxstg"; exit 1; }
echo "install_test: all passed"
