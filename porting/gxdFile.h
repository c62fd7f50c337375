// Positioned file I/O for the read-write service: a file opened on a UTF-16
// path, read and written at 64-bit offsets, resized, flushed to stable
// storage and locked against other openers. The service works only through
// pdFile, so tests can hand it a file that fails or comes up short on demand.
#ifndef GXSTORAGE_PORTING_GXDFILE_H_
#define GXSTORAGE_PORTING_GXDFILE_H_

#include <cstddef>
#include <cstdint>
#include <memory>

// Why a call failed, as the host told it.
enum pdFileError : int {
  kPdErrNone = 0,
  kPdErrIO,        // a read or write failed
  kPdErrNoSpace,   // the device or a quota is full
  kPdErrNotFound,  // the file (or a folder on the way) does not exist
  kPdErrExists,    // the file exists and the mode asked for a new one
  kPdErrAccess,    // the host refused access (permissions, read-only device)
  kPdErrShare,     // another opener holds a conflicting lock
  kPdErrTooLarge,  // offset or size beyond what the host file can hold
  kPdErrName,      // the path cannot be expressed on this host
};

class pdFile {
 public:
  virtual ~pdFile() = default;

  // Reads up to `size` bytes at `offset` into `data`. Returns the number of
  // bytes read, fewer than `size` only at the end of the file, or -1 on an
  // error (see lastError()).
  virtual int64_t readAt(uint64_t offset, void* data, size_t size) = 0;
  // Writes all `size` bytes at `offset`, growing the file when needed;
  // false on an error, after which the bytes in that range are unspecified.
  virtual bool writeAt(uint64_t offset, const void* data, size_t size) = 0;
  // The file's current length in bytes.
  virtual bool size(uint64_t& bytes) = 0;
  // Cuts or extends (with zeros) the file to `bytes`.
  virtual bool truncate(uint64_t bytes) = 0;
  // Makes everything written so far durable. `dataOnly` allows the host to
  // skip metadata that reading the data back does not need.
  virtual bool sync(bool dataOnly) = 0;
  // Makes [offset, offset + bytes) read as zeros without changing the
  // file's length; the default writes zeros.
  virtual bool zeroRange(uint64_t offset, uint64_t bytes);
  // The reason for the last failed call.
  virtual int lastError() const = 0;
};

// Modes of pdOpenNativeFile.
enum pdFileMode : int {
  kPdFileRead = 0,       // existing file, read only
  kPdFileReadWrite = 1,  // existing file, read and write
  kPdFileCreate = 2,     // created, or emptied when it exists
  kPdFileCreateNew = 3,  // created; kPdErrExists when it exists
};

// Locks taken on the whole file for as long as it stays open; a conflicting
// lock held by any other opener (this process included) fails the open with
// kPdErrShare.
enum pdFileLock : int {
  kPdLockNone = 0,
  kPdLockShared = 1,     // other shared lockers allowed, writers not
  kPdLockExclusive = 2,  // nobody else
};

// Opens `path` (zero-terminated UTF-16). On failure returns null and sets
// `error`.
std::unique_ptr<pdFile> pdOpenNativeFile(const char16_t* path, int mode,
                                         int lock, int& error);

// An empty file held in memory, for scratch work that never reaches a disk.
std::unique_ptr<pdFile> pdOpenMemoryFile();

// Replaces `to` with `from` in one step where the host allows it.
bool pdRenameFile(const char16_t* from, const char16_t* to);
// Removes a file; false when it could not be removed.
bool pdRemoveFile(const char16_t* path);

#endif  // GXSTORAGE_PORTING_GXDFILE_H_
