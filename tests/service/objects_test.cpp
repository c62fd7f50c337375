// The service's IStorage, IStream and IEnumSTATSTG objects on files on disk:
// a tree written through them reads back through them, through the portable
// loader and (natively) through olefile; modes, flags and names are refused
// as the platform refuses them; objects whose element or parent went away
// answer STG_E_REVERTED; copies, moves, renames and removals.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "service/gxsContext.h"
#include "service/gxsService.h"
#include "support/gxMemoryFile.h"
#include "support/gxRoundTrip.h"

namespace {

const DWORD kRW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
const DWORD kRead = STGM_READ | STGM_SHARE_EXCLUSIVE;

struct Units {  // a name in the platform's units
  explicit Units(const std::u16string& s) : v(gxsUnits(s)) {}
  operator const OLECHAR*() const { return v.data(); }
  std::vector<OLECHAR> v;
};
using U = Units;

IStorage* create(const char16_t* path) {
  IStorage* root = nullptr;
  EXPECT_EQ(gxsStgCreateDocfile(U(path), kRW | STGM_CREATE, 0, &root), S_OK);
  return root;
}

IStream* newStream(IStorage* s, const char16_t* name, const std::string& data) {
  IStream* st = nullptr;
  EXPECT_EQ(s->CreateStream(U(name), kRW, 0, 0, &st), S_OK);
  if (st != nullptr) {
    EXPECT_EQ(st->Write(data.data(), ULONG(data.size()), nullptr), S_OK);
  }
  return st;
}

// The whole tree as the objects enumerate and read it.
void readTree(IStorage* s, const std::u16string& at, gxRtTree& tree) {
  IEnumSTATSTG* e = nullptr;
  ASSERT_EQ(s->EnumElements(0, nullptr, 0, &e), S_OK);
  STATSTG r;
  while (e->Next(1, &r, nullptr) == S_OK) {
    std::u16string name;
    for (const OLECHAR* c = r.pwcsName; *c != 0; ++c)
      name.push_back(char16_t(*c));
    CoTaskMemFree(r.pwcsName);
    const std::u16string path = at.empty() ? name : at + u"/" + name;
    if (r.type == STGTY_STORAGE) {
      IStorage* sub = nullptr;
      ASSERT_EQ(s->OpenStorage(U(name), nullptr, kRead, nullptr, 0, &sub),
                S_OK);
      tree[path] = {true, ""};
      readTree(sub, path, tree);
      sub->Release();
      continue;
    }
    IStream* st = nullptr;
    ASSERT_EQ(s->OpenStream(U(name), nullptr, kRead, 0, &st), S_OK);
    std::string data(size_t(r.cbSize.QuadPart), '\0');
    ULONG got = 0;
    EXPECT_EQ(st->Read(&data[0], ULONG(data.size()), &got), S_OK);
    EXPECT_EQ(got, data.size());
    tree[path] = {false, data};
    st->Release();
  }
  e->Release();
}

gxRtTree treeOf(const char16_t* path) {
  IStorage* root = nullptr;
  gxRtTree tree;
  EXPECT_EQ(gxsStgOpenStorage(U(path), nullptr, kRead, nullptr, 0, &root),
            S_OK);
  if (root != nullptr) readTree(root, u"", tree), root->Release();
  return tree;
}

std::string fileBytes(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST(ServiceObjects, TreeWrittenReadsBackEverywhere) {
  const std::string big(5000, 'b');  // past the mini-stream cutoff
  IStorage* root = create(u"objects_tree.cfb");
  ASSERT_NE(root, nullptr);
  IStorage *dir = nullptr, *deep = nullptr;
  ASSERT_EQ(root->CreateStorage(U(u"dir"), kRW, 0, 0, &dir), S_OK);
  ASSERT_EQ(dir->CreateStorage(U(u"deep"), kRW, 0, 0, &deep), S_OK);
  newStream(root, u"small", "hello")->Release();
  IStream* grow = newStream(dir, u"grow", "abc");
  newStream(deep, u"big", big)->Release();
  SCOPED_TRACE("seek, write past the end, clone");
  LARGE_INTEGER at;
  at.QuadPart = 6;
  ULARGE_INTEGER pos;
  EXPECT_EQ(grow->Seek(at, STREAM_SEEK_SET, &pos), S_OK);
  EXPECT_EQ(grow->Write("xy", 2, nullptr), S_OK);  // bytes 3..5 read as zeros
  at.QuadPart = -9;
  EXPECT_EQ(grow->Seek(at, STREAM_SEEK_CUR, &pos), STG_E_INVALIDFUNCTION);
  IStream* clone = nullptr;
  ASSERT_EQ(grow->Clone(&clone), S_OK);
  at.QuadPart = 0;
  EXPECT_EQ(clone->Seek(at, STREAM_SEEK_CUR, &pos), S_OK);
  EXPECT_EQ(pos.QuadPart, 8u);
  clone->Release();
  grow->Release();
  deep->Release();
  dir->Release();
  EXPECT_EQ(root->Release(), 0u);

  const gxRtTree expected = {
      {u"small", {false, "hello"}},
      {u"dir", {true, ""}},
      {u"dir/grow", {false, std::string("abc\0\0\0xy", 8)}},
      {u"dir/deep", {true, ""}},
      {u"dir/deep/big", {false, big}}};
  gxExpectSameTree(treeOf(u"objects_tree.cfb"), expected);
  gxExpectSameTree(gxReadOurs(u"objects_tree.cfb"), expected);
#ifndef _WIN32
  const char* script =
      "/usr/bin/python3 -c \"import olefile; o = olefile.OleFileIO("
      "'objects_tree.cfb'); print(sorted('/'.join(p) + ':' + "
      "str(o.get_size('/'.join(p))) for p in o.listdir()))\"";
  FILE* pipe = popen(script, "r");
  ASSERT_NE(pipe, nullptr);
  char line[256] = {};
  EXPECT_NE(fgets(line, sizeof(line), pipe), nullptr);
  pclose(pipe);
  EXPECT_STREQ(line, "['dir/deep/big:5000', 'dir/grow:8', 'small:5']\n");
#endif

  SCOPED_TRACE("opened read-write and released unchanged: byte for byte");
  const std::string before = fileBytes("objects_tree.cfb");
  IStorage* again = nullptr;
  ASSERT_EQ(gxsStgOpenStorage(U(u"objects_tree.cfb"), nullptr, kRW, nullptr, 0,
                              &again),
            S_OK);
  gxRtTree seen;
  readTree(again, u"", seen);
  again->Release();
  EXPECT_EQ(fileBytes("objects_tree.cfb"), before);
}

TEST(ServiceObjects, ModesFlagsAndNames) {
  IStorage *root = create(u"objects_modes.cfb"), *other = nullptr;
  ASSERT_NE(root, nullptr);
  newStream(root, u"s", "data")->Release();
  struct Case {
    const char* label;
    HRESULT expected;
    HRESULT got;
  };
  IStream *st = nullptr, *st2 = nullptr;
  IStorage *sub = nullptr, *tx = nullptr;
  const Case cases[] = {
      {"root open while open", STG_E_SHAREVIOLATION,
       gxsStgOpenStorage(U(u"objects_modes.cfb"), nullptr, kRead, nullptr, 0,
                         &other)},
      {"create without STGM_CREATE", STG_E_FILEALREADYEXISTS,
       gxsStgCreateDocfile(U(u"objects_modes.cfb"), kRW, 0, &other)},
      {"root read, deny none", STG_E_INVALIDFLAG,
       gxsStgOpenStorage(U(u"objects_modes.cfb"), nullptr,
                         STGM_READ | STGM_SHARE_DENY_NONE, nullptr, 0, &other)},
      {"root open missing", STG_E_FILENOTFOUND,
       gxsStgOpenStorage(U(u"objects_none.cfb"), nullptr, kRW, nullptr, 0,
                         &other)},
      {"stream not exclusive", STG_E_INVALIDFLAG,
       root->CreateStream(U(u"t"), STGM_READWRITE, 0, 0, &st)},
      {"stream transacted", STG_E_INVALIDFUNCTION,
       root->OpenStream(U(u"s"), nullptr, kRW | STGM_TRANSACTED, 0, &st)},
      {"storage deny write", STG_E_INVALIDFUNCTION,
       root->CreateStorage(U(u"d"), STGM_READWRITE | STGM_SHARE_DENY_WRITE, 0,
                           0, &sub)},
      {"storage transacted", S_OK,
       root->CreateStorage(U(u"d"), kRW | STGM_TRANSACTED, 0, 0, &tx)},
      {"stream exists", STG_E_FILEALREADYEXISTS,
       root->CreateStream(U(u"S"), kRW, 0, 0, &st)},
      {"storage on a stream's name", STG_E_FILENOTFOUND,
       root->OpenStorage(U(u"s"), nullptr, kRW, nullptr, 0, &sub)},
      {"empty name", STG_E_INVALIDNAME,
       root->CreateStream(U(u""), kRW, 0, 0, &st)},
      {"32 units", STG_E_INVALIDNAME,
       root->CreateStream(U(u"0123456789abcdef0123456789abcdef"), kRW, 0, 0,
                          &st)},
      {"colon", STG_E_INVALIDNAME,
       root->CreateStorage(U(u"a:b"), kRW, 0, 0, &sub)},
      {"bang", STG_E_INVALIDNAME, root->RenameElement(U(u"s"), U(u"a!"))},
      {"open once", S_OK, root->OpenStream(U(u"s"), nullptr, kRW, 0, &st)},
      {"open twice", STG_E_ACCESSDENIED,
       root->OpenStream(U(u"s"), nullptr, kRead, 0, &st2)},
      {"rename an open element", STG_E_ACCESSDENIED,
       root->RenameElement(U(u"s"), U(u"t"))},
      {"lock a region", E_NOTIMPL, st->LockRegion({}, {}, LOCK_WRITE)},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.expected) << c.label;
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(st2, nullptr);
  st->Release();
  tx->Release();
  root->Release();

  SCOPED_TRACE("read-only root and streams");
  ASSERT_EQ(gxsStgOpenStorage(U(u"objects_modes.cfb"), nullptr, kRead, nullptr,
                              0, &root),
            S_OK);
  EXPECT_EQ(root->CreateStream(U(u"n"), kRW, 0, 0, &st), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->OpenStream(U(u"s"), nullptr, kRW, 0, &st),
            STG_E_ACCESSDENIED);
  EXPECT_EQ(root->DestroyElement(U(u"s")), STG_E_ACCESSDENIED);
  EXPECT_EQ(root->SetClass(CLSID{}), STG_E_ACCESSDENIED);
  ASSERT_EQ(root->OpenStream(U(u"s"), nullptr, kRead, 0, &st), S_OK);
  ULONG n = 7;
  EXPECT_EQ(st->Write("x", 1, &n), STG_E_ACCESSDENIED);
  EXPECT_EQ(n, 0u);
  st->Release();
  root->Release();
}

TEST(ServiceObjects, ObjectsOfGoneElementsAreReverted) {
  IStorage *root = create(u"objects_revert.cfb"), *dir = nullptr, *in = nullptr;
  ASSERT_NE(root, nullptr);
  ASSERT_EQ(root->CreateStorage(U(u"dir"), kRW, 0, 0, &dir), S_OK);
  ASSERT_EQ(dir->CreateStorage(U(u"in"), kRW, 0, 0, &in), S_OK);
  IStream *a = newStream(dir, u"a", "1"), *b = newStream(in, u"b", "2");
  IStream* kept = newStream(root, u"kept", "3");
  IEnumSTATSTG* e = nullptr;
  ASSERT_EQ(in->EnumElements(0, nullptr, 0, &e), S_OK);
  SCOPED_TRACE("the parent released");
  dir->Release();
  STATSTG r;
  EXPECT_EQ(a->Write("x", 1, nullptr), STG_E_REVERTED);
  EXPECT_EQ(b->Stat(&r, STATFLAG_NONAME), STG_E_REVERTED);
  IStream* none = nullptr;
  EXPECT_EQ(in->CreateStream(U(u"c"), kRW, 0, 0, &none), STG_E_REVERTED);
  EXPECT_EQ(e->Next(1, &r, nullptr), STG_E_REVERTED);
  e->Release(), a->Release(), b->Release(), in->Release();
  SCOPED_TRACE("the element destroyed, then replaced");
  ASSERT_EQ(root->OpenStorage(U(u"dir"), nullptr, kRW, nullptr, 0, &dir), S_OK);
  EXPECT_EQ(dir->OpenStream(U(u"a"), nullptr, kRW, 0, &b),
            S_OK);  // a is reverted
  EXPECT_EQ(root->DestroyElement(U(u"dir")), S_OK);
  EXPECT_EQ(b->Read(&r, 1, nullptr), STG_E_REVERTED);
  EXPECT_EQ(dir->Stat(&r, STATFLAG_NONAME), STG_E_REVERTED);
  ASSERT_EQ(root->CreateStream(U(u"kept"), kRW | STGM_CREATE, 0, 0, &a), S_OK);
  EXPECT_EQ(kept->Write("x", 1, nullptr), STG_E_REVERTED);
  SCOPED_TRACE("the root released: the file closes, objects stay callable");
  EXPECT_EQ(root->Release(), 0u);
  EXPECT_EQ(a->Write("x", 1, nullptr), STG_E_REVERTED);
  ASSERT_EQ(gxsStgOpenStorage(U(u"objects_revert.cfb"), nullptr, kRW, nullptr,
                              0, &root),
            S_OK);
  a->Release(), b->Release(), dir->Release(), kept->Release();
  root->Release();

  SCOPED_TRACE("transacted: revert reverts objects, release drops changes");
  ASSERT_EQ(gxsStgOpenStorage(U(u"objects_revert.cfb"), nullptr,
                              kRW | STGM_TRANSACTED, nullptr, 0, &root),
            S_OK);
  a = newStream(root, u"gone", "x");
  EXPECT_EQ(root->Revert(), S_OK);
  EXPECT_EQ(a->Write("x", 1, nullptr), STG_E_REVERTED);
  a->Release();
  newStream(root, u"c", "committed")->Release();
  EXPECT_EQ(root->Commit(STGC_DEFAULT), S_OK);
  newStream(root, u"lost", "x")->Release();
  root->Release();
  gxExpectSameTree(treeOf(u"objects_revert.cfb"),
                   {{u"kept", {false, ""}}, {u"c", {false, "committed"}}});
}

TEST(ServiceObjects, CopyMoveRenameDestroy) {
  IStorage *root = create(u"objects_copy.cfb"), *src = nullptr, *dst = nullptr;
  ASSERT_NE(root, nullptr);
  ASSERT_EQ(root->CreateStorage(U(u"src"), kRW, 0, 0, &src), S_OK);
  ASSERT_EQ(root->CreateStorage(U(u"dst"), kRW, 0, 0, &dst), S_OK);
  newStream(src, u"x", "xx")->Release();
  newStream(dst, u"x", "old")->Release();
  IStorage* in = nullptr;
  ASSERT_EQ(src->CreateStorage(U(u"in"), kRW, 0, 0, &in), S_OK);
  newStream(in, u"y", std::string(4097, 'y'))->Release();
  in->Release();
  EXPECT_EQ(src->CopyTo(0, nullptr, nullptr, dst), S_OK);  // merges, replaces x
  EXPECT_EQ(root->CopyTo(0, nullptr, nullptr, src), STG_E_ACCESSDENIED);
  const IID noStreams[] = {IID_IStream};
  IStorage* only = nullptr;
  ASSERT_EQ(root->CreateStorage(U(u"only"), kRW, 0, 0, &only), S_OK);
  EXPECT_EQ(src->CopyTo(1, noStreams, nullptr, only), S_OK);
  only->Release();
  EXPECT_EQ(src->MoveElementTo(U(u"x"), root, U(u"moved"), STGMOVE_MOVE), S_OK);
  EXPECT_EQ(src->MoveElementTo(U(u"in"), dst, U(u"in2"), STGMOVE_COPY), S_OK);
  EXPECT_EQ(src->MoveElementTo(U(u"in"), dst, U(u"in2"), STGMOVE_COPY),
            STG_E_FILEALREADYEXISTS);
  EXPECT_EQ(root->MoveElementTo(U(u"src"), src, U(u"self"), STGMOVE_COPY),
            STG_E_ACCESSDENIED);
  EXPECT_EQ(dst->RenameElement(U(u"x"), U(u"IN2")), STG_E_FILEALREADYEXISTS);
  EXPECT_EQ(dst->RenameElement(U(u"x"), U(u"z")), S_OK);
  EXPECT_EQ(dst->DestroyElement(U(u"IN")), S_OK);  // found by folding case
  src->Release(), dst->Release(), root->Release();
  const std::string y(4097, 'y');
  gxExpectSameTree(treeOf(u"objects_copy.cfb"), {{u"moved", {false, "xx"}},
                                                 {u"src", {true, ""}},
                                                 {u"src/in", {true, ""}},
                                                 {u"src/in/y", {false, y}},
                                                 {u"dst", {true, ""}},
                                                 {u"dst/z", {false, "xx"}},
                                                 {u"dst/in2", {true, ""}},
                                                 {u"dst/in2/y", {false, y}},
                                                 {u"only", {true, ""}},
                                                 {u"only/in", {true, ""}},
                                                 {u"only/in/y", {false, y}}});
  gxExpectSameTree(gxReadOurs(u"objects_copy.cfb"),
                   treeOf(u"objects_copy.cfb"));
}

// Every call through a file that fails at its N-th change, for every N:
// results are clean codes, nothing crashes or leaks, and what is left on
// disk opens cleanly or is refused cleanly.
TEST(ServiceObjects, FailingDiskAtEveryChange) {
  for (long n = 0;; ++n) {
    SCOPED_TRACE(n);
    auto bytes = std::make_shared<gxMemoryBytes>();
    bytes->changesLeft = n;
    IStorage *root = nullptr, *dir = nullptr;
    if (gxsStgCreateOnFile(std::make_unique<gxMemoryFile>(bytes), kRW, &root) ==
        S_OK) {
      root->CreateStorage(U(u"dir"), kRW, 0, 0, &dir);
      for (const char16_t* name : {u"a", u"b", u"c"}) {
        IStream* s = nullptr;
        if (root->CreateStream(U(name), kRW, 0, 0, &s) != S_OK) continue;
        s->Write(std::string(3000, 'x').data(), 3000, nullptr);
        s->Write(std::string(3000, 'y').data(), 3000, nullptr);  // leaves mini
        s->Release();
      }
      root->DestroyElement(U(u"b"));
      root->MoveElementTo(U(u"c"), dir, U(u"c2"), STGMOVE_MOVE);
      if (dir != nullptr) dir->Release();
      root->Release();
    }
    const bool failed = bytes->changesLeft == 0;
    bytes->changesLeft = -1;
    if (gxsStgOpenOnFile(std::make_unique<gxMemoryFile>(bytes), kRead, &root) ==
        S_OK) {
      gxRtTree tree;
      readTree(root, u"", tree);
      root->Release();
      if (!failed) {  // the disk never failed: the whole script took effect
        const std::string data =
            std::string(3000, 'x') + std::string(3000, 'y');
        gxExpectSameTree(tree, {{u"a", {false, data}},
                                {u"dir", {true, ""}},
                                {u"dir/c2", {false, data}}});
        break;
      }
    }
  }
}

}  // namespace

// Transacted storages: below the root a copy commits into its parent only;
// a transacted root reaches the file at its commit alone; releasing or
// reverting without a commit drops the changes, at every level.
TEST(ServiceObjects, TransactedStoragesCommitIntoTheirParent) {
  const DWORD kTx = kRW | STGM_TRANSACTED;
  for (bool rootTransacted : {false, true}) {
    SCOPED_TRACE(rootTransacted ? "transacted root" : "direct root");
    IStorage* root = nullptr;
    ASSERT_EQ(gxsStgCreateDocfile(U(u"objects_tx.cfb"),
                                  (rootTransacted ? kTx : kRW) | STGM_CREATE,
                                  0, &root),
              S_OK);
    IStorage *t = nullptr, *inner = nullptr;
    ASSERT_EQ(root->CreateStorage(U(u"T"), kTx, 0, 0, &t), S_OK);
    newStream(t, u"kept", "one")->Release();
    ASSERT_EQ(t->Commit(STGC_DEFAULT), S_OK);
    newStream(t, u"dropped", "two")->Release();  // reverted below
    ASSERT_EQ(t->Revert(), S_OK);
    ASSERT_EQ(t->CreateStorage(U(u"I"), kTx, 0, 0, &inner), S_OK);
    newStream(inner, u"deep", std::string(5000, 'd'))->Release();
    ASSERT_EQ(inner->Commit(STGC_DEFAULT), S_OK);  // into T's copy only
    inner->Release();
    newStream(t, u"late", "never committed")->Release();
    STATSTG info;
    ASSERT_EQ(t->Stat(&info, STATFLAG_DEFAULT), S_OK);
    EXPECT_EQ(info.type, STGTY_STORAGE);
    EXPECT_EQ(info.pwcsName[0], OLECHAR('T'));
    CoTaskMemFree(info.pwcsName);
    t->Release();  // T's last changes (I, late) are dropped
    // What was opened through a copy goes with the copy's element.
    IStorage* t2 = nullptr;
    ASSERT_EQ(root->CreateStorage(U(u"T2"), kTx, 0, 0, &t2), S_OK);
    IStream* inside = newStream(t2, u"x", "y");
    ASSERT_EQ(root->DestroyElement(U(u"T2")), S_OK);
    EXPECT_EQ(inside->Write("z", 1, nullptr), STG_E_REVERTED);
    EXPECT_EQ(t2->Commit(STGC_DEFAULT), STG_E_REVERTED);
    inside->Release();
    t2->Release();
    newStream(root, u"top", "root level")->Release();
    if (rootTransacted) {
      ASSERT_EQ(root->Commit(STGC_DEFAULT), S_OK);
      newStream(root, u"lost", "after the commit")->Release();
    }
    EXPECT_EQ(root->Release(), 0u);
    const gxRtTree expected = {{u"T", {true, ""}},
                               {u"T/kept", {false, "one"}},
                               {u"top", {false, "root level"}}};
    gxExpectSameTree(treeOf(u"objects_tx.cfb"), expected);
  }
}
