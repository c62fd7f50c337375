#include "porting/gxdFileBuf.h"

#include "porting/gxdHost.h"

namespace {
// Writes gather up to this many bytes.
constexpr size_t kWriteBuffer = 128 * 1024;
// A write of this many bytes or more is not copied into the buffer: it goes
// out at once, together with what the buffer holds before it.
constexpr size_t kDirectWrite = 32 * 1024;
}  // namespace

pdFileBuf::~pdFileBuf() {
  writeBuffered();
  pdHostClose(handle_);
}

bool pdFileBuf::open(const char16_t* path, int mode) {
  if (handle_ != kPdNoHandle || path == nullptr) return false;
  handle_ = pdHostOpen(path, mode);
  position_ = 0;
  writeFailed_ = false;
  return handle_ != kPdNoHandle;
}

bool pdFileBuf::isOpen() const { return handle_ != kPdNoHandle; }

bool pdFileBuf::writeBuffered() {
  if (writeBuffer_.empty()) return !writeFailed_;
  const int64_t n = writeFailed_
                        ? -1
                        : pdHostWrite(handle_, bufferStart_,
                                      writeBuffer_.data(), writeBuffer_.size());
  if (n != static_cast<int64_t>(writeBuffer_.size())) writeFailed_ = true;
  writeBuffer_.clear();
  return !writeFailed_;
}

std::streamsize pdFileBuf::xsgetn(char* data, std::streamsize count) {
  if (handle_ == kPdNoHandle || count <= 0 || !writeBuffered()) return 0;
  const int64_t n =
      pdHostRead(handle_, position_, data, static_cast<size_t>(count));
  if (n <= 0) return 0;
  position_ += static_cast<uint64_t>(n);
  return static_cast<std::streamsize>(n);
}

pdFileBuf::int_type pdFileBuf::underflow() {
  char c;
  if (handle_ == kPdNoHandle || !writeBuffered() ||
      pdHostRead(handle_, position_, &c, 1) != 1)
    return traits_type::eof();
  return traits_type::to_int_type(c);
}

pdFileBuf::int_type pdFileBuf::uflow() {
  char c;
  if (xsgetn(&c, 1) != 1) return traits_type::eof();
  return traits_type::to_int_type(c);
}

std::streamsize pdFileBuf::xsputn(const char* data, std::streamsize count) {
  if (handle_ == kPdNoHandle || count <= 0 || writeFailed_) return 0;
  const size_t n = static_cast<size_t>(count);
  const bool follows =
      !writeBuffer_.empty() && position_ == bufferStart_ + writeBuffer_.size();
  if (!writeBuffer_.empty() &&
      (!follows ||
       (n < kDirectWrite && writeBuffer_.size() + n > kWriteBuffer)) &&
      !writeBuffered())
    return 0;
  if (n >= kDirectWrite) {
    int64_t done;
    if (writeBuffer_.empty()) {
      done = pdHostWrite(handle_, position_, data, n);
    } else {
      const size_t held = writeBuffer_.size();
      done = pdHostWriteTwo(handle_, bufferStart_, writeBuffer_.data(), held,
                            data, n);
      writeBuffer_.clear();
      // Bytes of the buffer that did not arrive fail the data after them.
      done = done < static_cast<int64_t>(held)
                 ? -1
                 : done - static_cast<int64_t>(held);
    }
    if (done != static_cast<int64_t>(n)) writeFailed_ = true;
    if (done <= 0) return 0;
    position_ += static_cast<uint64_t>(done);
    return static_cast<std::streamsize>(done);
  }
  if (writeBuffer_.empty()) {
    writeBuffer_.reserve(kWriteBuffer);
    bufferStart_ = position_;
  }
  writeBuffer_.insert(writeBuffer_.end(), data, data + n);
  position_ += n;
  return count;
}

pdFileBuf::int_type pdFileBuf::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return 0;
  const char ch = traits_type::to_char_type(c);
  return xsputn(&ch, 1) == 1 ? c : traits_type::eof();
}

pdFileBuf::pos_type pdFileBuf::seekoff(off_type offset, std::ios_base::seekdir way,
                                 std::ios_base::openmode /*which*/) {
  const pos_type failed = pos_type(off_type(-1));
  if (handle_ == kPdNoHandle) return failed;
  int64_t base = static_cast<int64_t>(position_);
  if (way == std::ios_base::beg) {
    base = 0;
  } else if (way == std::ios_base::end) {
    uint64_t size = 0;
    if (!writeBuffered() || !pdHostSize(handle_, &size)) return failed;
    base = static_cast<int64_t>(size);
  }
  const int64_t target = base + static_cast<int64_t>(offset);
  if (target < 0) return failed;
  position_ = static_cast<uint64_t>(target);
  return pos_type(off_type(target));
}

pdFileBuf::pos_type pdFileBuf::seekpos(pos_type position,
                                 std::ios_base::openmode which) {
  return seekoff(off_type(position), std::ios_base::beg, which);
}

int pdFileBuf::sync() { return writeBuffered() ? 0 : -1; }

bool pdFileBuf::copyRange(pdFileBuf& source, uint64_t from, pdFileBuf& target,
                       uint64_t to, uint64_t size) {
  if (source.handle_ == kPdNoHandle || target.handle_ == kPdNoHandle ||
      !source.writeBuffered() || !target.writeBuffered())
    return false;
  return size == 0 ||
         pdHostCopy(source.handle_, from, target.handle_, to, size);
}

int pdCopyBetweenFiles(std::iostream& source, uint64_t from,
                       std::iostream& target, uint64_t to, uint64_t size) {
  pdFileBuf* in = dynamic_cast<pdFileBuf*>(source.rdbuf());
  pdFileBuf* out = dynamic_cast<pdFileBuf*>(target.rdbuf());
  if (in == nullptr || out == nullptr) return -1;
  return pdFileBuf::copyRange(*in, from, *out, to, size) ? 1 : 0;
}
