// Host calls on POSIX systems: pread/pwrite on file descriptors,
// copy_file_range on Linux, anonymous mappings in large pages for tables.
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include "porting/gxdHost.h"
#include "porting/gxdPorting.h"
#include "porting/gxdTable.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define GXD_HOST_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define GXD_HOST_SANITIZED 1
#endif

namespace {

// Transfers are cut into pieces the system takes in one call.
constexpr size_t kMaxTransfer = size_t{1} << 30;

}  // namespace

pdHandle pdHostOpen(const char16_t* path, int mode) {
  std::string native;
  if (!pdUtf16ToUtf8(path, native) || native.find('\0') != std::string::npos)
    return kPdNoHandle;
  int flags = O_CLOEXEC;
  switch (mode) {
    case kPdOpenRead:
      flags |= O_RDONLY;
      break;
    case kPdOpenCreate:
    case kPdOpenTemp:
      // Emptied on open, so a created file replaces an old one wholly and no
      // stale tail survives past what the save writes.
      flags |= O_RDWR | O_CREAT | O_TRUNC;
      break;
    default:
      return kPdNoHandle;
  }
  int fd;
  do {
    fd = ::open(native.c_str(), flags, 0666);
  } while (fd < 0 && errno == EINTR);
  return fd < 0 ? kPdNoHandle : fd;
}

void pdHostClose(pdHandle file) {
  if (file != kPdNoHandle) ::close(static_cast<int>(file));
}

int64_t pdHostRead(pdHandle file, uint64_t offset, void* data, size_t size) {
  uint8_t* out = static_cast<uint8_t*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = ::pread(static_cast<int>(file), out + done,
                              std::min(size - done, kMaxTransfer),
                              static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return done > 0 ? static_cast<int64_t>(done) : -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<int64_t>(done);
}

int64_t pdHostWrite(pdHandle file, uint64_t offset, const void* data,
                    size_t size) {
  const uint8_t* in = static_cast<const uint8_t*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = ::pwrite(static_cast<int>(file), in + done,
                               std::min(size - done, kMaxTransfer),
                               static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return done > 0 ? static_cast<int64_t>(done) : -1;
    done += static_cast<size_t>(n);
  }
  return static_cast<int64_t>(done);
}

int64_t pdHostWriteTwo(pdHandle file, uint64_t offset, const void* first,
                       size_t firstSize, const void* second,
                       size_t secondSize) {
  struct iovec pieces[2];
  pieces[0].iov_base = const_cast<void*>(first);
  pieces[0].iov_len = firstSize;
  pieces[1].iov_base = const_cast<void*>(second);
  pieces[1].iov_len = secondSize;
  ssize_t n;
  do {
    n = ::pwritev(static_cast<int>(file), pieces, 2,
                  static_cast<off_t>(offset));
  } while (n < 0 && errno == EINTR);
  if (n < 0) return -1;
  // What one call left over goes out piece by piece.
  size_t done = static_cast<size_t>(n);
  if (done < firstSize) {
    const int64_t k = pdHostWrite(file, offset + done,
                                  static_cast<const uint8_t*>(first) + done,
                                  firstSize - done);
    if (k != static_cast<int64_t>(firstSize - done))
      return static_cast<int64_t>(done) + std::max<int64_t>(k, 0);
    done = firstSize;
  }
  if (done < firstSize + secondSize) {
    const size_t from = done - firstSize;
    const int64_t k = pdHostWrite(file, offset + done,
                                  static_cast<const uint8_t*>(second) + from,
                                  secondSize - from);
    return static_cast<int64_t>(done) + std::max<int64_t>(k, 0);
  }
  return static_cast<int64_t>(done);
}

bool pdHostSize(pdHandle file, uint64_t* size) {
  struct stat st;
  if (::fstat(static_cast<int>(file), &st) != 0 || st.st_size < 0) return false;
  *size = static_cast<uint64_t>(st.st_size);
  return true;
}

bool pdHostCopy(pdHandle source, uint64_t from, pdHandle target, uint64_t to,
                uint64_t size) {
#if defined(__linux__)
  // The kernel moves the bytes from one file's pages to the other's; a file
  // system that cannot (or an older kernel) is copied through memory below.
  while (size > 0) {
    loff_t in = static_cast<loff_t>(from), out = static_cast<loff_t>(to);
    const ssize_t n = ::copy_file_range(
        static_cast<int>(source), &in, static_cast<int>(target), &out,
        static_cast<size_t>(std::min<uint64_t>(size, kMaxTransfer)), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    if (n == 0) return false;  // the source ended
    from += static_cast<uint64_t>(n);
    to += static_cast<uint64_t>(n);
    size -= static_cast<uint64_t>(n);
  }
#endif
  return pdHostCopyThroughMemory(source, from, target, to, size);
}

#if defined(__linux__) && defined(MADV_HUGEPAGE) && !defined(GXD_HOST_SANITIZED)

namespace {
// Tables from 1 MiB on are mapped on their own, starting on a 2 MiB
// boundary: one large page costs one page fault where 4 KiB pages cost 512.
// A table below 2 MiB takes one whole large page (at most twice its size);
// a larger one ends in 4 KiB pages after its last whole large page.
constexpr size_t kLargeTable = size_t{1} << 20;
constexpr size_t kLargePage = size_t{2} << 20;
constexpr size_t kSmallPage = size_t{4} << 10;

size_t mappedLength(size_t bytes) {
  if (bytes < kLargePage) return kLargePage;
  return (bytes + kSmallPage - 1) / kSmallPage * kSmallPage;
}
}  // namespace

void* pdTableAllocate(size_t bytes) {
  if (bytes < kLargeTable) return ::operator new(bytes);
  const size_t length = mappedLength(bytes);
  if (length < bytes) throw std::bad_alloc();
  // Mapped one page longer, then trimmed to a 2 MiB boundary at both ends,
  // since only aligned ranges can be backed by large pages.
  void* mapped = ::mmap(nullptr, length + kLargePage, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) throw std::bad_alloc();
  const uintptr_t start = reinterpret_cast<uintptr_t>(mapped);
  const uintptr_t aligned = (start + kLargePage - 1) & ~(kLargePage - 1);
  if (aligned > start) ::munmap(mapped, aligned - start);
  const uintptr_t end = aligned + length;
  const uintptr_t mappedEnd = start + length + kLargePage;
  if (mappedEnd > end) ::munmap(reinterpret_cast<void*>(end), mappedEnd - end);
  // Advice only: without large pages the table still works, page by page.
  ::madvise(reinterpret_cast<void*>(aligned), length, MADV_HUGEPAGE);
  return reinterpret_cast<void*>(aligned);
}

size_t pdTableLargeBytes() { return kLargeTable; }

void pdTableFree(void* table, size_t bytes) {
  if (table == nullptr) return;
  if (bytes < kLargeTable) {
    ::operator delete(table);
    return;
  }
  ::munmap(table, mappedLength(bytes));
}

#else

void* pdTableAllocate(size_t bytes) { return ::operator new(bytes); }

size_t pdTableLargeBytes() { return 0; }

void pdTableFree(void* table, size_t /*bytes*/) { ::operator delete(table); }

#endif
