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

#include <algorithm>
#include <map>
#include <string>

#include "service/gxsService.h"
#include "support/gxMemoryFile.h"

namespace {

// Path (names joined by '/') -> (is a storage, stream bytes).
using Tree = std::map<std::u16string, std::pair<bool, std::string>>;
constexpr DWORD kRW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

// A gxMemoryFile that also fails its N-th read (-1, or half the bytes when
// `shortRead`) and counts the calls that failed.
struct Faults {
  long readsLeft = -1, failed = 0;
  bool shortRead = false;
};

class FaultFile : public gxMemoryFile {
 public:
  FaultFile(std::shared_ptr<gxMemoryBytes> d, std::shared_ptr<Faults> f)
      : gxMemoryFile(std::move(d)), f_(std::move(f)) {}
  int64_t readAt(uint64_t offset, void* out, size_t size) override {
    if (f_->readsLeft == 0) {
      ++f_->failed;
      return f_->shortRead ? gxMemoryFile::readAt(offset, out, size / 2) : -1;
    }
    if (f_->readsLeft > 0) --f_->readsLeft;
    return gxMemoryFile::readAt(offset, out, size);
  }
  bool writeAt(uint64_t at, const void* in, size_t n) override {
    return note(gxMemoryFile::writeAt(at, in, n));
  }
  bool truncate(uint64_t n) override { return note(gxMemoryFile::truncate(n)); }
  bool sync(bool dataOnly) override {
    return note(gxMemoryFile::sync(dataOnly));
  }

 private:
  bool note(bool ok) {
    f_->failed += !ok;
    return ok;
  }
  std::shared_ptr<Faults> f_;
};

std::vector<OLECHAR> ole(const std::u16string& s) {
  std::vector<OLECHAR> units(s.begin(), s.end());
  units.push_back(0);
  return units;
}

// Every element below `storage` into `tree`: the first failure, or S_OK.
HRESULT walk(IStorage* storage, const std::u16string& prefix, Tree& tree) {
  IEnumSTATSTG* e = nullptr;
  HRESULT hr = storage->EnumElements(0, nullptr, 0, &e);
  std::vector<STATSTG> kids(1);
  while (hr == S_OK && (hr = e->Next(1, &kids.back(), nullptr)) == S_OK)
    kids.emplace_back();
  if (e != nullptr) e->Release();
  kids.pop_back();
  for (const STATSTG& k : kids) {
    const std::u16string name(
        k.pwcsName, k.pwcsName + std::char_traits<OLECHAR>::length(k.pwcsName));
    CoTaskMemFree(k.pwcsName);
    IStorage* sub = nullptr;
    IStream* stream = nullptr;
    Tree::mapped_type& element = tree[prefix + name];
    element.first = k.type == STGTY_STORAGE;
    if (hr < 0) continue;
    if (element.first &&
        (hr = storage->OpenStorage(ole(name).data(), nullptr, kRW, nullptr, 0,
                                   &sub)) == S_OK)
      hr = walk(sub, prefix + name + u"/", tree), sub->Release();
    if (!element.first && (hr = storage->OpenStream(ole(name).data(), nullptr,
                                                    kRW, 0, &stream)) == S_OK) {
      char chunk[4096];
      for (ULONG done = 1; hr == S_OK && done > 0;
           element.second.append(chunk, done))
        hr = stream->Read(chunk, sizeof chunk, &done);
      stream->Release();
    }
  }
  return hr >= 0 ? S_OK : hr;
}

// One call of a script on element `name` of storage `dir` ("" is the
// root); writes create the stream when the model has none.
enum Kind { kStorage, kWrite, kSetSize, kDestroy, kRename, kCommit };
struct Op {
  Op(Kind k, const char16_t* d = u"", const char16_t* n = u"", uint32_t x = 0,
     uint32_t y = 0, const char16_t* t = u"")
      : kind(k), dir(d), name(n), a(x), b(y), to(t) {}
  Kind kind;
  std::u16string dir, name;
  uint32_t a, b;  // write: offset and length; set size: size
  std::u16string to;
};

HRESULT run(IStorage* root, const Op& op, Tree& model) {
  if (op.kind == kCommit) return root->Commit(STGC_DEFAULT);
  const std::u16string path = (op.dir.empty() ? u"" : op.dir + u"/") + op.name;
  const auto name = ole(op.name);
  IStorage *dir = root, *sub = nullptr;
  IStream* s = nullptr;
  HRESULT hr = op.dir.empty() ? S_OK
                              : root->OpenStorage(ole(op.dir).data(), nullptr,
                                                  kRW, nullptr, 0, &dir);
  if (hr != S_OK) return hr;
  if (op.kind == kStorage) {
    if ((hr = dir->CreateStorage(name.data(), kRW, 0, 0, &sub)) == S_OK)
      model[path] = {true, ""};
  } else if (op.kind == kWrite || op.kind == kSetSize) {
    std::string data = model.count(path) ? model[path].second : "";
    const std::string bytes(op.b, char('a' + op.b % 26));
    ULARGE_INTEGER size;
    LARGE_INTEGER at;
    size.QuadPart = at.QuadPart = op.a;
    hr = model.count(path) ? dir->OpenStream(name.data(), nullptr, kRW, 0, &s)
                           : dir->CreateStream(name.data(), kRW, 0, 0, &s);
    if (hr == S_OK && op.kind == kSetSize) {
      hr = s->SetSize(size);
      data.resize(op.a, '\0');
    } else if (hr == S_OK) {
      if ((hr = s->Seek(at, STREAM_SEEK_SET, nullptr)) == S_OK)
        hr = s->Write(bytes.data(), op.b, nullptr);
      data.resize(std::max<size_t>(data.size(), op.a + op.b), '\0');
      data.replace(op.a, op.b, bytes);
    }
    if (hr == S_OK) model[path] = {false, data};
  } else {
    hr = op.kind == kDestroy
             ? dir->DestroyElement(name.data())
             : dir->RenameElement(name.data(), ole(op.to).data());
    Tree moved;
    for (auto it = model.lower_bound(path);
         hr == S_OK && it != model.end() && it->first.rfind(path, 0) == 0;) {
      const std::u16string rest = it->first.substr(path.size());
      if (!rest.empty() && rest[0] != u'/') {
        ++it;
        continue;
      }
      if (op.kind == kRename)
        moved[path.substr(0, path.size() - op.name.size()) + op.to + rest] =
            it->second;
      it = model.erase(it);
    }
    model.insert(moved.begin(), moved.end());
  }
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
  Tree baseTree;
  for (const Op& op : kBase) ASSERT_EQ(run(root, op, baseTree), S_OK);
  root->Release();
  for (size_t script = 0; script < kScripts.size(); ++script)
    for (const Fault& fault : kFaults)
      for (long n = 0;; ++n) {
        SCOPED_TRACE(testing::Message() << "script " << script << ", "
                                        << fault.what << " at call " << n);
        auto bytes = std::make_shared<gxMemoryBytes>(*base);
        auto faults = std::make_shared<Faults>();
        (fault.reads ? faults->readsLeft : bytes->changesLeft) = n;
        bytes->failure = fault.error;
        bytes->tornBytes = fault.torn;
        faults->shortRead = fault.torn > 0;
        Tree model = baseTree, committed = baseTree;
        bool commitFailed = false;
        HRESULT hr =
            gxsStgOpenOnFile(std::make_unique<FaultFile>(bytes, faults),
                             kRW | (transacted ? STGM_TRANSACTED : 0), &root);
        for (const Op& op : kScripts[script]) {
          if (hr != S_OK) break;
          const long failedBefore = faults->failed;
          hr = run(root, op, model);
          if (op.kind == kCommit && hr == S_OK) committed = model;
          commitFailed = op.kind == kCommit && hr != S_OK;
          // A failure reaches the caller; only a transacted commit's
          // cleanup after the header's write may fail unseen.
          if (faults->failed > failedBefore &&
              !(transacted && op.kind == kCommit)) {
            EXPECT_NE(hr, S_OK);
          }
          if (fault.recovers) bytes->changesLeft = faults->readsLeft = -1;
        }
        if (hr != S_OK) {
          EXPECT_EQ(hr, fault.code);
        }
        if (root != nullptr) root->Release();
        const bool failed = faults->failed > 0;
        bytes->changesLeft = -1;
        Tree seen;
        ASSERT_EQ(
            gxsStgOpenOnFile(std::make_unique<gxMemoryFile>(bytes), kRW, &root),
            S_OK);
        EXPECT_EQ(walk(root, u"", seen), S_OK);
        root->Release();
        if (transacted) {
          EXPECT_TRUE(seen == committed || (commitFailed && seen == model));
        } else if (!failed) {
          EXPECT_TRUE(seen == model);
        } else {
          for (const char16_t* kept : {u"keep", u"K", u"K/k"})
            EXPECT_TRUE(seen.count(kept) && seen[kept] == baseTree[kept]);
        }
        if (testing::Test::HasFailure() || !failed) break;
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
