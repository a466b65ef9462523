// Deletions in which calls of the system and the store fail, and others that do something with the guest meanwhile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <latch>
#include <thread>

#include "host/base/json_parse.h"
#include "host/guests/deletion/deletion.h"
#include "host/records/run_record.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_deletion_ground.h"

namespace vexa::test {
namespace {

using guests::Deletion;
using guests::DeletionKey;
using guests::DeletionOptions;
using guests::Refused;
using guests::RunKey;
using testing::HasSubstr;

class FaultyDeletion : public testing::Test {
 protected:
  FaultyDeletion() : store_(ground_.OpenStore()), options_(ground_.Options(store_)) {
    PutBoth(ground_, *store_);
    records_ = Everything(*store_);
    files_ = ground_.Files();
    ClearCapturedSyslog();
  }

  Refused Delete() { return Deletion(options_).Delete(kGuest, Alice()); }

  void ExpectAllThere() {
    EXPECT_EQ(Everything(*store_), records_);
    EXPECT_EQ(ground_.Files(), files_);
  }
  void ExpectGone() {
    EXPECT_EQ(Everything(*store_), Without(records_, kGuest));
    EXPECT_EQ(ground_.Files(), Without(files_, kGuest));
  }

  // What happens right before the first step of this name.
  void At(const std::string& step, std::function<void()> act) {
    options_.before_step = [step, act = std::move(act), done = std::make_shared<bool>()](std::string_view now) {
      if (now == step && !std::exchange(*done, true)) act();
    };
  }

  void ChangeGuest(const std::string& member, const Json::Value& value) {
    Json::Value guest(Json::objectValue);
    guest["name"] = "guest";
    guest["vdisks"] = Json::Value(Json::arrayValue);
    for (std::size_t i = 0; i < 3; ++i) guest["vdisks"].append(DiskId(kGuest, i));
    guest["vnics"].append("nic-" + std::string(kGuest));
    guest["repository_id"] = "repository";
    guest[member] = value;
    PutRecord(*store_, KeyOf("guest", kGuest), guest);
  }

  const DeletionGround ground_;
  const std::shared_ptr<FaultyStore> store_;
  DeletionOptions options_;
  Texts records_;
  Texts files_;
};

TEST_F(FaultyDeletion, Deletion_RenameFails_RestoresNamesAndReportsWhy) {
  for (const int error_number : {EACCES, EROFS, EIO, ENAMETOOLONG}) {
    for (int fails_at = 0; fails_at < 3; ++fails_at) {
      int calls = 0;
      options_.file_calls.rename = [&](int folder, const char* from, const char* to) {
        return calls++ == fails_at ? error_number : guests::RenameInFolder(folder, from, to);
      };
      const Refused refused = Delete();
      ASSERT_TRUE(refused);
      EXPECT_EQ(refused->code, guests::kFailed);
      EXPECT_THAT(refused->reason, HasSubstr(kGuest + std::string("-") + std::to_string(fails_at) + ".img"));
      EXPECT_THAT(refused->reason, HasSubstr(std::strerror(error_number)));
      ExpectAllThere();
    }
  }
}

TEST_F(FaultyDeletion, SyncOfHiddenNamesFails_NamesComeBack) {
  bool has_failed = false;
  options_.file_calls.sync = [&](int folder) {
    return std::exchange(has_failed, true) ? guests::SyncFolder(folder) : EIO;
  };
  EXPECT_EQ(Delete()->code, guests::kFailed);
  ExpectAllThere();
}

TEST_F(FaultyDeletion, FileOfTheHiddenName_IsNotReplaced) {
  const std::string path = ground_.Image("a/.vexa-deleted-" + std::string(kGuest) + "-2");
  WriteFile(path, "somebody's");
  files_ = ground_.Files();
  const Refused refused = Delete();
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, guests::kFailed);
  EXPECT_THAT(refused->reason, HasSubstr("since there is a file '.vexa-deleted-" + std::string(kGuest) + "-2'"));
  ExpectAllThere();
}

TEST_F(FaultyDeletion, UndoFails_IsTakenUpAtTheNextStart) {
  int calls = 0;
  options_.file_calls.rename = [&](int folder, const char* from, const char* to) {
    return calls++ >= 1 ? EIO : guests::RenameInFolder(folder, from, to);
  };
  const Refused refused = Delete();
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, guests::kFailed);
  EXPECT_THAT(refused->reason, HasSubstr("is taken up again"));
  EXPECT_TRUE(SyslogContains("could not be undone"));
  EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
  EXPECT_EQ(Delete()->code, guests::kBusy);
  options_.file_calls = {};
  Deletion(options_).FinishAll();
  ExpectGone();
}

TEST_F(FaultyDeletion, RemovalFails_GuestIsDeleted_AndTheNextStartTriesAgain) {
  options_.file_calls.unlink = [&](int folder, const char* name) {
    return std::string(name).ends_with("-1") ? EPERM : guests::UnlinkInFolder(folder, name);
  };
  EXPECT_FALSE(Delete());
  EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kGuest)));
  EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
  EXPECT_TRUE(SyslogContains("could not be removed; this is tried again"));
  const std::string hidden = ground_.More(".vexa-deleted-" + std::string(kGuest) + "-1");
  EXPECT_TRUE(ground_.Files().contains(hidden));
  Deletion(options_).FinishAll();
  EXPECT_TRUE(ground_.Files().contains(hidden));
  options_.file_calls = {};
  Deletion(options_).FinishAll();
  ExpectGone();
}

TEST_F(FaultyDeletion, SyncOfRemovalsFails_RecordStaysForTheNextStart) {
  options_.file_calls.sync = [&](int folder) {
    return TextOf(*store_, KeyOf("guest", kGuest)) ? guests::SyncFolder(folder) : EIO;
  };
  EXPECT_FALSE(Delete());
  EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
  options_.file_calls = {};
  Deletion(options_).FinishAll();
  ExpectGone();
}

TEST_F(FaultyDeletion, FullDisk_AtTheFirstCommit_ChangesNothing) {
  At("commit hiding", [&] { store_->FailCommits(); });
  EXPECT_EQ(Delete()->code, guests::kFailed);
  ExpectAllThere();
}

TEST_F(FaultyDeletion, FullDisk_AtTheCommitOfRecords_IsUndone) {
  At("commit records", [&] { store_->FailCommits(); });
  const Refused refused = Delete();
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, guests::kFailed);
  EXPECT_THAT(refused->reason, HasSubstr("The commit was made to fail"));
  // The names are back; that it is being deleted could not be taken back.
  EXPECT_EQ(ground_.Files(), files_);
  EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
  store_->Heal();
  Deletion(options_).FinishAll();
  ExpectGone();
}

TEST_F(FaultyDeletion, Deletion_DiskFullAtRecordCommit_IsUndone) {
  std::vector<std::string> steps;
  options_.before_step = [&](std::string_view step) {
    steps.emplace_back(step);
    if (step == "commit records") store_->FailCommits();
    if (step == "show 0") store_->Heal();
  };
  EXPECT_EQ(Delete()->code, guests::kFailed);
  EXPECT_THAT(steps,
              testing::IsSupersetOf({"show 0", "show 1", "show 2", "sync shown 0", "sync shown 1", "commit undo"}));
  ExpectAllThere();
}

TEST_F(FaultyDeletion, FullDisk_AtTheLastCommit_LeavesThatToTheNextStart) {
  At("commit end", [&] { store_->FailCommits(); });
  EXPECT_FALSE(Delete());
  EXPECT_EQ(ground_.Files(), Without(files_, kGuest));
  EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
  store_->Heal();
  Deletion(options_).FinishAll();
  ExpectGone();
}

TEST_F(FaultyDeletion, Deletion_StoreUnreadableAfterFailedCommit_IsLeftToNextStart) {
  At("commit records", [&] {
    store_->FailCommits();
    store_->FailSnapshots();
  });
  EXPECT_EQ(Delete()->code, guests::kFailed);
  store_->Heal();
  EXPECT_TRUE(SyslogContains("Whether its records are deleted is unknown"));
  Deletion(options_).FinishAll();
  ExpectGone();
}

TEST_F(FaultyDeletion, Deletion_StoreUnreadable_Is901) {
  store_->FailReadsOf(KeyOf("guest", kGuest));
  EXPECT_EQ(Delete()->code, guests::kFailed);
  store_->Heal();
  store_->FailReadsOf(store::MakeKey({"dash", "vdisk"}));
  EXPECT_EQ(Delete()->code, guests::kFailed);
  store_->Heal();
  ExpectAllThere();
}

TEST_F(FaultyDeletion, OthersComeFirst_IsTriedAgain) {
  options_.before_step = [&](std::string_view step) {
    if (step == "hide 0") store_->ConflictCommits(5);
  };
  store_->ConflictCommits(5);
  EXPECT_FALSE(Delete());
  ExpectGone();
}

TEST_F(FaultyDeletion, OthersComeFirstForEver_Is915_AndChangesNothing) {
  At("commit records", [&] { store_->ConflictCommits(256); });
  EXPECT_EQ(Delete()->code, guests::kBusy);
  ExpectAllThere();
  store_->ConflictCommits(1'000'000);
  EXPECT_EQ(Delete()->code, guests::kBusy);
  store_->Heal();
  store_->ConflictCommits(0);
  ExpectAllThere();
}

TEST_F(FaultyDeletion, Deletion_GuestEditedAfterHiding_IsStillDeleted) {
  At("commit records", [&] { ChangeGuest("name", "renamed"); });
  EXPECT_FALSE(Delete());
  ExpectGone();
}

TEST_F(FaultyDeletion, EditOfTheDisks_BetweenHidingAndCommit_BeginsAgain) {
  WriteFile(ground_.Image("new.img"));
  At("commit records", [&] { PutDisk(*store_, DiskId(kGuest, 1), kGuest, ground_.Image("new.img")); });
  EXPECT_FALSE(Delete());
  EXPECT_EQ(Everything(*store_), Without(records_, kGuest));
  Texts files = Without(files_, kGuest);
  // The disk's file is another one now; the former belongs to nobody, and comes back.
  const std::string former = ground_.More(kGuest + std::string("-1.img"));
  files[former] = files_[former];
  EXPECT_EQ(ground_.Files(), files);
}

TEST_F(FaultyDeletion, EditsOfTheDisksForEver_Are915_AndChangeNothing) {
  int edits = 0;
  options_.before_step = [&](std::string_view step) {
    if (step == "commit records") PutDisk(*store_, DiskId(kGuest, 1), kGuest, ground_.Image(std::to_string(++edits)));
  };
  EXPECT_EQ(Delete()->code, guests::kBusy);
  EXPECT_GT(edits, 1);
  EXPECT_EQ(ground_.Files(), files_);
  EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));
  EXPECT_TRUE(TextOf(*store_, KeyOf("guest", kGuest)));
}

TEST_F(FaultyDeletion, Deletion_DiskReassignedAfterHiding_IsKept) {
  At("commit records",
     [&] { PutDisk(*store_, DiskId(kGuest, 1), kBystander, ground_.More(kGuest + std::string("-1.img"))); });
  EXPECT_FALSE(Delete());
  EXPECT_TRUE(TextOf(*store_, KeyOf("vdisk", DiskId(kGuest, 1))));
  EXPECT_TRUE(ground_.Files().contains(ground_.More(kGuest + std::string("-1.img"))));
  EXPECT_EQ(ground_.Files().size(), Without(files_, kGuest).size() + 1);
}

TEST_F(FaultyDeletion, Purge_HiddenFileAssignedToOtherDisk_IsKept) {
  At("hide 1", [&] { PutDisk(*store_, "new-disk", kBystander, ground_.Image("a/" + std::string(kGuest) + "-0.img")); });
  EXPECT_FALSE(Delete());
  EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kGuest)));
  EXPECT_TRUE(TextOf(*store_, KeyOf("vdisk", "new-disk")));
  EXPECT_TRUE(ground_.Files().contains(ground_.Image("a/" + std::string(kGuest) + "-0.img")));
}

TEST_F(FaultyDeletion, RecordDamagedBetweenHidingAndCommit_IsUndone) {
  At("commit records", [&] {
    PutText(*store_, KeyOf("guest", kGuest), "[");
    store_->ConflictCommits(1);
  });
  EXPECT_TRUE(Delete());
  EXPECT_EQ(ground_.Files(), files_);
  EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));
}

TEST_F(FaultyDeletion, RecordDeletedByOthersMeanwhile_TakesTheFilesAlong) {
  At("commit records", [&] {
    for (const auto& [key, text] : records_) {
      if (key.find(kGuest) != std::string::npos) RemoveKey(*store_, key);
    }
  });
  EXPECT_FALSE(Delete());
  ExpectGone();
}

TEST_F(FaultyDeletion, DeletionTakenByOthers_IsNotFinishedTwice) {
  const std::string theirs = R"({"host_id":"far","user":"bob","since":1,"stage":"hiding","files":[]})";
  At("commit records", [&] { PutText(*store_, DeletionKey(kGuest), theirs); });
  const Refused refused = Delete();
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, guests::kBusy);
  EXPECT_THAT(refused->reason, HasSubstr("by 'bob'"));
  EXPECT_EQ(TextOf(*store_, DeletionKey(kGuest)), theirs);
  EXPECT_EQ(ground_.Files(), files_);
  EXPECT_TRUE(TextOf(*store_, KeyOf("guest", kGuest)));
}

TEST_F(FaultyDeletion, RecordOfTheDeletionRemovedByOthers_IsUndone) {
  At("commit records", [&] { RemoveKey(*store_, DeletionKey(kGuest)); });
  EXPECT_EQ(Delete()->code, guests::kFailed);
  ExpectAllThere();
}

TEST_F(FaultyDeletion, TwoFinishersOfOneDeletion_BothSeeItDone) {
  At("commit records", [&] { Deletion(ground_.Options(store_)).FinishAll(); });
  EXPECT_FALSE(Delete());
  ExpectGone();
}

TEST_F(FaultyDeletion, GuestThatStartsFirst_IsNotDeleted) {
  At("commit hiding", [&] { PutText(*store_, RunKey(kGuest), R"({"host_id":"there"})"); });
  const Refused refused = Delete();
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, guests::kRunsAlready);
  EXPECT_EQ(ground_.Files(), files_);
}

TEST_F(FaultyDeletion, FileThatVanishesMeanwhile_IsSkipped) {
  At("hide 1", [&] { std::filesystem::remove(ground_.More(kGuest + std::string("-1.img"))); });
  EXPECT_FALSE(Delete());
  ExpectGone();
  EXPECT_TRUE(SyslogContains("any more"));
}

TEST_F(FaultyDeletion, Delete_FileReplacedByLink_IsKept) {
  const std::string path = ground_.More(kGuest + std::string("-1.img"));
  At("hide 1", [&] {
    std::filesystem::remove(path);
    std::filesystem::create_symlink(ground_.Image("a/bystander-0.img"), path);
  });
  EXPECT_FALSE(Delete());
  EXPECT_TRUE(std::filesystem::is_symlink(path));
  EXPECT_EQ(Everything(*store_), Without(records_, kGuest));
  EXPECT_TRUE(SyslogContains("is left: it is a symbolic link"));
}

TEST_F(FaultyDeletion, Delete_FolderReplacedByLink_IsNotFollowed) {
  const std::string folder = ground_.Image("a");
  At("remove 0", [&] {
    std::filesystem::rename(folder, ground_.Outside("a"));
    std::filesystem::create_directory_symlink(ground_.Outside("a"), folder);
  });
  EXPECT_FALSE(Delete());
  EXPECT_EQ(ground_.Files().count(ground_.Outside("a/.vexa-deleted-" + std::string(kGuest) + "-0")), 1u);
  EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
}

TEST_F(FaultyDeletion, TwoThreads_OneDeletes_TheOtherIsRefused) {
  for (int round = 0; round < 20; ++round) {
    PutBoth(ground_, *store_);
    std::latch start(2);
    std::array<Refused, 2> refused;
    {
      std::vector<std::jthread> threads;
      for (Refused& mine : refused) {
        threads.emplace_back([&] {
          start.arrive_and_wait();
          mine = Delete();
        });
      }
    }
    ASSERT_NE(refused[0].has_value(), refused[1].has_value()) << round;
    const int code = (refused[0] ? refused[0] : refused[1])->code;
    EXPECT_TRUE(code == guests::kBusy || code == guests::kUnreadable) << code;
    ExpectGone();
  }
}

TEST_F(FaultyDeletion, Deletion_ConstantEdits_StillSucceeds) {
  std::atomic<bool> ends = false;
  std::atomic<int> edits = 0;
  std::jthread editor([&] {
    const std::string key = KeyOf("guest", kGuest);
    while (!ends) {
      const auto snapshot = Require(store_->Read());
      const auto value = Require(snapshot->Get(key));
      if (!value) return;
      Json::Value guest = Require(ParseJson(value->text));
      guest["desc"] = std::to_string(edits);
      if (store_->Commit({{{key, value->revision}}, {{key, VexaVirtualization::json::ToText(guest)}}})) ++edits;
    }
  });
  while (edits < 5) std::this_thread::yield();
  const Refused refused = Delete();
  ends = true;
  editor.join();
  EXPECT_FALSE(refused) << refused->reason;
  ExpectGone();
}

TEST_F(FaultyDeletion, PowerOnAtTheSameTime_NeverBoth) {
  int deleted = 0;
  int started = 0;
  for (int round = 0; round < 200; ++round) {
    PutGuest(*store_, kGuest, {});
    std::latch start(2);
    bool runs = false;
    Refused refused;
    {
      const std::jthread power([&] {
        start.arrive_and_wait();
        const auto snapshot = Require(store_->Read());
        const auto guest = Require(snapshot->Get(KeyOf("guest", kGuest)));
        if (!guest) return;
        runs = store_
                   ->Commit({{{RunKey(kGuest), 0}, {DeletionKey(kGuest), 0}, {KeyOf("guest", kGuest), guest->revision}},
                             {{RunKey(kGuest), R"({"host_id":"there"})"}}})
                   .ok();
      });
      const std::jthread deletion([&] {
        start.arrive_and_wait();
        refused = Delete();
      });
    }
    ASSERT_NE(runs, !refused) << round;
    EXPECT_EQ(TextOf(*store_, KeyOf("guest", kGuest)).has_value(), runs);
    if (runs) {
      EXPECT_EQ(refused->code, guests::kRunsAlready);
    }
    ++(runs ? started : deleted);
    RemoveKey(*store_, RunKey(kGuest));
  }
  RecordProperty("started", started);
  RecordProperty("deleted", deleted);
}

}  // namespace
}  // namespace vexa::test
