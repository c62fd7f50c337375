// Damaged files opened read-write by the service: truncations, edited table
// and directory bytes and seeded random byte edits of the metadata. Each
// must be refused with the platform's code or open; an opened file must read
// every stream or fail the read cleanly, and after changes it must still
// open: the service never spreads damage, and never writes a file it found
// damaged.
#include <gtest/gtest.h>

#include <random>

#include "service/gxsDocFile.h"
#include "support/gxMemoryFile.h"
#include "support/gxTestFileBuilder.h"

namespace {

gxTestFileBuilder sample(uint16_t version) {
  gxTestFileBuilder b(version);
  uint32_t s = b.addStorage(0, u"S");
  for (int i = 0; i < 3; ++i)
    b.addStream(s, u"m" + std::u16string(1, char16_t(u'0' + i)),
                std::string(3000, char('a' + i)));
  for (int i = 0; i < 6; ++i)
    b.addStorage(s, u"e" + std::u16string(1, char16_t(u'0' + i)));
  b.addStream(0, u"big", std::string(5000, 'z'));
  return b;
}

bool refusal(HRESULT hr) {
  return hr == STG_E_DOCFILECORRUPT || hr == STG_E_INVALIDHEADER ||
         hr == STG_E_FILEALREADYEXISTS || hr == STG_E_READFAULT;
}

// Opens `bytes`, reads every stream, and when that found no damage, edits
// the file; returns the open's result. Every outcome must be clean.
HRESULT openReadAndEdit(const std::string& bytes) {
  auto data = std::make_shared<gxMemoryBytes>();
  data->bytes.assign(bytes.begin(), bytes.end());
  std::unique_ptr<gxsDocFile> f;
  HRESULT hr = gxsDocFile::open(std::make_unique<gxMemoryFile>(data), true, f);
  if (hr != S_OK) {
    EXPECT_TRUE(refusal(hr)) << std::hex << hr;
    EXPECT_EQ(std::string(data->bytes.begin(), data->bytes.end()), bytes);
    return hr;
  }
  std::vector<uint32_t> storages = {0}, kids;
  bool damaged = false;
  std::string buffer(70000, '\0');
  for (size_t i = 0; i < storages.size() && storages.size() < 1000; ++i) {
    if (f->children(storages[i], kids) != S_OK) {
      damaged = true;
      break;
    }
    for (uint32_t k : kids) {
      if (f->entry(k).objectType == kObjStorage) storages.push_back(k);
      uint32_t done = 0;
      if (f->entry(k).objectType == kObjStream &&
          f->readStream(k, 0, &buffer[0], 70000, done) != S_OK)
        damaged = true;
    }
  }
  uint32_t id = 0, done = 0;
  HRESULT edit = f->addEntry(0, u"added", kObjStream, id);
  if (edit == S_OK) edit = f->writeStream(id, 0, buffer.data(), 5000, done);
  if (edit == S_OK) edit = f->setStreamSize(id, 100);
  if (edit == S_OK && f->find(0, u"big", id) == S_OK) {
    std::vector<uint32_t> removed;
    edit = f->removeEntry(0, id, removed);
  }
  if (edit == S_OK) edit = f->close();
  if (damaged || f->corrupt()) {
    // Damage found: nothing was written after it.
    EXPECT_NE(edit, S_OK);
    return hr;
  }
  EXPECT_EQ(edit, S_OK);
  f.reset();
  EXPECT_EQ(gxsDocFile::open(std::make_unique<gxMemoryFile>(data), true, f),
            S_OK);
  return hr;
}

TEST(ServiceCorruption, TruncationsEditsAndRandomBytes) {
  for (uint16_t version : {3, 4}) {
    SCOPED_TRACE(version);
    gxTestFileBuilder b = sample(version);
    const std::string base = b.build();
    EXPECT_EQ(openReadAndEdit(base), S_OK);
    for (uint64_t len = 0; len < base.size(); len += 256)
      openReadAndEdit(base.substr(0, len));
    const uint32_t kEnd = gxTestFileBuilder::kEnd;
    auto fat = [&b](uint32_t s) { return b.fatEntryOffset(s); };
    auto entry = [&b](uint32_t n, uint64_t field) {
      return b.entryOffset(n) + field;
    };
    struct Edit {
      const char* what;
      uint64_t at;
      uint32_t value;
      int width;
      HRESULT expected;
    };
    const HRESULT kCorrupt = STG_E_DOCFILECORRUPT, kHeader = STG_E_INVALIDHEADER;
    // clang-format off
    const Edit edits[] = {
        {"signature", 0, 0, 1, STG_E_FILEALREADYEXISTS},
        {"major version 5", 26, 5, 2, kHeader},
        {"sector shift 10", 30, 10, 2, kHeader},
        {"mini sector shift 7", 32, 7, 2, kHeader},
        {"cutoff 2048", 56, 2048, 4, kHeader},
        {"4 billion FAT sectors", 44, 0xFFFFFFFF, 4, kCorrupt},
        {"4 billion DIFAT sectors", 72, 0xFFFFFFFF, 4, kCorrupt},
        {"FAT sector past the end", 76, 0x00FFFFFF, 4, kCorrupt},
        {"directory chain loops", fat(b.directorySectors.back()), b.directorySectors[0], 4, kCorrupt},
        {"directory chain links to FATSECT", fat(b.directorySectors[0]), 0xFFFFFFFD, 4, kCorrupt},
        {"MiniFAT chain loops", fat(b.miniFatSectors[0]), b.miniFatSectors[0], 4, kCorrupt},
        {"mini stream of 4 GiB", entry(0, 120), 0xFFFFFFF0, 4, kCorrupt},
        {"child link out of range", entry(1, 76), 5000, 4, kCorrupt},
        {"sibling points to itself", entry(1, 68), 1, 4, kCorrupt},
        {"two siblings point at each other", entry(11, 72), 1, 4, kCorrupt},
        {"child points to an ancestor", entry(5, 76), 1, 4, kCorrupt},
        {"root entry is a storage", entry(0, 66), 1, 1, kCorrupt},
        {"stream longer than its chain", entry(11, 120), 9000, 4, kCorrupt},
        {"small stream longer than its chain", entry(2, 120), 3500, 4, kCorrupt},
        {"two streams share a chain", entry(3, 116), 0, 4, kCorrupt},
        {"large stream chain ends early", fat(b.entries[11].startSector), kEnd, 4, kCorrupt},
        {"large stream chain loops", fat(b.entries[11].startSector + 1), b.entries[11].startSector, 4, kCorrupt},
    };
    // clang-format on
    for (const Edit& e : edits) {
      SCOPED_TRACE(e.what);
      std::string f = base;
      gxPutU32(f, e.at, e.value, e.width);
      EXPECT_EQ(openReadAndEdit(f), e.expected);
    }
    // Seeded random bytes over everything the open reads.
    std::mt19937 rng(version);
    for (int round = 0; round < 400; ++round) {
      std::string f = base;
      for (int n = 1 + round % 4; n > 0; --n)
        f[rng() % b.metadataEnd] = static_cast<char>(rng());
      openReadAndEdit(f);
      if (HasFailure()) {
        ADD_FAILURE() << "round " << round;
        return;
      }
    }
  }
}

// Broke when chains could run on past the end of the file, where reads
// give zeros: a file of 52 KB made the service hold a directory of 12,700
// sectors. The directory's chain and a stream's chain are led past the
// end, where the FAT ends them.
TEST(ServiceCorruption, ChainsPastTheEndOfTheFileAreRefused) {
  for (uint16_t version : {3, 4}) {
    SCOPED_TRACE(version);
    gxTestFileBuilder b = sample(version);
    const std::string base = b.build();
    const uint32_t past = static_cast<uint32_t>(base.size() / b.sectorSize) + 2;
    const uint32_t bigEnd =
        b.entries[11].startSector + (5000 + b.sectorSize - 1) / b.sectorSize - 1;
    for (uint32_t last : {b.directorySectors.back(), bigEnd}) {
      std::string f = base;
      gxPutU32(f, b.fatEntryOffset(last), past);
      gxPutU32(f, b.fatEntryOffset(past), gxTestFileBuilder::kEnd);
      EXPECT_EQ(openReadAndEdit(f), STG_E_DOCFILECORRUPT);
    }
  }
}

}  // namespace
