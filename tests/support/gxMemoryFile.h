// A pdFile held in memory for the service's tests. It can fail (or write
// short) at the N-th call that changes the file, to test what the service
// does when a disk fails or fills up.
#ifndef GXSTORAGE_TESTS_SUPPORT_GXMEMORYFILE_H_
#define GXSTORAGE_TESTS_SUPPORT_GXMEMORYFILE_H_

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "porting/gxdFile.h"

struct gxMemoryBytes {
  std::vector<uint8_t> bytes;
  long changesLeft = -1;  // calls that change the file before they fail; -1: never
  int failure = kPdErrIO;
  long changes = 0;       // calls that changed the file
  size_t tornBytes = 0;   // the failing write still lands this many bytes
};

class gxMemoryFile : public pdFile {
 public:
  explicit gxMemoryFile(std::shared_ptr<gxMemoryBytes> data)
      : data_(std::move(data)) {}

  int64_t readAt(uint64_t offset, void* out, size_t size) override {
    const auto& b = data_->bytes;
    if (offset >= b.size()) return 0;
    size_t n = std::min<uint64_t>(size, b.size() - offset);
    std::memcpy(out, b.data() + offset, n);
    return static_cast<int64_t>(n);
  }
  bool writeAt(uint64_t offset, const void* in, size_t size) override {
    if (!change()) {
      size = std::min(size, data_->tornBytes);
      data_->tornBytes = 0;
      if (size > 0) place(offset, in, size);
      return false;
    }
    place(offset, in, size);
    return true;
  }
  void place(uint64_t offset, const void* in, size_t size) {
    auto& b = data_->bytes;
    if (offset + size > b.size()) b.resize(offset + size);
    std::memcpy(b.data() + offset, in, size);
  }
  bool size(uint64_t& bytes) override {
    bytes = data_->bytes.size();
    return true;
  }
  bool truncate(uint64_t bytes) override {
    if (!change()) return false;
    data_->bytes.resize(bytes);
    return true;
  }
  bool sync(bool) override { return change(); }
  int lastError() const override { return data_->failure; }

 private:
  bool change() {
    if (data_->changesLeft == 0) return false;
    if (data_->changesLeft > 0) --data_->changesLeft;
    ++data_->changes;
    return true;
  }
  std::shared_ptr<gxMemoryBytes> data_;
};

#endif  // GXSTORAGE_TESTS_SUPPORT_GXMEMORYFILE_H_
