// The service over a failing disk. Scripted edits run against a file in
// memory whose N-th write, sync or truncate fails (EIO, ENOSPC, a write of
// which only 512 bytes land, a disk that works again after the failing call)
// or whose N-th read fails or comes up short, for every N, in direct and
// transacted mode. The call that meets the failure reports it; after the
// release the file opens and holds the last committed tree (transacted, or
// the tree of a commit whose failure came too late to tell), or a tree
// whose every stream reads and whose untouched elements are unchanged
// (direct).
#include <gtest/gtest.h>

#include <string>

#include "gxsTreeWalk.h"
#include "support/gxMemoryFile.h"

namespace {

using Tree = gxRtTree;  // path (names joined by '/') -> (storage, bytes)
constexpr DWORD kRW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

// One call of a script on element `name` of storage `dir` ("" is the
// root). A write opens the stream, or creates it when there is none.
enum Kind { kStorage, kWrite, kSetSize, kDestroy, kRename, kCommit };
struct Op {
  Kind kind;
  std::u16string dir = u"", name = u"";
  uint32_t a = 0, b = 0;  // write: offset and length; set size: size
  std::u16string to = u"";
};

HRESULT run(IStorage* root, const Op& op) {
  if (op.kind == kCommit) return root->Commit(STGC_DEFAULT);
  const OLECHAR* name = gxsOle(op.name);
  IStorage *dir = root, *sub = nullptr;
  IStream* s = nullptr;
  HRESULT hr = op.dir.empty() ? S_OK
                              : root->OpenStorage(gxsOle(op.dir), nullptr, kRW,
                                                  nullptr, 0, &dir);
  if (hr != S_OK) return hr;
  ULARGE_INTEGER size;
  LARGE_INTEGER at;
  size.QuadPart = at.QuadPart = op.a;
  if (op.kind == kWrite || op.kind == kSetSize) {
    hr = dir->OpenStream(name, nullptr, kRW, 0, &s);
    if (hr == STG_E_FILENOTFOUND) hr = dir->CreateStream(name, kRW, 0, 0, &s);
  }
  const std::string bytes(op.b, char('a' + op.b % 26));
  if (hr == S_OK && op.kind == kWrite &&
      (hr = s->Seek(at, STREAM_SEEK_SET, nullptr)) == S_OK)
    hr = s->Write(bytes.data(), op.b, nullptr);
  if (hr == S_OK && op.kind == kSetSize) hr = s->SetSize(size);
  if (op.kind == kStorage) hr = dir->CreateStorage(name, kRW, 0, 0, &sub);
  if (op.kind == kDestroy) hr = dir->DestroyElement(name);
  if (op.kind == kRename) hr = dir->RenameElement(name, gxsOle(op.to));
  if (s != nullptr) s->Release();
  if (sub != nullptr) sub->Release();
  if (dir != root) dir->Release();
  return hr;
}

// clang-format off
// The file every script starts from; "keep", "K" and "K/k" are never
// touched.
const std::vector<Op> kBase = {
    {kWrite, u"", u"keep", 0, 6000}, {kStorage, u"", u"K"},
    {kWrite, u"K", u"k", 0, 700}, {kWrite, u"", u"small", 0, 3000},
    {kWrite, u"", u"big", 0, 9000}, {kStorage, u"", u"D"},
    {kWrite, u"D", u"d", 0, 5000}};
const std::vector<std::vector<Op>> kScripts = {
    // Streams crossing the mini-stream cutoff both ways.
    {{kWrite, u"", u"small", 3000, 3000}, {kSetSize, u"", u"big", 100},
     {kCommit}, {kWrite, u"", u"big", 50, 20000},
     {kSetSize, u"", u"small", 10}, {kCommit},
     {kWrite, u"", u"small", 0, 4097}},
    // New elements, then destroy and rename, with a commit between.
    {{kStorage, u"", u"N"}, {kWrite, u"N", u"n", 0, 5000},
     {kWrite, u"D", u"d", 4000, 200}, {kCommit}, {kDestroy, u"", u"big"},
     {kRename, u"", u"D", 0, 0, u"E"}, {kDestroy, u"", u"N"}, {kCommit},
     {kWrite, u"", u"late", 0, 10}},
    // Siblings enough to rebalance the root's tree and add directory
    // sectors.
    {{kWrite, u"", u"s1"}, {kWrite, u"", u"s2"}, {kWrite, u"", u"s3"},
     {kWrite, u"", u"s4", 0, 100}, {kWrite, u"", u"s5"}, {kWrite, u"", u"s6"},
     {kCommit}, {kDestroy, u"", u"s2"}, {kDestroy, u"", u"small"},
     {kDestroy, u"", u"s5"}, {kStorage, u"", u"s0"}, {kCommit}}};
// clang-format on

struct Fault {
  const char* what;
  bool reads;
  int error;
  size_t torn;    // bytes of the failing write that land; reads: short
  bool recovers;  // the disk works again after the failing call
  HRESULT code;   // what the failing call reports
};
const Fault kFaults[] = {
    {"EIO", false, kPdErrIO, 0, false, STG_E_WRITEFAULT},
    {"ENOSPC", false, kPdErrNoSpace, 0, false, STG_E_MEDIUMFULL},
    {"512 bytes land, then EIO", false, kPdErrIO, 512, false, STG_E_WRITEFAULT},
    {"ENOSPC once", false, kPdErrNoSpace, 0, true, STG_E_MEDIUMFULL},
    {"read EIO", true, kPdErrIO, 0, true, STG_E_READFAULT},
    {"short read", true, kPdErrIO, 1, true, STG_E_READFAULT},
};

// Runs every script under every fault at every call.
void runScripts(bool transacted) {
  auto base = std::make_shared<gxMemoryBytes>();
  IStorage* root = nullptr;
  ASSERT_EQ(gxsStgCreateOnFile(std::make_unique<gxMemoryFile>(base),
                               kRW | STGM_CREATE, &root),
            S_OK);
  for (const Op& op : kBase) ASSERT_EQ(run(root, op), S_OK);
  root->Release();
  const DWORD mode = kRW | (transacted ? STGM_TRANSACTED : 0);
  for (size_t script = 0; script < kScripts.size(); ++script) {
    // The trees the script leaves at each commit, and at its end (direct),
    // on a disk that never fails; each is read back by the service.
    std::vector<Tree> states(1);
    auto bytes = std::make_shared<gxMemoryBytes>(*base);
    ASSERT_EQ(
        gxsStgOpenOnFile(std::make_unique<gxMemoryFile>(bytes), mode, &root),
        S_OK);
    ASSERT_EQ(gxsWalk(root, u"", states[0]), S_OK);
    for (const Op& op : kScripts[script]) {
      ASSERT_EQ(run(root, op), S_OK);
      if (op.kind == kCommit || &op == &kScripts[script].back()) {
        ASSERT_EQ(gxsWalk(root, u"", states.emplace_back()), S_OK);
      }
    }
    root->Release();
    for (const Fault& fault : kFaults)
      for (long n = 0;; ++n) {
        SCOPED_TRACE(testing::Message() << "script " << script << ", "
                                        << fault.what << " at call " << n);
        bytes = std::make_shared<gxMemoryBytes>(*base);
        (fault.reads ? bytes->readsLeft : bytes->changesLeft) = n;
        bytes->failure = fault.error;
        bytes->tornBytes = fault.torn;
        size_t commits = 0;  // that succeeded
        bool commitFailed = false;
        HRESULT hr = gxsStgOpenOnFile(std::make_unique<gxMemoryFile>(bytes),
                                      mode, &root);
        for (const Op& op : kScripts[script]) {
          if (hr != S_OK) break;
          const long failedBefore = bytes->failed;
          hr = run(root, op);
          commits += op.kind == kCommit && hr == S_OK;
          commitFailed = op.kind == kCommit && hr != S_OK;
          // A failure reaches the caller; only a transacted commit's
          // cleanup after the header's write may fail unseen.
          EXPECT_TRUE(hr != S_OK || bytes->failed == failedBefore ||
                      (transacted && op.kind == kCommit));
          if (fault.recovers) bytes->changesLeft = bytes->readsLeft = -1;
        }
        EXPECT_TRUE(hr == S_OK || hr == fault.code) << std::hex << hr;
        if (root != nullptr) root->Release();
        const bool failed = bytes->failed > 0;
        bytes->changesLeft = bytes->readsLeft = -1;
        Tree seen;
        ASSERT_EQ(
            gxsStgOpenOnFile(std::make_unique<gxMemoryFile>(bytes), kRW, &root),
            S_OK);
        EXPECT_EQ(gxsWalk(root, u"", seen), S_OK);
        root->Release();
        EXPECT_TRUE(transacted
                        ? seen == states[commits] ||
                              (commitFailed && seen == states[commits + 1])
                        : failed || seen == states.back());
        for (const char16_t* kept : {u"keep", u"K", u"K/k"})
          EXPECT_TRUE(seen.count(kept) && seen[kept] == states[0][kept]);
        if (testing::Test::HasFailure() || !failed) break;
      }
  }
}

// Broke when a direct flush wrote the changed tables in place: a flush cut
// short left a directory that pointed past its FAT (a grown stream's
// chain ended early, an entry was linked before it was written).
TEST(ServiceFaults, DirectEditsCutAtEveryCallLeaveAFileThatLoads) {
  runScripts(false);
}

// Broke when a commit whose header write landed but reported a failure (or
// whose sync after it failed) was then dropped at release, which zeroed
// the sectors of the tree the header now pointed at.
TEST(ServiceFaults, FailedCommitKeepsTheOldOrTheNewTree) { runScripts(true); }

}  // namespace
