// Defects the fuzz targets found, one test each, named after what broke. The
// committed corpus itself is replayed by the fuzz leg of make test, through
// targets that check more than a test here would; hostile files in the
// Windows build are the load tests' edited, truncated and failing files.
#include <gtest/gtest.h>

#include <string>

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

}  // namespace
