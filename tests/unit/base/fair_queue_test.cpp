#include "host/base/fair_queue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace vexa {
namespace {

using PushResult = FairQueue::PushResult;

// A queue whose jobs write their name.
class FairQueueTest : public testing::Test {
 protected:
  PushResult Push(FairQueue& queue, const JobOwner& owner, const std::string& name = "") {
    return queue.Push(owner, [this, name] { started_ += name; });
  }
  FairQueue::Job Start(FairQueue& queue) {
    FairQueue::Job job = queue.Take();
    job.run();
    return job;
  }
  std::string RunAll(FairQueue& queue) {
    while (queue.ready() > 0) queue.Finish(Start(queue));
    return started_;
  }

  std::string started_;
};

TEST_F(FairQueueTest, Owners_WithJobs_TakeTurnsAndKeepTheirOrder) {
  FairQueue queue({});
  for (const char* name : {"a1 ", "a2 ", "a3 ", "a4 "}) ASSERT_EQ(Push(queue, {"ann"}, name), PushResult::kQueued);
  for (const char* name : {"b1 ", "b2 "}) ASSERT_EQ(Push(queue, {"bob"}, name), PushResult::kQueued);
  ASSERT_EQ(Push(queue, {"eve"}, "e1 "), PushResult::kQueued);
  EXPECT_EQ(queue.waiting(), 7u);
  EXPECT_EQ(RunAll(queue), "a1 b1 e1 a2 b2 a3 a4 ");
  EXPECT_EQ(queue.waiting(), 0u);
}

TEST_F(FairQueueTest, Turn_OfOwnerWhoComesLate_IsAfterOneJobOfTheOthers) {
  FairQueue queue({});
  for (int i = 0; i < 1000; ++i) (void)Push(queue, {"mallory"}, "m");
  queue.Finish(Start(queue));
  (void)Push(queue, {"ann"}, "a");
  EXPECT_EQ(RunAll(queue).substr(0, 4), "mmam");
}

TEST_F(FairQueueTest, Push_QueueFull_IsRefusedUntilAJobStarts) {
  FairQueue queue({.queued = 2});
  EXPECT_EQ(Push(queue, {"ann"}), PushResult::kQueued);
  EXPECT_EQ(Push(queue, {"bob"}), PushResult::kQueued);
  EXPECT_EQ(Push(queue, {"eve"}), PushResult::kFull);
  const FairQueue::Job running = queue.Take();
  EXPECT_EQ(Push(queue, {"eve"}), PushResult::kQueued);
  queue.Finish(running);
}

TEST_F(FairQueueTest, Push_OwnerOverQuota_IsRefusedUntilAJobEnds) {
  FairQueue queue({.per_user = 2});
  EXPECT_EQ(Push(queue, {"ann"}), PushResult::kQueued);
  const FairQueue::Job running = queue.Take();
  EXPECT_EQ(Push(queue, {"ann"}), PushResult::kQueued);
  EXPECT_EQ(Push(queue, {"ann"}), PushResult::kOverQuota) << "one waits and one runs";
  EXPECT_EQ(Push(queue, {"bob"}), PushResult::kQueued);
  queue.Finish(running);
  EXPECT_EQ(Push(queue, {"ann"}), PushResult::kQueued);
}

TEST_F(FairQueueTest, Push_HostOverQuota_IsRefusedWhateverUserItNames) {
  FairQueue queue({.per_user = 2, .per_host = 3});
  EXPECT_EQ(Push(queue, {"h1/ann", "h1"}), PushResult::kQueued);
  EXPECT_EQ(Push(queue, {"h1/ann", "h1"}), PushResult::kQueued);
  EXPECT_EQ(Push(queue, {"h1/ann", "h1"}), PushResult::kOverQuota);
  EXPECT_EQ(Push(queue, {"h1/bob", "h1"}), PushResult::kQueued) << "the host's other users have room of their own";
  EXPECT_EQ(Push(queue, {"h1/eve", "h1"}), PushResult::kOverQuota);
  EXPECT_EQ(Push(queue, {"h1/bob", "h1"}), PushResult::kOverQuota);
  EXPECT_EQ(Push(queue, {"h2/ann", "h2"}), PushResult::kQueued);
  EXPECT_EQ(Push(queue, {"ann"}), PushResult::kQueued) << "without a host";
  const FairQueue::Job ended = queue.Take();
  queue.Finish(ended);
  EXPECT_EQ(Push(queue, {"h1/eve", "h1"}), PushResult::kQueued);
}

TEST_F(FairQueueTest, Owner_WithAsManyRunningJobsAsAllowed_LetsOthersStart) {
  FairQueue queue({.running_per_user = 2});
  for (const char* name : {"a1 ", "a2 ", "a3 ", "a4 "}) (void)Push(queue, {"ann"}, name);
  const FairQueue::Job first = Start(queue);
  const FairQueue::Job second = Start(queue);
  EXPECT_EQ(queue.ready(), 0u);
  EXPECT_EQ(queue.waiting(), 2u);
  (void)Push(queue, {"bob"}, "b1 ");
  EXPECT_EQ(queue.ready(), 1u);
  queue.Finish(Start(queue));
  EXPECT_EQ(started_, "a1 a2 b1 ");
  queue.Finish(first);
  EXPECT_EQ(queue.ready(), 1u);
  queue.Finish(second);
  EXPECT_EQ(queue.ready(), 2u);
  EXPECT_EQ(RunAll(queue), "a1 a2 b1 a3 a4 ");
}

TEST_F(FairQueueTest, Owner_WhoseJobsDoNotEnd_IsAllowedMoreUpToTheLimit) {
  FairQueue queue({.running_per_user = 3, .active_per_user = 1});
  for (int i = 0; i < 5; ++i) (void)Push(queue, {"ann"});
  std::vector<FairQueue::Job> running{queue.Take()};
  EXPECT_EQ(queue.ready(), 0u);
  EXPECT_TRUE(queue.AdmitStuck(std::chrono::hours(1)).has_value());
  EXPECT_EQ(queue.ready(), 0u) << "the job has just started";
  for (std::size_t allowed = 2; allowed <= 3; ++allowed) {
    (void)queue.AdmitStuck(std::chrono::milliseconds(0));
    ASSERT_EQ(queue.ready(), 1u) << allowed;
    (void)queue.AdmitStuck(std::chrono::milliseconds(0));
    ASSERT_EQ(queue.ready(), 1u) << "one after the other";
    running.push_back(queue.Take());
  }
  EXPECT_FALSE(queue.AdmitStuck(std::chrono::milliseconds(0)).has_value());
  EXPECT_EQ(queue.ready(), 0u);
  for (const FairQueue::Job& job : running) queue.Finish(job);
  EXPECT_EQ(queue.ready(), 1u) << "jobs end again";
}

TEST_F(FairQueueTest, Job_AllowedToStart_MayStartAlthoughAnotherHasEnded) {
  FairQueue queue({.running_per_user = 3, .active_per_user = 1});
  for (int i = 0; i < 4; ++i) (void)Push(queue, {"ann"});
  const FairQueue::Job first = queue.Take();
  (void)queue.AdmitStuck(std::chrono::milliseconds(0));
  const FairQueue::Job second = queue.Take();
  (void)queue.AdmitStuck(std::chrono::milliseconds(0));
  ASSERT_EQ(queue.ready(), 1u);
  queue.Finish(first);
  EXPECT_EQ(queue.ready(), 1u);
  const FairQueue::Job third = queue.Take();
  EXPECT_EQ(queue.ready(), 0u);
  queue.Finish(second);
  EXPECT_EQ(queue.ready(), 0u);
  queue.Finish(third);
  EXPECT_EQ(queue.ready(), 1u);
}

TEST_F(FairQueueTest, AdmitStuck_NothingIsHeldBack_NeedsNoOtherCheck) {
  FairQueue queue({.running_per_user = 3, .active_per_user = 1});
  EXPECT_FALSE(queue.AdmitStuck(std::chrono::milliseconds(0)).has_value());
  (void)Push(queue, {"ann"});
  (void)Push(queue, {"bob"});
  EXPECT_FALSE(queue.AdmitStuck(std::chrono::milliseconds(0)).has_value());
  EXPECT_EQ(queue.ready(), 2u);
}

TEST_F(FairQueueTest, Clear_DropsWhatWaitsAndKeepsCountingWhatRuns) {
  FairQueue queue({.per_user = 3, .per_host = 3});
  for (int i = 0; i < 3; ++i) (void)Push(queue, {"h/ann", "h"});
  const FairQueue::Job running = queue.Take();
  EXPECT_EQ(queue.Clear().size(), 2u);
  EXPECT_EQ(queue.waiting(), 0u);
  EXPECT_EQ(queue.ready(), 0u);
  EXPECT_EQ(Push(queue, {"h/ann", "h"}), PushResult::kQueued);
  EXPECT_EQ(Push(queue, {"h/bob", "h"}), PushResult::kQueued);
  EXPECT_EQ(Push(queue, {"h/bob", "h"}), PushResult::kOverQuota);
  queue.Finish(running);
  EXPECT_EQ(Push(queue, {"h/bob", "h"}), PushResult::kQueued);
  EXPECT_EQ(queue.Clear().size(), 3u);
}

TEST_F(FairQueueTest, SubmittedAt_OwnersWithEquallyManyJobs_FollowsTheirTurns) {
  FairQueue queue({});
  for (const char* user : {"ann", "ann", "bob", "bob"}) (void)Push(queue, {user});
  std::vector<FairQueue::Clock::time_point> expected;
  for (std::size_t i = 0; i < 4; ++i) expected.push_back(queue.SubmittedAt(i));
  for (const auto& time : expected) {
    const FairQueue::Job job = queue.Take();
    EXPECT_EQ(job.submitted, time);
    queue.Finish(job);
  }
}

}  // namespace
}  // namespace vexa
