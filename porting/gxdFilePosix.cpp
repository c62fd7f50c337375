// pdFile over a POSIX file descriptor. Locks are open-file-description locks
// where the host has them, so that two opens in one process conflict just as
// opens in two processes do.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "porting/gxdFile.h"
#include "porting/gxdPorting.h"

namespace {

int errorOf(int code) {
  switch (code) {
    case ENOSPC:
    case EDQUOT:
      return kPdErrNoSpace;
    case ENOENT:
    case ENOTDIR:
      return kPdErrNotFound;
    case EEXIST:
      return kPdErrExists;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
      return kPdErrAccess;
    case EFBIG:
    case EOVERFLOW:
      return kPdErrTooLarge;
    case EAGAIN:
#if EAGAIN != EWOULDBLOCK
    case EWOULDBLOCK:
#endif
      return kPdErrShare;
    default:
      return kPdErrIO;
  }
}

class pdPosixFile : public pdFile {
 public:
  explicit pdPosixFile(int fd) : fd_(fd) {}
  ~pdPosixFile() override { ::close(fd_); }
  pdPosixFile(const pdPosixFile&) = delete;
  pdPosixFile& operator=(const pdPosixFile&) = delete;

  int64_t readAt(uint64_t offset, void* data, size_t size) override {
    size_t done = 0;
    while (done < size) {
      ssize_t n = ::pread(fd_, static_cast<char*>(data) + done, size - done,
                          static_cast<off_t>(offset + done));
      if (n < 0) {
        if (errno == EINTR) continue;
        error_ = errorOf(errno);
        return -1;
      }
      if (n == 0) break;
      done += static_cast<size_t>(n);
    }
    return static_cast<int64_t>(done);
  }

  bool writeAt(uint64_t offset, const void* data, size_t size) override {
    size_t done = 0;
    while (done < size) {
      ssize_t n = ::pwrite(fd_, static_cast<const char*>(data) + done,
                           size - done, static_cast<off_t>(offset + done));
      if (n < 0) {
        if (errno == EINTR) continue;
        return fail();
      }
      if (n == 0) {
        error_ = kPdErrNoSpace;
        return false;
      }
      done += static_cast<size_t>(n);
    }
    return true;
  }

  bool size(uint64_t& bytes) override {
    struct stat st;
    if (::fstat(fd_, &st) != 0) return fail();
    bytes = static_cast<uint64_t>(st.st_size);
    return true;
  }

  bool truncate(uint64_t bytes) override {
    while (::ftruncate(fd_, static_cast<off_t>(bytes)) != 0)
      if (errno != EINTR) return fail();
    return true;
  }

  bool sync(bool dataOnly) override {
#if defined(__linux__)
    int rc = dataOnly ? ::fdatasync(fd_) : ::fsync(fd_);
#else
    (void)dataOnly;
    int rc = ::fsync(fd_);
#endif
    return rc == 0 || fail();
  }

  bool zeroRange(uint64_t offset, uint64_t bytes) override {
#if defined(__linux__) && defined(FALLOC_FL_PUNCH_HOLE)
    if (::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                    static_cast<off_t>(offset), static_cast<off_t>(bytes)) == 0)
      return true;
#endif
    return pdFile::zeroRange(offset, bytes);
  }

  int lastError() const override { return error_; }

 private:
  bool fail() {
    error_ = errorOf(errno);
    return false;
  }

  int fd_;
  int error_ = kPdErrNone;
};

bool lockFile(int fd, int lock) {
  if (lock == kPdLockNone) return true;
  struct flock request = {};
  request.l_type = lock == kPdLockExclusive ? F_WRLCK : F_RDLCK;
  request.l_whence = SEEK_SET;
  request.l_start = 0;
  request.l_len = 0;  // the whole file, however long it grows
#if defined(F_OFD_SETLK)
  return ::fcntl(fd, F_OFD_SETLK, &request) == 0;
#else
  return ::fcntl(fd, F_SETLK, &request) == 0;
#endif
}

bool nativePath(const char16_t* path, std::string& out) {
  if (path == nullptr || !pdUtf16ToUtf8(std::u16string(path), out)) return false;
  return !out.empty() && out.find('\0') == std::string::npos;
}

}  // namespace

std::unique_ptr<pdFile> pdOpenNativeFile(const char16_t* path, int mode,
                                         int lock, int& error) {
  error = kPdErrNone;
  std::string native;
  if (!nativePath(path, native)) {
    error = kPdErrName;
    return nullptr;
  }
  int flags = O_CLOEXEC;
  switch (mode) {
    case kPdFileRead: flags |= O_RDONLY; break;
    case kPdFileReadWrite: flags |= O_RDWR; break;
    case kPdFileCreate: flags |= O_RDWR | O_CREAT; break;
    case kPdFileCreateNew: flags |= O_RDWR | O_CREAT | O_EXCL; break;
    default: error = kPdErrAccess; return nullptr;
  }
  int fd;
  do {
    fd = ::open(native.c_str(), flags, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    error = errorOf(errno);
    return nullptr;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    ::close(fd);
    error = kPdErrAccess;
    return nullptr;
  }
  if (!lockFile(fd, lock)) {
    error = errno == EAGAIN || errno == EACCES ? kPdErrShare : errorOf(errno);
    ::close(fd);
    return nullptr;
  }
  // A created file is emptied only once the lock is held, so that opening a
  // file someone else has open never destroys their data.
  if (mode == kPdFileCreate && ::ftruncate(fd, 0) != 0) {
    error = errorOf(errno);
    ::close(fd);
    return nullptr;
  }
  return std::unique_ptr<pdFile>(new pdPosixFile(fd));
}

bool pdRenameFile(const char16_t* from, const char16_t* to) {
  std::string a, b;
  return nativePath(from, a) && nativePath(to, b) &&
         std::rename(a.c_str(), b.c_str()) == 0;
}

bool pdRemoveFile(const char16_t* path) {
  std::string native;
  return nativePath(path, native) && ::unlink(native.c_str()) == 0;
}
