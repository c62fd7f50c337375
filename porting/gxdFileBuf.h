// A file opened through the host's own calls, as the std::streambuf under
// the engine's byte streams. Every transfer names its offset, so positioning
// costs no system call; reads go straight into the caller's memory; writes
// gather in a buffer until a seek elsewhere, a read, a flush or the close;
// and two such files can copy a range between them inside the kernel.
#ifndef GXSTORAGE_PORTING_GXDFILEBUF_H_
#define GXSTORAGE_PORTING_GXDFILEBUF_H_

#include <cstdint>
#include <iostream>
#include <streambuf>
#include <vector>

class pdFileBuf : public std::streambuf {
 public:
  pdFileBuf() = default;
  pdFileBuf(const pdFileBuf&) = delete;
  pdFileBuf& operator=(const pdFileBuf&) = delete;
  // Writes out what the buffer holds and closes the file.
  ~pdFileBuf() override;

  // Opens the zero-terminated UTF-16 `path` in one of the pdOpenFile modes;
  // false when it cannot be opened or a file is open already.
  bool open(const char16_t* path, int mode);
  bool isOpen() const;

  // Copies `size` bytes at offset `from` of `source` to offset `to` of
  // `target`, after writing out what both buffers hold; the positions of
  // both stay. True when every byte arrived; false when the source ended
  // first or a transfer failed.
  static bool copyRange(pdFileBuf& source, uint64_t from, pdFileBuf& target,
                        uint64_t to, uint64_t size);

 protected:
  std::streamsize xsgetn(char* data, std::streamsize count) override;
  int_type underflow() override;
  int_type uflow() override;
  std::streamsize xsputn(const char* data, std::streamsize count) override;
  int_type overflow(int_type c) override;
  pos_type seekoff(off_type offset, std::ios_base::seekdir way,
                   std::ios_base::openmode which) override;
  pos_type seekpos(pos_type position, std::ios_base::openmode which) override;
  int sync() override;

 private:
  // Writes out the buffered bytes; false (the bytes dropped) on failure.
  bool writeBuffered();

  intptr_t handle_ = -1;
  uint64_t position_ = 0;          // where the next transfer begins
  uint64_t bufferStart_ = 0;       // file offset of writeBuffer_[0]
  std::vector<char> writeBuffer_;  // bytes written but not yet handed over
  bool writeFailed_ = false;       // a write failed; later ones fail too
};

// A std::iostream over a pdFileBuf it owns: what the engine reads and writes.
class pdFileStream : public std::iostream {
 public:
  pdFileStream() : std::iostream(nullptr) { rdbuf(&file_); }
  pdFileBuf& file() { return file_; }

 private:
  pdFileBuf file_;
};

// Copies `size` bytes at `from` of `source` to `to` of `target` when both
// streams stand on host files: 1 when every byte arrived, 0 when the copy
// failed, -1 when either stream is not a host file (nothing was done; the
// caller copies through its own reads and writes).
int pdCopyBetweenFiles(std::iostream& source, uint64_t from,
                       std::iostream& target, uint64_t to, uint64_t size);

#endif  // GXSTORAGE_PORTING_GXDFILEBUF_H_
