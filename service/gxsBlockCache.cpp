// The block cache of small reads (see gxsBlockCache.h). Only whole blocks
// are kept: the block holding the end of the file is read each time, so a
// write that grows the file never leaves a kept block short.
#include "service/gxsBlockCache.h"

#include <algorithm>
#include <cstring>

#include "porting/gxdTable.h"

int64_t gxsBlockCache::readCached(uint64_t offset, void* data, size_t size,
                                  uint64_t length) {
  auto* out = static_cast<uint8_t*>(data);
  size_t done = 0;
  while (done < size) {
    const uint64_t at = offset + done;
    const uint64_t index = at / kBlock;
    const size_t from = static_cast<size_t>(at - index * kBlock);
    auto it = blocks_.find(index);
    if (it == blocks_.end()) {
      if (handedOut_ == kMaxBlocks) clear();
      uint8_t* block = newBlock();
      const int64_t got = file_->readAt(index * kBlock, block, kBlock);
      if (got < 0) return -1;
      if (static_cast<uint64_t>(got) < kBlock) {  // the end of the file
        const size_t have = static_cast<size_t>(got);
        --handedOut_, --slabUsed_;  // not kept: carve it again next time
        if (index * kBlock + have < length) return -1;
        const size_t n = from < have ? std::min(size - done, have - from) : 0;
        std::memcpy(out + done, block + from, n);
        return static_cast<int64_t>(done + n);
      }
      it = blocks_.emplace(index, block).first;
    }
    const size_t n = std::min<size_t>(size - done, kBlock - from);
    std::memcpy(out + done, it->second + from, n);
    done += n;
  }
  return static_cast<int64_t>(done);
}

bool gxsBlockCache::writeAt(uint64_t offset, const void* data, size_t size) {
  const bool ok = file_->writeAt(offset, data, size);
  if (blocks_.empty()) return ok;
  if (!ok) {
    drop(offset, size);
    return false;
  }
  const auto* in = static_cast<const uint8_t*>(data);
  forEachKept(offset, size, [&](uint64_t index, uint8_t* block) {
    const uint64_t start = std::max(offset, index * kBlock);
    const uint64_t end =
        std::min<uint64_t>(offset + size, (index + 1) * kBlock);
    std::memcpy(block + (start - index * kBlock), in + (start - offset),
                static_cast<size_t>(end - start));
  });
  return true;
}

bool gxsBlockCache::truncate(uint64_t bytes) {
  for (auto it = blocks_.begin(); it != blocks_.end();)
    it = (it->first + 1) * kBlock > bytes ? blocks_.erase(it) : std::next(it);
  return file_->truncate(bytes);
}

bool gxsBlockCache::zeroRange(uint64_t offset, uint64_t bytes) {
  drop(offset, bytes);
  return file_->zeroRange(offset, bytes);
}

void gxsBlockCache::drop(uint64_t offset, uint64_t size) {
  std::vector<uint64_t> gone;
  forEachKept(offset, size,
              [&](uint64_t index, uint8_t*) { gone.push_back(index); });
  for (uint64_t index : gone) blocks_.erase(index);
}

// Calls `use(index, bytes)` for each kept block that [offset, offset + size)
// touches, walking whichever is shorter: the range or the kept blocks.
template <typename Use>
void gxsBlockCache::forEachKept(uint64_t offset, uint64_t size, Use use) {
  if (size == 0 || blocks_.empty()) return;
  const uint64_t first = offset / kBlock;
  const uint64_t last = (offset + size - 1) / kBlock;
  if (last - first < blocks_.size()) {
    for (uint64_t index = first; index <= last; ++index) {
      auto it = blocks_.find(index);
      if (it != blocks_.end()) use(index, it->second);
    }
    return;
  }
  for (auto& [index, bytes] : blocks_)
    if (index >= first && index <= last) use(index, bytes);
}

uint8_t* gxsBlockCache::newBlock() {
  if (slabs_.empty() || slabUsed_ == slabs_.back().second) {
    const size_t blocks = std::min(kSlabBlocks, size_t{1} << slabs_.size());
    slabs_.emplace_back(static_cast<uint8_t*>(pdTableAllocate(blocks * kBlock)),
                        blocks);
    slabUsed_ = 0;
  }
  ++handedOut_;
  return slabs_.back().first + slabUsed_++ * kBlock;
}

void gxsBlockCache::clear() {
  blocks_.clear();
  for (auto& [slab, blocks] : slabs_) pdTableFree(slab, blocks * kBlock);
  slabs_.clear();
  slabUsed_ = handedOut_ = 0;
}
