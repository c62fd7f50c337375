#include "porting/gxdFile.h"

#include <vector>

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
