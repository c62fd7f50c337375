// W7: editing a large file in place through the platform's interfaces (on
// Linux, the library's own read-write service), against copying the file.
// A 1 GiB file holding one large stream is made once; then each edit opens
// it transacted, changes one small stream, commits and releases:
//   add      a new 4 KiB stream
//   replace  the same stream, written again (STGM_CREATE)
//   remove   the stream destroyed
// Each edit's time and the bytes it handed to write calls (/proc/self/io)
// are printed beside a plain copy of the file.
//   gxStorageBenchEdit [--mib N] [--dir DIR] [--rounds N]
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "platform/gxPlatform.h"

namespace {

using Clock = std::chrono::steady_clock;

uint64_t writtenBytes() {
  std::ifstream io("/proc/self/io");
  std::string key;
  uint64_t value = 0;
  while (io >> key >> value)
    if (key == "wchar:") return value;
  return 0;
}

std::vector<OLECHAR> wide(const std::string& s) {
  std::vector<OLECHAR> out(s.begin(), s.end());
  out.push_back(0);
  return out;
}

bool check(HRESULT hr, const char* what) {
  if (hr == S_OK) return true;
  std::fprintf(stderr, "W7: %s failed: 0x%08X\n", what, static_cast<unsigned>(hr));
  return false;
}

// Makes `path` with one stream "big" of `mib` MiB.
bool makeFile(const std::string& path, uint64_t mib) {
  IStorage* root = nullptr;
  IStream* big = nullptr;
  auto name = wide(path);
  if (!check(StgCreateDocfile(name.data(), STGM_CREATE | STGM_READWRITE |
                                               STGM_SHARE_EXCLUSIVE,
                              0, &root),
             "create"))
    return false;
  bool ok = check(root->CreateStream(wide("big").data(),
                                     STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, 0,
                                     &big),
                  "create stream");
  std::vector<char> chunk(1 << 20, 'x');
  for (uint64_t i = 0; ok && i < mib; ++i)
    ok = check(big->Write(chunk.data(), ULONG(chunk.size()), nullptr), "write");
  if (big) big->Release();
  root->Release();
  return ok;
}

// One edit in one transaction; returns seconds, or -1 on failure.
double edit(const std::string& path, int what) {
  auto name = wide(path), small = wide("small");
  auto start = Clock::now();
  IStorage* root = nullptr;
  if (!check(StgOpenStorage(name.data(), nullptr,
                            STGM_TRANSACTED | STGM_READWRITE |
                                STGM_SHARE_EXCLUSIVE,
                            nullptr, 0, &root),
             "open"))
    return -1;
  bool ok = true;
  if (what < 2) {
    IStream* s = nullptr;
    std::vector<char> data(4096, char('a' + what));
    ok = check(root->CreateStream(small.data(),
                                  STGM_CREATE | STGM_READWRITE |
                                      STGM_SHARE_EXCLUSIVE,
                                  0, 0, &s),
               "create small") &&
         check(s->Write(data.data(), 4096, nullptr), "write small");
    if (s) s->Release();
  } else {
    ok = check(root->DestroyElement(small.data()), "destroy");
  }
  ok = ok && check(root->Commit(STGC_DEFAULT), "commit");
  root->Release();
  if (!ok) return -1;
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double copyFile(const std::string& from, const std::string& to) {
  auto start = Clock::now();
  std::FILE* in = std::fopen(from.c_str(), "rb");
  std::FILE* out = std::fopen(to.c_str(), "wb");
  std::vector<char> buffer(1 << 20);
  size_t n;
  while ((n = std::fread(buffer.data(), 1, buffer.size(), in)) > 0)
    if (std::fwrite(buffer.data(), 1, n, out) != n) break;
  std::fflush(out);
  fsync(fileno(out));
  std::fclose(in);
  std::fclose(out);
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t mib = 1024;
  int rounds = 5;
  std::string dir = "/dev/shm";
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!std::strcmp(argv[i], "--mib")) mib = std::strtoull(argv[i + 1], nullptr, 10);
    if (!std::strcmp(argv[i], "--dir")) dir = argv[i + 1];
    if (!std::strcmp(argv[i], "--rounds")) rounds = std::atoi(argv[i + 1]);
  }
  const std::string path = dir + "/gxbench-w7-" + std::to_string(getpid()) + ".cfb";
  const std::string copy = path + ".copy";
  if (!makeFile(path, mib)) return 1;
  const char* names[3] = {"add 4 KiB stream", "replace it", "remove it"};
  std::vector<double> times[4];
  uint64_t bytes[3] = {};
  for (int r = 0; r < rounds; ++r) {
    times[3].push_back(copyFile(path, copy));
    for (int w = 0; w < 3; ++w) {
      uint64_t before = writtenBytes();
      double t = edit(path, w);
      if (t < 0) return 1;
      times[w].push_back(t);
      bytes[w] = writtenBytes() - before;
    }
  }
  unlink(copy.c_str());
  unlink(path.c_str());
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  const double copyTime = median(times[3]);
  std::printf("\nW7 edit a %llu MiB file in place (platform backend, one transaction each, %d rounds, medians)\n",
              static_cast<unsigned long long>(mib), rounds);
  std::printf("%-22s %10s %12s %14s\n", "edit", "ms", "vs copy", "bytes written");
  std::printf("%-22s %10.3f %12s %14llu\n", "copy the file", copyTime * 1e3, "1",
              static_cast<unsigned long long>(mib << 20));
  for (int w = 0; w < 3; ++w)
    std::printf("%-22s %10.3f %11.5fx %14llu\n", names[w], median(times[w]) * 1e3,
                median(times[w]) / copyTime, static_cast<unsigned long long>(bytes[w]));
  return 0;
}
