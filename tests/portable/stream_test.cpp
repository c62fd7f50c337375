// Portable stream: the write buffer and its change records, the size and
// temporary-file limits, and reads over damaged chains and a file that fails
// mid-read. Reading and positioning on valid files is checked on every
// stream of the random round trips (tests/engine/roundtrip_test.cpp).
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

TEST(PortableStream, WriteBufferRecordsAndLimits) {
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(u"stream_test_write.gxw", 0, &root), GX_S_OK);
  gxdCompoundFile* cf = static_cast<gxdStorage*>(root)->compoundFile;
  gxdIStream *ia = nullptr, *ib = nullptr;
  ASSERT_EQ(root->createStream(u"a", &ia) | root->createStream(u"b", &ib),
            GX_S_OK);
  gxdStream* a = static_cast<gxdStream*>(ia);
  gxdStream* b = static_cast<gxdStream*>(ib);
  auto kind3 = [&](gxdStream* s) {
    size_t n = 0;
    for (const gxdChangeRecord& r : cf->pendingChanges)
      n += r.kind == gxdChangeRecord::kStreamWritten && r.first == &s->entry;
    return n;
  };
  const std::vector<uint8_t> data = pattern(9, 2000);
  uint64_t written = 0;
  SCOPED_TRACE("512 bytes stay buffered; one more writes block 0 first");
  EXPECT_EQ(a->write(data.data(), 512, &written), GX_S_OK);
  EXPECT_TRUE(written == 512 && a->tempBlocks.empty() && a->bufferFill == 512);
  EXPECT_EQ(a->write(data.data() + 512, 1, &written), GX_S_OK);
  EXPECT_EQ(a->tempBlocks, std::vector<uint32_t>{0});
  EXPECT_EQ(a->bufferFill, 1u);
  SCOPED_TRACE("flush after 700 bytes; one kind 3 record per stream");
  b->write(data.data(), 300, nullptr);
  b->write(data.data() + 300, 400, nullptr);
  b->flush();
  EXPECT_EQ(b->tempBlocks, (std::vector<uint32_t>{1, 2}));
  EXPECT_TRUE(b->bufferFill == 0 && b->entry.size == 700);
  EXPECT_TRUE(kind3(a) == 1 && kind3(b) == 1);
  SCOPED_TRACE("writes that would pass 4 GiB or the temporary file's limit");
  const size_t records = cf->pendingChanges.size();
  b->currentPosition = 0xFFFFFFF0u;
  EXPECT_EQ(b->write(data.data(), 16, &written), GX_E_FAIL);
  EXPECT_EQ(b->currentPosition, 0xFFFFFFF0u);
  b->currentPosition = 700;
  const uint32_t last = cf->lastTempBlock;
  cf->lastTempBlock = 0x80000000u / 512 - 2;  // one block left
  EXPECT_EQ(b->write(data.data(), 2000, &written), GX_E_FAIL);
  EXPECT_TRUE(b->entry.size == 700 && b->tempBlocks.size() == 2 &&
              b->bufferFill == 0);
  EXPECT_EQ(cf->pendingChanges.size(), records);
  cf->lastTempBlock = last;
  ia->release();
  ib->release();
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
