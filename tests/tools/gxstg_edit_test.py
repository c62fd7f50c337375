#!/usr/bin/python3
# gxstg's editing commands on files other programs wrote (Wine's ole32,
# versions 3 and 4): seeded edits (put, mkdir, mv, rm) applied to a model of
# the tree, the result read by olefile after every edit and by gsf at the
# end; refused edits leave the file byte for byte; compact keeps the tree.
#
# Usage: gxstg_edit_test.py BIN_DIR SOURCE_DIR
import os
import random
import shutil
import subprocess
import sys
import tempfile

import olefile


def tree(path):
    # {names: bytes of a stream, or None for a storage} as olefile reads it.
    with olefile.OleFileIO(path) as ole:
        return {tuple(n): ole.openstream(n).read() if ole.get_type(n) == olefile.STGTY_STREAM
                else None for n in ole.listdir(streams=True, storages=True)}


def main():
    gxstg, work, failures = os.path.join(sys.argv[1], "gxstg"), tempfile.mkdtemp(), []

    def expect(ok, what):
        if not ok:
            failures.append(what)

    def run(*args, stdin=b"", code=0):
        r = subprocess.run([gxstg] + list(args), input=stdin, capture_output=True)
        expect(r.returncode == code, "%s: exit %d: %s" % (args, r.returncode, r.stderr))

    for fixture in ("ole32_v3.cfb", "ole32_v4.cfb"):
        f = shutil.copy(os.path.join(sys.argv[2], "tests", "data", fixture), work)
        model, rng = tree(f), random.Random(fixture)
        for step in range(30):
            op, path = rng.choice(["put", "put", "mkdir", "mv", "rm"]), rng.choice(list(model))
            name = "e%d%s" % (step, rng.choice(["", "x" * 20, "\u00e9"]))
            if op == "mkdir" or op == "put" and (model[path] is None or rng.random() < 0.6):
                path = path[:-1 if model[path] is not None else None] + (name, op[0])
            if op in ("put", "mkdir"):  # a new or an existing stream, or a new storage
                body = os.urandom(rng.choice([0, 10, 4095, 4096, 9000]))
                model[path] = body if op == "put" else None
                run(op, f, "/".join(path), stdin=model[path] or b"")
                model.update({path[:i]: None for i in range(1, len(path))})
            else:
                run(op, f, "/".join(path), *([name] if op == "mv" else []))
                below = {p[len(path):]: model.pop(p) for p in list(model) if p[:len(path)] == path}
                if op == "mv":
                    model.update({path[:-1] + (name,) + p: v for p, v in below.items()})
            if tree(f) != model:
                failures.append("%s after step %d: %s %s" % (fixture, step, op, path))
                break
        # Refusals leave the file as it was, byte for byte.
        before, (a, b) = open(f, "rb").read(), [p[0] for p in model if len(p) == 1][:2]
        for args, code in [(["mv", a, "a" * 32], 1), (["mv", a, "bad/name"], 1), (["mv", a, b], 1),
                           (["put", "missing", "/nonexistent"], 2), (["rm", "no such element"], 2),
                           (["put", "x" * 40], 1)] + [
                          (["put", "/".join(p)], 1) for p in model if model[p] is None][:2]:
            run(args[0], f, *args[1:], code=code)
        expect(open(f, "rb").read() == before, "%s changed by refused edits" % fixture)
        # gsf, another independent reader, lists every element of the edited file.
        if shutil.which("gsf"):
            listing = subprocess.run(["gsf", "list", f], capture_output=True)
            expect(listing.returncode == 0 and all("/".join(p).encode() in listing.stdout
                                                   for p in model), "%s: gsf lists less" % fixture)
        run("compact", f)
        expect(tree(f) == model and os.path.getsize(f) <= len(before), "%s: compact" % fixture)

    # A file that is not a compound file is left alone; a missing one is not made.
    junk, none = os.path.join(work, "junk.cfb"), os.path.join(work, "none.cfb")
    open(junk, "wb").write(b"not a compound file" * 100)
    run("put", junk, "a", stdin=b"x", code=3)
    run("mkdir", none, "a", code=2)
    expect(open(junk, "rb").read() == b"not a compound file" * 100 and not os.path.exists(none),
           "the junk file changed, or the missing one was made")
    shutil.rmtree(work)
    print("\n".join("FAIL: " + line for line in failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
