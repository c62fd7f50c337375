"""Failures: each class of failure raises its exception with its result
code, and hostile files (the fuzz corpus, and valid files with bytes
changed) are refused cleanly without ever crashing the interpreter."""
import struct
import subprocess
import sys
import textwrap

import olefile
import pytest

import gxstorage
from conftest import CORPUS, FIXTURES

NOT_FOUND, ACCESS, EXISTS = 0x80030002, 0x80030005, 0x80030050
INVALID_HEADER, INVALID_NAME, CORRUPT = 0x800300FB, 0x800300FC, 0x80030109


def test_each_failure_raises_its_exception(tmp_path):
    path = tmp_path / "f.cfb"
    with gxstorage.create(path) as f:
        f.write("Docs/Note", b"text")
    (tmp_path / "text.txt").write_bytes(b"not a compound file" * 100)
    reader = gxstorage.open(path)
    cases = [
        (lambda: gxstorage.open(tmp_path / "missing.cfb"), FileNotFoundError, NOT_FOUND),
        (lambda: gxstorage.open(tmp_path / "missing.cfb", "r+"), FileNotFoundError, NOT_FOUND),
        (lambda: gxstorage.open(tmp_path / "text.txt"), gxstorage.CorruptFileError, INVALID_HEADER),
        (lambda: gxstorage.open(tmp_path / "text.txt", "r+"), gxstorage.CorruptFileError, None),
        (lambda: reader.read("Docs/Missing"), FileNotFoundError, NOT_FOUND),
        (lambda: reader.read("Missing/Note"), FileNotFoundError, NOT_FOUND),
        (lambda: reader.read("Docs"), IsADirectoryError, NOT_FOUND),
        (lambda: reader.get_size("Nope"), FileNotFoundError, NOT_FOUND),
        (lambda: reader.get_size("Docs"), TypeError, NOT_FOUND),
        (lambda: reader.write("Docs/Note", b""), PermissionError, ACCESS),
        (lambda: reader.remove("Docs"), PermissionError, ACCESS),
        (lambda: reader.open_stream("New", create=True), PermissionError, ACCESS),
    ]
    with gxstorage.open(path, "r+") as editor:
        cases += [
            (lambda: gxstorage.open(path, "r+"), PermissionError, None),  # locked
            (lambda: editor.write("x" * 32, b""), ValueError, INVALID_NAME),
            (lambda: editor.write("a:b", b""), ValueError, INVALID_NAME),
            (lambda: editor.rename("Docs", "a/b"), ValueError, INVALID_NAME),
            (lambda: editor.rename("Docs/Note", "NOTE"), FileExistsError, EXISTS),
            (lambda: editor.makedirs("Docs"), FileExistsError, EXISTS),
            (lambda: editor.makedirs("Docs/Note/x"), NotADirectoryError, None),
            (lambda: editor.write("Docs", b""), IsADirectoryError, NOT_FOUND),
            (lambda: editor.remove("Nope"), FileNotFoundError, NOT_FOUND),
            (lambda: editor.open_stream("Nope"), FileNotFoundError, NOT_FOUND),
        ]
        for call, kind, code in cases:
            with pytest.raises(kind) as caught:
                call()
            if code is not None:
                assert caught.value.hresult == code, (kind, hex(caught.value.hresult))
        editor.makedirs("Docs", exist_ok=True)
        stream = editor.open_stream("Docs/Note")
    reader.close()
    for closed in [lambda: reader.read("Docs/Note"), lambda: stream.read(),
                   lambda: editor.write("x", b"")]:
        with pytest.raises(ValueError):
            closed()
    with pytest.raises(ValueError):
        gxstorage.open(path, "w")


HOSTILE = textwrap.dedent("""
    import random, shutil, sys, gxstorage
    def use(path, mode):
        # Returns normally, or with the file as it was: a refused file is
        # never changed.
        try:
            with gxstorage.open(path, mode) as f:
                for e in f.walk():
                    if e.kind == gxstorage.STREAM:
                        f.read(e.names)
                        with f.open_stream(e.names) as s:
                            s.seek(e.size // 2); s.read(100)
                    f.stat(e.names)
                if mode == "r+":
                    f.write("added/stream", b"x" * 5000)
                    f.remove(next(iter(f.listdir()), ["added"]))
        except (OSError, ValueError):
            assert open(path, "rb").read() == data, (name, mode)
    scratch = sys.argv[1]
    for name in sys.argv[2:]:
        original = open(name, "rb").read()
        variants = [original]
        rng = random.Random(name)
        for _ in range(20 if name.endswith(".cfb") else 0):
            data = bytearray(original)
            for _ in range(rng.randint(1, 8)):
                data[rng.randrange(len(data))] = rng.randrange(256)
            variants.append(bytes(data))
        for data in variants:
            for mode in ("r", "r+"):
                open(scratch, "wb").write(data)
                use(scratch, mode)
    print("survived")
""")


def test_hostile_files_never_crash_the_interpreter(tmp_path):
    assert CORPUS, "no fuzz corpus"
    run = subprocess.run(
        [sys.executable, "-c", HOSTILE, str(tmp_path / "scratch")]
        + [str(p) for p in CORPUS + FIXTURES],
        capture_output=True, text=True, timeout=600)
    assert run.returncode == 0 and "survived" in run.stdout, run.stderr[-3000:]


def damaged_copies(path):
    """(what, bytes, stream) for copies of a version 3 file, each with one
    field of the stream named `stream` broken."""
    data = path.read_bytes()
    ole = olefile.OleFileIO(str(path))
    per_fat, per_dir = 512 // 4, 512 // 128
    fat_sectors = struct.unpack_from("<109I", data, 76)
    directory = [struct.unpack_from("<I", data, 48)[0]]
    while ole.fat[directory[-1]] < 0xFFFFFFFA:
        directory.append(ole.fat[directory[-1]])

    def fat_entry(sector):
        return (fat_sectors[sector // per_fat] + 1) * 512 + sector % per_fat * 4

    def entry(name, field):
        sid = ole._find([name])
        return (directory[sid // per_dir] + 1) * 512 + sid % per_dir * 128 + field

    def put(offset, value):
        copy = bytearray(data)
        struct.pack_into("<I", copy, offset, value)
        return bytes(copy)

    big = ole.direntries[ole._find(["big"])].isectStart
    yield "chain loops back", put(fat_entry(ole.fat[big]), big), "big"
    yield "size past the file", put(entry("big", 120), 0x7FFF0000), "big"
    yield "start past the file", put(entry("big", 116), 0x00FFFFF0), "big"
    yield "start past the mini stream", put(entry("small", 116), 50000), "small"
    yield "file cut short", data[:(big + 3) * 512], "big"
    ole.close()


def test_damaged_files_are_refused_cleanly(tmp_path):
    path, bad = tmp_path / "good.cfb", tmp_path / "bad.cfb"
    with gxstorage.create(path) as f:
        f.write("small", b"s" * 100)
        f.write("big", bytes(range(256)) * 80)
        f.write("other", b"o" * 10000)
    for what, data, stream in damaged_copies(path):
        for mode in ("r", "r+"):
            bad.write_bytes(data)
            with pytest.raises(gxstorage.CorruptFileError) as caught:
                with gxstorage.open(bad, mode) as f:
                    if mode == "r":  # a damaged stream spoils no other
                        assert f.read("other") == b"o" * 10000, what
                    f.read(stream)
            assert caught.value.hresult in (CORRUPT, INVALID_HEADER), what
            assert bad.read_bytes() == data, (what, mode)
