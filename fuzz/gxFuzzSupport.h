// Helpers shared by the fuzz targets: a scratch file per process, the
// resource checks every open must pass, and an abort that names what broke.
#ifndef GXSTORAGE_FUZZ_GXFUZZSUPPORT_H_
#define GXSTORAGE_FUZZ_GXFUZZSUPPORT_H_

#include <sanitizer/allocator_interface.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <set>
#include <string>
#include <vector>

// Stops the run with a message; libFuzzer records the input as a crash.
[[noreturn]] inline void gxFuzzFail(const char* what) {
  std::fprintf(stderr, "gxfuzz: %s\n", what);
  std::abort();
}

#define GXFUZZ_CHECK(cond)                                                 \
  do {                                                                     \
    if (!(cond))                                                           \
      gxFuzzFail("check failed: " #cond " at line " GXFUZZ_STR(__LINE__)); \
  } while (0)
#define GXFUZZ_STR2(x) #x
#define GXFUZZ_STR(x) GXFUZZ_STR2(x)

// A path in a directory of this process under $TMPDIR (or /tmp), made once.
// `leaf` may carry an extension; the portable backend derives its temporary
// file's name from it.
inline std::string gxFuzzPath(const char* leaf) {
  static std::string dir;
  if (dir.empty()) {
    const char* base = std::getenv("TMPDIR");
    dir = std::string(base != nullptr && *base != 0 ? base : "/tmp") +
          "/gxfuzz-" + std::to_string(static_cast<long>(getpid()));
    std::string cmd = "mkdir -p '" + dir + "'";
    if (std::system(cmd.c_str()) != 0) gxFuzzFail("cannot make scratch dir");
  }
  return dir + "/" + leaf;
}

inline std::u16string gxFuzzWide(const std::string& s) {
  return std::u16string(s.begin(), s.end());
}

inline std::vector<unsigned short> gxFuzzUnits(const std::string& s) {
  std::vector<unsigned short> units(s.begin(), s.end());
  units.push_back(0);
  return units;
}

inline void gxFuzzWriteFile(const std::string& path, const uint8_t* data,
                            size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data),
            static_cast<std::streamsize>(size));
  if (!out) gxFuzzFail("cannot write scratch file");
}

// Resource bounds of one open: an input of at most 1 MiB must load in under
// a second of CPU time (GXFUZZ_OPEN_LIMIT_MS overrides) and leave less than
// 256 MiB, and less than eight times its own size plus 1 MiB, of heap behind.
// Single allocations above 256 MiB are caught by libFuzzer's -malloc_limit_mb.
class gxFuzzOpenBudget {
 public:
  explicit gxFuzzOpenBudget(size_t inputSize)
      : inputSize_(inputSize),
        start_(std::clock()),
        heapBefore_(__sanitizer_get_current_allocated_bytes()) {}

  void check() const {
    if (inputSize_ > (1u << 20)) return;
    static const double limitMs = [] {
      const char* v = std::getenv("GXFUZZ_OPEN_LIMIT_MS");
      return v != nullptr ? std::atof(v) : 1000.0;
    }();
    const double ms =
        1000.0 * static_cast<double>(std::clock() - start_) / CLOCKS_PER_SEC;
    if (ms > limitMs) gxFuzzFail("open took longer than its time budget");
    const size_t heap = __sanitizer_get_current_allocated_bytes();
    const size_t grown = heap > heapBefore_ ? heap - heapBefore_ : 0;
    if (grown > (size_t{256} << 20))
      gxFuzzFail("open kept more than 256 MiB of heap");
    // The loaded tables, tree and mini stream are bounded by what the file
    // holds; counts in the header must not make them larger.
    if (grown > 8 * inputSize_ + (size_t{1} << 20))
      gxFuzzFail("open kept more heap than eight times the file's size");
  }

 private:
  size_t inputSize_;
  std::clock_t start_;
  size_t heapBefore_;
};

// Storage paths that a lookup by name cannot reach as listed. Lookups find
// the first sibling of a name, so when a storage's name appears twice under
// one parent, the elements listed below that path may belong to the second
// sibling and be missing from the first: opening them may fail with
// STG_E_FILENOTFOUND.
class gxFuzzShadowedPaths {
 public:
  typedef std::vector<std::u16string> Path;
  void add(const Path& path) { paths_.insert(path); }
  // True when `path` or one of its leading parts was added.
  bool covers(const Path& path) const {
    for (size_t n = 1; n <= path.size(); ++n)
      if (paths_.count(Path(path.begin(), path.begin() + n)) != 0) return true;
    return false;
  }

 private:
  std::set<Path> paths_;
};

// Consumes the input from the front, a byte or a small integer at a time;
// exhausted input yields zeros.
class gxFuzzReader {
 public:
  gxFuzzReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return at_ >= size_; }
  uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
  uint32_t u16() { return byte() | (uint32_t{byte()} << 8); }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

#endif  // GXSTORAGE_FUZZ_GXFUZZSUPPORT_H_
