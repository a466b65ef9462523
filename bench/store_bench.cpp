// Measures the cost of the LMDB store: reads in microseconds, commits as a ratio to bare syncs of the disk in the same
// run.
//
// Usage: store_bench [FOLDER] (a new folder below it is used and removed)
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_util.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"

namespace {

using std::chrono::steady_clock;
using namespace vexa::store;
using vexa::bench::Check;
using vexa::bench::Quantile;

constexpr int kGuests = 10'000;
constexpr int kReads = 20'000;
constexpr std::chrono::seconds kMeasuredTime{2};

double MicrosecondsOf(const std::function<void()>& work) {
  const auto start = steady_clock::now();
  work();
  return std::chrono::duration<double, std::micro>(steady_clock::now() - start).count();
}

void PrintQuantiles(const char* what, const std::vector<double>& samples) {
  std::printf("%-44s p50 %8.2f us   p99 %8.2f us\n", what, Quantile(samples, 0.5), Quantile(samples, 0.99));
}

std::string GuestKey(int guest, const char* part) { return MakeKey({"dash", "guest", std::to_string(guest), part}); }

void Fill(Store& store) {
  const std::string text(800, 'x');
  for (int guest = 0; guest < kGuests;) {
    Transaction transaction;
    for (int i = 0; i < 500; ++i, ++guest) {
      transaction.operations.push_back({GuestKey(guest, "object"), text});
      transaction.operations.push_back({GuestKey(guest, "state"), text});
    }
    Check(store.Commit(transaction).ok(), "fill");
  }
}

void MeasureReads(const Store& store) {
  for (const int gets : {1, 9}) {
    std::vector<double> samples;
    std::size_t bytes = 0;
    for (int i = 0; i < kReads; ++i) {
      std::vector<std::string> keys;
      for (int k = 0; k < gets; ++k) keys.push_back(GuestKey((i * 7919 + k * 13) % kGuests, "object"));
      samples.push_back(MicrosecondsOf([&] {
        const auto snapshot = store.Read();
        for (const std::string& key : keys) bytes += snapshot.value()->Get(key).value()->text.size();
      }));
    }
    Check(bytes == static_cast<std::size_t>(kReads) * static_cast<std::size_t>(gets) * 800, "read");
    PrintQuantiles(gets == 1 ? "snapshot and one get" : "snapshot and nine gets", samples);
  }
  const auto snapshot = std::move(store.Read()).value();
  std::vector<double> single;
  for (int i = 0; i < kReads; ++i) {
    const std::string key = GuestKey(i * 7919 % kGuests, "object");
    single.push_back(MicrosecondsOf([&] { Check(snapshot->Get(key).value().has_value(), "get"); }));
  }
  PrintQuantiles("one get inside a snapshot", single);
  const double children =
      MicrosecondsOf([&] { Check(snapshot->Children("/dash/guest")->size() == kGuests, "children"); });
  std::printf("%-44s     %8.3f us per child\n", "children of a folder with 10,000", children / kGuests);
}

// Writes of one page, each followed by a sync of the file, per second.
double BareSyncRate(const std::string& directory) {
  const std::string path = directory + "/bare";
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
  Check(fd >= 0, "open");
  const std::string page(4096, 'p');
  for (int i = 0; i < 64; ++i) Check(::write(fd, page.data(), page.size()) == 4096, "write");
  Check(::fsync(fd) == 0, "sync");
  int syncs = 0;
  const auto start = steady_clock::now();
  for (; steady_clock::now() - start < kMeasuredTime; ++syncs) {
    Check(::pwrite(fd, page.data(), page.size(), syncs % 64 * 4096) == 4096 && ::fdatasync(fd) == 0, "sync");
  }
  const double seconds = std::chrono::duration<double>(steady_clock::now() - start).count();
  ::close(fd);
  return syncs / seconds;
}

double CommitRate(Store& store, int threads) {
  std::atomic<long> commits{0};
  std::vector<std::thread> running;
  const auto start = steady_clock::now();
  for (int t = 0; t < threads; ++t) {
    running.emplace_back([&, t] {
      const std::string text(800, 'y');
      for (int i = 0; steady_clock::now() - start < kMeasuredTime; ++i) {
        Check(store.Commit({{}, {{GuestKey((i * threads + t) % kGuests, "state"), text}}}).ok(), "commit");
        ++commits;
      }
    });
  }
  for (std::thread& thread : running) thread.join();
  return static_cast<double>(commits) / std::chrono::duration<double>(steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  std::string directory = std::string(argc > 1 ? argv[1] : "/tmp") + "/vexa_store_bench_XXXXXX";
  Check(::mkdtemp(directory.data()) != nullptr, "mkdtemp");
  {
    auto opened = OpenLmdbStore({directory + "/store"});
    Check(opened.ok(), "open");
    Store& store = **opened;
    Fill(store);
    MeasureReads(store);
    const double bare_before = BareSyncRate(directory);
    const double one = CommitRate(store, 1);
    const double eight = CommitRate(store, 8);
    const double bare = (bare_before + BareSyncRate(directory)) / 2;
    std::printf("%-44s %8.0f per second\n", "bare write and fdatasync of one page", bare);
    std::printf("%-44s %8.0f per second   %5.2f of bare\n", "commits, one thread", one, one / bare);
    std::printf("%-44s %8.0f per second   %5.2f of bare\n", "commits, eight threads", eight, eight / bare);
  }
  std::filesystem::remove_all(directory);
  return 0;
}
