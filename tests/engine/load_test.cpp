// Loading an existing compound file: header, FAT through the header and
// DIFAT sectors, MiniFAT and the mini stream, in both sector sizes.
#include <gtest/gtest.h>

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
  std::string want(512, '\xFF');  // by offset: the fields up to 0x4B
  const char* head =
      "d0cf11e0a1b11ae1000000000000000000000000000000003e000300feff0900"
      "06000000000000000000000000000000feffffff0000000000100000feffffff"
      "00000000feffffff00000000";
  for (size_t i = 0; i < 0x4C; ++i)
    want[i] = char(std::stoi(std::string(head + 2 * i, 2), nullptr, 16));
  EXPECT_EQ(want, std::string(reinterpret_cast<char*>(h), 512));
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
    SCOPED_TRACE("no MiniFAT: neither MiniFAT nor mini stream is loaded");
    std::string f = bytes;
    gxPutU32(f, 60, 0xFFFFFFFEu);
    Loaded l(f);
    ASSERT_TRUE(l.ok());
    EXPECT_TRUE(l.file.miniFat.empty());
    EXPECT_TRUE(l.file.miniStream.empty());
    EXPECT_EQ(1024u, l.file.rootEntry.size);
  }
}

}  // namespace
