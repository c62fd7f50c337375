// A file opened for reading through the portable engine. The engine loads
// the tables, the directory tree and the mini stream once (through a
// buffered positioned reader, so that a table of many scattered sectors
// costs few system calls); streams are then read by following their chains
// in the loaded tables, every link checked before it is used.
//
// Lookups fold case the way the service does (an exact name first, then one
// equal in upper case), through an index of each storage built the first
// time a name is looked up in it.
#include <algorithm>
#include <cstring>
#include <map>
#include <unordered_map>

#include "portable/gxdFileView.h"
#include "porting/gxdPorting.h"
#include "python/src/gxpyFile.h"
#include "python/src/gxpyFileBuf.h"

namespace {

std::u16string folded(const std::u16string& name) {
  std::u16string out(name);
  for (char16_t& c : out) c = pdFoldUpper(c);
  return out;
}

// One storage of the loaded tree, with its children indexed by name. A
// name maps to its first holder in the entry's arrays, as the engine's own
// lookups do.
struct Dir {
  const gxdStorageEntry* entry = nullptr;
  bool indexed = false;
  std::unordered_map<std::u16string, size_t> exact[2], fold[2];
  std::map<size_t, std::unique_ptr<Dir>> below;  // child storages looked up

  // Position of child `name` among the storages (kind 0) or streams (1).
  bool find(const std::u16string& name, int kind, size_t& at) {
    if (!indexed) {
      indexed = true;
      for (size_t i = 0; i < entry->storages.size(); ++i) {
        exact[0].emplace(entry->storages[i].name, i);
        fold[0].emplace(folded(entry->storages[i].name), i);
      }
      for (size_t i = 0; i < entry->streams.size(); ++i) {
        exact[1].emplace(entry->streams[i].name, i);
        fold[1].emplace(folded(entry->streams[i].name), i);
      }
    }
    auto hit = exact[kind].find(name);
    if (hit == exact[kind].end()) {
      hit = fold[kind].find(folded(name));
      if (hit == fold[kind].end()) return false;
    }
    at = hit->second;
    return true;
  }
};

// A stream's size. Version 3 files record sizes in 32 bits: some writers
// leave garbage in the upper half of the field, which readers ignore.
uint64_t sizeOf(const gxdCompoundFile& cf, const gxdDirEntry& entry) {
  return cf.header.majorVersion == 3 ? entry.sizeLow() : entry.size;
}

class gxpyPortableFile;

// A stream: its whole chain of sectors (or mini sectors), checked when the
// stream is opened.
class gxpyPortableStream : public gxpyStream {
 public:
  gxpyPortableStream(std::shared_ptr<gxpyPortableFile> file, uint64_t size,
                     bool mini, std::vector<uint32_t> chain, gxpyNames names)
      : file_(std::move(file)),
        size_(size),
        mini_(mini),
        chain_(std::move(chain)),
        names_(std::move(names)) {}

  uint64_t size() override;
  size_t readAt(uint64_t offset, void* data, size_t count) override;
  void writeAt(uint64_t, const void*, size_t) override {
    gxpyFail(STG_E_ACCESSDENIED, names_);
  }
  void setSize(uint64_t) override { gxpyFail(STG_E_ACCESSDENIED, names_); }
  void close() override;

 private:
  std::shared_ptr<gxpyPortableFile> file_;
  uint64_t size_;
  bool mini_;
  std::vector<uint32_t> chain_;
  gxpyNames names_;
  bool closed_ = false;
};

class gxpyPortableFile : public gxpyFile,
                         public std::enable_shared_from_this<gxpyPortableFile> {
 public:
  gxpyPortableFile(std::unique_ptr<gxpyFileBuf> buffer,
                   std::unique_ptr<std::iostream> stream,
                   std::unique_ptr<gxdFileView> view)
      : buffer_(std::move(buffer)),
        stream_(std::move(stream)),
        view_(std::move(view)) {
    top_.entry = &view_->file().rootEntry;
  }

  std::vector<gxpyChild> children(const gxpyNames& names) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    Dir& dir = storageAt(names, names.size());
    std::vector<gxpyChild> out;
    for (const gxdStorageEntry& s : dir.entry->storages)
      out.push_back({s.name, STGTY_STORAGE, 0});
    for (const gxdDirEntry& s : dir.entry->streams)
      out.push_back({s.name, STGTY_STREAM, sizeOf(view_->file(), s)});
    return out;
  }

  bool lookup(const gxpyNames& names, gxpyChild& found) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    checkOpen();
    Dir* dir = names.empty() ? nullptr : storageOrNull(names, names.size() - 1);
    size_t at;
    if (names.empty()) {
      found = {u"", STGTY_STORAGE, 0};
    } else if (dir == nullptr) {
      return false;
    } else if (dir->find(names.back(), 0, at)) {
      found = {dir->entry->storages[at].name, STGTY_STORAGE, 0};
    } else if (dir->find(names.back(), 1, at)) {
      const gxdDirEntry& s = dir->entry->streams[at];
      found = {s.name, STGTY_STREAM, sizeOf(view_->file(), s)};
    } else {
      return false;
    }
    return true;
  }

  // The engine keeps no class ids, state bits or times; the Python side
  // asks the platform's service for those.
  gxpyStat stat(const gxpyNames& names) override { gxpyFail(E_NOTIMPL, names); }

  std::shared_ptr<gxpyStream> openStream(const gxpyNames& names,
                                         bool create) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    checkOpen();
    if (create) gxpyFail(STG_E_ACCESSDENIED, names);
    if (names.empty())
      gxpyFail(STG_E_FILENOTFOUND, names, gxpyFailure::kIsStorage);
    Dir& dir = storageAt(names, names.size() - 1);
    size_t at;
    if (!dir.find(names.back(), 1, at)) {
      gxpyFail(STG_E_FILENOTFOUND, names,
               dir.find(names.back(), 0, at) ? gxpyFailure::kIsStorage
                                             : gxpyFailure::kByCode);
    }
    const gxdDirEntry& entry = dir.entry->streams[at];
    bool mini = false;
    std::vector<uint32_t> chain;
    if (!chainOf(entry, mini, chain)) gxpyFail(STG_E_DOCFILECORRUPT, names);
    return std::make_shared<gxpyPortableStream>(shared_from_this(),
                                                sizeOf(view_->file(), entry),
                                                mini, std::move(chain), names);
  }

  void write(const gxpyNames& names, const void*, size_t) override {
    gxpyFail(STG_E_ACCESSDENIED, names);
  }
  void remove(const gxpyNames& names) override {
    gxpyFail(STG_E_ACCESSDENIED, names);
  }
  void rename(const gxpyNames& names, const std::u16string&) override {
    gxpyFail(STG_E_ACCESSDENIED, names);
  }
  bool makeStorages(const gxpyNames& names) override {
    gxpyFail(STG_E_ACCESSDENIED, names);
  }
  void commit() override {}
  void revert() override {}

  void close(bool) override {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    top_.below.clear();
    top_.entry = nullptr;
    view_.reset();
    stream_.reset();
    buffer_.reset();  // closes the file
  }

  // For the streams, which hold the mutex.
  void checkOpen() {
    if (!view_) gxpyFail(E_FAIL, {}, gxpyFailure::kClosed);
  }
  // Copies `count` bytes at `offset` of the data that `chain` holds (the
  // caller keeps them within the stream's size). False when the file comes
  // up short.
  bool copyAt(bool mini, const std::vector<uint32_t>& chain, uint64_t offset,
              uint8_t* out, size_t count) {
    const gxdCompoundFile& cf = view_->file();
    const uint32_t shift =
        mini ? cf.header.miniSectorShift : cf.header.sectorShift;
    const uint64_t unit = uint64_t{1} << shift;
    uint64_t within = offset & (unit - 1);
    for (size_t i = static_cast<size_t>(offset >> shift); count > 0; ++i) {
      if (i >= chain.size()) return false;
      uint64_t n = std::min<uint64_t>(count, unit - within);
      if (mini) {
        std::memcpy(
            out, cf.miniStream.data() + (uint64_t{chain[i]} << shift) + within,
            n);
      } else {
        // Consecutive sectors are read with one call.
        size_t last = i;
        while (n < count && last + 1 < chain.size() &&
               chain[last + 1] == chain[last] + 1) {
          n += std::min<uint64_t>(count - n, unit);
          ++last;
        }
        const uint64_t at = sectorOffset(chain[i], shift) + within;
        if (buffer_->readAt(at, out, n) != static_cast<int64_t>(n))
          return false;
        i = last;
      }
      out += n;
      count -= n;
      within = 0;
    }
    return true;
  }

 private:
  Dir& storageAt(const gxpyNames& names, size_t depth) {
    checkOpen();
    Dir* dir = storageOrNull(names, depth);
    if (dir == nullptr)
      gxpyFail(STG_E_FILENOTFOUND, names, notStorage(names, depth));
    return *dir;
  }
  // The storage named by the first `depth` names, or null.
  Dir* storageOrNull(const gxpyNames& names, size_t depth) {
    Dir* dir = &top_;
    for (size_t i = 0; i < depth; ++i) {
      size_t at;
      if (!dir->find(names[i], 0, at)) return nullptr;
      std::unique_ptr<Dir>& next = dir->below[at];
      if (!next) {
        next.reset(new Dir);
        next->entry = &dir->entry->storages[at];
      }
      dir = next.get();
    }
    return dir;
  }
  // kNotStorage when a stream stands where the path needs a storage.
  gxpyFailure::Kind notStorage(const gxpyNames& names, size_t depth) {
    Dir* dir = &top_;
    for (size_t i = 0; i < depth; ++i) {
      size_t at;
      if (dir->find(names[i], 1, at)) return gxpyFailure::kNotStorage;
      if (!(dir = storageOrNull(names, i + 1))) break;
    }
    return gxpyFailure::kByCode;
  }

  // The units holding the stream's data: in the mini stream below the
  // cutoff, else in the file. False when the chain ends early, a link
  // leaves the table or the area the units live in, or a unit repeats.
  bool chainOf(const gxdDirEntry& entry, bool& mini,
               std::vector<uint32_t>& chain) const {
    const gxdCompoundFile& cf = view_->file();
    const uint64_t size = sizeOf(cf, entry);
    mini = size < cf.header.miniStreamCutoff;
    const auto& table = mini ? cf.miniFat : cf.fat;
    const uint32_t shift =
        mini ? cf.header.miniSectorShift : cf.header.sectorShift;
    // An area of N units cannot hold a longer chain without repeating one.
    const uint64_t area =
        mini ? cf.miniStream.size() >> shift : cf.fileSectorCount();
    const uint64_t units =
        (size >> shift) + ((size & ((uint64_t{1} << shift) - 1)) != 0);
    if (units > area) return false;
    chain.reserve(static_cast<size_t>(units));
    uint32_t next = entry.startSector;
    for (uint64_t i = 0; i < units; ++i) {
      if (next >= table.size() || next > kMaxRegSect || next >= area)
        return false;
      chain.push_back(next);
      next = table[next];
    }
    // A chain that comes back to a unit it holds would read it twice.
    std::vector<uint32_t> sorted(chain);
    std::sort(sorted.begin(), sorted.end());
    return std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
  }

  std::unique_ptr<gxpyFileBuf> buffer_;
  std::unique_ptr<std::iostream> stream_;  // over buffer_, for the engine
  std::unique_ptr<gxdFileView> view_;      // null once closed
  Dir top_;
};

uint64_t gxpyPortableStream::size() {
  std::lock_guard<std::recursive_mutex> lock(file_->mutex());
  if (closed_) gxpyFail(E_FAIL, names_, gxpyFailure::kClosed);
  file_->checkOpen();
  return size_;
}

size_t gxpyPortableStream::readAt(uint64_t offset, void* data, size_t count) {
  std::lock_guard<std::recursive_mutex> lock(file_->mutex());
  if (closed_) gxpyFail(E_FAIL, names_, gxpyFailure::kClosed);
  file_->checkOpen();
  if (offset >= size_ || count == 0) return 0;
  const size_t n =
      static_cast<size_t>(std::min<uint64_t>(count, size_ - offset));
  if (!file_->copyAt(mini_, chain_, offset, static_cast<uint8_t*>(data), n))
    gxpyFail(STG_E_DOCFILECORRUPT, names_);
  return n;
}

void gxpyPortableStream::close() {
  std::lock_guard<std::recursive_mutex> lock(file_->mutex());
  closed_ = true;
  chain_.clear();
}

HRESULT openFailure(int error) {
  return error == kPdErrAccess ? STG_E_ACCESSDENIED : STG_E_FILENOTFOUND;
}

}  // namespace

std::shared_ptr<gxpyFile> gxpyOpenPortable(const std::u16string& path) {
  int error = kPdErrNone;
  std::unique_ptr<pdFile> file =
      pdOpenNativeFile(path.c_str(), kPdFileRead, kPdLockNone, error);
  if (!file) gxpyFailFile(openFailure(error), path);
  auto buffer = std::make_unique<gxpyFileBuf>(std::move(file));
  auto stream = std::make_unique<std::iostream>(buffer.get());
  auto view = std::make_unique<gxdFileView>();
  switch (view->open(stream.get())) {
    case gxdFileView::Status::kOk:
      break;
    case gxdFileView::Status::kCorrupt:
      gxpyFailFile(STG_E_DOCFILECORRUPT, path);
    default:
      gxpyFailFile(STG_E_INVALIDHEADER, path);
  }
  buffer->dropBlocks();  // the engine holds what it loaded
  return std::make_shared<gxpyPortableFile>(std::move(buffer),
                                            std::move(stream), std::move(view));
}
