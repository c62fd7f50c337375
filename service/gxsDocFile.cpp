// Opening, creating and writing back one compound file of the service.
#include "service/gxsDocFile.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace {

// Sector-sized buffers are filled by reads straight from the file; nothing
// is zero-filled first beyond what a short read leaves.
uint32_t unitsFor(uint64_t bytes, uint32_t unit) {
  return static_cast<uint32_t>((bytes + unit - 1) / unit);
}

gxdDirRecord unusedRecord() {
  gxdDirRecord r;
  r.leftSibling = r.rightSibling = r.child = kNoStream;
  return r;
}

}  // namespace

uint64_t gxsNow() {
  // 100-ns intervals between 1601-01-01 and 1970-01-01.
  constexpr uint64_t kEpochOffset = 116444736000000000ull;
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return kEpochOffset +
         static_cast<uint64_t>(
             std::chrono::duration_cast<std::chrono::microseconds>(since)
                 .count()) *
             10;
}

gxsDocFile::gxsDocFile(std::unique_ptr<pdFile> file) {
  auto cached = std::make_unique<gxsBlockCache>(std::move(file));
  cache_ = cached.get();
  file_ = std::move(cached);
}

gxsDocFile::~gxsDocFile() = default;

HRESULT gxsDocFile::fail(HRESULT code) {
  if (code == STG_E_DOCFILECORRUPT) corrupt_ = true;
  return code;
}

HRESULT gxsDocFile::ioFailure(bool writing) const {
  switch (file_->lastError()) {
    case kPdErrNoSpace:
      return STG_E_MEDIUMFULL;
    case kPdErrTooLarge:
      return STG_E_DOCFILETOOLARGE;
    case kPdErrAccess:
      return STG_E_ACCESSDENIED;
    default:
      return writing ? STG_E_WRITEFAULT : STG_E_READFAULT;
  }
}

HRESULT gxsDocFile::readBytes(uint64_t offset, void* data, size_t size,
                              bool small) {
  int64_t got = small ? cache_->readCached(offset, data, size, fileBytes_)
                      : file_->readAt(offset, data, size);
  if (got < 0) return ioFailure(false);
  if (static_cast<size_t>(got) < size) {
    // Only sectors this session allocated past the end of the file may be
    // missing; they read as zeros. Anything else is a file that shrank.
    if (offset + static_cast<uint64_t>(got) < fileBytes_)
      return STG_E_READFAULT;
    std::memset(static_cast<uint8_t*>(data) + got, 0,
                size - static_cast<size_t>(got));
  }
  return S_OK;
}

HRESULT gxsDocFile::writeBytes(uint64_t offset, const void* data, size_t size) {
  if (corrupt_) return STG_E_DOCFILECORRUPT;
  if (!writable_) return STG_E_ACCESSDENIED;
  if (!file_->writeAt(offset, data, size)) return ioFailure(true);
  if (offset + size > fileBytes_) fileBytes_ = offset + size;
  return S_OK;
}

HRESULT gxsDocFile::open(std::unique_ptr<pdFile> file, bool writable,
                         std::unique_ptr<gxsDocFile>& out) {
  std::unique_ptr<gxsDocFile> doc(new gxsDocFile(std::move(file)));
  doc->writable_ = writable;
  HRESULT hr = doc->load();
  if (hr != S_OK) return hr;
  if (writable) doc->setTransacted(false);
  out = std::move(doc);
  return S_OK;
}

HRESULT gxsDocFile::create(std::unique_ptr<pdFile> file,
                           std::unique_ptr<gxsDocFile>& out, bool transacted) {
  std::unique_ptr<gxsDocFile> doc(new gxsDocFile(std::move(file)));
  doc->writable_ = true;
  doc->initEmpty();
  if (transacted) {
    // Nothing reaches the file before the first commit, which then writes
    // the whole file front to back with no table moved.
    doc->setTransacted(true);
  } else {
    HRESULT hr = doc->flush();
    if (hr != S_OK) return hr;
    doc->setTransacted(false);
  }
  out = std::move(doc);
  return S_OK;
}

// The tables of a new, empty version 3 file: the header, one FAT sector
// (sector 0) and one directory sector (sector 1) holding the root entry.
void gxsDocFile::initEmpty() {
  header_ = gxdFileHeader::newFileHeader();
  header_.numFatSectors = 1;
  header_.difat[0] = 0;
  header_.firstDirectorySector = 1;
  fat_.assign(entriesPerSector(), kFreeSect);
  fat_[0] = kFatSect;
  fat_[1] = kEndOfChain;
  fatSectors_ = {0};
  fatDirty_ = {true};
  difatSectors_.clear();
  unplaced_ = 0;
  miniFat_.clear(), miniFatChain_.clear(), miniFatDirty_.clear();
  dirChain_ = {1};
  dirDirty_ = {true};
  entries_.assign(sectorSize() / kDirRecordSize, unusedRecord());
  gxdDirRecord& root = entries_[kRootId];
  root.setName(u"Root Entry");
  root.objectType = kObjRoot;
  root.colour = 1;
  root.startSector = kEndOfChain;
  miniStream_ = Chain();
  chains_.clear();
  parentOf_.assign(entries_.size(), kNoStream);
  treeState_.assign(entries_.size(), 0);
  freeHint_ = 2;
  miniFreeHint_ = 0;
  entryFreeHint_ = 1;
  allocatedEnd_ = offsetOf(1) + sectorSize();
  headerDirty_ = true;
  changed_ = true;
}

uint64_t gxsDocFile::maxStreamSize() const {
  return header_.majorVersion == 3 ? 0xFFFFFFFFull : (1ull << 62);
}

HRESULT gxsDocFile::load() {
  // Everything is read afresh (a revert loads again over an old state).
  fat_.clear(), fatSectors_.clear(), fatDirty_.clear(), difatSectors_.clear();
  unplaced_ = 0;
  miniFat_.clear(), miniFatChain_.clear(), miniFatDirty_.clear();
  entries_.clear(), dirChain_.clear(), dirDirty_.clear();
  parentOf_.clear(), treeState_.clear(), chains_.clear();
  miniStream_ = Chain();
  difatDirty_ = headerDirty_ = false;
  freeHint_ = miniFreeHint_ = 0;
  entryFreeHint_ = 1;
  allocatedEnd_ = 0;
  if (!file_->size(fileBytes_)) return ioFailure(false);
  uint8_t bytes[kHeaderSize];
  if (fileBytes_ < kHeaderSize) return STG_E_FILEALREADYEXISTS;
  HRESULT hr = readBytes(0, bytes, kHeaderSize);
  if (hr != S_OK) return hr;
  header_.load(bytes, kHeaderSize);
  if (std::memcmp(header_.signature, kGxdSignature, 8) != 0)
    return STG_E_FILEALREADYEXISTS;
  if (!header_.isAcceptable() || header_.byteOrder != 0xFFFE ||
      (header_.sectorShift != 9 && header_.sectorShift != 12) ||
      header_.miniSectorShift != 6 || header_.miniStreamCutoff != 4096)
    return STG_E_INVALIDHEADER;
  if ((hr = loadFat()) != S_OK) return fail(hr);
  if ((hr = loadDirectory()) != S_OK) return fail(hr);
  if ((hr = loadMiniFat()) != S_OK) return fail(hr);
  if ((hr = checkTree()) != S_OK) return fail(hr);
  return S_OK;
}

// Reads the DIFAT (header slots, then the DIFAT chain) and every FAT sector.
// Each FAT or DIFAT sector must lie inside the file and appear once, so the
// FAT held in memory is never larger than the file.
template <typename Use>
HRESULT gxsDocFile::readSectors(const pdTable& sectors, Use use) {
  const size_t ss = sectorSize();
  const size_t maxRun = std::min<size_t>(sectors.size(), (1u << 20) / ss);
  std::unique_ptr<uint8_t[]> run(new uint8_t[maxRun * ss]);  // never zeroed
  for (size_t i = 0; i < sectors.size();) {
    size_t n = 1;
    while (i + n < sectors.size() && n < maxRun &&
           sectors[i + n] == sectors[i] + n)
      ++n;
    HRESULT hr = readBytes(offsetOf(sectors[i]), run.get(), n * ss);
    if (hr != S_OK) return hr;
    for (size_t k = 0; k < n; ++k) use(i + k, run.get() + k * ss);
    i += n;
  }
  return S_OK;
}

HRESULT gxsDocFile::loadFat() {
  const uint32_t eps = entriesPerSector();
  const uint64_t fileSectors =
      fileBytes_ <= sectorSize()
          ? 0
          : (fileBytes_ - 1) / sectorSize();  // past header
  if (header_.numFatSectors == 0 || header_.numFatSectors > fileSectors ||
      header_.numDifatSectors > fileSectors)
    return STG_E_DOCFILECORRUPT;
  std::vector<uint8_t> seen(static_cast<size_t>(fileSectors), 0);
  auto claim = [&](uint32_t s) {
    if (s >= fileSectors || seen[s]) return false;
    seen[s] = 1;
    return true;
  };
  const uint32_t total = header_.numFatSectors;
  for (uint32_t i = 0; i < total && i < kHeaderDifatSlots; ++i) {
    if (!claim(header_.difat[i])) return STG_E_DOCFILECORRUPT;
    fatSectors_.push_back(header_.difat[i]);
  }
  std::vector<uint8_t> sector(sectorSize());
  uint32_t next = header_.firstDifatSector;
  for (uint32_t d = 0; d < header_.numDifatSectors; ++d) {
    if (fatSectors_.size() >= total) break;
    if (!claim(next)) return STG_E_DOCFILECORRUPT;
    difatSectors_.push_back(next);
    HRESULT hr = readBytes(offsetOf(next), sector.data(), sector.size());
    if (hr != S_OK) return hr;
    for (uint32_t i = 0; i + 1 < eps && fatSectors_.size() < total; ++i) {
      uint32_t s = loadU32(&sector[4 * i]);
      if (!claim(s)) return STG_E_DOCFILECORRUPT;
      fatSectors_.push_back(s);
    }
    next = loadU32(&sector[4 * (eps - 1)]);
  }
  if (fatSectors_.size() != total) return STG_E_DOCFILECORRUPT;
  // Tables are filled in order as they are read, never zero-filled first:
  // a large file's pages are touched once.
  fat_.clear();
  fat_.reserve(static_cast<size_t>(total) * eps);
  fatDirty_.assign(total, false);
  HRESULT hr = readSectors(fatSectors_, [&](size_t, const uint8_t* bytes) {
    for (uint32_t j = 0; j < eps; ++j) fat_.push_back(loadU32(&bytes[4 * j]));
  });
  if (hr != S_OK) return hr;
  // The tables' own sectors are reserved whatever their entries say, and
  // entries past the last valid sector id are never handed out.
  for (size_t s = maxSectors(); s < fat_.size(); ++s) fat_[s] = kEndOfChain;
  // No chain may run past the file's end, so entries there that claim a
  // sector are left over: they are free here (the file keeps its bytes until
  // their FAT sector is written), and a new sector never lands far out.
  for (size_t s = fileSectors; s < fat_.size() && s < maxSectors(); ++s)
    fat_[s] = kFreeSect;
  for (uint32_t s : fatSectors_) fat_[s] = kFatSect;
  for (uint32_t s : difatSectors_) fat_[s] = kDifSect;
  return S_OK;
}

HRESULT gxsDocFile::loadDirectory() {
  HRESULT hr = chainOf(header_.firstDirectorySector, 1, dirChain_);
  if (hr != S_OK) return hr;
  const uint32_t perSector = sectorSize() / kDirRecordSize;
  uint64_t count = static_cast<uint64_t>(dirChain_.size()) * perSector;
  if (count >= kMaxRegSect) return STG_E_DOCFILECORRUPT;
  entries_.clear();
  entries_.reserve(static_cast<size_t>(count));
  hr = readSectors(dirChain_, [&](size_t, const uint8_t* bytes) {
    for (uint32_t j = 0; j < perSector; ++j) {
      gxdDirRecord& r = entries_.emplace_back();
      r.load(&bytes[j * kDirRecordSize], kDirRecordSize);
      // Version 3 files record 32-bit sizes; the high half is not theirs.
      if (header_.majorVersion == 3) r.streamSize &= 0xFFFFFFFFull;
    }
  });
  if (hr != S_OK) return hr;
  dirDirty_.assign(dirChain_.size(), false);
  parentOf_.assign(entries_.size(), kNoStream);
  treeState_.assign(entries_.size(), 0);
  if (entries_[kRootId].objectType != kObjRoot) return STG_E_DOCFILECORRUPT;
  return S_OK;
}

HRESULT gxsDocFile::loadMiniFat() {
  const gxdDirRecord& root = entries_[kRootId];
  HRESULT hr =
      chainOf(root.startSector, unitsFor(root.streamSize, sectorSize()),
              miniStream_.sectors);
  if (root.streamSize == 0) miniStream_.sectors.clear(), hr = S_OK;
  if (hr != S_OK) return hr;
  if (header_.firstMiniFatSector == kEndOfChain ||
      header_.numMiniFatSectors == 0)
    return S_OK;
  if ((hr = chainOf(header_.firstMiniFatSector, 1, miniFatChain_)) != S_OK)
    return hr;
  const uint32_t eps = entriesPerSector();
  miniFat_.clear();
  miniFat_.reserve(miniFatChain_.size() * eps);
  hr = readSectors(miniFatChain_, [&](size_t, const uint8_t* bytes) {
    for (uint32_t j = 0; j < eps; ++j)
      miniFat_.push_back(loadU32(&bytes[4 * j]));
  });
  if (hr != S_OK) return hr;
  miniFatDirty_.assign(miniFatChain_.size(), false);
  // Likewise past the mini stream's end: the mini stream grows by what a new
  // mini sector needs, not to a far index a leftover entry claims.
  const size_t capacity = miniStream_.sectors.size() * (sectorSize() / 64);
  for (size_t m = capacity; m < miniFat_.size(); ++m) miniFat_[m] = kFreeSect;
  return S_OK;
}

// Walks the directory from the root without recursion: every entry may be
// reached once, must be a storage or a stream, and every stream's chain must
// cover its size without sharing a sector with any other chain or table.
HRESULT gxsDocFile::checkTree() {
  std::vector<uint8_t> owned(fat_.size(), 0);
  for (size_t s = 0; s < fat_.size(); ++s)
    if (fat_[s] == kFatSect || fat_[s] == kDifSect) owned[s] = 1;
  std::vector<uint8_t> miniOwned(miniFat_.size(), 0);
  auto own = [&](const pdTable& chain, std::vector<uint8_t>& map) {
    for (uint32_t s : chain) {
      if (s >= map.size() || map[s]) return false;
      map[s] = 1;
    }
    return true;
  };
  if (!own(dirChain_, owned) || !own(miniFatChain_, owned) ||
      !own(miniStream_.sectors, owned))
    return STG_E_DOCFILECORRUPT;
  const uint64_t miniCapacity =
      static_cast<uint64_t>(miniStream_.sectors.size()) * sectorSize() / 64;
  std::vector<uint8_t> reached(entries_.size(), 0);
  reached[kRootId] = 1;
  std::vector<uint32_t> storages = {kRootId};
  std::vector<uint32_t> stack;
  pdTable chain;
  while (!storages.empty()) {
    uint32_t parent = storages.back();
    storages.pop_back();
    stack.assign(1, entries_[parent].child);
    while (!stack.empty()) {
      uint32_t id = stack.back();
      stack.pop_back();
      if (id == kNoStream) continue;
      if (id >= entries_.size() || reached[id]) return STG_E_DOCFILECORRUPT;
      reached[id] = 1;
      gxdDirRecord& r = entries_[id];
      if (r.objectType != kObjStorage && r.objectType != kObjStream)
        return STG_E_DOCFILECORRUPT;
      if (r.nameLength > 64) return STG_E_DOCFILECORRUPT;
      parentOf_[id] = parent;
      stack.push_back(r.leftSibling);
      stack.push_back(r.rightSibling);
      if (r.objectType == kObjStorage) {
        storages.push_back(id);
        continue;
      }
      if (r.streamSize == 0) continue;
      if (r.streamSize >= header_.miniStreamCutoff) {
        HRESULT hr =
            chainOf(r.startSector, unitsFor(r.streamSize, sectorSize()), chain);
        if (hr != S_OK || !own(chain, owned)) return STG_E_DOCFILECORRUPT;
      } else {
        HRESULT hr =
            miniChainOf(r.startSector, unitsFor(r.streamSize, 64), chain);
        if (hr != S_OK || !own(chain, miniOwned)) return STG_E_DOCFILECORRUPT;
        for (uint32_t m : chain)
          if (m >= miniCapacity) return STG_E_DOCFILECORRUPT;
      }
    }
  }
  return S_OK;
}

HRESULT gxsDocFile::flush() {
  if (corrupt_) return STG_E_DOCFILECORRUPT;
  if (!writable_ || transacted_) return S_OK;
  bool dirty = headerDirty_ || difatDirty_ || allocatedEnd_ > fileBytes_;
  for (const std::vector<bool>* d : {&dirDirty_, &miniFatDirty_, &fatDirty_})
    dirty = dirty || std::find(d->begin(), d->end(), true) != d->end();
  if (!dirty) return S_OK;
  HRESULT hr = switchState(false);
  if (hr != S_OK) return hr;
  // The change is in the file; a failure to zero what it freed is still
  // reported, as the disk is failing.
  if (!zeroReleased()) hr = ioFailure(true);
  // The sectors taken since the last switch are now the file's; those
  // only the old state used are free to be taken again.
  pdTableReserve(protected_, fat_.size());
  if (protected_.size() < fat_.size()) protected_.resize(fat_.size(), 0);
  for (uint32_t s : taken_)
    if (fat_[s] != kFreeSect) protected_[s] = 1;
  for (uint32_t s : pendingZero_)
    if (fat_[s] == kFreeSect && isProtected(s)) {
      protected_[s] = 0;
      if (s < freeHint_) freeHint_ = s;
    }
  taken_.clear();
  pendingZero_.clear();
  return hr;
}

HRESULT gxsDocFile::flushIfDue() {
  if (transacted_ || !writable_) return S_OK;
  const uint64_t pending =
      static_cast<uint64_t>(taken_.size() + pendingZero_.size()) * sectorSize();
  return pending >= kDirectFlushBytes ? flush() : S_OK;
}

// Records every sector in use as the file's state. Both modes keep that
// state whole until a switch: a direct flush or a transacted commit.
void gxsDocFile::setTransacted(bool transacted) {
  transacted_ = transacted;
  // Only sectors inside the file can belong to its state.
  protected_.assign(fat_.size(), 0);
  for (size_t s = 0; s < protected_.size(); ++s)
    protected_[s] =
        fat_[s] != kFreeSect && offsetOf(static_cast<uint32_t>(s)) < fileBytes_;
  pendingZero_.clear();
  taken_.clear();
  committedBytes_ = fileBytes_;
  freeHint_ = 0;
}

// Moves every changed table sector that the committed state uses to a free
// sector, relinking its chain (or the header's or DIFAT's record of it).
// Moving changes FAT entries, so the caller repeats until nothing moves.
HRESULT gxsDocFile::relocateTables(bool& moved) {
  moved = false;
  HRESULT hr = S_OK;
  auto fresh = [&](uint32_t old, uint32_t mark, uint32_t& where) {
    hr = allocateSector(where, mark);
    if (hr != S_OK) return false;
    setFat(old, kFreeSect);
    pendingZero_.push_back(old);
    moved = true;
    return true;
  };
  auto moveChain = [&](pdTable& chain, std::vector<bool>& dirty,
                       uint32_t& head) {
    for (size_t i = 0; i < chain.size(); ++i) {
      if (!dirty[i] || !isProtected(chain[i])) continue;
      uint32_t where = 0;
      if (!fresh(chain[i], fat_[chain[i]], where)) return false;
      if (i == 0) {
        head = where;
        headerDirty_ = true;
      } else {
        setFat(chain[i - 1], where);
      }
      chain[i] = where;
    }
    return true;
  };
  if (!moveChain(dirChain_, dirDirty_, header_.firstDirectorySector) ||
      !moveChain(miniFatChain_, miniFatDirty_, header_.firstMiniFatSector))
    return hr;
  for (size_t k = 0; k < fatSectors_.size(); ++k) {
    if (!fatDirty_[k] || !isProtected(fatSectors_[k])) continue;
    uint32_t where = 0;
    if (!fresh(fatSectors_[k], kFatSect, where)) return hr;
    fatSectors_[k] = where;
    if (k < kHeaderDifatSlots) {
      header_.difat[k] = where;
      headerDirty_ = true;
    } else {
      difatDirty_ = true;
    }
  }
  if (difatDirty_)
    for (size_t d = 0; d < difatSectors_.size(); ++d) {
      if (!isProtected(difatSectors_[d])) continue;
      uint32_t where = 0;
      if (!fresh(difatSectors_[d], kDifSect, where)) return hr;
      difatSectors_[d] = where;
      if (d == 0) {
        header_.firstDifatSector = where;
        headerDirty_ = true;
      }
    }
  return S_OK;
}

// Makes the changed tables the file's state in one step: every changed
// table sector that the state uses moves to a free sector, the tables are
// written (and synced when `sync`), and only then is the header, the one
// place that says where the state lives, written in one 512-byte write.
// A failure before the header's write leaves the old state whole, and the
// switch can be retried.
HRESULT gxsDocFile::switchState(bool sync) {
  HRESULT hr = S_OK;
  for (bool moved = true; moved && hr == S_OK;) {
    hr = placeTables();
    if (hr == S_OK) hr = relocateTables(moved);
  }
  if (hr == S_OK) hr = writeTables();
  if (hr == S_OK && sync && !file_->sync(true)) hr = ioFailure(true);
  if (hr != S_OK) return hr;
  // The header sector of a new 4096-byte-sector file is padded with zeros;
  // an existing file's padding is left as it is.
  std::vector<uint8_t> head(sectorSize(), 0);
  header_.store(head.data());
  size_t length = fileBytes_ >= head.size() ? kHeaderSize : head.size();
  if (!file_->writeAt(0, head.data(), length) || (sync && !file_->sync(true))) {
    // The header may or may not have reached the disk, so the file may hold
    // either state: until a switch succeeds, no sector of either is written
    // in place, handed out, zeroed or cut off.
    protected_.resize(fat_.size(), 0);
    for (size_t s = 0; s < fat_.size(); ++s)
      if (fat_[s] != kFreeSect) protected_[s] = 1;
    if (committedBytes_ < fileBytes_) committedBytes_ = fileBytes_;
    return ioFailure(true);
  }
  if (length > fileBytes_) fileBytes_ = length;
  headerDirty_ = false;
  return S_OK;
}

// Zeros the sectors only the state before the last switch used; false when
// a write failed, which costs nothing but stale bytes in free space.
bool gxsDocFile::zeroReleased() {
  // In order, so that sectors lying back to back are zeroed in one call: a
  // large stream removed in a transaction frees thousands of them.
  std::sort(pendingZero_.begin(), pendingZero_.end());
  bool ok = true;
  for (size_t i = 0; i < pendingZero_.size();) {
    const uint32_t first = pendingZero_[i];
    size_t n = 0;
    while (i < pendingZero_.size() && pendingZero_[i] == first + n &&
           fat_[first + n] == kFreeSect)
      ++i, ++n;
    if (n == 0) {
      ++i;
      continue;
    }
    const uint64_t from = offsetOf(first);
    const uint64_t to =
        std::min(offsetOf(first) + n * sectorSize(), fileBytes_);
    if (from < to) ok = file_->zeroRange(from, to - from) && ok;
  }
  return ok;
}

HRESULT gxsDocFile::commit() {
  if (corrupt_) return STG_E_DOCFILECORRUPT;
  if (!writable_) return S_OK;
  if (!transacted_) {
    HRESULT hr = flush();
    if (hr == S_OK && changed_ && !file_->sync(true)) hr = ioFailure(true);
    return hr;
  }
  if (!changed_) return S_OK;
  HRESULT hr = switchState(true);
  if (hr != S_OK) return hr;
  // The commit is durable; zeroing and trimming may fail unseen.
  zeroReleased();
  trimEnd();
  changed_ = false;
  setTransacted(true);
  return S_OK;
}

// Zeros every sector taken since the last commit and gives the file back
// its committed length.
void gxsDocFile::dropUncommitted() {
  auto dropped = [&](size_t s) {
    return s < fat_.size() && fat_[s] != kFreeSect &&
           !isProtected(static_cast<uint32_t>(s));
  };
  // Runs of such sectors inside the committed length, one call each.
  for (size_t s = 0; s < fat_.size(); ++s) {
    if (!dropped(s)) continue;
    const uint64_t from = offsetOf(static_cast<uint32_t>(s));
    while (dropped(s + 1)) ++s;
    const uint64_t to = std::min<uint64_t>(
        offsetOf(static_cast<uint32_t>(s)) + sectorSize(), committedBytes_);
    if (from < to) file_->zeroRange(from, to - from);
  }
  if (fileBytes_ > committedBytes_ && file_->truncate(committedBytes_))
    fileBytes_ = committedBytes_;
}

HRESULT gxsDocFile::revert() {
  if (!transacted_ || !changed_ || corrupt_) return S_OK;
  dropUncommitted();
  if (committedBytes_ == 0) {
    // Created and never committed: back to the empty tree.
    initEmpty();
    changed_ = false;
    setTransacted(true);
    return S_OK;
  }
  HRESULT hr = load();
  if (hr != S_OK) {
    // No tables to work on any more: nothing is written from here on.
    corrupt_ = true;
    entries_.assign(1, unusedRecord());
    return STG_E_DOCFILECORRUPT;
  }
  changed_ = false;
  setTransacted(true);
  return S_OK;
}

void gxsDocFile::trimEnd() {
  uint64_t end = sectorSize();
  uint64_t sectors = (fileBytes_ + sectorSize() - 1) / sectorSize() - 1;
  if (sectors > fat_.size()) sectors = fat_.size();
  for (uint64_t s = sectors; s-- > 0;)
    if (fat_[s] != kFreeSect) {
      end = offsetOf(static_cast<uint32_t>(s)) + sectorSize();
      break;
    }
  if (end < fileBytes_ && file_->truncate(end)) fileBytes_ = end;
}

// Writes every changed table sector where it lies.
HRESULT gxsDocFile::writeTables() {
  const uint32_t ss = sectorSize();
  const uint32_t eps = entriesPerSector();
  // Sectors allocated but not yet written must exist before any table
  // points at them.
  if (allocatedEnd_ > fileBytes_) {
    if (!file_->truncate(allocatedEnd_)) return ioFailure(true);
    fileBytes_ = allocatedEnd_;
  }
  // Writes sector i of `chain` where dirty[i], filled by fill(i, bytes), and
  // clears dirty[i]. Changed sectors that lie back to back go out in one
  // write: a large write adds table sectors side by side.
  std::vector<uint8_t> run;
  auto writeRuns = [&](const auto& chain, std::vector<bool>& dirty,
                       auto fill) -> HRESULT {
    for (size_t i = 0; i < chain.size();) {
      if (!dirty[i]) {
        ++i;
        continue;
      }
      size_t n = 1;
      while (i + n < chain.size() && n < kTableRunSectors && dirty[i + n] &&
             chain[i + n] == chain[i] + n)
        ++n;
      run.resize(n * ss);
      for (size_t k = 0; k < n; ++k) fill(i + k, &run[k * ss]);
      HRESULT hr = writeBytes(offsetOf(chain[i]), run.data(), run.size());
      if (hr != S_OK) return hr;
      for (size_t k = i; k < i + n; ++k) dirty[k] = false;
      i += n;
    }
    return S_OK;
  };
  const uint32_t perSector = ss / kDirRecordSize;
  HRESULT hr = writeRuns(dirChain_, dirDirty_, [&](size_t i, uint8_t* out) {
    for (uint32_t j = 0; j < perSector; ++j)
      entries_[i * perSector + j].store(out + j * kDirRecordSize);
  });
  auto table = [&](const pdTable& entries) {
    return [&entries, eps](size_t i, uint8_t* out) {
      for (uint32_t j = 0; j < eps; ++j)
        storeU32(out + 4 * j, entries[i * eps + j]);
    };
  };
  if (hr == S_OK) hr = writeRuns(miniFatChain_, miniFatDirty_, table(miniFat_));
  if (hr == S_OK) hr = writeRuns(fatSectors_, fatDirty_, table(fat_));
  if (hr != S_OK || !difatDirty_) return hr;
  // A changed DIFAT sector moves, and so does each one before it, whose
  // link changes with it: every DIFAT sector is written.
  std::vector<bool> all(difatSectors_.size(), true);
  hr = writeRuns(difatSectors_, all, [&](size_t d, uint8_t* out) {
    size_t next = kHeaderDifatSlots + d * (eps - 1);
    for (uint32_t j = 0; j + 1 < eps; ++j, ++next)
      storeU32(out + 4 * j,
               next < fatSectors_.size() ? fatSectors_[next] : kFreeSect);
    storeU32(out + 4 * (eps - 1),
             d + 1 < difatSectors_.size() ? difatSectors_[d + 1] : kEndOfChain);
  });
  if (hr == S_OK) difatDirty_ = false;
  return hr;
}

HRESULT gxsDocFile::close() {
  if (transacted_) {
    if (writable_ && changed_ && !corrupt_) dropUncommitted();
    // A file created transacted and never committed still ends up a valid,
    // empty compound file.
    if (writable_ && committedBytes_ == 0 && !corrupt_) {
      // Nothing of the dropped state is kept: no sector of it is protected,
      // taken or waiting to be zeroed.
      initEmpty();
      transacted_ = false;
      protected_.clear();
      taken_.clear();
      pendingZero_.clear();
      return flush();
    }
    return S_OK;
  }
  HRESULT hr = flush();
  if (hr == S_OK && changed_ && writable_) trimEnd();
  return hr;
}
