// A file opened through the platform's structured-storage service (the
// system's own on Windows, the library's service elsewhere): read-only for
// the metadata the portable engine does not keep, or as one transaction for
// edits, committed by the root's Commit.
//
// Every element the service opens is opened exclusively, so each one is
// opened once and shared: storages stay open (cached by their real names)
// until they are removed, renamed or the file closes; a stream stays open
// while anything uses it, and a second use of the same stream finds it in a
// registry keyed by its real path.
#include <algorithm>
#include <map>

#include "porting/gxdPorting.h"
#include "python/src/gxpyFile.h"

namespace {

// Owns one counted reference of a COM-shaped object.
template <typename T>
class Ref {
 public:
  Ref() = default;
  explicit Ref(T* p) : p_(p) {}
  Ref(const Ref&) = delete;
  Ref& operator=(const Ref&) = delete;
  ~Ref() { reset(); }
  void reset() {
    if (p_ != nullptr) p_->Release();
    p_ = nullptr;
  }
  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T** out() {
    reset();
    return &p_;
  }
  // Takes over the caller's reference / hands this one over.
  void adopt(T* p) {
    reset();
    p_ = p;
  }
  T* detach() {
    T* p = p_;
    p_ = nullptr;
    return p;
  }

 private:
  T* p_ = nullptr;
};

std::vector<OLECHAR> units(const std::u16string& s) {
  return std::vector<OLECHAR>(s.c_str(), s.c_str() + s.size() + 1);
}

std::u16string folded(const std::u16string& name) {
  std::u16string out(name);
  for (char16_t& c : out) c = pdFoldUpper(c);
  return out;
}

uint64_t fileTime(const FILETIME& t) {
  return (uint64_t{t.dwHighDateTime} << 32) | t.dwLowDateTime;
}

// The name Stat reports, taken out of task memory.
HRESULT statName(const STATSTG& info, std::u16string& name) {
  if (info.pwcsName == nullptr) return E_OUTOFMEMORY;
  name = pdFromUnits(reinterpret_cast<const unsigned short*>(info.pwcsName));
  CoTaskMemFree(info.pwcsName);
  return S_OK;
}

// One open storage, its children cached by their real names.
// Members are destroyed in reverse order: the children before the storage.
struct Node {
  Ref<IStorage> storage;
  gxpyNames path;  // real names from the root
  std::map<std::u16string, std::unique_ptr<Node>> below;
};

// One open stream; whoever uses it holds the slot.
struct Slot {
  explicit Slot(IStream* s) : stream(s) {}
  Ref<IStream> stream;
};

class gxpyPlatformFile;

class gxpyPlatformStream : public gxpyStream {
 public:
  gxpyPlatformStream(std::shared_ptr<gxpyPlatformFile> file,
                     std::shared_ptr<Slot> slot, gxpyNames names)
      : file_(std::move(file)),
        slot_(std::move(slot)),
        names_(std::move(names)) {}
  ~gxpyPlatformStream() override { close(); }

  uint64_t size() override;
  size_t readAt(uint64_t offset, void* data, size_t count) override;
  void writeAt(uint64_t offset, const void* data, size_t count) override;
  void setSize(uint64_t size) override;
  void close() override;

 private:
  IStream* use();  // the stream, after a check that the file is open

  std::shared_ptr<gxpyPlatformFile> file_;
  std::shared_ptr<Slot> slot_;  // null once closed
  gxpyNames names_;
};

// Transfers of at most this many bytes per call (the interface counts in
// 32 bits).
constexpr size_t kMaxTransfer = size_t{1} << 30;

HRESULT seekTo(IStream* stream, uint64_t offset) {
  LARGE_INTEGER move;
  move.QuadPart = static_cast<int64_t>(offset);
  return stream->Seek(move, STREAM_SEEK_SET, nullptr);
}

HRESULT readFrom(IStream* stream, uint64_t offset, void* data, size_t count,
                 size_t& done) {
  done = 0;
  HRESULT hr = seekTo(stream, offset);
  while (hr >= 0 && done < count) {
    ULONG n = static_cast<ULONG>(std::min(count - done, kMaxTransfer)), got = 0;
    hr = stream->Read(static_cast<uint8_t*>(data) + done, n, &got);
    done += got;
    if (got < n) break;
  }
  return hr < 0 ? hr : S_OK;
}

HRESULT writeTo(IStream* stream, uint64_t offset, const void* data,
                size_t count) {
  HRESULT hr = seekTo(stream, offset);
  size_t done = 0;
  while (hr >= 0 && done < count) {
    ULONG n = static_cast<ULONG>(std::min(count - done, kMaxTransfer)), put = 0;
    hr = stream->Write(static_cast<const uint8_t*>(data) + done, n, &put);
    if (hr >= 0 && put != n) hr = STG_E_MEDIUMFULL;
    done += put;
  }
  return hr < 0 ? hr : S_OK;
}

HRESULT resize(IStream* stream, uint64_t size) {
  ULARGE_INTEGER to;
  to.QuadPart = size;
  return stream->SetSize(to);
}

class gxpyPlatformFile : public gxpyFile,
                         public std::enable_shared_from_this<gxpyPlatformFile> {
 public:
  gxpyPlatformFile(IStorage* root, gxpyPlatformMode mode)
      : mode_(mode),
        childMode_(
            (mode == gxpyPlatformMode::kRead ? STGM_READ : STGM_READWRITE) |
            STGM_SHARE_EXCLUSIVE) {
    top_.reset(new Node);
    top_->storage.adopt(root);
  }
  ~gxpyPlatformFile() override { close(false); }

  bool closed() const { return !top_; }

  std::vector<gxpyChild> children(const gxpyNames& names) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    Node& node = storageAt(names, names.size(), false);
    Ref<IEnumSTATSTG> list;
    HRESULT hr = node.storage->EnumElements(0, nullptr, 0, list.out());
    std::vector<gxpyChild> out;
    STATSTG batch[64];
    while (hr == S_OK) {
      ULONG fetched = 0;
      hr = list->Next(64, batch, &fetched);
      for (ULONG i = 0; i < fetched; ++i) {
        gxpyChild child{u"", batch[i].type, batch[i].cbSize.QuadPart};
        if (statName(batch[i], child.name) != S_OK) hr = E_OUTOFMEMORY;
        if (child.type != STGTY_STREAM) child.size = 0;
        out.push_back(std::move(child));
      }
    }
    if (hr < 0) gxpyFail(hr, names);
    return out;
  }

  bool lookup(const gxpyNames& names, gxpyChild& found) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    gxpyStat info;
    HRESULT hr = statOf(names, info, STATFLAG_NONAME);
    if (hr == STG_E_FILENOTFOUND || hr == STG_E_PATHNOTFOUND) return false;
    if (hr != S_OK) gxpyFail(hr, names);
    found = {u"", info.type, info.size};
    return true;
  }

  gxpyStat stat(const gxpyNames& names) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    gxpyStat info;
    HRESULT hr = statOf(names, info, STATFLAG_DEFAULT);
    if (hr != S_OK) gxpyFail(hr, names);
    if (names.empty()) info.name.clear();  // the root's is the file's path
    return info;
  }

  std::shared_ptr<gxpyStream> openStream(const gxpyNames& names,
                                         bool create) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    std::shared_ptr<Slot> slot = streamAt(names, create);
    return std::make_shared<gxpyPlatformStream>(shared_from_this(), slot,
                                                names);
  }

  void write(const gxpyNames& names, const void* data, size_t count) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    std::shared_ptr<Slot> slot = streamAt(names, true);
    HRESULT hr = resize(slot->stream.get(), 0);
    if (hr == S_OK) hr = writeTo(slot->stream.get(), 0, data, count);
    if (hr != S_OK) gxpyFail(hr, names);
  }

  void remove(const gxpyNames& names) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (names.empty()) gxpyFail(STG_E_ACCESSDENIED, names);
    Node& parent = storageAt(names, names.size() - 1, false);
    forget(parent, names.back(), true);
    HRESULT hr = parent.storage->DestroyElement(units(names.back()).data());
    if (hr != S_OK) gxpyFail(hr, names);
  }

  void rename(const gxpyNames& names, const std::u16string& to) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (names.empty()) gxpyFail(STG_E_ACCESSDENIED, names);
    Node& parent = storageAt(names, names.size() - 1, false);
    // Streams in use below the element keep it open: the service refuses
    // to rename it rather than have them reverted.
    if (!forget(parent, names.back(), false))
      gxpyFail(STG_E_ACCESSDENIED, names);
    HRESULT hr = parent.storage->RenameElement(units(names.back()).data(),
                                               units(to).data());
    if (hr != S_OK) gxpyFail(hr, names);
  }

  bool makeStorages(const gxpyNames& names) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    made_ = false;
    storageAt(names, names.size(), true);
    return made_;
  }

  void commit() override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    checkOpen();
    if (mode_ == gxpyPlatformMode::kRead) return;
    HRESULT hr = top_->storage->Commit(STGC_DEFAULT);
    if (hr != S_OK) gxpyFail(hr, {});
  }

  void revert() override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    checkOpen();
    if (mode_ == gxpyPlatformMode::kRead) return;
    slots_.clear();
    top_->below.clear();
    HRESULT hr = top_->storage->Revert();
    if (hr != S_OK) gxpyFail(hr, {});
  }

  void close(bool commit) override {
    if (commit) this->commit();
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    slots_.clear();
    top_.reset();
  }

  // For the streams; the caller holds the mutex.
  void checkOpen() {
    if (closed()) gxpyFail(E_FAIL, {}, gxpyFailure::kClosed);
  }

 private:
  // The storage named by the first `depth` names, opened (and created on
  // the way when `create`) through the cache.
  Node& storageAt(const gxpyNames& names, size_t depth, bool create) {
    checkOpen();
    Node* node = nullptr;
    size_t failed = 0;
    HRESULT hr = walk(names, depth, create, node, failed);
    if (hr == S_OK) return *node;
    gxpyNames path(names.begin(), names.begin() + failed + 1);
    // A stream where a storage is wanted: not found when opening, already
    // there when creating.
    if ((hr == STG_E_FILENOTFOUND || hr == STG_E_FILEALREADYEXISTS) &&
        hasStream(names, failed + 1))
      gxpyFail(hr, path, gxpyFailure::kNotStorage);
    gxpyFail(hr, path);
  }

  // The same without throwing: `failed` tells which name failed.
  HRESULT walk(const gxpyNames& names, size_t depth, bool create, Node*& node,
               size_t& failed) {
    node = top_.get();
    for (failed = 0; failed < depth; ++failed) {
      HRESULT hr = child(*node, names[failed], create, node);
      if (hr != S_OK) return hr;
    }
    return S_OK;
  }

  // Child storage `name` of `parent`: cached, opened, or (with `create`)
  // created.
  HRESULT child(Node& parent, const std::u16string& name, bool create,
                Node*& out) {
    auto cached = parent.below.find(name);
    if (cached != parent.below.end()) {
      out = cached->second.get();
      return S_OK;
    }
    Ref<IStorage> opened;
    std::vector<OLECHAR> n = units(name);
    HRESULT hr = parent.storage->OpenStorage(n.data(), nullptr, childMode_,
                                             nullptr, 0, opened.out());
    std::u16string real = name;
    if (hr == S_OK) {
      STATSTG info = {};
      hr = opened->Stat(&info, STATFLAG_DEFAULT);
      if (hr == S_OK) hr = statName(info, real);
    } else if (hr == STG_E_ACCESSDENIED) {
      // Open already, through the cache, under its real name.
      for (auto& entry : parent.below) {
        if (folded(entry.first) == folded(name)) {
          out = entry.second.get();
          return S_OK;
        }
      }
    } else if (hr == STG_E_FILENOTFOUND && create) {
      hr = parent.storage->CreateStorage(n.data(), childMode_, 0, 0,
                                         opened.out());
      made_ = made_ || hr == S_OK;
    }
    if (hr != S_OK) return hr;
    std::unique_ptr<Node>& node = parent.below[real];
    node.reset(new Node);
    node->storage.adopt(opened.detach());
    node->path = parent.path;
    node->path.push_back(real);
    out = node.get();
    return S_OK;
  }

  // Stream `names`: in use already, opened, or (with `create`) created.
  std::shared_ptr<Slot> streamAt(const gxpyNames& names, bool create) {
    if (names.empty()) {
      checkOpen();
      gxpyFail(STG_E_FILENOTFOUND, names, gxpyFailure::kIsStorage);
    }
    Node& parent = storageAt(names, names.size() - 1, create);
    std::shared_ptr<Slot> slot;
    HRESULT hr = stream(parent, names.back(), create, slot);
    if (hr == S_OK) return slot;
    if (hr == STG_E_FILENOTFOUND || hr == STG_E_FILEALREADYEXISTS) {
      Node* storage = nullptr;
      if (child(parent, names.back(), false, storage) == S_OK)
        gxpyFail(STG_E_FILENOTFOUND, names, gxpyFailure::kIsStorage);
    }
    gxpyFail(hr, names);
  }

  HRESULT stream(Node& parent, const std::u16string& name, bool create,
                 std::shared_ptr<Slot>& out) {
    gxpyNames key = parent.path;
    key.push_back(name);
    if ((out = inUse(key))) return S_OK;
    Ref<IStream> opened;
    std::vector<OLECHAR> n = units(name);
    HRESULT hr = parent.storage->OpenStream(n.data(), nullptr, childMode_, 0,
                                            opened.out());
    if (hr == S_OK) {
      STATSTG info = {};
      hr = opened->Stat(&info, STATFLAG_DEFAULT);
      if (hr == S_OK) hr = statName(info, key.back());
    } else if (hr == STG_E_ACCESSDENIED) {
      // In use already under its real name.
      for (auto& entry : slots_) {
        const gxpyNames& k = entry.first;
        if (k.size() == key.size() &&
            std::equal(parent.path.begin(), parent.path.end(), k.begin()) &&
            folded(k.back()) == folded(name) && (out = entry.second.lock()))
          return S_OK;
      }
    } else if (hr == STG_E_FILENOTFOUND && create) {
      Node* storage = nullptr;
      if (child(parent, name, false, storage) == S_OK)
        return STG_E_FILEALREADYEXISTS;
      hr = parent.storage->CreateStream(n.data(), childMode_, 0, 0,
                                        opened.out());
    }
    if (hr != S_OK) return hr;
    out = std::make_shared<Slot>(opened.detach());
    for (auto it = slots_.begin(); it != slots_.end();)
      it = it->second.expired() ? slots_.erase(it) : std::next(it);
    slots_[key] = out;
    return S_OK;
  }

  std::shared_ptr<Slot> inUse(const gxpyNames& key) {
    auto hit = slots_.find(key);
    return hit == slots_.end() ? nullptr : hit->second.lock();
  }

  // True when element `depth` names deep along `names` is a stream.
  bool hasStream(const gxpyNames& names, size_t depth) {
    Node* node = top_.get();
    for (size_t i = 0; i + 1 < depth; ++i)
      if (child(*node, names[i], false, node) != S_OK) return false;
    std::shared_ptr<Slot> slot;
    return stream(*node, names[depth - 1], false, slot) == S_OK;
  }

  HRESULT statOf(const gxpyNames& names, gxpyStat& out, DWORD flag) {
    checkOpen();
    if (names.empty()) return fill(top_->storage.get(), out, flag);
    Node* parent = nullptr;
    size_t failed = 0;
    HRESULT hr = walk(names, names.size() - 1, false, parent, failed);
    if (hr != S_OK) return hr;
    Node* storage = nullptr;
    hr = child(*parent, names.back(), false, storage);
    if (hr == S_OK) return fill(storage->storage.get(), out, flag);
    if (hr != STG_E_FILENOTFOUND) return hr;
    std::shared_ptr<Slot> slot;
    hr = stream(*parent, names.back(), false, slot);
    if (hr != S_OK) return hr;
    return fill(slot->stream.get(), out, flag);
  }

  template <typename T>
  static HRESULT fill(T* object, gxpyStat& out, DWORD flag) {
    STATSTG info = {};
    HRESULT hr = object->Stat(&info, flag);
    if (hr != S_OK) return hr;
    if (flag == STATFLAG_DEFAULT && (hr = statName(info, out.name)) != S_OK)
      return hr;
    out.type = info.type;
    out.size = info.type == STGTY_STREAM ? info.cbSize.QuadPart : 0;
    const CLSID& c = info.clsid;
    uint8_t* b = out.clsid;
    for (int i = 0; i < 4; ++i) b[i] = static_cast<uint8_t>(c.Data1 >> (8 * i));
    for (int i = 0; i < 2; ++i) {
      b[4 + i] = static_cast<uint8_t>(c.Data2 >> (8 * i));
      b[6 + i] = static_cast<uint8_t>(c.Data3 >> (8 * i));
    }
    for (int i = 0; i < 8; ++i) b[8 + i] = c.Data4[i];
    out.stateBits = info.grfStateBits;
    out.created = fileTime(info.ctime);
    out.modified = fileTime(info.mtime);
    return S_OK;
  }

  // Closes what the cache holds open of child `name` of `parent` (and of
  // siblings equal to it when folded), before it is removed or renamed.
  // Streams in use stay open; with `force` their registry entries are
  // dropped all the same (the element is going away). False when streams in
  // use were found.
  bool forget(Node& parent, const std::u16string& name, bool force) {
    const std::u16string key = folded(name);
    const size_t depth = parent.path.size();
    bool inUse = false;
    for (auto it = slots_.begin(); it != slots_.end();) {
      const gxpyNames& k = it->first;
      bool below =
          k.size() > depth &&
          std::equal(parent.path.begin(), parent.path.end(), k.begin()) &&
          folded(k[depth]) == key;
      if (below && !it->second.expired()) inUse = true;
      it = below && (force || it->second.expired()) ? slots_.erase(it)
                                                    : std::next(it);
    }
    if (inUse && !force) return false;
    for (auto it = parent.below.begin(); it != parent.below.end();)
      it = folded(it->first) == key ? parent.below.erase(it) : std::next(it);
    return !inUse;
  }

  gxpyPlatformMode mode_;
  DWORD childMode_;
  std::unique_ptr<Node> top_;  // the root; null once closed
  std::map<gxpyNames, std::weak_ptr<Slot>> slots_;  // streams in use
  bool made_ = false;  // makeStorages created a storage
};

IStream* gxpyPlatformStream::use() {
  file_->checkOpen();
  if (!slot_) gxpyFail(E_FAIL, names_, gxpyFailure::kClosed);
  return slot_->stream.get();
}

uint64_t gxpyPlatformStream::size() {
  std::lock_guard<std::recursive_mutex> lock(file_->mutex());
  STATSTG info = {};
  HRESULT hr = use()->Stat(&info, STATFLAG_NONAME);
  if (hr != S_OK) gxpyFail(hr, names_);
  return info.cbSize.QuadPart;
}

size_t gxpyPlatformStream::readAt(uint64_t offset, void* data, size_t count) {
  std::lock_guard<std::recursive_mutex> lock(file_->mutex());
  size_t done = 0;
  HRESULT hr = readFrom(use(), offset, data, count, done);
  if (hr != S_OK) gxpyFail(hr, names_);
  return done;
}

void gxpyPlatformStream::writeAt(uint64_t offset, const void* data,
                                 size_t count) {
  std::lock_guard<std::recursive_mutex> lock(file_->mutex());
  HRESULT hr = writeTo(use(), offset, data, count);
  if (hr != S_OK) gxpyFail(hr, names_);
}

void gxpyPlatformStream::setSize(uint64_t size) {
  std::lock_guard<std::recursive_mutex> lock(file_->mutex());
  HRESULT hr = resize(use(), size);
  if (hr != S_OK) gxpyFail(hr, names_);
}

void gxpyPlatformStream::close() {
  std::lock_guard<std::recursive_mutex> lock(file_->mutex());
  slot_.reset();
}

}  // namespace

std::shared_ptr<gxpyFile> gxpyOpenPlatform(const std::u16string& path,
                                           gxpyPlatformMode mode) {
  std::vector<OLECHAR> name = units(path);
  IStorage* root = nullptr;
  HRESULT hr;
  if (mode == gxpyPlatformMode::kCreate) {
    // A new name of the caller's: an existing file is refused, not replaced.
    hr = StgCreateDocfile(name.data(),
                          STGM_FAILIFTHERE | STGM_TRANSACTED | STGM_READWRITE |
                              STGM_SHARE_EXCLUSIVE,
                          0, &root);
  } else {
    DWORD how = mode == gxpyPlatformMode::kRead
                    ? STGM_READ | STGM_SHARE_DENY_WRITE
                    : STGM_TRANSACTED | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
    hr = StgOpenStorage(name.data(), nullptr, how, nullptr, 0, &root);
  }
  if (hr != S_OK || root == nullptr) gxpyFailFile(hr, path);
  return std::make_shared<gxpyPlatformFile>(root, mode);
}
