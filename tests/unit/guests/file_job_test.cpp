// Jobs with files: the order of their steps, and what each does when files or records are not as expected.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/swap_job.h"

namespace vexa::test {
namespace {

using guests::FileJob;
using guests::HiddenFile;
using guests::JobOptions;
using guests::StoredJob;
using State = FileJob::FailedCommit::State;

class FileJobTest : public testing::Test {
 protected:
  FileJobTest() : store_(environment_.OpenStore()), options_(environment_.Options(store_)) {
    PutBoth(environment_, *store_);
    states_ = std::make_unique<ExpectedStates>(environment_, *store_);
    options_.before_step = [this](std::string_view step) {
      steps_.emplace_back(step);
      if (step == at_ && act_) std::exchange(act_, nullptr)();
    };
    ClearCapturedSyslog();
  }

  // What happens right before the first step of this name.
  void At(const std::string& step, std::function<void()> act) {
    at_ = step;
    act_ = std::move(act);
  }
  void ExpectOld() { states_->ExpectOld(environment_, *store_); }
  void ExpectNew() { states_->ExpectNew(environment_, *store_); }
  bool IsBegun() const { return TextOf(*store_, SwapKey(kGuest)).has_value(); }

  // As a host leaves it that ended with all three files of the guest hidden.
  StoredJob PutHidden(const std::string& stage) {
    const std::vector<std::string> paths = {environment_.Image("a/" + std::string(kGuest) + "-0.img"),
                                            environment_.More(std::string(kGuest) + "-1.img"),
                                            environment_.Image("a/" + std::string(kGuest) + "-2.img")};
    Json::Value record(Json::objectValue);
    record["host_id"] = kThisHost;
    record["stage"] = stage;
    record["new"] = Json::Value(Json::arrayValue);
    std::vector<HiddenFile> hidden;
    for (std::size_t i = 0; i < paths.size(); ++i) {
      hidden.push_back({paths[i], guests::HiddenName(kGuest, i)});
      const std::filesystem::path path = paths[i];
      std::filesystem::rename(path, path.parent_path() / hidden[i].hidden);
    }
    record["old"] = guests::HiddenJson(hidden);
    PutRecord(*store_, SwapKey(kGuest), record);
    return *Require(guests::ReadJob(*Require(store_->Read()), kSwapKind, kGuest));
  }

  const DeletionEnvironment environment_;
  const std::shared_ptr<FaultyStore> store_;
  JobOptions options_;
  std::unique_ptr<ExpectedStates> states_;
  std::vector<std::string> steps_;
  std::string at_;
  std::function<void()> act_;
};

TEST_F(FileJobTest, Run_Steps_AreInDocumentedOrder) {
  EXPECT_TRUE(Swap(environment_, options_).Run().ok());
  EXPECT_THAT(steps_, ElementsAre("commit swapping", "make 0", "hide 0", "sync done 0", "sync done 1", "commit records",
                                  "remove 0", "sync removed 0", "sync removed 1", "commit end"));
  ExpectNew();
}

TEST_F(FileJobTest, Undo_Steps_AreInDocumentedOrder) {
  At("commit records", [&] { store_->ConflictCommits(records::kMaxCommitAttempts); });
  const auto refused = Swap(environment_, options_).Run();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kBusy);
  EXPECT_EQ(refused.error().reason, "The guest's record keeps changing. Try again");
  ASSERT_GE(steps_.size(), 5u);
  const std::vector<std::string> last(steps_.end() - 5, steps_.end());
  EXPECT_THAT(last, ElementsAre("show 0", "unmake 0", "sync undone 0", "sync undone 1", "commit undo"));
  ExpectOld();
}

TEST_F(FileJobTest, Intent_IsWrittenBeforeTheFirstFileChanges) {
  std::optional<std::string> text;
  At("make 0", [&] { text = TextOf(*store_, SwapKey(kGuest)); });
  EXPECT_TRUE(Swap(environment_, options_).Run().ok());
  ASSERT_TRUE(text);
  EXPECT_THAT(*text, HasSubstr(R"("new":[")" + environment_.Image(kNewName) + "\"]"));
  EXPECT_THAT(*text, HasSubstr(R"("stage":"swapping")"));
  EXPECT_THAT(*text, HasSubstr(R"("user":"alice")"));
}

TEST_F(FileJobTest, Begin_GuestHasJob_IsRefused) {
  PutText(*store_, SwapKey(kGuest), "1");
  EXPECT_FALSE(Swap(environment_, options_).Begin().ok());
  EXPECT_EQ(TextOf(*store_, SwapKey(kGuest)), "1");
  EXPECT_EQ(ExpectedStates::NamesOf(environment_), states_->old_files);
}

TEST_F(FileJobTest, LoadUnfinished_JobRecordChangedElsewhere_IsBusy) {
  Swap swap(environment_, options_);
  ASSERT_TRUE(swap.Begin().ok());
  PutText(*store_, SwapKey(kGuest), "1");
  const auto lost = swap.job().LoadUnfinished();
  ASSERT_FALSE(lost.ok());
  EXPECT_EQ(lost.error().code, host_error::kBusy);
  EXPECT_EQ(lost.error().reason, "The record of the guest's swap was changed elsewhere");
  EXPECT_FALSE(swap.job().HasBegunDespiteFailure());
}

TEST_F(FileJobTest, Run_NewFileExists_FailsAndKeepsFile) {
  WriteFile(environment_.Image(kNewName), "somebody's");
  const Texts files = environment_.Files();
  const auto refused = Swap(environment_, options_).Run();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kFailed);
  EXPECT_EQ(environment_.Files(), files);
  EXPECT_FALSE(IsBegun());
}

TEST_F(FileJobTest, Undo_NewFileNamedByRecord_IsKept) {
  At("hide 0", [&] {
    PutDisk(*store_, "new-disk", kBystander, environment_.Image(kNewName));
    std::filesystem::remove(environment_.More(std::string(kGuest) + "-1.img"));
  });
  EXPECT_FALSE(Swap(environment_, options_).Run().ok()) << "the file to hide is missing";
  EXPECT_TRUE(std::filesystem::exists(environment_.Image(kNewName)));
  EXPECT_TRUE(SyslogContains("Swap of guest[" + std::string(kGuest) + "]: The new file ["));
  EXPECT_TRUE(SyslogContains("is kept: the record of another disk refers to it"));
  EXPECT_FALSE(IsBegun());
}

TEST_F(FileJobTest, Hide_FileNamedByNewRecord_IsUnhidden) {
  At("hide 0", [&] { PutDisk(*store_, "new-disk", kBystander, environment_.More(std::string(kGuest) + "-1.img")); });
  const auto refused = Swap(environment_, options_).Run();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().reason, "Other records keep referring to the guest's files. Try again");
  EXPECT_EQ(ExpectedStates::NamesOf(environment_), states_->old_files);
}

// Whatever names a file writes that key.
TEST_F(FileJobTest, CompareFiles_FileReferencedAfterSearch_IsOutdated) {
  Swap swap(environment_, options_);
  ASSERT_TRUE(swap.Begin().ok());
  FileJob& job = swap.job();
  Require(job.BeginSearch());
  store::Transaction transaction;
  EXPECT_TRUE(Require(job.CompareReferencesRevision(disks::FileReferencesRevision(*store_), transaction)));
  EXPECT_EQ(transaction.compares.size(), 1u);
  PutText(*store_, records::FileReferencesGuardKey(), "2");
  EXPECT_FALSE(Require(job.CompareReferencesRevision(disks::FileReferencesRevision(*store_), transaction)));
  EXPECT_EQ(transaction.compares.size(), 1u);
  Require(job.BeginSearch());
  EXPECT_TRUE(Require(job.CompareReferencesRevision(disks::FileReferencesRevision(*store_), transaction)));
}

TEST_F(FileJobTest, UnhideAll_Files_AreInGivenOrder) {
  for (const auto& [order, expected] :
       {std::pair(FileJob::Order::kForwards, std::vector<std::string>{"show 0", "show 1", "show 2"}),
        std::pair(FileJob::Order::kBackwards, std::vector<std::string>{"show 2", "show 1", "show 0"})}) {
    FileJob job(kSwapKind, options_, kGuest);
    job.ResumeFrom(PutHidden("swapping"));
    EXPECT_NE(ExpectedStates::NamesOf(environment_), states_->old_files);
    steps_.clear();
    Require(job.RestoreNames(order));
    EXPECT_EQ(steps_, expected);
    EXPECT_EQ(ExpectedStates::NamesOf(environment_), states_->old_files);
  }
}

TEST_F(FileJobTest, UnhideAll_BothNamesExist_KeepsBothAndUnhidesOthers) {
  FileJob job(kSwapKind, options_, kGuest);
  job.ResumeFrom(PutHidden("swapping"));
  WriteFile(environment_.More(std::string(kGuest) + "-1.img"), "somebody's");
  Require(job.RestoreNames(FileJob::Order::kForwards));
  std::set<std::string> names = states_->old_files;
  names.insert(environment_.More(guests::HiddenName(kGuest, 1)));
  EXPECT_EQ(ExpectedStates::NamesOf(environment_), names);
  EXPECT_TRUE(SyslogContains(". Both were kept"));
}

TEST_F(FileJobTest, Purge_StorageChanged_ChangesNothing) {
  FileJob job(kSwapKind, options_, kGuest);
  job.ResumeFrom(PutHidden("purging"));
  const std::set<std::string> names = ExpectedStates::NamesOf(environment_);
  job.Purge(Refusal{host_error::kUnavailable, "not mounted"});
  EXPECT_THAT(steps_, ElementsAre());
  EXPECT_EQ(ExpectedStates::NamesOf(environment_), names);
  EXPECT_TRUE(IsBegun());
  EXPECT_TRUE(SyslogContains("It is not finished and is retried: not mounted"));
}

TEST_F(FileJobTest, Purge_FileCannotBeRemoved_RemovesOthersAndKeepsRecord) {
  options_.file_calls.unlink = [](int folder, const char* name) {
    return std::string(name).ends_with("-1") ? EPERM : disks::UnlinkInFolder(folder, name);
  };
  FileJob job(kSwapKind, options_, kGuest);
  job.ResumeFrom(PutHidden("purging"));
  job.Purge({});
  EXPECT_THAT(steps_, ElementsAre("remove 0", "remove 1", "remove 2", "sync removed 0", "sync removed 1"));
  EXPECT_TRUE(std::filesystem::exists(environment_.More(guests::HiddenName(kGuest, 1))));
  EXPECT_FALSE(std::filesystem::exists(environment_.Image("a/" + guests::HiddenName(kGuest, 2))));
  EXPECT_TRUE(IsBegun());
  EXPECT_TRUE(SyslogContains("could not be removed; this is retried"));
}

TEST_F(FileJobTest, Undo_StorageChanged_ChangesNothingAndReportsIt) {
  FileJob job(kSwapKind, options_, kGuest);
  job.ResumeFrom(PutHidden("swapping"));
  Refusal refusal{host_error::kFailed, "The host ended"};
  bool is_asked = false;
  const bool is_undone = job.Undo(Refusal{host_error::kUnavailable, "not mounted"}, refusal, [&]() -> Status {
    is_asked = true;
    return {};
  });
  EXPECT_FALSE(is_undone);
  EXPECT_FALSE(is_asked);
  EXPECT_EQ(refusal.reason, "The host ended. Not undone: not mounted");
  EXPECT_TRUE(SyslogContains("Swap of guest[" + std::string(kGuest) + "]: Not undone: not mounted."));
  EXPECT_TRUE(IsBegun());
}

TEST_F(FileJobTest, Commit_ReportedFailed_IsDecidedByStoredRecords) {
  const Error conflict(ErrorCode::kConflict, "somebody was first");
  const Error failure(ErrorCode::kInternal, "the disk is full");
  Swap swap(environment_, options_);
  ASSERT_TRUE(swap.Begin().ok());
  const FileJob& job = swap.job();

  EXPECT_EQ(job.InspectFailedCommit(conflict).state, State::kNotDone);
  EXPECT_EQ(job.InspectFailedCommit(conflict).refusal.code, host_error::kBusy);
  EXPECT_EQ(job.InspectFailedCommit(failure).refusal.code, host_error::kFailed);

  store_->ReportHealth(store::Health::kInaccessible);
  EXPECT_EQ(job.InspectFailedCommit(failure).state, State::kUnknown) << "the state that is read may be an old one";
  store_->Heal();
  ClearCapturedSyslog();
  store_->FailSnapshots();
  EXPECT_EQ(job.InspectFailedCommit(failure).state, State::kUnknown);
  EXPECT_TRUE(SyslogContains("Done is unknown: "));
  store_->Heal();

  const auto put = [&](const std::string& host_id) {
    PutText(*store_, SwapKey(kGuest), R"({"host_id":")" + host_id + R"(","new":[],"old":[],"stage":"purging"})");
  };
  put(kThisHost);
  EXPECT_EQ(job.InspectFailedCommit(failure).state, State::kPurging);
  put(kOtherHost);
  EXPECT_EQ(job.InspectFailedCommit(failure).state, State::kPurgedElsewhere);
  EXPECT_EQ(job.InspectFailedCommit(conflict).refusal.code, host_error::kBusy);
  RemoveKey(*store_, SwapKey(kGuest));
  EXPECT_EQ(job.InspectFailedCommit(failure).state, State::kNotDone);
}

TEST_F(FileJobTest, SyncFolders_SyncsEachFolderOnce_AndStopsAtTheFirstFailure) {
  int calls = 0;
  int fails_at = -1;
  options_.file_calls.sync = [&](int folder) { return calls++ == fails_at ? EIO : disks::SyncFolder(folder); };
  const disks::DiskFiles files(options_.image_roots, options_.file_calls);
  const std::vector<std::string> paths = {environment_.Image("a/x"), environment_.More("x"), environment_.Image("a/y"),
                                          environment_.More("y"), environment_.Image("z")};
  std::vector<std::size_t> synced;
  const auto note = [&](std::size_t index) { synced.push_back(index); };
  Require(guests::SyncFolders(files, paths, note));
  EXPECT_THAT(synced, ElementsAre(0u, 1u, 2u));
  EXPECT_EQ(calls, 3);
  synced.clear();
  calls = 0;
  fails_at = 1;
  EXPECT_FALSE(guests::SyncFolders(files, paths, note));
  EXPECT_THAT(synced, ElementsAre(0u, 1u));
  EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace vexa::test
