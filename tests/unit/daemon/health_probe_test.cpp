#include "host/daemon/health_probe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "tests/support/faulty_store.h"
#include "tests/support/require.h"
#include "tests/support/temp_dir.h"
#include "tests/support/waiting.h"

namespace vexa::daemon {
namespace {

using std::chrono::milliseconds;
using test::Eventually;

constexpr milliseconds kNever{3'600'000};

// A check that hangs while the disk does.
struct Disk {
  std::string Check() {
    std::unique_lock lock(mutex);
    ++checks;
    changed.wait(lock, [this] { return !hangs; });
    if (throws) throw std::runtime_error("a fault");
    return problem;
  }
  void Set(const std::function<void()>& change) {
    const std::lock_guard lock(mutex);
    change();
    changed.notify_all();
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::string problem;
  bool hangs = false;
  bool throws = false;
  std::atomic<int> checks = 0;
};

HealthProbeOptions CheckOf(const std::shared_ptr<Disk>& disk, milliseconds deadline) {
  return {.check = [disk] { return disk->Check(); }, .interval = milliseconds(5), .deadline = deadline};
}

TEST(HealthProbe, Problem_FollowsTheChecks) {
  const auto disk = std::make_shared<Disk>();
  const HealthProbe probe(CheckOf(disk, kNever));
  ASSERT_TRUE(Eventually([&] { return disk->checks > 1; }));
  EXPECT_EQ(probe.Problem(), "");
  disk->Set([&] { disk->problem = "full"; });
  EXPECT_TRUE(Eventually([&] { return probe.Problem() == "full"; }));
  disk->Set([&] { disk->problem = ""; });
  EXPECT_TRUE(Eventually([&] { return probe.Problem().empty(); }));
  disk->Set([&] { disk->throws = true; });
  EXPECT_TRUE(Eventually([&] { return probe.Problem() == "the database cannot be checked: a fault"; }));
}

TEST(HealthProbe, CheckThatHangs_IsReportedWithoutWaiting_AndForgottenOnceItReturns) {
  const auto disk = std::make_shared<Disk>();
  const HealthProbe probe(CheckOf(disk, milliseconds(50)));
  disk->Set([&] { disk->hangs = true; });
  EXPECT_TRUE(Eventually([&] { return probe.Problem() == "the database does not answer"; }));
  disk->Set([&] { disk->hangs = false; });
  EXPECT_TRUE(Eventually([&] { return probe.Problem().empty(); }));
}

TEST(HealthProbe, Destroyed_WhileCheckHangs_DoesNotWaitForIt) {
  const auto disk = std::make_shared<Disk>();
  disk->hangs = true;
  {
    const HealthProbe probe(CheckOf(disk, milliseconds(50)));
    ASSERT_TRUE(Eventually([&] { return disk->checks > 0; }));
  }
  disk->Set([&] { disk->hangs = false; });
  EXPECT_TRUE(Eventually([&] { return disk.use_count() == 1; })) << "its thread ends";
}

class StoreCheck : public testing::Test {
 protected:
  StoreCheck() {
    store::LmdbOptions options;
    options.directory = folder_.File("store");
    store_ = std::make_shared<test::FaultyStore>(test::Require(store::OpenLmdbStore(options)));
  }
  void WriteHeartbeat() {
    (void)test::Require(store_->Commit({{}, {{store::MakeKey({"dash", "host", "h1", "seen"}), "{}"}}}));
  }

  test::TempDir folder_;
  std::shared_ptr<test::FaultyStore> store_;
};

// No heartbeat could arrive meanwhile, so they have their time again.
TEST_F(StoreCheck, StoreWorksAgain_HeartbeatsAreNotReportedYet) {
  constexpr milliseconds kTime{5'000};
  const auto check = MakeStoreCheck(store_, "h1", kTime);
  WriteHeartbeat();
  const auto written = std::chrono::steady_clock::now();
  ASSERT_EQ(check(), "");
  store_->ReportHealth(store::Health::kInaccessible);
  while (std::chrono::steady_clock::now() <= written + 2 * kTime) {
    ASSERT_EQ(check(), "the database cannot be read");
    std::this_thread::sleep_for(milliseconds(100));
  }
  EXPECT_EQ(check(), "the database cannot be read");
  store_->Heal();
  EXPECT_EQ(check(), "");
  EXPECT_TRUE(Eventually([&] { return check() == "the heartbeats of this host do not reach the database"; }));
}

TEST_F(StoreCheck, StoreThatFails_IsAProblem) {
  const auto check = MakeStoreCheck(store_, "h1", kNever);
  WriteHeartbeat();
  EXPECT_EQ(check(), "");
  store_->ReportHealth(store::Health::kReadOnly);
  EXPECT_EQ(check(), "the database cannot be written");
  store_->ReportHealth(store::Health::kInaccessible);
  EXPECT_EQ(check(), "the database cannot be read");
  store_->Heal();
  store_->FailSnapshots();
  EXPECT_EQ(check(), "the database cannot be read");
  store_->Heal();
  EXPECT_EQ(check(), "");
}

TEST_F(StoreCheck, HeartbeatsThatNoLongerArrive_AreAProblemUntilTheNext) {
  const auto check = MakeStoreCheck(store_, "h1", milliseconds(0));
  WriteHeartbeat();
  (void)check();
  const std::string late = "the heartbeats of this host do not reach the database";
  EXPECT_TRUE(Eventually([&] { return check() == late; }));
  const auto patient = MakeStoreCheck(store_, "h1", kNever);
  EXPECT_EQ(patient(), "");
  // An outage that the store reports itself says nothing about heartbeats.
  store_->ReportHealth(store::Health::kInaccessible);
  EXPECT_EQ(check(), "the database cannot be read");
}

}  // namespace
}  // namespace vexa::daemon
