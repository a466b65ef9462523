// Jobs with files: the order of their steps, and what each does when files or records are not as expected.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/file_job_ground.h"

namespace vexa::test {
namespace {

using guests::FileJob;
using guests::HiddenFile;
using guests::JobOptions;
using guests::Refusal;
using guests::Refused;
using guests::StoredJob;
using testing::ElementsAre;
using testing::HasSubstr;
using State = FileJob::FailedCommit::State;

class FileJobTest : public testing::Test {
 protected:
  FileJobTest() : store_(ground_.OpenStore()), options_(ground_.Options(store_)) {
    PutBoth(ground_, *store_);
    ends_ = std::make_unique<Ends>(ground_, *store_);
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
  void ExpectOld() { ends_->ExpectOld(ground_, *store_); }
  void ExpectNew() { ends_->ExpectNew(ground_, *store_); }
  bool IsBegun() const { return TextOf(*store_, SwapKey(kGuest)).has_value(); }

  // As a host leaves it that ended with all three files of the guest hidden.
  StoredJob PutHidden(const std::string& stage) {
    const std::vector<std::string> paths = {ground_.Image("a/" + std::string(kGuest) + "-0.img"),
                                            ground_.More(std::string(kGuest) + "-1.img"),
                                            ground_.Image("a/" + std::string(kGuest) + "-2.img")};
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

  const DeletionGround ground_;
  const std::shared_ptr<FaultyStore> store_;
  JobOptions options_;
  std::unique_ptr<Ends> ends_;
  std::vector<std::string> steps_;
  std::string at_;
  std::function<void()> act_;
};

TEST_F(FileJobTest, Run_TakesItsStepsInThisOrder) {
  EXPECT_FALSE(Swap(ground_, options_).Run());
  EXPECT_THAT(steps_, ElementsAre("commit swapping", "make 0", "hide 0", "sync done 0", "sync done 1", "commit records",
                                  "remove 0", "sync removed 0", "sync removed 1", "commit end"));
  ExpectNew();
}

TEST_F(FileJobTest, Undo_TakesItsStepsInThisOrder) {
  At("commit records", [&] { store_->ConflictCommits(cluster::kCommitTries); });
  const Refused refused = Swap(ground_, options_).Run();
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, guests::kBusy);
  EXPECT_EQ(refused->reason, "The guest's record keeps changing");
  ASSERT_GE(steps_.size(), 5u);
  const std::vector<std::string> last(steps_.end() - 5, steps_.end());
  EXPECT_THAT(last, ElementsAre("show 0", "unmake 0", "sync undone 0", "sync undone 1", "commit undo"));
  ExpectOld();
}

TEST_F(FileJobTest, Intent_IsWrittenBeforeTheFirstFileChanges) {
  std::optional<std::string> text;
  At("make 0", [&] { text = TextOf(*store_, SwapKey(kGuest)); });
  EXPECT_FALSE(Swap(ground_, options_).Run());
  ASSERT_TRUE(text);
  EXPECT_THAT(*text, HasSubstr(R"("new":[")" + ground_.Image(kNewName) + "\"]"));
  EXPECT_THAT(*text, HasSubstr(R"("stage":"swapping")"));
  EXPECT_THAT(*text, HasSubstr(R"("user":"alice")"));
}

TEST_F(FileJobTest, SecondJobOfOneGuest_IsNotBegun) {
  PutText(*store_, SwapKey(kGuest), "1");
  EXPECT_TRUE(Swap(ground_, options_).Begin());
  EXPECT_EQ(TextOf(*store_, SwapKey(kGuest)), "1");
  EXPECT_EQ(Ends::NamesOf(ground_), ends_->old_files);
}

TEST_F(FileJobTest, RecordChangedByOthersRightAfterItsCommit_IsNotTaken) {
  Swap swap(ground_, options_);
  ASSERT_FALSE(swap.Begin());
  PutText(*store_, SwapKey(kGuest), "1");
  const Refused lost = swap.job().TakeBegun();
  ASSERT_TRUE(lost);
  EXPECT_EQ(lost->code, guests::kBusy);
  EXPECT_EQ(lost->reason, "Somebody else has changed the record of the guest's swap");
  EXPECT_FALSE(swap.job().HasBegunAllTheSame());
}

TEST_F(FileJobTest, FileOfThatNameExists_IsNotRemovedByTheUndo) {
  WriteFile(ground_.Image(kNewName), "somebody's");
  const Texts files = ground_.Files();
  const Refused refused = Swap(ground_, options_).Run();
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, guests::kFailed);
  EXPECT_EQ(ground_.Files(), files);
  EXPECT_FALSE(IsBegun());
}

TEST_F(FileJobTest, NewFileThatARecordNamesByNow_IsLeftByTheUndo) {
  At("hide 0", [&] {
    PutDisk(*store_, "new-disk", kBystander, ground_.Image(kNewName));
    std::filesystem::remove(ground_.More(std::string(kGuest) + "-1.img"));
  });
  EXPECT_TRUE(Swap(ground_, options_).Run()) << "the file to hide is missing";
  EXPECT_TRUE(std::filesystem::exists(ground_.Image(kNewName)));
  EXPECT_TRUE(SyslogContains("Swap of guest[" + std::string(kGuest) + "]: The new file ["));
  EXPECT_TRUE(SyslogContains("is left: another disk's record names it"));
  EXPECT_FALSE(IsBegun());
}

TEST_F(FileJobTest, HiddenFileThatARecordComesToName_IsShownAgain) {
  At("hide 0", [&] { PutDisk(*store_, "new-disk", kBystander, ground_.More(std::string(kGuest) + "-1.img")); });
  const Refused refused = Swap(ground_, options_).Run();
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->reason, "Other records keep naming the guest's files");
  EXPECT_EQ(Ends::NamesOf(ground_), ends_->old_files);
}

// Whatever names a file writes that key.
TEST_F(FileJobTest, RecordThatComesToNameAFileAfterTheSearch_MakesItOutdated) {
  Swap swap(ground_, options_);
  ASSERT_FALSE(swap.Begin());
  FileJob& job = swap.job();
  Require(job.BeginSearch());
  store::Transaction transaction;
  EXPECT_TRUE(Require(job.CompareFiles(guests::FilesRevision(*store_), transaction)));
  EXPECT_EQ(transaction.compares.size(), 1u);
  PutText(*store_, guests::FilesKey(), "2");
  EXPECT_FALSE(Require(job.CompareFiles(guests::FilesRevision(*store_), transaction)));
  EXPECT_EQ(transaction.compares.size(), 1u);
  Require(job.BeginSearch());
  EXPECT_TRUE(Require(job.CompareFiles(guests::FilesRevision(*store_), transaction)));
}

TEST_F(FileJobTest, ShowAll_TakesTheFilesInTheGivenOrder) {
  for (const auto& [order, expected] :
       {std::pair(FileJob::Order::kForwards, std::vector<std::string>{"show 0", "show 1", "show 2"}),
        std::pair(FileJob::Order::kBackwards, std::vector<std::string>{"show 2", "show 1", "show 0"})}) {
    FileJob job(kSwapKind, options_, kGuest);
    job.TakeUp(PutHidden("swapping"));
    EXPECT_NE(Ends::NamesOf(ground_), ends_->old_files);
    steps_.clear();
    Require(job.ShowAll(order));
    EXPECT_EQ(steps_, expected);
    EXPECT_EQ(Ends::NamesOf(ground_), ends_->old_files);
  }
}

TEST_F(FileJobTest, ShowAll_BothNamesExist_LeavesBothAndShowsTheOthers) {
  FileJob job(kSwapKind, options_, kGuest);
  job.TakeUp(PutHidden("swapping"));
  WriteFile(ground_.More(std::string(kGuest) + "-1.img"), "somebody's");
  Require(job.ShowAll(FileJob::Order::kForwards));
  std::set<std::string> names = ends_->old_files;
  names.insert(ground_.More(guests::HiddenName(kGuest, 1)));
  EXPECT_EQ(Ends::NamesOf(ground_), names);
  EXPECT_TRUE(SyslogContains("beside it; both are left"));
}

TEST_F(FileJobTest, Purge_StorageIsNotTheSame_TouchesNothing) {
  FileJob job(kSwapKind, options_, kGuest);
  job.TakeUp(PutHidden("purging"));
  const std::set<std::string> names = Ends::NamesOf(ground_);
  job.Purge(Refusal{guests::kUnavailable, "not mounted"});
  EXPECT_THAT(steps_, ElementsAre());
  EXPECT_EQ(Ends::NamesOf(ground_), names);
  EXPECT_TRUE(IsBegun());
  EXPECT_TRUE(SyslogContains("It is not finished, and tried again: not mounted"));
}

TEST_F(FileJobTest, Purge_FileCannotBeRemoved_RemovesTheOthersAndKeepsTheRecord) {
  options_.file_calls.unlink = [](int folder, const char* name) {
    return std::string(name).ends_with("-1") ? EPERM : guests::UnlinkInFolder(folder, name);
  };
  FileJob job(kSwapKind, options_, kGuest);
  job.TakeUp(PutHidden("purging"));
  job.Purge(std::nullopt);
  EXPECT_THAT(steps_, ElementsAre("remove 0", "remove 1", "remove 2", "sync removed 0", "sync removed 1"));
  EXPECT_TRUE(std::filesystem::exists(ground_.More(guests::HiddenName(kGuest, 1))));
  EXPECT_FALSE(std::filesystem::exists(ground_.Image("a/" + guests::HiddenName(kGuest, 2))));
  EXPECT_TRUE(IsBegun());
  EXPECT_TRUE(SyslogContains("could not be removed; this is tried again"));
}

TEST_F(FileJobTest, Undo_StorageIsNotTheSame_TouchesNothingAndSaysSo) {
  FileJob job(kSwapKind, options_, kGuest);
  job.TakeUp(PutHidden("swapping"));
  Refusal refusal{guests::kFailed, "The host ended"};
  bool is_asked = false;
  const bool is_undone = job.Undo(Refusal{guests::kUnavailable, "not mounted"}, refusal, [&]() -> Status {
    is_asked = true;
    return {};
  });
  EXPECT_FALSE(is_undone);
  EXPECT_FALSE(is_asked);
  EXPECT_EQ(refusal.reason, "The host ended. Not undone: not mounted");
  EXPECT_TRUE(SyslogContains("Swap of guest[" + std::string(kGuest) + "]: Not undone: not mounted."));
  EXPECT_TRUE(IsBegun());
}

TEST_F(FileJobTest, FailedCommit_IsSettledByWhatIsStored) {
  const Error conflict(ErrorCode::kConflict, "somebody was first");
  const Error failure(ErrorCode::kInternal, "the disk is full");
  Swap swap(ground_, options_);
  ASSERT_FALSE(swap.Begin());
  const FileJob& job = swap.job();

  EXPECT_EQ(job.SettleFailedCommit(conflict).state, State::kNotDone);
  EXPECT_EQ(job.SettleFailedCommit(conflict).refusal.code, guests::kBusy);
  EXPECT_EQ(job.SettleFailedCommit(failure).refusal.code, guests::kFailed);

  store_->ReportHealth(store::Health::kInaccessible);
  EXPECT_EQ(job.SettleFailedCommit(failure).state, State::kUnknown) << "the state that is read may be an old one";
  store_->Heal();
  ClearCapturedSyslog();
  store_->FailSnapshots();
  EXPECT_EQ(job.SettleFailedCommit(failure).state, State::kUnknown);
  EXPECT_TRUE(SyslogContains("Done is unknown: "));
  store_->Heal();

  const auto put = [&](const std::string& host_id) {
    PutText(*store_, SwapKey(kGuest), R"({"host_id":")" + host_id + R"(","new":[],"old":[],"stage":"purging"})");
  };
  put(kThisHost);
  EXPECT_EQ(job.SettleFailedCommit(failure).state, State::kPurging);
  put(kOtherHost);
  EXPECT_EQ(job.SettleFailedCommit(failure).state, State::kPurgedElsewhere);
  EXPECT_EQ(job.SettleFailedCommit(conflict).refusal.code, guests::kBusy);
  RemoveKey(*store_, SwapKey(kGuest));
  EXPECT_EQ(job.SettleFailedCommit(failure).state, State::kNotDone);
}

TEST_F(FileJobTest, SyncFolders_SyncsEachFolderOnce_AndStopsAtTheFirstFailure) {
  int calls = 0;
  int fails_at = -1;
  options_.file_calls.sync = [&](int folder) { return calls++ == fails_at ? EIO : guests::SyncFolder(folder); };
  const guests::DiskFiles files(options_.image_roots, options_.file_calls);
  const std::vector<std::string> paths = {ground_.Image("a/x"), ground_.More("x"), ground_.Image("a/y"),
                                          ground_.More("y"), ground_.Image("z")};
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
