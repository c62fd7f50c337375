// The host calls behind the porting layer's files: reads and writes at
// explicit offsets, and a copy between two files.
// One implementation per host family, chosen by the build: gxdHostPosix.cpp
// and gxdHostWin.cpp. Only the porting layer includes this header.
#ifndef GXSTORAGE_PORTING_GXDHOST_H_
#define GXSTORAGE_PORTING_GXDHOST_H_

#include <cstddef>
#include <cstdint>

// A file descriptor or a Windows handle; kPdNoHandle when none is open.
using pdHandle = intptr_t;
constexpr pdHandle kPdNoHandle = -1;

// Opens the zero-terminated UTF-16 `path` in one of the pdOpenFile modes.
// kPdNoHandle when it cannot be opened (or the path cannot be converted).
pdHandle pdHostOpen(const char16_t* path, int mode);
void pdHostClose(pdHandle file);

// Transfer `size` bytes at byte `offset` of the file, without moving any
// file position. They return the bytes moved, which are fewer than asked
// only at the end of the file (reads) or on an error after some bytes, or
// -1 when nothing could be moved because of an error. Interrupted calls are
// resumed.
int64_t pdHostRead(pdHandle file, uint64_t offset, void* data, size_t size);
int64_t pdHostWrite(pdHandle file, uint64_t offset, const void* data,
                    size_t size);
// Writes `firstSize` bytes from `first` and then `secondSize` bytes from
// `second` at `offset`, in one call where the host can; returns as
// pdHostWrite does, over both pieces together.
int64_t pdHostWriteTwo(pdHandle file, uint64_t offset, const void* first,
                       size_t firstSize, const void* second, size_t secondSize);
// The file's length in bytes; false on an error.
bool pdHostSize(pdHandle file, uint64_t* size);

// Copies `size` bytes at `from` of `source` to `to` of `target`, inside the
// kernel where the host can (copy_file_range), else through a buffer. True
// when every byte was copied; false when the source ended first or a
// transfer failed (what was copied before stays).
bool pdHostCopy(pdHandle source, uint64_t from, pdHandle target, uint64_t to,
                uint64_t size);
// The same through a buffer of up to 1 MiB: what pdHostCopy falls back to.
bool pdHostCopyThroughMemory(pdHandle source, uint64_t from, pdHandle target,
                             uint64_t to, uint64_t size);

// pdTableAllocate and pdTableFree (porting/gxdTable.h) are defined with
// these calls, in the same files.

#endif  // GXSTORAGE_PORTING_GXDHOST_H_
