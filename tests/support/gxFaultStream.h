// In-memory byte streams for tests, with injectable faults: a stream that
// fails after N bytes, or whose seeks fail. They stand where the library
// expects a std::iostream (the engine's file and temporary streams), so I/O
// errors are tested without touching the disk. Only the block transfers and
// seeks the library uses are served: read, write, seekg, seekp, tellg.
#ifndef GXSTORAGE_TESTS_SUPPORT_GXFAULTSTREAM_H_
#define GXSTORAGE_TESTS_SUPPORT_GXFAULTSTREAM_H_

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <streambuf>
#include <string>

class gxFaultBuf : public std::streambuf {
 public:
  explicit gxFaultBuf(std::string data) : data_(std::move(data)) {}

  // After this many bytes have been transferred (read and written together),
  // every further transfer fails. UINT64_MAX: never.
  uint64_t failAfter = UINT64_MAX;
  // When set, seeks fail.
  bool refuseSeeks = false;

  std::string& data() { return data_; }
  uint64_t transferred() const { return transferred_; }

 protected:
  std::streamsize xsgetn(char* s, std::streamsize n) override {
    const size_t avail = pos_ < data_.size() ? data_.size() - pos_ : 0;
    return transfer(std::min<uint64_t>(n, avail),
                    [&](size_t k) { data_.copy(s, k, pos_); });
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    return transfer(n, [&](size_t k) {
      if (pos_ + k > data_.size()) data_.resize(pos_ + k);
      data_.replace(pos_, k, s, k);
    });
  }
  pos_type seekoff(off_type off, std::ios_base::seekdir dir,
                   std::ios_base::openmode) override {
    const off_type base = dir == std::ios_base::beg   ? 0
                          : dir == std::ios_base::cur ? off_type(pos_)
                                                      : off_type(data_.size());
    if (refuseSeeks || base + off < 0) return pos_type(off_type(-1));
    // Positions past the end are allowed for writing; the gap reads as zeros.
    pos_ = static_cast<size_t>(base + off);
    if (pos_ > data_.size()) data_.resize(pos_);
    return pos_type(base + off);
  }
  pos_type seekpos(pos_type p, std::ios_base::openmode which) override {
    return seekoff(off_type(p), std::ios_base::beg, which);
  }

 private:
  // Moves up to `n` bytes within the budget left; `copy(k)` moves k bytes
  // at the current position.
  template <typename Copy>
  std::streamsize transfer(uint64_t n, Copy copy) {
    const uint64_t left =
        failAfter > transferred_ ? failAfter - transferred_ : 0;
    const size_t k = static_cast<size_t>(std::min(n, left));
    copy(k);
    pos_ += k;
    transferred_ += k;
    return static_cast<std::streamsize>(k);
  }

  std::string data_;
  size_t pos_ = 0;
  uint64_t transferred_ = 0;
};

// A std::iostream over a gxFaultBuf it owns.
class gxFaultStream : public std::iostream {
 public:
  explicit gxFaultStream(std::string data = std::string())
      : std::iostream(nullptr), buf_(std::move(data)) {
    rdbuf(&buf_);
  }
  gxFaultBuf& buf() { return buf_; }

 private:
  gxFaultBuf buf_;
};

#endif  // GXSTORAGE_TESTS_SUPPORT_GXFAULTSTREAM_H_
