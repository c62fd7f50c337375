// The save of a created file when the output or the temporary file fails:
// it ends, never writes past the file it lays out, and leaves the output
// stream failed whenever the file could not be written whole.
#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "engine/gxdCompoundFile.h"
#include "support/gxFaultStream.h"

namespace {

// A file with a storage, small streams (MiniFAT, mini stream) and a large
// stream whose chain crosses the first FAT sector's reach, its blocks
// interleaved with the small streams' in the temporary file.
struct FaultDoc {
  gxFaultStream out, temp;
  gxdCompoundFile cf{&out, &temp, false};
  std::deque<gxdStorageEntry> storages{1};
  std::deque<gxdDirEntry> streams{4};
  std::deque<std::vector<uint32_t>> blocks{4};
  FaultDoc() {
    add(1, nullptr, &cf.rootEntry, true);
    storages[0].name = u"S";
    add(1, &cf.rootEntry, &storages[0]);
    const uint32_t sizes[4] = {100, 3000, 150 * 512 + 7, 4095};
    uint8_t block[512];
    for (int i = 0; i < 4; ++i) {
      streams[i].name = std::u16string(1, static_cast<char16_t>(u'a' + i));
      streams[i].size = sizes[i];
      add(2, i == 1 ? &storages[0] : &cf.rootEntry, &streams[i]);
      add(3, &streams[i], &blocks[i]);
    }
    auto full = [&](int i) {
      return blocks[i].size() * 512 >= streams[i].size;
    };
    for (uint32_t b = 0;; ++b) {
      int i = b % 4;
      for (int k = 0; k < 4 && full(i); ++k) i = (i + 1) % 4;
      if (full(i)) break;
      for (int j = 0; j < 512; ++j) block[j] = static_cast<uint8_t>(b * 31 + j);
      blocks[i].push_back(cf.writeTempBlock(block));
    }
  }
  void add(uint8_t kind, void* a, void* b, bool root = false) {
    gxdChangeRecord r;
    r.kind = kind, r.first = a, r.second = b, r.isRoot = root;
    cf.pendingChanges.push_back(r);
  }
};

}  // namespace

TEST(SaveFaultsTest, FailingOutputOrTemporaryFileEndsWithFailedOutput) {
  FaultDoc reference;
  reference.cf.save();
  ASSERT_TRUE(reference.out.good());
  const std::string& whole = reference.out.buf().data();
  ASSERT_GT(whole.size(), 150u * 512);
  {
    SCOPED_TRACE("output fails after N bytes");
    for (uint64_t n = 0; n <= whole.size(); n += n < 2048 ? 61 : 1021) {
      FaultDoc d;
      d.out.buf().failAfter = n;
      d.cf.save();
      EXPECT_TRUE(d.out.fail()) << n;
      EXPECT_LE(d.out.buf().data().size(), whole.size()) << n;
    }
  }
  for (bool seeks : {false, true}) {
    SCOPED_TRACE(seeks ? "output refuses seeks" : "output refuses writes");
    FaultDoc d;
    (seeks ? d.out.buf().refuseSeeks : d.out.buf().refuseWrites) = true;
    d.cf.save();
    EXPECT_TRUE(d.out.fail());
  }
  {
    SCOPED_TRACE("temporary file reads fail after N bytes");
    for (uint64_t n = 0; n < 166 * 512; n += 997) {
      FaultDoc d;
      d.temp.buf().failAfter = d.temp.buf().transferred() + n;
      d.cf.save();
      EXPECT_TRUE(d.out.fail()) << n;
      EXPECT_LE(d.out.buf().data().size(), whole.size()) << n;
    }
  }
  {
    SCOPED_TRACE("temporary file cut short");
    FaultDoc d;
    d.temp.buf().data().resize(100 * 512 + 3);
    d.cf.save();
    EXPECT_TRUE(d.out.fail());
  }
  for (int i : {0, 2}) {
    SCOPED_TRACE("a stream whose last block never reached the temporary file");
    FaultDoc d;
    d.blocks[i].pop_back();
    d.cf.save();
    EXPECT_TRUE(d.out.fail());
  }
  {
    SCOPED_TRACE("temporary file delivering a few bytes per read");
    FaultDoc d;
    d.temp.buf().shortReads = 7;
    d.cf.save();
    EXPECT_TRUE(d.out.good());
    EXPECT_TRUE(d.out.buf().data() == whole);
  }
  {
    SCOPED_TRACE("a temporary file whose writes fail refuses the blocks");
    gxFaultStream out, temp;
    temp.buf().failAfter = 700;
    gxdCompoundFile cf(&out, &temp, false);
    uint8_t block[512] = {};
    EXPECT_EQ(cf.writeTempBlock(block), 0u);
    EXPECT_EQ(cf.writeTempBlock(block), 0xFFFFFFFFu);
  }
}
