// What the Python module sees of one open compound file, whichever engine
// serves it: the portable engine (read-only, fast) or the platform's
// structured-storage service (read-only for metadata, or one transaction for
// edits). Elements are named by their path from the root, one name per
// level; the root is the empty path.
//
// Every call may run with the interpreter's lock released, so each file
// serialises its calls, and those of its streams, with its own mutex (the
// engines serve one thread at a time). Failures are thrown as gxpyFailure,
// which the module turns into Python exceptions.
#ifndef GXSTORAGE_PYTHON_GXPYFILE_H_
#define GXSTORAGE_PYTHON_GXPYFILE_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/gxPlatform.h"

typedef std::vector<std::u16string> gxpyNames;

// A failed call: the result code and what failed. `kind` picks an exception
// class other than the one the code maps to (a storage where a stream was
// expected, and the like).
struct gxpyFailure {
  enum Kind { kByCode, kIsStorage, kNotStorage, kCorrupt, kClosed };
  HRESULT hr;
  std::string what;  // the element path or file name the failure is about
  Kind kind = kByCode;
};

[[noreturn]] void gxpyFail(HRESULT hr, const gxpyNames& names,
                           gxpyFailure::Kind kind = gxpyFailure::kByCode);
[[noreturn]] void gxpyFailFile(HRESULT hr, const std::u16string& path);
// The path as the Python side writes it: names joined with '/', in UTF-8
// (unpaired surrogates written as \uXXXX).
std::string gxpyDisplay(const gxpyNames& names);
std::string gxpyUtf8(const std::u16string& text);

// One element of a storage.
struct gxpyChild {
  std::u16string name;
  uint32_t type;  // STGTY_STORAGE or STGTY_STREAM
  uint64_t size;  // 0 for a storage
};

// Everything Stat reports about an element.
struct gxpyStat {
  std::u16string name;
  uint32_t type = 0;
  uint64_t size = 0;
  uint8_t clsid[16] = {};  // in the file's byte order
  uint32_t stateBits = 0;
  uint64_t created = 0;  // FILETIME units, 0 when not recorded
  uint64_t modified = 0;
};

// An open stream. Calls lock the file's mutex; once the stream or its file
// is closed they fail with gxpyFailure::kClosed.
class gxpyStream {
 public:
  virtual ~gxpyStream() = default;
  virtual uint64_t size() = 0;
  // Reads up to `count` bytes at `offset`; fewer only at the stream's end.
  virtual size_t readAt(uint64_t offset, void* data, size_t count) = 0;
  virtual void writeAt(uint64_t offset, const void* data, size_t count) = 0;
  virtual void setSize(uint64_t size) = 0;
  virtual void close() = 0;
};

class gxpyFile {
 public:
  virtual ~gxpyFile() = default;

  // The children of storage `names`, in no particular order.
  virtual std::vector<gxpyChild> children(const gxpyNames& names) = 0;
  // Type and size of an element (a storage before a stream of that name);
  // false when there is none.
  virtual bool lookup(const gxpyNames& names, gxpyChild& found) = 0;
  virtual gxpyStat stat(const gxpyNames& names) = 0;
  // Opens stream `names`; with `create` a missing stream is created (and
  // the storages on the way).
  virtual std::shared_ptr<gxpyStream> openStream(const gxpyNames& names,
                                                 bool create) = 0;
  // Replaces (or creates) stream `names` with `count` bytes at `data`.
  virtual void write(const gxpyNames& names, const void* data,
                     size_t count) = 0;
  // Removes a stream, or a storage with everything below it.
  virtual void remove(const gxpyNames& names) = 0;
  virtual void rename(const gxpyNames& names, const std::u16string& to) = 0;
  // Creates the storages of `names` that are missing; false when all of
  // them existed already.
  virtual bool makeStorages(const gxpyNames& names) = 0;
  virtual void commit() = 0;
  virtual void revert() = 0;
  // Ends the session (committing first when `commit`); later calls fail
  // with kClosed. Closing twice does nothing.
  virtual void close(bool commit) = 0;

  // Held by every call of the file and of its streams.
  std::recursive_mutex& mutex() { return mutex_; }

 protected:
  std::recursive_mutex mutex_;
};

// Opens `path` read-only through the portable engine.
std::shared_ptr<gxpyFile> gxpyOpenPortable(const std::u16string& path);

// Opens or creates `path` through the platform's service.
enum class gxpyPlatformMode { kRead, kEdit, kCreate };
std::shared_ptr<gxpyFile> gxpyOpenPlatform(const std::u16string& path,
                                           gxpyPlatformMode mode);

#endif  // GXSTORAGE_PYTHON_GXPYFILE_H_
