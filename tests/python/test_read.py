"""Reading: gxstorage reads what olefile reads, from files of other writers
and from files gxstorage made, and its stream objects behave like BytesIO."""
import io
import threading

import olefile
import pytest

import gxstorage
from conftest import FIXTURES, olefile_tree, our_tree, random_tree, with_storages


@pytest.fixture(params=["ole32 fixtures", "created"])
def files(request, tmp_path, rng):
    if request.param == "ole32 fixtures":
        assert FIXTURES, "no committed fixtures in tests/data"
        return FIXTURES
    made = tmp_path / "made.cfb"
    with gxstorage.create(made) as f:
        for names, data in random_tree(rng, 60).items():
            f.write(names, data)
    return [made]


def test_reads_what_olefile_reads(files):
    for path in files:
        ole = olefile.OleFileIO(str(path))
        with gxstorage.open(path) as f:
            assert our_tree(f) == olefile_tree(path), path
            for streams, storages in [(True, False), (False, True), (True, True)]:
                assert f.listdir(streams, storages) == ole.listdir(streams, storages)
            for names in ole.listdir(streams=True, storages=True):
                upper = ["".join(c.upper() if c.isascii() else c for c in n)
                         for n in names]
                assert f.exists(upper) and f.exists("/".join(names))
                if ole.get_type(names) == olefile.STGTY_STREAM:
                    assert f.get_size(names) == ole.get_size(names)
                else:
                    with pytest.raises(TypeError):
                        f.get_size(names)
                info = f.stat(names)
                assert info.name == names[-1]
                assert str(info.clsid).upper() == (ole.getclsid(names) or
                                                   "00000000-0000-0000-0000-000000000000")
                assert info.state_bits == ole.direntries[ole._find(names)].dwUserFlags
                for ours, theirs in [(info.ctime, ole.getctime(names)),
                                     (info.mtime, ole.getmtime(names))]:
                    assert (ours and ours.replace(tzinfo=None)) == theirs
            assert not f.exists("no such element")
            assert f.stat().kind == gxstorage.STORAGE
        ole.close()


@pytest.mark.parametrize("mode", ["r", "r+"])
def test_streams_behave_like_bytesio(tmp_path, rng, mode):
    path = tmp_path / "streams.cfb"
    sizes = [0, 1, 4095, 4096, 4097, 70000]
    with gxstorage.create(path) as f:
        for size in sizes:
            f.write(f"s{size}", rng.randbytes(size))
    with gxstorage.open(path, mode) as f:
        for size in sizes:
            model = io.BytesIO(f.read(f"s{size}"))
            with f.open_stream(f"s{size}") as s:
                assert s.readable() and s.seekable() and s.writable() == (mode == "r+")
                for _ in range(200):
                    op = rng.choice("rRsStifwT" if mode == "r+" else "rRsStif")
                    n = rng.randint(0, size + 10)
                    if op == "r":
                        assert s.read(n) == model.read(n)
                    elif op == "R":
                        assert s.read() == model.read()
                    elif op == "s":
                        assert s.seek(n) == model.seek(n)
                    elif op == "S":
                        whence = rng.choice([io.SEEK_CUR, io.SEEK_END])
                        base = model.tell() if whence == io.SEEK_CUR else len(model.getvalue())
                        offset = rng.randint(-base, 10)
                        assert s.seek(offset, whence) == model.seek(offset, whence)
                    elif op == "i":
                        into_a, into_b = bytearray(n), bytearray(n)
                        assert s.readinto(into_a) == model.readinto(into_b)
                        assert into_a == into_b
                    elif op == "f":  # the whole stream, while it is open
                        assert f.read(f"S{size}") == model.getvalue()
                    elif op == "w":
                        data = rng.randbytes(rng.randint(0, 9000))
                        assert s.write(data) == model.write(data)
                    elif op == "T":  # BytesIO only shrinks
                        n = rng.randint(0, len(model.getvalue()))
                        assert s.truncate(n) == model.truncate(n)
                    assert s.tell() == model.tell()
                assert s.size == len(model.getvalue())
                s.seek(0)
                assert s.read() == model.getvalue()


def test_names_and_threads(tmp_path, rng):
    """Names of any UTF-16 units read back exactly; threads share a file."""
    path = tmp_path / "shared.cfb"
    names = ["\U0001F600 astral", "\udc00 lone", "\x05Summary", "x" * 31, "big"]
    tree = {(n,): rng.randbytes(3 << 20 if n == "big" else rng.randint(0, 9000))
            for n in names}
    tree.update(random_tree(rng, 40))
    with gxstorage.create(path) as f:
        for key, data in tree.items():
            f.write(list(key), data)
    failures = []

    def reader(f, seed):
        order = sorted(tree, key=lambda k: hash((k, seed)))
        for key in order:
            with f.open_stream(list(key)) as s:
                chunks = iter(lambda: s.read(1 << 16), b"")
                if b"".join(chunks) != tree[key] or f.read(list(key)) != tree[key]:
                    failures.append(key)

    for mode in ("r", "r+"):
        with gxstorage.open(path, mode) as f:
            threads = [threading.Thread(target=reader, args=(f, k)) for k in range(4)]
            for t in threads:
                t.start()
            for t in threads:
                t.join()
    assert not failures
    with gxstorage.open(path) as f:
        assert our_tree(f) == with_storages(tree)
