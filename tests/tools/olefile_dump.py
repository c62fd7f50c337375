#!/usr/bin/python3
# Lists every storage and stream of a compound file as read by olefile.
#
# One line per element, sorted:  <type> <path> <size> <adler32>
#   type     "storage" or "stream"
#   path     the names from the root joined with '/', each name written as the
#            hex digits of its UTF-16 code units (4 per unit), so that any
#            name survives the comparison unchanged
#   size     bytes of a stream, 0 for a storage
#   adler32  of the stream's bytes in 8 hex digits, '-' for a storage
#
# A compound file's children trees must also be search trees in the order
# readers look names up in: shorter names first, then code unit by code unit
# with A-Z folded to a-z. A tree out of that order is a failed read.
#
# Usage: olefile_dump.py FILE
# Exit status 0 on success, 1 when olefile cannot read the file.
import sys
import zlib


def units(name):
    data = name.encode("utf-16-le", "surrogatepass")
    return [data[i] | data[i + 1] << 8 for i in range(0, len(data), 2)]


def dump(path):
    import olefile

    ole = olefile.OleFileIO(path)
    out = []

    def in_order(sid):
        if sid == olefile.NOSTREAM:
            return []
        e = ole.direntries[sid]
        return in_order(e.sid_left) + [e] + in_order(e.sid_right)

    def walk(node, prefix):
        keys = []
        for kid in in_order(node.sid_child):
            u = units(kid.name)
            keys.append((len(u), [c + 32 if 65 <= c <= 90 else c for c in u]))
        if keys != sorted(keys):
            raise IOError("children of %r out of order" % (prefix or "/"))
        # Walk the children lists rather than look names up: olefile's own
        # lookup ignores case, and siblings may differ only in case.
        for kid in node.kids:
            p = prefix + "".join("%04x" % u for u in units(kid.name))
            if kid.entry_type == olefile.STGTY_STORAGE:
                out.append("storage %s 0 -" % p)
                walk(kid, p + "/")
            elif kid.entry_type == olefile.STGTY_STREAM:
                data = ole._open(kid.isectStart, kid.size).read() if kid.size else b""
                if len(data) != kid.size:
                    raise IOError("short stream %s" % p)
                out.append("stream %s %d %08x" % (p, len(data), zlib.adler32(data)))

    walk(ole.root, "")
    ole.close()
    return out


def main():
    if len(sys.argv) != 2:
        sys.stderr.write("usage: olefile_dump.py FILE\n")
        return 2
    try:
        lines = dump(sys.argv[1])
    except Exception as exc:  # any refusal by olefile is a failed read
        sys.stderr.write("olefile_dump: %s: %s\n" % (sys.argv[1], exc))
        return 1
    print("".join(l + "\n" for l in sorted(lines)), end="")
    return 0


if __name__ == "__main__":
    sys.exit(main())
