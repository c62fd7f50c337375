// The service's core where the differential sequences cannot look: the
// red-black rules of a sibling tree of thousands of elements. The seeded
// differential sequences check what the core stores against the platform;
// commits cut off at every write, and the space removed streams free, are
// the failing-disk tests' (faults_test.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "service/gxsDocFile.h"
#include "support/gxMemoryFile.h"

namespace {

// Black height of the tree under `node`, or -1 when a rule is broken.
int blackHeight(const gxsDocFile& f, uint32_t node) {
  if (node == kNoStream) return 0;
  const gxdDirRecord& r = f.entry(node);
  for (uint32_t c : {r.leftSibling, r.rightSibling})
    if (r.colour == 0 && c != kNoStream && f.entry(c).colour == 0) return -1;
  const int left = blackHeight(f, r.leftSibling);
  if (left < 0 || left != blackHeight(f, r.rightSibling)) return -1;
  return left + r.colour;
}

// Thousands of siblings added, then half removed in a seeded order: the
// tree keeps the red-black rules and lookups fold case (the order children
// come out in is the differential sequences' to compare).
TEST(ServiceDocFile, ManySiblingsStayBalancedThroughAddsAndRemoves) {
  auto bytes = std::make_shared<gxMemoryBytes>();
  std::unique_ptr<gxsDocFile> f;
  ASSERT_EQ(gxsDocFile::create(std::make_unique<gxMemoryFile>(bytes), f), S_OK);
  std::mt19937 rng(7);
  std::vector<std::u16string> names;
  std::vector<uint32_t> ids;
  uint32_t id = 0;
  for (int i = 0; i < 3000; ++i) {
    std::u16string name = u"s" + std::u16string(1, u'A' + rng() % 26);
    for (int v = i; v > 0; v /= 26) name += char16_t(u'a' + v % 26);
    ASSERT_EQ(f->addEntry(0, name, kObjStream, id), S_OK);
    names.push_back(name);
  }
  std::shuffle(names.begin(), names.end(), rng);
  for (size_t i = 0; i < names.size() / 2; ++i) {
    std::u16string upper = names[i];
    for (char16_t& c : upper) c = c >= u'a' && c <= u'z' ? c - 32 : c;
    ASSERT_EQ(f->find(0, upper, id), S_OK);
    ASSERT_EQ(f->removeEntry(0, id, ids), S_OK);
    if (i % 100 == 0) {
      ASSERT_GE(blackHeight(*f, f->entry(0).child), 0) << i;
    }
  }
  ASSERT_EQ(f->close(), S_OK);
  f.reset();
  ASSERT_EQ(gxsDocFile::open(std::make_unique<gxMemoryFile>(bytes), true, f),
            S_OK);
  EXPECT_GE(blackHeight(*f, f->entry(0).child), 0);
  ASSERT_EQ(f->children(0, ids), S_OK);
  EXPECT_EQ(ids.size(), names.size() / 2);
  size_t wrong = 0;  // lookups that find a removed name or miss a kept one
  for (size_t i = 0; i < names.size(); ++i)
    wrong += (f->find(0, names[i], id) == S_OK) != (i >= names.size() / 2);
  EXPECT_EQ(wrong, 0u);
}

}  // namespace
