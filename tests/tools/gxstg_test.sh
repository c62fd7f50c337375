#!/usr/bin/env bash
# End-to-end tests of gxstg through its command line: seeded random folder
# trees pack -> tree -> cat -> extract equal; every error path with its
# message and exit code; extract never leaving DIR on hostile names. (Files
# Wine's ole32 wrote are edited by gxstg_edit_test.py.)
#   gxstg_test.sh BIN_DIR SOURCE_DIR
set -uo pipefail
bin=${1:-${GXSTORAGE_BIN_DIR:-}}
src=${2:-${GXSTORAGE_SOURCE_DIR:-}}
G="$bin/gxstg"
work=$(mktemp -d)
trap 'chmod -R u+rwx "$work"; rm -rf "$work"' EXIT
failures=0
bad() { echo "FAIL: $*"; failures=$((failures + 1)); }

# expect CODE PATTERN CMD...: CMD exits with CODE and prints PATTERN (grep -E)
# on standard output or standard error.
expect() {
  local code=$1 pattern=$2
  shift 2
  "$@" >"$work/out" 2>"$work/err"
  local rc=$?
  if [ $rc -ne "$code" ] ||
    { [ -n "$pattern" ] && ! cat "$work/out" "$work/err" | grep -qE -- "$pattern"; }; then
    bad "'$*' gave $rc (wanted $code) with: $(head -c 300 "$work/err")"
  fi
}

# Rewrites UTF-16LE names inside a file: edit_names FILE OLD NEW [OLD NEW]...
# (same lengths, so the directory stays consistent).
edit_names() {
  python3 - "$@" <<'EOF'
import sys
path, pairs = sys.argv[1], sys.argv[2:]
data = open(path, 'rb').read()
for old, new in zip(pairs[::2], pairs[1::2]):
    o, n = old.encode('utf-16-le'), new.encode('utf-16-le')
    assert len(o) == len(n) and data.count(o) == 1, old
    data = data.replace(o, n)
open(path, 'wb').write(data)
EOF
}

# ---- Round trips on seeded random trees ------------------------------------
# make_tree DIR SEED: writes a random tree and prints its listing the way
# `gxstg tree` should (sorted).
make_tree() {
  python3 - "$1" "$2" <<'EOF'
import os, random, sys
root, rng = sys.argv[1], random.Random(int(sys.argv[2]))
alphabet = "abcdefghijKLMNOPQRST0123456789 -_.~éßΩ日本😀"
sizes = [0, 1, 63, 64, 4095, 4096, 4097, 5000, 70000]
lines = []
def units(s): return len(s.encode('utf-16-le')) // 2
def fill(folder, prefix, depth):
    taken = set()
    for _ in range(rng.randint(0 if depth else 3, 5)):
        name = ''
        while (not name or name.lower() in taken or set(name) == {'.'}
               or units(name) > 31):
            name = ''.join(rng.choice(alphabet) for _ in range(rng.randint(1, 31)))
        taken.add(name.lower())
        path, shown = os.path.join(folder, name), prefix + name
        if depth < 3 and rng.random() < 0.3:
            os.mkdir(path); lines.append(f"{shown}\tstorage\t0")
            fill(path, shown + '/', depth + 1)
        else:
            size = rng.choice(sizes) if rng.random() < 0.7 else rng.randint(0, 20000)
            with open(path, 'wb') as f: f.write(rng.randbytes(size))
            lines.append(f"{shown}\tstream\t{size}")
os.mkdir(root); fill(root, '', 0)
print('\n'.join(sorted(lines)))
EOF
}

for seed in 1 2 3 4 5; do
  t="$work/rt$seed"
  mkdir "$t"
  make_tree "$t/in" "$seed" >"$t/expected" || { bad "seed $seed: generator"; continue; }
  expect 0 '' "$G" pack "$t/in" "$t/f.cfb"
  [ -e "$t/f.\$t\$" ] && bad "seed $seed: pack left its temporary file"
  "$G" tree "$t/f.cfb" | LC_ALL=C sort >"$t/tree"
  LC_ALL=C sort "$t/expected" | diff -q - "$t/tree" >/dev/null || bad "seed $seed: tree differs"
  # cat on a few streams (each is a process); extract below compares them all.
  while IFS=$'\t' read -r path type size; do
    "$G" cat "$t/f.cfb" "$path" | cmp -s - "$t/in/$path" || bad "seed $seed: cat '$path'"
  done < <(grep -P '\tstream\t' "$t/expected" | head -n 3)
  expect 0 '' "$G" extract "$t/f.cfb" "$t/out"
  diff -r "$t/in" "$t/out" >/dev/null || bad "seed $seed: extract differs"
done

# The sample tree: %0005 in a host name is the unit 5 inside the file.
expect 0 '' "$G" pack "$src/examples/sample" "$work/s.cfb"
expect 0 '^\\005SummaryInformation	stream	41$' "$G" tree "$work/s.cfb"
expect 0 '^Author: the demo$' "$G" cat "$work/s.cfb" '\005SummaryInformation'
expect 0 '' "$G" extract "$work/s.cfb" "$work/s"
diff -r "$src/examples/sample" "$work/s" >/dev/null || bad "sample: extract differs"

# ---- Usage and error paths --------------------------------------------------
expect 1 'usage: gxstg COMMAND' "$G"
expect 1 "unknown command 'frob'" "$G" frob
expect 0 'usage: gxstg COMMAND' "$G" --help
for c in probe info tree cat extract pack; do
  expect 0 "usage: gxstg $c" "$G" "$c" --help
done
expect 1 'usage: gxstg cat FILE PATH' "$G" cat "$work/s.cfb"
expect 1 'usage: gxstg pack DIR FILE' "$G" pack "$work/s"
expect 2 'no such file' "$G" info "$work/missing.cfb"
expect 2 'is a directory' "$G" tree "$work"
printf 'plain text, but longer than one header of five hundred and twelve bytes%.0s' {1..10} >"$work/text"
head -c 100 "$work/s.cfb" >"$work/short"
cp "$work/s.cfb" "$work/v5" && printf '\x05' | dd of="$work/v5" bs=1 seek=26 conv=notrunc 2>/dev/null
cp "$work/s.cfb" "$work/fat" && printf '\x00\xff\xff\x0f' | dd of="$work/fat" bs=1 seek=76 conv=notrunc 2>/dev/null
cp "$work/s.cfb" "$work/dir" && printf '\x00\x00\x01\x00' | dd of="$work/dir" bs=1 seek=48 conv=notrunc 2>/dev/null
expect 3 'text: not a compound file \(bad signature\)' "$G" info "$work/text"
expect 3 'short: not a compound file: too short' "$G" probe "$work/short"
expect 3 'v5: not a compound file: unsupported major version' "$G" probe "$work/v5"
expect 3 'fat: corrupt' "$G" tree "$work/fat"
expect 3 'dir: corrupt' "$G" extract "$work/dir" "$work/x1"
expect 2 'missing.cfb: cannot be opened' "$G" probe "$work/s.cfb" "$work/missing.cfb" "$work/text"
expect 0 's.cfb: compound file, version 3' "$G" probe "$work/s.cfb"
expect 2 "no element 'docs/nope'" "$G" cat "$work/s.cfb" docs/nope
expect 1 'docs: is a storage' "$G" cat "$work/s.cfb" docs
expect 1 'not a valid element path' "$G" cat "$work/s.cfb" 'docs\q'
expect 1 'not empty' "$G" extract "$work/s.cfb" "$work/s"
expect 2 'no such folder' "$G" pack "$work/missing" "$work/p.cfb"
# Data of a large stream cut off at the end of the file.
mkdir "$work/big" && head -c 300000 /dev/urandom >"$work/big/data"
"$G" pack "$work/big" "$work/big.cfb"
head -c -2000 "$work/big.cfb" >"$work/cut.cfb"
expect 3 'corrupt|stream data ends' "$G" extract "$work/cut.cfb" "$work/x2"
# 31 units pass; 32 units (30 letters and a surrogate pair) are refused.
mkdir -p "$work/n31" "$work/n32"
: >"$work/n31/$(printf 'a%.0s' {1..31})"
: >"$work/n32/$(printf 'a%.0s' {1..30})😀"
expect 0 '' "$G" pack "$work/n31" "$work/n31.cfb"
expect 1 'is 32 UTF-16 units long; compound-file names hold at most 31' \
  "$G" pack "$work/n32" "$work/n32.cfb"
[ -s "$work/n32.cfb" ] && bad "a refused pack wrote its file"

# ---- Hostile names never leave DIR -----------------------------------------
h="$work/hostile"
mkdir -p "$h/in/PPPPPPPPPP" "$h/in/DD"
echo secret >"$h/in/PPPPPPPPPP/inside"
echo pw >"$h/in/DD/passwd"
for n in AAA CCCC EEEEEEE F J1 J2; do echo "$n" >"$h/in/$n"; done
"$G" pack "$h/in" "$h/f.cfb"
edit_names "$h/f.cfb" PPPPPPPPPP ../../../x DD .. AAA a/b CCCC $'\x01ctl' \
  EEEEEEE '..\..\e' F . J1 JJ J2 JJ
expect 0 '^\.\.\\057\.\.\\057\.\.\\057x/inside	stream' "$G" tree "$h/f.cfb"
"$G" tree "$h/f.cfb" >"$h/tree"
grep -qF $'\\001ctl\tstream' "$h/tree" && grep -qF $'a\\057b\tstream' "$h/tree" &&
  grep -qF $'..\\\\..\\\\e\tstream' "$h/tree" || bad "hostile: tree escapes"
mkdir "$h/sandbox"
expect 3 'warning: JJ: name collides' "$G" extract "$h/f.cfb" "$h/sandbox/out"
[ "$(ls -A "$h/sandbox")" = out ] || bad "hostile: something beside DIR"
[ -e "$work/x" ] || [ -e "$h/x" ] || [ -e "$h/e" ] && bad "hostile: wrote outside DIR"
for p in '..%002F..%002F..%002Fx/inside' '%002E./passwd' 'a%002Fb' '%0001ctl' \
  '..\..\e' '%002E' 'JJ'; do
  [ -f "$h/sandbox/out/$p" ] || bad "hostile: '$p' not extracted"
done

[ $failures -eq 0 ] && echo "gxstg_test: all passed" || echo "gxstg_test: $failures failures"
exit $((failures > 0))
