// A daemon that was stopped while it refreshed a cached value waited for the refresh without a limit.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "host/cache/cache_refresher.h"
#include "tests/support/counting_cache.h"
#include "tests/support/test_daemon.h"

namespace vexa::test {
namespace {

using std::chrono::seconds;

TEST(StopDuringRefresh, Stop_RefreshHangs_ReturnsAtDeadline) {
  RefreshCounters refreshes;
  std::mutex mutex;
  std::condition_variable changed;
  bool is_released = false;
  // At most a minute, so that this test does not hang when it fails.
  refreshes.during = [&](int, Json::Value&) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, seconds(60), [&] { return is_released; });
  };
  TestDaemon daemon;
  auto refresher = std::make_unique<cache::CacheRefresher>();
  refresher->Add("test", "counting", [&] { return std::make_unique<CountingCache>(refreshes); });
  cache::InstallCacheRefresher(std::move(refresher));
  CountingCache(refreshes).NonBlockedRead();
  const auto end = std::chrono::steady_clock::now() + seconds(30);
  while (refreshes.running == 0 && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  ASSERT_EQ(refreshes.running, 1);

  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(daemon.daemon().Stop(std::chrono::milliseconds(200))) << "it still runs";
  EXPECT_LT(std::chrono::steady_clock::now() - start, seconds(30));
  {
    const std::lock_guard lock(mutex);
    is_released = true;
  }
  changed.notify_all();
}

}  // namespace
}  // namespace vexa::test
