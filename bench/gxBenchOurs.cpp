// The workloads through the library's exported interface, on the backend
// the caller names (portable or platform).
#include <unistd.h>

#include <algorithm>

#include "gxBench.h"
#include "gxStorage.h"

namespace gxbench {
namespace {

constexpr const char* kLargeStreamName = "data";

std::vector<unsigned short> units(const std::string& s) {
  std::vector<unsigned short> v(s.begin(), s.end());
  v.push_back(0);
  return v;
}

// Owns a root storage for the length of a scope.
struct Root {
  CGxAbsStorage* storage = nullptr;
  ~Root() { gxStgCloseStorage(storage); }
  void close() {
    gxStgCloseStorage(storage);
    storage = nullptr;
  }
};

bool fail(std::string* error, const std::string& what) {
  *error = what;
  return false;
}

// Creates `path` holding the W1 stream. Only the library calls are timed.
bool writeLarge(const std::string& path, bool portable, Timer& timer,
                std::string* error) {
  std::vector<uint8_t> chunk(kLargeChunk);
  Root root;
  timer.start();
  gxResult r =
      gxStgCreateStorage(units(path).data(), 0x1012, &root.storage, portable);
  CGxAbsStream* stream = nullptr;
  if (r == GX_S_OK)
    r = root.storage->openIStream(units(kLargeStreamName).data(), false,
                                  &stream);
  timer.stop();
  if (r != GX_S_OK) return fail(error, "create failed");
  for (uint64_t at = 0; at < kLargeSize; at += kLargeChunk) {
    fillBytes(kLargeSeed, at, chunk.data(), chunk.size());
    unsigned long long written = 0;
    timer.start();
    stream->write(chunk.data(), chunk.size(), &written);
    timer.stop();
    if (written != chunk.size()) return fail(error, "short write");
  }
  timer.start();
  root.storage->commit();
  root.close();
  timer.stop();
  return true;
}

bool writeSmall(const std::string& path, bool portable, Timer& timer,
                std::string* error) {
  const SmallSet& set = SmallSet::get();
  std::vector<uint8_t> data(kSmallMax);
  Root root;
  timer.start();
  gxResult r =
      gxStgCreateStorage(units(path).data(), 0x1012, &root.storage, portable);
  timer.stop();
  if (r != GX_S_OK) return fail(error, "create failed");
  CGxAbsStorage* storage = nullptr;
  for (uint32_t j = 0; j < kSmallCount; ++j) {
    fillBytes(kSmallSeed, set.offsets[j], data.data(), set.sizes[j]);
    timer.start();
    if (j % (kSmallCount / kStorageCount) == 0)
      r = root.storage->openIStorage(
          units(SmallSet::storageName(SmallSet::storageOf(j))).data(), false,
          &storage);
    CGxAbsStream* stream = nullptr;
    if (r == GX_S_OK)
      r = storage->openIStream(units(SmallSet::streamName(j)).data(), false,
                               &stream);
    unsigned long long written = 0;
    if (r == GX_S_OK) stream->write(data.data(), set.sizes[j], &written);
    timer.stop();
    if (r != GX_S_OK) return fail(error, "create of an element failed");
    if (written != set.sizes[j]) return fail(error, "short write");
  }
  timer.start();
  root.storage->commit();
  root.close();
  timer.stop();
  return true;
}

// Reads the W1 stream of `path` in 64 KiB chunks, checking every byte.
bool readLarge(const std::string& path, bool portable, Timer& timer,
               std::string* error) {
  std::vector<uint8_t> chunk(kLargeChunk);
  std::vector<uint8_t> scratch;
  Root root;
  timer.start();
  gxResult r =
      gxStgOpenStorage(units(path).data(), 0x10, &root.storage, portable);
  CGxAbsStream* stream = nullptr;
  if (r == GX_S_OK)
    r = root.storage->openIStream(units(kLargeStreamName).data(), true,
                                  &stream);
  timer.stop();
  if (r != GX_S_OK) return fail(error, "open failed");
  uint64_t at = 0;
  for (;;) {
    unsigned long long done = 0;
    timer.start();
    stream->read(chunk.data(), chunk.size(), &done);
    timer.stop();
    if (done == 0) break;
    if (!checkBytes(kLargeSeed, at, chunk.data(), done, scratch))
      return fail(error, "byte mismatch in the large stream");
    at += done;
  }
  timer.start();
  root.close();
  timer.stop();
  if (at != kLargeSize) return fail(error, "large stream has a wrong length");
  return true;
}

// Reads every W2 stream of `path` (or only the probe stream), checking
// every byte; with `probeOnly` the timer stops at the first byte delivered.
bool readSmall(const std::string& path, bool portable, bool probeOnly,
               Timer& timer, std::string* error) {
  const SmallSet& set = SmallSet::get();
  std::vector<uint8_t> data(kSmallMax + 1);
  std::vector<uint8_t> scratch;
  Root root;
  timer.start();
  gxResult r =
      gxStgOpenStorage(units(path).data(), 0x10, &root.storage, portable);
  timer.stop();
  if (r != GX_S_OK) return fail(error, "open failed");
  CGxAbsStorage* storage = nullptr;
  for (uint32_t j = probeOnly ? kProbeStream : 0; j < kSmallCount; ++j) {
    timer.start();
    if (probeOnly || j % (kSmallCount / kStorageCount) == 0)
      r = root.storage->openIStorage(
          units(SmallSet::storageName(SmallSet::storageOf(j))).data(), true,
          &storage);
    CGxAbsStream* stream = nullptr;
    if (r == GX_S_OK)
      r = storage->openIStream(units(SmallSet::streamName(j)).data(), true,
                               &stream);
    unsigned long long done = 0;
    if (r == GX_S_OK) stream->read(data.data(), data.size(), &done);
    timer.stop();
    if (r != GX_S_OK) return fail(error, "open of an element failed");
    if (done != set.sizes[j] ||
        !checkBytes(kSmallSeed, set.offsets[j], data.data(), done, scratch))
      return fail(error, "byte mismatch in " + SmallSet::streamName(j));
  }
  if (!probeOnly) timer.start();
  root.close();
  if (!probeOnly) timer.stop();
  return true;
}

bool w1(const Paths& paths, bool portable, double* seconds,
        std::string* error) {
  const std::string out = paths.output("ours");
  removeOutput(out);
  Timer timer;
  if (!writeLarge(out, portable, timer, error)) return false;
  *seconds = timer.seconds();
  const bool ok = verifyLargeWithOurs(out, error);
  removeOutput(out);
  return ok;
}

bool w2(const Paths& paths, bool portable, double* seconds,
        std::string* error) {
  const std::string out = paths.output("ours");
  removeOutput(out);
  Timer timer;
  if (!writeSmall(out, portable, timer, error)) return false;
  *seconds = timer.seconds();
  const bool ok = verifySmallWithOurs(out, error);
  removeOutput(out);
  return ok;
}

bool w3(const Paths& paths, bool portable, double* seconds,
        std::string* error) {
  Timer timer;
  if (!readLarge(paths.largeFile(), portable, timer, error)) return false;
  *seconds = timer.seconds();
  return true;
}

bool w4(const Paths& paths, bool portable, double* seconds,
        std::string* error) {
  Timer timer;
  if (!readSmall(paths.smallFile(), portable, false, timer, error))
    return false;
  *seconds = timer.seconds();
  return true;
}

bool w5(const Paths& paths, bool portable, double* seconds,
        std::string* error) {
  Timer timer;
  if (!readSmall(paths.smallFile(), portable, true, timer, error)) return false;
  *seconds = timer.seconds();
  return true;
}

// Opening is not timed: only the seeks and reads are.
bool w6(const Paths& paths, bool portable, double* seconds,
        std::string* error) {
  std::vector<uint8_t> data(kRandomSize);
  std::vector<uint8_t> scratch;
  Root root;
  gxResult r = gxStgOpenStorage(units(paths.largeFile()).data(), 0x10,
                                &root.storage, portable);
  CGxAbsStream* stream = nullptr;
  if (r == GX_S_OK)
    r = root.storage->openIStream(units(kLargeStreamName).data(), true,
                                  &stream);
  if (r != GX_S_OK) return fail(error, "open failed");
  Timer timer;
  for (uint64_t offset : randomOffsets()) {
    LARGE_INTEGER move;
    move.QuadPart = static_cast<int64_t>(offset);
    unsigned long long done = 0;
    timer.start();
    const bool moved = stream->seek(move, GX_STREAM_SEEK_SET, nullptr);
    stream->read(data.data(), data.size(), &done);
    timer.stop();
    if (!moved || done != kRandomSize ||
        !checkBytes(kLargeSeed, offset, data.data(), done, scratch))
      return fail(error, "byte mismatch at a random offset");
  }
  *seconds = timer.seconds();
  return true;
}

}  // namespace

const Implementation& oursImplementation() {
  static const Implementation impl = {"ours", {w1, w2, w3, w4, w5, w6}};
  return impl;
}

bool prepareOurs(const Paths& paths, std::string* error) {
  Timer unused;
  removeOutput(paths.ownLarge());
  removeOutput(paths.ownSmall());
  if (!writeLarge(paths.ownLarge(), true, unused, error) ||
      !writeSmall(paths.ownSmall(), true, unused, error))
    return false;
  // The temporary block files are not needed by any reader.
  ::unlink(tempFileOf(paths.ownLarge()).c_str());
  ::unlink(tempFileOf(paths.ownSmall()).c_str());
  return verifyLargeWithOurs(paths.ownLarge(), error) &&
         verifySmallWithOurs(paths.ownSmall(), error);
}

bool verifyLargeWithOurs(const std::string& path, std::string* error) {
  Timer unused;
  return readLarge(path, true, unused, error);
}

bool verifySmallWithOurs(const std::string& path, std::string* error) {
  Timer unused;
  return readSmall(path, true, false, unused, error);
}

int32_t probeBackend(const Paths& paths, bool portable) {
  const std::string path = paths.file("probe.gxs");
  removeOutput(path);
  Root root;
  gxResult r =
      gxStgCreateStorage(units(path).data(), 0x1012, &root.storage, portable);
  if (r == GX_S_OK) {
    root.storage->commit();
    root.close();
    r = gxStgOpenStorage(units(path).data(), 0x10, &root.storage, portable);
    root.close();
  }
  removeOutput(path);
  return static_cast<int32_t>(r);
}

}  // namespace gxbench
