#include "porting/gxdFile.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

class pdMemoryFile : public pdFile {
 public:
  int64_t readAt(uint64_t offset, void* data, size_t size) override {
    if (offset >= bytes_.size()) return 0;
    size_t n = static_cast<size_t>(
        std::min<uint64_t>(size, bytes_.size() - offset));
    std::memcpy(data, bytes_.data() + offset, n);
    return static_cast<int64_t>(n);
  }
  bool writeAt(uint64_t offset, const void* data, size_t size) override {
    if (offset + size > bytes_.size()) bytes_.resize(offset + size);
    std::memcpy(bytes_.data() + offset, data, size);
    return true;
  }
  bool size(uint64_t& bytes) override {
    bytes = bytes_.size();
    return true;
  }
  bool truncate(uint64_t bytes) override {
    bytes_.resize(static_cast<size_t>(bytes));
    return true;
  }
  bool sync(bool) override { return true; }
  int lastError() const override { return kPdErrNone; }

 private:
  std::vector<uint8_t> bytes_;
};

}  // namespace

std::unique_ptr<pdFile> pdOpenMemoryFile() {
  return std::unique_ptr<pdFile>(new pdMemoryFile());
}

bool pdFile::zeroRange(uint64_t offset, uint64_t bytes) {
  static const std::vector<uint8_t> zeros(64 * 1024);
  while (bytes > 0) {
    size_t n = bytes < zeros.size() ? static_cast<size_t>(bytes) : zeros.size();
    if (!writeAt(offset, zeros.data(), n)) return false;
    offset += n;
    bytes -= n;
  }
  return true;
}
