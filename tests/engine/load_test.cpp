// Loading an existing compound file: FAT through the header and a DIFAT
// sector, MiniFAT and the mini stream, in both sector sizes.
#include <gtest/gtest.h>

#include "engine/gxdCompoundFile.h"
#include "support/gxFaultStream.h"
#include "support/gxTestFileBuilder.h"

namespace {

std::string pattern(size_t n, int seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 7 + seed);
  return s;
}

// 110 FAT sectors: 109 listed in the header, the last in the first DIFAT
// sector, whose ENDOFCHAIN link ends the walk before the header's count.
TEST(Load, FatThroughHeaderAndDifatAndMiniStreamInBothVersions) {
  for (uint16_t version : {3, 4}) {
    SCOPED_TRACE(version);
    gxTestFileBuilder b(version);
    b.minFatSectors = 110;
    uint32_t dir = b.addStorage(0, u"Dir");
    b.addStream(dir, u"small", pattern(1000, 1));
    b.addStream(0, u"large", pattern(9000, 2));
    std::string bytes = b.build();
    ASSERT_EQ(1u, b.difatSectors.size());
    gxPutU32(bytes, 72, 3);
    gxPutU32(bytes, b.entryOffset(0) + 120, 1000);  // v3: 512 + 488 bytes
    gxFaultStream stream(bytes);
    gxdCompoundFile f(&stream, nullptr, true);
    ASSERT_FALSE(stream.fail());
    EXPECT_EQ(b.sectorSize, f.sectorSize);
    EXPECT_EQ(b.sectorSize / 128, f.entriesPerSector);
    ASSERT_GE(f.fat.size(), size_t(110) * b.sectorSize / 4);
    for (uint32_t s : {0u, 108u, 109u, 110u, 114u})
      EXPECT_EQ(gxGetU32(bytes, b.fatEntryOffset(s)), f.fat[s]) << s;
    EXPECT_EQ(0xFFFFFFFDu, f.fat[109]);
    EXPECT_EQ(0xFFFFFFFCu, f.fat[110]);
    ASSERT_EQ(1u, f.rootEntry.storages.size());
    ASSERT_EQ(1u, f.rootEntry.streams.size());
    EXPECT_EQ(9000u, f.rootEntry.streams[0].size);
    EXPECT_EQ(b.entries[3].startSector, f.rootEntry.streams[0].startSector);
    EXPECT_EQ(pattern(1000, 1),
              std::string(f.miniStream.begin(), f.miniStream.end()));
    EXPECT_EQ(1u, f.miniFat[0]);
    // Without a MiniFAT neither it nor the mini stream is loaded.
    gxPutU32(bytes, 60, gxTestFileBuilder::kEnd);
    gxFaultStream stream2(bytes);
    gxdCompoundFile f2(&stream2, nullptr, true);
    EXPECT_FALSE(stream2.fail());
    EXPECT_TRUE(f2.miniFat.empty() && f2.miniStream.empty());
    EXPECT_EQ(1000u, f2.rootEntry.size);
  }
}

}  // namespace
