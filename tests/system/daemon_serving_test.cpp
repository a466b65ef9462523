// When a daemon counts as serving requests, which is what its watchdog reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <semaphore>
#include <thread>

#include "host/daemon/daemon.h"
#include "tests/support/require.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_row.h"
#include "tests/support/vexad_client.h"
#include "tests/support/waiting.h"

namespace vexa::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// More calls than the lane for quick calls has threads.
int MoreThanQuickThreads() { return std::max(64, 2 * static_cast<int>(std::thread::hardware_concurrency())) + 1; }

class DaemonServing : public testing::Test {
 protected:
  void SetUp() override {
    daemon::Config config;
    config.data_directory = folder_.File("data");
    config.socket = folder_.File("s");
    config.listen = {"127.0.0.1:0"};
    config.hypervisor = "none";
    std::vector<api::ApiRow> rows{
        TestRow("VEXA.Test", "hang", api::Access::kAnyone, api::LaneKind::kQuick, [this](const api::Call& call) {
          ++hanging_;
          may_end_.acquire();
          call.response->SetSuccess(Json::Value());
        })};
    daemon_ = Require(daemon::Daemon::Start(config, std::move(rows)));
  }
  void TearDown() override {
    may_end_.release(MoreThanQuickThreads());
    for (std::thread& call : calls_) call.join();
    EXPECT_TRUE(daemon_->Stop(seconds(30)));
  }
  // Starts this many calls that do not end, of two callers in turn, because one caller cannot take all threads. Waits
  // until each has a thread or waits for one.
  void Hang(int calls, int running) {
    for (int i = 0; i < calls; ++i) {
      calls_.emplace_back([this, is_local = i % 2 == 0] {
        HttpClient client(is_local ? UnixSocket(folder_.File("s")) : Network());
        client.SetTimeout(seconds(120));
        EXPECT_EQ(client.PostJson("/webapi/VEXA.Test/hang", "{}").status, 200);
      });
    }
    EXPECT_TRUE(Eventually([&] { return hanging_ == running; })) << hanging_;
  }

  HttpTarget Network() const {
    HttpTarget target;
    target.url = "http://127.0.0.1:" + std::to_string(daemon_->port(0));
    return target;
  }

  TempDir folder_;
  std::atomic<int> hanging_ = 0;
  std::counting_semaphore<> may_end_{0};
  std::vector<std::thread> calls_;
  std::unique_ptr<daemon::Daemon> daemon_;
};

TEST_F(DaemonServing, FewCallsHang_DaemonServes) {
  EXPECT_TRUE(daemon_->IsServing(seconds(30)));
  ASSERT_NO_FATAL_FAILURE(Hang(8, 8));
  EXPECT_TRUE(daemon_->IsServing(seconds(30)));
}

TEST_F(DaemonServing, AllQuickThreadsHang_DaemonDoesNotServeUntilTheyEnd) {
  ASSERT_NO_FATAL_FAILURE(Hang(MoreThanQuickThreads(), MoreThanQuickThreads() - 1));
  EXPECT_FALSE(daemon_->IsServing(milliseconds(200)));
  may_end_.release(MoreThanQuickThreads());
  EXPECT_TRUE(daemon_->IsServing(seconds(30)));
}

}  // namespace
}  // namespace vexa::test
