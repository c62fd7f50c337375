// A read-only stream buffer over a file read at explicit offsets, for the
// portable engine's loader. Seeking costs no system call, and reads are
// served from 64 KiB blocks kept in memory (up to a budget): the loader
// reads each table (FAT, MiniFAT, directory, mini stream) sector by sector,
// each after a seek, and in a file that grew by appending, the sectors of
// every table are spread over the same stretch of the file. A block is
// read whole when the reads come close together, else one 4 KiB page of it
// (the FAT sectors of a large file stand 64 KiB from each other, and
// nothing else is read near them). Reads of a block or more go straight to
// the caller's memory.
#ifndef GXSTORAGE_PYTHON_GXPYFILEBUF_H_
#define GXSTORAGE_PYTHON_GXPYFILEBUF_H_

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <streambuf>

#include "porting/gxdFile.h"

class gxpyFileBuf : public std::streambuf {
 public:
  explicit gxpyFileBuf(std::unique_ptr<pdFile> file);
  gxpyFileBuf(const gxpyFileBuf&) = delete;
  gxpyFileBuf& operator=(const gxpyFileBuf&) = delete;

  // Reads up to `size` bytes at `offset`, bypassing the blocks; the count
  // read (short only at the end of the file) or -1 on an error.
  int64_t readAt(uint64_t offset, void* data, size_t size) {
    return file_->readAt(offset, data, size);
  }
  // Frees the blocks (the loader is done); later reads load them again.
  void dropBlocks();

  static constexpr size_t kBlockSize = 64 * 1024;
  static constexpr size_t kPageSize = 4 * 1024;
  static constexpr size_t kBlockBudget = 64u << 20;  // bytes kept at most

 protected:
  int_type underflow() override;
  std::streamsize xsgetn(char* data, std::streamsize count) override;
  pos_type seekoff(off_type offset, std::ios_base::seekdir from,
                   std::ios_base::openmode which) override;
  pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

 private:
  // The file offset of the next byte to deliver.
  uint64_t position() const {
    return blockStart_ + static_cast<uint64_t>(gptr() - eback());
  }
  // Moves to `offset`, keeping the current block when it holds that byte.
  void moveTo(uint64_t offset);

  struct Block {
    // kBlockSize bytes, allocated without being cleared: only the pages
    // read are touched.
    std::unique_ptr<char[]> bytes{new char[kBlockSize]};
    size_t size = kBlockSize;  // fewer at the end of the file
    uint16_t pages = 0;        // bit p: page p has been read
  };
  // Makes the page holding `at` (or the whole block) present; false at the
  // end of the file or on an error.
  bool load(Block& block, uint64_t start, uint64_t at);

  std::unique_ptr<pdFile> file_;
  std::map<uint64_t, Block> blocks_;  // by file offset
  std::deque<uint64_t> loadOrder_;    // oldest first, for eviction
  uint64_t blockStart_ = 0;           // file offset of eback()
  uint64_t lastRead_ = UINT64_MAX;    // where the previous read started
  char empty_ = 0;                    // an empty get area points here
};

#endif  // GXSTORAGE_PYTHON_GXPYFILEBUF_H_
