// Refreshes of caches in the background.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/base/files.h"
#include "host/cache/cache_refresher.h"
#include "host/records/environment.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "tests/support/counting_cache.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"

namespace vexa::test {
namespace {

using std::chrono::milliseconds;

class Refresher : public ::testing::Test {
 protected:
  Refresher() {
    ClearCapturedSyslog();
    Require(CreateDirectories(host_.folder().File("cache/test"), 0700));
  }
  ~Refresher() override {
    release_ = true;
    cache::RemoveCacheRefresher();
  }

  void Install(cache::CacheRefresherOptions options = {}, cache::CacheRefresher::Factory factory = nullptr) {
    auto refresher = std::make_unique<cache::CacheRefresher>(options);
    if (!factory) factory = [this] { return std::make_unique<CountingCache>(refreshes_, valid_s_); };
    refresher->Add("test", "counting", std::move(factory));
    cache::InstallCacheRefresher(std::move(refresher));
  }

  // As callers read: by an object of their own, which is gone when the refresh begins.
  int Read(const std::string& name = "counting") {
    return json::Int(json::Member(CountingCache(refreshes_, valid_s_, "test", name).NonBlockedRead(), "number"));
  }

  static bool Within(milliseconds limit, const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!holds()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(milliseconds(2));
    }
    return true;
  }
  static bool Soon(const std::function<bool()>& holds) { return Within(std::chrono::seconds(30), holds); }

  // Makes refreshes last until release_.
  void HoldRefreshes() {
    refreshes_.during = [this](int, Json::Value&) {
      while (!release_) std::this_thread::yield();
      return true;
    };
  }

  TestHost host_;
  RefreshCounters refreshes_;
  std::atomic<bool> release_ = false;
  int valid_s_ = 3600;
};

TEST_F(Refresher, Refresher_StaleRead_ReturnsImmediatelyAndRefreshes) {
  Install();
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(Soon([&] { return Read() == 1; }));
  EXPECT_EQ(refreshes_.started, 1);
  EXPECT_EQ(Read(), 1);
  EXPECT_EQ(refreshes_.started, 1) << "it is current";
}

TEST_F(Refresher, Read_NotInstalledOrOtherCache_RefreshesNothing) {
  EXPECT_EQ(Read(), 0);
  Install();
  EXPECT_EQ(Read("other"), 0);
  cache::RemoveCacheRefresher();
  EXPECT_EQ(Read(), 0);
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(refreshes_.started, 0);
}

TEST_F(Refresher, Requests_DuringRefresh_AreCoalescedWithoutBlocking) {
  HoldRefreshes();
  Install();
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(Soon([&] { return refreshes_.running == 1; }));
  for (int i = 0; i < 200; ++i) EXPECT_EQ(Read(), 0);
  release_ = true;
  EXPECT_TRUE(Soon([&] { return Read() == 1; }));
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(refreshes_.started, 1);
}

TEST_F(Refresher, VersionedCache_WhileRead_IsKeptFresh) {
  std::atomic<std::uint64_t> version = 1;
  cache::CacheRefresherOptions options;
  options.check_interval = milliseconds(5);
  options.refresh_after = std::chrono::hours(1);
  options.keep_fresh_for = milliseconds(500);
  auto refresher = std::make_unique<cache::CacheRefresher>(options);
  refresher->Add(
      "test", "counting", [this] { return std::make_unique<CountingCache>(refreshes_, valid_s_); },
      [&version] { return version.load(); });
  cache::InstallCacheRefresher(std::move(refresher));
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(Soon([&] { return Read() == 1; }));
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(refreshes_.started, 1) << "nothing has changed";
  Read();
  version = 2;
  EXPECT_TRUE(Soon([&] { return refreshes_.started == 2; })) << "although the value is current by its age";
  std::this_thread::sleep_for(milliseconds(700));
  version = 3;
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(refreshes_.started, 2) << "nobody reads it any more";
  EXPECT_EQ(Read(), 2);
  EXPECT_TRUE(Soon([&] { return refreshes_.started == 3; }));
}

TEST_F(Refresher, VersionedCache_TooOld_IsRefreshed) {
  cache::CacheRefresherOptions options;
  options.check_interval = milliseconds(5);
  options.refresh_after = milliseconds(30);
  auto refresher = std::make_unique<cache::CacheRefresher>(options);
  refresher->Add(
      "test", "counting", [this] { return std::make_unique<CountingCache>(refreshes_, valid_s_); }, [] { return 7; });
  cache::InstallCacheRefresher(std::move(refresher));
  Read();
  EXPECT_TRUE(Soon([&] { return refreshes_.started >= 4; }));
}

TEST_F(Refresher, Removal_DuringRefresh_WaitsForIt) {
  refreshes_.during = [this](int, Json::Value&) {
    std::this_thread::sleep_for(milliseconds(100));
    release_ = true;
    return true;
  };
  Install();
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(Soon([&] { return refreshes_.started == 1; }));
  cache::RemoveCacheRefresher();
  EXPECT_TRUE(release_);
  EXPECT_EQ(refreshes_.running, 0);
  EXPECT_EQ(Read(), 1) << "its result is stored";
}

TEST_F(Refresher, Refresher_Removal_DropsQueuedRefreshes) {
  HoldRefreshes();
  auto refresher = std::make_unique<cache::CacheRefresher>();
  std::atomic<int> others = 0;
  refresher->Add("test", "counting", [this] { return std::make_unique<CountingCache>(refreshes_); });
  refresher->Add("test", "other", [&] {
    ++others;
    return std::make_unique<CountingCache>(refreshes_, 3600, "test", "other");
  });
  cache::InstallCacheRefresher(std::move(refresher));
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(Soon([&] { return refreshes_.running == 1; }));
  EXPECT_EQ(Read("other"), 0);
  std::thread remover([] { cache::RemoveCacheRefresher(); });
  // The refresh is let go once the removal has surely begun.
  std::this_thread::sleep_for(milliseconds(100));
  release_ = true;
  remover.join();
  EXPECT_EQ(others, 0);
}

TEST_F(Refresher, Removal_RefreshHangs_EndsAtDeadline) {
  HoldRefreshes();
  Install();
  EXPECT_TRUE(cache::RemoveCacheRefresher(milliseconds(0))) << "nothing runs";
  Install();
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(Soon([&] { return refreshes_.running == 1; }));
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_FALSE(cache::RemoveCacheRefresher(milliseconds(50)));
  const auto waited = std::chrono::steady_clock::now() - begun;
  EXPECT_GE(waited, milliseconds(50));
  EXPECT_LT(waited, std::chrono::seconds(30));
  EXPECT_EQ(refreshes_.running, 1);
  release_ = true;
  EXPECT_TRUE(cache::RemoveCacheRefresher(std::chrono::seconds(30)));
  EXPECT_EQ(refreshes_.running, 0);
  EXPECT_EQ(Read(), 1);
  EXPECT_EQ(refreshes_.started, 1);
}

TEST_F(Refresher, Removal_WithDeadline_StartsNoOtherRefresh) {
  HoldRefreshes();
  valid_s_ = 0;
  Install();
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(Soon([&] { return refreshes_.running == 1; }));
  EXPECT_FALSE(cache::RemoveCacheRefresher(milliseconds(0)));
  release_ = true;
  EXPECT_TRUE(Soon([&] { return Read() == 1; }));
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(Read(), 1) << "it would have become another one";
  cache::RemoveCacheRefresher();
  EXPECT_EQ(refreshes_.started, 1);
}

TEST_F(Refresher, Refresh_Fails_BacksOffAndIsLoggedUntilSuccess) {
  std::atomic<bool> works = false;
  refreshes_.during = [&](int, Json::Value&) { return works.load(); };
  cache::CacheRefresherOptions options;
  options.initial_backoff = milliseconds(20);
  options.max_backoff = milliseconds(200);
  Install(options);
  const auto end = std::chrono::steady_clock::now() + milliseconds(500);
  while (std::chrono::steady_clock::now() < end) EXPECT_EQ(Read(), 0);
  // 20 + 40 + 80 + 160 + 200 ms; without a pause there would be thousands.
  EXPECT_GE(refreshes_.started, 1);
  EXPECT_LE(refreshes_.started, 6);
  EXPECT_EQ(CapturedSyslog().size(), 1u);
  works = true;
  EXPECT_TRUE(Soon([&] { return Read() > 0; }));
  EXPECT_TRUE(Soon([&] { return CapturedSyslog().size() == 2; }));
  EXPECT_TRUE(SyslogContains("can be refreshed again"));
}

TEST_F(Refresher, Refresh_Throws_IsFailure) {
  refreshes_.during = [](int number, Json::Value&) {
    if (number == 1) throw std::runtime_error("out of order");
    return true;
  };
  cache::CacheRefresherOptions options;
  options.initial_backoff = milliseconds(1);
  Install(options);
  EXPECT_TRUE(Soon([&] { return Read() == 2; }));
  EXPECT_TRUE(SyslogContains("out of order"));
}

TEST_F(Refresher, Refresh_FactoryReturnsNull_IsFailure) {
  const std::pair<const char*, cache::CacheRefresher::Factory> factories[] = {
      {"null", [] { return nullptr; }},
      {"another cache", [this] { return std::make_unique<CountingCache>(refreshes_, 5, "test", "other"); }},
      {"throws", []() -> std::unique_ptr<VexaDR::Cache::DRCache> { throw std::runtime_error("no"); }},
  };
  for (const auto& [what, factory] : factories) {
    ClearCapturedSyslog();
    Install({milliseconds(1), milliseconds(1)}, factory);
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(Read(), 0) << what;
      std::this_thread::sleep_for(milliseconds(2));
    }
    EXPECT_TRUE(Soon([] { return SyslogContains("its factory failed"); })) << what;
    cache::RemoveCacheRefresher();
    EXPECT_EQ(CapturedSyslog().size(), 1u) << what;
  }
  EXPECT_EQ(refreshes_.started, 0);
}

TEST_F(Refresher, Refresh_LockedByOtherProcess_DoesNotWait) {
  const std::string path = host_.folder().File("cache/test/counting.lock");
  const int lock = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  Install();
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Read(), 0);
    std::this_thread::sleep_for(milliseconds(2));
  }
  EXPECT_EQ(refreshes_.started, 0);
  ::close(lock);
  EXPECT_TRUE(Soon([&] { return Read() == 1; }));
  EXPECT_TRUE(CapturedSyslog().empty()) << "that is not a failure";
}

TEST_F(Refresher, LockHeldByOtherProcess_IsRetriedWithBackoff) {
  const std::string path = host_.folder().File("cache/test/counting.lock");
  const int lock = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  std::atomic<int> tries = 0;
  Install({}, [&] {
    ++tries;
    return std::make_unique<CountingCache>(refreshes_);
  });
  const auto begun = std::chrono::steady_clock::now();
  while (tries < 3) EXPECT_EQ(Read(), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begun, milliseconds(190)) << "two pauses of a tenth of a second";
  ::close(lock);
}

TEST_F(Refresher, Refresh_DatabaseReads_UseOneSnapshot) {
  Json::Value record;
  record["name"] = "before";
  host_.Put("guest", "g", record);
  std::atomic<bool> is_same = false;
  refreshes_.during = [&](int, Json::Value&) {
    const std::string key = TestHost::ObjectKey("guest", "g");
    const std::string first = json::String((*Require(Require(records::ReaderOfRequest())->ReadRecord(key)))["name"]);
    Json::Value changed;
    changed["name"] = "after";
    host_.Put("guest", "g", changed);
    is_same = first == json::String((*Require(Require(records::ReaderOfRequest())->ReadRecord(key)))["name"]);
    return true;
  };
  Install();
  EXPECT_EQ(Read(), 0);
  EXPECT_TRUE(Soon([&] { return Read() == 1; }));
  EXPECT_TRUE(is_same) << "one state of the database per refresh";
}

TEST_F(Refresher, BlockedRead_InRequest_ComputesFromNewestState) {
  const std::string key = TestHost::ObjectKey("guest", "g");
  Json::Value record;
  record["name"] = "before";
  host_.Put("guest", "g", record);
  refreshes_.during = [&](int, Json::Value& data) {
    data["name"] = (*Require(Require(records::ReaderOfRequest())->ReadRecord(key)))["name"];
    return true;
  };
  const records::RequestScope scope;
  (void)Require(Require(records::ReaderOfRequest())->ReadRecord(key));
  record["name"] = "after";
  host_.Put("guest", "g", record);
  EXPECT_EQ(json::String(CountingCache(refreshes_).BlockedRead()["name"]), "after");
}

TEST_F(Refresher, Refresher_ValueNeverCurrent_IsRefreshedRepeatedly) {
  valid_s_ = 0;
  Install();
  EXPECT_TRUE(Soon([&] { return Read() >= 3; }));
}

TEST_F(Refresher, Reads_WhileRefresherInstalledAndRemoved_Succeed) {
  valid_s_ = 0;
  std::atomic<bool> is_done = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      int last = 0;
      while (!is_done) {
        const int number = Read();
        EXPECT_GE(number, last);
        last = number;
      }
    });
  }
  for (int round = 0; round < 20; ++round) {
    Install();
    std::this_thread::sleep_for(milliseconds(10));
    cache::RemoveCacheRefresher();
  }
  is_done = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(refreshes_.max_concurrent, 1);
}

}  // namespace
}  // namespace vexa::test
