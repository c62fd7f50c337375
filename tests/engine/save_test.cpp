// The save of a created file: byte-level checks of what it writes (sizes,
// sector order, FAT, MiniFAT, DIFAT, directory records, children-tree links),
// and its end when the output or the temporary file fails.
#include <gtest/gtest.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "engine/gxdCompoundFile.h"
#include "portable/gxdInterfaces.h"
#include "support/gxFaultStream.h"
#include "support/gxTestFileBuilder.h"

namespace {

constexpr uint32_t NS = kNoStream, EOC = kEndOfChain, FREE = kFreeSect;

uint8_t patternByte(uint64_t i) {
  return static_cast<uint8_t>(i * 13 + (i >> 9) * 7 + 1);
}
std::string pattern(size_t size, size_t period = SIZE_MAX) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) s[i] = char(patternByte(i % period));
  return s;
}

// Change records as the portable objects append them, stream data in the
// temporary stream block by block.
struct Doc {
  gxFaultStream out, temp;
  gxdCompoundFile cf{&out, &temp, false};
  std::deque<gxdStorageEntry> storages;
  std::deque<gxdDirEntry> streams;
  std::deque<pdTable> lists;
  Doc() { record(1, nullptr, &cf.rootEntry, true); }
  void record(uint8_t kind, void* a, void* b, bool root = false) {
    gxdChangeRecord r;
    r.kind = kind, r.first = a, r.second = b, r.isRoot = root;
    cf.pendingChanges.push_back(r);
  }
  gxdStorageEntry* storage(const std::u16string& name) {
    storages.emplace_back();
    storages.back().name = name;
    record(1, &cf.rootEntry, &storages.back());
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
    if (size != 0) record(3, &streams.back(), &lists.back());
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

// A storage, small streams (MiniFAT, mini stream) and a large stream whose
// chain crosses the first FAT sector's reach, its blocks interleaved with the
// small streams' in the temporary file.
struct FaultDoc : Doc {
  FaultDoc() {
    gxdStorageEntry* s = storage(u"S");
    const uint32_t sizes[4] = {100, 3000, 150 * 512 + 7, 4095};
    pdTable* l[4];
    for (int i = 0; i < 4; ++i)
      l[i] = &entry(std::u16string(1, char16_t(u'a' + i)), sizes[i],
                    i == 1 ? s : nullptr);
    uint8_t block[512];
    for (uint32_t b = 0, done = 0; done < 4; ++b) {
      done = 0;
      for (int i = 0; i < 4; ++i) {
        if (l[i]->size() * 512 >= sizes[i]) {
          ++done;
          continue;
        }
        for (int j = 0; j < 512; ++j) block[j] = uint8_t(b * 31 + j + i);
        l[i]->push_back(cf.writeTempBlock(block));
      }
    }
  }
};

uint32_t u32(const std::string& f, size_t off) {
  return off + 4 <= f.size() ? gxGetU32(f, off) : 0xBADu;
}
size_t at(uint32_t sector) { return (size_t{sector} + 1) * 512; }

// FAT entry `s` of file `f`, found through the header's DIFAT slots and the
// chain of DIFAT sectors.
uint32_t fatAt(const std::string& f, uint32_t s) {
  uint32_t k = s / 128;
  if (k < 109) return u32(f, at(u32(f, 0x4C + 4 * k)) + 4 * (s % 128));
  uint32_t d = u32(f, 0x44);
  for (k -= 109; k >= 127; k -= 127) d = u32(f, at(d) + 127 * 4);
  return u32(f, at(u32(f, at(d) + 4 * k)) + 4 * (s % 128));
}
std::string readChain(const std::string& f, uint32_t s, size_t size) {
  std::string data;
  for (; data.size() < size && s < f.size() / 512; s = fatAt(f, s))
    data += f.substr(at(s), 512);
  return data.substr(0, size);
}
std::string dirEntry(const std::string& f, uint32_t i) {
  uint32_t s = u32(f, 0x30);
  for (uint32_t j = 0; j < i / 4; ++j) s = fatAt(f, s);
  return f.substr(at(s) + (i % 4) * 128, 128);
}
std::string rec(const std::u16string& name, uint8_t type, uint32_t left,
                uint32_t right, uint32_t child, uint32_t start, uint32_t size) {
  std::string b(128, '\0');
  for (size_t i = 0; i < name.size(); ++i) gxPutU32(b, 2 * i, name[i], 2);
  gxPutU32(b, 64, uint32_t(name.size() + 1) * 2, 2);
  b[66] = char(type), b[67] = type == 5 ? 0 : 1;
  const uint32_t fields[][2] = {
      {68, left}, {72, right}, {76, child}, {116, start}, {120, size}};
  for (const auto& x : fields) gxPutU32(b, x[0], x[1]);
  return b;
}

}  // namespace

TEST(SaveTest, EmptyFileAndStreamsInMiniStreamOrSectors) {
  {
    SCOPED_TRACE("empty: header, FAT sector, root entry");
    Doc d;
    const std::string& f = d.save();
    ASSERT_EQ(f.size(), 1536u);
    std::string h = std::string("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8) +
                    std::string(0x4C - 8, '\0') +
                    std::string(512 - 0x4C, '\xFF');
    const uint32_t fields[][3] = {
        {0x18, 0x3E, 2}, {0x1A, 3, 2},   {0x1C, 0xFFFE, 2}, {0x1E, 9, 2},
        {0x20, 6, 2},    {0x2C, 1, 4},   {0x30, 1, 4},      {0x38, 0x1000, 4},
        {0x3C, EOC, 4},  {0x44, EOC, 4}, {0x4C, 0, 4}};
    for (const auto& x : fields) gxPutU32(h, x[0], x[1], int(x[2]));
    EXPECT_EQ(f.substr(0, 512), h);
    std::string fat(512, '\xFF');
    gxPutU32(fat, 0, kFatSect), gxPutU32(fat, 4, EOC);
    EXPECT_EQ(f.substr(512, 512), fat);
    EXPECT_EQ(f.substr(1024), rec(u"Root Entry", 5, NS, NS, NS, EOC, 0) +
                                  std::string(384, '\0'));
  }
  {
    SCOPED_TRACE("100 bytes: MiniFAT sector 2, mini stream sector 3");
    Doc d;
    d.stream(u"A", 100);
    const std::string& f = d.save();
    ASSERT_EQ(f.size(), 2560u);
    EXPECT_EQ(fatAt(f, 0), kFatSect);
    for (uint32_t s = 1; s < 128; ++s)
      EXPECT_EQ(fatAt(f, s), s <= 3 ? EOC : FREE) << s;
    EXPECT_EQ(dirEntry(f, 0), rec(u"Root Entry", 5, NS, NS, 1, 3, 512));
    EXPECT_EQ(dirEntry(f, 1), rec(u"A", 2, NS, NS, NS, 0, 100));
    EXPECT_TRUE(u32(f, 0x3C) == 2 && u32(f, 0x40) == 1);
    EXPECT_TRUE(u32(f, at(2)) == 1 && u32(f, at(2) + 4) == EOC &&
                u32(f, at(2) + 8) == FREE);
    EXPECT_EQ(f.substr(at(3), 100), pattern(100));
  }
  {
    SCOPED_TRACE("5000 bytes: sectors 2 to 11");
    Doc d;
    d.stream(u"A", 5000);
    const std::string& f = d.save();
    ASSERT_EQ(f.size(), 6656u);
    for (uint32_t s = 2; s < 12; ++s)
      EXPECT_EQ(fatAt(f, s), s < 11 ? s + 1 : EOC);
    EXPECT_EQ(dirEntry(f, 0), rec(u"Root Entry", 5, NS, NS, 1, EOC, 0));
    EXPECT_EQ(dirEntry(f, 1), rec(u"A", 2, NS, NS, NS, 2, 5000));
    EXPECT_TRUE(u32(f, 0x3C) == EOC && u32(f, 0x40) == 0);
    EXPECT_EQ(f.substr(at(2), 5000), pattern(5000));
  }
}

TEST(SaveTest, ChildrenTreeAndDirectorySectors) {
  {
    SCOPED_TRACE("BB, A, D, a linked by length, then case-insensitively");
    Doc d;
    d.storage(u"BB");
    for (const char16_t* name : {u"A", u"D", u"a"}) d.stream(name, 0);
    const std::string& f = d.save();
    EXPECT_EQ(dirEntry(f, 0), rec(u"Root Entry", 5, NS, NS, 1, EOC, 0));
    EXPECT_EQ(dirEntry(f, 1), rec(u"BB", 1, 2, NS, NS, EOC, 0));  // no children
    EXPECT_EQ(dirEntry(f, 2), rec(u"A", 2, NS, 3, NS, 0, 0));  // never written
    EXPECT_EQ(dirEntry(f, 3), rec(u"D", 2, 4, NS, NS, 0, 0));
    EXPECT_EQ(dirEntry(f, 4), rec(u"a", 2, NS, NS, NS, 0, 0));
  }
  {
    SCOPED_TRACE("the fourth entry brings a second, all-zero directory sector");
    Doc d;
    for (const char16_t* name : {u"x", u"y", u"z"}) d.stream(name, 0);
    const std::string& f = d.save();
    ASSERT_EQ(f.size(), 2048u);
    EXPECT_TRUE(fatAt(f, 1) == 2 && fatAt(f, 2) == EOC);
    EXPECT_EQ(f.substr(at(2)), std::string(512, '\0'));
    EXPECT_EQ(dirEntry(f, 3), rec(u"z", 2, NS, NS, NS, 0, 0));
    EXPECT_EQ(u32(dirEntry(f, 2), 72), 3u);
  }
}

TEST(SaveTest, MiniFatFatAndDifatGrowAtTheirLimits) {
  {
    SCOPED_TRACE("a stream ending on mini sector 127 adds a MiniFAT sector");
    Doc d;
    d.stream(u"A", 4095);  // mini sectors 0..63
    d.stream(u"B", 4095);  // mini sectors 64..127
    const std::string& f = d.save();
    // FAT, directory, MiniFAT, 16 mini stream sectors, the second MiniFAT.
    ASSERT_EQ(f.size(), 21u * 512);
    EXPECT_TRUE(u32(f, 0x40) == 2 && u32(f, 0x3C) == 2);
    EXPECT_TRUE(fatAt(f, 2) == 19 && fatAt(f, 19) == EOC);
    EXPECT_EQ(f.substr(at(19)), std::string(512, '\xFF'));
    EXPECT_EQ(u32(f, at(2) + 4 * 63), EOC);
    EXPECT_EQ(u32(f, at(2) + 4 * 126), 127u);
    EXPECT_EQ(u32(f, at(2) + 4 * 127), EOC);
    EXPECT_EQ(dirEntry(f, 0), rec(u"Root Entry", 5, NS, NS, 1, 3, 8192));
    EXPECT_EQ(dirEntry(f, 2), rec(u"B", 2, NS, NS, NS, 64, 4095));
    EXPECT_EQ(readChain(f, 3, 8192).substr(4096, 4095), pattern(4095));
  }
  {
    SCOPED_TRACE("a chain crossing the first FAT sector's reach");
    Doc d;
    d.stream(u"A", 200 * 512);
    const std::string& f = d.save();
    ASSERT_EQ(f.size(), 204u * 512);
    EXPECT_TRUE(u32(f, 0x2C) == 2 && u32(f, 0x4C + 4) == 129);
    EXPECT_EQ(fatAt(f, 127), 128u);
    EXPECT_EQ(fatAt(f, 128), 130u);
    EXPECT_EQ(fatAt(f, 129), kFatSect);
    EXPECT_EQ(fatAt(f, 202), EOC);
    EXPECT_EQ(readChain(f, 2, 200 * 512), pattern(200 * 512));
  }
  {
    SCOPED_TRACE("FAT sectors 110 and 237 bring DIFAT sectors");
    Doc d;
    const uint64_t size = 30400ull * 512;  // about 240 FAT sectors
    d.stream(u"big", size, true);
    const std::string& f = d.save();
    const uint32_t numFat = u32(f, 0x2C);
    ASSERT_GE(numFat, 237u);
    EXPECT_NE(u32(f, 0x4C + 4 * 108), FREE);
    ASSERT_EQ(u32(f, 0x48), 2u);
    const uint32_t d1 = u32(f, 0x44), d2 = u32(f, at(d1) + 127 * 4);
    for (uint32_t dif : {d1, d2}) {
      SCOPED_TRACE(dif);
      const uint32_t used = dif == d1 ? 127 : numFat - 109 - 127;
      EXPECT_EQ(u32(f, at(dif)), dif + 1);  // the FAT sector right after it
      EXPECT_EQ(fatAt(f, dif), FREE);
      EXPECT_EQ(fatAt(f, dif + 1), kFatSect);
      for (uint32_t j = 1; j < 127; ++j) {
        const uint32_t slot = u32(f, at(dif) + 4 * j);
        EXPECT_EQ(j < used ? fatAt(f, slot) : slot, j < used ? kFatSect : FREE)
            << j;
      }
    }
    EXPECT_EQ(u32(f, at(d2) + 127 * 4), EOC);
    EXPECT_TRUE(readChain(f, 2, size) == pattern(size, 512));
    EXPECT_EQ(gxDigest(f), 0xc837e0c0416fb55aull);
    gxFaultStream in(f);
    gxdCompoundFile back(&in, nullptr, true);
    EXPECT_TRUE(in.good());
    EXPECT_EQ(back.fat, d.cf.fat);
  }
}

// A file of many elements, pinned whole by its digest: the order of its
// sectors, its tables, its directory records and the bytes past each
// stream's end must not move. Streams are created under random parents and
// written in turns, a few blocks at a time, so that their blocks interleave
// in the temporary file and their first writes come in another order than
// their creations.
TEST(SaveTest, ManyInterleavedElementsKeepTheirBytes) {
  Doc d;
  std::mt19937 rng(14);
  std::vector<gxdStorageEntry*> parents{&d.cf.rootEntry};
  struct Pending {
    gxdDirEntry* entry;
    pdTable* blocks;
  };
  std::vector<Pending> pending;
  for (int i = 0; i < 1600; ++i) {
    std::u16string name(1 + rng() % 12, u'x');
    for (char16_t& c : name) c = char16_t(u'A' + rng() % 40);
    gxdStorageEntry* parent = parents[rng() % parents.size()];
    if (rng() % 16 == 0) {
      d.storages.emplace_back();
      d.storages.back().name = name;
      d.record(1, parent, &d.storages.back());
      parents.push_back(&d.storages.back());
      continue;
    }
    d.streams.emplace_back();
    gxdDirEntry& e = d.streams.back();
    e.name = name;
    const uint32_t kind = rng() % 10;
    e.size = kind == 0 ? 0 : kind < 8 ? 1 + rng() % 4095 : 4096 + rng() % 9000;
    d.record(2, parent, &e);
    d.lists.emplace_back();
    if (e.size != 0) pending.push_back({&e, &d.lists.back()});
  }
  uint8_t block[512];
  while (!pending.empty()) {
    const size_t k = rng() % pending.size();
    Pending& p = pending[k];
    for (uint32_t n = 1 + rng() % 4; n > 0; --n) {
      if (p.blocks->empty()) d.record(3, p.entry, p.blocks);
      for (int j = 0; j < 512; ++j) block[j] = uint8_t(rng());
      p.blocks->push_back(d.cf.writeTempBlock(block));
      if (p.blocks->size() * 512 >= p.entry->size) break;
    }
    if (p.blocks->size() * 512 >= p.entry->size) {
      pending[k] = pending.back();
      pending.pop_back();
    }
  }
  const std::string& f = d.save();
  EXPECT_TRUE(d.out.good());
  EXPECT_EQ(f.size(), 10363u * 512);
  EXPECT_EQ(gxDigest(f), 0xe03b44aaed513e86ull);
}

TEST(SaveTest, SecondCommitLeavesFileUnchanged) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() /
                       ("gx-save-" + std::to_string(std::random_device{}()));
  const fs::path file = dir / "twice.gxw";
  fs::create_directories(dir);
  auto slurp = [&] {
    std::ostringstream s;
    s << std::ifstream(file, std::ios::binary).rdbuf();
    return s.str();
  };
  gxdIStorage *root = nullptr, *sub = nullptr;
  gxdIStream* s = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(file.u16string().c_str(), 0, &root), 0);
  ASSERT_EQ(root->createStream(u"A", &s), 0);
  const std::string data = pattern(3000);
  ASSERT_EQ(s->write(data.data(), data.size(), nullptr), 0);
  root->commit();
  const std::string first = slurp();
  EXPECT_EQ(first.size(), 2048u + 6 * 512);
  s->write(data.data(), data.size(), nullptr);
  ASSERT_EQ(root->createStorage(u"S", &sub), 0);
  root->commit();
  EXPECT_EQ(slurp(), first);
  s->release();
  sub->release();
  root->release();
  EXPECT_EQ(slurp(), first);
  fs::remove_all(dir);
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
  for (uint64_t n = 0; n < 166 * 512; n += 997) {
    FaultDoc d;
    d.temp.buf().failAfter = d.temp.buf().transferred() + n;
    failsWithin(d, "temporary file reads fail after", n);
  }
  for (int i = 0; i < 5; ++i) {
    FaultDoc d;
    if (i == 0) d.out.buf().refuseSeeks = true;
    if (i == 1) d.out.buf().refuseWrites = true;
    if (i == 2) d.temp.buf().data().resize(100 * 512 + 3);  // cut short
    if (i >= 3) d.lists[i == 3 ? 0 : 2].pop_back();  // last block never written
    failsWithin(d, "refused seeks, writes, short temporary file, lost block",
                i);
  }
  {
    SCOPED_TRACE("temporary file delivering a few bytes per read");
    FaultDoc d;
    d.temp.buf().shortReads = 7;
    d.save();
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
