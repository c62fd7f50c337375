# Tests of the gxstorage package. Seeded edits through the package
# (streams used as file objects among them) are checked after every
# transaction against a model, through olefile and from another process; a
# transaction that ends in an exception leaves the file byte for byte. Each
# class of failure raises its exception with its result code, and hostile
# files (the fuzz corpus, valid files with bytes changed, files with one
# field broken) are refused cleanly without ever crashing the interpreter.
import io
import os
import pathlib
import random
import struct
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

import olefile
import pytest

import gxstorage

ROOT = pathlib.Path(__file__).resolve().parents[2]
FIXTURES = sorted((ROOT / "tests" / "data").glob("*.cfb"))
CORPUS = sorted(p for p in (ROOT / "fuzz" / "corpus").glob("*/*") if p.is_file())


def olefile_tree(path):
    # {names: bytes of a stream, or None for a storage} as olefile reads it.
    with olefile.OleFileIO(str(path)) as ole:
        return {tuple(n): ole.openstream(n).read() if ole.get_type(n) == olefile.STGTY_STREAM
                else None for n in ole.listdir(streams=True, storages=True)}


def same_tree_in_threads(f, model):
    # Four threads read the whole tree of `f` at once, each as `model` says.
    def tree(_):
        return {e.names: f.read(e.names) if e.kind == gxstorage.STREAM else None
                for e in f.walk()}
    with ThreadPoolExecutor(4) as pool:
        return all(seen == model for seen in pool.map(tree, range(4)))


def use_stream(f, names, data, rng, create=False):
    # Random calls on stream `names` answer as on a BytesIO holding `data`
    # (seeks from every origin, reads past the end, writes past it leaving
    # a gap; BytesIO only shrinks); returns the stream's bytes in the end.
    model = io.BytesIO(data)
    with f.open_stream(names, create) as s:
        assert s.readable() and s.seekable() and s.writable() == (f.mode != "r")
        for _ in range(20):
            n, end, how = rng.randint(0, len(data) + 10), len(model.getvalue()), rng.randint(0, 2)
            base = [0, model.tell(), end][how]
            calls = [("read", [n]), ("read", []), ("readinto", [bytearray(n)]),
                     ("seek", [rng.randint(-base, end + 10 - base), how])]
            if s.writable():
                calls += [("write", [rng.randbytes(rng.randint(0, 9000))]),
                          ("truncate", [rng.randint(0, end)])]
            call, ours = rng.choice(calls)
            theirs = [bytearray(a) if isinstance(a, bytearray) else a for a in ours]
            assert (getattr(s, call)(*ours), ours, s.tell()) == (
                getattr(model, call)(*theirs), theirs, model.tell())
        assert s.size == len(model.getvalue()) and f.read(names) == model.getvalue()
    return model.getvalue()


def check_file(path, model, rng):
    # gxstorage reads `path` as olefile does, and as `model` says: the tree
    # (in four threads at once), listings, lookups in other case, sizes,
    # streams as file objects, and each element's metadata.
    with olefile.OleFileIO(str(path)) as ole, gxstorage.open(path) as f:
        assert olefile_tree(path) == model and same_tree_in_threads(f, model)
        for which in [(True, False), (False, True), (True, True)]:
            assert f.listdir(*which) == ole.listdir(*which)
        for names in ole.listdir(streams=True, storages=True):
            upper = ["".join(c.upper() if c.isascii() else c for c in n) for n in names]
            assert f.exists(upper) and f.exists("/".join(names))
            if ole.get_type(names) == olefile.STGTY_STREAM:
                assert f.get_size(names) == ole.get_size(names)
                use_stream(f, names, model[tuple(names)], rng)
            else:
                pytest.raises(TypeError, f.get_size, names)
            s, d = f.stat(names), ole.direntries[ole._find(names)]
            assert (s.name, str(s.clsid).upper(), s.state_bits) == (
                d.name, d.clsid or "00000000-0000-0000-0000-000000000000", d.dwUserFlags)
            assert [t and t.replace(tzinfo=None) for t in s[5:]] == [d.getctime(), d.getmtime()]
        assert not f.exists("no such element") and f.stat().kind == gxstorage.STORAGE


def random_name(rng, taken=()):
    # 1 to 31 UTF-16 units, equal to no name of `taken` in upper case; often
    # one of a few names (so that names removed or renamed come back): one
    # of 31 units, one with a control character, one beyond the BMP.
    while True:
        name = "".join(rng.choice("abcXYZ019 _-.~\u00e9\u00df\u65e5\u0416")
                       for _ in range(rng.randint(1, 31)))
        if rng.random() < 0.3:
            name = rng.choice(["Docs", "note", "x", "x" * 31, "\x05Summary", "\U0001F600 astral"])
        if name.upper() not in {t.upper() for t in taken}:
            return name


def edit(f, tree, rng):
    # One random edit, applied to the file and to the model `tree`
    # ({names: bytes of a stream, or None for a storage}). Data sizes lie on
    # both sides of the 4096-byte mini stream cutoff, and beyond 64 KiB
    # (reads that long let other threads run).
    op = rng.choice(["write", "stream", "replace", "remove", "rename", "makedirs"])
    data = rng.randbytes(rng.choice([0, 1, 63, 64, 4095, 4096, 4097, 70000,
                                     rng.randint(0, 20000)]))
    streams = [k for k, v in tree.items() if v is not None]
    if op in ("replace", "stream") and streams and rng.random() < 0.7:
        names = rng.choice(streams)
        tree[names] = data if op == "replace" else use_stream(f, names, tree[names], rng)
        if op == "replace":
            f.write(rng.choice([names, "/".join(names)]), data)
    elif op in ("write", "stream", "makedirs", "replace") or not tree:
        names = rng.choice([()] + [k for k, v in tree.items() if v is None])
        for _ in range(rng.randint(1, 2)):
            names += (random_name(rng, [k[-1] for k in tree if k[:-1] == names]),)
            tree[names] = None
        if op == "makedirs":
            return f.makedirs(names)
        tree[names] = use_stream(f, names, b"", rng, True) if op == "stream" else data
        if op != "stream":
            f.write(names, data)
    else:
        names = rng.choice(list(tree))
        new = random_name(rng, [k[-1] for k in tree if k[:-1] == names[:-1]])
        f.rename(names, new) if op == "rename" else f.remove(names)
        below = {k[len(names):]: tree.pop(k) for k in list(tree) if k[:len(names)] == names}
        if op == "rename":
            tree.update({names[:-1] + (new,) + k: v for k, v in below.items()})
        elif rng.random() < 0.5:  # the name comes back, as a stream
            tree[names] = data
            f.write(names, data)


# Another process: the tree it reads, and the failure of a second editor.
OTHER = """import sys, gxstorage
with gxstorage.open(sys.argv[1]) as f:
    tree = {e.names: f.read(e.names) if e.kind == "stream" else None for e in f.walk()}
    print(ascii(sorted(tree.items())))
try:
    gxstorage.open(sys.argv[1], "r+")
except PermissionError as e:
    print(hex(e.hresult))"""


@pytest.mark.parametrize("source", [p.name for p in FIXTURES] + ["created"])
def test_seeded_edits_match_the_model_and_olefile(tmp_path, source):
    # "created": a file made over an older one, which stays until the commit.
    path, rng, made = tmp_path / "edited.cfb", random.Random(source), source == "created"
    path.write_bytes(b"older file" if made else (FIXTURES[0].parent / source).read_bytes())
    model = None if made else olefile_tree(path)
    for round in range(8):
        before, pending, fails = path.read_bytes(), dict(model or {}), round % 3 == 0
        try:
            with gxstorage.open(path, "r+") if model is not None else gxstorage.create(path) as f:
                for _ in range(rng.randint(1, 30)):
                    edit(f, pending, rng)
                    if not fails and rng.random() < 0.05:
                        f.commit()
                        model = dict(pending)
                    elif rng.random() < 0.03:  # back to the last commit
                        f.revert()
                        pending = dict(model or {})
                assert same_tree_in_threads(f, pending)
                if round == 4:  # others see the last commit, and cannot edit
                    other = subprocess.run([sys.executable, "-c", OTHER, path], timeout=60,
                                           capture_output=True, text=True).stdout
                    assert other.split("\n")[:2] == [ascii(sorted(model.items())), "0x80030020"]
                if fails:
                    raise KeyboardInterrupt
            model = pending
        except KeyboardInterrupt:
            assert path.read_bytes() == before
        assert os.listdir(tmp_path) == ["edited.cfb"] and f.closed
        if model is not None:
            check_file(path, model, rng)


NOT_FOUND, ACCESS, EXISTS = 0x80030002, 0x80030005, 0x80030050
INVALID_HEADER, INVALID_NAME, CORRUPT = 0x800300FB, 0x800300FC, 0x80030109


def test_each_failure_raises_its_exception(tmp_path):
    path, missing, text = tmp_path / "f.cfb", tmp_path / "missing.cfb", tmp_path / "t.txt"
    with gxstorage.create(path) as f:
        f.write("Docs/Note", b"text")
    text.write_bytes(b"not a compound file" * 100)
    reader, editor = gxstorage.open(path), gxstorage.open(path, "r+")
    for call, args, kind, code in [
            (gxstorage.open, [missing], FileNotFoundError, NOT_FOUND),
            (gxstorage.open, [missing, "r+"], FileNotFoundError, NOT_FOUND),
            (gxstorage.open, [text], gxstorage.CorruptFileError, INVALID_HEADER),
            (gxstorage.open, [text, "r+"], gxstorage.CorruptFileError, None),
            (gxstorage.open, [path, "r+"], PermissionError, None),  # locked
            (reader.read, ["Docs/Missing"], FileNotFoundError, NOT_FOUND),
            (reader.read, ["Missing/Note"], FileNotFoundError, NOT_FOUND),
            (reader.read, ["Docs"], IsADirectoryError, NOT_FOUND),
            (list, [reader.walk("Docs/Note")], NotADirectoryError, None),
            (reader.get_size, ["Nope"], FileNotFoundError, NOT_FOUND),
            (reader.get_size, ["Docs"], TypeError, NOT_FOUND),
            (reader.write, ["Docs/Note", b""], PermissionError, ACCESS),
            (reader.remove, ["Docs"], PermissionError, ACCESS),
            (reader.open_stream, ["New", True], PermissionError, ACCESS),
            (editor.write, ["x" * 32, b""], ValueError, INVALID_NAME),
            (editor.rename, ["Docs", "a/b"], ValueError, INVALID_NAME),
            (editor.rename, ["Docs/Note", "NOTE"], FileExistsError, EXISTS),
            (editor.makedirs, ["Docs"], FileExistsError, EXISTS),
            (editor.makedirs, ["Docs/Note/x"], NotADirectoryError, None),
            (editor.write, ["Docs", b""], IsADirectoryError, NOT_FOUND),
            (editor.remove, ["Nope"], FileNotFoundError, NOT_FOUND),
            (editor.open_stream, ["Nope"], FileNotFoundError, NOT_FOUND)]:
        with pytest.raises(kind) as caught:
            call(*args)
        assert code is None or caught.value.hresult == code, (call, args)
    editor.makedirs("Docs", exist_ok=True)
    editor.write(["\udc00 lone"], b"1")  # a name of any UTF-16 units, read back exactly
    stream = editor.open_stream("Docs/Note")
    reader.close()
    editor.close()
    with gxstorage.open(path) as f:
        assert [e.names for e in f.walk()] == [("Docs",), ("Docs", "Note"), ("\udc00 lone",)]
    for closed in [lambda: reader.read("Docs/Note"), stream.read, lambda: editor.write("x", b"")]:
        pytest.raises(ValueError, closed)


# Run in a process of its own, which a crash would end early. A refused
# file is never changed.
HOSTILE = """import random, sys, gxstorage
for name in sys.argv[2:]:
    original, rng = open(name, "rb").read(), random.Random(name)
    for copy in range(21 if name.endswith(".cfb") else 1):
        data = bytearray(original)
        for _ in range(rng.randint(1, 8) if copy else 0):
            data[rng.randrange(len(data))] = rng.randrange(256)
        for mode in ("r", "r+"):
            open(sys.argv[1], "wb").write(data)
            try:
                with gxstorage.open(sys.argv[1], mode) as f:
                    for e in f.walk():
                        f.read(e.names) if e.kind == gxstorage.STREAM else f.stat(e.names)
                    if mode == "r+":
                        f.write("added/stream", b"x" * 5000)
                        f.remove(next(iter(f.listdir()), ["added"]))
            except (OSError, ValueError):
                assert open(sys.argv[1], "rb").read() == data, (name, mode)
"""


def test_hostile_files_never_crash_the_interpreter(tmp_path):
    assert CORPUS, "no fuzz corpus"
    run = subprocess.run([sys.executable, "-c", HOSTILE, str(tmp_path / "scratch")]
                         + [str(p) for p in CORPUS + FIXTURES],
                         capture_output=True, text=True, timeout=600)
    assert run.returncode == 0, run.stderr[-3000:]


def test_damaged_files_are_refused_cleanly(tmp_path):
    path, bad = tmp_path / "good.cfb", tmp_path / "bad.cfb"
    with gxstorage.create(path) as f:
        for name, data in [("small", b"s" * 100), ("big", bytes(range(256)) * 80),
                           ("other", b"o" * 10000)]:
            f.write(name, data)
    data = path.read_bytes()
    with olefile.OleFileIO(str(path)) as ole:  # one FAT sector, one directory sector
        assert len(data) < 129 * 512 and ole.fat[ole.first_dir_sector] == olefile.ENDOFCHAIN
        fat = (struct.unpack_from("<I", data, 76)[0] + 1) * 512
        directory = (ole.first_dir_sector + 1) * 512
        entry = {n: directory + ole._find([n]) * 128 for n in ("small", "big")}
        big = ole.direntries[ole._find(["big"])].isectStart

    def put(at, value):
        return data[:at] + struct.pack("<I", value) + data[at + 4:]

    for what, damaged, stream in [
            ("chain loops back", put(fat + ole.fat[big] * 4, big), "big"),
            ("size past the file", put(entry["big"] + 120, 0x7FFF0000), "big"),
            ("start past the file", put(entry["big"] + 116, 0x00FFFFF0), "big"),
            ("start past the mini stream", put(entry["small"] + 116, 50000), "small"),
            ("file cut short", data[:(big + 3) * 512], "big")]:
        for mode in ("r", "r+"):
            bad.write_bytes(damaged)
            with pytest.raises(gxstorage.CorruptFileError) as caught:
                with gxstorage.open(bad, mode) as f:
                    if mode == "r":  # a damaged stream spoils no other
                        assert f.read("other") == b"o" * 10000, what
                    f.read(stream)
            assert caught.value.hresult in (CORRUPT, INVALID_HEADER), what
            assert bad.read_bytes() == damaged, (what, mode)
