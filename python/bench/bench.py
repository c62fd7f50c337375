"""Reading speed of the gxstorage package against olefile.

  W3  read one large stream (64 MiB by default) through a file object, in
      64 KiB reads
  W4  open a file of 10,000 small streams (1..4000 bytes, in 100 storages),
      list it and read every stream
  W5  open that file (10,100 entries) and read the first byte of its last
      stream

Both libraries read the same files, made by gxstorage.create, from the page
cache (each cell runs once untimed first). Medians of --repetitions rounds.

usage: bench.py [--repetitions N] [--large-mib N] [--dir DIR] [--keep]
"""

import argparse
import os
import random
import shutil
import statistics
import sys
import tempfile
import time

import olefile

import gxstorage

SMALL_COUNT = 10000
STORAGES = 100
CHUNK = 64 << 10


def small_name(j):
    return "s%03d/stream%05d" % (j // (SMALL_COUNT // STORAGES), j)


def prepare(folder, large_mib):
    rng = random.Random(0x6C61726765)
    large = os.path.join(folder, "w3.cfb")
    small = os.path.join(folder, "w4.cfb")
    if not os.path.exists(large):
        with gxstorage.create(large) as f:
            with f.open_stream("large", create=True) as s:
                for _ in range(large_mib * 16):
                    s.write(rng.randbytes(CHUNK))
    if not os.path.exists(small):
        with gxstorage.create(small) as f:
            for j in range(SMALL_COUNT):
                f.write(small_name(j), rng.randbytes(rng.randint(1, 4000)))
    return large, small


# ---- workloads: (ours, olefile) ------------------------------------------

def w3_ours(path):
    with gxstorage.open(path) as f, f.open_stream("large") as s:
        while s.read(CHUNK):
            pass


def w3_olefile(path):
    with olefile.OleFileIO(path) as f:
        s = f.openstream("large")
        while s.read(CHUNK):
            pass


def w4_ours(path):
    with gxstorage.open(path) as f:
        total = sum(len(f.read(p)) for p in f.listdir())
    assert total > 0


def w4_olefile(path):
    with olefile.OleFileIO(path) as f:
        total = sum(len(f.openstream(p).read()) for p in f.listdir())
    assert total > 0


def w5_ours(path):
    with gxstorage.open(path) as f, f.open_stream(small_name(SMALL_COUNT - 1)) as s:
        assert len(s.read(1)) == 1


def w5_olefile(path):
    with olefile.OleFileIO(path) as f:
        assert len(f.openstream(small_name(SMALL_COUNT - 1)).read(1)) == 1


def median_ms(work, path, rounds):
    work(path)  # warms the page cache and the interpreter
    times = []
    for _ in range(rounds):
        start = time.perf_counter()
        work(path)
        times.append((time.perf_counter() - start) * 1000)
    return statistics.median(times)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--repetitions", type=int, default=5)
    parser.add_argument("--large-mib", type=int, default=64)
    parser.add_argument("--dir")
    parser.add_argument("--keep", action="store_true")
    args = parser.parse_args()
    folder = args.dir or tempfile.mkdtemp(prefix="gxstorage-bench-")
    os.makedirs(folder, exist_ok=True)
    try:
        large, small = prepare(folder, args.large_mib)
        rows = [
            ("W3", "read one %d MiB stream, 64 KiB reads" % args.large_mib,
             w3_ours, w3_olefile, large),
            ("W4", "read all 10,000 small streams", w4_ours, w4_olefile, small),
            ("W5", "open 10,100 entries, first byte of one", w5_ours,
             w5_olefile, small),
        ]
        print("\nPython: gxstorage %s against olefile %s (Python %s), "
              "medians of %d rounds" % (gxstorage.__version__,
                                         olefile.__version__,
                                         sys.version.split()[0],
                                         args.repetitions))
        print("%-4s %-40s %12s %12s %9s" % ("", "workload", "gxstorage",
                                            "olefile", "speed-up"))
        met = True
        for key, title, ours, theirs, path in rows:
            a = median_ms(ours, path, args.repetitions)
            b = median_ms(theirs, path, args.repetitions)
            met = met and b >= 10 * a
            print("%-4s %-40s %9.1f ms %9.1f ms %8.1fx" % (key, title, a, b,
                                                           b / a))
        print("goal: reading at least 10x faster than olefile on W3-W5: %s"
              % ("met" if met else "NOT met"))
    finally:
        if not args.keep and not args.dir:
            shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
