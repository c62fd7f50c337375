// A pdFile held in memory for the service's tests. It can fail (or write
// short) at the N-th call that changes the file, and fail (or come up short)
// at the N-th read, to test what the service does when a disk fails or
// fills up.
#ifndef GXSTORAGE_TESTS_SUPPORT_GXMEMORYFILE_H_
#define GXSTORAGE_TESTS_SUPPORT_GXMEMORYFILE_H_

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "porting/gxdFile.h"

struct gxMemoryBytes {
  std::vector<uint8_t> bytes;
  long changesLeft = -1;  // writes, syncs, truncates before one fails; -1: none
  long readsLeft = -1;    // reads before one fails; -1: none
  int failure = kPdErrIO;
  long changes = 0;      // calls that changed the file
  long failed = 0;       // calls that failed
  size_t tornBytes = 0;  // the failing write still lands this many bytes;
                         // a failing read, when not 0, returns half instead
};

class gxMemoryFile : public pdFile {
 public:
  explicit gxMemoryFile(std::shared_ptr<gxMemoryBytes> data)
      : d_(std::move(data)) {}

  int64_t readAt(uint64_t offset, void* out, size_t size) override {
    if (d_->readsLeft == 0) {
      ++d_->failed;
      if (d_->tornBytes == 0) return -1;
      size /= 2;
    } else if (d_->readsLeft > 0) {
      --d_->readsLeft;
    }
    const auto& b = d_->bytes;
    if (offset >= b.size()) return 0;
    const size_t n = std::min<uint64_t>(size, b.size() - offset);
    std::memcpy(out, b.data() + offset, n);
    return static_cast<int64_t>(n);
  }
  bool writeAt(uint64_t offset, const void* in, size_t size) override {
    const bool ok = change();
    if (!ok) size = std::min(size, std::exchange(d_->tornBytes, size_t{0}));
    if (!ok && size == 0) return false;
    if (offset + size > d_->bytes.size()) d_->bytes.resize(offset + size);
    std::memcpy(d_->bytes.data() + offset, in, size);
    return ok;
  }
  bool size(uint64_t& bytes) override {
    bytes = d_->bytes.size();
    return true;
  }
  bool truncate(uint64_t bytes) override {
    if (!change()) return false;
    d_->bytes.resize(bytes);
    return true;
  }
  bool sync(bool) override { return change(); }
  int lastError() const override { return d_->failure; }

 private:
  bool change() {
    if (d_->changesLeft == 0) {
      ++d_->failed;
      return false;
    }
    if (d_->changesLeft > 0) --d_->changesLeft;
    ++d_->changes;
    return true;
  }
  std::shared_ptr<gxMemoryBytes> d_;
};

#endif  // GXSTORAGE_TESTS_SUPPORT_GXMEMORYFILE_H_
