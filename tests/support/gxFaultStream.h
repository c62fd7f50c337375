// In-memory byte streams for tests, with injectable faults: a stream that
// fails after N bytes, delivers short reads, or refuses writes. They stand
// where the library expects a std::iostream (the engine's file and temporary
// streams), so I/O errors are tested without touching the disk.
#ifndef GXSTORAGE_TESTS_SUPPORT_GXFAULTSTREAM_H_
#define GXSTORAGE_TESTS_SUPPORT_GXFAULTSTREAM_H_

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

class gxFaultBuf : public std::streambuf {
 public:
  explicit gxFaultBuf(std::string data = std::string())
      : data_(std::move(data)) {}

  // After this many bytes have been transferred (read and written together),
  // every further transfer fails. UINT64_MAX: never.
  uint64_t failAfter = UINT64_MAX;
  // When nonzero, a single read delivers at most this many bytes.
  size_t shortReads = 0;
  // When set, writes transfer nothing.
  bool refuseWrites = false;
  // When set, seeks fail.
  bool refuseSeeks = false;

  const std::string& data() const { return data_; }
  std::string& data() { return data_; }
  uint64_t transferred() const { return transferred_; }

 protected:
  std::streamsize xsgetn(char* s, std::streamsize n) override {
    std::streamsize total = 0;
    while (total < n) {
      std::streamsize got = readSome(s + total, n - total);
      if (got <= 0) break;
      total += got;
    }
    return total;
  }
  int_type underflow() override {
    char c;
    if (pos_ >= data_.size() || budget() == 0) return traits_type::eof();
    c = data_[pos_];
    return traits_type::to_int_type(c);
  }
  int_type uflow() override {
    char c;
    if (readSome(&c, 1) != 1) return traits_type::eof();
    return traits_type::to_int_type(c);
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    if (refuseWrites) return 0;
    std::streamsize allowed = static_cast<std::streamsize>(
        std::min<uint64_t>(static_cast<uint64_t>(n), budget()));
    if (pos_ + allowed > data_.size()) data_.resize(pos_ + allowed);
    data_.replace(pos_, allowed, s, allowed);
    pos_ += allowed;
    transferred_ += allowed;
    return allowed;
  }
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return 0;
    char ch = traits_type::to_char_type(c);
    return xsputn(&ch, 1) == 1 ? c : traits_type::eof();
  }
  pos_type seekoff(off_type off, std::ios_base::seekdir dir,
                   std::ios_base::openmode) override {
    if (refuseSeeks) return pos_type(off_type(-1));
    off_type base = dir == std::ios_base::beg ? 0
                    : dir == std::ios_base::cur
                        ? static_cast<off_type>(pos_)
                        : static_cast<off_type>(data_.size());
    off_type target = base + off;
    if (target < 0) return pos_type(off_type(-1));
    // Positions past the end are allowed for writing; the gap reads as zeros.
    if (static_cast<size_t>(target) > data_.size()) data_.resize(target);
    pos_ = static_cast<size_t>(target);
    return pos_type(target);
  }
  pos_type seekpos(pos_type p, std::ios_base::openmode which) override {
    return seekoff(off_type(p), std::ios_base::beg, which);
  }

 private:
  uint64_t budget() const {
    return failAfter > transferred_ ? failAfter - transferred_ : 0;
  }
  std::streamsize readSome(char* s, std::streamsize n) {
    size_t avail = pos_ < data_.size() ? data_.size() - pos_ : 0;
    uint64_t allowed = std::min<uint64_t>(
        std::min<uint64_t>(static_cast<uint64_t>(n), avail), budget());
    if (shortReads != 0) allowed = std::min<uint64_t>(allowed, shortReads);
    data_.copy(s, static_cast<size_t>(allowed), pos_);
    pos_ += allowed;
    transferred_ += allowed;
    return static_cast<std::streamsize>(allowed);
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
