#!/usr/bin/python3
# End-to-end tests of gxstg through its command line: seeded random folder
# trees pack -> tree -> cat -> extract equal; every error path with its
# message and exit code; extract never leaving DIR on hostile names; seeded
# edits (put, mkdir, mv, rm) of files Wine's ole32 wrote (versions 3 and 4)
# applied to a model of the tree, the result read by olefile after every edit
# and by gsf at the end; refused edits leave the file byte for byte; compact
# keeps the tree.
#
#   gxstg_test.py BIN_DIR SOURCE_DIR
#   gxstg_test.py --list FILE
# The second form lists FILE as olefile reads it, for the C++ round-trip
# tests: one line per element, sorted, "<type> <path> <size> <adler32>", with
# type "storage" or "stream", the names from the root joined with '/', each
# written as the hex digits of its UTF-16 code units (4 per unit) so that any
# name survives the comparison, the bytes of a stream (0 for a storage) and
# their Adler-32 in 8 hex digits ('-' for a storage). It fails (exit status 1)
# when olefile cannot read the file.
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import zlib

import olefile


def units(name):
    data = name.encode("utf-16-le", "surrogatepass")
    return [data[i] | data[i + 1] << 8 for i in range(0, len(data), 2)]


def olefile_tree(path):
    # {names: bytes of a stream, or None for a storage} as olefile reads the
    # file. Each children tree must also be a search tree in the order
    # readers look names up in: shorter names first, then code unit by code
    # unit with A-Z folded to a-z; a tree out of that order is a failed read.
    # The children lists are walked rather than names looked up: olefile's
    # own lookup ignores case, and siblings may differ only in case.
    tree = {}
    with olefile.OleFileIO(path) as ole:
        def in_order(sid):
            if sid == olefile.NOSTREAM:
                return []
            e = ole.direntries[sid]
            return in_order(e.sid_left) + [e] + in_order(e.sid_right)

        def walk(node, names):
            keys = [(len(u), [c + 32 if 65 <= c <= 90 else c for c in u])
                    for u in (units(kid.name) for kid in in_order(node.sid_child))]
            if keys != sorted(keys):
                raise IOError("children of %r out of order" % (names,))
            for kid in node.kids:
                path = names + (kid.name,)
                if kid.entry_type == olefile.STGTY_STORAGE:
                    tree[path] = None
                    walk(kid, path)
                elif kid.entry_type == olefile.STGTY_STREAM:
                    tree[path] = ole._open(kid.isectStart, kid.size).read() if kid.size else b""
                    if len(tree[path]) != kid.size:
                        raise IOError("short stream %r" % (path,))

        walk(ole.root, ())
    return tree


def listing(path):
    return sorted("%s %s %d %s\n" % (
        "storage" if data is None else "stream",
        "/".join("".join("%04x" % u for u in units(n)) for n in names), len(data or b""),
        "-" if data is None else "%08x" % zlib.adler32(data))
        for names, data in olefile_tree(path).items())


def make_tree(root, seed):
    # A random folder tree under `root`; returns its listing the way
    # `gxstg tree` prints it.
    rng, lines = random.Random(seed), []
    alphabet = "abcdefghijKLMNOPQRST0123456789 -_.~éßΩ日本😀"
    sizes = [0, 1, 63, 64, 4095, 4096, 4097, 5000, 70000]
    def fill(folder, prefix, depth):
        taken = set()
        for _ in range(rng.randint(0 if depth else 3, 5)):
            name = ""
            while (not name or name.lower() in taken or set(name) == {"."}
                   or len(name.encode("utf-16-le")) > 62):  # 31 UTF-16 units at most
                name = "".join(rng.choice(alphabet) for _ in range(rng.randint(1, 31)))
            taken.add(name.lower())
            path, shown = os.path.join(folder, name), prefix + name
            if depth < 3 and rng.random() < 0.3:
                os.mkdir(path)
                lines.append(shown + "\tstorage\t0")
                fill(path, shown + "/", depth + 1)
            else:
                size = rng.choice(sizes) if rng.random() < 0.7 else rng.randint(0, 20000)
                with open(path, "wb") as f:
                    f.write(rng.randbytes(size))
                lines.append("%s\tstream\t%d" % (shown, size))

    os.mkdir(root)
    fill(root, "", 0)
    return lines


def main():
    gxstg, src, work, failures = (os.path.join(sys.argv[1], "gxstg"), sys.argv[2],
                                  tempfile.mkdtemp(), [])
    w = lambda *names: os.path.join(work, *names)

    def run(*args, stdin=b""):
        return subprocess.run([gxstg] + list(args), input=stdin, capture_output=True)

    def differ(a, b):  # two folder trees, files and bytes
        return subprocess.run(["diff", "-r", a, b], capture_output=True).returncode != 0

    def expect(code, pattern, *args, stdin=b""):
        # gxstg ARGS exits with CODE and prints PATTERN (a regular expression,
        # per line) on standard output or standard error.
        r = run(*args, stdin=stdin)
        if r.returncode != code or not re.search(pattern.encode(), r.stdout + r.stderr, re.M):
            failures.append("%s gave %d (wanted %d): %s"
                            % (args, r.returncode, code, r.stderr[:300]))

    def check(ok, what):
        if not ok:
            failures.append(what)

    # ---- Round trips on seeded random trees ---------------------------------
    for seed in range(1, 6):
        t = w("rt%d" % seed)
        os.mkdir(t)
        lines = make_tree(os.path.join(t, "in"), seed)
        expect(0, "", "pack", t + "/in", t + "/f.cfb")
        if os.path.exists(t + "/f.$t$"):
            failures.append("seed %d: pack left its temporary file" % seed)
        if sorted(run("tree", t + "/f.cfb").stdout.decode().splitlines()) != sorted(lines):
            failures.append("seed %d: tree differs" % seed)
        # cat on a few streams (each is a process); extract compares them all.
        for path in [l.split("\t")[0] for l in lines if "\tstream\t" in l][:3]:
            if run("cat", t + "/f.cfb", path).stdout != open(t + "/in/" + path, "rb").read():
                failures.append("seed %d: cat %r" % (seed, path))
        expect(0, "", "extract", t + "/f.cfb", t + "/out")
        if differ(t + "/in", t + "/out"):
            failures.append("seed %d: extract differs" % seed)

    # The sample tree: %0005 in a host name is the unit 5 inside the file.
    sample, s = os.path.join(src, "examples", "sample"), w("s.cfb")
    expect(0, "", "pack", sample, s)
    expect(0, r"^\\005SummaryInformation\tstream\t41$", "tree", s)
    expect(0, "^Author: the demo$", "cat", s, "\\005SummaryInformation")
    expect(0, "", "extract", s, w("s"))
    if differ(sample, w("s")):
        failures.append("sample: extract differs")

    # ---- Usage and error paths ----------------------------------------------
    good = open(s, "rb").read()
    text = b"plain text, longer than one header of 512 bytes" * 20
    for name, data in [("text", text),
                       ("short", good[:100]), ("v5", good[:26] + b"\x05" + good[27:]),
                       ("fat", good[:76] + b"\x00\xff\xff\x0f" + good[80:]),
                       ("dir", good[:48] + b"\x00\x00\x01\x00" + good[52:])]:
        open(w(name), "wb").write(data)
    # Data of a large stream cut off at the end of the file.
    os.mkdir(w("big"))
    open(w("big", "data"), "wb").write(os.urandom(300000))
    run("pack", w("big"), w("big.cfb"))
    open(w("cut.cfb"), "wb").write(open(w("big.cfb"), "rb").read()[:-2000])
    # 31 units pass; 32 units (30 letters and a surrogate pair) are refused.
    for folder, name in [("n31", "a" * 31), ("n32", "a" * 30 + "😀")]:
        os.mkdir(w(folder))
        open(w(folder, name), "wb").close()
    for code, pattern, *args in [
            (1, "usage: gxstg COMMAND"), (1, "unknown command 'frob'", "frob"),
            (0, "usage: gxstg COMMAND", "--help")] + [
            (0, "usage: gxstg " + c, c, "--help")
            for c in ["probe", "info", "tree", "cat", "extract", "pack"]] + [
            (1, "usage: gxstg cat FILE PATH", "cat", s),
            (1, "usage: gxstg pack DIR FILE", "pack", w("s")),
            (2, "no such file", "info", w("missing.cfb")),
            (2, "is a directory", "tree", work),
            (3, r"text: not a compound file \(bad signature\)", "info", w("text")),
            (3, "text: not a compound file", "put", w("text"), "a"),
            (2, "", "mkdir", w("none.cfb"), "a"),
            (3, "short: not a compound file: too short", "probe", w("short")),
            (3, "v5: not a compound file: unsupported major version", "probe", w("v5")),
            (3, "fat: corrupt", "tree", w("fat")),
            (3, "dir: corrupt", "extract", w("dir"), w("x1")),
            (2, "missing.cfb: cannot be opened", "probe", s, w("missing.cfb"), w("text")),
            (0, "s.cfb: compound file, version 3", "probe", s),
            (2, "no element 'docs/nope'", "cat", s, "docs/nope"),
            (1, "docs: is a storage", "cat", s, "docs"),
            (1, "not a valid element path", "cat", s, "docs\\q"),
            (1, "not empty", "extract", s, w("s")),
            (2, "no such folder", "pack", w("missing"), w("p.cfb")),
            (3, "corrupt|stream data ends", "extract", w("cut.cfb"), w("x2")),
            (0, "", "pack", w("n31"), w("n31.cfb")),
            (1, "is 32 UTF-16 units long; compound-file names hold at most 31",
             "pack", w("n32"), w("n32.cfb"))]:
        expect(code, pattern, *args)
    check(not os.path.exists(w("n32.cfb")) or not os.path.getsize(w("n32.cfb")),
          "a refused pack wrote its file")
    # A file that is not a compound file is left alone; a missing one is not made.
    check(open(w("text"), "rb").read() == text and not os.path.exists(w("none.cfb")),
          "the text file changed, or the missing one was made")

    # ---- Hostile names never leave DIR --------------------------------------
    h = w("hostile")
    for path, text in [("PPPPPPPPPP/inside", "secret"), ("DD/passwd", "pw")] + [
            (n, n) for n in ["AAA", "CCCC", "EEEEEEE", "F", "J1", "J2"]]:
        os.makedirs(os.path.dirname(os.path.join(h, "in", path)), exist_ok=True)
        open(os.path.join(h, "in", path), "w").write(text + "\n")
    run("pack", h + "/in", h + "/f.cfb")
    # Names rewritten inside the file, to names of the same lengths.
    data = open(h + "/f.cfb", "rb").read()
    for old, new in [("PPPPPPPPPP", "../../../x"), ("DD", ".."), ("AAA", "a/b"),
                     ("CCCC", "\x01ctl"), ("EEEEEEE", "..\\..\\e"), ("F", "."),
                     ("J1", "JJ"), ("J2", "JJ")]:
        o, n = old.encode("utf-16-le"), new.encode("utf-16-le")
        assert len(o) == len(n) and data.count(o) == 1, old
        data = data.replace(o, n)
    open(h + "/f.cfb", "wb").write(data)
    expect(0, r"^\.\.\\057\.\.\\057\.\.\\057x/inside\tstream", "tree", h + "/f.cfb")
    tree = run("tree", h + "/f.cfb").stdout
    if not all(l in tree for l in [b"\\001ctl\tstream", b"a\\057b\tstream",
                                   b"..\\\\..\\\\e\tstream"]):
        failures.append("hostile: tree escapes")
    os.mkdir(h + "/sandbox")
    expect(3, "warning: JJ: name collides", "extract", h + "/f.cfb", h + "/sandbox/out")
    if os.listdir(h + "/sandbox") != ["out"]:
        failures.append("hostile: something beside DIR")
    if any(os.path.exists(p) for p in [w("x"), h + "/x", h + "/e"]):
        failures.append("hostile: wrote outside DIR")
    for p in ["..%002F..%002F..%002Fx/inside", "%002E./passwd", "a%002Fb", "%0001ctl",
              "..\\..\\e", "%002E", "JJ"]:
        if not os.path.isfile(h + "/sandbox/out/" + p):
            failures.append("hostile: %r not extracted" % p)

    # ---- Edits of files Wine's ole32 wrote ----------------------------------
    for fixture in ("ole32_v3.cfb", "ole32_v4.cfb"):
        f = shutil.copy(os.path.join(src, "tests", "data", fixture), work)
        model, rng = olefile_tree(f), random.Random(fixture)
        for step in range(30):
            op, path = rng.choice(["put", "put", "mkdir", "mv", "rm"]), rng.choice(list(model))
            name = "e%d%s" % (step, rng.choice(["", "x" * 20, "\u00e9"]))
            if op == "mkdir" or op == "put" and (model[path] is None or rng.random() < 0.6):
                path = path[:-1 if model[path] is not None else None] + (name, op[0])
            if op in ("put", "mkdir"):  # a new or an existing stream, or a new storage
                body = os.urandom(rng.choice([0, 10, 4095, 4096, 9000]))
                model[path] = body if op == "put" else None
                expect(0, "", op, f, "/".join(path), stdin=model[path] or b"")
                model.update({path[:i]: None for i in range(1, len(path))})
            else:
                expect(0, "", op, f, "/".join(path), *([name] if op == "mv" else []))
                below = {p[len(path):]: model.pop(p) for p in list(model) if p[:len(path)] == path}
                if op == "mv":
                    model.update({path[:-1] + (name,) + p: v for p, v in below.items()})
            if olefile_tree(f) != model:
                failures.append("%s after step %d: %s %s" % (fixture, step, op, path))
                break
        # Refusals leave the file as it was, byte for byte.
        before, (a, b) = open(f, "rb").read(), [p[0] for p in model if len(p) == 1][:2]
        for args, code in [(["mv", a, "a" * 32], 1), (["mv", a, "bad/name"], 1), (["mv", a, b], 1),
                           (["put", "missing", "/nonexistent"], 2), (["rm", "no such element"], 2),
                           (["put", "x" * 40], 1)] + [
                          (["put", "/".join(p)], 1) for p in model if model[p] is None][:2] + [
                          (["mkdir", "/".join(p)], 1) for p in model if model[p] is not None][:2]:
            expect(code, "", args[0], f, *args[1:])
        check(open(f, "rb").read() == before, "%s changed by refused edits" % fixture)
        # gsf, another independent reader, lists every element of the edited file.
        if shutil.which("gsf"):
            listed = subprocess.run(["gsf", "list", f], capture_output=True)
            check(listed.returncode == 0 and all("/".join(p).encode() in listed.stdout
                                                 for p in model), "%s: gsf lists less" % fixture)
        expect(0, "", "compact", f)
        check(olefile_tree(f) == model and os.path.getsize(f) <= len(before),
              "%s: compact" % fixture)

    shutil.rmtree(work)
    print("\n".join("FAIL: " + line for line in failures) or "gxstg_test: all passed")
    return 1 if failures else 0


if __name__ == "__main__":
    if sys.argv[1] == "--list":
        print("".join(listing(sys.argv[2])), end="")
    else:
        sys.exit(main())
