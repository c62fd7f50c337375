// Portable enumerator: the snapshot of open children, its order, and the
// cursor arithmetic of next, skip and clone.
#include <gtest/gtest.h>

#include "portable/gxdStgEnum.h"
#include "portable/gxdStorage.h"

namespace {

std::u16string nameOf(gxdsSTATSTG& record) {
  return reinterpret_cast<const char16_t*>(record.name());
}

TEST(PortableEnum, SnapshotOrderAndCursor) {
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(u"enum_test.gxw", 0, &root), GX_S_OK);
  CGxAbsStgEnum *empty = nullptr, *e = nullptr, *c = nullptr;
  ASSERT_TRUE(root->enumElements(&empty));
  gxdIStorage* z = nullptr;
  ASSERT_EQ(root->createStorage(u"z", &z), GX_S_OK);
  z->release();
  auto add = [&](const std::u16string& name) {
    gxdIStream* s = nullptr;
    ASSERT_EQ(root->createStream(name.c_str(), &s), GX_S_OK);
    s->write("abc", name.size(), nullptr);
    s->release();
  };
  for (const char16_t* name : {u"b", u"a", u"\u00e9", u"ab", u"B"}) add(name);
  ASSERT_TRUE(root->enumElements(&e));
  gxdsSTATSTG r[8];
  uint32_t fetched = 99, low = 9, high = 9;
  SCOPED_TRACE("storages first, then streams by code units, no case folding");
  ASSERT_TRUE(e->next(8, r, &fetched) && fetched == 6);
  const std::u16string order[] = {u"z", u"B", u"a", u"ab", u"b", u"\u00e9"};
  for (int i = 0; i < 6; ++i) {
    r[i].size(low, high);
    EXPECT_EQ(nameOf(r[i]), order[i]);
    EXPECT_EQ(r[i].type(), i == 0 ? GX_STGTY_STORAGE : GX_STGTY_STREAM);
    EXPECT_TRUE(low == (i == 0 ? 0u : order[i].size()) && high == 0);
  }
  EXPECT_FALSE(empty->next(1, r, &fetched));  // the snapshot taken before
  EXPECT_EQ(fetched, 0u);
  SCOPED_TRACE("next(2) over the last three: 2, 1, then false");
  gxdStgEnum* pe = static_cast<gxdStgEnum*>(e);
  pe->cursor = 3;
  EXPECT_TRUE(e->next(2, r, &fetched) && fetched == 2);
  EXPECT_TRUE(e->next(2, r, &fetched) && fetched == 1 &&
              nameOf(r[0]) == u"\u00e9");
  EXPECT_FALSE(e->next(2, r, &fetched));
  EXPECT_EQ(fetched, 0u);
  SCOPED_TRACE("skip may not land on the end");
  e->reset();
  EXPECT_TRUE(e->next(0, r, &fetched) && fetched == 0);
  EXPECT_FALSE(e->skip(6));
  EXPECT_EQ(pe->cursor, 0u);
  EXPECT_TRUE(e->skip(4));
  EXPECT_FALSE(e->skip(2));
  EXPECT_EQ(pe->cursor, 4u);
  EXPECT_TRUE(e->next(1, r, nullptr) && nameOf(r[0]) == u"b");
  SCOPED_TRACE("a clone continues the cursor over a fresh snapshot");
  e->reset();
  EXPECT_TRUE(e->next(5, r, nullptr));
  add(u"\u4e2d");
  ASSERT_TRUE(e->clone(&c));
  EXPECT_TRUE(c->next(3, r, &fetched) && fetched == 2 &&
              nameOf(r[1]) == u"\u4e2d");
  EXPECT_TRUE(e->next(3, r, &fetched) && fetched == 1);  // its older snapshot
  root->release();
}

}  // namespace
