// The save of a created file. What it writes is part of its contract: a
// tree gives the same file, byte for byte, every time. The empty file and
// documents that reach each limit of the layout (the mini stream, MiniFAT,
// directory and FAT sectors, the children tree, DIFAT sectors) are compared
// with hashes of their files, taken when each layout was checked field by
// field, and are loaded back; a second save writes nothing. Then the end of
// the save when the output or the temporary file fails.
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <random>

#include "engine/gxdCompoundFile.h"
#include "support/gxFaultStream.h"
#include "support/gxTestFileBuilder.h"

namespace {

uint8_t patternByte(uint64_t i) {
  return static_cast<uint8_t>(i * 13 + (i >> 9) * 7 + 1);
}
// Change records as the portable objects append them, stream data in the
// temporary stream block by block.
struct Doc {
  gxFaultStream out, temp;
  gxdCompoundFile cf{&out, &temp, false};
  std::deque<gxdStorageEntry> storages;
  std::deque<gxdDirEntry> streams;
  std::deque<pdTable> lists;
  bool lateRecord = false;  // block lists recorded by their first writes
  Doc() { record(1, nullptr, &cf.rootEntry, true); }
  void record(uint8_t kind, void* a, void* b, bool root = false) {
    gxdChangeRecord r;
    r.kind = kind, r.first = a, r.second = b, r.isRoot = root;
    cf.pendingChanges.push_back(r);
  }
  gxdStorageEntry* storage(const std::u16string& name,
                           gxdStorageEntry* parent = nullptr) {
    storages.emplace_back();
    storages.back().name = name;
    record(1, parent ? parent : &cf.rootEntry, &storages.back());
    return &storages.back();
  }
  // A stream under `parent` (the root by default); its blocks are appended
  // to the returned list.
  pdTable& entry(const std::u16string& name, uint64_t size,
                 gxdStorageEntry* parent = nullptr) {
    streams.emplace_back();
    streams.back().name = name, streams.back().size = size;
    record(2, parent ? parent : &cf.rootEntry, &streams.back());
    lists.emplace_back();
    if (size != 0 && !lateRecord) record(3, &streams.back(), &lists.back());
    return lists.back();
  }
  // `oneBlock` lists the same temporary block over and over, so that huge
  // streams cost one block of memory.
  void stream(const std::u16string& name, uint64_t size,
              bool oneBlock = false) {
    pdTable& list = entry(name, size);
    uint8_t block[512];
    for (uint64_t off = 0; off < size; off += 512) {
      for (int i = 0; i < 512; ++i) block[i] = patternByte(off + i);
      list.push_back(oneBlock && off ? list[0] : cf.writeTempBlock(block));
    }
  }
  const std::string& save() {
    cf.save();
    return out.buf().data();
  }
};

// `count` elements under random parents, streams of 0 bytes, below the
// cutoff, or 4096 and up to `large` more; their blocks written in turns, a few
// at a time, so that they interleave in the temporary file and the first
// writes come in another order than the creations.
void randomDoc(Doc& d, uint32_t seed, int count, uint32_t large) {
  std::mt19937 rng(seed);
  std::vector<gxdStorageEntry*> parents{&d.cf.rootEntry};
  std::vector<std::pair<gxdDirEntry*, pdTable*>> pending;
  d.lateRecord = true;
  for (int i = 0; i < count; ++i) {
    std::u16string name(1 + rng() % 12, u'x');
    for (char16_t& c : name) c = char16_t(u'A' + rng() % 40);
    gxdStorageEntry* parent = parents[rng() % parents.size()];
    if (rng() % 16 == 0) {
      parents.push_back(d.storage(name, parent));
      continue;
    }
    const uint32_t kind = rng() % 10;
    const uint64_t size =
        kind == 0 ? 0 : kind < 8 ? 1 + rng() % 4095 : 4096 + rng() % large;
    pdTable& list = d.entry(name, size, parent);
    if (size != 0) pending.emplace_back(&d.streams.back(), &list);
  }
  uint8_t block[512];
  while (!pending.empty()) {
    const size_t k = rng() % pending.size();
    auto [e, list] = pending[k];
    for (uint32_t n = 1 + rng() % 4; n > 0 && list->size() * 512 < e->size;
         --n) {
      if (list->empty()) d.record(3, e, list);
      for (uint8_t& b : block) b = uint8_t(rng());
      list->push_back(d.cf.writeTempBlock(block));
    }
    if (list->size() * 512 >= e->size) {
      pending[k] = pending.back();
      pending.pop_back();
    }
  }
}

// Small streams (MiniFAT, mini stream) and large ones whose chains cross the
// first FAT sector's reach, their blocks interleaved in the temporary file.
struct FaultDoc : Doc {
  FaultDoc() { randomDoc(*this, 36, 12, 90000); }
};

}  // namespace

TEST(SaveTest, FilesAtEachLimitOfTheLayoutKeepTheirBytes) {
  const struct {
    const char* what;
    std::function<void(Doc&)> fill;
    size_t size;
    uint64_t hash;
  } cases[] = {
      {"empty: header, FAT sector, root entry", [](Doc&) {}, 1536,
       0x59FF2D818C713274ull},
      {"100 bytes: MiniFAT sector 2, mini stream sector 3",
       [](Doc& d) { d.stream(u"A", 100); }, 2560, 0x7FF56399FCC9A2BBull},
      {"children BB, A, D, a: linked by length, then case-insensitively",
       [](Doc& d) {
         d.storage(u"BB");
         for (const char16_t* name : {u"A", u"D", u"a"}) d.stream(name, 0);
       },
       2048, 0x88D1F41C3AB5C1DEull},
      {"a stream ending on mini sector 127 adds a MiniFAT sector",
       [](Doc& d) { d.stream(u"A", 4095), d.stream(u"B", 4095); }, 21 * 512,
       0x9D7BA1F56F84F53Full},
      {"a chain crossing the first FAT sector's reach",
       [](Doc& d) { d.stream(u"A", 200 * 512); }, 204 * 512,
       0x8CAA1DBEA498229Aull},
      {"FAT sectors 110 and 237 bring DIFAT sectors",
       [](Doc& d) { d.stream(u"big", 30400ull * 512, true); }, 15689728,
       0xC837E0C0416FB55Aull},
      {"1600 elements under random parents, written in turns",
       [](Doc& d) { randomDoc(d, 14, 1600, 9000); },
       10363u * 512, 0xE03B44AAED513E86ull},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Doc d;
    c.fill(d);
    const std::string& f = d.save();
    EXPECT_EQ(f.size(), c.size);
    EXPECT_EQ(gxDigest(f), c.hash);
    // A second save, even after more changes, writes nothing.
    d.stream(u"late", 100);
    d.cf.save();
    EXPECT_EQ(gxDigest(f), c.hash);
    gxFaultStream in(f);
    gxdCompoundFile back(&in, nullptr, true);
    EXPECT_TRUE(in.good());
    EXPECT_EQ(back.fat, d.cf.fat);
  }
}

// A failing output or temporary file ends the save, which never writes past
// the file it lays out and leaves the output failed whenever the file could
// not be written whole.
TEST(SaveTest, FailingOutputOrTemporaryFileEndsWithFailedOutput) {
  FaultDoc reference;
  reference.save();
  ASSERT_TRUE(reference.out.good());
  const std::string& whole = reference.out.buf().data();
  ASSERT_GT(whole.size(), 150u * 512);
  const uint64_t temp = reference.temp.buf().data().size();
  std::vector<size_t> used;  // lists with blocks
  for (size_t k = 0; k < reference.lists.size(); ++k)
    if (!reference.lists[k].empty()) used.push_back(k);
  auto failsWithin = [&](FaultDoc& d, const char* what, uint64_t n) {
    d.save();
    EXPECT_TRUE(d.out.fail()) << what << " " << n;
    EXPECT_LE(d.out.buf().data().size(), whole.size()) << what << " " << n;
  };
  for (uint64_t n = 0; n <= whole.size(); n += n < 2048 ? 61 : 1021) {
    FaultDoc d;
    d.out.buf().failAfter = n;
    failsWithin(d, "output fails after", n);
  }
  for (uint64_t n = 0; n < temp; n += 997) {
    FaultDoc d;
    d.temp.buf().failAfter = d.temp.buf().transferred() + n;
    failsWithin(d, "temporary file reads fail after", n);
  }
  for (int i = 0; i < 4; ++i) {
    FaultDoc d;
    if (i == 0) d.out.buf().refuseSeeks = true;
    if (i == 1) d.temp.buf().data().resize(temp / 2 + 3);  // cut short
    if (i >= 2) d.lists[i == 2 ? used[0] : used.back()].pop_back();  // lost
    failsWithin(d, "refused seeks, short temporary file, lost block", i);
  }
  FaultDoc d;  // a temporary file whose writes fail refuses the blocks
  d.temp.buf().failAfter = d.temp.buf().transferred() + 700;
  const uint8_t block[512] = {};
  EXPECT_NE(d.cf.writeTempBlock(block), 0xFFFFFFFFu);
  EXPECT_EQ(d.cf.writeTempBlock(block), 0xFFFFFFFFu);
}
