// The portable backend's abstract storage and stream, and its probe.
//
// Reference counts: every storage and stream starts at 1. addRef adds one
// and returns the new count; release subtracts one (if above zero) and
// destroys the object at zero. An object handed out by openStream,
// openStorage, createStream or createStorage carries one reference for the
// caller; the parent storage keeps one of its own until it is destroyed. A
// stream handed out by clone carries no reference for the caller: it belongs
// to the stream that cloned it. An enumerator belongs to the storage that
// made it and is never deleted by the caller.
#ifndef GXSTORAGE_PORTABLE_GXDINTERFACES_H_
#define GXSTORAGE_PORTABLE_GXDINTERFACES_H_

#include <cstdint>

#include "gxStorage.h"

class gxdIStream;

class gxdIStorage {
 public:
  virtual ~gxdIStorage() = default;
  virtual gxResult openStream(const char16_t* name, gxdIStream** out) = 0;
  virtual gxResult openStorage(const char16_t* name, gxdIStorage** out) = 0;
  virtual gxResult createStream(const char16_t* name, gxdIStream** out) = 0;
  virtual gxResult createStorage(const char16_t* name, gxdIStorage** out) = 0;
  // Name, type 1, size 0; always 0.
  virtual gxResult stat(gxdsSTATSTG* info) = 0;
  // A new enumerator over the children open right now; always true.
  virtual bool enumElements(CGxAbsStgEnum** out) = 0;
  virtual bool isFailed() = 0;
  virtual bool isReadOnly() = 0;
  virtual bool isRoot() = 0;
  // Flushes and commits created children; the root then writes the file.
  virtual void commit() = 0;
  virtual uint32_t addRef() = 0;
  virtual void release() = 0;
};

class gxdIStream {
 public:
  virtual ~gxdIStream() = default;
  virtual bool isFailed() = 0;
  virtual bool isReadOnly() = 0;
  // Name, type 2, size; always 0.
  virtual gxResult stat(gxdsSTATSTG* info) = 0;
  virtual uint64_t position() = 0;
  // Moves to an absolute position, clamped to the stream's size.
  virtual void setPosition(uint64_t target) = 0;
  // 0, S_FALSE (nothing to deliver) or E_FAIL.
  virtual gxResult read(void* data, uint64_t count, uint64_t* done) = 0;
  // 0 or E_FAIL; appends through a 512-byte block buffer.
  virtual gxResult write(const void* data, uint64_t count,
                         uint64_t* written) = 0;
  // A new stream on the same element, owned by this one; always true.
  virtual bool clone(gxdIStream** out) = 0;
  // Writes out a partly filled block buffer.
  virtual void flush() = 0;
  virtual uint32_t addRef() = 0;
  virtual void release() = 0;
};

// 0 when the file's 512-byte header has the signature, major version 3 or 4
// and zero reserved bytes; STG_E_FILENOTFOUND when the file cannot be
// opened, E_FAIL when 512 bytes cannot be read, STG_E_INVALIDHEADER
// otherwise. Never changes the file.
gxResult gxdStgIsStorageFile(const char16_t* path);

// Open (read-only) or create a portable file; mode is accepted and not used.
// 0 with `*out` set, or E_FAIL with `*out` untouched.
gxResult gxdStgOpenStorage(const char16_t* path, uint32_t mode,
                           gxdIStorage** out);
gxResult gxdStgCreateStorage(const char16_t* path, uint32_t mode,
                             gxdIStorage** out);

#endif  // GXSTORAGE_PORTABLE_GXDINTERFACES_H_
