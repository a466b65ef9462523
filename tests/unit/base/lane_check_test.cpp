#include "host/base/lane_check.h"

#include <gtest/gtest.h>

#include <memory>
#include <semaphore>
#include <thread>

#include "tests/support/waiting.h"

namespace vexa {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// A lane of one thread whose jobs wait for `may_end`.
class LaneCheck : public testing::Test {
 protected:
  LaneCheck() {
    LaneOptions options;
    options.name = "checked";
    options.max_threads = 1;
    options.limits.queued = 2;
    lane_ = std::make_unique<Lane>(options);
  }
  ~LaneCheck() override { may_end_->release(8); }
  Lane::SubmitResult Hang() {
    return lane_->Submit(JobOwner{}, [may_end = may_end_] { may_end->acquire(); });
  }

  std::shared_ptr<std::counting_semaphore<>> may_end_ = std::make_shared<std::counting_semaphore<>>(0);
  std::unique_ptr<Lane> lane_;
};

TEST_F(LaneCheck, IdleLane_Runs) { EXPECT_TRUE(IsRunningJobs(*lane_, seconds(30))); }

TEST_F(LaneCheck, JobHangs_DoesNotRunUntilItEnds) {
  ASSERT_EQ(Hang(), Lane::SubmitResult::kAccepted);
  EXPECT_FALSE(IsRunningJobs(*lane_, milliseconds(50)));
  may_end_->release();
  EXPECT_TRUE(IsRunningJobs(*lane_, seconds(30)));
}

TEST_F(LaneCheck, FullQueue_RunsIfAnyJobEnds) {
  ASSERT_EQ(Hang(), Lane::SubmitResult::kAccepted);
  ASSERT_TRUE(test::Eventually([this] { return lane_->stats().busy == 1; }));
  for (int i = 0; i < 2; ++i) ASSERT_EQ(Hang(), Lane::SubmitResult::kAccepted);
  EXPECT_FALSE(IsRunningJobs(*lane_, milliseconds(50)));
  std::thread release([this] {
    std::this_thread::sleep_for(milliseconds(100));
    may_end_->release(3);
  });
  EXPECT_TRUE(IsRunningJobs(*lane_, seconds(30)));
  release.join();
}

}  // namespace
}  // namespace vexa
