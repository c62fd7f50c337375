// The load of a file, by both loaders: the engine's, and the service's that
// opens files read-write. Byte edits and cuts of valid files: each must load
// to the documented outcome or be refused cleanly (a failed stream; the
// platform's code), without reading outside a table or the file, without
// unbounded work and without allocating what the header claims. The streams
// of those that load read back whole, or fail cleanly over damaged chains and
// a file cut short; the service then edits what it found undamaged, and
// writes nothing after damage it found. Then the directory tree as loaded:
// walk order, skipped entries, names, a sibling chain too long for a stack
// frame per link, and storages nested too deep.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <tuple>

#include "engine/gxdCompoundFile.h"
#include "portable/gxdStorage.h"
#include "service/gxsDocFile.h"
#include "support/gxFaultStream.h"
#include "support/gxMemoryFile.h"
#include "support/gxTestFileBuilder.h"

namespace {

struct Loaded {
  explicit Loaded(std::string bytes, uint64_t failAfter = UINT64_MAX)
      : stream(std::move(bytes)),
        file((stream.buf().failAfter = failAfter, &stream), nullptr, true) {}
  bool ok() const { return !stream.fail(); }
  gxFaultStream stream;
  gxdCompoundFile file;
};

std::string pattern(size_t size, int seed) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) s[i] = char(i * 131 + seed + (i >> 8));
  return s;
}

// Root -> storage S (entry 1) holding streams m0 to m2 (entries 2 to 4) that
// fill two MiniFAT sectors, and three directory sectors' worth of entries,
// plus a large stream "big" (entry 11).
gxTestFileBuilder sample(uint16_t version, uint32_t fatSectors = 1) {
  gxTestFileBuilder b(version);
  b.minFatSectors = fatSectors;
  uint32_t s = b.addStorage(0, u"S");
  for (int i = 0; i < 3; ++i)
    b.addStream(s, u"m" + std::u16string(1, char16_t(u'0' + i)),
                pattern(3000, i));
  for (int i = 0; i < 6; ++i)
    b.addStorage(s, u"e" + std::u16string(1, char16_t(u'0' + i)));
  b.addStream(0, u"big", pattern(5000, 7));
  return b;
}

// The documented outcome of an edit: the file is refused; or it loads (the
// tree is checked) and its streams read back whole, or a read of a damaged
// chain fails, or reads stop short, failing or not (at a cut), or a chain
// loops (reads may repeat a sector, never too much).
enum Outcome { kRefused, kLoads, kReadFails, kReadsShort, kReadLoops };

// Reads streams m0 (mini) and big (regular) of the sample through the
// portable objects, in chunks. Reads deliver at most the stream's size and,
// unless `anyBytes` (a chain that loops may repeat a sector), only the
// stream's own bytes. Returns kLoads when both read back whole, kReadFails
// when a read failed (E_FAIL), kReadsShort otherwise.
Outcome readSample(gxdIStorage* root, const gxTestFileBuilder& b,
                   bool anyBytes) {
  gxdIStorage* s = nullptr;
  EXPECT_EQ(root->openStorage(u"S", &s), GX_S_OK);
  bool failed = s == nullptr, whole = true;
  for (auto [parent, name, n] : {std::tuple{s, u"m0", 2}, {root, u"big", 11}}) {
    gxdIStream* stream = nullptr;
    if (parent == nullptr || parent->openStream(name, &stream) != GX_S_OK) {
      failed = true;
      continue;
    }
    const std::string& want = b.entries[n].data;
    std::string got;
    char chunk[700];
    uint64_t done = 0;
    gxResult r;
    while ((r = stream->read(chunk, sizeof chunk, &done)) == GX_S_OK && done)
      got.append(chunk, done);
    EXPECT_LE(got.size(), want.size());
    EXPECT_TRUE(anyBytes || got == want.substr(0, got.size()));
    stream->setPosition(want.size() - 1);
    EXPECT_LE(stream->position(), want.size());
    failed = failed || r == GX_E_FAIL;
    whole = whole && got == want;
    stream->release();
  }
  if (s != nullptr) s->release();
  return failed ? kReadFails : whole ? kLoads : kReadsShort;
}

bool refusal(HRESULT hr) {
  return hr == STG_E_DOCFILECORRUPT || hr == STG_E_INVALIDHEADER ||
         hr == STG_E_FILEALREADYEXISTS || hr == STG_E_READFAULT;
}

// Opens `bytes` with the service, reads every stream, and when that found no
// damage, edits the file; returns the open's result. Every outcome must be
// clean, and a refused file is left as it was.
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
    EXPECT_NE(edit, S_OK);  // damage found: nothing was written after it
    return hr;
  }
  EXPECT_EQ(edit, S_OK);
  f.reset();
  EXPECT_EQ(gxsDocFile::open(std::make_unique<gxMemoryFile>(data), true, f),
            S_OK);
  return hr;
}

// One edit of a valid file: `width` bytes at `at` set to `value` (and a
// second 4-byte write, when `at2` is not 0), or with `width` 0, the file cut
// to its first `at` bytes. `outcome` is the engine's, `service` the service's
// open result (kClean: any clean one).
constexpr HRESULT kClean = S_FALSE;
struct Edit {
  const char* what;
  uint64_t at;
  uint32_t value;
  int width;
  Outcome outcome;
  HRESULT service = kClean;
  uint64_t at2 = 0;
  uint32_t value2 = 0;
};

// `base` is the file `b` built.
void checkEdits(const gxTestFileBuilder& b, const std::string& base,
                const std::vector<Edit>& edits) {
  for (const Edit& e : edits) {
    SCOPED_TRACE(testing::Message() << e.what << " at " << e.at);
    std::string f = base;
    if (e.width == 0) f.resize(e.at);
    if (e.width != 0) gxPutU32(f, e.at, e.value, e.width);
    if (e.at2 != 0) gxPutU32(f, e.at2, e.value2);
    const HRESULT service = openReadAndEdit(f);
    EXPECT_TRUE(e.service == kClean || service == e.service) << std::hex
                                                             << service;
    Loaded l(f);
    EXPECT_EQ(e.outcome != kRefused, l.ok());
    EXPECT_LE(l.file.fat.size(), f.size());  // nothing sized by a claim
    EXPECT_LE(l.file.miniStream.size(), f.size());
    const gxdStorageEntry& root = l.file.rootEntry;
    if (!l.ok()) continue;
    if (root.name.empty()) {
      EXPECT_TRUE(root.storages.empty() && root.streams.empty());
      continue;
    }
    ASSERT_EQ(1u, root.storages.size());
    EXPECT_EQ(
        9u, root.storages[0].streams.size() + root.storages[0].storages.size());
    std::ofstream("load_test_edited.gxw", std::ios::binary) << f;
    gxdIStorage* portable = nullptr;
    ASSERT_EQ(gxdStgOpenStorage(u"load_test_edited.gxw", 0, &portable), 0);
    const Outcome read = readSample(portable, b, e.outcome == kReadLoops);
    EXPECT_TRUE(e.outcome == kReadLoops || read == e.outcome ||
                (e.outcome == kReadsShort && read == kReadFails));
    portable->release();
  }
}

// Cut files: refused when the cut takes away part of what a load reads,
// else the large stream reads up to the cut (mini streams lie below
// `metadataEnd`). Every sector boundary (structures begin and end there), one
// byte short of it, and a hundred bytes past it.
void addCuts(const gxTestFileBuilder& b, uint64_t size, std::vector<Edit>& e) {
  const uint64_t bigEnd = b.sectorOffset(b.entries[11].startSector) + 5000;
  for (uint64_t at = 0; at <= size; at += 512) {
    for (uint64_t len : {at, at ? at - 1 : 0, at + 100}) {
      if (len > size) continue;
      const Outcome outcome = len < b.metadataEnd ? kRefused
                              : len < bigEnd      ? kReadsShort
                                                  : kLoads;
      e.push_back({"cut", len, 0, 0, outcome});
    }
  }
}

// Byte edits and cuts of version 3 and 4 files, and of one whose 237 FAT
// sectors are listed by two DIFAT sectors, through both loaders; seeded
// random bytes over what the service's open reads; then a stream that fails
// after n bytes (each n through the first 4 KB, sparser after) fails the
// engine's load exactly when the load needs more than n bytes.
TEST(Corruption, EditedFilesAreRefusedOrLoadAsDocumented) {
  const uint32_t kEnd = gxTestFileBuilder::kEnd;
  const HRESULT kCorrupt = STG_E_DOCFILECORRUPT, kHeader = STG_E_INVALIDHEADER;
  for (auto [version, fatSectors] :
       {std::pair<uint16_t, uint32_t>{3, 1}, {4, 1}, {3, 237}}) {
    SCOPED_TRACE(testing::Message() << "v" << version << " fat " << fatSectors);
    gxTestFileBuilder b = sample(version, fatSectors);
    const std::string base = b.build();
    auto fat = [&b](uint32_t s) { return b.fatEntryOffset(s); };
    auto entry = [&b](uint32_t n, uint64_t field) {
      return b.entryOffset(n) + field;
    };
    const auto& dir = b.directorySectors;
    const auto& miniFat = b.miniFatSectors;
    const auto& mini = b.miniStreamSectors;
    const uint32_t big = b.entries[11].startSector;  // the large stream
    const uint32_t bigEnd = big + (5000 + b.sectorSize - 1) / b.sectorSize - 1;
    const uint64_t miniLink =
        b.sectorOffset(miniFat[0]) + 4 * b.entries[2].startSector;
    // Broke when chains could run on past the end of the file, where reads
    // give zeros: a file of 52 KB made the service hold a directory of
    // 12,700 sectors. Those edits lead a chain past the end, where the FAT
    // ends it (a row's second write).
    const uint32_t past = uint32_t(base.size() / b.sectorSize) + 2;
    // The last slot of the first DIFAT sector links to the second one, which
    // lists the last FAT sector and ends the walk with ENDOFCHAIN (before a
    // count of 5, say).
    const uint64_t link =
        fatSectors > 1 ? b.sectorOffset(b.difatSectors[0]) + b.sectorSize - 4
                       : 0;
    std::vector<Edit> edits;
    addCuts(b, base.size(), edits);
    // clang-format off
    if (fatSectors > 1) edits.insert(edits.end(), {
        {"DIFAT count larger than the chain", 72, 5, 4, kLoads},
        {"DIFAT sector links to itself", link, b.difatSectors[0], 4, kRefused},
        {"DIFAT sector links to a FAT sector", link, b.fatSectors[3], 4, kRefused},
        {"DIFAT sector past the end", 68, 0x00FFFFFF, 4, kRefused},
        {"FAT sector in the DIFAT past the end", link - 508, 0x00FFFFFF, 4, kRefused},
        {"FAT sector listed twice", 76 + 4 * 5, 0, 4, kRefused},
    });
    if (fatSectors == 1) edits.insert(edits.end(), {
        {"minor version 0x21", 24, 0x21, 2, kLoads, S_OK},
        {"byte order 0", 28, 0, 2, kLoads, kHeader},
        {"header walk stops at FREESECT", 76 + 8, 0, 4, kLoads, S_OK},
        {"major version 2", 26, 2, 2, kRefused, kHeader},
        {"major version 5", 26, 5, 2, kRefused, kHeader},
        {"mini sector shift 7", 32, 7, 2, kLoads, kHeader},
        {"4 billion FAT sectors", 44, 0xFFFFFFFF, 4, kRefused, kCorrupt},
        {"4 billion DIFAT sectors", 72, 0xFFFFFFFF, 4, kRefused, kCorrupt},
        {"4 billion MiniFAT sectors", 64, 0xFFFFFFFF, 4, kRefused, S_OK},
        {"mini stream of 4 GiB", entry(0, 120), 0xFFFFFFF0, 4, kRefused, kCorrupt},
        {"FAT sector past the end", 76, 0x00FFFFFF, 4, kRefused, kCorrupt},
        {"no directory", 48, kEnd, 4, kRefused, kCorrupt},
        {"directory past the end", 48, 0x7FFFFFFF, 4, kRefused, kCorrupt},
        {"directory chain loops", fat(dir.back()), dir[0], 4, kRefused, kCorrupt},
        {"directory chain links past the FAT", fat(dir[0]), 0x00FFFFFF, 4, kRefused, kCorrupt},
        {"directory chain links to FATSECT", fat(dir[0]), 0xFFFFFFFD, 4, kRefused, kCorrupt},
        {"directory chain past the end", fat(dir.back()), past, 4, kRefused, kCorrupt, fat(past), kEnd},
        {"mini stream chain ends early", fat(mini[1]), kEnd, 4, kRefused, kCorrupt},
        {"mini stream chain loops", fat(mini[1]), mini[0], 4, kRefused, kCorrupt},
        {"child link out of range", entry(1, 76), 5000, 4, kRefused, kCorrupt},
        {"sibling link out of range", entry(2, 72), 0x7FFFFFFF, 4, kRefused, kCorrupt},
        {"sibling points to itself", entry(1, 68), 1, 4, kLoads, kCorrupt},
        {"two siblings point at each other", entry(11, 72), 1, 4, kLoads, kCorrupt},
        {"child points to an ancestor", entry(5, 76), 1, 4, kLoads, kCorrupt},
        {"root entry is a storage: empty tree", entry(0, 66), 1, 1, kLoads, kCorrupt},
        {"root entry unused: empty tree", entry(0, 66), 0, 1, kLoads, kCorrupt},
        {"small stream longer than its chain", entry(2, 120), 3500, 4, kReadFails, kCorrupt},
        {"two streams share a chain", entry(3, 116), 0, 4, kLoads, kCorrupt},
        {"a small stream on another's last mini sector", entry(3, 116), b.entries[2].startSector + 46, 4, kLoads, kCorrupt, entry(3, 120), 10},
        {"FAT link past the table", fat(big), 0x00FFFFFF, 4, kReadFails, kCorrupt},
        {"FAT chain ends early", fat(big), kEnd, 4, kReadFails, kCorrupt},
        {"FAT link to a free mark", fat(big), 0xFFFFFFFF, 4, kReadFails, kCorrupt},
        {"FAT link to itself", fat(big), big, 4, kReadLoops, kCorrupt},
        {"stream chain past the end", fat(bigEnd), past, 4, kLoads, kCorrupt, fat(past), kEnd},
        {"MiniFAT link past the table", miniLink, 0x00FFFFFF, 4, kReadFails, kCorrupt},
        {"MiniFAT chain ends early", miniLink, kEnd, 4, kReadFails, kCorrupt},
    });
    // Outcomes of version 3's 512-byte sectors: a mini sector larger than a
    // sector, a MiniFAT of two sectors, and streams whose chains cannot hold
    // what the edit claims (in version 4 they may).
    if (version == 3 && fatSectors == 1) edits.insert(edits.end(), {
        {"mini sector shift 10", 32, 10, 2, kRefused, kHeader},
        {"cutoff 2048", 56, 2048, 4, kReadFails, kHeader},
        {"MiniFAT chain ends early", fat(miniFat[0]), kEnd, 4, kRefused, kCorrupt},
        {"MiniFAT chain loops", fat(miniFat[0]), miniFat[0], 4, kRefused, kCorrupt},
        {"stream longer than its chain", entry(11, 120), 9000, 4, kReadFails, kCorrupt},
    });
    // clang-format on
    for (int i = 0; i < 8 && fatSectors == 1; ++i)
      edits.push_back(
          {"signature", uint64_t(i), 0, 1, kRefused, STG_E_FILEALREADYEXISTS});
    for (int i = 34; i < 40 && fatSectors == 1; ++i)
      edits.push_back({"reserved", uint64_t(i), 1, 1, kRefused, kHeader});
    for (uint32_t shift : {0, 7, 8, 10, 11, 13, 15, 16, 31, 0xFFFF})
      edits.push_back({"sector shift", 30, shift, 2, kRefused, kHeader});
    checkEdits(b, base, edits);

    // Seeded random bytes over everything the service's open reads.
    std::mt19937 rng(version);
    for (int round = 0; round < 400 && fatSectors == 1; ++round) {
      std::string f = base;
      for (int n = 1 + round % 4; n > 0; --n)
        f[rng() % b.metadataEnd] = static_cast<char>(rng());
      openReadAndEdit(f);
      if (HasFailure()) {
        ADD_FAILURE() << "round " << round;
        return;
      }
    }

    Loaded whole(base);
    const uint64_t readBytes = whole.stream.buf().transferred();
    for (uint64_t n = 0; n < readBytes; n += n < 4096 ? 1 : 61 + n / 64)
      EXPECT_FALSE(Loaded(base, n).ok()) << "fail after " << n;
    EXPECT_FALSE(Loaded(base, readBytes - 1).ok());
    EXPECT_TRUE(Loaded(base, readBytes).ok());
  }
}

template <typename Entry>
std::u16string names(const std::vector<Entry>& v) {
  std::u16string s;
  for (const auto& e : v) s += e.name + u",";
  return s;
}

TEST(Directory, WalkOrderSkippedTypesNamesLongChainsAndDepth) {
  gxTestFileBuilder b;
  uint32_t st = b.addStorage(0, u"St");
  uint32_t B = b.addStream(st, u"B", "b");
  uint32_t A = b.addStream(st, u"A", "a");
  uint32_t C = b.addStream(st, u"C", "c");
  // Root's children: odd (type 3, with a child) -> left X, right St, and the
  // storage St holds B with left A and right C.
  uint32_t odd = b.addStorage(0, u"odd");
  uint32_t hidden = b.addStream(odd, u"hidden", "h");
  uint32_t X = b.addStorage(0, std::u16string(40, u'x'));
  uint32_t E = b.addStream(0, u"E", "e");
  for (uint32_t n : {st, B, A, C, odd, hidden, X, E})
    b.entries[n].left = b.entries[n].right = gxTestFileBuilder::kNone;
  b.entries[0].child = odd;
  b.entries[odd].type = 3;
  b.entries[odd].left = X;
  b.entries[odd].right = st;
  b.entries[X].right = E;
  b.entries[E].name = u"";
  b.entries[st].child = B;
  b.entries[B].left = A;
  b.entries[B].right = C;
  Loaded l(b.build());
  ASSERT_TRUE(l.ok());
  const gxdStorageEntry& root = l.file.rootEntry;
  EXPECT_EQ(u"Root Entry", root.name);
  ASSERT_EQ(2u, root.storages.size());
  EXPECT_EQ(std::u16string(32, u'x') + u",St,", names(root.storages));
  EXPECT_EQ(u",", names(root.streams));  // E with its empty name
  EXPECT_EQ(u"B,A,C,", names(root.storages[1].streams));
  EXPECT_EQ(1u, root.storages[1].streams[2].size);

  SCOPED_TRACE("a chain of 100,000 right siblings");
  gxTestFileBuilder many;
  const uint32_t count = 100000;
  for (uint32_t i = 0; i < count; ++i)
    many.addStream(0, u"s" + std::u16string(1, char16_t(u'0' + i % 10)), "");
  Loaded l2(many.build());
  ASSERT_TRUE(l2.ok());
  ASSERT_EQ(count, l2.file.rootEntry.streams.size());
  EXPECT_EQ(u"s9", l2.file.rootEntry.streams[count - 1].name);
  for (uint32_t depth : {200u, 400u}) {
    gxTestFileBuilder deep;
    for (uint32_t i = 0, parent = 0; i < depth; ++i)
      parent = deep.addStorage(parent, u"d");
    Loaded l3(deep.build());
    EXPECT_EQ(depth <= gxdCompoundFile::kMaxDirectoryDepth, l3.ok()) << depth;
  }
}

}  // namespace
