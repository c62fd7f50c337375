// Host calls shared by every host, written with the host's own.
#include "porting/gxdHost.h"

#include <algorithm>
#include <vector>

bool pdHostCopyThroughMemory(pdHandle source, uint64_t from, pdHandle target,
                             uint64_t to, uint64_t size) {
  std::vector<uint8_t> buffer(
      static_cast<size_t>(std::min<uint64_t>(size, 1 << 20)));
  while (size > 0) {
    const size_t piece =
        static_cast<size_t>(std::min<uint64_t>(size, buffer.size()));
    if (pdHostRead(source, from, buffer.data(), piece) !=
            static_cast<int64_t>(piece) ||
        pdHostWrite(target, to, buffer.data(), piece) !=
            static_cast<int64_t>(piece))
      return false;
    from += piece;
    to += piece;
    size -= piece;
  }
  return true;
}
