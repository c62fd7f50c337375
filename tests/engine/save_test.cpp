// Byte-level checks of files written by the save: sizes, sector order, FAT,
// MiniFAT, DIFAT, directory records and children-tree links.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "engine/gxdCompoundFile.h"
#include "portable/gxdInterfaces.h"
#include "support/gxFaultStream.h"

namespace {

constexpr uint32_t NS = kNoStream, EOC = kEndOfChain, FREE = kFreeSect;

uint8_t patternByte(uint64_t i) {
  return static_cast<uint8_t>(i * 13 + (i >> 9) * 7 + 1);
}

// Change records as the portable objects append them, stream data in the
// temporary stream block by block; `oneBlock` lists the same temporary block
// over and over, so that huge streams cost one block of memory.
struct Doc {
  gxFaultStream out, temp;
  gxdCompoundFile cf{&out, &temp, false};
  std::deque<gxdStorageEntry> storages;
  std::deque<gxdDirEntry> streams;
  std::deque<std::vector<uint32_t>> lists;
  Doc() { record(1, nullptr, &cf.rootEntry, true); }
  void record(uint8_t kind, void* a, void* b, bool root = false) {
    gxdChangeRecord r;
    r.kind = kind, r.first = a, r.second = b, r.isRoot = root;
    cf.pendingChanges.push_back(r);
  }
  void storage(const std::u16string& name) {
    storages.emplace_back();
    storages.back().name = name;
    record(1, &cf.rootEntry, &storages.back());
  }
  void stream(const std::u16string& name, uint64_t size,
              bool oneBlock = false) {
    streams.emplace_back();
    gxdDirEntry& e = streams.back();
    e.name = name, e.size = size;
    record(2, &cf.rootEntry, &e);
    if (size == 0) return;
    lists.emplace_back();
    uint8_t block[512];
    for (uint64_t off = 0; off < size; off += 512) {
      if (oneBlock && off > 0) {
        lists.back().push_back(lists.back()[0]);
        continue;
      }
      for (int i = 0; i < 512; ++i) block[i] = patternByte(off + i);
      lists.back().push_back(cf.writeTempBlock(block));
    }
    record(3, &e, &lists.back());
  }
  const std::string& save() {
    cf.save();
    return out.buf().data();
  }
};

uint32_t u32(const std::string& f, size_t off) {
  return off + 4 <= f.size()
             ? loadU32(reinterpret_cast<const uint8_t*>(f.data()) + off)
             : 0xBADu;
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
                uint32_t right, uint32_t child, uint32_t start, uint64_t size) {
  std::string b(128, '\0');
  uint8_t* p = reinterpret_cast<uint8_t*>(&b[0]);
  for (size_t i = 0; i < name.size(); ++i) storeU16(p + 2 * i, name[i]);
  storeU16(p + 64, static_cast<uint16_t>((name.size() + 1) * 2));
  p[66] = type;
  p[67] = type == 5 ? 0 : 1;
  storeU32(p + 68, left), storeU32(p + 72, right), storeU32(p + 76, child);
  storeU32(p + 116, start), storeU64(p + 120, size);
  return b;
}
std::string pattern(size_t size, size_t period = SIZE_MAX) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i)
    s[i] = static_cast<char>(patternByte(i % period));
  return s;
}

}  // namespace

TEST(SaveTest, EmptyFileIsHeaderFatAndRootEntry) {
  Doc d;
  const std::string& f = d.save();
  ASSERT_EQ(f.size(), 1536u);
  std::string h(512, '\xFF');
  uint8_t* p = reinterpret_cast<uint8_t*>(&h[0]);
  std::memset(p, 0, 0x4C);
  std::memcpy(p, "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8);
  storeU16(p + 0x18, 0x3E), storeU16(p + 0x1A, 3), storeU16(p + 0x1C, 0xFFFE);
  storeU16(p + 0x1E, 9), storeU16(p + 0x20, 6), storeU32(p + 0x2C, 1),
      storeU32(p + 0x30, 1);
  storeU32(p + 0x38, 0x1000), storeU32(p + 0x3C, EOC), storeU32(p + 0x44, EOC);
  storeU32(p + 0x4C, 0);
  EXPECT_EQ(f.substr(0, 512), h);
  std::string fat(512, '\xFF');
  storeU32(reinterpret_cast<uint8_t*>(&fat[0]), kFatSect);
  storeU32(reinterpret_cast<uint8_t*>(&fat[4]), EOC);
  EXPECT_EQ(f.substr(512, 512), fat);
  EXPECT_EQ(f.substr(1024),
            rec(u"Root Entry", 5, NS, NS, NS, EOC, 0) + std::string(384, '\0'));
}

TEST(SaveTest, StreamsGoToMiniStreamOrRegularSectorsBySize) {
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
    EXPECT_EQ(u32(f, 0x3C), 2u);
    EXPECT_EQ(u32(f, 0x40), 1u);
    EXPECT_EQ(u32(f, at(2)), 1u);
    EXPECT_EQ(u32(f, at(2) + 4), EOC);
    EXPECT_EQ(u32(f, at(2) + 8), FREE);
    EXPECT_EQ(f.substr(at(3), 100), pattern(100));
  }
  {
    SCOPED_TRACE("5000 bytes: sectors 2 to 11");
    Doc d;
    d.stream(u"A", 5000);
    const std::string& f = d.save();
    ASSERT_EQ(f.size(), 6656u);
    for (uint32_t s = 2; s < 11; ++s) EXPECT_EQ(fatAt(f, s), s + 1);
    EXPECT_EQ(fatAt(f, 11), EOC);
    EXPECT_EQ(dirEntry(f, 0), rec(u"Root Entry", 5, NS, NS, 1, EOC, 0));
    EXPECT_EQ(dirEntry(f, 1), rec(u"A", 2, NS, NS, NS, 2, 5000));
    EXPECT_EQ(u32(f, 0x3C), EOC);
    EXPECT_EQ(u32(f, 0x40), 0u);
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
    EXPECT_EQ(fatAt(f, 1), 2u);
    EXPECT_EQ(fatAt(f, 2), EOC);
    EXPECT_EQ(f.substr(at(2)), std::string(512, '\0'));
    EXPECT_EQ(dirEntry(f, 3), rec(u"z", 2, NS, NS, NS, 0, 0));
    EXPECT_EQ(u32(dirEntry(f, 2), 72), 3u);
  }
}

TEST(SaveTest, SmallStreamEndingOnMiniSector127AddsSecondMiniFatSector) {
  Doc d;
  d.stream(u"A", 4095);  // mini sectors 0..63
  d.stream(u"B", 4095);  // mini sectors 64..127
  const std::string& f = d.save();
  // FAT, directory, MiniFAT, 16 mini stream sectors, the second MiniFAT sector.
  ASSERT_EQ(f.size(), 21u * 512);
  EXPECT_EQ(u32(f, 0x40), 2u);
  EXPECT_EQ(u32(f, 0x3C), 2u);
  EXPECT_EQ(fatAt(f, 2), 19u);
  EXPECT_EQ(fatAt(f, 19), EOC);
  EXPECT_EQ(f.substr(at(19)), std::string(512, '\xFF'));
  EXPECT_EQ(u32(f, at(2) + 4 * 63), EOC);
  EXPECT_EQ(u32(f, at(2) + 4 * 126), 127u);
  EXPECT_EQ(u32(f, at(2) + 4 * 127), EOC);
  EXPECT_EQ(dirEntry(f, 0), rec(u"Root Entry", 5, NS, NS, 1, 3, 8192));
  EXPECT_EQ(dirEntry(f, 2), rec(u"B", 2, NS, NS, NS, 64, 4095));
  EXPECT_EQ(readChain(f, 3, 8192).substr(4096, 4095), pattern(4095));
}

TEST(SaveTest, LargeChainCrossesFatReach) {
  Doc d;
  d.stream(u"A", 200 * 512);
  const std::string& f = d.save();
  ASSERT_EQ(f.size(), 204u * 512);
  EXPECT_EQ(u32(f, 0x2C), 2u);
  EXPECT_EQ(u32(f, 0x4C + 4), 129u);
  EXPECT_EQ(fatAt(f, 127), 128u);
  EXPECT_EQ(fatAt(f, 128), 130u);
  EXPECT_EQ(fatAt(f, 129), kFatSect);
  EXPECT_EQ(fatAt(f, 202), EOC);
  EXPECT_EQ(readChain(f, 2, 200 * 512), pattern(200 * 512));
}

TEST(SaveTest, FatSectorsBeyondHeaderBringDifatSectors) {
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
      if (j < used)
        EXPECT_EQ(fatAt(f, slot), kFatSect) << j;
      else
        EXPECT_EQ(slot, FREE) << j;
    }
  }
  EXPECT_EQ(u32(f, at(d2) + 127 * 4), EOC);
  EXPECT_TRUE(readChain(f, 2, size) == pattern(size, 512));
  gxFaultStream in(f);
  gxdCompoundFile back(&in, nullptr, true);
  EXPECT_TRUE(in.good());
  EXPECT_EQ(back.fat, d.cf.fat);
}

TEST(SaveTest, SecondCommitLeavesFileUnchanged) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() /
                       ("gx-save-" + std::to_string(std::random_device{}()));
  fs::create_directories(dir);
  const std::u16string path = (dir / "twice.gxw").u16string();
  auto slurp = [&] {
    std::ifstream in(dir / "twice.gxw", std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
  };
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(path.c_str(), 0, &root), 0);
  gxdIStream* s = nullptr;
  ASSERT_EQ(root->createStream(u"A", &s), 0);
  const std::string data = pattern(3000);
  ASSERT_EQ(s->write(data.data(), data.size(), nullptr), 0);
  root->commit();
  const std::string first = slurp();
  EXPECT_EQ(first.size(), 2048u + 6 * 512);
  s->write(data.data(), data.size(), nullptr);
  gxdIStorage* sub = nullptr;
  ASSERT_EQ(root->createStorage(u"S", &sub), 0);
  root->commit();
  EXPECT_EQ(slurp(), first);
  s->release();
  sub->release();
  root->release();
  EXPECT_EQ(slurp(), first);
  fs::remove_all(dir);
}
