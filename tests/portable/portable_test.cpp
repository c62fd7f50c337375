// The portable objects: result codes of opening and creating elements,
// ownership of the tree, the limits of stream writes, the temporary file's
// name and place, and the enumerator's snapshot of open children. Reads,
// and the enumerator's order and cursor, are tested on the round-trip files
// and on damaged ones (tests/engine/).
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "portable/gxdStorage.h"
#include "portable/gxdStream.h"

namespace {

std::string slurp(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Bytes of stream "s": a write of more than one block, a flush, one byte
// more. A write of whole blocks once bypassed the stream's block buffer, so
// the flush of the partly refilled buffer wrote stale bytes past its fill
// where block-by-block copying leaves the tail of the last block; those bytes
// lie inside the stream once more data follows the flush.
std::string first(516, '\0');

// A created file holding storage "sub" (with stream "inner") and stream "s".
void makeSmallFile(const char16_t* path) {
  for (size_t i = 0; i < first.size(); ++i) first[i] = char(0x2F + i * 7);
  gxdIStorage *root = nullptr, *sub = nullptr;
  gxdIStream *s = nullptr, *inner = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(path, 0x12, &root), GX_S_OK);
  ASSERT_EQ(root->createStorage(u"sub", &sub), GX_S_OK);
  ASSERT_EQ(sub->createStream(u"inner", &inner) | root->createStream(u"s", &s),
            GX_S_OK);
  s->write(first.data(), first.size(), nullptr);
  s->flush();  // block 1: 4 bytes, then bytes 4..511 of block 0
  s->write("\xAA", 1, nullptr);
  root->commit();
  for (gxdIStream* x : {s, inner}) x->release();
  sub->release();
  root->release();
}

TEST(PortableStorage, ResultCodesOwnershipAndWriteLimits) {
  gxdIStorage *root = nullptr, *a = nullptr, *b = nullptr;
  gxdIStream *s = nullptr, *t = nullptr, *n = nullptr;
  const char16_t* codes = u"storage_test_\u00e9\u4e2d.gxw";  // not ASCII
  makeSmallFile(codes);
  ASSERT_EQ(gxdStgOpenStorage(codes, 0xFFFF, &root), GX_S_OK);
  gxdStorage* r = static_cast<gxdStorage*>(root);
  SCOPED_TRACE("opened file: names it lacks, or of the other kind");
  EXPECT_EQ(root->openStream(u"S", &s), GX_STG_E_FILENOTFOUND);
  EXPECT_EQ(root->openStorage(u"s", &a), GX_STG_E_FILENOTFOUND);
  EXPECT_TRUE(s == nullptr && a == nullptr && r->openStreams.empty() &&
              r->openStorages.empty());
  SCOPED_TRACE("an open storage is the same object with one more reference");
  ASSERT_EQ(root->openStorage(u"sub", &a) | root->openStorage(u"sub", &b),
            GX_S_OK);
  EXPECT_TRUE(a == b && static_cast<gxdStorage*>(a)->refCount == 3);
  EXPECT_EQ(root->createStorage(u"sub", &b), GX_S_OK);  // read-only: same one
  EXPECT_EQ(a, b);
  SCOPED_TRACE("an open stream comes back as a clone with a caller reference");
  ASSERT_EQ(root->openStream(u"s", &s) | root->openStream(u"s", &t), GX_S_OK);
  EXPECT_NE(s, t);
  EXPECT_EQ(static_cast<gxdStream*>(t)->refCount, 2u);
  EXPECT_EQ(static_cast<gxdStream*>(s)->clones.size(), 1u);
  std::string got(1024, '\0');
  uint64_t done = 0;
  s->read(&got[0], got.size(), &done);
  EXPECT_EQ(got.substr(0, done), first + first[4]);
  SCOPED_TRACE("read-only: creating a new name succeeds and records nothing");
  EXPECT_EQ(root->createStream(u"new", &n), GX_S_OK);
  done = 7;
  char c;
  EXPECT_EQ(n->read(&c, 1, &done), GX_S_FALSE);
  EXPECT_EQ(done, 0u);
  EXPECT_TRUE(r->compoundFile->pendingChanges.empty());
  gxdIStream* dup = reinterpret_cast<gxdIStream*>(0x1);
  EXPECT_EQ(a->createStream(u"inner", &dup), GX_STG_E_FILEALREADYEXISTS);
  EXPECT_EQ(dup, nullptr);
  const std::string before = slurp(codes);
  root->commit();  // an opened file is never written
  EXPECT_EQ(slurp(codes), before);
  // What is cloned or enumerated goes with the root, once: the sanitizers
  // report any leak or second destruction.
  gxdIStream *copy = nullptr, *again = nullptr;
  CGxAbsStgEnum *e = nullptr, *ec = nullptr;
  ASSERT_TRUE(t->clone(&copy) && copy->clone(&again) && a->enumElements(&e) &&
              e->clone(&ec) && root->enumElements(&e));
  for (gxdIStream* x : {n, t, s}) x->release();
  for (int i = 0; i < 3; ++i) a->release();
  root->release();

  SCOPED_TRACE("created file: duplicates refused");
  ASSERT_EQ(gxdStgCreateStorage(u"storage_test_dup.gxw", 0, &root), GX_S_OK);
  ASSERT_EQ(root->createStream(u"x", &s) | root->createStorage(u"y", &a),
            GX_S_OK);
  t = reinterpret_cast<gxdIStream*>(0x1);
  EXPECT_EQ(root->createStream(u"x", &t), GX_STG_E_FILEALREADYEXISTS);
  EXPECT_EQ(root->createStorage(u"y", &b), GX_STG_E_FILEALREADYEXISTS);
  EXPECT_TRUE(t == nullptr && b == nullptr);
  ASSERT_TRUE(s->clone(&copy) && copy->clone(&again) && a->enumElements(&e));
  SCOPED_TRACE(
      "nothing wraps: writes past 4 GiB or the temporary file's "
      "limit are refused before anything changes");
  gxdStream* x = static_cast<gxdStream*>(s);
  gxdCompoundFile* cf = x->compoundFile;
  const std::string data(2000, 'w');
  x->write(data.data(), 700, nullptr);
  x->flush();
  const size_t records = cf->pendingChanges.size();
  done = 7;
  x->currentPosition = 0xFFFFFFF0u;
  EXPECT_EQ(x->write(data.data(), 16, &done), GX_E_FAIL);
  EXPECT_EQ(x->currentPosition, 0xFFFFFFF0u);
  x->currentPosition = 700;
  cf->lastTempBlock = 0x80000000u / 512 - 2;  // one block left
  EXPECT_EQ(x->write(data.data(), 2000, &done), GX_E_FAIL);
  EXPECT_TRUE(x->entry.size == 700 && x->tempBlocks.size() == 2 &&
              x->bufferFill == 0 && done == 7);
  EXPECT_EQ(cf->pendingChanges.size(), records);
  s->release();
  a->release();
  root->release();
}

TEST(PortableStorage, TemporaryFileNameAndPlace) {
  EXPECT_EQ(gxdStorage::tempFileName(u"D:\\out\\model.gxw"),
            u"D:\\out\\model.$t$");
  EXPECT_EQ(gxdStorage::tempFileName(u"D:\\data.old\\model"), u"D:\\data.$t$");
  EXPECT_EQ(gxdStorage::tempFileName(u"/srv/data.old/model"), u"/srv/data.$t$");
  EXPECT_EQ(gxdStorage::tempFileName(u"model"), u"model.$t$");
  std::filesystem::remove("storage_test.$t$");
  std::filesystem::create_directory("storage_test.d");
  makeSmallFile(u"storage_test.d/model");
  EXPECT_TRUE(std::ifstream("storage_test.$t$").good());  // beside the folder
}

std::u16string nameOf(gxdsSTATSTG& record) {
  return reinterpret_cast<const char16_t*>(record.name());
}

// An enumerator lists the children open when it was made; a clone takes a
// fresh snapshot and goes on from the cursor. (The order and the cursor
// arithmetic are checked on every storage of the round-trip files.)
TEST(PortableEnum, SnapshotAndClone) {
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(u"enum_test.gxw", 0, &root), GX_S_OK);
  CGxAbsStgEnum *empty = nullptr, *e = nullptr, *c = nullptr;
  ASSERT_TRUE(root->enumElements(&empty));
  for (const char16_t* name : {u"b", u"c", u"a"}) {
    if (name[0] == u'a') {
      ASSERT_TRUE(root->enumElements(&e));
    }
    gxdIStream* s = nullptr;
    ASSERT_EQ(root->createStream(name, &s), GX_S_OK);
    s->release();
  }
  gxdsSTATSTG r[4];
  uint32_t fetched = 99;
  EXPECT_TRUE(!empty->next(1, r, &fetched) && fetched == 0);
  EXPECT_TRUE(e->next(1, r, &fetched) && nameOf(r[0]) == u"b");
  ASSERT_TRUE(e->clone(&c));
  EXPECT_TRUE(c->next(4, r, &fetched) && fetched == 2 && nameOf(r[0]) == u"b");
  EXPECT_TRUE(e->next(4, r, &fetched) && fetched == 1 && nameOf(r[0]) == u"c");
  root->release();
}

}  // namespace
