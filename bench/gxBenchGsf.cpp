// The peer: libgsf's compound-file writer and reader on the same workloads,
// over its stdio file input and output. Built only when libgsf was found.
#include <gsf/gsf-infile-msole.h>
#include <gsf/gsf-infile.h>
#include <gsf/gsf-input-stdio.h>
#include <gsf/gsf-input.h>
#include <gsf/gsf-outfile-msole.h>
#include <gsf/gsf-outfile.h>
#include <gsf/gsf-output-stdio.h>
#include <gsf/gsf-output.h>
#include <gsf/gsf-utils.h>

#include <algorithm>

#include "gxBench.h"

namespace gxbench {
namespace {

bool fail(std::string* error, const std::string& what, GError* err = nullptr) {
  *error = what;
  if (err != nullptr) {
    *error += ": ";
    *error += err->message;
    g_error_free(err);
  }
  return false;
}

void unref(void* object) {
  if (object != nullptr) g_object_unref(object);
}

// Opens a compound file for writing; the caller closes and unrefs both.
GsfOutfile* createFile(const std::string& path, GsfOutput** sink,
                       std::string* error) {
  GError* err = nullptr;
  *sink = gsf_output_stdio_new(path.c_str(), &err);
  if (*sink == nullptr) {
    fail(error, "create failed", err);
    return nullptr;
  }
  return gsf_outfile_msole_new(*sink);
}

bool closeFile(GsfOutfile* file, GsfOutput* sink) {
  bool ok = gsf_output_close(GSF_OUTPUT(file)) != FALSE;
  unref(file);
  if (!gsf_output_is_closed(sink)) ok = gsf_output_close(sink) != FALSE && ok;
  unref(sink);
  return ok;
}

GsfInfile* openFile(const std::string& path, std::string* error) {
  GError* err = nullptr;
  GsfInput* input = gsf_input_stdio_new(path.c_str(), &err);
  if (input == nullptr) {
    fail(error, "open failed", err);
    return nullptr;
  }
  GsfInfile* file = gsf_infile_msole_new(input, &err);
  g_object_unref(input);
  if (file == nullptr) fail(error, "not a compound file", err);
  return file;
}

bool writeLarge(const std::string& path, Timer& timer, std::string* error) {
  std::vector<uint8_t> chunk(kLargeChunk);
  GsfOutput* sink = nullptr;
  timer.start();
  GsfOutfile* file = createFile(path, &sink, error);
  GsfOutput* stream =
      file != nullptr ? gsf_outfile_new_child(file, "data", FALSE) : nullptr;
  timer.stop();
  if (file == nullptr) return false;
  bool ok = stream != nullptr;
  for (uint64_t at = 0; ok && at < kLargeSize; at += kLargeChunk) {
    fillBytes(kLargeSeed, at, chunk.data(), chunk.size());
    timer.start();
    ok = gsf_output_write(stream, chunk.size(), chunk.data()) != FALSE;
    timer.stop();
  }
  timer.start();
  if (stream != nullptr) ok = gsf_output_close(stream) != FALSE && ok;
  unref(stream);
  ok = closeFile(file, sink) && ok;
  timer.stop();
  return ok || fail(error, "write failed");
}

bool writeSmall(const std::string& path, Timer& timer, std::string* error) {
  const SmallSet& set = SmallSet::get();
  std::vector<uint8_t> data(kSmallMax);
  GsfOutput* sink = nullptr;
  timer.start();
  GsfOutfile* file = createFile(path, &sink, error);
  timer.stop();
  if (file == nullptr) return false;
  bool ok = true;
  GsfOutput* storage = nullptr;
  const uint32_t perStorage = kSmallCount / kStorageCount;
  for (uint32_t j = 0; ok && j < kSmallCount; ++j) {
    fillBytes(kSmallSeed, set.offsets[j], data.data(), set.sizes[j]);
    timer.start();
    if (j % perStorage == 0)
      storage = gsf_outfile_new_child(
          file, SmallSet::storageName(SmallSet::storageOf(j)).c_str(), TRUE);
    GsfOutput* stream =
        storage != nullptr
            ? gsf_outfile_new_child(GSF_OUTFILE(storage),
                                    SmallSet::streamName(j).c_str(), FALSE)
            : nullptr;
    ok = stream != nullptr &&
         gsf_output_write(stream, set.sizes[j], data.data()) != FALSE &&
         gsf_output_close(stream) != FALSE;
    unref(stream);
    if (storage != nullptr && j % perStorage == perStorage - 1) {
      ok = gsf_output_close(storage) != FALSE && ok;
      unref(storage);
      storage = nullptr;
    }
    timer.stop();
  }
  timer.start();
  unref(storage);
  ok = closeFile(file, sink) && ok;
  timer.stop();
  return ok || fail(error, "write failed");
}

bool readLarge(const std::string& path, Timer& timer, std::string* error) {
  std::vector<uint8_t> chunk(kLargeChunk);
  std::vector<uint8_t> scratch;
  timer.start();
  GsfInfile* file = openFile(path, error);
  GsfInput* stream =
      file != nullptr ? gsf_infile_child_by_name(file, "data") : nullptr;
  timer.stop();
  if (stream == nullptr) {
    unref(file);
    return error->empty() ? fail(error, "no stream") : false;
  }
  uint64_t at = 0;
  bool ok = true;
  for (;;) {
    timer.start();
    const size_t n = static_cast<size_t>(
        std::min<gsf_off_t>(gsf_input_remaining(stream), kLargeChunk));
    const bool read =
        n > 0 && gsf_input_read(stream, n, chunk.data()) != nullptr;
    timer.stop();
    if (!read) break;
    if (!checkBytes(kLargeSeed, at, chunk.data(), n, scratch)) {
      ok = false;
      break;
    }
    at += n;
  }
  timer.start();
  unref(stream);
  unref(file);
  timer.stop();
  if (!ok) return fail(error, "byte mismatch in the large stream");
  return at == kLargeSize || fail(error, "large stream has a wrong length");
}

bool readSmall(const std::string& path, bool probeOnly, Timer& timer,
               std::string* error) {
  const SmallSet& set = SmallSet::get();
  std::vector<uint8_t> data(kSmallMax);
  std::vector<uint8_t> scratch;
  timer.start();
  GsfInfile* file = openFile(path, error);
  timer.stop();
  if (file == nullptr) return false;
  const uint32_t perStorage = kSmallCount / kStorageCount;
  GsfInput* storage = nullptr;
  bool ok = true;
  for (uint32_t j = probeOnly ? kProbeStream : 0; ok && j < kSmallCount; ++j) {
    timer.start();
    if (probeOnly || j % perStorage == 0) {
      unref(storage);
      storage = gsf_infile_child_by_name(
          file, SmallSet::storageName(SmallSet::storageOf(j)).c_str());
    }
    GsfInput* stream = storage != nullptr ? gsf_infile_child_by_name(
                                                GSF_INFILE(storage),
                                                SmallSet::streamName(j).c_str())
                                          : nullptr;
    const size_t n =
        stream != nullptr ? static_cast<size_t>(gsf_input_size(stream)) : 0;
    ok = stream != nullptr && n <= data.size() &&
         gsf_input_read(stream, n, data.data()) != nullptr;
    timer.stop();
    unref(stream);
    ok = ok && n == set.sizes[j] &&
         checkBytes(kSmallSeed, set.offsets[j], data.data(), n, scratch);
  }
  if (!probeOnly) timer.start();
  unref(storage);
  unref(file);
  if (!probeOnly) timer.stop();
  return ok || fail(error, "byte mismatch in a small stream");
}

bool w1(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  const std::string out = paths.output("libgsf");
  removeOutput(out);
  Timer timer;
  if (!writeLarge(out, timer, error)) return false;
  *seconds = timer.seconds();
  // Checked by our reader: a cross-check of both sides.
  const bool ok = verifyLargeWithOurs(out, error);
  removeOutput(out);
  return ok;
}

bool w2(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  const std::string out = paths.output("libgsf");
  removeOutput(out);
  Timer timer;
  if (!writeSmall(out, timer, error)) return false;
  *seconds = timer.seconds();
  const bool ok = verifySmallWithOurs(out, error);
  removeOutput(out);
  return ok;
}

bool w3(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  Timer timer;
  if (!readLarge(paths.largeFile(), timer, error)) return false;
  *seconds = timer.seconds();
  return true;
}

bool w4(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  Timer timer;
  if (!readSmall(paths.smallFile(), false, timer, error)) return false;
  *seconds = timer.seconds();
  return true;
}

bool w5(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  Timer timer;
  if (!readSmall(paths.smallFile(), true, timer, error)) return false;
  *seconds = timer.seconds();
  return true;
}

bool w6(const Paths& paths, bool /*portable*/, double* seconds,
        std::string* error) {
  std::vector<uint8_t> data(kRandomSize);
  std::vector<uint8_t> scratch;
  GsfInfile* file = openFile(paths.largeFile(), error);
  if (file == nullptr) return false;
  GsfInput* stream = gsf_infile_child_by_name(file, "data");
  Timer timer;
  bool ok = stream != nullptr;
  for (uint64_t offset : randomOffsets()) {
    if (!ok) break;
    timer.start();
    ok = !gsf_input_seek(stream, static_cast<gsf_off_t>(offset), G_SEEK_SET) &&
         gsf_input_read(stream, data.size(), data.data()) != nullptr;
    timer.stop();
    ok =
        ok && checkBytes(kLargeSeed, offset, data.data(), data.size(), scratch);
  }
  unref(stream);
  unref(file);
  if (!ok) return fail(error, "byte mismatch at a random offset");
  *seconds = timer.seconds();
  return true;
}

}  // namespace

const Implementation* gsfImplementation() {
  static const Implementation impl = [] {
    gsf_init();
    return Implementation{"libgsf", {w1, w2, w3, w4, w5, w6}};
  }();
  return &impl;
}

// Our files read by libgsf: every byte of both must come back.
bool verifyWithGsf(const Paths& paths, std::string* error) {
  gsfImplementation();
  Timer unused;
  return readLarge(paths.ownLarge(), unused, error) &&
         readSmall(paths.ownSmall(), false, unused, error);
}

// libgsf's own W1 and W2 files, the inputs of the read workloads, checked
// by libgsf and by our reader.
bool prepareGsf(const Paths& paths, std::string* error) {
  gsfImplementation();
  Timer unused;
  return writeLarge(paths.gsfLarge(), unused, error) &&
         writeSmall(paths.gsfSmall(), unused, error) &&
         readLarge(paths.gsfLarge(), unused, error) &&
         readSmall(paths.gsfSmall(), false, unused, error) &&
         verifyLargeWithOurs(paths.gsfLarge(), error) &&
         verifySmallWithOurs(paths.gsfSmall(), error);
}

}  // namespace gxbench
