// Deletions by processes that are killed at each of their steps, finished by others.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "host/guests/deletion/deletion.h"
#include "tests/unit/guests/guest_deletion_environment.h"
#include "tests/unit/guests/job_steps.h"

namespace vexa::test {
namespace {

bool DeleteIt(DeletionOptions options) { return Deletion(std::move(options)).Delete(kGuest, Alice()).ok(); }
bool FinishIt(DeletionOptions options) {
  Deletion(std::move(options)).FinishAll();
  return true;
}

class KilledDeletion : public testing::Test {
 protected:
  // A new environment with both guests, as they are before anything is done.
  void Prepare(const std::string& repository_host = kThisHost) {
    environment_ = std::make_unique<DeletionEnvironment>();
    const auto store = environment_->OpenStore();
    PutBoth(*environment_, *store);
    PutRepository(*store, repository_host);
    records_ = Everything(*store);
    files_ = environment_->Files();
  }

  // Either everything that Prepare() made or nothing of the guest; the other guest's parts in any case.
  void ExpectAllOrNothing() {
    const Texts records = Everything(*environment_->OpenStore());
    const Texts files = environment_->Files();
    if (records.contains(KeyOf("guest", kGuest))) {
      EXPECT_EQ(records, records_);
      EXPECT_EQ(files, files_);
    } else {
      EXPECT_EQ(records, Without(records_, kGuest));
      EXPECT_EQ(files, Without(files_, kGuest));
    }
  }

  bool IsDeleted() { return !Everything(*environment_->OpenStore()).contains(KeyOf("guest", kGuest)); }

  std::unique_ptr<DeletionEnvironment> environment_;
  Texts records_;
  Texts files_;
};

TEST_F(KilledDeletion, Kill_AtEachStep_IsFinishedByTheNextStart) {
  int step = 0;
  for (;; ++step) {
    SCOPED_TRACE("killed before step " + std::to_string(step));
    Prepare();
    const End end = RunUntil(*environment_, step, DeleteIt);
    ASSERT_NE(end, End::kFailed);
    if (end == End::kCompleted) break;
    FinishIt(environment_->Options(environment_->OpenStore()));
    ExpectAllOrNothing();
    // Once it is written down that it goes, it goes.
    EXPECT_EQ(IsDeleted(), step > 0);
    if (HasFailure()) return;
  }
  ExpectAllOrNothing();
  EXPECT_TRUE(IsDeleted());
  EXPECT_EQ(step, 13);
}

TEST_F(KilledDeletion, Kill_AtEachStepOfFinish_IsFinishedByNextStart) {
  int rounds = 0;
  // With some files hidden; with all; with the records deleted and some files removed.
  for (const int first : {2, 6, 8}) {
    for (int second = 0;; ++second) {
      SCOPED_TRACE("killed before step " + std::to_string(first) + ", then " + std::to_string(second));
      Prepare();
      ASSERT_EQ(RunUntil(*environment_, first, DeleteIt), End::kKilled);
      const End end = RunUntil(*environment_, second, FinishIt);
      ASSERT_NE(end, End::kFailed);
      if (end == End::kKilled) FinishIt(environment_->Options(environment_->OpenStore()));
      ExpectAllOrNothing();
      EXPECT_TRUE(IsDeleted());
      if (HasFailure()) return;
      if (end == End::kCompleted) break;
      ++rounds;
    }
  }
  EXPECT_GT(rounds, 20);
}

// The same when the deletion cannot be gone on with, and is undone.
TEST_F(KilledDeletion, Deletion_CannotContinue_IsUndoneDespiteKills) {
  int rounds = 0;
  for (int first = 1; first <= 3; ++first) {
    for (int second = 0;; ++second) {
      SCOPED_TRACE("killed before step " + std::to_string(first) + ", then " + std::to_string(second));
      Prepare();
      ASSERT_EQ(RunUntil(*environment_, first, DeleteIt), End::kKilled);
      const std::string blocked = environment_->Image("a/.vexa-deleted-" + std::string(kGuest) + "-2");
      WriteFile(blocked);
      files_[blocked] = "content of " + blocked;
      const End end = RunUntil(*environment_, second, FinishIt);
      ASSERT_NE(end, End::kFailed);
      if (end == End::kKilled) FinishIt(environment_->Options(environment_->OpenStore()));
      EXPECT_FALSE(IsDeleted());
      ExpectAllOrNothing();
      if (HasFailure()) return;
      if (end == End::kCompleted) break;
      ++rounds;
    }
  }
  EXPECT_GT(rounds, 15);
}

// This host deletes the records, the other one the files.
TEST_F(KilledDeletion, Kill_RepositoryOfAnotherHost_IsFinishedByBoth) {
  for (int step = 0;; ++step) {
    SCOPED_TRACE("killed before step " + std::to_string(step));
    Prepare(kOtherHost);
    const End end = RunUntil(*environment_, step, DeleteIt);
    ASSERT_NE(end, End::kFailed);
    EXPECT_EQ(environment_->Files(), files_);
    if (end == End::kKilled) FinishIt(environment_->Options(environment_->OpenStore()));
    EXPECT_EQ(environment_->Files(), files_);
    const bool is_through = end == End::kCompleted;
    EXPECT_EQ(IsDeleted(), step > 0);
    for (int other_step = 0;; ++other_step) {
      const End other_end = RunUntil(*environment_, other_step, [](DeletionOptions options) {
        options.host_id = kOtherHost;
        Deletion(std::move(options)).RemoveLeftovers();
        return true;
      });
      ASSERT_NE(other_end, End::kFailed);
      if (other_end == End::kCompleted) break;
    }
    ExpectAllOrNothing();
    if (HasFailure()) return;
    if (is_through) {
      EXPECT_EQ(step, 3);
      return;
    }
  }
}

}  // namespace
}  // namespace vexa::test
