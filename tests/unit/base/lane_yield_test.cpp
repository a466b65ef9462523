// When the threads of a lane let others run on their processor.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "host/base/lane.h"
#include "tests/support/waiting.h"
#include "tests/unit/base/lane_gate.h"

namespace {

std::atomic<int> yields = 0;

}  // namespace

// Instead of the C library's.
extern "C" int sched_yield() noexcept {
  ++yields;
  return static_cast<int>(::syscall(SYS_sched_yield));
}

namespace vexa {
namespace {

using test::Eventually;
using test::GateOpener;

class LaneYield : public testing::Test {
 protected:
  static LaneOptions Options() {
    LaneOptions options;
    options.name = "test";
    options.max_threads = 1;
    return options;
  }
  // How often the lane's only thread yields. It is busy until all jobs wait.
  int YieldsOf(const std::vector<std::string>& owners) {
    yields = 0;
    EXPECT_EQ(lane_.Submit({owners.front()}, stuck_.job()), Lane::SubmitResult::kAccepted);
    EXPECT_TRUE(Eventually([&] { return stuck_.gate->waiting() == 1; }));
    for (std::size_t i = 1; i < owners.size(); ++i) {
      EXPECT_EQ(lane_.Submit({owners[i]}, [] {}), Lane::SubmitResult::kAccepted);
    }
    stuck_.gate->Open();
    EXPECT_TRUE(lane_.Stop(std::chrono::seconds(30)));
    return yields;
  }

  GateOpener stuck_;
  Lane lane_{Options()};
};

TEST_F(LaneYield, OwnerWithMoreJobs_BesideAnother_YieldsAfterEachButTheLast) {
  EXPECT_EQ(YieldsOf({"ann", "mallory", "mallory", "mallory", "mallory"}), 3);
}

TEST_F(LaneYield, OwnersWithOneJobEach_DoNotYield) {
  EXPECT_EQ(YieldsOf({"ann", "bob", "eve"}), 0) << "none of them keeps the thread busy";
}

TEST_F(LaneYield, OnlyOwner_DoesNotYield) {
  EXPECT_EQ(YieldsOf({"ann", "ann", "", "ann", "ann"}), 0) << "jobs without an owner are the process's own";
}

TEST_F(LaneYield, OwnerOfAnotherLane_Counts) {
  const auto shared = std::make_shared<RecentOwners>();
  LaneOptions options = Options();
  options.recent_owners = shared;
  Lane lane(options);
  shared->Note("bob", RecentOwners::Clock::now());
  GateOpener stuck;
  yields = 0;
  ASSERT_EQ(lane.Submit({"ann"}, stuck.job()), Lane::SubmitResult::kAccepted);
  ASSERT_TRUE(Eventually([&] { return stuck.gate->waiting() == 1; }));
  for (int i = 0; i < 3; ++i) ASSERT_EQ(lane.Submit({"ann"}, [] {}), Lane::SubmitResult::kAccepted);
  stuck.gate->Open();
  EXPECT_TRUE(lane.Stop(std::chrono::seconds(30)));
  EXPECT_EQ(yields, 2);
}

TEST(RecentOwners, Owner_WhoHasGone_IsForgotten) {
  const auto begin = RecentOwners::Clock::now();
  RecentOwners owners;
  EXPECT_FALSE(owners.AreSeveral(begin));
  owners.Note("ann", begin);
  owners.Note("ann", begin);
  EXPECT_FALSE(owners.AreSeveral(begin));
  owners.Note("bob", begin);
  EXPECT_TRUE(owners.AreSeveral(begin));
  owners.Note("bob", begin + RecentOwners::kMemory / 2);
  EXPECT_TRUE(owners.AreSeveral(begin + RecentOwners::kMemory / 2));
  EXPECT_FALSE(owners.AreSeveral(begin + RecentOwners::kMemory)) << "bob is alone again";
}

}  // namespace
}  // namespace vexa
