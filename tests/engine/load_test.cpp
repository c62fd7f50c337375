// Loading an existing compound file: header, FAT through the header and
// DIFAT sectors, MiniFAT and the mini stream, in both sector sizes.
#include <gtest/gtest.h>

#include <cstring>

#include "engine/gxdCompoundFile.h"
#include "support/gxFaultStream.h"
#include "support/gxTestFileBuilder.h"

namespace {

struct Loaded {
  explicit Loaded(std::string bytes)
      : stream(std::move(bytes)), file(&stream, nullptr, true) {}
  bool ok() const { return !stream.fail(); }
  gxFaultStream stream;
  gxdCompoundFile file;
};

std::string pattern(size_t n, int seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 7 + seed);
  return s;
}

TEST(Load, NewEngineHasTheNewFileHeaderAndReadsNothing) {
  gxFaultStream stream;
  gxdCompoundFile file(&stream, nullptr, false);
  uint8_t h[512];
  file.header.store(h);
  uint8_t want[512];
  std::memset(want, 0xFF, sizeof want);
  std::memset(want, 0, 0x4C);
  const uint8_t sig[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
  std::memcpy(want, sig, 8);
  const uint8_t fields[][3] = {{0x18, 0x3E, 0},    {0x1A, 3, 0},
                               {0x1C, 0xFE, 0xFF}, {0x1E, 9, 0},
                               {0x20, 6, 0},       {0x39, 0x10, 0}};
  for (auto& f : fields) want[f[0]] = f[1], want[f[0] + 1] = f[2];
  for (int at : {0x30, 0x3C, 0x44})
    std::memset(want + at, 0xFF, 4), want[at] = 0xFE;
  EXPECT_EQ(0, std::memcmp(h, want, 512));
  EXPECT_EQ(512, file.sectorSize);
  EXPECT_EQ(64, file.miniSectorSize);
  EXPECT_EQ(4u, file.entriesPerSector);
  EXPECT_EQ(u"Root Entry", file.rootEntry.name);
  EXPECT_TRUE(file.rootEntry.storages.empty() &&
              file.rootEntry.streams.empty());
  EXPECT_EQ(0u, stream.buf().transferred());
  EXPECT_TRUE(stream.good());
}

// 110 FAT sectors: 109 listed in the header, the last in the first DIFAT
// sector; in both sector sizes, with a tree and both kinds of stream data.
TEST(Load, FatThroughHeaderAndDifatInBothVersions) {
  for (uint16_t version : {3, 4}) {
    SCOPED_TRACE(version);
    gxTestFileBuilder b(version);
    b.minFatSectors = 110;
    uint32_t dir = b.addStorage(0, u"Dir");
    b.addStream(dir, u"small", pattern(1000, 1));
    b.addStream(0, u"large", pattern(9000, 2));
    std::string bytes = b.build();
    ASSERT_EQ(1u, b.difatSectors.size());
    const uint32_t perSector = b.sectorSize / 4;
    // A larger DIFAT count still ends at the ENDOFCHAIN link.
    gxPutU32(bytes, 72, 3);
    Loaded l(bytes);
    ASSERT_TRUE(l.ok());
    EXPECT_EQ(b.sectorSize, l.file.sectorSize);
    EXPECT_EQ(b.sectorSize / 128, l.file.entriesPerSector);
    ASSERT_GE(l.file.fat.size(), size_t(110) * perSector);
    for (uint32_t s : {0u, 108u, 109u, 110u})
      EXPECT_EQ(gxGetU32(bytes, b.fatEntryOffset(s)), l.file.fat[s]) << s;
    EXPECT_EQ(0xFFFFFFFDu, l.file.fat[109]);
    EXPECT_EQ(0xFFFFFFFCu, l.file.fat[110]);
    ASSERT_EQ(1u, l.file.rootEntry.storages.size());
    ASSERT_EQ(1u, l.file.rootEntry.streams.size());
    EXPECT_EQ(9000u, l.file.rootEntry.streams[0].size);
    EXPECT_EQ(b.entries[3].startSector,
              l.file.rootEntry.streams[0].startSector);
    EXPECT_EQ(pattern(1000, 1), std::string(l.file.miniStream.begin(),
                                            l.file.miniStream.begin() + 1000));
  }
}

TEST(Load, HeaderFatWalkAndMiniStream) {
  gxTestFileBuilder b;
  b.addStream(0, u"s", pattern(1000, 3));
  std::string bytes = b.build();
  ASSERT_EQ(2u, b.miniStreamSectors.size());
  {
    SCOPED_TRACE("one FAT sector of 128 entries; mini stream over two sectors");
    std::string f = bytes;
    gxPutU32(f, b.entryOffset(0) + 120, 1000);  // 512 + 488 bytes
    Loaded l(f);
    ASSERT_TRUE(l.ok());
    EXPECT_EQ(128u, l.file.fat.size());
    EXPECT_EQ(pattern(1000, 3),
              std::string(l.file.miniStream.begin(), l.file.miniStream.end()));
    EXPECT_EQ(128u, l.file.miniFat.size());
    EXPECT_EQ(1u, l.file.miniFat[0]);
  }
  {
    SCOPED_TRACE("header walk stops at the first FREESECT slot");
    std::string f = bytes;
    gxPutU32(f, 76 + 4 * 2, 0);
    Loaded l(f);
    ASSERT_TRUE(l.ok());
    EXPECT_EQ(128u, l.file.fat.size());
  }
  {
    SCOPED_TRACE("no MiniFAT: neither MiniFAT nor mini stream is loaded");
    std::string f = bytes;
    gxPutU32(f, 60, 0xFFFFFFFEu);
    Loaded l(f);
    ASSERT_TRUE(l.ok());
    EXPECT_TRUE(l.file.miniFat.empty());
    EXPECT_TRUE(l.file.miniStream.empty());
    EXPECT_EQ(1024u, l.file.rootEntry.size);
  }
  {
    SCOPED_TRACE("minor version 0x21 and byte order 0 are accepted");
    std::string f = bytes;
    gxPutU16(f, 24, 0x21);
    gxPutU16(f, 28, 0);
    EXPECT_TRUE(Loaded(f).ok());
  }
}

}  // namespace
