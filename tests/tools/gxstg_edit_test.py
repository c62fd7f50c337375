#!/usr/bin/python3
"""gxstg's editing commands on files other programs wrote (Wine's ole32,
versions 3 and 4): seeded edits (put, mkdir, mv, rm) applied to a model of
the tree, the result read by olefile after every edit and by gsf at the end; refused
edits leave the file byte for byte; compact keeps the tree.

Usage: gxstg_edit_test.py BIN_DIR SOURCE_DIR
"""
import os
import random
import shutil
import subprocess
import sys
import tempfile

import olefile


def tree(path):
    """{path tuple: bytes or None for a storage} as olefile reads it."""
    ole = olefile.OleFileIO(path)
    out = {}

    def walk(node, prefix):
        for kid in node.kids:
            p = prefix + (kid.name,)
            if kid.entry_type == olefile.STGTY_STORAGE:
                out[p] = None
                walk(kid, p)
            else:
                out[p] = ole._open(kid.isectStart, kid.size).read() if kid.size else b""

    walk(ole.root, ())
    ole.close()
    return out


def text(path):
    return "/".join(name.replace("\\", "\\\\") for name in path)


def main():
    gxstg = os.path.join(sys.argv[1], "gxstg")
    data = os.path.join(sys.argv[2], "tests", "data")
    work = tempfile.mkdtemp()
    failures = []

    def run(*args, stdin=b"", code=0):
        r = subprocess.run([gxstg] + list(args), input=stdin, capture_output=True)
        if r.returncode != code:
            failures.append("%s: exit %d (wanted %d): %s" % (
                " ".join(args), r.returncode, code, r.stderr.decode(errors="replace")))
        return r

    for fixture in ("ole32_v3.cfb", "ole32_v4.cfb"):
        f = os.path.join(work, fixture)
        shutil.copy(os.path.join(data, fixture), f)
        model = tree(f)
        rng = random.Random(fixture)
        for step in range(30):
            op = rng.choice(["put", "put", "mkdir", "mv", "rm"])
            storages = [()] + [p for p, v in model.items() if v is None]
            name = "e%d%s" % (step, rng.choice(["", "x" * 20, "\u00e9"]))
            if op == "put":
                streams = [p for p, v in model.items() if v is not None]
                path = (rng.choice(streams) if streams and rng.random() < 0.4 else
                        rng.choice(storages) + (name, "s"))
                body = os.urandom(rng.choice([0, 10, 4095, 4096, 9000]))
                run("put", f, text(path), stdin=body)
                for i in range(1, len(path)):
                    model.setdefault(path[:i], None)
                model[path] = body
            elif op == "mkdir":
                path = rng.choice(storages) + (name, "d")
                run("mkdir", f, text(path))
                for i in range(1, len(path) + 1):
                    model.setdefault(path[:i], None)
            else:
                victims = [p for p in model if p]
                if not victims:
                    continue
                path = rng.choice(victims)
                below = [p for p in model if p[:len(path)] == path]
                if op == "rm":
                    run("rm", f, text(path))
                    for p in below:
                        del model[p]
                else:
                    new = path[:-1] + (name,)
                    run("mv", f, text(path), name)
                    for p in below:
                        model[new + p[len(path):]] = model.pop(p)
            seen = tree(f)
            if seen != model:
                failures.append("%s after step %d (%s %s): %s" % (
                    fixture, step, op, text(path),
                    sorted(set(seen.items()) ^ set(model.items()))[:3]))
                break

        # Refusals leave the file as it was, byte for byte.
        before = open(f, "rb").read()
        run("mv", f, text(next(p for p in model if p)), "a" * 32, code=1)
        run("mv", f, text(next(p for p in model if p)), "bad/name", code=1)
        run("put", f, "missing", "/nonexistent/source", code=2)
        run("rm", f, "no such element", code=2)
        run("put", f, "x" * 40, stdin=b"abc", code=1)
        if open(f, "rb").read() != before:
            failures.append("%s changed by refused edits" % fixture)

        # gsf, another independent reader, lists every element of the edited
        # file.
        if shutil.which("gsf"):
            listing = subprocess.run(["gsf", "list", f], capture_output=True)
            text_out = listing.stdout.decode("utf-8", "replace")
            missing = [p for p in model if "/".join(p) not in text_out]
            if listing.returncode != 0 or missing:
                failures.append("%s: gsf lists %d elements short (%s)" % (
                    fixture, len(missing), missing[:2]))

        run("compact", f)
        if tree(f) != model:
            failures.append("%s: compact changed the tree" % fixture)
        if os.path.getsize(f) > len(before):
            failures.append("%s: compact grew the file" % fixture)

    # A file that is not a compound file, and a missing one.
    junk = os.path.join(work, "junk.cfb")
    open(junk, "wb").write(b"not a compound file" * 100)
    run("put", junk, "a", stdin=b"x", code=3)
    run("mkdir", os.path.join(work, "none.cfb"), "a", code=2)
    if open(junk, "rb").read() != b"not a compound file" * 100:
        failures.append("junk file changed")

    shutil.rmtree(work)
    for line in failures:
        print("FAIL:", line)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
