// Concurrent changes during an edit, and what is synced to disk before each commit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <set>
#include <utility>

#include "host/records/environment.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "tests/unit/guests/guest_edit_fixture.h"

namespace vexa::test {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int64_t kMib = 1024 * 1024;

std::string RemoveDisk1() { return R"({"vdisks_del":[{)" + Id(kDisk1) + "}]}"; }
std::string EveryChange() {
  return R"({"vdisks_add":[{"vdisk_size":32}],"vdisks_edit":[{"vdisk_size":24,)" + Id(kDisk0) +
         R"(}],"vdisks_del":[{)" + Id(kDisk1) + "}]}";
}
// The record of an edit by `host` that has created `path` and hidden nothing.
std::string EditBy(const std::string& host, const std::string& path) {
  return "{\"host_id\":\"" + host + R"(","user":"bob","since":0,"stage":"doing","hidden":[],"grown":[],"made":[")" +
         path + "\"]}";
}

class RacedEdit : public EditTest {
 protected:
  // All is as it was, but for `key`.
  void ExpectUnchangedExcept(const std::string& key) {
    Texts now = Everything(*store_);
    now.erase(key);
    Texts before = records_;
    before.erase(key);
    EXPECT_EQ(now, before);
    EXPECT_EQ(environment_.Images(), images_);
  }
};

TEST_F(RacedEdit, Edit_OtherHostStartsFirst_IsNotTouched) {
  const std::string theirs = EditBy(kOtherHost, environment_.PathOf(kUnknownId));
  At("commit doing", [&] { PutText(*store_, records::EditKey(kEdited), theirs); });
  EXPECT_EQ(Code(EveryChange()), 915);
  EXPECT_EQ(TextOf(*store_, records::EditKey(kEdited)), theirs);
  ExpectUnchangedExcept(records::EditKey(kEdited));
}

TEST_F(RacedEdit, Edit_DeletionStartsFirst_IsNotTouched) {
  for (const char* step : {"commit", "commit doing"}) {
    SCOPED_TRACE(step);
    At(step, [&] {
      PutText(*store_, records::DeletionKey(kEdited), R"({"host_id":"h","user":"bob","stage":"hiding","files":[]})");
    });
    EXPECT_EQ(Code(step == std::string("commit") ? R"({"vcpu_num":4})" : EveryChange()), 915);
    ExpectUnchangedExcept(records::DeletionKey(kEdited));
    RemoveKey(*store_, records::DeletionKey(kEdited));
  }
}

// It has read the records as they were before.
TEST_F(RacedEdit, Edit_GuestStartsMeanwhile_IsStored) {
  At("commit", [&] { PutRun(*store_); });
  EXPECT_EQ(Code(R"({"vcpu_num":4})"), 0);
  EXPECT_EQ(RecordOf(*store_, "guest", kEdited)["vcpu_num"], 4);
}

TEST_F(RacedEdit, Edit_GuestStartsBeforeFileChanges_KeepsFiles) {
  At("commit doing", [&] { PutRun(*store_); });
  EXPECT_EQ(Code(EveryChange()), 904);
  ExpectUnchangedExcept(records::RunKey(kEdited));
}

TEST_F(RacedEdit, AddNic_NetworkRemovedMeanwhile_IsRefused) {
  At("commit", [&] { RemoveKey(*store_, KeyOf("network", kNetworkByRecord)); });
  EXPECT_EQ(
      Code(std::string(R"({"vnics_add":[{"network_id":")") + kNetworkByRecord + R"(","mac":"02:00:00:00:00:77"}]})"),
      903);
  ExpectUnchangedExcept(KeyOf("network", kNetworkByRecord));
}

TEST_F(RacedEdit, Edit_DiskRemovedMeanwhile_IsRefusedAndNotRestored) {
  At("commit", [&] {
    EditOptions other = environment_.Options(store_);
    EXPECT_TRUE(Edits(other).Edit(kEdited, Parsed(RemoveDisk1()), Alice()).ok());
  });
  EXPECT_EQ(Code(R"({"vdisks_edit":[{"vdisk_size":16,"unmap":true,)" + Id(kDisk1) + "}]}"), 904);
  EXPECT_TRUE(RecordOf(*store_, "vdisk", kDisk1).isNull());
  At("commit", [&] {
    Json::Value guest = RecordOf(*store_, "guest", kEdited);
    guest["vdisks"] = Json::Value(Json::arrayValue);
    PutRecord(*store_, KeyOf("guest", kEdited), guest);
  });
  EXPECT_EQ(Code(R"({"vdisks_edit":[{"vdisk_size":8,"unmap":true,)" + Id(kDisk0) + "}]}"), 904);
  EXPECT_EQ(RecordOf(*store_, "vdisk", kDisk0)["unmap"], false);
}

TEST_F(RacedEdit, Edit_RecordChangedOrRemoved_UndoesAll) {
  for (const char* step : {"sync done 0", "commit records"}) {
    for (const bool is_changed : {false, true}) {
      SCOPED_TRACE(std::string(step) + (is_changed ? " changed" : " taken away"));
      std::string theirs = EditBy(kOtherHost, environment_.PathOf(kUnknownId));
      theirs.replace(theirs.find("doing"), 5, "purging");
      At(step, [&] {
        if (is_changed) {
          PutText(*store_, records::EditKey(kEdited), theirs);
        } else {
          RemoveKey(*store_, records::EditKey(kEdited));
        }
      });
      EXPECT_EQ(Code(EveryChange()), 901);
      EXPECT_EQ(TextOf(*store_, records::EditKey(kEdited)), is_changed ? std::optional(theirs) : std::nullopt);
      ExpectUnchangedExcept(records::EditKey(kEdited));
      if (is_changed) RemoveKey(*store_, records::EditKey(kEdited));
    }
  }
}

// Only the file that the record names when it goes is given up.
TEST_F(RacedEdit, RemoveDisk_FileChangedMeanwhile_RemovesNewFile) {
  const std::string other = environment_.Folder() + "/other.img";
  WriteFile(other);
  for (const char* step : {"sync done 0", "commit records"}) {
    SCOPED_TRACE(step);
    const Json::Value disk = RecordOf(*store_, "vdisk", kDisk1);
    const Json::Value guest = RecordOf(*store_, "guest", kEdited);
    At(step, [&] {
      Json::Value moved = disk;
      moved["path"] = other;
      PutRecord(*store_, KeyOf("vdisk", kDisk1), moved);
    });
    EXPECT_EQ(Code(RemoveDisk1()), 0);
    EXPECT_TRUE(std::filesystem::exists(environment_.PathOf(kDisk1)));
    EXPECT_FALSE(std::filesystem::exists(other));
    PutRecord(*store_, KeyOf("vdisk", kDisk1), disk);
    PutRecord(*store_, KeyOf("guest", kEdited), guest);
    WriteFile(other);
  }
}

TEST_F(RacedEdit, AddDisk_FileExists_IsNotRemoved) {
  options_.file_calls.create = [&](int folder, const char* name, int* file) {
    EXPECT_EQ(disks::CreateInFolder(folder, name, file), 0);
    ::close(*file);
    return disks::CreateInFolder(folder, name, file);
  };
  EXPECT_EQ(Code(R"({"vdisks_add":[{"vdisk_size":32}]})"), 901);
  EXPECT_EQ(Everything(*store_), records_);
  EXPECT_EQ(environment_.Images().size(), images_.size() + 1);
}

TEST_F(RacedEdit, FinishAll_EditsOfOtherHosts_AreSkipped) {
  PutText(*store_, records::EditKey(kEdited), EditBy(kOtherHost, environment_.PathOf(kDisk0)));
  Remember();
  Edits(options_).FinishAll();
  EXPECT_EQ(Everything(*store_), records_);
  EXPECT_EQ(environment_.Images(), images_);
}

// Its answer is lost on the way: the commit is made, and the caller sees a failure.
class LostReplyStore : public store::Store {
 public:
  LostReplyStore(std::shared_ptr<store::Store> base, std::string text)
      : base_(std::move(base)), text_(std::move(text)) {}
  Result<std::unique_ptr<store::Snapshot>> Read() const override { return base_->Read(); }
  Result<store::Revision> Commit(const store::Transaction& transaction) override {
    Result<store::Revision> committed = base_->Commit(transaction);
    for (const store::Operation& operation : transaction.operations) {
      const bool is_it = operation.text && operation.text->find(text_) != std::string::npos;
      if (is_it && !std::exchange(is_done_, true)) return Error(ErrorCode::kInternal, "no answer");
    }
    return committed;
  }
  Result<store::ChangeBatch> Watch(std::string_view prefix, store::Revision from,
                                   std::chrono::milliseconds timeout) override {
    return base_->Watch(prefix, from, timeout);
  }
  store::Health health() const override { return base_->health(); }

 private:
  const std::shared_ptr<store::Store> base_;
  const std::string text_;
  bool is_done_ = false;
};

TEST_F(RacedEdit, Commit_ReportedFailedButMade_IsNotUndone) {
  options_.store = std::make_shared<LostReplyStore>(store_, "\"purging\"");
  EXPECT_EQ(Code(EveryChange()), 0);
  EXPECT_EQ(environment_.Images().size(), 2u);
  EXPECT_EQ(environment_.Images().at(std::string(kDisk0) + ".qcow2"), 24 * kMib);
  EXPECT_TRUE(RecordOf(*store_, "vdisk", kDisk1).isNull());
  EXPECT_FALSE(TextOf(*store_, records::EditKey(kEdited)));
}

// Else nobody could do anything with the guest until this host starts again.
TEST_F(RacedEdit, Edit_BeginCommitReportedFailedButMade_IsRevoked) {
  options_.store = std::make_shared<LostReplyStore>(store_, "\"doing\"");
  EXPECT_EQ(Code(EveryChange()), 901);
  EXPECT_EQ(Everything(*store_), records_);
  EXPECT_EQ(environment_.Images(), images_);
}

// What was changed and not synced since.
class Unsynced {
 public:
  void Watch(disks::FileSystemCalls& calls) {
    calls.create = [this](int folder, const char* name, int* file) {
      const int error_number = disks::CreateInFolder(folder, name, file);
      if (error_number == 0) inodes_.insert({InodeOf(folder), InodeOf(*file)});
      return error_number;
    };
    calls.rename = [this](int folder, const char* from, const char* to) {
      inodes_.insert(InodeOf(folder));
      return disks::RenameInFolder(folder, from, to);
    };
    calls.unlink = [this](int folder, const char* name) {
      inodes_.insert(InodeOf(folder));
      return disks::UnlinkInFolder(folder, name);
    };
    calls.set_length = [this](int file, std::uint64_t length) {
      inodes_.insert(InodeOf(file));
      return disks::SetFileLength(file, length);
    };
    calls.write = [this](int file, std::string_view bytes, std::uint64_t offset) {
      inodes_.insert(InodeOf(file));
      return disks::WriteToFile(file, bytes, offset);
    };
    calls.sync = calls.sync_file = [this](int fd) {
      inodes_.erase(InodeOf(fd));
      return disks::SyncFile(fd);
    };
  }
  const std::set<ino_t>& inodes() const { return inodes_; }

 private:
  static ino_t InodeOf(int fd) {
    struct stat info {};
    EXPECT_EQ(::fstat(fd, &info), 0);
    return info.st_ino;
  }
  std::set<ino_t> inodes_;
};

TEST_F(RacedEdit, Edit_BeforeEachCommit_ChangesAreSynced) {
  const std::string grow_raw = R"({"vdisks_edit":[{"vdisk_size":48,)" + Id(kDisk1) + "}]}";
  for (const bool is_refused : {true, false}) {
    for (const std::string& edit : {grow_raw, EveryChange()}) {
      SCOPED_TRACE(edit);
      Unsynced unsynced;
      unsynced.Watch(options_.file_calls);
      int commits = 0;
      options_.before_step = [&](std::string_view step) {
        if (!step.starts_with("commit ")) return;
        ++commits;
        EXPECT_THAT(unsynced.inodes(), IsEmpty()) << step;
        if (step == "commit records" && is_refused) PutRun(*store_);
      };
      EXPECT_EQ(Code(edit), is_refused ? 904 : 0);
      EXPECT_GE(commits, 3);
      if (!is_refused) continue;
      ExpectUnchangedExcept(records::RunKey(kEdited));
      RemoveKey(*store_, records::RunKey(kEdited));
    }
  }
}

// Odd guests.

TEST_F(RacedEdit, RemoveDisk_FileInOwnDrive_IsKept) {
  Json::Value guest = RecordOf(*store_, "guest", kEdited);
  guest["iso_images"].append(environment_.Folder() + "/./" + kDisk1 + ".qcow2");
  PutRecord(*store_, KeyOf("guest", kEdited), guest);
  EXPECT_EQ(Code(RemoveDisk1()), 0);
  EXPECT_EQ(environment_.Images(), images_);
  EXPECT_TRUE(RecordOf(*store_, "vdisk", kDisk1).isNull());
}

TEST_F(RacedEdit, Edit_KeptOrMissingFiles_AreReportedOnce) {
  std::filesystem::remove(environment_.PathOf(kDisk1));
  ClearCapturedSyslog();
  EXPECT_EQ(Code(RemoveDisk1()), 0);
  EXPECT_THAT(CapturedSyslog(), SizeIs(1));
  EXPECT_TRUE(SyslogContains(std::string("Edited guest[") + kEdited + "]: there is no file [" +
                             environment_.PathOf(kDisk1) + "]."));
}

TEST_F(RacedEdit, Edit_GuestWithMissingParts_IsRefused) {
  RemoveKey(*store_, KeyOf("vnic", kNic1));
  Remember();
  EXPECT_EQ(Code(R"({"vcpu_num":4})"), 403);
  EXPECT_EQ(Everything(*store_), records_);
  Json::Value guest = RecordOf(*store_, "guest", kEdited);
  for (const char* list : {R"([7])", R"([null])", R"([["x"]])"}) {
    guest["vnics"] = Parsed(list);
    PutRecord(*store_, KeyOf("guest", kEdited), guest);
    EXPECT_EQ(Code(R"({"vcpu_num":4})"), 403) << list;
  }
}

TEST_F(RacedEdit, AddDisk_BusFull_IsRefused) {
  std::string list;
  for (int i = 0; i < 5; ++i) list += std::string(i ? "," : "") + R"({"vdisk_size":1,"vdisk_mode":2})";
  EXPECT_EQ(Code("{\"vdisks_add\":[" + list + "]}"), 401);
  EXPECT_EQ(Everything(*store_), records_);
  EXPECT_EQ(environment_.Images(), images_);
}

TEST_F(RacedEdit, Edit_ListedPartsOfOtherGuests_AreNotItsOwn) {
  for (const auto& [category, id] : {std::pair("vdisk", kDisk1), std::pair("vnic", kNic1)}) {
    Json::Value record = RecordOf(*store_, category, id);
    record["guest_id"] = kNeighbour;
    PutRecord(*store_, KeyOf(category, id), record);
  }
  Remember();
  EXPECT_EQ(Code(RemoveDisk1()), 904);
  EXPECT_EQ(Code(R"({"vdisks_edit":[{"vdisk_size":99,)" + Id(kDisk1) + "}]}"), 904);
  EXPECT_EQ(Code(std::string(R"({"vnics_del":[{"vnic_id":")") + kNic1 + "\"}]}"), 903);
  EXPECT_EQ(Everything(*store_), records_);
  EXPECT_EQ(environment_.Images(), images_);
}

// A name or address that another guest gets between the check and the commit.
TEST(RacedNames, Edit_NameOrMacTakenMeanwhile_IsRefused) {
  const TestHost host;
  const EditEnvironment environment;
  const auto store = records::CurrentEnvironment()->store;
  environment.Fill(*store);
  for (const auto& [edit, code] : {std::pair(R"({"name":"wanted"})", 902),
                                   std::pair(R"({"vnics_add":[{"network_id":"","mac":"02:00:00:00:00:77"}]})", 903)}) {
    SCOPED_TRACE(edit);
    EditOptions options = environment.Options(store);
    bool is_done = false;
    options.before_step = [&, edit = edit](std::string_view step) {
      if (step != "commit" || std::exchange(is_done, true)) return;
      EXPECT_TRUE(Edits(environment.Options(store)).Edit(kNeighbour, Parsed(edit), Alice()).ok());
    };
    const Json::Value before = RecordOf(*store, "guest", kEdited);
    const auto refused = Edits(options).Edit(kEdited, Parsed(edit), Alice());
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code, code);
    EXPECT_EQ(RecordOf(*store, "guest", kEdited), before);
  }
}

}  // namespace
}  // namespace vexa::test
