"""Read, create and edit compound files (structured storage) from Python.

A compound file holds a tree of named *storages* (folders) and *streams*
(byte sequences) inside one file. ::

    import gxstorage

    with gxstorage.open("mail.msg") as f:              # read-only
        for entry in f.walk():
            print(entry.path, entry.kind, entry.size)
        body = f.read("__substg1.0_1000001F")

    with gxstorage.open("doc.cfb", "r+") as f:          # one transaction
        f.write("Docs/Greeting", b"hello")
        f.remove("Old")
        f.rename("Docs/Greeting", "Hello")
        f.makedirs("A/B")

    with gxstorage.create("new.cfb") as f:
        f.write("Stream", b"data")

Element paths are ``"a/b"`` strings or sequences of names (``["a", "b"]``,
which can also hold names containing ``/``); the root is ``""``. Lookups
take an exact name first, then one that matches when both are folded to
upper case, so names are found case-insensitively as in olefile.

Read-only files are read by the library's portable engine. Files opened with
``"r+"`` and files made by :func:`create` go through the library's
read-write service as one transaction: the changes reach the file only when
the ``with`` block ends without an exception (or at :meth:`StorageFile.commit`
and :meth:`StorageFile.close`), atomically; an exception drops them.

Failures raise :class:`FileNotFoundError`, :class:`PermissionError`,
:class:`CorruptFileError` (a :class:`ValueError`) and other built-in
exceptions; each carries the library's result code as ``hresult`` (an
unsigned 32-bit int, e.g. ``0x80030002`` for a missing element).
"""

from __future__ import annotations

import datetime as _datetime
import errno as _errno
import io
import os
import secrets
import uuid
import weakref
from typing import (Iterator, List, NamedTuple, Optional, Sequence, Tuple,
                    Union)

from . import _gxstorage
from ._gxstorage import CorruptFileError

__all__ = [
    "CorruptFileError", "Entry", "StatResult", "Stream", "StorageFile",
    "create", "open", "STORAGE", "STREAM",
]
__version__ = "0.1.0"

#: Values of :attr:`Entry.kind` and :attr:`StatResult.kind`.
STORAGE = "storage"
STREAM = "stream"
_KINDS = {1: STORAGE, 2: STREAM}

_STG_E_FILENOTFOUND = 0x80030002
_STG_E_FILEALREADYEXISTS = 0x80030050
_STG_E_INVALIDNAME = 0x800300FC

ElementPath = Union[str, Sequence[str]]
FilePath = Union[str, "os.PathLike[str]"]


class Entry(NamedTuple):
    """One element of the tree, as :meth:`StorageFile.walk` yields it."""

    path: str               #: names joined with "/"
    names: Tuple[str, ...]  #: the names from the root, one per level
    kind: str               #: STORAGE or STREAM
    size: int               #: bytes of a stream, 0 for a storage


class StatResult(NamedTuple):
    """What :meth:`StorageFile.stat` reports about an element."""

    name: str                               #: "" for the root
    kind: str                               #: STORAGE or STREAM
    size: int                               #: bytes of a stream, else 0
    clsid: uuid.UUID                        #: class id; all zero when unset
    state_bits: int                         #: the 32 user state bits
    ctime: Optional[_datetime.datetime]     #: creation time (UTC), or None
    mtime: Optional[_datetime.datetime]     #: modification time (UTC), or None


def _names(path: ElementPath) -> Sequence[str]:
    """The names of a path; the extension module checks that they are str."""
    if isinstance(path, str):
        return [name for name in path.split("/") if name]
    return path if isinstance(path, (list, tuple)) else list(path)


def _error(kind: type, hresult: int, message: str, path: str) -> Exception:
    if issubclass(kind, OSError):
        codes = {FileNotFoundError: _errno.ENOENT,
                 FileExistsError: _errno.EEXIST,
                 NotADirectoryError: _errno.ENOTDIR}
        error = kind(codes.get(kind, _errno.EIO), message, path)
    else:
        error = kind(f"{message}: {path!r}")
    error.hresult = hresult  # type: ignore[attr-defined]
    return error


_FILETIME_EPOCH = _datetime.datetime(1601, 1, 1, tzinfo=_datetime.timezone.utc)


def _time(filetime: int) -> Optional[_datetime.datetime]:
    """A time in 100 ns units since 1601; None when zero (not recorded) or
    beyond what datetime holds (a damaged entry)."""
    try:
        if filetime:
            return _FILETIME_EPOCH + _datetime.timedelta(microseconds=filetime // 10)
    except OverflowError:
        pass
    return None


class Stream(io.RawIOBase):
    """A stream of a compound file as a binary file object.

    Reading, seeking and :meth:`tell` work in every mode; :meth:`write` and
    :meth:`truncate` in files opened with ``"r+"`` or made by
    :func:`create`. A write past the end grows the stream (a gap reads as
    zeros). The stream becomes unusable when its file is closed.
    """

    def __init__(self, handle: _gxstorage.Stream, name: str, writable: bool):
        super().__init__()
        self._handle = handle
        self._position = 0
        self._writable = writable
        self.name = name

    def readable(self) -> bool:
        return True

    def writable(self) -> bool:
        return self._writable

    def seekable(self) -> bool:
        return True

    @property
    def size(self) -> int:
        """The stream's current length in bytes."""
        self._checkClosed()
        return self._handle.size()

    def readinto(self, buffer) -> int:  # type: ignore[override]
        self._checkClosed()
        done = self._handle.readinto(self._position, buffer)
        self._position += done
        return done

    def read(self, size: Optional[int] = -1) -> bytes:
        self._checkClosed()
        data = self._handle.read(self._position,
                                 -1 if size is None or size < 0 else size)
        self._position += len(data)
        return data

    def readall(self) -> bytes:
        return self.read(-1)

    def write(self, data) -> int:  # type: ignore[override]
        self._checkClosed()
        if not self._writable:
            raise io.UnsupportedOperation("the file was opened read-only")
        done = self._handle.write(self._position, data)
        self._position += done
        return done

    def seek(self, offset: int, whence: int = io.SEEK_SET) -> int:
        self._checkClosed()
        if whence == io.SEEK_CUR:
            offset += self._position
        elif whence == io.SEEK_END:
            offset += self._handle.size()
        elif whence != io.SEEK_SET:
            raise ValueError(f"invalid whence ({whence})")
        if offset < 0:
            raise ValueError(f"negative seek position {offset}")
        self._position = offset
        return offset

    def tell(self) -> int:
        self._checkClosed()
        return self._position

    def truncate(self, size: Optional[int] = None) -> int:
        self._checkClosed()
        if not self._writable:
            raise io.UnsupportedOperation("the file was opened read-only")
        size = self._position if size is None else size
        self._handle.truncate(size)
        return size

    def close(self) -> None:
        if not self.closed:
            self._handle.close()
        super().close()


def _discard(core, meta, temporary: Optional[str]) -> None:
    """Ends a file without committing; removes an unplaced created file."""
    for session in (core, meta):
        if session is not None:
            session.close(False)
    if temporary is not None:
        try:
            os.remove(temporary)
        except FileNotFoundError:
            pass


class StorageFile:
    """An open compound file; made by :func:`open` and :func:`create`.

    Use it as a context manager. In ``"r+"`` and create mode a clean exit
    commits, an exception reverts; :meth:`close` commits too. A file that is
    garbage-collected without being closed drops what was not committed.
    """

    def __init__(self, core, path: str, mode: str,
                 temporary: Optional[str] = None):
        self._core = core
        self._meta = None         # read-only service session, for stat in "r"
        self._temporary = temporary  # created file not yet at its path
        self.path = path
        self.mode = mode
        self._finalizer = weakref.finalize(self, _discard, core, None,
                                           temporary)

    # ---- the file ----------------------------------------------------------

    @property
    def closed(self) -> bool:
        return not self._finalizer.alive

    def __enter__(self) -> "StorageFile":
        return self

    def __exit__(self, kind, value, traceback) -> None:
        if kind is None:
            self.close()
        else:
            self._drop()

    def __repr__(self) -> str:
        state = "closed" if self.closed else "open"
        return f"<gxstorage.StorageFile {self.path!r} mode={self.mode!r} {state}>"

    def commit(self) -> None:
        """Makes every change so far durable, atomically (no-op in "r")."""
        self._check()
        self._core.commit()
        if self._temporary is not None:
            os.replace(self._temporary, self.path)
            self._temporary = None
            self._finalizer.detach()
            self._finalizer = weakref.finalize(self, _discard, self._core,
                                               None, None)

    def revert(self) -> None:
        """Drops every change since the last commit. Open streams of the
        file become unusable."""
        self._check()
        self._core.revert()

    def close(self) -> None:
        """Commits (except in "r") and closes the file and its streams."""
        if self.closed:
            return
        try:
            if self.mode != "r":
                self.commit()
        finally:
            self._drop()

    def _drop(self) -> None:
        if not self.closed:
            self._finalizer.detach()
            _discard(self._core, self._meta, self._temporary)
            self._meta = None

    def _check(self) -> None:
        if self.closed:
            raise ValueError("I/O operation on closed file")

    # ---- the tree ----------------------------------------------------------

    def _children(self, names: Tuple[str, ...]) -> list:
        return sorted(self._core.children(names), key=lambda c: c[0])

    def _tree(self, top: ElementPath) -> Iterator[Tuple[Tuple[str, ...], int, int]]:
        """(names, kind code, size) of every element below `top`, in the
        order of walk()."""
        self._check()
        start = tuple(_names(top))
        stack = [(start, iter(self._children(start)))]
        while stack:
            prefix, children = stack[-1]
            for name, kind, size in children:
                names = prefix + (name,)
                yield names, kind, size
                if kind == 1:
                    stack.append((names, iter(self._children(names))))
                    break
            else:
                stack.pop()

    def walk(self, top: ElementPath = "") -> Iterator[Entry]:
        """Every element below `top` (the root by default): each storage
        right before its own elements, and the elements of a storage sorted
        by name, in the order olefile lists them."""
        for names, kind, size in self._tree(top):
            yield Entry("/".join(names), names, _KINDS.get(kind, "unknown"), size)

    def listdir(self, streams: bool = True,
                storages: bool = False) -> List[List[str]]:
        """The paths of all streams and/or storages, as lists of names, in
        the order olefile's ``listdir`` gives them (the root excluded)."""
        wanted = (False, storages, streams)
        return [list(names) for names, kind, _ in self._tree("")
                if kind < 3 and wanted[kind]]

    def exists(self, path: ElementPath) -> bool:
        """True when `path` names a stream or a storage."""
        self._check()
        return self._core.lookup(_names(path)) is not None

    def get_size(self, path: ElementPath) -> int:
        """The size of stream `path` in bytes. Raises FileNotFoundError when
        it does not exist and TypeError for a storage, as olefile does."""
        self._check()
        found = self._core.lookup(_names(path))
        shown = "/".join(map(str, _names(path)))
        if found is None:
            raise _error(FileNotFoundError, _STG_E_FILENOTFOUND,
                         "no such file or element", shown)
        if found[0] != 2:
            raise _error(TypeError, _STG_E_FILENOTFOUND,
                         "is a storage, not a stream", shown)
        return found[1]

    def stat(self, path: ElementPath = "") -> StatResult:
        """Name, kind, size, class id, state bits and times of an element
        (the root by default). In "r" mode the first call opens the file a
        second time, through the read-write service, with a shared lock."""
        self._check()
        core = self._core
        if self.mode == "r":
            if self._meta is None:
                self._meta = _gxstorage.open_platform(self.path, "r")
                self._finalizer.detach()
                self._finalizer = weakref.finalize(self, _discard, self._core,
                                                   self._meta, None)
            core = self._meta
        name, kind, size, clsid, bits, ctime, mtime = core.stat(_names(path))
        return StatResult(name, _KINDS.get(kind, "unknown"), size,
                          uuid.UUID(bytes_le=clsid), bits, _time(ctime),
                          _time(mtime))

    # ---- streams -----------------------------------------------------------

    def read(self, path: ElementPath) -> bytes:
        """The whole content of stream `path`."""
        self._check()
        return self._core.read(_names(path))

    def open_stream(self, path: ElementPath, create: bool = False) -> Stream:
        """Stream `path` as a binary file object (see :class:`Stream`). With
        `create` (not in "r" mode) a missing stream is created, with the
        storages on the way."""
        self._check()
        names = _names(path)
        handle = self._core.open_stream(names, create)
        return Stream(handle, "/".join(names), self.mode != "r")

    # ---- edits ("r+" and create) ------------------------------------------

    def write(self, path: ElementPath, data) -> None:
        """Makes stream `path` hold `data` (any bytes-like object): an
        existing stream is replaced, a missing one created with the storages
        on the way."""
        self._check()
        self._core.write(_names(path), data)

    def remove(self, path: ElementPath) -> None:
        """Removes a stream, or a storage with everything below it."""
        self._check()
        self._core.remove(_names(path))

    def rename(self, path: ElementPath, new_name: str) -> None:
        """Gives element `path` the name `new_name` in the same storage."""
        self._check()
        if "/" in new_name:
            raise _error(ValueError, _STG_E_INVALIDNAME,
                         "a new name is one name, without '/'", new_name)
        self._core.rename(_names(path), new_name)

    def makedirs(self, path: ElementPath, exist_ok: bool = False) -> None:
        """Creates storage `path` and the storages above it, like
        :func:`os.makedirs`: FileExistsError when it exists already, unless
        `exist_ok`."""
        self._check()
        names = _names(path)
        if not self._core.makedirs(names) and not exist_ok:
            raise _error(FileExistsError, _STG_E_FILEALREADYEXISTS,
                         "already exists", "/".join(names))


def open(path: FilePath, mode: str = "r") -> StorageFile:
    """Opens an existing compound file.

    ``"r"`` reads it with the portable engine (fast, nothing is written);
    ``"r+"`` opens it for changes, as one transaction with an exclusive lock
    on the file.
    """
    path = os.fspath(path)
    if not isinstance(path, str):
        path = os.fsdecode(path)
    if mode == "r":
        return StorageFile(_gxstorage.open_portable(path), path, mode)
    if mode == "r+":
        return StorageFile(_gxstorage.open_platform(path, "r+"), path, mode)
    raise ValueError(f"invalid mode {mode!r} (use 'r' or 'r+'; "
                     "gxstorage.create makes new files)")


def create(path: FilePath) -> StorageFile:
    """Creates a new compound file (version 3) at `path`.

    It is built in a hidden file beside `path` and moved over `path` (which
    is replaced when it exists) at the first commit, normally when the
    ``with`` block ends; after an exception nothing appears at `path`.
    """
    path = os.fspath(path)
    if not isinstance(path, str):
        path = os.fsdecode(path)
    folder, base = os.path.split(path)
    temporary = os.path.join(
        folder, f".{base}.{os.getpid()}-{secrets.token_hex(4)}.gxtmp")
    core = _gxstorage.open_platform(temporary, "create")
    return StorageFile(core, path, "create", temporary)
