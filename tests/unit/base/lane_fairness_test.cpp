// What the owners of a lane's jobs can take from each other.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "host/base/lane.h"
#include "tests/support/waiting.h"
#include "tests/unit/base/lane_gate.h"

namespace vexa {
namespace {

using std::chrono::milliseconds;
using test::Eventually;
using test::GateOpener;
using SubmitResult = Lane::SubmitResult;

// Generous: a loaded machine must not fail a test.
constexpr std::chrono::seconds kTimeout{30};

LaneOptions Options() {
  LaneOptions options;
  options.name = "test";
  return options;
}

TEST(LaneFairness, Quota_CountsWaitingAndRunningJobsOfOneUser) {
  GateOpener stuck;
  LaneOptions options = Options();
  options.max_threads = 1;
  options.limits.per_user = 2;
  Lane lane(options);
  ASSERT_EQ(lane.Submit({"ann"}, stuck.job()), SubmitResult::kAccepted);
  ASSERT_TRUE(Eventually([&] { return stuck.gate->waiting() == 1; }));
  ASSERT_EQ(lane.Submit({"ann"}, [] {}), SubmitResult::kAccepted);
  EXPECT_EQ(lane.Submit({"ann"}, [] {}), SubmitResult::kOverQuota);
  EXPECT_EQ(lane.Submit({"bob"}, [] {}), SubmitResult::kAccepted);
  EXPECT_EQ(lane.stats().refused, 1U);
  EXPECT_EQ(lane.stats().over_quota, 1U);
  stuck.gate->Open();
  ASSERT_TRUE(Eventually([&] { return lane.stats().done == 3; }));
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(Eventually([&] { return lane.Submit({"ann"}, [] {}) == SubmitResult::kAccepted; })) << i;
  }
}

TEST(LaneFairness, UserWithManyJobs_DelaysAnothersByOne) {
  GateOpener stuck;
  LaneOptions options = Options();
  options.max_threads = 1;
  Lane lane(options);
  std::vector<std::string> order;
  ASSERT_EQ(lane.Submit({"mallory"}, stuck.job()), SubmitResult::kAccepted);
  ASSERT_TRUE(Eventually([&] { return stuck.gate->waiting() == 1; }));
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(lane.Submit({"mallory"}, [&] { order.emplace_back("mallory"); }), SubmitResult::kAccepted);
  }
  ASSERT_EQ(lane.Submit({"ann"}, [&] { order.emplace_back("ann"); }), SubmitResult::kAccepted);
  stuck.gate->Open();
  ASSERT_TRUE(lane.Stop(kTimeout));
  ASSERT_EQ(order.size(), 101u);
  EXPECT_EQ(order[1], "ann");
}

TEST(LaneFairness, UserWhoseJobsAreStuck_LeavesThreadsToOthers) {
  GateOpener stuck;
  LaneOptions options = Options();
  options.max_threads = 4;
  options.limits.running_per_user = 3;
  options.grow_after = milliseconds(0);
  Lane lane(options);
  for (int i = 0; i < 10; ++i) ASSERT_EQ(lane.Submit({"mallory"}, stuck.job()), SubmitResult::kAccepted);
  ASSERT_TRUE(Eventually([&] { return stuck.gate->waiting() == 3; }));
  std::promise<void> ran;
  ASSERT_EQ(lane.Submit({"ann"}, [&] { ran.set_value(); }), SubmitResult::kAccepted);
  EXPECT_EQ(ran.get_future().wait_for(kTimeout), std::future_status::ready);
  EXPECT_EQ(stuck.gate->waiting(), 3);
  EXPECT_EQ(lane.stats().queued, 7u);
  stuck.gate->Open();
  EXPECT_TRUE(lane.Stop(kTimeout)) << "the jobs that were held back run as well";
  EXPECT_EQ(lane.stats().done, 11u);
}

TEST(LaneFairness, UserWhoseJobsAreStuck_GetsMoreThreads) {
  GateOpener stuck;
  LaneOptions options = Options();
  options.min_threads = 2;
  options.max_threads = 8;
  options.limits.active_per_user = 1;
  options.limits.running_per_user = 4;
  options.grow_after = milliseconds(5);
  Lane lane(options);
  for (int i = 0; i < 6; ++i) ASSERT_EQ(lane.Submit({"ann"}, stuck.job()), SubmitResult::kAccepted);
  EXPECT_TRUE(Eventually([&] { return stuck.gate->waiting() == 4; }));
  EXPECT_EQ(lane.stats().queued, 2u);
  std::promise<void> ran;
  ASSERT_EQ(lane.Submit({"bob"}, [&] { ran.set_value(); }), SubmitResult::kAccepted);
  EXPECT_EQ(ran.get_future().wait_for(kTimeout), std::future_status::ready);
  stuck.gate->Open();
  EXPECT_TRUE(lane.Stop(kTimeout));
  EXPECT_EQ(lane.stats().done, 7u);
}

// The monitor has nothing left to do while the user has as many running jobs as allowed, and is needed again when one
// of them ends.
TEST(LaneFairness, OneOfStuckJobsEnds_NextOneStarts) {
  GateOpener first;
  GateOpener second;
  LaneOptions options = Options();
  options.limits.active_per_user = 1;
  options.limits.running_per_user = 2;
  options.grow_after = milliseconds(5);
  Lane lane(options);
  std::promise<void> ran;
  ASSERT_EQ(lane.Submit({"ann"}, first.job()), SubmitResult::kAccepted);
  ASSERT_EQ(lane.Submit({"ann"}, second.job()), SubmitResult::kAccepted);
  ASSERT_EQ(lane.Submit({"ann"}, [&] { ran.set_value(); }), SubmitResult::kAccepted);
  ASSERT_TRUE(Eventually([&] { return first.gate->waiting() == 1 && second.gate->waiting() == 1; }));
  std::this_thread::sleep_for(milliseconds(50));  // until the monitor waits without a timeout
  first.gate->Open();
  EXPECT_EQ(ran.get_future().wait_for(kTimeout), std::future_status::ready);
  second.gate->Open();
  EXPECT_TRUE(lane.Stop(kTimeout));
}

TEST(LaneFairness, UserWhoseJobsEnd_KeepsToFewThreads) {
  LaneOptions options = Options();
  options.min_threads = 4;
  options.limits.active_per_user = 2;
  options.limits.running_per_user = 4;
  options.grow_after = std::chrono::hours(1);
  Lane lane(options);
  std::atomic<int> running = 0;
  std::atomic<int> most = 0;
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(lane.Submit({"ann"},
                          [&] {
                            const int now = ++running;
                            if (now > most) most = now;
                            std::this_thread::yield();
                            --running;
                          }),
              SubmitResult::kAccepted);
  }
  EXPECT_TRUE(lane.Stop(kTimeout));
  EXPECT_EQ(lane.stats().done, 500u);
  EXPECT_LE(most, 2);
}

TEST(LaneFairness, Host_OverItsQuota_IsRefusedWhateverUserItNames) {
  GateOpener stuck;
  LaneOptions options = Options();
  options.limits.per_user = 2;
  options.limits.per_host = 3;
  Lane lane(options);
  for (const char* user : {"h1/ann", "h1/ann", "h1/bob"}) {
    ASSERT_EQ(lane.Submit({user, "h1"}, stuck.job()), SubmitResult::kAccepted);
  }
  EXPECT_EQ(lane.Submit({"h1/eve", "h1"}, [] {}), SubmitResult::kOverQuota);
  EXPECT_EQ(lane.Submit({"h2/eve", "h2"}, [] {}), SubmitResult::kAccepted);
  EXPECT_EQ(lane.stats().over_quota, 1u);
}

}  // namespace
}  // namespace vexa
