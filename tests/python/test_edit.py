"""Creating and editing: seeded edits of files from other writers and of
files gxstorage made, checked against a model through olefile after every
transaction; a transaction that ends in an exception leaves the file as it
was, byte for byte."""
import os
import shutil
import subprocess
import sys

import pytest

import gxstorage
from conftest import (FIXTURES, olefile_tree, our_tree, random_data,
                      random_name, random_tree, with_storages)


def fresh_name(rng, tree, parent):
    taken = {k[-1].upper() for k in tree if k[:-1] == parent}
    while True:
        name = random_name(rng)
        if name.upper() not in taken:
            return name


def edit(f, tree, rng):
    """One random edit, applied to the file and to the model `tree`."""
    storages = [()] + [k for k, v in tree.items() if v is None]
    streams = [k for k, v in tree.items() if v is not None]
    op = rng.choice(["write", "write", "replace", "remove", "rename", "makedirs"])
    if op == "replace" and streams:
        names = rng.choice(streams)
        tree[names] = random_data(rng)
        f.write(rng.choice([names, "/".join(names)]), tree[names])
    elif op in ("write", "makedirs", "replace"):
        names = rng.choice(storages)
        for _ in range(rng.randint(1, 2)):
            names += (fresh_name(rng, tree, names),)
            tree[names] = None
        if op == "makedirs":
            f.makedirs(names)
        else:
            tree[names] = random_data(rng)
            f.write(names, tree[names])
    elif op == "remove" and len(tree) > 1:
        names = rng.choice(list(tree))
        f.remove(names)
        for k in [k for k in tree if k[:len(names)] == names]:
            del tree[k]
    elif op == "rename" and tree:
        names = rng.choice(list(tree))
        new = fresh_name(rng, tree, names[:-1])
        f.rename(names, new)
        for k in [k for k in tree if k[:len(names)] == names]:
            tree[names[:-1] + (new,) + k[len(names):]] = tree.pop(k)


@pytest.mark.parametrize("source", [p.name for p in FIXTURES] + ["created"])
def test_seeded_edits_read_back_in_olefile(tmp_path, rng, source):
    path = tmp_path / "edited.cfb"
    if source == "created":
        with gxstorage.create(path) as f:
            for names, data in random_tree(rng, 30).items():
                f.write(names, data)
    else:
        shutil.copy(FIXTURES[[p.name for p in FIXTURES].index(source)], path)
    model = olefile_tree(path)
    for round in range(6):
        before = path.read_bytes()
        pending = dict(model)
        try:
            with gxstorage.open(path, "r+") as f:
                for _ in range(rng.randint(1, 30)):
                    edit(f, pending, rng)
                assert our_tree(f) == pending
                if round % 3 == 2:
                    raise KeyboardInterrupt
        except KeyboardInterrupt:
            assert path.read_bytes() == before
        else:
            model = pending
        assert olefile_tree(path) == model
        with gxstorage.open(path) as f:
            assert our_tree(f) == model


def test_created_files_appear_whole_or_not_at_all(tmp_path, rng):
    path = tmp_path / "out.cfb"
    path.write_bytes(b"previous content")
    with pytest.raises(KeyboardInterrupt):
        with gxstorage.create(path) as f:
            f.write("a", b"1")
            raise KeyboardInterrupt
    assert path.read_bytes() == b"previous content"
    assert os.listdir(tmp_path) == ["out.cfb"]

    tree = random_tree(rng, 40)
    with gxstorage.create(path) as f:
        for names, data in tree.items():
            if rng.random() < 0.5:
                f.write(names, data)
            else:
                with f.open_stream(names, create=True) as s:
                    for at in range(0, len(data), 1000):
                        s.write(data[at:at + 1000])
        f.makedirs("empty/storage")
        f.commit()
        assert olefile_tree(path) == with_storages(tree) | {
            ("empty",): None, ("empty", "storage"): None}
        f.remove("empty")
    assert olefile_tree(path) == with_storages(tree)
    assert f.closed and os.listdir(tmp_path) == ["out.cfb"]


READER = """
import sys, gxstorage
with gxstorage.open(sys.argv[1]) as f:
    print(f.read("Docs/Note").decode(), sorted(e.path for e in f.walk("Docs")))
try:
    gxstorage.open(sys.argv[1], "r+")
except PermissionError as e:
    print(hex(e.hresult))
"""


def test_other_processes_see_only_committed_states(tmp_path):
    path = tmp_path / "shared.cfb"
    with gxstorage.create(path) as f:
        f.write("Docs/Note", b"old")

    def other_process():
        run = subprocess.run([sys.executable, "-c", READER, str(path)],
                             capture_output=True, text=True, timeout=60)
        return run.stdout.split("\n")[:2]

    with gxstorage.open(path, "r+") as f:
        f.write("Docs/Note", b"new")
        f.write("Docs/Added", b"")
        # Locked against a second writer; readers see the committed state.
        assert other_process() == ["old ['Docs/Note']", "0x80030020"]
        f.commit()
        assert other_process() == ["new ['Docs/Added', 'Docs/Note']", "0x80030020"]
    with pytest.raises(NotADirectoryError):
        list(gxstorage.open(path).walk("Docs/Note"))
