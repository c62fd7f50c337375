// The block cache of small reads must read exactly what the file holds,
// whatever was written, zeroed, cut or torn through it.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "service/gxsBlockCache.h"
#include "support/gxMemoryFile.h"

TEST(ServiceBlockCache, ReadsWhatTheFileHoldsThroughRandomChanges) {
  for (uint32_t seed = 1; seed <= 6; ++seed) {
    std::mt19937 rng(seed);
    auto bytes = std::make_shared<gxMemoryBytes>();
    bytes->bytes.resize(rng() % 300000);
    for (auto& b : bytes->bytes) b = static_cast<uint8_t>(rng());
    gxsBlockCache cache(std::make_unique<gxMemoryFile>(bytes));
    auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
    for (int step = 0; step < 250; ++step) {
      const uint64_t at = pick(320000);
      const uint32_t size = pick(4) == 0 ? pick(70000) : pick(5000);
      std::vector<uint8_t> data(size);
      for (auto& b : data) b = static_cast<uint8_t>(rng());
      switch (pick(8)) {
        case 0:  // a write that fails, with part of it landed
          bytes->changesLeft = 0;
          bytes->tornBytes = pick(size + 1);
          EXPECT_FALSE(cache.writeAt(at, data.data(), size));
          bytes->changesLeft = -1;
          break;
        case 1:
          cache.zeroRange(at, size);
          break;
        case 2:
          cache.truncate(pick(330000));
          break;
        default:
          cache.writeAt(at, data.data(), size);
      }
      for (int r = 0; r < 4; ++r) {
        const uint64_t from = pick(340000);
        const size_t want = pick(4) == 0 ? pick(40000) : pick(600);
        std::vector<uint8_t> got(want, 0xEE);
        const int64_t n =
            cache.readCached(from, got.data(), want, bytes->bytes.size());
        const auto& b = bytes->bytes;
        const size_t expect =
            from >= b.size() ? 0 : std::min<size_t>(want, b.size() - from);
        ASSERT_EQ(n, static_cast<int64_t>(expect)) << seed << ":" << step;
        ASSERT_TRUE(std::equal(got.begin(), got.begin() + n, b.begin() + from))
            << seed << ":" << step << " at " << from;
      }
    }
  }
}
