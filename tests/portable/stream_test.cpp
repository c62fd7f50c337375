// Portable stream: reading from the mini stream and from sectors, positioning,
// the write buffer and its change records, limits, and damaged chains.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "portable/gxdStorage.h"
#include "portable/gxdStream.h"

namespace {

uint8_t patternByte(uint32_t seed, uint64_t i) {
  return static_cast<uint8_t>((i * 131 + seed * 17 + (i >> 8)) & 0xFF);
}

std::vector<uint8_t> pattern(uint32_t seed, size_t size) {
  std::vector<uint8_t> out(size);
  for (size_t i = 0; i < size; ++i) out[i] = patternByte(seed, i);
  return out;
}

struct Spec {
  const char16_t* name;
  uint32_t size;
};
const Spec kStreams[] = {{u"mini100", 100}, {u"five", 5},     {u"s700", 700},
                         {u"s4095", 4095},  {u"s4096", 4096}, {u"big1", 20000},
                         {u"big2", 30000}};

// Writes kStreams (stream i holds pattern(i, size)) into a new file.
void makeFile(const char16_t* path) {
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(path, 0, &root), GX_S_OK);
  uint32_t seed = 0;
  for (const Spec& spec : kStreams) {
    gxdIStream* s = nullptr;
    ASSERT_EQ(root->createStream(spec.name, &s), GX_S_OK);
    const std::vector<uint8_t> data = pattern(seed++, spec.size);
    s->write(data.data(), data.size(), nullptr);
    s->release();
  }
  root->commit();
  root->release();
}

gxdStream* openStream(gxdIStorage* root, const char16_t* name) {
  gxdIStream* s = nullptr;
  EXPECT_EQ(root->openStream(name, &s), GX_S_OK);
  if (s != nullptr) s->release();  // the root keeps its reference
  return static_cast<gxdStream*>(s);
}

TEST(PortableStream, ReadingAndPositioning) {
  makeFile(u"stream_test_read.gxw");
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgOpenStorage(u"stream_test_read.gxw", 0, &root), GX_S_OK);
  uint8_t buf[64];
  uint64_t done = 0;
  {
    SCOPED_TRACE("100 bytes out of the mini stream, 64 at a time");
    gxdStream* s = openStream(root, u"mini100");
    EXPECT_TRUE(s->inMiniStream);
    EXPECT_EQ(s->read(buf, 64, &done), GX_S_OK);
    EXPECT_EQ(done, 64u);
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + 64), pattern(0, 64));
    EXPECT_EQ(s->read(buf, 64, &done), GX_S_OK);
    EXPECT_EQ(done, 36u);
    EXPECT_EQ(buf[35], patternByte(0, 99));
    EXPECT_EQ(s->read(buf, 64, &done), GX_S_FALSE);
    EXPECT_EQ(done, 0u);
  }
  {
    SCOPED_TRACE("10 bytes asked of 5");
    gxdStream* s = openStream(root, u"five");
    EXPECT_EQ(s->read(buf, 10, &done), GX_S_OK);
    EXPECT_EQ(done, 5u);
    EXPECT_EQ(s->read(buf, 10, &done), GX_S_FALSE);
    EXPECT_EQ(done, 0u);
  }
  {
    SCOPED_TRACE("mini stream cutoff");
    EXPECT_TRUE(openStream(root, u"s4095")->inMiniStream);
    gxdStream* s = openStream(root, u"s4096");
    EXPECT_FALSE(s->inMiniStream);
    std::vector<uint8_t> all(5000);
    EXPECT_EQ(s->read(all.data(), all.size(), &done), GX_S_OK);
    all.resize(done);
    EXPECT_EQ(all, pattern(4, 4096));
  }
  {
    SCOPED_TRACE("setPosition clamps, rewinds, and lands mid-sector");
    gxdStream* s = openStream(root, u"s700");
    s->setPosition(1000);
    EXPECT_EQ(s->position(), 700u);
    s->setPosition(~0ull);  // a negative distance taken as unsigned
    EXPECT_EQ(s->position(), 700u);
    EXPECT_EQ(s->read(buf, 1, &done), GX_S_FALSE);
    s->setPosition(0);
    EXPECT_EQ(s->read(buf, 50, &done), GX_S_OK);
    EXPECT_EQ(buf[0], patternByte(2, 0));
    gxdIStream* copy = nullptr;
    ASSERT_TRUE(s->clone(&copy));
    EXPECT_EQ(copy->position(), 0u);
    EXPECT_EQ(copy->read(buf, 1, &done), GX_S_OK);
    EXPECT_EQ(buf[0], patternByte(2, 0));
    EXPECT_EQ(s->position(), 50u);
    gxdStream* big = openStream(root, u"big1");
    for (uint32_t at : {19999u, 513u, 512u, 0u, 4096u, 12345u}) {
      big->setPosition(at);
      EXPECT_EQ(big->read(buf, 1, &done), GX_S_OK);
      EXPECT_EQ(buf[0], patternByte(5, at)) << at;
    }
  }
  root->release();
}

// The streams share one file stream; each read must still take its own bytes.
TEST(PortableStream, InterleavedReadsOfTwoLargeStreams) {
  makeFile(u"stream_test_interleave.gxw");
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgOpenStorage(u"stream_test_interleave.gxw", 0, &root), GX_S_OK);
  gxdStream* s[2] = {openStream(root, u"big1"), openStream(root, u"big2")};
  std::vector<uint8_t> got[2];
  uint8_t buf[700];
  for (bool more = true; more;) {
    more = false;
    for (int k = 0; k < 2; ++k) {
      uint64_t done = 0;
      if (s[k]->read(buf, sizeof(buf), &done) == GX_S_OK && done > 0) more = true;
      got[k].insert(got[k].end(), buf, buf + done);
    }
  }
  EXPECT_TRUE(got[0] == pattern(5, 20000));
  EXPECT_TRUE(got[1] == pattern(6, 30000));
  root->release();
}

size_t kind3Records(gxdCompoundFile* cf, gxdStream* s) {
  size_t n = 0;
  for (const gxdChangeRecord& r : cf->pendingChanges)
    n += r.kind == gxdChangeRecord::kStreamWritten && r.first == &s->entry;
  return n;
}

TEST(PortableStream, WriteBufferRecordsAndLimits) {
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(u"stream_test_write.gxw", 0, &root), GX_S_OK);
  gxdCompoundFile* cf = static_cast<gxdStorage*>(root)->compoundFile;
  gxdIStream *ia = nullptr, *ib = nullptr;
  ASSERT_EQ(root->createStream(u"a", &ia), GX_S_OK);
  ASSERT_EQ(root->createStream(u"b", &ib), GX_S_OK);
  gxdStream* a = static_cast<gxdStream*>(ia);
  gxdStream* b = static_cast<gxdStream*>(ib);
  const std::vector<uint8_t> data = pattern(9, 2000);
  uint64_t written = 0;
  {
    SCOPED_TRACE("512 bytes stay buffered; one more writes block 0 first");
    EXPECT_EQ(a->write(data.data(), 512, &written), GX_S_OK);
    EXPECT_EQ(written, 512u);
    EXPECT_TRUE(a->tempBlocks.empty());
    EXPECT_EQ(a->bufferFill, 512u);
    EXPECT_EQ(a->write(data.data() + 512, 1, &written), GX_S_OK);
    EXPECT_EQ(a->tempBlocks, std::vector<uint32_t>{0});
    EXPECT_EQ(a->bufferFill, 1u);
    EXPECT_EQ(kind3Records(cf, a), 1u);
  }
  {
    SCOPED_TRACE("flush after 700 bytes");
    b->write(data.data(), 300, nullptr);
    b->write(data.data() + 300, 400, nullptr);
    b->flush();
    EXPECT_EQ(b->tempBlocks, (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(b->bufferFill, 0u);
    EXPECT_EQ(b->entry.size, 700u);
    EXPECT_EQ(kind3Records(cf, b), 1u);
  }
  {
    SCOPED_TRACE("writes that would wrap are refused before any change");
    const size_t records = cf->pendingChanges.size();
    b->currentPosition = 0xFFFFFFF0u;
    EXPECT_EQ(b->write(data.data(), 16, &written), GX_E_FAIL);
    EXPECT_EQ(b->currentPosition, 0xFFFFFFF0u);
    b->currentPosition = 700;
    const uint32_t last = cf->lastTempBlock;
    cf->lastTempBlock = 0x80000000u / 512 - 2;  // one block left
    EXPECT_EQ(b->write(data.data(), 2000, &written), GX_E_FAIL);
    EXPECT_EQ(b->entry.size, 700u);
    EXPECT_TRUE(b->tempBlocks.size() == 2 && b->bufferFill == 0);
    cf->lastTempBlock = last;
    EXPECT_EQ(cf->pendingChanges.size(), records);
  }
  root->commit();
  ia->release();
  ib->release();
  root->release();
  ASSERT_EQ(gxdStgOpenStorage(u"stream_test_write.gxw", 0, &root), GX_S_OK);
  std::vector<uint8_t> back(800);
  uint64_t done = 0;
  openStream(root, u"a")->read(back.data(), back.size(), &done);
  EXPECT_EQ(std::vector<uint8_t>(back.begin(), back.begin() + done),
            std::vector<uint8_t>(data.begin(), data.begin() + 513));
  openStream(root, u"b")->read(back.data(), back.size(), &done);
  EXPECT_EQ(std::vector<uint8_t>(back.begin(), back.begin() + done),
            std::vector<uint8_t>(data.begin(), data.begin() + 700));
  root->release();
}

// Links of a stream's chain edited on disk: reads end in E_FAIL (or deliver
// at most the stream's bytes), never outside the tables or the mini stream.
TEST(PortableStream, DamagedChainsFailCleanly) {
  makeFile(u"stream_test_damage.gxw");
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgOpenStorage(u"stream_test_damage.gxw", 0, &root), GX_S_OK);
  gxdCompoundFile* cf = static_cast<gxdStorage*>(root)->compoundFile;
  ASSERT_EQ(cf->header.sectorShift, 9);
  const uint32_t big = openStream(root, u"big1")->entry.startSector;
  const uint32_t mini = openStream(root, u"mini100")->entry.startSector;
  const uint64_t fatLink = sectorOffset(cf->header.difat[0], 9) + 4 * big;
  const uint64_t miniLink = sectorOffset(cf->header.firstMiniFatSector, 9) + 4 * mini;
  ASSERT_LT(big, 128u);
  root->release();
  std::ifstream in("stream_test_damage.gxw", std::ios::binary);
  const std::string original((std::istreambuf_iterator<char>(in)), {});
  struct Damage {
    const char* label;
    uint64_t offset;
    uint32_t value;
    const char16_t* stream;
    bool mustFail;
  };
  const Damage cases[] = {
      {"FAT link past the table", fatLink, 0x00FFFFFFu, u"big1", true},
      {"FAT chain ends early", fatLink, kEndOfChain, u"big1", true},
      {"FAT link to a free mark", fatLink, kFreeSect, u"big1", true},
      {"FAT link to itself", fatLink, big, u"big1", false},
      {"MiniFAT link past the table", miniLink, 0x00FFFFFFu, u"mini100", true},
      {"MiniFAT chain ends early", miniLink, kEndOfChain, u"mini100", true},
  };
  for (const Damage& d : cases) {
    SCOPED_TRACE(d.label);
    std::string bytes = original;
    storeU32(reinterpret_cast<uint8_t*>(&bytes[d.offset]), d.value);
    std::ofstream("stream_test_damaged.gxw", std::ios::binary) << bytes;
    root = nullptr;
    if (gxdStgOpenStorage(u"stream_test_damaged.gxw", 0, &root) != GX_S_OK) continue;
    gxdStream* s = openStream(root, d.stream);
    ASSERT_NE(s, nullptr);
    std::vector<uint8_t> buf(s->entry.size + 1000);
    uint64_t total = 0, done = 0;
    gxResult result;
    while ((result = s->read(buf.data(), 1000, &done)) == GX_S_OK && done > 0) total += done;
    EXPECT_LE(total, s->entry.size);
    if (d.mustFail) {
      EXPECT_EQ(result, GX_E_FAIL);
    }
    s->setPosition(s->entry.size - 1);
    EXPECT_LE(s->position(), s->entry.size);
    root->release();
  }
}

}  // namespace
