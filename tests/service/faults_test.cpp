// The service over a failing disk. Scripted edits run against a file in
// memory whose N-th write, sync or truncate fails (EIO, ENOSPC, a write of
// which only 512 bytes land, a disk that works again after the failing call)
// or whose N-th read fails or comes up short, for every N, in direct and
// transacted mode. The call that meets the failure reports it; after the
// release the file opens and holds the last committed tree (transacted, or
// the tree of a commit whose failure came too late to tell), or a tree
// whose every stream reads and whose untouched elements are unchanged
// (direct). A script of 12 MiB of appends, large enough that the FAT
// outgrows the header's slots, is cut at a handful of calls only.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "gxsTreeWalk.h"
#include "service/gxsDocFile.h"
#include "support/gxMemoryFile.h"

namespace {

using Tree = gxRtTree;  // path (names joined by '/') -> (storage, bytes)
constexpr DWORD kRW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

// One call of a script on element `name` of storage `dir` ("" is the
// root). A write opens the stream, or creates it when there is none; a
// copy or move takes element `name` of the root into `dir` as `to`.
// clang-format off
enum Kind {
  kStorage, kWrite, kSetSize, kDestroy, kRename, kCommit, kCopy, kMove,
  kTimes, kClass
};
// clang-format on
struct Op {
  Kind kind;
  std::u16string dir = u"", name = u"";
  uint32_t a = 0, b = 0;  // write: offset and length; set size: size;
                          // times: creation and change; class: its byte
  std::u16string to = u"";
};
constexpr DWORD kScriptTime = 7;  // high word of the times scripts set

// A storage's class, and its times where a script set them (the clock's
// differ from run to run).
std::string record(STATSTG& s) {
  std::string r(reinterpret_cast<const char*>(&s.clsid), sizeof s.clsid);
  for (const FILETIME& t : {s.ctime, s.mtime})
    if (t.dwHighDateTime == kScriptTime) r += std::to_string(t.dwLowDateTime);
  return r;
}

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
  if (op.kind == kCopy || op.kind == kMove)
    hr = root->MoveElementTo(name, dir, gxsOle(op.to),
                             op.kind == kMove ? STGMOVE_MOVE : STGMOVE_COPY);
  const FILETIME made{op.a, kScriptTime}, changed{op.b, kScriptTime};
  if (op.kind == kTimes)
    hr = dir->SetElementTimes(name, &made, nullptr, &changed);
  CLSID cls;
  std::memset(&cls, int(op.a), sizeof cls);
  if (op.kind == kClass &&
      (hr = dir->OpenStorage(name, nullptr, kRW, nullptr, 0, &sub)) == S_OK)
    hr = sub->SetClass(cls);
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
     {kDestroy, u"", u"s5"}, {kStorage, u"", u"s0"}, {kCommit}},
    // A storage's class and times, and the storage copied and moved with
    // its stream.
    {{kClass, u"", u"D", 0x5A}, {kTimes, u"", u"D", 1, 2}, {kCommit},
     {kStorage, u"", u"E"}, {kCopy, u"E", u"D", 0, 0, u"C"},
     {kMove, u"E", u"D", 0, 0, u"M"}, {kCommit}}};
// clang-format on

struct Fault {
  const char* what;
  bool reads;
  int error;
  size_t torn;    // bytes of the failing write that land; reads: short
  bool recovers;  // the disk works again after the failing call
  HRESULT code;   // what the failing call reports
};
const std::vector<Fault> kFaults = {
    {"EIO", false, kPdErrIO, 0, false, STG_E_WRITEFAULT},
    {"ENOSPC", false, kPdErrNoSpace, 0, false, STG_E_MEDIUMFULL},
    {"512 bytes land, then EIO", false, kPdErrIO, 512, false, STG_E_WRITEFAULT},
    {"ENOSPC once", false, kPdErrNoSpace, 0, true, STG_E_MEDIUMFULL},
    {"read EIO", true, kPdErrIO, 0, true, STG_E_READFAULT},
    {"short read", true, kPdErrIO, 1, true, STG_E_READFAULT},
};
const Fault kNever = {"no failure", false, kPdErrIO, 0, false, S_OK};

// Runs `script` on a copy of `base` opened in `mode` on a disk that fails
// as `fault` says at call `n` (never when n < 0), and expects every failure
// to reach the caller. Returns the bytes left, the tree the file holds when
// reopened on a working disk, the commits that succeeded, and (when
// `walk`) the trees at the start, at each commit and at the end.
struct Outcome {
  std::shared_ptr<gxMemoryBytes> bytes;
  Tree seen;
  size_t commits = 0;
  bool commitFailed = false;  // the last call was a commit that failed
  std::vector<Tree> states;
};
Outcome runOnce(const gxMemoryBytes& base, const std::vector<Op>& script,
                DWORD mode, const Fault& fault, long n, bool walk = false) {
  Outcome out;
  out.bytes = std::make_shared<gxMemoryBytes>(base);
  gxMemoryBytes& bytes = *out.bytes;
  (fault.reads ? bytes.readsLeft : bytes.changesLeft) = n;
  bytes.failure = fault.error;
  bytes.tornBytes = fault.torn;
  IStorage* root = nullptr;
  HRESULT hr =
      gxsStgOpenOnFile(std::make_unique<gxMemoryFile>(out.bytes), mode, &root);
  auto read = [&](Tree& into) {
    EXPECT_EQ(gxsWalk(root, u"", into, record), S_OK);
  };
  if (walk && hr == S_OK) read(out.states.emplace_back());
  for (const Op& op : script) {
    if (hr != S_OK) break;
    const long failedBefore = bytes.failed;
    hr = run(root, op);
    out.commits += op.kind == kCommit && hr == S_OK;
    out.commitFailed = op.kind == kCommit && hr != S_OK;
    // A failure reaches the caller; only a transacted commit's cleanup
    // after the header's write may fail unseen.
    EXPECT_TRUE(hr != S_OK || bytes.failed == failedBefore ||
                ((mode & STGM_TRANSACTED) && op.kind == kCommit));
    if (fault.recovers) bytes.changesLeft = bytes.readsLeft = -1;
    if (walk && hr == S_OK && (op.kind == kCommit || &op == &script.back()))
      read(out.states.emplace_back());
  }
  EXPECT_TRUE(hr == S_OK || hr == fault.code) << std::hex << hr;
  if (root != nullptr) root->Release();
  bytes.changesLeft = bytes.readsLeft = -1;
  root = nullptr;
  EXPECT_EQ(
      gxsStgOpenOnFile(std::make_unique<gxMemoryFile>(out.bytes), kRW, &root),
      S_OK);
  if (root != nullptr) {
    read(out.seen);
    root->Release();
  }
  return out;
}

// The file every script starts from.
const gxMemoryBytes& baseFile() {
  static const gxMemoryBytes base = [] {
    auto bytes = std::make_shared<gxMemoryBytes>();
    IStorage* root = nullptr;
    EXPECT_EQ(gxsStgCreateOnFile(std::make_unique<gxMemoryFile>(bytes),
                                 kRW | STGM_CREATE, &root),
              S_OK);
    for (const Op& op : kBase) EXPECT_EQ(run(root, op), S_OK);
    root->Release();
    return *bytes;
  }();
  return base;
}

// Runs `script` under each of `faults` at every call from call `first` on,
// until a run meets no failure (or at `every` calls spread over the script,
// when not 0). Returns the run on a disk that never fails.
Outcome runScript(const std::vector<Op>& script, bool transacted,
                  const std::vector<Fault>& faults, long every = 0,
                  long first = 0) {
  const DWORD mode = kRW | (transacted ? STGM_TRANSACTED : 0);
  // The trees the script leaves at each commit, and at its end (direct),
  // on a disk that never fails; each is read back by the service.
  Outcome whole = runOnce(baseFile(), script, mode, kNever, -1, true);
  std::vector<Tree>& states = whole.states;
  EXPECT_TRUE(whole.seen ==
              states[transacted ? whole.commits : states.size() - 1]);
  const long step = every ? whole.bytes->changes / every + 1 : 1;
  for (const Fault& fault : faults)
    for (long n = first; every == 0 || n < whole.bytes->changes; n += step) {
      SCOPED_TRACE(testing::Message() << fault.what << " at call " << n);
      Outcome cut = runOnce(baseFile(), script, mode, fault, n);
      Tree& seen = cut.seen;
      const bool failed = cut.bytes->failed > 0;
      EXPECT_TRUE(
          transacted ? seen == states[cut.commits] ||
                           (cut.commitFailed && seen == states[cut.commits + 1])
                     : failed || seen == states.back());
      for (const char16_t* kept : {u"keep", u"K", u"K/k"})
        EXPECT_TRUE(seen.count(kept) && seen[kept] == states[0][kept]);
      // A sampled script only appends: its streams read as prefixes.
      for (const auto& [path, element] : seen) {
        if (every == 0) break;
        EXPECT_TRUE(std::any_of(
            states.begin(), states.end(), [&, &p = path](const Tree& s) {
              return s.count(p) && s.at(p).second.rfind(element.second, 0) == 0;
            }));
      }
      if (testing::Test::HasFailure() || !failed) break;
    }
  return whole;
}

// Black height of the sibling tree under entry `node`, or -1 where a red
// entry has a red child or its two sides differ.
int blackHeight(const gxsDocFile& f, uint32_t node) {
  if (node == kNoStream) return 0;
  const gxdDirRecord& r = f.entry(node);
  for (uint32_t c : {r.leftSibling, r.rightSibling})
    if (r.colour == 0 && c != kNoStream && f.entry(c).colour == 0) return -1;
  const int left = blackHeight(f, r.leftSibling);
  if (left < 0 || left != blackHeight(f, r.rightSibling)) return -1;
  return left + r.colour;
}

// Removed streams leave none of their bytes in the file, whether a commit
// saw them or not, and the space they held is taken again before the file
// grows. Then a thousand siblings are added and half of them removed, in a
// seeded order and by names in upper case: the root's tree keeps the
// red-black rules and the other half.
TEST(ServiceFaults, RemovedStreamsLeaveNoBytesAndTheirSpaceIsReused) {
  // Fills 'f', 'l', 'j' and 'g', which no other stream holds.
  // clang-format off
  const std::vector<Op> round = {
      {kWrite, u"", u"gone", 0, 100001}, {kWrite, u"", u"tiny", 0, 3001},
      {kWrite, u"", u"kept", 0, 5001}, {kDestroy, u"", u"gone"},
      {kDestroy, u"", u"tiny"}, {kCommit}, {kWrite, u"", u"new", 0, 100002},
      {kCommit}, {kDestroy, u"", u"new"}, {kDestroy, u"", u"kept"},
      {kCommit}};
  // clang-format on
  std::vector<std::pair<std::u16string, std::u16string>> names;
  std::vector<Op> siblings;
  std::mt19937 rng(7);
  for (uint32_t i = 0; i < 1000; ++i) {
    std::u16string name = u"#", upper = u"#";
    for (uint32_t v = i * 26 + rng() % 26; v > 0; v /= 26) {
      name += char16_t(u'a' + v % 26);
      upper += char16_t(u'A' + v % 26);
    }
    siblings.push_back({kWrite, u"", name});
    names.emplace_back(name, upper);
  }
  std::shuffle(names.begin(), names.end(), rng);
  for (size_t i = 0; i < 500; ++i)
    siblings.push_back({kDestroy, u"", names[i].second});
  siblings.push_back({kCommit});
  for (bool transacted : {false, true}) {
    SCOPED_TRACE(transacted);
    const DWORD mode = kRW | (transacted ? STGM_TRANSACTED : 0);
    std::vector<size_t> sizes;
    gxMemoryBytes file = baseFile();
    for (int k = 0; k < 3; ++k) {
      file = *runOnce(file, round, mode, kNever, -1).bytes;
      sizes.push_back(file.bytes.size());
      for (char c : {'f', 'l', 'j', 'g'})
        EXPECT_EQ(
            std::search_n(file.bytes.begin(), file.bytes.end(), 64, uint8_t(c)),
            file.bytes.end());
    }
    EXPECT_LE(sizes[2], sizes[1]);
    const Outcome out = runOnce(file, siblings, mode, kNever, -1);
    size_t wrong = 0;  // siblings removed but seen, or kept but missing
    for (size_t i = 0; i < names.size(); ++i)
      wrong += out.seen.count(names[i].first) != (i >= 500);
    EXPECT_EQ(wrong, 0u);
    std::unique_ptr<gxsDocFile> f;
    ASSERT_EQ(
        gxsDocFile::open(std::make_unique<gxMemoryFile>(out.bytes), false, f),
        S_OK);
    EXPECT_GE(blackHeight(*f, f->entry(0).child), 0);
  }
}

// Every script under every fault at every call. The last one leaves what
// it says: a copy or move takes the class along (the times are the new
// element's own).
void cutEveryScript(bool transacted) {
  for (size_t script = 0; script < kScripts.size(); ++script) {
    SCOPED_TRACE(testing::Message() << "script " << script);
    Outcome whole = runScript(kScripts[script], transacted, kFaults);
    if (script + 1 < kScripts.size()) continue;
    const std::string cls(16, 0x5A), d(5000, 'a' + 5000 % 26);
    Tree& tree = whole.seen;
    EXPECT_EQ(whole.states[1][u"D"].second, cls + "12");
    EXPECT_EQ(tree.count(u"D"), 0u);
    EXPECT_TRUE(tree[u"E/C"].second == cls && tree[u"E/M"].second == cls);
    EXPECT_TRUE(tree[u"E/C/d"].second == d && tree[u"E/M/d"].second == d);
  }
}

// Broke when a direct flush wrote the changed tables in place: a flush cut
// short left a directory that pointed past its FAT (a grown stream's
// chain ended early, an entry was linked before it was written).
TEST(ServiceFaults, DirectEditsCutAtEveryCallLeaveAFileThatLoads) {
  cutEveryScript(false);
}

// Broke when a commit whose header write landed but reported a failure (or
// whose sync after it failed) was then dropped at release, which zeroed
// the sectors of the tree the header now pointed at.
TEST(ServiceFaults, FailedCommitKeepsTheOldOrTheNewTree) {
  cutEveryScript(true);
}

// Seeded appends to three streams, 12 MiB in all, with "b" destroyed
// halfway (after a commit, so that the tree holding it is a state): the
// FAT needs DIFAT sectors, and every cut leaves streams that are prefixes.
// Broke when a new DIFAT sector was not linked from the header.
TEST(ServiceFaults, GrowthPastTheHeaderSlotsReadsBackAndSurvivesCuts) {
  std::vector<Op> script;
  std::mt19937 rng(7);
  uint32_t end[3] = {};
  bool destroyed = false;
  for (uint32_t total = 0; total < (12u << 20);) {
    const uint32_t i = rng() % 3, size = rng() % (192u << 10) + 1;
    if (i == 1 && destroyed) continue;
    script.push_back({kWrite, u"", std::u16string(1, u'a' + i), end[i], size});
    end[i] += size;
    total += size;
    if (total > (6u << 20) && !destroyed) {
      script.insert(script.end(), {{kCommit}, {kDestroy, u"", u"b"}});
      destroyed = true;
    }
  }
  const Outcome whole = runScript(script, false, {kFaults[0]}, 6, 3);
  ASSERT_GT(whole.bytes->bytes[72], 0) << "the FAT needs a DIFAT sector";
  EXPECT_EQ(whole.seen.count(u"b"), 0u);
#ifndef _WIN32
  const auto path = std::filesystem::temp_directory_path() / "gx-large.cfb";
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(whole.bytes->bytes.data()),
             static_cast<std::streamsize>(whole.bytes->bytes.size()));
  gxExpectOlefileReads(path, whole.seen);
  std::filesystem::remove(path);
#endif
}

}  // namespace
