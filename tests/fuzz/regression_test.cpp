// Defects the fuzz targets found, one test each, named after what broke; and
// a replay of the committed fuzz corpus of files through the portable open,
// so that the inputs stay harmless in every build (the Windows one included,
// where the libFuzzer targets do not run).
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "portable/gxdFileView.h"
#include "portable/gxdInterfaces.h"

namespace {

std::vector<uint8_t> pattern(size_t size, uint8_t seed) {
  std::vector<uint8_t> out(size);
  for (size_t i = 0; i < size; ++i)
    out[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 9));
  return out;
}

std::vector<uint8_t> readWhole(gxdIStorage* root, const char16_t* name) {
  gxdIStream* s = nullptr;
  EXPECT_EQ(root->openStream(name, &s), GX_S_OK);
  if (s == nullptr) return {};
  std::vector<uint8_t> out(1 << 16);
  uint64_t done = 0;
  s->read(out.data(), out.size(), &done);
  out.resize(done);
  s->release();
  return out;
}

// A write of more than one block sent its whole blocks to the temporary
// file without passing them through the stream's block buffer, so a later
// flush of a partly refilled buffer wrote stale bytes past the fill where
// block-by-block copying leaves the tail of the last block. Those bytes lie
// inside the stream once more data follows the flush.
TEST(FuzzRegression, FlushedPartialBlockAfterBulkWriteKeepsLastBlockTail) {
  const char16_t* path = u"fuzz_bulk_flush.gxw";
  const std::vector<uint8_t> first = pattern(516, 0x2F);
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(path, 0, &root), GX_S_OK);
  gxdIStream* s = nullptr;
  ASSERT_EQ(root->createStream(u"s", &s), GX_S_OK);
  uint64_t written = 0;
  ASSERT_EQ(s->write(first.data(), first.size(), &written), GX_S_OK);
  s->flush();  // block 1: 4 bytes, then bytes 4..511 of block 0
  const uint8_t one = 0xAA;
  ASSERT_EQ(s->write(&one, 1, &written), GX_S_OK);
  s->release();
  root->commit();
  root->release();

  root = nullptr;
  ASSERT_EQ(gxdStgOpenStorage(path, 0, &root), GX_S_OK);
  const std::vector<uint8_t> got = readWhole(root, u"s");
  root->release();
  ASSERT_EQ(got.size(), 517u);
  EXPECT_TRUE(std::equal(first.begin(), first.end(), got.begin()));
  EXPECT_EQ(got[516], first[4]);
}

// Every committed fuzz input that is a file: it either fails to open or
// opens, lists, and reads through without crashing.
TEST(FuzzRegression, CommittedCorpusOpensOrIsRefused) {
  namespace fs = std::filesystem;
  size_t replayed = 0;
  for (const char* target : {"open", "entry"}) {
    const fs::path dir =
        fs::path(GXSTORAGE_TEST_SOURCE_DIR) / "fuzz" / "corpus" / target;
    if (!fs::is_directory(dir)) continue;
    for (const fs::directory_entry& file : fs::directory_iterator(dir)) {
      SCOPED_TRACE(file.path().string());
      const std::u16string wide = file.path().u16string();
      gxdIStorage* root = nullptr;
      const gxResult opened = gxdStgOpenStorage(wide.c_str(), 0, &root);
      ++replayed;
      if (opened != GX_S_OK) {
        EXPECT_EQ(opened, GX_E_FAIL);
        EXPECT_EQ(root, nullptr);
        continue;
      }
      gxdFileView inspector;
      ASSERT_EQ(inspector.open(wide.c_str()), gxdFileView::Status::kOk);
      for (const gxdFileViewElement& e : inspector.elements()) {
        if (e.isStorage || e.names.size() != 1) continue;
        gxdIStream* s = nullptr;
        if (root->openStream(e.names[0].c_str(), &s) != GX_S_OK) continue;
        std::vector<uint8_t> buffer(4096);
        uint64_t done = 0, total = 0;
        while (s->read(buffer.data(), buffer.size(), &done) == GX_S_OK &&
               done > 0 && total < (uint64_t{64} << 20))
          total += done;
        EXPECT_LE(total, e.size);
        s->release();
      }
      root->release();
    }
  }
  EXPECT_GT(replayed, 10u);
}

}  // namespace
