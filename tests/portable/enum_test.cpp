// Portable enumerator: the snapshot of open children, its order, and the
// cursor arithmetic of next, skip and clone.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "portable/gxdStgEnum.h"
#include "portable/gxdStorage.h"

namespace {

std::u16string nameOf(gxdsSTATSTG& record) {
  return reinterpret_cast<const char16_t*>(record.name());
}

TEST(PortableEnum, OrderOfOpenChildren) {
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(u"enum_test_order.gxw", 0, &root), GX_S_OK);
  CGxAbsStgEnum* empty = nullptr;
  ASSERT_TRUE(root->enumElements(&empty));
  // Storages first, then streams; each group by unsigned code units, with
  // no case folding and a prefix before its extensions.
  const std::u16string streams[] = {u"b", u"a", u"\u00e9", u"ab", u"B", u"\u4e2d"};
  gxdIStorage* storage = nullptr;
  ASSERT_EQ(root->createStorage(u"z", &storage), GX_S_OK);
  storage->release();
  for (const std::u16string& name : streams) {
    gxdIStream* s = nullptr;
    ASSERT_EQ(root->createStream(name.c_str(), &s), GX_S_OK);
    s->write("abc", name.size(), nullptr);
    s->release();
  }
  CGxAbsStgEnum* e = nullptr;
  ASSERT_TRUE(root->enumElements(&e));
  gxdsSTATSTG records[8];
  uint32_t fetched = 99;
  ASSERT_TRUE(e->next(8, records, &fetched) && fetched == 7);
  const std::u16string order[] = {u"z", u"B", u"a", u"ab", u"b", u"\u00e9", u"\u4e2d"};
  for (int i = 0; i < 7; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(nameOf(records[i]), order[i]);
    EXPECT_EQ(records[i].type(), i == 0 ? GX_STGTY_STORAGE : GX_STGTY_STREAM);
    uint32_t low = 9, high = 9;
    records[i].size(low, high);
    EXPECT_EQ(low, i == 0 ? 0u : order[i].size());
    EXPECT_EQ(high, 0u);
  }
  EXPECT_FALSE(empty->next(1, records, &fetched));  // the earlier snapshot
  EXPECT_EQ(fetched, 0u);
  root->release();
}

TEST(PortableEnum, CursorOverThreeElements) {
  gxdIStorage* root = nullptr;
  ASSERT_EQ(gxdStgCreateStorage(u"enum_test_cursor.gxw", 0, &root), GX_S_OK);
  for (const char16_t* name : {u"c", u"a", u"b"}) {
    gxdIStream* s = nullptr;
    ASSERT_EQ(root->createStream(name, &s), GX_S_OK);
    s->release();
  }
  CGxAbsStgEnum* e = nullptr;
  root->enumElements(&e);
  gxdStgEnum* pe = static_cast<gxdStgEnum*>(e);
  gxdsSTATSTG r[2];
  uint32_t fetched = 0;
  {
    SCOPED_TRACE("next(2) three times: 2, 1, then false");
    EXPECT_TRUE(e->next(2, r, &fetched) && fetched == 2);
    EXPECT_TRUE(e->next(2, r, &fetched) && fetched == 1 && nameOf(r[0]) == u"c");
    EXPECT_FALSE(e->next(2, r, &fetched));
    EXPECT_EQ(fetched, 0u);
  }
  {
    SCOPED_TRACE("skip may not land on the end");
    e->reset();
    EXPECT_FALSE(e->skip(3));
    EXPECT_EQ(pe->cursor, 0u);
    EXPECT_TRUE(e->next(0, r, &fetched) && fetched == 0);
    EXPECT_TRUE(e->skip(2));
    EXPECT_FALSE(e->skip(1));
    EXPECT_EQ(pe->cursor, 2u);
    EXPECT_TRUE(e->next(1, r, nullptr) && nameOf(r[0]) == u"c");
    EXPECT_FALSE(e->skip(0));
  }
  {
    SCOPED_TRACE("a clone continues the cursor over a fresh snapshot");
    e->reset();
    EXPECT_TRUE(e->next(1, r, nullptr));
    gxdIStream* s = nullptr;
    ASSERT_EQ(root->createStream(u"d", &s), GX_S_OK);
    s->release();
    CGxAbsStgEnum* c = nullptr;
    ASSERT_TRUE(e->clone(&c));
    EXPECT_TRUE(c->next(2, r, &fetched) && nameOf(r[0]) == u"b" && nameOf(r[1]) == u"c");
    EXPECT_TRUE(c->next(2, r, &fetched) && nameOf(r[0]) == u"d");
    // The source keeps its own cursor and its older snapshot.
    EXPECT_TRUE(e->next(2, r, &fetched) && fetched == 2 && nameOf(r[0]) == u"b");
  }
  root->release();
}

}  // namespace
