#!/usr/bin/env bash
# The demo of gxStorage: a folder tree into a compound file and back again.
#
#   scripts/demo.sh [BUILD-DIR]   (default: build/release; `make demo` runs it)
#
# Copies examples/sample/ into a scratch folder, adds a generated 7.5 MB file
# (large enough that the file needs DIFAT sectors; never committed), packs
# the tree with gxstg, shows `info`, `tree` and `cat`, extracts it into a
# fresh folder, compares with diff -r and prints the verdict. Then it edits
# the file in place (put, mv, rm, mkdir, compact) and probes a file that is
# not a compound file.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
gxstg="$build/bin/gxstg"
[ -x "$gxstg" ] || { echo "demo: $gxstg not found; run 'make' first" >&2; exit 1; }

scratch="$build/demo"
rm -rf "$scratch"
mkdir -p "$scratch"
cp -R examples/sample "$scratch/sample"
mkdir -p "$scratch/sample/media"
head -c 7500000 > "$scratch/sample/media/large.bin" \
  < <(yes 'gxStorage demo: a stream of several megabytes, stored in regular sectors.')

show() { printf '\n$ %s\n' "$*"; "$@"; }

echo "== gxStorage demo: pack a folder tree, list it, read it, unpack it"
show "$gxstg" pack "$scratch/sample" "$scratch/sample.cfb"
show "$gxstg" info "$scratch/sample.cfb"
show "$gxstg" tree "$scratch/sample.cfb"
show "$gxstg" cat "$scratch/sample.cfb" 'docs/chapters/日本語.txt'
show "$gxstg" cat "$scratch/sample.cfb" '\005SummaryInformation'
show "$gxstg" extract "$scratch/sample.cfb" "$scratch/extracted"

printf '\n$ diff -r %s %s\n' "$scratch/sample" "$scratch/extracted"
if diff -r "$scratch/sample" "$scratch/extracted"; then
  verdict="SAME: the extracted tree equals the original"
  status=0
else
  verdict="DIFFERENT: the extracted tree differs from the original"
  status=1
fi

# Editing in place: each edit is one transaction on the file.
echo
echo "== edit the file in place (each edit one transaction)"
printf 'Edited in place by gxstg put.\n' > "$scratch/note.txt"
show "$gxstg" put "$scratch/sample.cfb" docs/edited.txt "$scratch/note.txt"
show "$gxstg" mv "$scratch/sample.cfb" readme.txt README
show "$gxstg" rm "$scratch/sample.cfb" media
show "$gxstg" mkdir "$scratch/sample.cfb" archive/2026
show "$gxstg" tree "$scratch/sample.cfb"
show "$gxstg" cat "$scratch/sample.cfb" docs/edited.txt
show "$gxstg" compact "$scratch/sample.cfb"
show "$gxstg" info "$scratch/sample.cfb"

# A file that is not a compound file: the probe says why (exit code 3).
show "$gxstg" probe "$scratch/sample.cfb" README.md || true

printf '\n== verdict: %s\n' "$verdict"
exit $status
