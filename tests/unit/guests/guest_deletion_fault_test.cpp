// Deletions in which calls of the system and the store fail, and concurrent operations on the guest.
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
#include "tests/unit/guests/guest_deletion_fixture.h"

namespace vexa::test {
namespace {

class FaultyDeletion : public DeletionTest {
 protected:
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
};

TEST_F(FaultyDeletion, Deletion_RenameFails_RestoresNamesAndReportsWhy) {
  for (const int error_number : {EACCES, EROFS, EIO, ENAMETOOLONG}) {
    for (int fails_at = 0; fails_at < 3; ++fails_at) {
      int calls = 0;
      options_.file_calls.rename = [&](int folder, const char* from, const char* to) {
        return calls++ == fails_at ? error_number : disks::RenameInFolder(folder, from, to);
      };
      const auto refused = Delete();
      ASSERT_FALSE(refused.ok());
      EXPECT_EQ(refused.error().code, host_error::kFailed);
      EXPECT_THAT(refused.error().reason, HasSubstr(kGuest + std::string("-") + std::to_string(fails_at) + ".img"));
      EXPECT_THAT(refused.error().reason, HasSubstr(std::strerror(error_number)));
      ExpectUnchanged();
    }
  }
}

TEST_F(FaultyDeletion, Hide_SyncFails_NamesAreRestored) {
  bool has_failed = false;
  options_.file_calls.sync = [&](int folder) {
    return std::exchange(has_failed, true) ? disks::SyncFolder(folder) : EIO;
  };
  EXPECT_EQ(Delete().error().code, host_error::kFailed);
  ExpectUnchanged();
}

TEST_F(FaultyDeletion, Hide_HiddenNameExists_IsNotReplaced) {
  const std::string path = environment_.Image("a/.vexa-deleted-" + std::string(kGuest) + "-2");
  WriteFile(path, "somebody's");
  files_ = environment_.Files();
  const auto refused = Delete();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kFailed);
  EXPECT_THAT(refused.error().reason,
              HasSubstr("because there is a file '.vexa-deleted-" + std::string(kGuest) + "-2'"));
  ExpectUnchanged();
}

TEST_F(FaultyDeletion, Undo_Fails_IsResumedAtNextStart) {
  int calls = 0;
  options_.file_calls.rename = [&](int folder, const char* from, const char* to) {
    return calls++ >= 1 ? EIO : disks::RenameInFolder(folder, from, to);
  };
  const auto refused = Delete();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kFailed);
  EXPECT_THAT(refused.error().reason, HasSubstr("the deletion is resumed later"));
  EXPECT_TRUE(SyslogContains("could not be undone"));
  EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
  EXPECT_EQ(Delete().error().code, host_error::kBusy);
  options_.file_calls = {};
  Deletion(options_).FinishAll();
  ExpectGone();
}

TEST_F(FaultyDeletion, Purge_RemovalFails_GuestIsDeletedAndNextStartRetries) {
  options_.file_calls.unlink = [&](int folder, const char* name) {
    return std::string(name).ends_with("-1") ? EPERM : disks::UnlinkInFolder(folder, name);
  };
  EXPECT_TRUE(Delete().ok());
  EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kGuest)));
  EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
  EXPECT_TRUE(SyslogContains("could not be removed; this is retried"));
  const std::string hidden = environment_.More(".vexa-deleted-" + std::string(kGuest) + "-1");
  EXPECT_TRUE(environment_.Files().contains(hidden));
  Deletion(options_).FinishAll();
  EXPECT_TRUE(environment_.Files().contains(hidden));
  options_.file_calls = {};
  Deletion(options_).FinishAll();
  ExpectGone();
}

TEST_F(FaultyDeletion, Purge_SyncFails_RecordIsKeptForNextStart) {
  options_.file_calls.sync = [&](int folder) {
    return TextOf(*store_, KeyOf("guest", kGuest)) ? disks::SyncFolder(folder) : EIO;
  };
  EXPECT_TRUE(Delete().ok());
  EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
  options_.file_calls = {};
  Deletion(options_).FinishAll();
  ExpectGone();
}

TEST_F(FaultyDeletion, Delete_DiskFullAtFirstCommit_ChangesNothing) {
  At("commit hiding", [&] { store_->FailCommits(); });
  EXPECT_EQ(Delete().error().code, host_error::kFailed);
  ExpectUnchanged();
}

TEST_F(FaultyDeletion, Delete_DiskFullAtCommitOfRecords_IsUndone) {
  At("commit records", [&] { store_->FailCommits(); });
  const auto refused = Delete();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kFailed);
  EXPECT_THAT(refused.error().reason, HasSubstr("The commit was made to fail"));
  // The names are back; that it is being deleted could not be taken back.
  EXPECT_EQ(environment_.Files(), files_);
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
  EXPECT_EQ(Delete().error().code, host_error::kFailed);
  EXPECT_THAT(steps,
              testing::IsSupersetOf({"show 0", "show 1", "show 2", "sync shown 0", "sync shown 1", "commit undo"}));
  ExpectUnchanged();
}

TEST_F(FaultyDeletion, Delete_DiskFullAtLastCommit_IsLeftToNextStart) {
  At("commit end", [&] { store_->FailCommits(); });
  EXPECT_TRUE(Delete().ok());
  EXPECT_EQ(environment_.Files(), Without(files_, kGuest));
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
  EXPECT_EQ(Delete().error().code, host_error::kFailed);
  store_->Heal();
  EXPECT_TRUE(SyslogContains("It is unknown whether its records were deleted"));
  Deletion(options_).FinishAll();
  ExpectGone();
}

TEST_F(FaultyDeletion, Deletion_StoreUnreadable_Is901) {
  store_->FailReadsOf(KeyOf("guest", kGuest));
  EXPECT_EQ(Delete().error().code, host_error::kFailed);
  store_->Heal();
  store_->FailReadsOf(store::MakeKey({"dash", "vdisk"}));
  EXPECT_EQ(Delete().error().code, host_error::kFailed);
  store_->Heal();
  ExpectUnchanged();
}

TEST_F(FaultyDeletion, Delete_CommitConflicts_IsRetried) {
  options_.before_step = [&](std::string_view step) {
    if (step == "hide 0") store_->ConflictCommits(5);
  };
  store_->ConflictCommits(5);
  EXPECT_TRUE(Delete().ok());
  ExpectGone();
}

TEST_F(FaultyDeletion, Delete_CommitAlwaysConflicts_Is915AndChangesNothing) {
  At("commit records", [&] { store_->ConflictCommits(256); });
  EXPECT_EQ(Delete().error().code, host_error::kBusy);
  ExpectUnchanged();
  store_->ConflictCommits(1'000'000);
  EXPECT_EQ(Delete().error().code, host_error::kBusy);
  store_->Heal();
  store_->ConflictCommits(0);
  ExpectUnchanged();
}

TEST_F(FaultyDeletion, Deletion_GuestEditedAfterHiding_IsStillDeleted) {
  At("commit records", [&] { ChangeGuest("name", "renamed"); });
  EXPECT_TRUE(Delete().ok());
  ExpectGone();
}

TEST_F(FaultyDeletion, Delete_DisksEditedAfterHiding_StartsOver) {
  WriteFile(environment_.Image("new.img"));
  At("commit records", [&] { PutDisk(*store_, DiskId(kGuest, 1), kGuest, environment_.Image("new.img")); });
  EXPECT_TRUE(Delete().ok());
  EXPECT_EQ(Everything(*store_), Without(records_, kGuest));
  Texts files = Without(files_, kGuest);
  // The disk has another file now; no record refers to the former one, so it is unhidden.
  const std::string former = environment_.More(kGuest + std::string("-1.img"));
  files[former] = files_[former];
  EXPECT_EQ(environment_.Files(), files);
}

TEST_F(FaultyDeletion, Delete_DisksKeepChanging_Is915AndChangesNothing) {
  int edits = 0;
  options_.before_step = [&](std::string_view step) {
    if (step == "commit records")
      PutDisk(*store_, DiskId(kGuest, 1), kGuest, environment_.Image(std::to_string(++edits)));
  };
  EXPECT_EQ(Delete().error().code, host_error::kBusy);
  EXPECT_GT(edits, 1);
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));
  EXPECT_TRUE(TextOf(*store_, KeyOf("guest", kGuest)));
}

TEST_F(FaultyDeletion, Deletion_DiskReassignedAfterHiding_IsKept) {
  At("commit records",
     [&] { PutDisk(*store_, DiskId(kGuest, 1), kBystander, environment_.More(kGuest + std::string("-1.img"))); });
  EXPECT_TRUE(Delete().ok());
  EXPECT_TRUE(TextOf(*store_, KeyOf("vdisk", DiskId(kGuest, 1))));
  EXPECT_TRUE(environment_.Files().contains(environment_.More(kGuest + std::string("-1.img"))));
  EXPECT_EQ(environment_.Files().size(), Without(files_, kGuest).size() + 1);
}

TEST_F(FaultyDeletion, Purge_HiddenFileAssignedToOtherDisk_IsKept) {
  At("hide 1",
     [&] { PutDisk(*store_, "new-disk", kBystander, environment_.Image("a/" + std::string(kGuest) + "-0.img")); });
  EXPECT_TRUE(Delete().ok());
  EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kGuest)));
  EXPECT_TRUE(TextOf(*store_, KeyOf("vdisk", "new-disk")));
  EXPECT_TRUE(environment_.Files().contains(environment_.Image("a/" + std::string(kGuest) + "-0.img")));
}

TEST_F(FaultyDeletion, Delete_RecordDamagedAfterHiding_IsUndone) {
  At("commit records", [&] {
    PutText(*store_, KeyOf("guest", kGuest), "[");
    store_->ConflictCommits(1);
  });
  EXPECT_FALSE(Delete().ok());
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));
}

TEST_F(FaultyDeletion, Delete_GuestRecordDeletedMeanwhile_RemovesFiles) {
  At("commit records", [&] {
    for (const auto& [key, text] : records_) {
      if (key.find(kGuest) != std::string::npos) RemoveKey(*store_, key);
    }
  });
  EXPECT_TRUE(Delete().ok());
  ExpectGone();
}

TEST_F(FaultyDeletion, Finish_DeletionTakenByOtherHost_IsSkipped) {
  const std::string theirs = R"({"host_id":"far","user":"bob","since":1,"stage":"hiding","files":[]})";
  At("commit records", [&] { PutText(*store_, DeletionKey(kGuest), theirs); });
  const auto refused = Delete();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kBusy);
  EXPECT_THAT(refused.error().reason, HasSubstr("by 'bob'"));
  EXPECT_EQ(TextOf(*store_, DeletionKey(kGuest)), theirs);
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_TRUE(TextOf(*store_, KeyOf("guest", kGuest)));
}

TEST_F(FaultyDeletion, Delete_DeletionRecordRemovedElsewhere_IsUndone) {
  At("commit records", [&] { RemoveKey(*store_, DeletionKey(kGuest)); });
  EXPECT_EQ(Delete().error().code, host_error::kFailed);
  ExpectUnchanged();
}

TEST_F(FaultyDeletion, Finish_TwoFinishers_BothSucceed) {
  At("commit records", [&] { Deletion(environment_.Options(store_)).FinishAll(); });
  EXPECT_TRUE(Delete().ok());
  ExpectGone();
}

TEST_F(FaultyDeletion, Delete_GuestStartsFirst_IsRefused) {
  At("commit hiding", [&] { PutText(*store_, RunKey(kGuest), R"({"host_id":"there"})"); });
  const auto refused = Delete();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kAlreadyRunning);
  EXPECT_EQ(environment_.Files(), files_);
}

TEST_F(FaultyDeletion, Delete_FileVanishes_IsSkipped) {
  At("hide 1", [&] { std::filesystem::remove(environment_.More(kGuest + std::string("-1.img"))); });
  EXPECT_TRUE(Delete().ok());
  ExpectGone();
  EXPECT_TRUE(SyslogContains("no longer exists"));
}

TEST_F(FaultyDeletion, Delete_FileReplacedByLink_IsKept) {
  const std::string path = environment_.More(kGuest + std::string("-1.img"));
  At("hide 1", [&] {
    std::filesystem::remove(path);
    std::filesystem::create_symlink(environment_.Image("a/bystander-0.img"), path);
  });
  EXPECT_TRUE(Delete().ok());
  EXPECT_TRUE(std::filesystem::is_symlink(path));
  EXPECT_EQ(Everything(*store_), Without(records_, kGuest));
  EXPECT_TRUE(SyslogContains("is kept: it is a symbolic link"));
}

TEST_F(FaultyDeletion, Delete_FolderReplacedByLink_IsNotFollowed) {
  const std::string folder = environment_.Image("a");
  At("remove 0", [&] {
    std::filesystem::rename(folder, environment_.Outside("a"));
    std::filesystem::create_directory_symlink(environment_.Outside("a"), folder);
  });
  EXPECT_TRUE(Delete().ok());
  EXPECT_EQ(environment_.Files().count(environment_.Outside("a/.vexa-deleted-" + std::string(kGuest) + "-0")), 1u);
  EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
}

TEST_F(FaultyDeletion, Delete_TwoThreads_OneSucceedsOtherIsRefused) {
  for (int round = 0; round < 20; ++round) {
    PutBoth(environment_, *store_);
    std::latch start(2);
    std::array<Result<void, Refusal>, 2> refused;
    {
      std::vector<std::jthread> threads;
      for (Result<void, Refusal>& mine : refused) {
        threads.emplace_back([&] {
          start.arrive_and_wait();
          mine = Delete();
        });
      }
    }
    ASSERT_NE(!refused[0].ok(), !refused[1].ok()) << round;
    const int code = (refused[0].ok() ? refused[1] : refused[0]).error().code;
    EXPECT_TRUE(code == host_error::kBusy || code == host_error::kNotFoundOrUnreadable) << code;
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
  const auto refused = Delete();
  ends = true;
  editor.join();
  EXPECT_TRUE(refused.ok()) << refused.error().reason;
  ExpectGone();
}

TEST_F(FaultyDeletion, DeleteAndPowerOn_Concurrent_OnlyOneSucceeds) {
  int deleted = 0;
  int started = 0;
  for (int round = 0; round < 200; ++round) {
    PutGuest(*store_, kGuest, {});
    std::latch start(2);
    bool runs = false;
    Result<void, Refusal> refused;
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
    ASSERT_NE(runs, refused.ok()) << round;
    EXPECT_EQ(TextOf(*store_, KeyOf("guest", kGuest)).has_value(), runs);
    if (runs) {
      EXPECT_EQ(refused.error().code, host_error::kAlreadyRunning);
    }
    ++(runs ? started : deleted);
    RemoveKey(*store_, RunKey(kGuest));
  }
  RecordProperty("started", started);
  RecordProperty("deleted", deleted);
}

}  // namespace
}  // namespace vexa::test
