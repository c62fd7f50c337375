// Byte edits of valid files: each must load to the documented outcome or be
// refused cleanly (failed stream), without reading outside a table or the
// file, without unbounded work and without allocating what the header claims.
#include <gtest/gtest.h>

#include <functional>

#include "engine/gxdCompoundFile.h"
#include "support/gxFaultStream.h"
#include "support/gxTestFileBuilder.h"

namespace {

struct Loaded {
  explicit Loaded(std::string bytes, uint64_t failAfter = UINT64_MAX,
                  size_t shortReads = 0)
      : stream(std::move(bytes)),
        file((stream.buf().failAfter = failAfter,
              stream.buf().shortReads = shortReads, &stream),
             nullptr, true) {}
  bool ok() const { return !stream.fail(); }
  gxFaultStream stream;
  gxdCompoundFile file;
};

// Root -> storage S holding three streams that fill two MiniFAT sectors and
// three directory sectors' worth of entries, plus a large stream.
gxTestFileBuilder sample(uint16_t version, uint32_t fatSectors = 1) {
  gxTestFileBuilder b(version);
  b.minFatSectors = fatSectors;
  uint32_t s = b.addStorage(0, u"S");
  for (int i = 0; i < 3; ++i)
    b.addStream(s, u"m" + std::u16string(1, char16_t(u'0' + i)),
                std::string(3000, char('a' + i)));
  for (int i = 0; i < 6; ++i)
    b.addStorage(s, u"e" + std::u16string(1, char16_t(u'0' + i)));
  b.addStream(0, u"big", std::string(5000, 'z'));
  return b;
}

TEST(Corruption, TruncatedFilesAndFailingStreams) {
  for (uint32_t fatSectors : {1u, 110u}) {
    for (uint16_t version : {3, 4}) {
      if (version == 4 && fatSectors > 1) continue;
      SCOPED_TRACE(testing::Message()
                   << "v" << version << " fat " << fatSectors);
      gxTestFileBuilder b = sample(version, fatSectors);
      const std::string full = b.build();
      Loaded whole(full);
      ASSERT_TRUE(whole.ok());
      const uint64_t readBytes = whole.stream.buf().transferred();
      // Every sector boundary (structures begin and end there), one byte
      // short of it, and every 512-byte step.
      for (uint64_t at = 0; at <= full.size(); at += 512) {
        for (uint64_t len : {at, at ? at - 1 : 0, at + 100}) {
          if (len > full.size()) continue;
          Loaded l(full.substr(0, len));
          EXPECT_EQ(len >= b.metadataEnd, l.ok()) << "length " << len;
          if (l.ok()) {
            EXPECT_EQ(2u, l.file.rootEntry.streams.size() +
                              l.file.rootEntry.storages.size());
          }
        }
      }
      // A stream that fails after n bytes fails the load exactly when the
      // load needs more than n bytes; short reads change nothing.
      for (uint64_t n = 0; n < readBytes; n += 97)
        EXPECT_FALSE(Loaded(full, n).ok()) << "fail after " << n;
      EXPECT_FALSE(Loaded(full, readBytes - 1).ok());
      EXPECT_TRUE(Loaded(full, readBytes).ok());
      for (size_t shortReads : {1, 3, 511}) {
        Loaded l(full, UINT64_MAX, shortReads);
        EXPECT_TRUE(l.ok()) << shortReads;
        EXPECT_EQ(whole.file.miniStream, l.file.miniStream);
      }
    }
  }
}

struct Edit {
  const char* what;
  std::function<void(gxTestFileBuilder&, std::string&)> edit;
  bool loads;  // the documented outcome: loads (with the tree checked) or not
};

TEST(Corruption, EditedFilesAreRefusedOrLoadAsDocumented) {
  using B = gxTestFileBuilder;
  const uint32_t kEnd = B::kEnd;
  auto fatOf = [](B& b, std::string& f, uint32_t s, uint32_t v) {
    gxPutU32(f, b.fatEntryOffset(s), v);
  };
  std::vector<Edit> edits = {
      {"empty file", [](B&, std::string& f) { f.clear(); }, false},
      {"300 bytes", [](B&, std::string& f) { f.resize(300); }, false},
      {"major version 2", [](B&, std::string& f) { gxPutU16(f, 26, 2); },
       false},
      {"major version 5", [](B&, std::string& f) { gxPutU16(f, 26, 5); },
       false},
      {"mini sector larger than a sector",
       [](B&, std::string& f) { gxPutU16(f, 32, 10); }, false},
      {"4 billion FAT sectors",
       [](B&, std::string& f) { gxPutU32(f, 44, 0xFFFFFFFF); }, false},
      {"4 billion DIFAT sectors",
       [](B&, std::string& f) { gxPutU32(f, 72, 0xFFFFFFFF); }, false},
      {"4 billion MiniFAT sectors",
       [](B&, std::string& f) { gxPutU32(f, 64, 0xFFFFFFFF); }, false},
      {"mini stream of 4 GiB",
       [](B& b, std::string& f) {
         gxPutU32(f, b.entryOffset(0) + 120, 0xFFFFFFF0);
       },
       false},
      {"FAT sector past the end",
       [](B&, std::string& f) { gxPutU32(f, 76, 0x00FFFFFF); }, false},
      {"FAT sector listed twice",
       [](B&, std::string& f) { gxPutU32(f, 44, 2), gxPutU32(f, 80, 0); },
       false},
      {"no directory", [](B&, std::string& f) { gxPutU32(f, 48, kEnd); },
       false},
      {"directory past the end",
       [](B&, std::string& f) { gxPutU32(f, 48, 0x7FFFFFFF); }, false},
      {"directory chain loops",
       [&](B& b, std::string& f) {
         fatOf(b, f, b.directorySectors[2], b.directorySectors[0]);
       },
       false},
      {"directory chain links past the FAT",
       [&](B& b, std::string& f) {
         fatOf(b, f, b.directorySectors[0], 0x00FFFFFF);
       },
       false},
      {"directory chain links to FATSECT",
       [&](B& b, std::string& f) {
         fatOf(b, f, b.directorySectors[0], 0xFFFFFFFD);
       },
       false},
      {"MiniFAT chain ends early",
       [&](B& b, std::string& f) { fatOf(b, f, b.miniFatSectors[0], kEnd); },
       false},
      {"MiniFAT chain loops",
       [&](B& b, std::string& f) {
         fatOf(b, f, b.miniFatSectors[0], b.miniFatSectors[0]);
       },
       false},
      {"mini stream chain ends early",
       [&](B& b, std::string& f) { fatOf(b, f, b.miniStreamSectors[3], kEnd); },
       false},
      {"mini stream chain loops",
       [&](B& b, std::string& f) {
         fatOf(b, f, b.miniStreamSectors[3], b.miniStreamSectors[1]);
       },
       false},
      {"child link out of range",
       [](B& b, std::string& f) { gxPutU32(f, b.entryOffset(1) + 76, 5000); },
       false},
      {"sibling link out of range",
       [](B& b, std::string& f) {
         gxPutU32(f, b.entryOffset(2) + 72, 0x7FFFFFFF);
       },
       false},
      {"sibling points to itself",
       [](B& b, std::string& f) { gxPutU32(f, b.entryOffset(1) + 68, 1); },
       true},
      {"child points to an ancestor",
       [](B& b, std::string& f) { gxPutU32(f, b.entryOffset(5) + 76, 1); },
       true},
      {"root entry is a storage: empty tree",
       [](B& b, std::string& f) { f[b.entryOffset(0) + 66] = 1; }, true},
      {"root entry unused: empty tree",
       [](B& b, std::string& f) { f[b.entryOffset(0) + 66] = 0; }, true},
  };
  for (int i = 0; i < 8; ++i)
    edits.push_back(
        {"signature byte", [i](B&, std::string& f) { f[i] ^= 1; }, false});
  for (int i = 34; i < 40; ++i)
    edits.push_back(
        {"reserved byte", [i](B&, std::string& f) { f[i] = 1; }, false});
  for (uint16_t shift : {0, 7, 8, 10, 11, 13, 15, 16, 31, 0xFFFF})
    edits.push_back({"sector shift",
                     [shift](B&, std::string& f) { gxPutU16(f, 30, shift); },
                     false});
  // The DIFAT of a file with 110 FAT sectors.
  std::vector<Edit> difatEdits = {
      {"DIFAT count larger than the chain",
       [](B&, std::string& f) { gxPutU32(f, 72, 40); }, true},
      {"DIFAT sector links to itself",
       [](B& b, std::string& f) {
         gxPutU32(f, 72, 5);
         gxPutU32(f, b.sectorOffset(b.difatSectors[0]) + 508,
                  b.difatSectors[0]);
       },
       false},
      {"DIFAT sector past the end",
       [](B&, std::string& f) { gxPutU32(f, 68, 0x00FFFFFF); }, false},
      {"FAT sector in the DIFAT past the end",
       [](B& b, std::string& f) {
         gxPutU32(f, b.sectorOffset(b.difatSectors[0]), 0x00FFFFFF);
       },
       false},
  };
  for (int pass = 0; pass < 2; ++pass) {
    for (const Edit& e : pass ? difatEdits : edits) {
      SCOPED_TRACE(e.what);
      gxTestFileBuilder b = sample(3, pass ? 110 : 1);
      std::string f = b.build();
      e.edit(b, f);
      Loaded l(f);
      EXPECT_EQ(e.loads, l.ok());
      EXPECT_LE(l.file.fat.size(), f.size());  // nothing sized by a claim
      EXPECT_LE(l.file.miniStream.size(), f.size());
      if (l.ok() && l.file.rootEntry.name.empty()) {
        EXPECT_TRUE(l.file.rootEntry.storages.empty() &&
                    l.file.rootEntry.streams.empty());
      } else if (l.ok()) {
        ASSERT_EQ(1u, l.file.rootEntry.storages.size());
        EXPECT_EQ(u"S", l.file.rootEntry.storages[0].name);
        EXPECT_EQ(9u, l.file.rootEntry.storages[0].streams.size() +
                          l.file.rootEntry.storages[0].storages.size());
      }
    }
  }
}

TEST(Corruption, StoragesNestedTooDeepAreRefused) {
  for (uint32_t depth : {200u, 400u}) {
    gxTestFileBuilder b;
    uint32_t parent = 0;
    for (uint32_t i = 0; i < depth; ++i) parent = b.addStorage(parent, u"d");
    Loaded l(b.build());
    EXPECT_EQ(depth <= gxdCompoundFile::kMaxDirectoryDepth, l.ok()) << depth;
  }
}

}  // namespace
