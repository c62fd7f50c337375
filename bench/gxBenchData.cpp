#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "gxBench.h"

namespace gxbench {

uint64_t kLargeSize = 256ull << 20;

uint64_t mix(uint64_t seed, uint64_t word) {
  uint64_t z = seed * 0xD1B54A32D192ED03ull + word * 0x9E3779B97F4A7C15ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

void fillBytes(uint64_t seed, uint64_t offset, uint8_t* out, size_t n) {
  uint64_t word = offset / 8;
  size_t skip = static_cast<size_t>(offset % 8);
  while (n > 0) {
    const uint64_t v = mix(seed, word++);
    if (skip == 0 && n >= 8) {
      std::memcpy(out, &v, 8);
      out += 8;
      n -= 8;
      continue;
    }
    uint8_t bytes[8];
    std::memcpy(bytes, &v, 8);
    const size_t take = std::min(n, 8 - skip);
    std::memcpy(out, bytes + skip, take);
    out += take;
    n -= take;
    skip = 0;
  }
}

bool checkBytes(uint64_t seed, uint64_t offset, const uint8_t* data, size_t n,
                std::vector<uint8_t>& scratch) {
  scratch.resize(n);
  fillBytes(seed, offset, scratch.data(), n);
  return std::memcmp(scratch.data(), data, n) == 0;
}

const SmallSet& SmallSet::get() {
  static const SmallSet set = [] {
    SmallSet s;
    s.sizes.resize(kSmallCount);
    s.offsets.resize(kSmallCount);
    for (uint32_t j = 0; j < kSmallCount; ++j) {
      s.sizes[j] = 1 + static_cast<uint32_t>(mix(kSmallSeed, j) % kSmallMax);
      s.offsets[j] = s.totalBytes;
      s.totalBytes += s.sizes[j];
    }
    return s;
  }();
  return set;
}

std::string SmallSet::storageName(uint32_t storage) {
  char name[32];
  std::snprintf(name, sizeof(name), "storage%03u", storage);
  return name;
}

std::string SmallSet::streamName(uint32_t stream) {
  char name[32];
  std::snprintf(name, sizeof(name), "stream%05u", stream);
  return name;
}

const std::vector<uint64_t>& randomOffsets() {
  static const std::vector<uint64_t> offsets = [] {
    std::vector<uint64_t> v(kRandomReads);
    for (uint32_t i = 0; i < kRandomReads; ++i)
      v[i] = mix(kOffsetSeed, i) % (kLargeSize - kRandomSize + 1);
    return v;
  }();
  return offsets;
}

std::string tempFileOf(const std::string& path) {
  const size_t dot = path.rfind('.');
  return (dot == std::string::npos ? path : path.substr(0, dot)) + ".$t$";
}

void removeOutput(const std::string& path) {
  ::unlink(path.c_str());
  ::unlink(tempFileOf(path).c_str());
}

std::u16string widen(const std::string& s) {
  return std::u16string(s.begin(), s.end());
}

}  // namespace gxbench
