"""Shared helpers of the gxstorage package tests: the committed fixtures,
trees read through olefile and through gxstorage, and seeded random trees."""
import pathlib
import random

import olefile
import pytest

import gxstorage

ROOT = pathlib.Path(__file__).resolve().parents[2]
FIXTURES = sorted((ROOT / "tests" / "data").glob("*.cfb"))
CORPUS = sorted(p for p in (ROOT / "fuzz" / "corpus").glob("*/*") if p.is_file())


def olefile_tree(path):
    """{names: bytes of a stream, or None for a storage} as olefile reads it."""
    with olefile.OleFileIO(str(path)) as ole:
        return {tuple(names): (ole.openstream(names).read()
                               if ole.get_type(names) == olefile.STGTY_STREAM
                               else None)
                for names in ole.listdir(streams=True, storages=True)}


def our_tree(f):
    return {e.names: f.read(e.names) if e.kind == gxstorage.STREAM else None
            for e in f.walk()}


def random_name(rng):
    alphabet = "abcXYZ019 _-.~\u00e9\u00df\u65e5\u0416"
    return "".join(rng.choice(alphabet) for _ in range(rng.randint(1, 31)))


def random_data(rng):
    # Sizes on both sides of the 4096-byte mini stream cutoff.
    size = rng.choice([0, 1, 63, 64, 4095, 4096, 4097, rng.randint(0, 20000)])
    return rng.randbytes(size)


def random_tree(rng, streams):
    """{names: bytes} of streams, nested up to three storages deep; storages
    implied by the paths. Names differ in more than case."""
    tree, folders = {}, [()]
    while len(tree) < streams:
        parent = rng.choice(folders)
        names = parent + (random_name(rng),)
        taken = {tuple(n.upper() for n in k[:len(names)]) for k in tree}
        taken |= {tuple(n.upper() for n in k) for k in folders}
        if tuple(n.upper() for n in names) in taken:
            continue
        if len(names) < 4 and rng.random() < 0.25:
            folders.append(names)
        else:
            tree[names] = random_data(rng)
    return tree


def with_storages(tree):
    """The tree with an entry (None) for every storage on the way."""
    out = dict(tree)
    for names in tree:
        for depth in range(1, len(names)):
            out.setdefault(names[:depth], None)
    return out


@pytest.fixture
def rng(request):
    return random.Random(request.node.name)
