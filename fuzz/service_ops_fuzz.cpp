// The service's calls against a model. The input is decoded into a sequence
// of calls on a file the service creates in memory, direct or transacted:
// create streams and storages (also replacing, with STGM_CREATE), write at
// offsets around the mini-stream cutoff, set sizes both ways across it,
// read back through a clone, destroy, rename, commit, revert, release and
// reopen. The model is a map of paths to element types and bytes; each
// call's result must be the one the model predicts, and after every call the
// whole tree (listed by the enumerators and read through the streams) must
// equal the model. After the final release the file is opened again by the
// service and by the portable engine, and both must hold the model's tree.
// GXFUZZ_TRACE=1 in the environment prints each call with the paths the
// model holds before it.
#include <algorithm>
#include <cstring>
#include <sstream>

#include "fuzz/gxServiceFuzz.h"
#include "portable/gxdFileView.h"
#include "portable/gxdInterfaces.h"
#include "tests/support/gxMemoryFile.h"

namespace {

constexpr size_t kMaxOps = 120;
constexpr uint64_t kWriteBudget = uint64_t{1} << 20;  // bytes per input
constexpr uint32_t kMaxSize = 70000;                  // per stream

// Units reaching case folding, a unit with no case, and the characters
// names may not hold.
constexpr char16_t kAlphabet[] = {u'a',  u'A', u'b', u'B',   u'z', u'Z',
                                  u'0',  u'_', u' ', 0x4E2D, u'!', u'/',
                                  u'\\', u':', u'x', u'y'};

std::u16string readName(gxFuzzReader& in) {
  const uint8_t b = in.byte();
  // Mostly 1 to 3 units; sometimes empty, 31, 32 or 33.
  size_t length = 1 + (b & 3) % 3;
  if ((b & 0xF0) == 0xF0) length = (b & 3) == 0 ? 0 : 30 + (b & 3);
  std::u16string name;
  for (size_t i = 0; i < length; ++i) {
    const uint8_t c = in.byte();
    // Characters a name may not hold come rarely.
    name +=
        kAlphabet[(c & 0xC0) == 0xC0 ? c % 16 : c % 10 + (c % 10 >= 9 ? 5 : 0)];
  }
  return name;
}

bool validName(const std::u16string& name) {
  if (name.empty() || name.size() > 31) return false;
  for (char16_t c : name)
    if (c == u'/' || c == u'\\' || c == u':' || c == u'!') return false;
  return true;
}

std::u16string folded(const std::u16string& name) {
  std::u16string f = name;
  for (char16_t& c : f)
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - 32);
  return f;
}

std::u16string parentOf(const std::u16string& path) {
  const size_t slash = path.rfind(u'/');
  return slash == std::u16string::npos ? u"" : path.substr(0, slash);
}

std::u16string leafOf(const std::u16string& path) {
  const size_t slash = path.rfind(u'/');
  return slash == std::u16string::npos ? path : path.substr(slash + 1);
}

std::u16string join(const std::u16string& dir, const std::u16string& name) {
  return dir.empty() ? name : dir + u"/" + name;
}

// A number for an offset or a size: around 0, `current`, the cutoff, or a
// sector boundary, or anything up to kMaxSize.
uint32_t readNumber(gxFuzzReader& in, uint64_t current) {
  const uint8_t b = in.byte();
  uint64_t n = 0;
  switch (b & 7) {
    case 0:
      n = b >> 3;
      break;
    case 1:
      n = current + (b >> 3);
      break;
    case 2:
      n = current / 2;
      break;
    case 3:
      n = 4096 - 16 + (b >> 3);
      break;
    case 4:
      n = in.u16() % kMaxSize;
      break;
    case 5:
      n = 512u * (b >> 3) + in.byte() % 3 - 1;
      break;
    case 6:
      n = 64u * (b >> 3);
      break;
    default:
      n = in.byte();
      break;
  }
  return static_cast<uint32_t>(std::min<uint64_t>(n, kMaxSize));
}

struct Session {
  std::shared_ptr<gxMemoryBytes> bytes = std::make_shared<gxMemoryBytes>();
  bool transacted = false;
  IStorage* root = nullptr;
  gxFuzzTree model, committed;
  uint64_t written = 0;
  std::vector<IStorage*> held;  // storages opened for the current call

  // The element of `dir` whose name folds to `name`'s, or end().
  gxFuzzTree::iterator sibling(const std::u16string& dir,
                               const std::u16string& name) {
    for (auto it = model.begin(); it != model.end(); ++it)
      if (parentOf(it->first) == dir &&
          folded(leafOf(it->first)) == folded(name))
        return it;
    return model.end();
  }
  // Removes `path` and everything below it; `path` is a copy, as it may be
  // one of the keys removed.
  void erase(const std::u16string path) {
    for (auto it = model.begin(); it != model.end();)
      if (it->first == path || it->first.rfind(path + u"/", 0) == 0)
        it = model.erase(it);
      else
        ++it;
  }
  // Opens storage `path` ("" is the root) with every storage on the way,
  // which stay open (a storage's release reverts what was opened through
  // it) until releaseHeld().
  IStorage* openStorage(const std::u16string& path) {
    IStorage* at = root;
    size_t from = 0;
    while (from < path.size()) {
      size_t slash = path.find(u'/', from);
      if (slash == std::u16string::npos) slash = path.size();
      IStorage* next = nullptr;
      GXFUZZ_CHECK_HR(
          at->OpenStorage(gxFuzzOle(path.substr(from, slash - from)).data(),
                          nullptr, kGxFuzzReadWrite, nullptr, 0, &next),
          S_OK);
      held.push_back(next);
      at = next;
      from = slash + 1;
    }
    return at;
  }
  IStream* openStream(const std::u16string& path) {
    IStream* s = nullptr;
    GXFUZZ_CHECK_HR(openStorage(parentOf(path))
                        ->OpenStream(gxFuzzOle(leafOf(path)).data(), nullptr,
                                     kGxFuzzReadWrite, 0, &s),
                    S_OK);
    return s;
  }
  void releaseHeld() {
    for (auto it = held.rbegin(); it != held.rend(); ++it) (*it)->Release();
    held.clear();
  }
  void open(bool create) {
    const DWORD mode = kGxFuzzReadWrite | (transacted ? STGM_TRANSACTED : 0);
    auto file = std::make_unique<gxMemoryFile>(bytes);
    const HRESULT hr =
        create ? gxsStgCreateOnFile(std::move(file), mode | STGM_CREATE, &root)
               : gxsStgOpenOnFile(std::move(file), mode, &root);
    GXFUZZ_CHECK(hr == S_OK && root != nullptr);
  }
  void close() {
    GXFUZZ_CHECK(root->Release() == 0);
    root = nullptr;
    if (transacted) model = committed;
  }
};

// The whole tree below `storage`, listed and read through the service.
void walk(IStorage* storage, const std::u16string& dir, gxFuzzTree& tree) {
  std::vector<std::pair<std::u16string, bool>> kids;
  GXFUZZ_CHECK(gxFuzzChildren(storage, kids) == S_OK);
  for (const auto& [name, isStorage] : kids) {
    const std::u16string path = join(dir, name);
    GXFUZZ_CHECK(tree.count(path) == 0);
    const auto ole = gxFuzzOle(name);
    if (isStorage) {
      IStorage* sub = nullptr;
      GXFUZZ_CHECK(storage->OpenStorage(ole.data(), nullptr, kGxFuzzReadWrite,
                                        nullptr, 0, &sub) == S_OK);
      tree[path] = {true, ""};
      walk(sub, path, tree);
      sub->Release();
    } else {
      IStream* s = nullptr;
      GXFUZZ_CHECK(storage->OpenStream(ole.data(), nullptr, kGxFuzzReadWrite, 0,
                                       &s) == S_OK);
      std::string data;
      GXFUZZ_CHECK(gxFuzzReadAll(s, data, 1000) == S_OK);
      STATSTG info;
      GXFUZZ_CHECK(s->Stat(&info, STATFLAG_NONAME) == S_OK);
      GXFUZZ_CHECK(info.cbSize.QuadPart == data.size());
      tree[path] = {false, data};
      s->Release();
    }
  }
}

void expectModel(Session& s) {
  gxFuzzTree seen;
  walk(s.root, u"", seen);
  if (seen != s.model) gxFuzzFail("the service's tree differs from the model");
}

// The file as the portable engine reads it.
void expectPortable(Session& s) {
  static const std::string path = gxFuzzPath("service_ops.gxw");
  static const std::u16string widePath = gxFuzzWide(path);
  gxFuzzWriteFile(path, s.bytes->bytes.data(), s.bytes->bytes.size());
  gxdFileView view;
  GXFUZZ_CHECK(view.open(widePath.c_str()) == gxdFileView::Status::kOk);
  gxdIStorage* root = nullptr;
  GXFUZZ_CHECK(gxdStgOpenStorage(widePath.c_str(), 0, &root) == GX_S_OK);
  std::map<std::u16string, gxdIStorage*> storages = {{u"", root}};
  gxFuzzTree seen;
  std::vector<uint8_t> buffer;
  for (const gxdFileViewElement& e : view.elements()) {
    std::u16string p;
    for (const std::u16string& n : e.names) p = join(p, n);
    gxdIStorage* parent = storages.at(parentOf(p));
    if (e.isStorage) {
      gxdIStorage* child = nullptr;
      GXFUZZ_CHECK(parent->openStorage(leafOf(p).c_str(), &child) == GX_S_OK);
      storages[p] = child;
      seen[p] = {true, ""};
      continue;
    }
    gxdIStream* stream = nullptr;
    GXFUZZ_CHECK(parent->openStream(leafOf(p).c_str(), &stream) == GX_S_OK);
    buffer.assign(e.size + 1, 0);
    uint64_t done = 0;
    stream->read(buffer.data(), buffer.size(), &done);
    GXFUZZ_CHECK(done == e.size);
    seen[p] = {false, std::string(buffer.begin(), buffer.begin() + done)};
    stream->release();
  }
  for (auto it = storages.rbegin(); it != storages.rend(); ++it)
    it->second->release();
  if (seen != s.model) gxFuzzFail("the portable engine reads another tree");
}

// Runs one decoded call and updates the model.
void step(Session& s, gxFuzzReader& in) {
  std::vector<std::u16string> storages = {u""}, streams, all;
  for (const auto& [path, element] : s.model) {
    (element.first ? storages : streams).push_back(path);
    all.push_back(path);
  }
  const uint8_t op = in.byte() % 12;
  static const bool trace = std::getenv("GXFUZZ_TRACE") != nullptr;
  if (trace) {
    std::fprintf(stderr, "call %d on:", op);
    for (const std::u16string& path : all)
      std::fprintf(stderr, " %s",
                   std::string(path.begin(), path.end()).c_str());
    std::fprintf(stderr, "\n");
  }
  switch (op) {
    case 0:
    case 1:
    case 2: {  // create a stream (0, 1) or a storage (2)
      const std::u16string dir = storages[in.byte() % storages.size()];
      const std::u16string name = readName(in);
      const bool replace = (in.byte() & 1) != 0;
      const bool storage = op == 2;
      IStorage* parent = s.openStorage(dir);
      const DWORD mode = kGxFuzzReadWrite | (replace ? STGM_CREATE : 0);
      IStream* stream = nullptr;
      IStorage* sub = nullptr;
      const auto ole = gxFuzzOle(name);
      const HRESULT hr =
          storage ? parent->CreateStorage(ole.data(), mode, 0, 0, &sub)
                  : parent->CreateStream(ole.data(), mode, 0, 0, &stream);
      auto old = s.sibling(dir, name);
      if (!validName(name)) {
        GXFUZZ_CHECK_HR(hr, STG_E_INVALIDNAME);
      } else if (old != s.model.end() && !replace) {
        GXFUZZ_CHECK_HR(hr, STG_E_FILEALREADYEXISTS);
      } else {
        GXFUZZ_CHECK_HR(hr, S_OK);
        if (old != s.model.end()) s.erase(old->first);
        s.model[join(dir, name)] = {storage, ""};
      }
      GXFUZZ_CHECK((hr == S_OK) == (stream != nullptr || sub != nullptr));
      if (stream != nullptr) stream->Release();
      if (sub != nullptr) sub->Release();
      break;
    }
    case 3:
    case 4: {  // write
      if (streams.empty()) break;
      const std::u16string path = streams[in.byte() % streams.size()];
      std::string& data = s.model[path].second;
      const uint32_t at = readNumber(in, data.size());
      uint32_t count = readNumber(in, 0);
      if (at + count > kMaxSize) count = kMaxSize - at;
      if (s.written + count > kWriteBudget) break;
      s.written += count;
      std::string chunk(count, '\0');
      const uint8_t seed = in.byte();
      for (uint32_t i = 0; i < count; ++i)
        chunk[i] = static_cast<char>(seed + i * 7 + (i >> 9));
      IStream* stream = s.openStream(path);
      LARGE_INTEGER move;
      move.QuadPart = at;
      ULARGE_INTEGER position;
      GXFUZZ_CHECK(stream->Seek(move, STREAM_SEEK_SET, &position) == S_OK &&
                   position.QuadPart == at);
      ULONG done = 0;
      GXFUZZ_CHECK(stream->Write(chunk.data(), count, &done) == S_OK &&
                   done == count);
      if (count > 0) {
        if (data.size() < at + count) data.resize(at + count, '\0');
        data.replace(at, count, chunk);
      }
      stream->Release();
      break;
    }
    case 5: {  // set size
      if (streams.empty()) break;
      const std::u16string path = streams[in.byte() % streams.size()];
      std::string& data = s.model[path].second;
      const uint32_t size = readNumber(in, data.size());
      IStream* stream = s.openStream(path);
      ULARGE_INTEGER n;
      n.QuadPart = size;
      GXFUZZ_CHECK(stream->SetSize(n) == S_OK);
      data.resize(size, '\0');
      stream->Release();
      break;
    }
    case 6: {  // read a range through a clone
      if (streams.empty()) break;
      const std::u16string path = streams[in.byte() % streams.size()];
      const std::string& data = s.model[path].second;
      const uint32_t at = readNumber(in, data.size());
      const uint32_t count = readNumber(in, 0);
      IStream* stream = s.openStream(path);
      IStream* copy = nullptr;
      GXFUZZ_CHECK(stream->Clone(&copy) == S_OK && copy != nullptr);
      stream->Release();
      LARGE_INTEGER move;
      move.QuadPart = at;
      GXFUZZ_CHECK(copy->Seek(move, STREAM_SEEK_SET, nullptr) == S_OK);
      std::string got(count, '\0');
      ULONG done = 0;
      GXFUZZ_CHECK(copy->Read(&got[0], count, &done) == S_OK);
      const size_t want =
          at >= data.size() ? 0 : std::min<size_t>(count, data.size() - at);
      GXFUZZ_CHECK(done == want &&
                   std::memcmp(got.data(), data.data() + at, want) == 0);
      copy->Release();
      break;
    }
    case 7:
    case 8: {  // destroy (7) or rename (8)
      if (all.empty()) break;
      const std::u16string path = all[in.byte() % all.size()];
      const std::u16string dir = parentOf(path), name = leafOf(path);
      const std::u16string to = op == 8 ? readName(in) : u"";
      IStorage* parent = s.openStorage(dir);
      const HRESULT hr = op == 7
                             ? parent->DestroyElement(gxFuzzOle(name).data())
                             : parent->RenameElement(gxFuzzOle(name).data(),
                                                     gxFuzzOle(to).data());
      if (op == 7) {
        GXFUZZ_CHECK(hr == S_OK);
        s.erase(path);
        break;
      }
      if (!validName(to)) {
        GXFUZZ_CHECK_HR(hr, STG_E_INVALIDNAME);
        break;
      }
      auto taken = s.sibling(dir, to);
      if (taken != s.model.end() && taken->first != path) {
        GXFUZZ_CHECK(hr == STG_E_FILEALREADYEXISTS || hr == STG_E_ACCESSDENIED);
        break;
      }
      // A new name equal to the old one when folded may be refused.
      if (taken != s.model.end() && hr != S_OK) break;
      GXFUZZ_CHECK(hr == S_OK);
      gxFuzzTree moved;
      for (auto it = s.model.begin(); it != s.model.end();)
        if (it->first == path || it->first.rfind(path + u"/", 0) == 0) {
          moved[join(dir, to) + it->first.substr(path.size())] = it->second;
          it = s.model.erase(it);
        } else {
          ++it;
        }
      s.model.insert(moved.begin(), moved.end());
      break;
    }
    case 9:  // commit
      GXFUZZ_CHECK(s.root->Commit(STGC_DEFAULT) == S_OK);
      s.committed = s.model;
      break;
    case 10:  // revert
      GXFUZZ_CHECK(s.root->Revert() == S_OK);
      if (s.transacted) s.model = s.committed;
      break;
    default:  // release and open again
      s.close();
      s.open(false);
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  gxFuzzReader in(data, size);
  Session s;
  s.transacted = (in.byte() & 1) != 0;
  s.open(true);
  for (size_t ops = 0; ops < kMaxOps && !in.empty(); ++ops) {
    step(s, in);
    s.releaseHeld();
    expectModel(s);
  }
  s.close();
  s.open(false);
  expectModel(s);
  s.close();
  expectPortable(s);
  return 0;
}
