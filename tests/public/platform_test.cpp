// The adapters over the platform's own structured-storage service: runs in
// the Windows build only (under Wine in the cross build).
#ifdef _WIN32
#include <gtest/gtest.h>

#include <string>

#include "gxStorage.h"
#include "platform/gxPlatform.h"

namespace {

const unsigned short* units(const char16_t* s) {
  return reinterpret_cast<const unsigned short*>(s);
}

std::u16string nameOf(gxdsSTATSTG& r) {
  return reinterpret_cast<const char16_t*>(r.name());
}

const unsigned short* kPath = units(u"platform_test.gxw");
const unsigned kCreate = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
const unsigned kOpen = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

TEST(PlatformAdapters, OverTheRealService) {
  CGxAbsStorage *root = nullptr, *dir = nullptr;
  CGxAbsStream *a = nullptr, *b = nullptr, *copy = nullptr;
  unsigned long long done = 99;
  char buf[16] = {};
  ASSERT_EQ(gxStgCreateStorage(kPath, kCreate, &root, false), S_OK);
  ASSERT_EQ(root->openIStorage(units(u"dir"), false, &dir), S_OK);
  ASSERT_EQ(root->openIStream(units(u"a"), false, &a), S_OK);
  ASSERT_EQ(root->openIStream(units(u"b"), false, &b), S_OK);
  a->write("0123456789", 10, &done);
  EXPECT_EQ(done, 10u);
  a->read(buf, 4, &done);  // created streams are write-only
  EXPECT_EQ(done, 0u);
  b->write("xyz", 3, nullptr);
  EXPECT_FALSE(dir->release());
  gxStgCloseStorage(root);

  SCOPED_TRACE(
      "commit on a platform root does nothing: a transacted change is lost");
  ASSERT_EQ(gxStgOpenStorage(kPath, kOpen | STGM_TRANSACTED, &root, false),
            S_OK);
  ASSERT_EQ(root->openIStream(units(u"lost"), false, &a), S_OK);
  root->commit();
  EXPECT_TRUE(root->release());

  ASSERT_EQ(gxStgOpenStorage(kPath, kOpen, &root, false), S_OK);
  EXPECT_EQ(root->openIStream(units(u"lost"), true, &a), STG_E_FILENOTFOUND);
  SCOPED_TRACE("enumerator over a, b, dir");
  CGxAbsStgEnum *e = nullptr, *ec = nullptr;
  ASSERT_TRUE(root->enumElements(&e));
  gxdsSTATSTG r[3];
  uint32_t fetched = 9, low = 0, high = 9;
  EXPECT_FALSE(e->next(0, r, &fetched));
  EXPECT_EQ(fetched, 0u);
  EXPECT_TRUE(e->next(2, r, &fetched) && fetched == 2);
  EXPECT_FALSE(e->next(2, r, &fetched));
  EXPECT_EQ(fetched, 1u);
  e->reset();
  ASSERT_TRUE(e->next(3, r, &fetched) && fetched == 3);
  for (gxdsSTATSTG& record : r) {
    SCOPED_TRACE(std::string(nameOf(record).begin(), nameOf(record).end()));
    record.size(low, high);
    const std::u16string name = nameOf(record);
    EXPECT_EQ(record.type(), name == u"dir" ? STGTY_STORAGE : STGTY_STREAM);
    EXPECT_EQ(low, name == u"dir" ? low : name == u"a" ? 10u : 3u);
  }
  e->reset();
  EXPECT_TRUE(e->skip(1));
  ASSERT_TRUE(e->clone(&ec));
  EXPECT_TRUE(e->next(1, &r[0], nullptr) && ec->next(1, &r[1], nullptr));
  EXPECT_EQ(nameOf(r[0]), nameOf(r[1]));
  EXPECT_FALSE(ec->skip(5));
  SCOPED_TRACE("opened streams are read-only; seek from the end; clones");
  ASSERT_EQ(root->openIStream(units(u"a"), true, &a), S_OK);
  a->write("!!", 2, &done);
  EXPECT_EQ(done, 0u);
  LARGE_INTEGER move;
  move.QuadPart = -2;
  ULARGE_INTEGER at;
  EXPECT_TRUE(a->seek(move, STREAM_SEEK_END, &at));
  EXPECT_EQ(at.QuadPart, 8u);
  ASSERT_TRUE(a->clone(&copy));
  a->read(buf, sizeof(buf), &done);
  EXPECT_EQ(std::string(buf, done), "89");
  move.QuadPart = 0;
  EXPECT_TRUE(copy->seek(move, STREAM_SEEK_SET, nullptr));
  copy->read(buf, 3, &done);
  EXPECT_EQ(std::string(buf, done), "012");
  copy->flush();
  gxdsSTATSTG info;
  ASSERT_TRUE(copy->stat(&info));
  EXPECT_EQ(nameOf(info), u"a");
  ASSERT_TRUE(root->stat(&info));
  EXPECT_NE(nameOf(info).find(u"platform_test.gxw"), std::u16string::npos);
  ASSERT_EQ(root->openIStorage(units(u"dir"), true, &dir), S_OK);
  EXPECT_TRUE(dir->stat(&info) && nameOf(info) == u"dir" &&
              info.type() == STGTY_STORAGE);
  EXPECT_TRUE(root->release());
}

}  // namespace
#endif  // _WIN32
