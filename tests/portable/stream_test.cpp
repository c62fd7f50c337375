// Portable stream: the size and temporary-file limits of writes, and reads
// over damaged chains and a file that fails mid-read. Reading and positioning
// on valid files is checked on every stream of the random round trips
// (tests/engine/roundtrip_test.cpp).
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "portable/gxdStorage.h"
#include "portable/gxdStream.h"
#include "support/gxFaultStream.h"

namespace {

std::vector<uint8_t> pattern(uint32_t seed, size_t size) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i < size; ++i)
    out.push_back(static_cast<uint8_t>(i * 131 + seed * 17 + (i >> 8)));
  return out;
}

// Stream i of the file holds pattern(i, size).
const std::pair<const char16_t*, uint32_t> kStreams[] = {
    {u"mini100", 100}, {u"five", 5},     {u"s700", 700},  {u"s4095", 4095},
    {u"s4096", 4096},  {u"big1", 20000}, {u"big2", 30000}};

gxdIStorage* makeAndOpen(const char16_t* path) {
  gxdIStorage* root = nullptr;
  EXPECT_EQ(gxdStgCreateStorage(path, 0, &root), GX_S_OK);
  uint32_t seed = 0;
  for (const auto& item : kStreams) {
    gxdIStream* s = nullptr;
    EXPECT_EQ(root->createStream(item.first, &s), GX_S_OK);
    s->write(pattern(seed++, item.second).data(), item.second, nullptr);
    s->release();
  }
  root->commit();
  root->release();
  root = nullptr;
  EXPECT_EQ(gxdStgOpenStorage(path, 0, &root), GX_S_OK);
  return root;
}

// The root keeps the stream open; the caller's reference is given back.
gxdStream* openStream(gxdIStorage* root, const char16_t* name) {
  gxdIStream* s = nullptr;
  EXPECT_EQ(root->openStream(name, &s), GX_S_OK);
  if (s != nullptr) s->release();
  return static_cast<gxdStream*>(s);
}

// Reads `s` to its end in chunks of 700 bytes; the last result is kept.
std::string readAll(gxdIStream* s, gxResult* last = nullptr) {
  std::string out;
  char chunk[700];
  uint64_t done = 0;
  gxResult r;
  while ((r = s->read(chunk, sizeof chunk, &done)) == GX_S_OK && done > 0)
    out.append(chunk, done);
  if (last != nullptr) *last = r;
  return out;
}

// Nothing wraps: a write that would take a stream past 4 GiB or the
// temporary file past its limit is refused before anything changes. (How
// writes fill blocks shows in the files the round trips write byte for byte.)
TEST(PortableStream, WritesPastTheLimitsChangeNothing) {
  gxdIStorage* root = nullptr;
  gxdIStream* is = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(u"stream_test_write.gxw", 0, &root), GX_S_OK);
  ASSERT_EQ(root->createStream(u"b", &is), GX_S_OK);
  gxdCompoundFile* cf = static_cast<gxdStorage*>(root)->compoundFile;
  gxdStream* b = static_cast<gxdStream*>(is);
  const std::vector<uint8_t> data = pattern(9, 2000);
  b->write(data.data(), 700, nullptr);
  b->flush();
  const size_t records = cf->pendingChanges.size();
  uint64_t written = 7;
  b->currentPosition = 0xFFFFFFF0u;
  EXPECT_EQ(b->write(data.data(), 16, &written), GX_E_FAIL);
  EXPECT_EQ(b->currentPosition, 0xFFFFFFF0u);
  b->currentPosition = 700;
  cf->lastTempBlock = 0x80000000u / 512 - 2;  // one block left
  EXPECT_EQ(b->write(data.data(), 2000, &written), GX_E_FAIL);
  EXPECT_TRUE(b->entry.size == 700 && b->tempBlocks.size() == 2 &&
              b->bufferFill == 0 && written == 7);
  EXPECT_EQ(cf->pendingChanges.size(), records);
  is->release();
  root->release();
}

// Links of a stream's chain edited on disk, and the file failing after N
// bytes: reads end in E_FAIL or stop, and never deliver wrong bytes, more
// than the stream holds, or bytes from outside the tables.
TEST(PortableStream, DamagedChainsAndFailingFileFailCleanly) {
  gxdIStorage* root = makeAndOpen(u"stream_test_damage.gxw");
  ASSERT_NE(root, nullptr);
  gxdCompoundFile* cf = static_cast<gxdStorage*>(root)->compoundFile;
  ASSERT_EQ(cf->header.sectorShift, 9);
  const uint32_t big = openStream(root, u"big1")->entry.startSector;
  const uint32_t mini = openStream(root, u"mini100")->entry.startSector;
  const uint64_t fatLink = sectorOffset(cf->header.difat[0], 9) + 4 * big;
  const uint64_t miniLink =
      sectorOffset(cf->header.firstMiniFatSector, 9) + 4 * mini;
  ASSERT_LT(big, 128u);
  root->release();
  std::ifstream in("stream_test_damage.gxw", std::ios::binary);
  const std::string original((std::istreambuf_iterator<char>(in)), {});
  const struct {
    const char* label;
    uint64_t offset;
    uint32_t value;
    const char16_t* stream;
  } cases[] = {
      {"FAT link past the table", fatLink, 0x00FFFFFFu, u"big1"},
      {"FAT chain ends early", fatLink, kEndOfChain, u"big1"},
      {"FAT link to a free mark", fatLink, kFreeSect, u"big1"},
      {"FAT link to itself (may read, never too much)", fatLink, big, u"big1"},
      {"MiniFAT link past the table", miniLink, 0x00FFFFFFu, u"mini100"},
      {"MiniFAT chain ends early", miniLink, kEndOfChain, u"mini100"},
  };
  for (const auto& d : cases) {
    SCOPED_TRACE(d.label);
    std::string bytes = original;
    storeU32(reinterpret_cast<uint8_t*>(&bytes[d.offset]), d.value);
    std::ofstream("stream_test_damaged.gxw", std::ios::binary) << bytes;
    root = nullptr;
    ASSERT_EQ(gxdStgOpenStorage(u"stream_test_damaged.gxw", 0, &root), GX_S_OK);
    gxdStream* s = openStream(root, d.stream);
    gxResult result;
    EXPECT_LE(readAll(s, &result).size(), s->entry.size);
    EXPECT_EQ(result, d.value == big ? result : GX_E_FAIL);
    s->setPosition(s->entry.size - 1);
    EXPECT_LE(s->position(), s->entry.size);
    root->release();
  }
  // The engine of an opened root replaced by one over a failing stream.
  for (uint64_t n = 0; n <= original.size(); n += 7 + n / 50) {
    SCOPED_TRACE("file fails after " + std::to_string(n) + " bytes");
    gxFaultStream faulty(original);
    faulty.buf().failAfter = n;
    ASSERT_EQ(gxdStgOpenStorage(u"stream_test_damage.gxw", 0, &root), GX_S_OK);
    gxdStorage* r = static_cast<gxdStorage*>(root);
    delete r->compoundFile;  // the root deletes the new one when released
    r->compoundFile = new gxdCompoundFile(&faulty, nullptr, true);
    for (uint32_t i = 0; i < 7 && !faulty.fail(); ++i) {
      gxdIStream* s = nullptr;
      if (root->openStream(kStreams[i].first, &s) != GX_S_OK) continue;
      const std::vector<uint8_t> want = pattern(i, kStreams[i].second);
      const std::string got = readAll(s);
      ASSERT_LE(got.size(), want.size());
      EXPECT_TRUE(
          std::equal(got.begin(), got.end(), want.begin(),
                     [](char c, uint8_t u) { return uint8_t(c) == u; }));
      s->release();
    }
    root->release();
  }
}

}  // namespace
