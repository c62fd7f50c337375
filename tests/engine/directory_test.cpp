// The directory tree as loaded: walk order, skipped entries, names, and a
// sibling chain too long for a stack frame per link.
#include <gtest/gtest.h>

#include "engine/gxdCompoundFile.h"
#include "support/gxFaultStream.h"
#include "support/gxTestFileBuilder.h"

namespace {

template <typename Entry>
std::u16string names(const std::vector<Entry>& v) {
  std::u16string s;
  for (const auto& e : v) s += e.name + u",";
  return s;
}

TEST(Directory, WalkOrderSkippedTypesNamesAndLongChains) {
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
  gxFaultStream stream(b.build());
  gxdCompoundFile f(&stream, nullptr, true);
  ASSERT_FALSE(stream.fail());
  const gxdStorageEntry& root = f.rootEntry;
  EXPECT_EQ(u"Root Entry", root.name);
  ASSERT_EQ(2u, root.storages.size());
  EXPECT_EQ(std::u16string(32, u'x') + u",St,", names(root.storages));
  EXPECT_EQ(u",", names(root.streams));  // E with its empty name
  EXPECT_EQ(u"B,A,C,", names(root.storages[1].streams));
  EXPECT_EQ(1u, root.storages[1].streams[2].size);

  SCOPED_TRACE("a chain of 100,000 right siblings");
  gxTestFileBuilder many;
  const uint32_t count = 100000;
  for (uint32_t i = 0; i < count; ++i)
    many.addStream(0, u"s" + std::u16string(1, char16_t(u'0' + i % 10)), "");
  gxFaultStream stream2(many.build());
  gxdCompoundFile f2(&stream2, nullptr, true);
  ASSERT_FALSE(stream2.fail());
  ASSERT_EQ(count, f2.rootEntry.streams.size());
  EXPECT_EQ(u"s9", f2.rootEntry.streams[count - 1].name);
}

}  // namespace
