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

// A write of more than one block sent its whole blocks to the temporary
// file without passing them through the stream's block buffer, so a later
// flush of a partly refilled buffer wrote stale bytes past the fill where
// block-by-block copying leaves the tail of the last block. Those bytes lie
// inside the stream once more data follows the flush.
TEST(FuzzRegression, FlushedPartialBlockAfterBulkWriteKeepsLastBlockTail) {
  const char16_t* path = u"fuzz_bulk_flush.gxw";
  std::string first(516, '\0');
  for (size_t i = 0; i < first.size(); ++i) first[i] = char(0x2F + i * 7);
  gxdIStorage* root = nullptr;
  gxdIStream* s = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(path, 0, &root), GX_S_OK);
  ASSERT_EQ(root->createStream(u"s", &s), GX_S_OK);
  ASSERT_EQ(s->write(first.data(), first.size(), nullptr), GX_S_OK);
  s->flush();  // block 1: 4 bytes, then bytes 4..511 of block 0
  ASSERT_EQ(s->write("\xAA", 1, nullptr), GX_S_OK);
  s->release();
  root->commit();
  root->release();
  ASSERT_EQ(gxdStgOpenStorage(path, 0, &root), GX_S_OK);
  ASSERT_EQ(root->openStream(u"s", &s), GX_S_OK);
  std::string got(1024, '\0');
  uint64_t done = 0;
  s->read(&got[0], got.size(), &done);
  EXPECT_EQ(got.substr(0, done), first + first[4]);
  s->release();
  root->release();
}

// Every committed fuzz input that is a file: it either fails to open or
// opens, lists, and reads through without crashing.
TEST(FuzzRegression, CommittedCorpusOpensOrIsRefused) {
  namespace fs = std::filesystem;
  size_t replayed = 0;
  for (const char* target : {"open", "entry"}) {
    const fs::path dir =
        fs::path(GXSTORAGE_TEST_SOURCE_DIR) / "fuzz" / "corpus" / target;
    for (const fs::directory_entry& file : fs::directory_iterator(dir)) {
      SCOPED_TRACE(file.path().string());
      const std::u16string wide = file.path().u16string();
      gxdIStorage* root = nullptr;
      const gxResult opened = gxdStgOpenStorage(wide.c_str(), 0, &root);
      ++replayed;
      EXPECT_EQ(opened, root != nullptr ? GX_S_OK : GX_E_FAIL);
      if (root == nullptr) continue;
      gxdFileView view;
      ASSERT_EQ(view.open(wide.c_str()), gxdFileView::Status::kOk);
      for (const gxdFileViewElement& e : view.elements()) {
        gxdIStream* s = nullptr;
        if (e.isStorage || e.names.size() != 1 ||
            root->openStream(e.names[0].c_str(), &s) != GX_S_OK)
          continue;
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
