// Measures what an entry of the cluster log costs when the log is full, as a ratio to a log with few entries. Both
// stores are in the same folder and measured alternately, in many short rounds, so that other load on the machine
// affects both.
//
// Usage: log_bench [FOLDER] (a new folder below it is used and removed)
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_util.h"
#include "host/cluster/cluster_log.h"
#include "host/store/lmdb_store.h"

namespace {

using namespace vexa;
using std::chrono::steady_clock;

constexpr int kRounds = 41;
constexpr std::chrono::milliseconds kMeasuredTime{100};
constexpr double kTarget = 1.25;

std::int64_t NowUs() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Adds entries until `is_done` of their number; returns how many.
int AddEntries(store::Store& store, int threads, const auto& is_done) {
  std::atomic<int> count = 0;
  std::vector<std::jthread> running;
  for (int thread = 0; thread < threads; ++thread) {
    running.emplace_back([&, thread] {
      while (!is_done(count++)) {
        // As many users as have the whole log together, and a few more.
        const std::string user = "user " + std::to_string(count % 16);
        bench::Check(cluster::AddLogEntry(store, {NowUs(), "h", user, 3, "The virtual machine is on.", ""}).ok(),
                     "add");
      }
    });
  }
  running.clear();
  return count;
}

double CpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct Cost {
  std::vector<double> milliseconds;  // of an entry, in each round
  std::vector<double> cpu_microseconds;
};

void Measure(store::Store& store, int threads, Cost& cost) {
  const auto start = steady_clock::now();
  const double cpu = CpuSeconds();
  const int count = AddEntries(store, threads, [&](int) { return steady_clock::now() - start > kMeasuredTime; });
  cost.milliseconds.push_back(bench::MillisecondsSince(start) / count);
  cost.cpu_microseconds.push_back((CpuSeconds() - cpu) * 1e6 / count);
}

std::shared_ptr<store::Store> Open(const std::string& folder) {
  store::LmdbOptions options;
  options.directory = folder;
  return bench::Require(store::OpenLmdbStore(options));
}

}  // namespace

int main(int argc, char** argv) {
  std::string folder = std::string(argc > 1 ? argv[1] : "/tmp") + "/vexa_log_bench_XXXXXX";
  bench::Check(::mkdtemp(folder.data()) != nullptr, "mkdtemp");
  {
    const auto full = Open(folder + "/full");
    (void)AddEntries(*full, 64, [](int count) { return count >= static_cast<int>(cluster::kMaxLogEntries); });
    for (const int threads : {1, 8}) {
      const auto small = Open(folder + "/small " + std::to_string(threads));
      Cost in_full;
      Cost in_small;
      for (int round = 0; round < kRounds; ++round) {
        Measure(*full, threads, in_full);
        Measure(*small, threads, in_small);
      }
      const double ratio = bench::Median(in_full.milliseconds) / bench::Median(in_small.milliseconds);
      std::printf(
          "%d threads: an entry takes %.2f ms in a full log, %.2f ms in a small one (processor: %.0f us, %.0f us); "
          "ratio %.2f, target at most %.2f, %s\n",
          threads, bench::Median(in_full.milliseconds), bench::Median(in_small.milliseconds),
          bench::Median(in_full.cpu_microseconds), bench::Median(in_small.cpu_microseconds), ratio, kTarget,
          ratio <= kTarget ? "met" : "MISSED");
    }
  }
  std::filesystem::remove_all(folder);
  return 0;
}
