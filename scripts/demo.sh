#!/usr/bin/env bash
# The demo of gxStorage. Placeholder: the real demo arrives with the library
# features it shows; for now it only checks that the release build exists.
#
#   scripts/demo.sh [BUILD-DIR]   (default: build/release)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
echo "gxStorage demo: the demo arrives later."
ls "$build"/lib/libgxStorage.so* "$build"/bin 2>/dev/null || true
