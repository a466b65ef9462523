// A cache that threads and processes share, some of which are killed.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/cache/cache_refresher.h"
#include "host/records/environment.h"
#include "tests/contract/cache_test_value.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr int kThreads = 8;
constexpr int kProcesses = 4;
constexpr auto kDuration = seconds(8);

std::unique_ptr<Process> StartWorker(const std::string& folder, const std::string& command) {
  // The program is in the folder of the test.
  const fs::path program = fs::read_symlink("/proc/self/exe").parent_path() / "cache_test_worker";
  ProcessOptions options;
  options.argv = {program.string(), command, folder};
  return std::make_unique<Process>(options);
}

class CacheProcesses : public ::testing::Test {
 protected:
  CacheProcesses() {
    records::Environment environment;
    environment.cache_directory = folder_.File("cache");
    records::InstallEnvironment(std::move(environment));
  }
  ~CacheProcesses() override {
    cache::RemoveCacheRefresher();
    records::RemoveEnvironment();
  }

  std::string directory() const { return folder_.File("cache"); }

  // Expects that a refresh succeeds, without waiting for a lock, and leaves only the record and the lock file.
  void ExpectCompleteValue() const {
    const auto start = steady_clock::now();
    // With a validity of 0 s, the stored value is too old, so this refreshes it.
    EXPECT_TRUE(IsCompleteValue(ChecksummedCache(folder_.path(), 0).BlockedRead()));
    EXPECT_LT(steady_clock::now() - start, seconds(30)) << "a dead process still holds the lock";
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory() + "/test")) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"checksummed.json", "checksummed.lock"}));
  }

  TempDir folder_;
};

TEST_F(CacheProcesses, ReadersAndRefreshers_KilledAtRandom_SeeCompleteValues) {
  auto refresher = std::make_unique<cache::CacheRefresher>();
  refresher->Add("test", "checksummed", [this] { return std::make_unique<ChecksummedCache>(folder_.path(), 0); });
  cache::InstallCacheRefresher(std::move(refresher));

  std::atomic<bool> is_done = false;
  std::atomic<int> reads = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, is_blocking = i % 2 == 0] {
      while (!is_done) {
        const ChecksummedCache cache(folder_.path(), 0);
        const Json::Value value = is_blocking ? cache.BlockedRead() : cache.NonBlockedRead();
        // Before the first refresh, a read that does not block has no value.
        EXPECT_TRUE(IsCompleteValue(value) || (value.isNull() && !is_blocking));
        ++reads;
      }
    });
  }

  std::vector<std::unique_ptr<Process>> workers(kProcesses);
  for (auto& worker : workers) worker = StartWorker(folder_.path(), "read");
  std::mt19937 random(20261);
  int killed = 0;
  for (const auto end = steady_clock::now() + kDuration; steady_clock::now() < end;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 60));
    auto& worker = workers[random() % workers.size()];
    ASSERT_TRUE(worker->IsRunning()) << worker->errors();
    worker->Signal(SIGKILL);
    const auto status = worker->Wait(seconds(30));
    ASSERT_TRUE(status.has_value());
    // A worker that reads an incomplete value exits by itself.
    ASSERT_EQ(status->signal, SIGKILL) << worker->errors();
    worker = StartWorker(folder_.path(), "read");
    ++killed;
  }
  for (auto& worker : workers) {
    worker->Signal(SIGKILL);
    EXPECT_TRUE(worker->Wait(seconds(30)).has_value());
    EXPECT_EQ(worker->errors(), "");
  }
  is_done = true;
  for (std::thread& thread : threads) thread.join();
  cache::RemoveCacheRefresher();
  EXPECT_GT(killed, 20);
  EXPECT_GT(reads, kThreads);
  EXPECT_EQ(CountOverlaps(folder_.path()), 0) << "two refreshes ran at the same time";
  ExpectCompleteValue();
}

TEST_F(CacheProcesses, Refresher_KilledDuringRefresh_DoesNotBlockOthers) {
  for (int round = 0; round < 5; ++round) {
    const auto hanging = StartWorker(folder_.path(), "hang");
    ASSERT_TRUE(hanging->WaitForText("refreshing", seconds(30))) << hanging->errors();
    // A read that does not block is not delayed by a refresh that hangs.
    const Json::Value value = ChecksummedCache(folder_.path(), 0).NonBlockedRead();
    EXPECT_TRUE(round == 0 ? value.isNull() : IsCompleteValue(value));
    std::thread waiter([this] { EXPECT_TRUE(IsCompleteValue(ChecksummedCache(folder_.path(), 0).BlockedRead())); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    hanging->Signal(SIGKILL);
    waiter.join();
    ExpectCompleteValue();
  }
}

TEST_F(CacheProcesses, Read_OtherRefresherHangs_WaitsLimitedTime) {
  records::RemoveEnvironment();
  records::Environment environment;
  environment.cache_directory = directory();
  environment.cache_wait = std::chrono::milliseconds(200);
  records::InstallEnvironment(std::move(environment));
  ExpectCompleteValue();
  const auto hanging = StartWorker(folder_.path(), "hang");
  ASSERT_TRUE(hanging->WaitForText("refreshing", seconds(30))) << hanging->errors();
  hanging->Signal(SIGSTOP);
  EXPECT_TRUE(IsCompleteValue(ChecksummedCache(folder_.path(), 0).BlockedRead())) << "the old value";
  hanging->Signal(SIGKILL);
  ASSERT_TRUE(hanging->Wait(seconds(30)).has_value());
  ExpectCompleteValue();
}

TEST_F(CacheProcesses, Waiter_OtherProcessRefreshes_UsesItsValue) {
  const auto slow = StartWorker(folder_.path(), "slow");
  ASSERT_TRUE(slow->WaitForText("refreshing", seconds(30))) << slow->errors();
  const Json::Value value = ChecksummedCache(folder_.path(), 0).BlockedRead();
  ASSERT_TRUE(IsCompleteValue(value));
  EXPECT_EQ(RefresherOf(value), slow->pid());
}

}  // namespace
}  // namespace vexa::test
