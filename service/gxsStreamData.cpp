// Stream data of the service, read and written in place through each
// stream's chain of sectors (or of mini sectors, for streams below the
// cutoff). Runs of units that lie back to back in the file move in one call.
#include <algorithm>

#include "service/gxsDocFile.h"

namespace {

uint64_t unitsFor(uint64_t bytes, uint32_t unit) {
  return (bytes + unit - 1) / unit;
}

}  // namespace

HRESULT gxsDocFile::streamChain(uint32_t id, Chain*& chain) {
  auto it = chains_.find(id);
  if (it != chains_.end()) {
    chain = &it->second;
    return S_OK;
  }
  const gxdDirRecord& r = entries_[id];
  if (r.objectType != kObjStream) return STG_E_INVALIDFUNCTION;
  Chain c;
  c.mini = r.streamSize < header_.miniStreamCutoff;
  HRESULT hr = S_OK;
  if (r.streamSize > 0)
    hr = c.mini
             ? miniChainOf(r.startSector, unitsFor(r.streamSize, 64), c.sectors)
             : chainOf(r.startSector, unitsFor(r.streamSize, sectorSize()),
                       c.sectors);
  if (hr != S_OK) return fail(hr);
  chain = &(chains_[id] = std::move(c));
  return S_OK;
}

void gxsDocFile::dropChain(uint32_t id) { chains_.erase(id); }

// Calls `move(fileOffset, bufferOffset, length)` for each run of the byte
// range [offset, offset + size) of `chain` that is contiguous in the file.
template <typename Move>
HRESULT gxsDocFile::forEachRun(const Chain& chain, uint64_t offset,
                               uint64_t size, Move move) {
  const uint32_t unit = chain.mini ? 64 : sectorSize();
  uint64_t done = 0;
  while (done < size) {
    uint64_t at = offset + done;
    uint64_t i = at / unit;
    if (i >= chain.sectors.size()) return fail(STG_E_DOCFILECORRUPT);
    uint64_t start = 0;
    HRESULT hr = unitOffset(chain, i, start);
    if (hr != S_OK) return hr;
    start += at % unit;
    uint64_t length = std::min<uint64_t>(unit - at % unit, size - done);
    while (done + length < size && i + 1 < chain.sectors.size()) {
      uint64_t next = 0;
      if ((hr = unitOffset(chain, i + 1, next)) != S_OK) return hr;
      if (next != start + length) break;
      ++i;
      length += std::min<uint64_t>(unit, size - done - length);
    }
    if ((hr = move(start, done, length)) != S_OK) return hr;
    done += length;
  }
  return S_OK;
}

HRESULT gxsDocFile::unitOffset(const Chain& chain, uint64_t index,
                               uint64_t& offset) {
  uint32_t unit = chain.sectors[index];
  if (chain.mini) return miniOffset(unit, offset);
  offset = offsetOf(unit);
  return S_OK;
}

HRESULT gxsDocFile::readChain(const Chain& chain, uint64_t offset,
                              uint8_t* data, uint64_t size) {
  return forEachRun(chain, offset, size,
                    [&](uint64_t at, uint64_t from, uint64_t length) {
                      return readBytes(at, data + from, length, chain.mini);
                    });
}

// Gives units [first, last] of `chain` sectors of their own before they
// are written, where the committed state still uses them (transacted mode
// only): the unit's bytes are copied unless [keepFrom, keepTo) (bytes of the
// stream) covers it whole, and `owner`'s start or the previous link is
// pointed at the copy.
HRESULT gxsDocFile::unshare(uint32_t owner, pdTable& chain, uint64_t first,
                            uint64_t last, uint64_t keepFrom, uint64_t keepTo) {
  if (!transacted_) return S_OK;
  const uint32_t ss = sectorSize();
  std::vector<uint8_t> copy;
  for (uint64_t i = first; i <= last && i < chain.size(); ++i) {
    const uint32_t old = chain[i];
    if (!isProtected(old)) continue;
    uint32_t fresh = 0;
    HRESULT hr = allocateSector(fresh, fat_[old]);
    if (hr != S_OK) return hr;
    const uint64_t begin = i * ss;
    if (begin < keepFrom || begin + ss > keepTo) {
      copy.resize(ss);
      if ((hr = readBytes(offsetOf(old), copy.data(), ss)) != S_OK ||
          (hr = writeBytes(offsetOf(fresh), copy.data(), ss)) != S_OK)
        return hr;
    }
    if (i == 0) {
      entries_[owner].startSector = fresh;
      touchEntry(owner);
    } else {
      setFat(chain[i - 1], fresh);
    }
    setFat(old, kFreeSect);
    pendingZero_.push_back(old);
    chain[i] = fresh;
  }
  return S_OK;
}

// The same for the sectors of the mini stream that hold `miniSectors`.
HRESULT gxsDocFile::unshareMini(const pdTable& miniSectors) {
  if (!transacted_) return S_OK;
  const uint32_t perSector = sectorSize() / 64;
  for (uint32_t m : miniSectors) {
    uint64_t index = m / perSector;
    if (index < miniStream_.sectors.size() &&
        isProtected(miniStream_.sectors[index])) {
      HRESULT hr = unshare(kRootId, miniStream_.sectors, index, index, 0, 0);
      if (hr != S_OK) return hr;
    }
  }
  return S_OK;
}

// Prepares units of [offset, offset + size) of `chain` for writing.
HRESULT gxsDocFile::prepareWrite(uint32_t owner, Chain& chain, uint64_t offset,
                                 uint64_t size) {
  if (!transacted_ || size == 0) return S_OK;
  const uint32_t unit = chain.mini ? 64 : sectorSize();
  const uint64_t first = offset / unit, last = (offset + size - 1) / unit;
  if (!chain.mini)
    return unshare(owner, chain.sectors, first, last, offset, offset + size);
  pdTable units;
  for (uint64_t i = first; i <= last && i < chain.sectors.size(); ++i)
    units.push_back(chain.sectors[i]);
  return unshareMini(units);
}

HRESULT gxsDocFile::writeChain(uint32_t owner, Chain& chain, uint64_t offset,
                               const uint8_t* data, uint64_t size) {
  HRESULT hr = prepareWrite(owner, chain, offset, size);
  if (hr != S_OK) return hr;
  return forEachRun(chain, offset, size,
                    [&](uint64_t at, uint64_t from, uint64_t length) {
                      return writeBytes(at, data + from, length);
                    });
}

// Zeros [offset, offset + size) of the stream; what lies past the end of
// the file reads as zeros already.
HRESULT gxsDocFile::zeroChain(uint32_t owner, Chain& chain, uint64_t offset,
                              uint64_t size) {
  HRESULT hr = prepareWrite(owner, chain, offset, size);
  if (hr != S_OK) return hr;
  return forEachRun(chain, offset, size,
                    [&](uint64_t at, uint64_t, uint64_t length) -> HRESULT {
                      uint64_t end = std::min(at + length, fileBytes_);
                      if (at >= end) return S_OK;
                      if (!file_->zeroRange(at, end - at))
                        return ioFailure(true);
                      return S_OK;
                    });
}

HRESULT gxsDocFile::readStream(uint32_t id, uint64_t offset, void* data,
                               uint32_t size, uint32_t& done) {
  done = 0;
  if (corrupt_) return STG_E_DOCFILECORRUPT;
  Chain* chain = nullptr;
  HRESULT hr = streamChain(id, chain);
  if (hr != S_OK) return hr;
  uint64_t length = entries_[id].streamSize;
  if (offset >= length || size == 0) return S_OK;
  uint64_t n = std::min<uint64_t>(size, length - offset);
  hr = readChain(*chain, offset, static_cast<uint8_t*>(data), n);
  if (hr == S_OK) done = static_cast<uint32_t>(n);
  return hr;
}

HRESULT gxsDocFile::writeStream(uint32_t id, uint64_t offset, const void* data,
                                uint32_t size, uint32_t& done) {
  done = 0;
  HRESULT hr = checkWritable();
  if (hr != S_OK || size == 0) return hr;
  if (offset + size > maxStreamSize() || offset + size < offset)
    return STG_E_DOCFILETOOLARGE;
  if (offset + size > entries_[id].streamSize &&
      (hr = resize(id, offset + size, offset)) != S_OK)
    return hr;
  Chain* chain = nullptr;
  if ((hr = streamChain(id, chain)) != S_OK) return hr;
  hr = writeChain(id, *chain, offset, static_cast<const uint8_t*>(data), size);
  if (hr == S_OK) done = size;
  return hr;
}

HRESULT gxsDocFile::setStreamSize(uint32_t id, uint64_t size) {
  HRESULT hr = checkWritable();
  if (hr != S_OK) return hr;
  if (size > maxStreamSize()) return STG_E_DOCFILETOOLARGE;
  return resize(id, size, size);
}

// Changes the size of stream `id` to `newSize`. New bytes before `zeroEnd`
// are zeroed; those from `zeroEnd` on are about to be written by the
// caller. A stream that crosses the cutoff is copied into a new chain of the
// other kind before its old chain is freed.
HRESULT gxsDocFile::resize(uint32_t id, uint64_t newSize, uint64_t zeroEnd) {
  Chain* chain = nullptr;
  HRESULT hr = streamChain(id, chain);
  if (hr != S_OK) return hr;
  const uint64_t oldSize = entries_[id].streamSize;
  if (newSize == oldSize) return S_OK;
  const bool newMini = newSize < header_.miniStreamCutoff;
  zeroEnd = std::min(zeroEnd, newSize);
  if (chain->sectors.empty()) chain->mini = newMini;
  uint32_t head =
      chain->sectors.empty() ? kEndOfChain : entries_[id].startSector;
  if (chain->mini == newMini) {
    const uint32_t unit = newMini ? 64 : sectorSize();
    const uint64_t need = unitsFor(newSize, unit);
    if (need > chain->sectors.size()) {
      size_t more = static_cast<size_t>(need - chain->sectors.size());
      hr = newMini ? extendMiniChain(chain->sectors, more, head)
                   : extendChain(chain->sectors, more, head);
    } else if (need < chain->sectors.size()) {
      hr = newMini ? freeMiniSectors(chain->sectors, need)
                   : freeSectors(chain->sectors, need);
      chain->sectors.resize(need);
      if (need == 0) head = kEndOfChain;
    }
    entries_[id].startSector = head;
    if (hr == S_OK && newSize > oldSize && zeroEnd > oldSize)
      hr = zeroChain(id, *chain, oldSize, zeroEnd - oldSize);
    if (hr == S_OK && newSize < oldSize && need > 0)
      hr = zeroChain(id, *chain, newSize,
                     std::min<uint64_t>(oldSize, need * unit) - newSize);
  } else {
    const uint64_t keep = std::min(oldSize, newSize);  // below the cutoff
    std::vector<uint8_t> data(static_cast<size_t>(keep));
    if ((hr = readChain(*chain, 0, data.data(), keep)) != S_OK) return hr;
    Chain moved;
    moved.mini = newMini;
    uint32_t newHead = kEndOfChain;
    const uint64_t need = unitsFor(newSize, newMini ? 64 : sectorSize());
    hr = newMini ? extendMiniChain(moved.sectors, need, newHead)
                 : extendChain(moved.sectors, need, newHead);
    if (hr == S_OK) hr = writeChain(id, moved, 0, data.data(), keep);
    if (hr == S_OK && zeroEnd > keep)
      hr = zeroChain(id, moved, keep, zeroEnd - keep);
    if (hr != S_OK) return hr;
    hr = chain->mini ? freeMiniSectors(chain->sectors, 0)
                     : freeSectors(chain->sectors, 0);
    *chain = std::move(moved);
    entries_[id].startSector = newHead;
  }
  entries_[id].streamSize = newSize;
  touchEntry(id);
  return hr;
}

HRESULT gxsDocFile::freeStreamData(uint32_t id) {
  Chain* chain = nullptr;
  HRESULT hr = streamChain(id, chain);
  if (hr != S_OK) return hr;
  hr = chain->mini ? freeMiniSectors(chain->sectors, 0)
                   : freeSectors(chain->sectors, 0);
  chains_.erase(id);
  return hr;
}
