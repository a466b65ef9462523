#include "host/base/lane.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/waiting.h"
#include "tests/unit/base/lane_gate.h"

namespace vexa {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::Eventually;
using test::Gate;
using test::GateOpener;
using test::ProcessThreads;
using SubmitResult = Lane::SubmitResult;

// Generous: a loaded machine must not fail a test.
constexpr seconds kTimeout{20};

LaneOptions Options() {
  LaneOptions options;
  options.name = "test";
  return options;
}

TEST(Lane, OneThread_RunsJobsInTheOrderOfSubmission) {
  LaneOptions options = Options();
  options.max_threads = 1;
  Lane lane(options);
  std::vector<int> seen;
  for (int i = 0; i < 1000; ++i)
    ASSERT_EQ(lane.Submit({""}, [&seen, i] { seen.push_back(i); }), SubmitResult::kAccepted);
  ASSERT_TRUE(lane.Stop(kTimeout));
  ASSERT_EQ(seen.size(), 1000U);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(seen[static_cast<std::size_t>(i)], i);
}

TEST(Lane, MinimumThreads_ExistBeforeTheFirstJob) {
  LaneOptions options = Options();
  options.min_threads = 3;
  const Lane lane(options);
  EXPECT_EQ(lane.stats().threads, 3);
}

TEST(Lane, NoMinimum_StartsAThreadWithTheFirstJob) {
  LaneOptions options = Options();
  options.min_threads = 0;
  options.grow_after = std::chrono::hours(1);
  Lane lane(options);
  EXPECT_EQ(lane.stats().threads, 0);
  std::promise<void> ran;
  ASSERT_EQ(lane.Submit({""}, [&] { ran.set_value(); }), SubmitResult::kAccepted);
  EXPECT_EQ(ran.get_future().wait_for(kTimeout), std::future_status::ready);
}

TEST(Lane, ThreadNames_CarryTheLaneAndANumber) {
  Lane lane(Options());
  std::promise<std::string> name;
  ASSERT_EQ(lane.Submit({""},
                        [&] {
                          char text[32] = {};
                          pthread_getname_np(pthread_self(), text, sizeof text);
                          name.set_value(text);
                        }),
            SubmitResult::kAccepted);
  EXPECT_EQ(name.get_future().get(), "test-1");
}

TEST(Lane, AllThreadsStuck_GrowsForTheNextJobs) {
  const GateOpener stuck;
  LaneOptions options = Options();
  options.min_threads = 2;
  options.max_threads = 8;
  Lane lane(options);
  for (int i = 0; i < 6; ++i) ASSERT_EQ(lane.Submit({""}, stuck.job()), SubmitResult::kAccepted);
  ASSERT_TRUE(Eventually([&] { return stuck.gate->waiting() == 6; }));
  std::promise<void> ran;
  ASSERT_EQ(lane.Submit({""}, [&] { ran.set_value(); }), SubmitResult::kAccepted);
  EXPECT_EQ(ran.get_future().wait_for(kTimeout), std::future_status::ready);
  EXPECT_TRUE(Eventually([&] { return lane.stats().busy == 6; }));
  EXPECT_EQ(lane.stats().threads, 7);
}

TEST(Lane, Threads_MoreStuckJobsThanThreads_NeverExceedMaximum) {
  const GateOpener stuck;
  LaneOptions options = Options();
  options.max_threads = 3;
  options.grow_after = milliseconds(1);
  Lane lane(options);
  for (int i = 0; i < 10; ++i) ASSERT_EQ(lane.Submit({""}, stuck.job()), SubmitResult::kAccepted);
  ASSERT_TRUE(Eventually([&] { return lane.stats().busy == 3; }));
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(lane.stats().threads, 3);
  EXPECT_EQ(lane.stats().queued, 7U);
  stuck.gate->Open();
  EXPECT_TRUE(lane.Stop(kTimeout));
  EXPECT_EQ(lane.stats().done, 10U);
}

TEST(Lane, Submit_GrowAfterZeroAndNoneIdle_AddsThread) {
  const GateOpener stuck;
  LaneOptions options = Options();
  options.grow_after = milliseconds(0);
  options.max_threads = 4;
  Lane lane(options);
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(lane.Submit({""}, stuck.job()), SubmitResult::kAccepted);
    EXPECT_LE(lane.stats().threads, i + 1);
  }
  EXPECT_EQ(lane.stats().threads, 4);
  EXPECT_TRUE(Eventually([&] { return stuck.gate->waiting() == 4; }));
}

TEST(Lane, Lane_QuickJobs_AddNoThread) {
  LaneOptions options = Options();
  options.grow_after = std::chrono::seconds(30);
  Lane lane(options);
  for (int i = 0; i < 500; ++i) {
    std::promise<void> ran;
    ASSERT_EQ(lane.Submit({""}, [&] { ran.set_value(); }), SubmitResult::kAccepted);
    ran.get_future().wait();
  }
  EXPECT_EQ(lane.stats().threads, 1);
}

TEST(Lane, ThreadsAboveTheMinimum_EndWhenIdle) {
  GateOpener stuck;
  LaneOptions options = Options();
  options.max_threads = 6;
  options.grow_after = milliseconds(1);
  options.idle_exit = seconds(1);
  Lane lane(options);
  for (int i = 0; i < 6; ++i) ASSERT_EQ(lane.Submit({""}, stuck.job()), SubmitResult::kAccepted);
  ASSERT_TRUE(Eventually([&] { return lane.stats().threads == 6; }));
  stuck.gate->Open();
  // A trickle of jobs, which the thread that slept last takes, keeps no other thread alive.
  EXPECT_TRUE(Eventually([&] {
    lane.Submit({""}, [] {});
    return lane.stats().threads == 1;
  }));
  std::promise<void> ran;
  ASSERT_EQ(lane.Submit({""}, [&] { ran.set_value(); }), SubmitResult::kAccepted);
  EXPECT_EQ(ran.get_future().wait_for(kTimeout), std::future_status::ready);
}

TEST(Lane, Submit_QueueFull_IsRefusedUntilThereIsRoom) {
  GateOpener stuck;
  LaneOptions options = Options();
  options.max_threads = 1;
  options.limits.queued = 2;
  Lane lane(options);
  ASSERT_EQ(lane.Submit({""}, stuck.job()), SubmitResult::kAccepted);
  ASSERT_TRUE(Eventually([&] { return stuck.gate->waiting() == 1; }));
  EXPECT_EQ(lane.Submit({""}, [] {}), SubmitResult::kAccepted);
  EXPECT_EQ(lane.Submit({""}, [] {}), SubmitResult::kAccepted);
  EXPECT_EQ(lane.Submit({""}, [] {}), SubmitResult::kQueueFull);
  stuck.gate->Open();
  ASSERT_TRUE(Eventually([&] { return lane.stats().done == 3; }));
  EXPECT_EQ(lane.Submit({""}, [] {}), SubmitResult::kAccepted);
}

TEST(Lane, Stop_AcceptedJobs_AreFinishedAndNewOnesRefused) {
  LaneOptions options = Options();
  options.max_threads = 2;
  Lane lane(options);
  std::atomic<int> ran = 0;
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(lane.Submit({""},
                          [&] {
                            std::this_thread::sleep_for(milliseconds(1));
                            ++ran;
                          }),
              SubmitResult::kAccepted);
  }
  EXPECT_TRUE(lane.Stop(kTimeout));
  EXPECT_EQ(ran, 50);
  EXPECT_EQ(lane.stats().threads, 0);
  EXPECT_EQ(lane.Submit({""}, [] {}), SubmitResult::kStopped);
}

TEST(Lane, Stop_StuckJobs_ReturnsAtDeadlineAndDropsQueue) {
  const auto gate = std::make_shared<Gate>();
  const auto dropped = std::make_shared<std::atomic<int>>(0);
  const auto ran = std::make_shared<std::atomic<int>>(0);
  const auto ended = std::make_shared<std::promise<void>>();
  {
    LaneOptions options = Options();
    options.max_threads = 1;
    options.limits.per_user = 10;
    Lane lane(options);
    ASSERT_EQ(lane.Submit({"ann"},
                          [gate, ended] {
                            gate->Pass();
                            ended->set_value();
                          }),
              SubmitResult::kAccepted);
    ASSERT_TRUE(Eventually([&] { return gate->waiting() == 1; }));
    for (int i = 0; i < 3; ++i) {
      std::shared_ptr<void> token(nullptr, [dropped](void*) { ++*dropped; });
      ASSERT_EQ(lane.Submit({"ann"}, [token, ran] { ++*ran; }), SubmitResult::kAccepted);
    }
    EXPECT_FALSE(lane.Stop(milliseconds(50)));
    EXPECT_EQ(*dropped, 3);
  }
  // The lane is gone; the stuck job must still be able to end.
  gate->Open();
  EXPECT_EQ(ended->get_future().wait_for(kTimeout), std::future_status::ready);
  EXPECT_EQ(*ran, 0);
}

TEST(Lane, Submit_FromDroppedJob_IsRefusedWithoutDeadlock) {
  const GateOpener stuck;
  LaneOptions options = Options();
  options.max_threads = 1;
  Lane lane(options);
  ASSERT_EQ(lane.Submit({""}, stuck.job()), SubmitResult::kAccepted);
  ASSERT_TRUE(Eventually([&] { return stuck.gate->waiting() == 1; }));
  std::atomic<bool> refused = false;
  std::shared_ptr<void> token(nullptr, [&](void*) { refused = lane.Submit({""}, [] {}) == SubmitResult::kStopped; });
  ASSERT_EQ(lane.Submit({""}, [held = std::move(token)] {}), SubmitResult::kAccepted);
  EXPECT_FALSE(lane.Stop(milliseconds(10)));
  EXPECT_TRUE(refused);
}

TEST(Lane, EightSubmittersTenThousandJobsEach_AllRunExactlyOnce) {
  LaneOptions options = Options();
  options.min_threads = 2;
  options.max_threads = 4;
  options.limits.queued = 100'000;
  options.limits.per_user = 100'000;
  Lane lane(options);
  std::vector<std::atomic<int>> ran(80'000);
  std::vector<std::thread> submitters;
  for (int s = 0; s < 8; ++s) {
    submitters.emplace_back([&, s] {
      const std::string user = "user" + std::to_string(s % 3);
      for (int i = 0; i < 10'000; ++i) {
        std::atomic<int>& cell = ran[static_cast<std::size_t>(s * 10'000 + i)];
        if (lane.Submit({user}, [&cell] { ++cell; }) != SubmitResult::kAccepted) std::abort();
      }
    });
  }
  for (std::thread& submitter : submitters) submitter.join();
  ASSERT_TRUE(lane.Stop(kTimeout));
  for (const std::atomic<int>& cell : ran) ASSERT_EQ(cell, 1);
  EXPECT_EQ(lane.stats().done, 80'000U);
  EXPECT_EQ(lane.stats().queued, 0U);
}

TEST(Lane, Lanes_ManyCreatedAndDestroyed_LeaveNoThread) {
  const int before = ProcessThreads();
  for (int i = 0; i < 50; ++i) {
    LaneOptions options = Options();
    options.min_threads = 3;
    options.grow_after = milliseconds(0);
    Lane lane(options);
    for (int j = 0; j < 10; ++j) lane.Submit({""}, [] {});
  }
  EXPECT_TRUE(Eventually([&] { return ProcessThreads() <= before; }));
}

TEST(Lane, Submit_FirstThreadCannotStart_IsRefused) {
  LaneOptions options = Options();
  options.min_threads = 0;
  options.stack_bytes = std::size_t{1} << 46;  // no address space has room for it
  Lane lane(options);
  EXPECT_EQ(lane.Submit({""}, [] {}), SubmitResult::kQueueFull);
  EXPECT_EQ(lane.stats().refused, 1U);
  EXPECT_EQ(lane.stats().threads, 0);
}

}  // namespace
}  // namespace vexa
