// The end of the save of a created file when the output or the temporary
// file fails; a second save writes nothing. (What a save writes, byte for byte,
// at each limit of the layout is pinned by the round-trip test.)
#include <gtest/gtest.h>

#include <deque>

#include "engine/gxdCompoundFile.h"
#include "support/gxFaultStream.h"

namespace {

// A created file as the portable objects record it: storage "S" and six
// streams, small ones (MiniFAT, mini stream) and large ones whose chains
// cross the first FAT sector's reach, their data in the temporary stream.
struct Doc {
  gxFaultStream out, temp;
  gxdCompoundFile cf{&out, &temp, false};
  gxdStorageEntry storage;
  std::deque<gxdDirEntry> streams;
  std::deque<pdTable> lists;
  void record(uint8_t kind, void* first, void* second, bool root = false) {
    gxdChangeRecord r;
    r.kind = kind, r.first = first, r.second = second, r.isRoot = root;
    cf.pendingChanges.push_back(r);
  }
  Doc() {
    record(gxdChangeRecord::kStorageCreated, nullptr, &cf.rootEntry, true);
    storage.name = u"S";
    record(gxdChangeRecord::kStorageCreated, &cf.rootEntry, &storage);
    uint8_t block[512];
    for (uint64_t size : {100, 0, 4000, 90000, 3000, 5000}) {
      streams.emplace_back();
      streams.back().name = u"s" + std::u16string(1, u'0' + streams.size());
      streams.back().size = size;
      lists.emplace_back();
      record(gxdChangeRecord::kStreamCreated,
             streams.size() % 2 ? &storage : &cf.rootEntry, &streams.back());
      if (size != 0)
        record(gxdChangeRecord::kStreamWritten, &streams.back(), &lists.back());
      for (uint64_t off = 0; off < size; off += 512) {
        for (int i = 0; i < 512; ++i) block[i] = uint8_t(off * 7 + i * 13);
        lists.back().push_back(cf.writeTempBlock(block));
      }
    }
  }
};

}  // namespace

// A failing output or temporary file ends the save, which never writes past
// the file it lays out and leaves the output failed whenever the file could
// not be written whole.
TEST(SaveTest, FailingOutputOrTemporaryFileEndsWithFailedOutput) {
  Doc reference;
  reference.cf.save();
  ASSERT_TRUE(reference.out.good());
  const std::string whole = reference.out.buf().data();
  // A second save, even after more changes, writes nothing.
  reference.streams.emplace_back();
  reference.streams.back().name = u"late";
  reference.record(gxdChangeRecord::kStreamCreated, &reference.storage,
                   &reference.streams.back());
  reference.cf.save();
  EXPECT_EQ(reference.out.buf().data(), whole);
  ASSERT_GT(whole.size(), 150u * 512);
  const uint64_t temp = reference.temp.buf().data().size();
  auto failsWithin = [&](Doc& d, const char* what, uint64_t n) {
    d.cf.save();
    EXPECT_TRUE(d.out.fail()) << what << " " << n;
    EXPECT_LE(d.out.buf().data().size(), whole.size()) << what << " " << n;
  };
  for (uint64_t n = 0; n <= whole.size(); n += n < 2048 ? 61 : 1021) {
    Doc d;
    d.out.buf().failAfter = n;
    failsWithin(d, "output fails after", n);
  }
  for (uint64_t n = 0; n < temp; n += 997) {
    Doc d;
    d.temp.buf().failAfter = d.temp.buf().transferred() + n;
    failsWithin(d, "temporary file reads fail after", n);
  }
  for (int i = 0; i < 4; ++i) {
    Doc d;
    if (i == 0) d.out.buf().refuseSeeks = true;
    if (i == 1) d.temp.buf().data().resize(temp / 2 + 3);  // cut short
    if (i >= 2)
      d.lists[i == 2 ? 0 : 5].pop_back();  // a small or large block lost
    failsWithin(d, "refused seeks, short temporary file, lost block", i);
  }
  Doc d;  // a temporary file whose writes fail refuses the blocks
  d.temp.buf().failAfter = d.temp.buf().transferred() + 700;
  const uint8_t block[512] = {};
  EXPECT_NE(d.cf.writeTempBlock(block), 0xFFFFFFFFu);
  EXPECT_EQ(d.cf.writeTempBlock(block), 0xFFFFFFFFu);
}
