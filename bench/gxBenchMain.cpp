// gxStorageBench: workloads W1-W6 through the library's exported interface
// (portable backend), the physical limit (plain write/read/pread of the
// same bytes in the same chunks) and libgsf, in one run, printed as one table.
//
// The parent process stays small and never runs a workload: it prepares the
// input files in one child, then forks one child per workload and
// implementation. Each child runs its workload under Google Benchmark
// (manual timing, fixed iterations, repeated) and sends the median back
// through a pipe; the parent takes the child's peak resident size from
// wait4(). Every byte read is checked against the generator, and the files
// a write workload produced are read back and checked, outside the timed
// part; a mismatch fails the row instead of giving a number.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "gxBench.h"

#ifndef GXBENCH_HAVE_GSF
namespace gxbench {
const Implementation* gsfImplementation() { return nullptr; }
bool verifyWithGsf(const Paths&, std::string*) { return true; }
}  // namespace gxbench
#endif

namespace gxbench {
namespace {

struct Workload {
  const char* id;
  const char* title;
  bool throughput;  // shown as MiB/s of `bytes`, otherwise as milliseconds
  int iterations;   // per repetition
};

const Workload kWorkloads[6] = {
    {"W1", "write large stream, 64 KiB chunks", true, 1},
    {"W2", "write 10,000 small streams / 100 storages", false, 1},
    {"W3", "read large stream, 64 KiB chunks", true, 1},
    {"W4", "read all 10,000 small streams", false, 1},
    {"W5", "open 10,100 entries, first byte of one", false, 5},
    {"W6", "10,000 random 4 KiB reads (seek+read)", false, 1},
};

struct Result {
  bool ran = false;
  bool ok = false;
  double seconds = 0;  // median per iteration
  double minSeconds = 0, maxSeconds = 0;
  double peakMiB = 0;
  std::string error;
};

// Collects the repetitions of the one benchmark a child runs.
class Collector : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      if (run.error_occurred) {
        error = run.error_message;
        continue;
      }
      if (run.iterations > 0)
        seconds.push_back(run.real_accumulated_time /
                          static_cast<double>(run.iterations));
    }
  }
  std::vector<double> seconds;
  std::string error;
};

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// Runs in the child: the workload under Google Benchmark; writes one line,
// "ok <median> <min> <max>" or "error <message>", to `out`.
void runChild(const char* program, const Workload& w, WorkloadFn fn,
              const char* implName, const Paths& paths, int repetitions,
              FILE* out) {
  int argc = 1;
  char* argv[] = {const_cast<char*>(program), nullptr};
  benchmark::Initialize(&argc, argv);
  const std::string name = std::string(w.id) + "/" + implName;
  benchmark::RegisterBenchmark(name.c_str(),
                               [fn, &paths](benchmark::State& state) {
                                 for (auto _ : state) {
                                   double seconds = 0;
                                   std::string error;
                                   if (!fn(paths, &seconds, &error)) {
                                     state.SkipWithError(error.c_str());
                                     break;
                                   }
                                   state.SetIterationTime(seconds);
                                 }
                               })
      ->UseManualTime()
      ->Iterations(w.iterations)
      ->Repetitions(repetitions)
      ->Unit(benchmark::kMillisecond);
  Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  if (!collector.error.empty() || collector.seconds.empty()) {
    std::fprintf(
        out, "error %s\n",
        collector.error.empty() ? "no result" : collector.error.c_str());
    return;
  }
  const auto mm =
      std::minmax_element(collector.seconds.begin(), collector.seconds.end());
  std::fprintf(out, "ok %.9g %.9g %.9g\n", median(collector.seconds), *mm.first,
               *mm.second);
}

// Forks, runs `body` in the child with a pipe to the parent, and returns
// what the child wrote together with its peak resident size.
template <typename Body>
Result inChild(Body body) {
  Result result;
  result.ran = true;
  int fds[2];
  if (::pipe(fds) != 0) {
    result.error = "pipe failed";
    return result;
  }
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(fds[0]);
    FILE* out = ::fdopen(fds[1], "w");
    body(out);
    std::fclose(out);
    std::fflush(nullptr);
    ::_exit(0);
  }
  ::close(fds[1]);
  std::string text;
  char buffer[512];
  ssize_t n;
  while ((n = ::read(fds[0], buffer, sizeof(buffer))) > 0)
    text.append(buffer, static_cast<size_t>(n));
  ::close(fds[0]);
  int status = 0;
  struct rusage usage;
  std::memset(&usage, 0, sizeof(usage));
  if (pid < 0 || ::wait4(pid, &status, 0, &usage) != pid) {
    result.error = "fork failed";
    return result;
  }
  result.peakMiB = usage.ru_maxrss / 1024.0;  // ru_maxrss is in KiB
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    result.error = "child crashed or failed";
    return result;
  }
  if (text.compare(0, 3, "ok ") == 0) {
    result.ok = std::sscanf(text.c_str() + 3, "%lf %lf %lf", &result.seconds,
                            &result.minSeconds, &result.maxSeconds) == 3;
    if (!result.ok) result.error = "unreadable result";
  } else {
    result.error = text.compare(0, 6, "error ") == 0 ? text.substr(6) : text;
    while (!result.error.empty() && result.error.back() == '\n')
      result.error.pop_back();
  }
  return result;
}

uint64_t workloadBytes(int w) {
  if (w == 0 || w == 2) return kLargeSize;
  if (w == 1 || w == 3) return SmallSet::get().totalBytes;
  if (w == 4) return SmallSet::get().sizes[kProbeStream];
  return uint64_t{kRandomReads} * kRandomSize;
}

std::string cell(const Workload& w, int index, const Result& r) {
  char text[64];
  if (!r.ran) return "-";
  if (!r.ok) return "FAILED";
  if (w.throughput)
    std::snprintf(text, sizeof(text), "%.0f MiB/s",
                  workloadBytes(index) / r.seconds / (1 << 20));
  else if (r.seconds < 0.01)
    std::snprintf(text, sizeof(text), "%.3f ms", r.seconds * 1e3);
  else
    std::snprintf(text, sizeof(text), "%.1f ms", r.seconds * 1e3);
  return text;
}

// Speed of ours relative to `other`: above 1 means ours is faster.
std::string ratio(const Result& ours, const Result& other) {
  if (!ours.ok || !other.ok) return "-";
  char text[32];
  std::snprintf(text, sizeof(text), "%.2fx", other.seconds / ours.seconds);
  return text;
}

std::string peak(const Result& r) {
  if (!r.ran) return "-";
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f", r.peakMiB);
  return text;
}

std::string chooseScratch(std::string* where) {
  struct stat st;
  std::string base;
  if (::stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) &&
      ::access("/dev/shm", W_OK) == 0) {
    base = "/dev/shm";
    *where = "/dev/shm (memory-backed tmpfs: no disk in the numbers)";
  } else {
    const char* tmp = std::getenv("TMPDIR");
    base = tmp != nullptr && *tmp != 0 ? tmp : "/tmp";
    *where = base + " (/dev/shm absent: a disk-backed directory)";
  }
  std::string templ = base + "/gxbench-XXXXXX";
  std::vector<char> name(templ.begin(), templ.end());
  name.push_back(0);
  if (::mkdtemp(name.data()) == nullptr) return std::string();
  return name.data();
}

void removeScratch(const Paths& paths) {
  const char* files[] = {"w1.gxs",        "w1.$t$",       "w1.raw",
                         "w2.gxs",        "w2.$t$",       "w2.raw",
                         "out-ours.gxs",  "out-ours.$t$", "out-limit.gxs",
                         "out-libgsf.gxs"};
  for (const char* f : files) ::unlink(paths.file(f).c_str());
  ::rmdir(paths.dir.c_str());
}

int usage(const char* program) {
  std::fprintf(
      stderr,
      "usage: %s [--repetitions ROUNDS] [--only W1,W3,...] [--dir DIR] "
      "[--keep] [--no-prepare] [--large-mib N]\n",
      program);
  return 2;
}

}  // namespace
}  // namespace gxbench

int main(int argc, char** argv) {
  using namespace gxbench;
  int repetitions = 5;
  std::string only, dir;
  bool keep = false;
  bool prepare = true;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--repetitions" && i + 1 < argc) {
      repetitions = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--only" && i + 1 < argc) {
      only = argv[++i];
    } else if (arg == "--dir" && i + 1 < argc) {
      dir = argv[++i];
    } else if (arg == "--large-mib" && i + 1 < argc) {
      kLargeSize = uint64_t{std::max(1u, unsigned(std::atoi(argv[++i])))} << 20;
    } else if (arg == "--keep") {
      keep = true;
    } else if (arg == "--no-prepare") {
      prepare = false;  // reuse the inputs a --keep run left in --dir
    } else {
      return usage(argv[0]);
    }
  }

  std::string where;
  Paths paths;
  if (dir.empty()) {
    paths.dir = chooseScratch(&where);
    if (paths.dir.empty()) {
      std::fprintf(stderr, "cannot make a scratch directory\n");
      return 1;
    }
  } else {
    paths.dir = dir;
    where = dir + " (given)";
  }
  std::vector<const Implementation*> impls = {&oursImplementation(),
                                              &limitImplementation()};
  const Implementation* gsf = gsfImplementation();
  impls.push_back(gsf);

  std::printf(
      "gxStorage benchmark: portable backend through the exported "
      "interface\n");
  std::printf("scratch directory: %s\n  %s\n", paths.dir.c_str(),
              where.c_str());
  std::printf("peer: %s\n", gsf != nullptr ? "libgsf (stdio input/output)"
                                           : "libgsf not built in");
  std::printf("large stream (W1, W3, W6): %llu MiB\n",
              static_cast<unsigned long long>(kLargeSize >> 20));
  std::printf(
      "%d rounds; each round runs every cell once, in its own child "
      "process; medians shown\n",
      repetitions);
  std::fflush(stdout);

  Result prepared;
  prepared.ok = true;
  if (prepare)
    prepared = inChild([&](FILE* out) {
      std::string error;
      if (!prepareLimit(paths, &error) || !prepareOurs(paths, &error) ||
          !verifyWithGsf(paths, &error))
        std::fprintf(out, "error %s\n", error.c_str());
      else
        std::fprintf(out, "ok 0 0 0\n");
    });
  if (!prepared.ok) {
    std::fprintf(stderr, "preparing the input files failed: %s\n",
                 prepared.error.c_str());
    if (!keep) removeScratch(paths);
    return 1;
  }
  // The floor every peak includes: a child that runs an empty workload.
  Workload idle = {"W0", "idle", false, 1};
  Result floor = inChild([&](FILE* out) {
    runChild(
        argv[0], idle,
        [](const Paths&, double* s, std::string*) {
          *s = 1e-9;
          return true;
        },
        "idle", paths, 1, out);
  });

  // Rounds: each round runs every cell once, in its own child, so that the
  // three columns of a row are measured close together in time even when
  // the machine's load drifts; a cell's figure is the median over rounds
  // and its peak the largest.
  Result results[6][3];
  std::vector<double> samples[6][3];
  bool failed = false;
  for (int round = 0; round < repetitions; ++round) {
    for (int w = 0; w < 6; ++w) {
      if (!only.empty() && only.find(kWorkloads[w].id) == std::string::npos)
        continue;
      for (size_t k = 0; k < impls.size(); ++k) {
        const Implementation* impl = impls[k];
        if (impl == nullptr || impl->run[w] == nullptr) continue;
        if (round > 0 && !results[w][k].ok) continue;
        Result r = inChild([&](FILE* out) {
          runChild(argv[0], kWorkloads[w], impl->run[w], impl->name, paths, 1,
                   out);
        });
        Result& cellResult = results[w][k];
        const double peakSoFar = cellResult.peakMiB;
        if (!r.ok) {
          cellResult = r;
          failed = true;
          std::fprintf(stderr, "%s/%s: %s\n", kWorkloads[w].id, impl->name,
                       r.error.c_str());
          continue;
        }
        samples[w][k].push_back(r.seconds);
        cellResult = r;
        cellResult.peakMiB = std::max(peakSoFar, r.peakMiB);
        const auto mm =
            std::minmax_element(samples[w][k].begin(), samples[w][k].end());
        cellResult.seconds = median(samples[w][k]);
        cellResult.minSeconds = *mm.first;
        cellResult.maxSeconds = *mm.second;
      }
    }
  }

  std::printf("\n%-45s %12s %12s %12s %10s %10s   %s\n", "workload", "ours",
              "limit", "libgsf", "vs limit", "vs libgsf",
              "peak MiB ours/limit/libgsf");
  for (int w = 0; w < 6; ++w) {
    const Workload& wl = kWorkloads[w];
    const Result* r = results[w];
    if (!r[0].ran && !r[1].ran && !r[2].ran) continue;
    const std::string title = std::string(wl.id) + " " + wl.title;
    std::printf("%-45s %12s %12s %12s %10s %10s   %s / %s / %s\n",
                title.c_str(), cell(wl, w, r[0]).c_str(),
                cell(wl, w, r[1]).c_str(), cell(wl, w, r[2]).c_str(),
                ratio(r[0], r[1]).c_str(), ratio(r[0], r[2]).c_str(),
                peak(r[0]).c_str(), peak(r[1]).c_str(), peak(r[2]).c_str());
  }
  std::printf(
      "\nratios are speeds, ours relative to the other (above 1: ours is "
      "faster). Times are medians; MiB/s counts stream bytes. W6 times the "
      "seeks and reads only; W5 stops at the first byte.\n"
      "peak = the child's maximum resident size; a child running an empty "
      "workload peaks at %.1f MiB.\n",
      floor.peakMiB);
  std::printf("spread (min-max ms) ours:");
  for (int w = 0; w < 6; ++w)
    if (results[w][0].ok)
      std::printf(" %s %.1f-%.1f", kWorkloads[w].id,
                  results[w][0].minSeconds * 1e3,
                  results[w][0].maxSeconds * 1e3);
  std::printf("\n");

  // The goals, read off the medians above.
  struct Goal {
    const char* text;
    int workload, other;  // other: 1 limit, 2 libgsf
    double atLeast;       // speed ratio ours/other
  };
  const Goal goals[] = {{"W3 at least 0.9x the plain read", 2, 1, 0.9},
                        {"W6 within 2x of the plain preads", 5, 1, 0.5},
                        {"W4 ahead of libgsf", 3, 2, 1.0},
                        {"W5 ahead of libgsf", 4, 2, 1.0},
                        {"W1 at least 0.5x libgsf", 0, 2, 0.5},
                        {"W2 ahead of libgsf", 1, 2, 1.0}};
  std::printf("\ngoals:\n");
  for (const Goal& g : goals) {
    const Result& ours = results[g.workload][0];
    const Result& other = results[g.workload][g.other];
    if (!ours.ok || !other.ok) continue;
    const double r = other.seconds / ours.seconds;
    std::printf("  %-36s %6.2fx  %s\n", g.text, r,
                r >= g.atLeast ? "met" : "MISSED");
  }
  const double fatMiB = static_cast<double>(kLargeSize) / 512 * 4 / (1 << 20);
  for (int w : {0, 2}) {
    if (!results[w][0].ran) continue;
    std::printf(
        "  %s peak memory over the %.1f MiB floor: %.1f MiB (the "
        "stream's FAT: %.1f MiB)\n",
        kWorkloads[w].id, floor.peakMiB, results[w][0].peakMiB - floor.peakMiB,
        fatMiB);
  }

  if (!keep) removeScratch(paths);
  return failed ? 1 : 0;
}
