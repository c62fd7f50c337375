// What the seeded differential sequences never call: the entry points on a
// file that is open, missing or already there, a stream opened twice, and
// objects opened through a transacted copy whose element goes away.
#include <gtest/gtest.h>

#include "service/gxsContext.h"
#include "service/gxsService.h"

namespace {

const DWORD kRW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
const DWORD kRead = STGM_READ | STGM_SHARE_EXCLUSIVE;

struct U {  // a name in the platform's units
  explicit U(const std::u16string& s) : v(gxsUnits(s)) {}
  operator const OLECHAR*() const { return v.data(); }
  std::vector<OLECHAR> v;
};

TEST(ServiceObjects, EntryPointsAndSharingRefuseAsThePlatform) {
  IStorage *root = nullptr, *other = nullptr;
  IStream *st = nullptr, *st2 = nullptr;
  const U file(u"objects_modes.cfb");
  ASSERT_EQ(gxsStgCreateDocfile(file, kRW | STGM_CREATE, 0, &root), S_OK);
  ASSERT_EQ(root->CreateStream(U(u"s"), kRW, 0, 0, &st), S_OK);
  const struct {
    const char* label;
    HRESULT expected, got;
  } cases[] = {
      {"root open while open", STG_E_SHAREVIOLATION,
       gxsStgOpenStorage(file, nullptr, kRead, nullptr, 0, &other)},
      {"create without STGM_CREATE", STG_E_FILEALREADYEXISTS,
       gxsStgCreateDocfile(file, kRW, 0, &other)},
      {"root read, deny none", STG_E_INVALIDFLAG,
       gxsStgOpenStorage(file, nullptr, STGM_READ | STGM_SHARE_DENY_NONE,
                         nullptr, 0, &other)},
      {"root open missing", STG_E_FILENOTFOUND,
       gxsStgOpenStorage(U(u"objects_none.cfb"), nullptr, kRW, nullptr, 0,
                         &other)},
      {"stream open twice", STG_E_ACCESSDENIED,
       root->OpenStream(U(u"S"), nullptr, kRead, 0, &st2)},
      {"rename an open element", STG_E_ACCESSDENIED,
       root->RenameElement(U(u"s"), U(u"t"))},
  };
  for (const auto& c : cases) EXPECT_EQ(c.got, c.expected) << c.label;
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(st2, nullptr);
  st->Release();
  EXPECT_EQ(root->Release(), 0u);
}

// Broke when objects opened through a transacted copy kept answering after
// the copy's element was destroyed.
TEST(ServiceObjects, ObjectsThroughATransactedCopyGoWithItsElement) {
  IStorage *root = nullptr, *t = nullptr;
  IStream* inside = nullptr;
  ASSERT_EQ(
      gxsStgCreateDocfile(U(u"objects_tx.cfb"), kRW | STGM_CREATE, 0, &root),
      S_OK);
  ASSERT_EQ(root->CreateStorage(U(u"T"), kRW | STGM_TRANSACTED, 0, 0, &t),
            S_OK);
  ASSERT_EQ(t->CreateStream(U(u"x"), kRW, 0, 0, &inside), S_OK);
  ASSERT_EQ(root->DestroyElement(U(u"T")), S_OK);
  EXPECT_EQ(inside->Write("z", 1, nullptr), STG_E_REVERTED);
  EXPECT_EQ(t->Commit(STGC_DEFAULT), STG_E_REVERTED);
  inside->Release();
  t->Release();
  EXPECT_EQ(root->Release(), 0u);
}

}  // namespace
