#include "host/daemon/lanes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

namespace vexa::daemon {
namespace {

TEST(Lanes, Lane_CallersOfOthers_CannotTakeAllThreads) {
  const Config config;
  for (const LaneOptions& lane :
       {QuickLane(), LongLane(config), HostLane(config), QuickHostLane(config), ItemLane(config)}) {
    EXPECT_GT(lane.limits.running_per_user, 0u) << lane.name;
    EXPECT_LT(lane.limits.running_per_user, static_cast<std::size_t>(lane.max_threads)) << lane.name;
    EXPECT_GT(lane.limits.queued, 0u) << lane.name;
  }
  for (const LaneOptions& lane : {QuickLane(), LongLane(config), HostLane(config), QuickHostLane(config)}) {
    EXPECT_GT(lane.limits.per_user, 0u) << lane.name;
    EXPECT_LT(lane.limits.per_user, lane.limits.queued) << lane.name;
  }
  for (const LaneOptions& lane : {QuickLane(), LongLane(config)}) {
    EXPECT_EQ(lane.limits.active_per_user, std::max(1u, std::thread::hardware_concurrency()))
        << lane.name << ": more threads would only wait for each other's processors";
  }
  const LaneOptions quick = QuickLane();
  EXPECT_LE(quick.limits.active_per_user, static_cast<std::size_t>(quick.max_threads) / 2)
      << "one caller's load leaves processors to others";
  for (const LaneOptions& lane : {HostLane(config), QuickHostLane(config)}) {
    EXPECT_LT(lane.limits.per_host, static_cast<std::size_t>(lane.max_threads)) << lane.name;
  }
}

TEST(Lanes, Settings_DecideTheLimitsOfCallers) {
  Config config;
  config.long_threads = 100;
  config.calls_per_user = 5;
  config.calls_per_host = 20;
  EXPECT_EQ(LongLane(config).limits.per_user, 5u);
  EXPECT_EQ(HostLane(config).limits.per_user, 5u);
  EXPECT_EQ(HostLane(config).limits.per_host, 20u);
  EXPECT_EQ(QuickHostLane(config).limits.per_user, 5u);
  EXPECT_EQ(QuickHostLane(config).limits.per_host, 20u);
  EXPECT_EQ(LongLane(config).limits.running_per_user, 88u);
  config.long_threads = 1;
  EXPECT_EQ(LongLane(config).limits.running_per_user, 1u);
}

// A call of this host to itself may wait for another one, which must find a thread.
TEST(Lanes, LocalCalls_OfOneUser_MayTakeAllThreads) {
  EXPECT_EQ(LocalLane(Config()).limits.running_per_user, 0u);
  EXPECT_EQ(LocalLane(Config()).limits.per_user, 0u);
}

}  // namespace
}  // namespace vexa::daemon
