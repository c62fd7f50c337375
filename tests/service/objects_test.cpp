// What the seeded differential sequences never call or cannot tell:
// objects opened through a storage that goes away, MoveElementTo and
// SetElementTimes (which ole32 under Wine does not implement as
// documented).
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "gxsTreeWalk.h"

namespace {

const DWORD kRW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
const DWORD kRead = STGM_READ | STGM_SHARE_EXCLUSIVE;

const auto U = gxsOle;  // a name in the platform's units

// MoveElementTo copies and moves a storage with its class and streams;
// SetElementTimes keeps a storage's creation and modification times; and
// objects opened through a released storage answer STG_E_REVERTED.
TEST(ServiceObjects, MoveTimesAndObjectsOfAReleasedStorage) {
  IStorage *root = nullptr, *d = nullptr, *e = nullptr, *got = nullptr;
  IStream* s = nullptr;
  IEnumSTATSTG* en = nullptr;
  STATSTG st{};
  char buf[8] = {};
  ULONG done = 0;
  CLSID cls;
  std::memset(&cls, 0x5A, sizeof cls);
  const FILETIME made{1, 0x01C0AAAA}, changed{2, 0x01C0BBBB};
  ASSERT_EQ(
      gxsStgCreateDocfile(U(u"objects_move.cfb"), kRW | STGM_CREATE, 0, &root),
      S_OK);
  ASSERT_EQ(root->CreateStorage(U(u"D"), kRW, 0, 0, &d), S_OK);
  ASSERT_EQ(root->CreateStorage(U(u"E"), kRW, 0, 0, &e), S_OK);
  ASSERT_EQ(d->SetClass(cls), S_OK);
  ASSERT_EQ(d->CreateStream(U(u"s"), kRW, 0, 0, &s), S_OK);
  ASSERT_EQ(s->Write("payload", 7, nullptr), S_OK);
  s->Release();
  d->Release();
  ASSERT_EQ(root->SetElementTimes(U(u"D"), &made, nullptr, &changed), S_OK);
  EXPECT_EQ(root->SetElementTimes(U(u"no"), &made, nullptr, nullptr),
            STG_E_FILENOTFOUND);
  ASSERT_EQ(root->OpenStorage(U(u"D"), nullptr, kRead, nullptr, 0, &d), S_OK);
  ASSERT_EQ(d->Stat(&st, STATFLAG_NONAME), S_OK);
  EXPECT_TRUE(
      st.ctime.dwLowDateTime == 1 && st.ctime.dwHighDateTime == 0x01C0AAAA &&
      st.mtime.dwLowDateTime == 2 && st.mtime.dwHighDateTime == 0x01C0BBBB);
  EXPECT_EQ(root->MoveElementTo(U(u"D"), e, U(u"M"), STGMOVE_MOVE),
            STG_E_ACCESSDENIED);  // open
  d->Release();
  EXPECT_EQ(root->MoveElementTo(U(u"D"), e, U(u"C"), STGMOVE_COPY), S_OK);
  EXPECT_EQ(root->MoveElementTo(U(u"D"), e, U(u"M"), STGMOVE_MOVE), S_OK);
  EXPECT_EQ(root->OpenStorage(U(u"D"), nullptr, kRead, nullptr, 0, &got),
            STG_E_FILENOTFOUND);
  for (const char16_t* n : {u"C", u"M"}) {
    SCOPED_TRACE(n[0]);
    ASSERT_EQ(e->OpenStorage(U(n), nullptr, kRead, nullptr, 0, &got), S_OK);
    ASSERT_EQ(got->Stat(&st, STATFLAG_NONAME), S_OK);
    EXPECT_EQ(std::memcmp(&st.clsid, &cls, sizeof cls), 0);
    ASSERT_EQ(got->OpenStream(U(u"s"), nullptr, kRead, 0, &s), S_OK);
    EXPECT_EQ(s->Read(buf, 8, &done), S_OK);
    EXPECT_EQ(std::string(buf, done), "payload");
    s->Release();
    got->Release();
  }
  ASSERT_EQ(e->OpenStorage(U(u"C"), nullptr, kRW, nullptr, 0, &got), S_OK);
  ASSERT_EQ(got->OpenStream(U(u"s"), nullptr, kRW, 0, &s), S_OK);
  ASSERT_EQ(e->EnumElements(0, nullptr, 0, &en), S_OK);
  e->Release();
  EXPECT_EQ(s->Write("z", 1, nullptr), STG_E_REVERTED);
  EXPECT_EQ(s->Read(buf, 1, nullptr), STG_E_REVERTED);
  EXPECT_EQ(got->Stat(&st, STATFLAG_NONAME), STG_E_REVERTED);
  EXPECT_EQ(en->Next(1, &st, nullptr), STG_E_REVERTED);
  en->Release();
  s->Release();
  got->Release();
  EXPECT_EQ(root->Release(), 0u);
}

}  // namespace
