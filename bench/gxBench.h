// Shared pieces of the benchmark: the workloads' data (deterministic
// pseudo-random bytes that any byte range of can be regenerated, so nothing
// keeps a whole stream in memory), the scratch file names, and the timer
// that accumulates only the time spent in the code being measured.
#ifndef GXSTORAGE_BENCH_GXBENCH_H_
#define GXSTORAGE_BENCH_GXBENCH_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace gxbench {

// ---- Workload parameters ----------------------------------------------
// W1 stream size: 256 MiB unless --large-mib says otherwise (used to show
// how peak memory follows the stream size).
extern uint64_t kLargeSize;
constexpr size_t kLargeChunk = 64 << 10;  // W1/W3 transfers: 64 KiB
constexpr uint32_t kSmallCount = 10000;   // W2 streams
constexpr uint32_t kStorageCount = 100;   // W2 storages
constexpr uint32_t kSmallMax = 4000;      // W2 sizes are 1..kSmallMax
constexpr uint32_t kRandomReads = 10000;  // W6 reads
constexpr size_t kRandomSize = 4096;      // W6 read size
constexpr uint64_t kLargeSeed = 0x6C61726765ull;
constexpr uint64_t kSmallSeed = 0x736D616C6Cull;
constexpr uint64_t kOffsetSeed = 0x72616E646Full;
// W5 opens the W2 file and reads this stream (the last one written).
constexpr uint32_t kProbeStream = kSmallCount - 1;

// ---- Data ---------------------------------------------------------------
// Byte p of data set `seed` is byte (p % 8) of the 64-bit word
// mix(seed, p / 8), in memory order. Any range can be produced on its own.
uint64_t mix(uint64_t seed, uint64_t word);
void fillBytes(uint64_t seed, uint64_t offset, uint8_t* out, size_t n);
// True when `data` equals bytes [offset, offset + n) of data set `seed`;
// `scratch` is resized and used for the expected bytes.
bool checkBytes(uint64_t seed, uint64_t offset, const uint8_t* data, size_t n,
                std::vector<uint8_t>& scratch);

// The small streams of W2: stream j lives in storage j / (count / storages),
// has sizes[j] bytes, and holds bytes [offsets[j], offsets[j] + sizes[j]) of
// data set kSmallSeed (so the streams laid end to end form one plain file).
struct SmallSet {
  std::vector<uint32_t> sizes;
  std::vector<uint64_t> offsets;
  uint64_t totalBytes = 0;
  static const SmallSet& get();
  static uint32_t storageOf(uint32_t stream) {
    return stream / (kSmallCount / kStorageCount);
  }
  static std::string storageName(uint32_t storage);
  static std::string streamName(uint32_t stream);
};

// W6 offsets into the W1 stream, each leaving room for a whole read.
const std::vector<uint64_t>& randomOffsets();

// ---- Scratch files -------------------------------------------------------
struct Paths {
  std::string dir;
  // The read workloads read the files libgsf wrote (as a user reads files
  // other programs made) when true, else the files our library wrote.
  bool gsfInputs = false;
  std::string file(const char* name) const { return dir + "/" + name; }
  // Inputs made once by the preparation step.
  std::string ownLarge() const { return file("w1.gxs"); }      // ours, W1 data
  std::string ownSmall() const { return file("w2.gxs"); }      // ours, W2 data
  std::string gsfLarge() const { return file("w1-gsf.gxs"); }  // libgsf's
  std::string gsfSmall() const { return file("w2-gsf.gxs"); }
  std::string largeRaw() const { return file("w1.raw"); }  // plain W1 data
  std::string smallRaw() const { return file("w2.raw"); }  // W2 end to end
  // What W3/W6 and W4/W5 read.
  std::string largeFile() const { return gsfInputs ? gsfLarge() : ownLarge(); }
  std::string smallFile() const { return gsfInputs ? gsfSmall() : ownSmall(); }
  // Outputs of the write workloads (and "floor.tmp" beside the floor's),
  // removed before every iteration.
  std::string output(const char* impl) const {
    return file((std::string("out-") + impl + ".gxs").c_str());
  }
};

// Removes a file and the temporary block file our library leaves beside a
// file it created (same name, extension replaced by ".$t$").
void removeOutput(const std::string& path);
std::string tempFileOf(const std::string& path);
std::u16string widen(const std::string& s);

// ---- Timing --------------------------------------------------------------
// Accumulates the wall time between start() and stop(); data generation and
// verification happen outside, so only the measured code counts.
class Timer {
 public:
  void start() { began_ = Clock::now(); }
  void stop() {
    total_ += std::chrono::duration<double>(Clock::now() - began_).count();
  }
  double seconds() const { return total_; }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point began_;
  double total_ = 0;
};

// ---- Workloads -------------------------------------------------------------
// One run of a workload by one implementation. `portable` selects our
// library's backend (the flag of gxStgOpenStorage / gxStgCreateStorage); the
// other implementations ignore it. Returns false with a message on any
// failure, a byte mismatch included; `seconds` gets the timed part.
using WorkloadFn = bool (*)(const Paths& paths, bool portable, double* seconds,
                            std::string* error);

struct Implementation {
  const char* name;   // "ours", "limit", "libgsf"
  WorkloadFn run[6];  // W1..W6; null when not provided
};

const Implementation& oursImplementation();
const Implementation& limitImplementation();
// The floor of W1 for a writer that keeps every byte in a temporary file
// first: the plain write of the stream, then an in-kernel copy of the same
// bytes (copy_file_range) in the 127-sector runs that the format leaves
// between FAT sectors. Only W1 is provided.
const Implementation& floorImplementation();
// Null when the benchmark was built without libgsf.
const Implementation* gsfImplementation();

// Preparation, run once before the read workloads: the W1 and W2 files
// through our library and through libgsf (when built in), their plain twins,
// and the cross-checks: our files read by libgsf, libgsf's read by ours.
bool prepareOurs(const Paths& paths, std::string* error);
bool prepareLimit(const Paths& paths, std::string* error);
bool prepareGsf(const Paths& paths, std::string* error);
bool verifyWithGsf(const Paths& paths, std::string* error);
// Reads a W1 / W2 layout file back through our library's portable backend
// and compares every byte (used to check the outputs of the write workloads).
bool verifyLargeWithOurs(const std::string& path, std::string* error);
bool verifySmallWithOurs(const std::string& path, std::string* error);

// The answer of our library's backend to a create and an open of a scratch
// file: 0 when it works, else the first failing result (E_NOTIMPL where the
// host has no such backend).
int32_t probeBackend(const Paths& paths, bool portable);

}  // namespace gxbench

#endif  // GXSTORAGE_BENCH_GXBENCH_H_
