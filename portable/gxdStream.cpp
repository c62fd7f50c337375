#include "portable/gxdStream.h"

#include <algorithm>
#include <cstring>
#include <istream>

#include "portable/gxdStorage.h"

namespace {
constexpr uint64_t kMaxStreamSize = 0xFFFFFFFFull;
}  // namespace

gxdStream::gxdStream(const char16_t* name, gxdStorage* parentIn)
    : readOnly(parentIn->readOnly),
      failed(parentIn->compoundFile == nullptr),
      notFound(false),
      notRewound(true),
      inMiniStream(false),
      parent(parentIn),
      compoundFile(parentIn->compoundFile),
      currentPosition(0),
      bufferFill(0),
      refCount(1) {
  if (failed) return;
  entry.name = name;
  entry.dirIndex = 0xFFFFFFFFu;
  entry.startSector = 0xFFFFFFFFu;
  entry.size = 0;
  notFound =
      !compoundFile->findOrAddStream(parent->entry.get(), entry, !readOnly);
  if (readOnly) rewind();
}

gxdStream::~gxdStream() {
  for (gxdStream* c : clones) c->release();
}

void gxdStream::release() {
  if (refCount > 0) --refCount;
  if (refCount == 0) delete this;
}

void gxdStream::recordCreation() {
  if (readOnly || compoundFile == nullptr) return;
  gxdChangeRecord record;
  record.kind = gxdChangeRecord::kStreamCreated;
  record.first = (parent == nullptr || parent->isRoot())
                     ? &compoundFile->rootEntry
                     : parent->entry.get();
  record.second = &entry;
  compoundFile->pendingChanges.push_back(record);
}

gxResult gxdStream::stat(gxdsSTATSTG* info) {
  std::vector<unsigned short> units(entry.name.begin(), entry.name.end());
  units.push_back(0);
  info->setName(units.data());
  info->setType(GX_STGTY_STREAM);
  info->setSize(entry.sizeLow(), entry.sizeHigh());
  return GX_S_OK;
}

bool gxdStream::clone(gxdIStream** out) {
  gxdStream* copy = new gxdStream(entry.name.c_str(), parent);
  clones.push_back(copy);
  *out = copy;
  return true;
}

uint32_t gxdStream::unitShift() const {
  return inMiniStream ? compoundFile->header.miniSectorShift
                      : compoundFile->header.sectorShift;
}

void gxdStream::rewind() {
  if (failed || notFound || entry.startSector == kEndOfChain) return;
  currentPosition = 0;
  bufferFill = 0;
  notRewound = false;
  inMiniStream = entry.sizeHigh() == 0 &&
                 entry.sizeLow() < compoundFile->header.miniStreamCutoff;
  if (chainIsMini_ != inMiniStream) {
    clearChain();
    chainIsMini_ = inMiniStream;
  }
  failed = compoundFile->fileStream->fail();
}

void gxdStream::clearChain() {
  runs_.clear();
  lastRun_ = Run();
  chainLength_ = 0;
  chainBroken_ = false;
}

bool gxdStream::sectorAt(uint64_t index, uint32_t& sector) {
  const gxdCompoundFile& cf = *compoundFile;
  const pdTable& table = inMiniStream ? cf.miniFat : cf.fat;
  // A chain longer than the units its area holds must repeat itself.
  const uint64_t limit = inMiniStream
                             ? cf.miniStream.size() >> cf.header.miniSectorShift
                             : cf.fileSectorCount();
  while (chainLength_ <= index) {
    if (chainBroken_) return false;
    const uint32_t next = chainLength_ == 0
                              ? entry.startSector
                              : table[lastRun_.sector + lastRun_.length - 1];
    bool valid = chainLength_ < limit && next < table.size();
    if (valid && inMiniStream) {
      valid = ((static_cast<uint64_t>(next) + 1)
               << cf.header.miniSectorShift) <= cf.miniStream.size();
    } else if (valid) {
      valid = cf.isSectorInFile(next);
    }
    if (!valid) {
      chainBroken_ = true;
      return false;
    }
    if (lastRun_.length != 0 &&
        next == uint64_t{lastRun_.sector} + lastRun_.length &&
        lastRun_.length < UINT32_MAX) {
      ++lastRun_.length;
    } else {
      if (lastRun_.length != 0) runs_.push_back(lastRun_);
      lastRun_.index = chainLength_;
      lastRun_.sector = next;
      lastRun_.length = 1;
    }
    ++chainLength_;
  }
  if (index >= lastRun_.index) {
    sector = lastRun_.sector + static_cast<uint32_t>(index - lastRun_.index);
    return true;
  }
  // The last run that starts at or before `index`.
  auto it = std::upper_bound(
      runs_.begin(), runs_.end(), index,
      [](uint64_t i, const Run& run) { return i < run.index; });
  --it;
  sector = it->sector + static_cast<uint32_t>(index - it->index);
  return true;
}

void gxdStream::updateReadFill() {
  const uint64_t unit = uint64_t{1} << unitShift();
  uint64_t fill = currentPosition & (unit - 1);
  if (fill == 0 && currentPosition > 0) fill = unit;
  bufferFill = static_cast<uint16_t>(std::min<uint64_t>(fill, kBlockSize));
}

gxResult gxdStream::failRead() {
  compoundFile->fileStream->setstate(std::ios::failbit);
  updateReadFill();
  return GX_E_FAIL;
}

gxResult gxdStream::read(void* data, uint64_t count, uint64_t* done) {
  if (done != nullptr) *done = 0;
  if (notRewound || currentPosition >= entry.size) return GX_S_FALSE;
  std::iostream* file = compoundFile->fileStream;
  if (file->eof()) return GX_S_OK;
  if (file->fail()) return GX_E_FAIL;
  count = std::min(count, entry.size - currentPosition);

  const uint32_t shift = unitShift();
  const uint64_t unit = uint64_t{1} << shift;
  uint8_t* out = static_cast<uint8_t*>(data);
  uint64_t total = 0;
  while (count > 0) {
    const uint64_t index = currentPosition >> shift;
    const uint64_t within = currentPosition & (unit - 1);
    uint32_t sector;
    if (!sectorAt(index, sector)) return failRead();
    uint64_t n = std::min(count, unit - within);
    if (inMiniStream) {
      const uint64_t from = (static_cast<uint64_t>(sector) << shift) + within;
      if (from + n > compoundFile->miniStream.size()) return failRead();
      std::memcpy(out, compoundFile->miniStream.data() + from,
                  static_cast<size_t>(n));
    } else {
      // Consecutive sectors are transferred with one read; the shared file
      // stream is positioned at this stream's own offset every time, so
      // streams of one file may be read in turns.
      uint32_t following;
      for (uint64_t k = 1; n < count && sectorAt(index + k, following) &&
                           following == sector + k;
           ++k)
        n += std::min(count - n, unit);
      file->seekg(static_cast<std::streamoff>(
          sectorOffset(sector, compoundFile->header.sectorShift) + within));
      file->read(reinterpret_cast<char*>(out), static_cast<std::streamsize>(n));
      if (file->eof()) return GX_S_OK;
      if (file->fail()) return GX_E_FAIL;
    }
    out += n;
    count -= n;
    currentPosition += n;
    total += n;
  }
  updateReadFill();
  if (done != nullptr) *done = total;
  return GX_S_OK;
}

void gxdStream::setPosition(uint64_t target) {
  rewind();
  if (failed || notRewound) return;
  std::iostream* file = compoundFile->fileStream;
  if (file->eof() || file->fail()) return;
  const uint64_t to = std::min(target, entry.size);
  if (to > 0) {
    // Reading forward to `to` would take every sector up to the one holding
    // its last byte; a chain that breaks before it fails as that read would.
    const uint32_t shift = unitShift();
    uint32_t sector;
    if (!sectorAt((to - 1) >> shift, sector)) {
      currentPosition = std::min<uint64_t>(to, chainLength_ << shift);
      failRead();
      return;
    }
  }
  currentPosition = to;
  updateReadFill();
}

gxResult gxdStream::write(const void* data, uint64_t count, uint64_t* written) {
  // Nothing wraps: a stream stays below 4 GiB and the temporary file below
  // its limit, refused before anything changes.
  if (count > kMaxStreamSize - std::min(currentPosition, kMaxStreamSize))
    return GX_E_FAIL;
  if (compoundFile != nullptr && compoundFile->tempStream != nullptr &&
      count > 0) {
    const uint64_t blocksNeeded = (bufferFill + count - 1) / kBlockSize;
    if (blocksNeeded > compoundFile->tempBlocksLeft()) return GX_E_FAIL;
  }
  const uint8_t* in = static_cast<const uint8_t*>(data);
  uint64_t total = 0;
  if (!buffer && count > 0) buffer.reset(new uint8_t[kBlockSize]());
  while (count > 0) {
    if (bufferFill == kBlockSize) {
      uint32_t k = compoundFile != nullptr
                       ? compoundFile->writeTempBlock(buffer.get())
                       : 0xFFFFFFFFu;
      if (static_cast<int32_t>(k) < 0) return GX_E_FAIL;
      tempBlocks.push_back(k);
      bufferFill = 0;
    }
    if (bufferFill == 0 && count > kBlockSize && compoundFile != nullptr &&
        compoundFile->tempStream != nullptr) {
      // Whole blocks go straight to the temporary file; the last block of
      // the call stays in the buffer, as if it had been copied block by
      // block.
      const uint32_t blocks = static_cast<uint32_t>((count - 1) / kBlockSize);
      uint32_t k = compoundFile->writeTempBlocks(in, blocks);
      if (static_cast<int32_t>(k) < 0) return GX_E_FAIL;
      pdTableReserve(tempBlocks, tempBlocks.size() + blocks);
      for (uint32_t b = 0; b < blocks; ++b) tempBlocks.push_back(k + b);
      const uint64_t n = uint64_t{blocks} * kBlockSize;
      // The buffer ends up holding the last whole block, as it would after
      // block-by-block copying; a later flush of a partly refilled buffer
      // writes those bytes past the fill.
      std::memcpy(buffer.get(), in + n - kBlockSize, kBlockSize);
      in += n;
      count -= n;
      currentPosition += n;
      total += n;
      continue;
    }
    const uint64_t n = std::min<uint64_t>(count, kBlockSize - bufferFill);
    std::memcpy(buffer.get() + bufferFill, in, static_cast<size_t>(n));
    in += n;
    count -= n;
    currentPosition += n;
    bufferFill = static_cast<uint16_t>(bufferFill + n);
    total += n;
  }
  if (written != nullptr) *written = total;
  if (entry.sizeLow() == 0 && currentPosition != 0 && compoundFile != nullptr) {
    gxdChangeRecord record;
    record.kind = gxdChangeRecord::kStreamWritten;
    record.first = &entry;
    record.second = &tempBlocks;
    compoundFile->pendingChanges.push_back(record);
  }
  entry.setSizeLow(static_cast<uint32_t>(currentPosition));
  return GX_S_OK;
}

void gxdStream::flush() {
  if (bufferFill == 0 || compoundFile == nullptr || !buffer) return;
  uint32_t k = compoundFile->writeTempBlock(buffer.get());
  if (static_cast<int32_t>(k) < 0) return;
  tempBlocks.push_back(k);
  bufferFill = 0;
}
