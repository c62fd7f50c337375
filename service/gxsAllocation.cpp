// Sector and mini-sector allocation of the service: chains are read from
// the in-memory FAT and MiniFAT, free entries are handed out lowest first
// (so freed space is reused before the file grows), and freed space is
// zeroed so that deleted data does not linger in the file.
#include <algorithm>

#include "service/gxsDocFile.h"

uint64_t gxsDocFile::maxSectors() const {
  // Version 3 files stay below 4 GiB, whose sizes and offsets readers of
  // that version keep in 32 bits; version 4 reaches the last sector id.
  if (header_.majorVersion == 3) return (0x100000000ull >> 9) - 1;
  return kMaxRegSect;
}

HRESULT gxsDocFile::chainOf(uint32_t start, uint64_t minLength,
                            pdTable& out) const {
  out.clear();
  out.reserve(static_cast<size_t>(std::min<uint64_t>(minLength, fat_.size())));
  // Every sector lies in the file or was allocated by this session: a chain
  // that runs on past the end (where reads give zeros) would make a small
  // file hold a large directory.
  const uint64_t end = std::max(fileBytes_, allocatedEnd_);
  uint32_t s = start;
  while (s != kEndOfChain) {
    // A chain can hold each sector once at most: longer means a loop.
    if (s >= fat_.size() || offsetOf(s) >= end || out.size() >= fat_.size())
      return STG_E_DOCFILECORRUPT;
    out.push_back(s);
    s = fat_[s];
  }
  return out.size() >= minLength ? S_OK : STG_E_DOCFILECORRUPT;
}

HRESULT gxsDocFile::miniChainOf(uint32_t start, uint64_t minLength,
                                pdTable& out) const {
  out.clear();
  out.reserve(
      static_cast<size_t>(std::min<uint64_t>(minLength, miniFat_.size())));
  uint32_t s = start;
  while (s != kEndOfChain) {
    if (s >= miniFat_.size() || out.size() >= miniFat_.size())
      return STG_E_DOCFILECORRUPT;
    out.push_back(s);
    s = miniFat_[s];
  }
  return out.size() >= minLength ? S_OK : STG_E_DOCFILECORRUPT;
}

void gxsDocFile::setFat(uint32_t sector, uint32_t value) {
  fat_[sector] = value;
  fatDirty_[sector / entriesPerSector()] = true;
  changed_ = true;
}

void gxsDocFile::setMiniFat(uint32_t miniSector, uint32_t value) {
  miniFat_[miniSector] = value;
  miniFatDirty_[miniSector / entriesPerSector()] = true;
  changed_ = true;
}

// Appends one FAT sector (and a DIFAT sector when the last one is full).
// Where they go is chosen at the next switch (placeTables): the data written
// meanwhile stays in one run instead of being cut by a table sector every
// few dozen kilobytes, and the new table sectors are written side by side.
HRESULT gxsDocFile::addFatSector() {
  const uint32_t eps = entriesPerSector();
  const size_t index = fatSectors_.size();
  if (static_cast<uint64_t>(fat_.size()) + eps > maxSectors() + eps)
    return STG_E_MEDIUMFULL;
  pdTableReserve(fat_, fat_.size() + eps);
  fat_.resize(fat_.size() + eps, kFreeSect);
  fatDirty_.push_back(true);
  fatSectors_.push_back(kUnplaced);
  ++unplaced_;
  if (index >= kHeaderDifatSlots &&
      (index - kHeaderDifatSlots) / (eps - 1) >= difatSectors_.size()) {
    difatSectors_.push_back(kUnplaced);
    ++unplaced_;
    header_.numDifatSectors = static_cast<uint32_t>(difatSectors_.size());
  }
  difatDirty_ = difatDirty_ || index >= kHeaderDifatSlots;
  header_.numFatSectors = static_cast<uint32_t>(fatSectors_.size());
  headerDirty_ = true;
  changed_ = true;
  return S_OK;
}

// Gives every FAT and DIFAT sector added since the last switch its place,
// lowest free sectors first. Taking a sector may add a FAT sector, so the
// walk repeats until every one has its place.
HRESULT gxsDocFile::placeTables() {
  // Places each sector of `list` that has no place, then tells `record`.
  auto place = [&](auto& list, uint32_t mark, auto record) {
    for (size_t k = 0; k < list.size(); ++k) {
      if (list[k] != kUnplaced) continue;
      uint32_t where = 0;
      HRESULT hr = allocateSector(where, mark);
      if (hr != S_OK) return hr;
      list[k] = where;
      --unplaced_;
      record(k, where);
    }
    return S_OK;
  };
  while (unplaced_ > 0) {
    HRESULT hr = place(fatSectors_, kFatSect, [&](size_t k, uint32_t where) {
      if (k < kHeaderDifatSlots) header_.difat[k] = where;
    });
    if (hr == S_OK)
      hr = place(difatSectors_, kDifSect, [&](size_t d, uint32_t where) {
        if (d == 0) header_.firstDifatSector = where;
      });
    if (hr != S_OK) return hr;
  }
  return S_OK;
}

HRESULT gxsDocFile::allocateSector(uint32_t& sector, uint32_t mark) {
  for (;;) {
    uint32_t s = freeHint_;
    while (s < fat_.size() && (fat_[s] != kFreeSect || isProtected(s))) ++s;
    freeHint_ = s;
    if (s < fat_.size()) {
      // Table sectors not yet placed will need room below the limit too.
      const bool table = mark == kFatSect || mark == kDifSect;
      if (s + (table ? 0 : unplaced_) >= maxSectors()) return STG_E_MEDIUMFULL;
      sector = s;
      setFat(s, mark);
      taken_.push_back(s);
      freeHint_ = s + 1;
      uint64_t end = offsetOf(s) + sectorSize();
      if (end > allocatedEnd_) allocatedEnd_ = end;
      return S_OK;
    }
    HRESULT hr = addFatSector();
    if (hr != S_OK) return hr;
  }
}

// Frees chain[from..] and ends the chain at chain[from - 1]. Freed sectors
// inside the file are zeroed, except those the committed state of a
// transacted file still uses: they are zeroed once a commit lets them go.
HRESULT gxsDocFile::freeSectors(const pdTable& chain, size_t from) {
  if (from > 0 && from <= chain.size()) setFat(chain[from - 1], kEndOfChain);
  const uint32_t ss = sectorSize();
  size_t i = from;
  while (i < chain.size()) {
    if (isProtected(chain[i])) {
      pendingZero_.push_back(chain[i]);
      setFat(chain[i++], kFreeSect);
      continue;
    }
    size_t j = i + 1;
    while (j < chain.size() && chain[j] == chain[j - 1] + 1 &&
           !isProtected(chain[j]))
      ++j;
    uint64_t begin = offsetOf(chain[i]);
    uint64_t end = offsetOf(chain[j - 1]) + ss;
    if (end > fileBytes_) end = fileBytes_;
    if (begin < end && !file_->zeroRange(begin, end - begin))
      return ioFailure(true);
    for (size_t k = i; k < j; ++k) {
      setFat(chain[k], kFreeSect);
      if (chain[k] < freeHint_) freeHint_ = chain[k];
    }
    i = j;
  }
  return S_OK;
}

HRESULT gxsDocFile::extendChain(pdTable& chain, size_t count, uint32_t& head) {
  pdTableReserve(chain, chain.size() + count);
  while (count > 0) {
    uint32_t s = 0;
    HRESULT hr = allocateSector(s, kEndOfChain);
    if (hr != S_OK) return hr;
    if (chain.empty())
      head = s;
    else
      setFat(chain.back(), s);
    chain.push_back(s);
    --count;
    // The free sectors that follow join the chain in one sweep: a large
    // write takes its sectors in runs, and bookkeeping sector by sector
    // would cost more than writing them.
    uint32_t last = s;
    const uint64_t room =
        maxSectors() > unplaced_ ? maxSectors() - unplaced_ : 0;
    const uint64_t limit =
        std::min<uint64_t>({fat_.size(), uint64_t(s) + 1 + count, room});
    while (last + 1 < limit && fat_[last + 1] == kFreeSect &&
           !isProtected(last + 1)) {
      fat_[last] = last + 1;
      chain.push_back(++last);
      taken_.push_back(last);
    }
    if (last == s) continue;
    fat_[last] = kEndOfChain;
    const uint32_t eps = entriesPerSector();
    for (uint32_t f = s / eps; f <= last / eps; ++f) fatDirty_[f] = true;
    count -= last - s;
    freeHint_ = last + 1;
    allocatedEnd_ = std::max(allocatedEnd_, offsetOf(last) + sectorSize());
  }
  return S_OK;
}

// Makes the mini stream (the root entry's chain) at least `bytes` long.
HRESULT gxsDocFile::ensureMiniStream(uint64_t bytes) {
  gxdDirRecord& root = entries_[kRootId];
  const uint64_t need = (bytes + sectorSize() - 1) / sectorSize();
  if (miniStream_.sectors.size() < need) {
    uint32_t head = root.startSector;
    HRESULT hr = extendChain(miniStream_.sectors,
                             need - miniStream_.sectors.size(), head);
    if (hr != S_OK) return hr;
    root.startSector = head;
  }
  if (root.streamSize < bytes) {
    root.streamSize = bytes;
    touchEntry(kRootId);
  }
  return S_OK;
}

HRESULT gxsDocFile::allocateMiniSector(uint32_t& miniSector) {
  uint32_t m = miniFreeHint_;
  while (m < miniFat_.size() && miniFat_[m] != kFreeSect) ++m;
  if (m >= miniFat_.size()) {
    uint32_t head = header_.firstMiniFatSector;
    if (miniFatChain_.empty()) head = kEndOfChain;
    HRESULT hr = extendChain(miniFatChain_, 1, head);
    if (hr != S_OK) return hr;
    header_.firstMiniFatSector = head;
    header_.numMiniFatSectors = static_cast<uint32_t>(miniFatChain_.size());
    headerDirty_ = true;
    miniFat_.resize(miniFat_.size() + entriesPerSector(), kFreeSect);
    miniFatDirty_.push_back(true);
  }
  HRESULT hr = ensureMiniStream((static_cast<uint64_t>(m) + 1) * 64);
  if (hr != S_OK) return hr;
  setMiniFat(m, kEndOfChain);
  miniFreeHint_ = m + 1;
  miniSector = m;
  return S_OK;
}

HRESULT gxsDocFile::miniOffset(uint32_t miniSector, uint64_t& offset) {
  const uint32_t perSector = sectorSize() / 64;
  size_t index = miniSector / perSector;
  if (index >= miniStream_.sectors.size()) return fail(STG_E_DOCFILECORRUPT);
  offset = offsetOf(miniStream_.sectors[index]) +
           static_cast<uint64_t>(miniSector % perSector) * 64;
  return S_OK;
}

HRESULT gxsDocFile::freeMiniSectors(const pdTable& chain, size_t from) {
  if (from > 0 && from <= chain.size())
    setMiniFat(chain[from - 1], kEndOfChain);
  static const uint8_t zeros[64] = {};
  pdTable freed(chain.begin() + static_cast<ptrdiff_t>(from), chain.end());
  HRESULT shared = unshareMini(freed);
  if (shared != S_OK) return shared;
  for (size_t i = from; i < chain.size(); ++i) {
    uint64_t offset = 0;
    HRESULT hr = miniOffset(chain[i], offset);
    if (hr == S_OK && offset < fileBytes_) hr = writeBytes(offset, zeros, 64);
    if (hr != S_OK) return hr;
    setMiniFat(chain[i], kFreeSect);
    if (chain[i] < miniFreeHint_) miniFreeHint_ = chain[i];
  }
  return S_OK;
}

HRESULT gxsDocFile::extendMiniChain(pdTable& chain, size_t count,
                                    uint32_t& head) {
  for (size_t i = 0; i < count; ++i) {
    uint32_t m = 0;
    HRESULT hr = allocateMiniSector(m);
    if (hr != S_OK) return hr;
    if (chain.empty())
      head = m;
    else
      setMiniFat(chain.back(), m);
    chain.push_back(m);
  }
  return S_OK;
}
