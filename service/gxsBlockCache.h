// A file that keeps, in memory, the 32 KiB blocks of the file below it that
// small reads asked for through readCached(). Small streams lie packed in
// the mini stream, so reading many of them costs one read per block instead
// of one or two per stream. Every write, zeroing and truncation passes
// through it and keeps the blocks it holds equal to the file.
#ifndef GXSTORAGE_SERVICE_GXSBLOCKCACHE_H_
#define GXSTORAGE_SERVICE_GXSBLOCKCACHE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "porting/gxdFile.h"

class gxsBlockCache final : public pdFile {
 public:
  explicit gxsBlockCache(std::unique_ptr<pdFile> file)
      : file_(std::move(file)) {}
  ~gxsBlockCache() override { clear(); }
  gxsBlockCache(const gxsBlockCache&) = delete;
  gxsBlockCache& operator=(const gxsBlockCache&) = delete;

  // As readAt(), from the blocks held (reading a missing block whole).
  // `length` is the file's length as the caller knows it: a block that
  // comes up short before it is a failed read, even where the bytes asked
  // for arrived.
  int64_t readCached(uint64_t offset, void* data, size_t size, uint64_t length);

  int64_t readAt(uint64_t offset, void* data, size_t size) override {
    return file_->readAt(offset, data, size);
  }
  bool writeAt(uint64_t offset, const void* data, size_t size) override;
  bool size(uint64_t& bytes) override { return file_->size(bytes); }
  bool truncate(uint64_t bytes) override;
  bool sync(bool dataOnly) override { return file_->sync(dataOnly); }
  bool zeroRange(uint64_t offset, uint64_t bytes) override;
  int lastError() const override { return file_->lastError(); }

 private:
  static constexpr uint64_t kBlock = 32 * 1024;
  // Blocks are carved from slabs of 1, 2, 4, ... up to 64 blocks (2 MiB,
  // in large pages where the host has them: page faults are dear), so that
  // a small file keeps little; at 64 MiB the cache starts over.
  static constexpr size_t kSlabBlocks = 64;
  static constexpr size_t kMaxBlocks = 2048;
  uint8_t* newBlock();
  void clear();
  // Drops the kept blocks that [offset, offset + size) touches.
  void drop(uint64_t offset, uint64_t size);
  template <typename Use>
  void forEachKept(uint64_t offset, uint64_t size, Use use);

  std::unique_ptr<pdFile> file_;
  // Whole blocks inside the file, by index, equal to the file's bytes.
  std::unordered_map<uint64_t, uint8_t*> blocks_;
  std::vector<std::pair<uint8_t*, size_t>> slabs_;  // memory, blocks
  size_t slabUsed_ = 0;   // blocks carved from the last slab
  size_t handedOut_ = 0;  // blocks carved so far (dropped ones included)
};

#endif  // GXSTORAGE_SERVICE_GXSBLOCKCACHE_H_
