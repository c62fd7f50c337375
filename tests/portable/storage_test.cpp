// Portable storage: result codes of opening and creating elements, the
// temporary file's name and place, and ownership of the tree.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "portable/gxdStgEnum.h"
#include "portable/gxdStorage.h"
#include "portable/gxdStream.h"

namespace {

std::string slurp(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A created file holding storage "sub" (with stream "inner") and stream "s".
void makeSmallFile(const char16_t* path) {
  gxdIStorage *root = nullptr, *sub = nullptr;
  gxdIStream *s = nullptr, *inner = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(path, 0x12, &root), GX_S_OK);
  ASSERT_EQ(root->createStorage(u"sub", &sub), GX_S_OK);
  ASSERT_EQ(sub->createStream(u"inner", &inner) | root->createStream(u"s", &s),
            GX_S_OK);
  s->write("hello", 5, nullptr);
  root->commit();
  for (gxdIStream* x : {s, inner}) x->release();
  sub->release();
  root->release();
}

TEST(PortableStorage, ResultCodesOfOpenAndCreate) {
  gxdIStorage *root = reinterpret_cast<gxdIStorage*>(0x1), *a = nullptr,
              *b = nullptr;
  gxdIStream *s = nullptr, *t = nullptr, *n = nullptr;
  EXPECT_EQ(gxdStgOpenStorage(u"storage_test_missing.gxw", 0, &root),
            GX_E_FAIL);
  EXPECT_EQ(root, reinterpret_cast<gxdIStorage*>(0x1));  // untouched

  makeSmallFile(u"storage_test_codes.gxw");
  ASSERT_EQ(gxdStgOpenStorage(u"storage_test_codes.gxw", 0xFFFF, &root),
            GX_S_OK);
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
  SCOPED_TRACE("read-only: creating a new name succeeds and records nothing");
  EXPECT_EQ(root->createStream(u"new", &n), GX_S_OK);
  uint64_t done = 7;
  char c;
  EXPECT_EQ(n->read(&c, 1, &done), GX_S_FALSE);
  EXPECT_EQ(done, 0u);
  EXPECT_TRUE(r->compoundFile->pendingChanges.empty());
  gxdIStream* dup = reinterpret_cast<gxdIStream*>(0x1);
  EXPECT_EQ(a->createStream(u"inner", &dup), GX_STG_E_FILEALREADYEXISTS);
  EXPECT_EQ(dup, nullptr);
  const std::string before = slurp("storage_test_codes.gxw");
  root->commit();  // an opened file is never written
  EXPECT_EQ(slurp("storage_test_codes.gxw"), before);
  for (gxdIStream* x : {n, t, s}) x->release();
  for (int i = 0; i < 3; ++i) a->release();
  root->release();

  SCOPED_TRACE("created file: duplicates refused, missing names not found");
  ASSERT_EQ(gxdStgCreateStorage(u"storage_test_dup.gxw", 0, &root), GX_S_OK);
  ASSERT_EQ(root->createStream(u"x", &s) | root->createStorage(u"y", &a),
            GX_S_OK);
  t = reinterpret_cast<gxdIStream*>(0x1);
  EXPECT_EQ(root->createStream(u"x", &t), GX_STG_E_FILEALREADYEXISTS);
  EXPECT_EQ(root->createStorage(u"y", &b), GX_STG_E_FILEALREADYEXISTS);
  EXPECT_TRUE(t == nullptr && b == nullptr);
  EXPECT_EQ(root->openStream(u"z", &t), GX_STG_E_FILENOTFOUND);
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

// Every object handed out, cloned or enumerated below a root goes with the
// root, once; the sanitizers report any leak or second destruction.
TEST(PortableStorage, ReleasingTheRootDestroysTheTree) {
  makeSmallFile(u"storage_test_tree.gxw");
  for (bool opened : {false, true}) {
    SCOPED_TRACE(opened ? "opened file" : "created file");
    gxdIStorage *root = nullptr, *sub = nullptr;
    gxdIStream *s = nullptr, *copy = nullptr, *again = nullptr;
    if (opened) {
      ASSERT_EQ(gxdStgOpenStorage(u"storage_test_tree.gxw", 0, &root), GX_S_OK);
      ASSERT_EQ(root->openStorage(u"sub", &sub), GX_S_OK);
      ASSERT_EQ(sub->openStream(u"inner", &s) |
                    sub->openStream(u"inner", &again),  // a clone
                GX_S_OK);
      again->release();
    } else {
      ASSERT_EQ(gxdStgCreateStorage(u"storage_test_tree2.gxw", 0, &root),
                GX_S_OK);
      ASSERT_EQ(root->createStorage(u"sub", &sub), GX_S_OK);
      ASSERT_EQ(sub->createStream(u"inner", &s), GX_S_OK);
    }
    s->clone(&copy);
    copy->clone(&again);
    CGxAbsStgEnum *e = nullptr, *ec = nullptr;
    sub->enumElements(&e);
    e->clone(&ec);
    root->enumElements(&e);
    s->release();
    sub->release();
    root->release();
  }
}

}  // namespace
