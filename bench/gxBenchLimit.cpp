// The physical limit: the same bytes moved with plain write(), read() and
// pread() in the same chunks, on plain files in the same directory.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "gxBench.h"

namespace gxbench {
namespace {

bool fail(std::string* error, const std::string& what) {
  *error = what;
  return false;
}

bool writeAll(int fd, const uint8_t* data, size_t n) {
  while (n > 0) {
    const ssize_t k = ::write(fd, data, n);
    if (k <= 0) return false;
    data += k;
    n -= static_cast<size_t>(k);
  }
  return true;
}

// Reads up to `n` bytes, fewer only at the end of the file.
size_t readAll(int fd, uint8_t* data, size_t n) {
  size_t total = 0;
  while (total < n) {
    const ssize_t k = ::read(fd, data + total, n - total);
    if (k <= 0) break;
    total += static_cast<size_t>(k);
  }
  return total;
}

int createFile(const std::string& path) {
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
}

bool writeLargeRaw(const std::string& path, Timer& timer, std::string* error) {
  std::vector<uint8_t> chunk(kLargeChunk);
  timer.start();
  const int fd = createFile(path);
  timer.stop();
  if (fd < 0) return fail(error, "create failed");
  bool ok = true;
  for (uint64_t at = 0; ok && at < kLargeSize; at += kLargeChunk) {
    fillBytes(kLargeSeed, at, chunk.data(), chunk.size());
    timer.start();
    ok = writeAll(fd, chunk.data(), chunk.size());
    timer.stop();
  }
  timer.start();
  ok = ::close(fd) == 0 && ok;
  timer.stop();
  return ok || fail(error, "write failed");
}

bool writeSmallRaw(const std::string& path, Timer& timer, std::string* error) {
  const SmallSet& set = SmallSet::get();
  std::vector<uint8_t> data(kSmallMax);
  timer.start();
  const int fd = createFile(path);
  timer.stop();
  if (fd < 0) return fail(error, "create failed");
  bool ok = true;
  for (uint32_t j = 0; ok && j < kSmallCount; ++j) {
    fillBytes(kSmallSeed, set.offsets[j], data.data(), set.sizes[j]);
    timer.start();
    ok = writeAll(fd, data.data(), set.sizes[j]);
    timer.stop();
  }
  timer.start();
  ok = ::close(fd) == 0 && ok;
  timer.stop();
  return ok || fail(error, "write failed");
}

bool readLargeRaw(const std::string& path, Timer& timer, std::string* error) {
  std::vector<uint8_t> chunk(kLargeChunk);
  std::vector<uint8_t> scratch;
  timer.start();
  const int fd = ::open(path.c_str(), O_RDONLY);
  timer.stop();
  if (fd < 0) return fail(error, "open failed");
  uint64_t at = 0;
  bool ok = true;
  for (;;) {
    timer.start();
    const size_t done = readAll(fd, chunk.data(), chunk.size());
    timer.stop();
    if (done == 0) break;
    if (!checkBytes(kLargeSeed, at, chunk.data(), done, scratch)) {
      ok = false;
      break;
    }
    at += done;
  }
  timer.start();
  ::close(fd);
  timer.stop();
  if (!ok) return fail(error, "byte mismatch in the plain large file");
  return at == kLargeSize || fail(error, "plain large file has a wrong size");
}

bool readSmallRaw(const std::string& path, Timer& timer, std::string* error) {
  const SmallSet& set = SmallSet::get();
  std::vector<uint8_t> data(kSmallMax);
  std::vector<uint8_t> scratch;
  timer.start();
  const int fd = ::open(path.c_str(), O_RDONLY);
  timer.stop();
  if (fd < 0) return fail(error, "open failed");
  bool ok = true;
  for (uint32_t j = 0; ok && j < kSmallCount; ++j) {
    timer.start();
    const size_t done = readAll(fd, data.data(), set.sizes[j]);
    timer.stop();
    ok = done == set.sizes[j] &&
         checkBytes(kSmallSeed, set.offsets[j], data.data(), done, scratch);
  }
  timer.start();
  ::close(fd);
  timer.stop();
  return ok || fail(error, "byte mismatch in the plain small file");
}

bool w1(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  const std::string out = paths.output("limit");
  removeOutput(out);
  Timer timer, unused;
  const bool ok =
      writeLargeRaw(out, timer, error) && readLargeRaw(out, unused, error);
  *seconds = timer.seconds();
  removeOutput(out);
  return ok;
}

bool w2(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  const std::string out = paths.output("limit");
  removeOutput(out);
  Timer timer, unused;
  const bool ok =
      writeSmallRaw(out, timer, error) && readSmallRaw(out, unused, error);
  *seconds = timer.seconds();
  removeOutput(out);
  return ok;
}

bool w3(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  Timer timer;
  if (!readLargeRaw(paths.largeRaw(), timer, error)) return false;
  *seconds = timer.seconds();
  return true;
}

bool w4(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  Timer timer;
  if (!readSmallRaw(paths.smallRaw(), timer, error)) return false;
  *seconds = timer.seconds();
  return true;
}

// Time to first byte of a plain file: open it and read the probe stream's
// bytes where they lie.
bool w5(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  const SmallSet& set = SmallSet::get();
  std::vector<uint8_t> data(kSmallMax);
  std::vector<uint8_t> scratch;
  Timer timer;
  timer.start();
  const int fd = ::open(paths.smallRaw().c_str(), O_RDONLY);
  const ssize_t done =
      fd < 0 ? -1
             : ::pread(fd, data.data(), set.sizes[kProbeStream],
                       static_cast<off_t>(set.offsets[kProbeStream]));
  timer.stop();
  if (fd >= 0) ::close(fd);
  if (done != static_cast<ssize_t>(set.sizes[kProbeStream]) ||
      !checkBytes(kSmallSeed, set.offsets[kProbeStream], data.data(),
                  set.sizes[kProbeStream], scratch))
    return fail(error, "byte mismatch in the plain small file");
  *seconds = timer.seconds();
  return true;
}

bool w6(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  std::vector<uint8_t> data(kRandomSize);
  std::vector<uint8_t> scratch;
  const int fd = ::open(paths.largeRaw().c_str(), O_RDONLY);
  if (fd < 0) return fail(error, "open failed");
  Timer timer;
  bool ok = true;
  for (uint64_t offset : randomOffsets()) {
    timer.start();
    const ssize_t done =
        ::pread(fd, data.data(), data.size(), static_cast<off_t>(offset));
    timer.stop();
    if (done != static_cast<ssize_t>(kRandomSize) ||
        !checkBytes(kLargeSeed, offset, data.data(), data.size(), scratch)) {
      ok = false;
      break;
    }
  }
  ::close(fd);
  if (!ok) return fail(error, "byte mismatch at a random offset");
  *seconds = timer.seconds();
  return true;
}

}  // namespace

// Writes the W1 stream to a plain temporary file, then copies it inside the
// kernel to the output in runs of 127 sectors, each placed one sector
// further on, as the data of a large stream is placed between FAT sectors.
bool w1Floor(const Paths& paths, bool /*portable*/, double* seconds,
             std::string* error) {
  const std::string temp = paths.file("floor.tmp");
  const std::string out = paths.output("floor");
  ::unlink(temp.c_str());
  ::unlink(out.c_str());
  Timer timer, unused;
  bool ok = writeLargeRaw(temp, timer, error);
  timer.start();
  const int in = ok ? ::open(temp.c_str(), O_RDONLY) : -1;
  const int fd = ok ? createFile(out) : -1;
  constexpr uint64_t kRun = 127 * 512;
  for (uint64_t at = 0; ok && in >= 0 && fd >= 0 && at < kLargeSize;
       at += kRun) {
    loff_t from = static_cast<loff_t>(at);
    loff_t to = static_cast<loff_t>(at + (at / kRun + 3) * 512);
    size_t left = static_cast<size_t>(std::min(kRun, kLargeSize - at));
    while (ok && left > 0) {
      const ssize_t n = ::copy_file_range(in, &from, fd, &to, left, 0);
      ok = n > 0;
      if (ok) left -= static_cast<size_t>(n);
    }
  }
  ok = in >= 0 && fd >= 0 && ok;
  if (in >= 0) ::close(in);
  if (fd >= 0) ok = ::close(fd) == 0 && ok;
  timer.stop();
  *seconds = timer.seconds();
  ::unlink(temp.c_str());
  ::unlink(out.c_str());
  return ok || fail(error, "copy failed");
}

const Implementation& floorImplementation() {
  static const Implementation impl = {
      "floor", {w1Floor, nullptr, nullptr, nullptr, nullptr, nullptr}};
  return impl;
}

const Implementation& limitImplementation() {
  static const Implementation impl = {"limit", {w1, w2, w3, w4, w5, w6}};
  return impl;
}

bool prepareLimit(const Paths& paths, std::string* error) {
  Timer unused;
  return writeLargeRaw(paths.largeRaw(), unused, error) &&
         writeSmallRaw(paths.smallRaw(), unused, error);
}

}  // namespace gxbench
