#include "python/src/gxpyFileBuf.h"

#include <algorithm>
#include <cstring>

gxpyFileBuf::gxpyFileBuf(std::unique_ptr<pdFile> file)
    : file_(std::move(file)) {
  setg(&empty_, &empty_, &empty_);
}

void gxpyFileBuf::dropBlocks() {
  moveTo(position());
  setg(&empty_, &empty_, &empty_);
  blocks_.clear();
  loadOrder_.clear();
}

void gxpyFileBuf::moveTo(uint64_t offset) {
  const uint64_t loaded = static_cast<uint64_t>(egptr() - eback());
  if (offset >= blockStart_ && offset < blockStart_ + loaded) {
    setg(eback(), eback() + (offset - blockStart_), egptr());
  } else {
    blockStart_ = offset;
    setg(&empty_, &empty_, &empty_);  // the next read finds the block
  }
}

bool gxpyFileBuf::load(Block& block, uint64_t start, uint64_t at) {
  const bool near =
      lastRead_ != UINT64_MAX &&
      (at > lastRead_ ? at - lastRead_ : lastRead_ - at) < kBlockSize / 2;
  const size_t page = static_cast<size_t>((at - start) / kPageSize);
  const size_t from = near ? 0 : page;
  const size_t to = near ? kBlockSize / kPageSize : page + 1;
  const int64_t got = file_->readAt(start + from * kPageSize,
                                    block.bytes.get() + from * kPageSize,
                                    (to - from) * kPageSize);
  if (got <= 0) return false;
  const size_t end = from * kPageSize + static_cast<size_t>(got);
  if (got < static_cast<int64_t>((to - from) * kPageSize))
    block.size = end;  // the end of the file
  for (size_t p = from; p < to && p * kPageSize < end; ++p)
    block.pages = static_cast<uint16_t>(block.pages | (1u << p));
  return at < start + end;
}

gxpyFileBuf::int_type gxpyFileBuf::underflow() {
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  const uint64_t at = position();
  const uint64_t start = at - at % kBlockSize;
  auto found = blocks_.find(start);
  if (found == blocks_.end()) {
    while (!loadOrder_.empty() &&
           (blocks_.size() + 1) * kBlockSize > kBlockBudget) {
      blocks_.erase(loadOrder_.front());
      loadOrder_.pop_front();
    }
    found = blocks_.emplace(start, Block()).first;
    loadOrder_.push_back(start);
  }
  Block& block = found->second;
  size_t page = static_cast<size_t>((at - start) / kPageSize);
  if (at - start >= block.size ||
      (!(block.pages & (1u << page)) && !load(block, start, at))) {
    moveTo(at);
    return traits_type::eof();
  }
  // The get area: the run of present pages around `at`.
  size_t first = page, last = page + 1;
  while (first > 0 && (block.pages & (1u << (first - 1)))) --first;
  while (last < kBlockSize / kPageSize && (block.pages & (1u << last))) ++last;
  char* base = block.bytes.get();
  const size_t end = std::min(last * kPageSize, block.size);
  blockStart_ = start + first * kPageSize;
  setg(base + first * kPageSize, base + (at - start), base + end);
  return traits_type::to_int_type(*gptr());
}

std::streamsize gxpyFileBuf::xsgetn(char* data, std::streamsize count) {
  const uint64_t start = position();
  std::streamsize done = 0;
  while (done < count) {
    const std::streamsize ready = egptr() - gptr();
    if (ready > 0) {
      const std::streamsize n = std::min(ready, count - done);
      std::memcpy(data + done, gptr(), static_cast<size_t>(n));
      gbump(static_cast<int>(n));
      done += n;
      continue;
    }
    const uint64_t left = static_cast<uint64_t>(count - done);
    if (left >= kBlockSize) {
      const uint64_t at = position();
      const int64_t got = file_->readAt(at, data + done, left);
      if (got <= 0) break;
      done += got;
      moveTo(at + static_cast<uint64_t>(got));
      if (static_cast<uint64_t>(got) < left) break;
      continue;
    }
    if (traits_type::eq_int_type(underflow(), traits_type::eof())) break;
  }
  lastRead_ = start;
  return done;
}

gxpyFileBuf::pos_type gxpyFileBuf::seekoff(off_type offset,
                                           std::ios_base::seekdir from,
                                           std::ios_base::openmode which) {
  if (!(which & std::ios_base::in)) return pos_type(off_type(-1));
  int64_t base = 0;
  if (from == std::ios_base::cur) {
    base = static_cast<int64_t>(position());
  } else if (from == std::ios_base::end) {
    uint64_t length = 0;
    if (!file_->size(length)) return pos_type(off_type(-1));
    base = static_cast<int64_t>(length);
  }
  const int64_t target = base + static_cast<int64_t>(offset);
  if (target < 0) return pos_type(off_type(-1));
  moveTo(static_cast<uint64_t>(target));
  return pos_type(off_type(target));
}

gxpyFileBuf::pos_type gxpyFileBuf::seekpos(pos_type position,
                                           std::ios_base::openmode which) {
  return seekoff(off_type(position), std::ios_base::beg, which);
}
