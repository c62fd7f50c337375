// The directory tree: walk order, skipped entries, names, and the lookups.
#include <gtest/gtest.h>

#include "engine/gxdCompoundFile.h"
#include "support/gxFaultStream.h"
#include "support/gxTestFileBuilder.h"

namespace {

struct Loaded {
  explicit Loaded(std::string bytes)
      : stream(std::move(bytes)), file(&stream, nullptr, true) {}
  bool ok() const { return !stream.fail(); }
  gxFaultStream stream;
  gxdCompoundFile file;
};

template <typename Entry>
std::u16string names(const std::vector<Entry>& v) {
  std::u16string s;
  for (const auto& e : v) s += e.name + u",";
  return s;
}

TEST(Directory, WalkOrderSkippedTypesAndNames) {
  gxTestFileBuilder b;
  uint32_t st = b.addStorage(0, u"St");
  uint32_t B = b.addStream(st, u"B", "b");
  uint32_t A = b.addStream(st, u"A", "a");
  uint32_t C = b.addStream(st, u"C", "c");
  // Root's children: odd (type 3, with a child) -> left X, right St, and the
  // storage St holds B with left A and right C.
  uint32_t odd = b.addStorage(0, u"odd");
  uint32_t hidden = b.addStream(odd, u"hidden", "h");
  uint32_t X = b.addStorage(0, std::u16string(40, u'x'));
  uint32_t E = b.addStream(0, u"E", "e");
  for (uint32_t n : {st, B, A, C, odd, hidden, X, E})
    b.entries[n].left = b.entries[n].right = gxTestFileBuilder::kNone;
  b.entries[0].child = odd;
  b.entries[odd].type = 3;
  b.entries[odd].left = X;
  b.entries[odd].right = st;
  b.entries[X].right = E;
  b.entries[E].left = E;  // points back to itself: taken once
  b.entries[E].name = u"";
  b.entries[st].child = B;
  b.entries[B].left = A;
  b.entries[B].right = C;
  b.entries[C].left = B;  // already visited
  Loaded l(b.build());
  ASSERT_TRUE(l.ok());
  const gxdStorageEntry& root = l.file.rootEntry;
  EXPECT_EQ(u"Root Entry", root.name);
  ASSERT_EQ(2u, root.storages.size());
  EXPECT_EQ(std::u16string(32, u'x') + u",St,", names(root.storages));
  EXPECT_EQ(u",", names(root.streams));  // E with its empty name
  EXPECT_EQ(u"B,A,C,", names(root.storages[1].streams));
  EXPECT_EQ(1u, root.storages[1].streams[2].size);
}

TEST(Directory, LookupsAreExactAndTheTreeHoldsCopies) {
  gxTestFileBuilder b;
  uint32_t data = b.addStorage(0, u"Data");
  b.addStream(data, u"inner", std::string(10, 'i'));
  b.addStream(0, u"Data", std::string(20, 'd'));
  Loaded l(b.build());
  ASSERT_TRUE(l.ok());
  gxdCompoundFile& f = l.file;
  {
    SCOPED_TRACE("a stream and a storage of the same name");
    gxdStorageEntry st;
    st.name = u"Data";
    ASSERT_TRUE(f.findOrAddStorage(nullptr, st, false));
    EXPECT_EQ(u"inner,", names(st.streams));
    gxdDirEntry sm;
    sm.name = u"Data";
    ASSERT_TRUE(f.findOrAddStream(nullptr, sm, false));
    EXPECT_EQ(20u, sm.size);
  }
  {
    SCOPED_TRACE("case-sensitive: data is not Data; nothing is added");
    gxdDirEntry sm;
    sm.name = u"data";
    EXPECT_FALSE(f.findOrAddStream(nullptr, sm, false));
    gxdStorageEntry st;
    st.name = u"DATA";
    EXPECT_FALSE(f.findOrAddStorage(nullptr, st, false));
    EXPECT_EQ(1u, f.rootEntry.streams.size());
    EXPECT_EQ(1u, f.rootEntry.storages.size());
  }
  {
    SCOPED_TRACE("the tree holds copies, never references");
    gxdStorageEntry added;
    added.name = u"New";
    EXPECT_FALSE(f.findOrAddStorage(nullptr, added, true));
    added.streams.push_back(gxdDirEntry());  // after the copy was appended
    gxdStorageEntry again;
    again.name = u"New";
    ASSERT_TRUE(f.findOrAddStorage(nullptr, again, true));
    EXPECT_TRUE(again.streams.empty());
    EXPECT_EQ(2u, f.rootEntry.storages.size());
    EXPECT_TRUE(f.rootEntry.storages[1].streams.empty());
  }
}

// A chain of 100,000 right siblings must not cost a stack frame per link.
TEST(Directory, LongSiblingChainLoads) {
  gxTestFileBuilder b;
  const uint32_t count = 100000;
  for (uint32_t i = 0; i < count; ++i)
    b.addStream(0, u"s" + std::u16string(1, char16_t(u'0' + i % 10)), "");
  Loaded l(b.build());
  ASSERT_TRUE(l.ok());
  ASSERT_EQ(count, l.file.rootEntry.streams.size());
  EXPECT_EQ(u"s9", l.file.rootEntry.streams[count - 1].name);
}

}  // namespace
