// Measures what an entry of the cluster log costs when the log is full, as a ratio to a log with few entries. Both
// stores are in the same folder and measured alternately, so that other load on the machine affects both.
//
// Usage: log_bench [FOLDER] (a new folder below it is used and removed)
#include <algorithm>
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

constexpr int kRounds = 9;
constexpr std::chrono::milliseconds kMeasuredTime{500};
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

double Rate(store::Store& store, int threads) {
  const auto start = steady_clock::now();
  const int count = AddEntries(store, threads, [&](int) { return steady_clock::now() - start > kMeasuredTime; });
  return count / (bench::MillisecondsSince(start) / 1000);
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
      std::vector<double> ratios;
      std::vector<double> rates;
      for (int round = 0; round < kRounds; ++round) {
        const auto small = Open(folder + "/small " + std::to_string(threads) + " " + std::to_string(round));
        const double rate = Rate(*full, threads);
        rates.push_back(rate);
        ratios.push_back(Rate(*small, threads) / rate);
      }
      std::printf(
          "%d threads: %.0f entries/s in a full log; time of one, as a ratio to a small log: %.2f (%.2f to %.2f)"
          "; target at most %.2f, %s\n",
          threads, bench::Median(rates), bench::Median(ratios), *std::ranges::min_element(ratios),
          *std::ranges::max_element(ratios), kTarget, bench::Median(ratios) <= kTarget ? "met" : "MISSED");
    }
  }
  std::filesystem::remove_all(folder);
  return 0;
}
