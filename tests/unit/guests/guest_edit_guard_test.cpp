// What prevents an edit or its undo from changing a file: a domain that has it open, and records that name it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <utility>

#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_edit_fixture.h"
#include "tests/unit/guests/watched_store.h"

namespace vexa::test {
namespace {

using testing::ElementsAre;

const std::string& Grow() {
  static const std::string edit = R"({"vdisks_edit":[{"vdisk_size":48,)" + Id(kDisk1) + "}]}";
  return edit;
}
const std::string& Remove() {
  static const std::string edit = R"({"vdisks_del":[{)" + Id(kDisk1) + "}]}";
  return edit;
}

class GuardedEdit : public EditTest {
 protected:
  GuardedEdit() { ClearCapturedSyslog(); }
  bool IsBegun() { return !Edits(options_).Unfinished().empty(); }
  // As importers do.
  void PutNewUser(const std::string& path) {
    (void)Require(store_->Commit({{},
                                  {{KeyOf("vdisk", "new"), R"({"guest_id":"new-guest","path":")" + path + "\"}"},
                                   {records::FileReferencesGuardKey(), "1"}}}));
  }
  void Open(bool& is_open) {
    options_.file_calls.is_open_in_vm = [&is_open](int, const char*, bool* is_open_in_vm) {
      *is_open_in_vm = is_open;
      return 0;
    };
  }
  std::int64_t SizeOfRaw() const { return environment_.Images().at(std::string(kDisk1) + ".qcow2") >> 20; }
};

// Machines.

TEST_F(GuardedEdit, Edit_FileOpen_Is910AndNamesFile) {
  bool is_open = true;
  Open(is_open);
  for (const std::string& edit : {Grow(), Remove()}) {
    const auto refused = Edit(edit);
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code, 910);
    EXPECT_THAT(refused.error().reason,
                HasSubstr("A VM process has the file '" + environment_.PathOf(kDisk1) + "' open"));
    ExpectUnchanged();
  }
  is_open = false;
  EXPECT_EQ(Code(Grow()), 0);
}

TEST_F(GuardedEdit, Edit_GuestRunsInHypervisor_KeepsDisks) {
  std::vector<std::string> steps;
  options_.before_step = [&](std::string_view step) { steps.emplace_back(step); };
  for (const int code : {910, 949}) {
    options_.check_not_running = [code](const std::string&) { return Refusal{code, "not now"}; };
    EXPECT_EQ(Code(Grow()), code);
    EXPECT_EQ(Code(Remove()), code);
  }
  EXPECT_THAT(steps, ElementsAre());
  ExpectUnchanged();
  EXPECT_EQ(Code(R"({"vcpu_num":3})"), 0) << "only disks that grow or go are asked about";
  EXPECT_EQ(Code(R"({"vdisks_add":[{"vdisk_size":1}]})"), 0);
}

TEST_F(GuardedEdit, Job_GuestStartsAfterIntent_IsUndone) {
  for (const std::string& edit : {Grow(), Remove()}) {
    int asked = 0;
    options_.check_not_running = [&](const std::string&) {
      return ++asked > 1 ? Result<void, Refusal>({910, "it runs"}) : Result<void, Refusal>();
    };
    EXPECT_EQ(Code(edit), 910);
    EXPECT_EQ(asked, 2);
    EXPECT_FALSE(IsBegun()) << "nothing has grown, so nothing waits";
    ExpectUnchanged();
  }
}

TEST_F(GuardedEdit, UndoGrowth_GuestRunning_Waits) {
  bool runs = false;
  options_.check_not_running = [&](const std::string&) {
    return runs ? Result<void, Refusal>({910, "it runs"}) : Result<void, Refusal>();
  };
  At("commit records", [&] {
    runs = true;
    store_->FailCommits();
  });
  const auto refused = Edit(Grow());
  ASSERT_FALSE(refused.ok());
  EXPECT_THAT(refused.error().reason, HasSubstr("was not shrunk back yet: it runs"));
  store_->Heal();
  EXPECT_EQ(SizeOfRaw(), 48);
  Edits(options_).Finish(kEdited);
  EXPECT_TRUE(IsBegun());
  EXPECT_EQ(SizeOfRaw(), 48);
  runs = false;
  Edits(options_).Finish(kEdited);
  ExpectUnchanged();
}

TEST_F(GuardedEdit, UndoGrowth_FileOpen_KeepsSize) {
  bool is_open = false;
  Open(is_open);
  At("commit records", [&] {
    is_open = true;
    store_->ConflictCommits(1000);
  });
  EXPECT_EQ(Code(Grow()), 915);
  store_->Heal();
  Edits(options_).Finish(kEdited);
  EXPECT_EQ(Everything(*store_), records_);
  EXPECT_EQ(SizeOfRaw(), 48);
  EXPECT_TRUE(SyslogContains("A file was left unchanged: A VM process has the file"));
}

// Records that name the file.

TEST_F(GuardedEdit, UndoGrowth_FileNamedByNewRecord_KeepsSize) {
  options_.before_step = [&](std::string_view step) {
    if (step == "commit records") PutNewUser(environment_.PathOf(kDisk1));
  };
  EXPECT_EQ(Code(Grow()), 904) << "it begins again, and finds the other record";
  EXPECT_EQ(SizeOfRaw(), 48);
  EXPECT_FALSE(IsBegun());
  EXPECT_TRUE(SyslogContains("A file was left unchanged: Another record refers to the image"));
}

TEST_F(GuardedEdit, Grow_FileNamedByNewRecord_IsRefused) {
  At("commit doing", [&] { PutNewUser(environment_.PathOf(kDisk1)); });
  EXPECT_EQ(Code(Grow()), 904);
  EXPECT_EQ(environment_.Images(), images_);
  EXPECT_FALSE(IsBegun());
}

TEST_F(GuardedEdit, Undo_NewFileNamedByRecord_IsKept) {
  std::string path;
  At("commit records", [&] {
    for (const auto& [name, size] : environment_.Images()) {
      if (!images_.contains(name)) path = environment_.Folder() + "/" + name;
    }
    PutNewUser(path);
    store_->ConflictCommits(1000);
  });
  EXPECT_EQ(Code(R"({"vdisks_add":[{"vdisk_size":1}]})"), 915);
  store_->Heal();
  Edits(options_).Finish(kEdited);
  EXPECT_FALSE(IsBegun());
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_TRUE(SyslogContains("is kept: the record of another disk refers to it"));
}

TEST_F(GuardedEdit, Commit_FileNamedByNewRecord_IsKept) {
  At("commit records", [&] { PutNewUser(environment_.PathOf(kDisk1)); });
  EXPECT_EQ(Code(Remove()), 0);
  EXPECT_TRUE(RecordOf(*store_, "vdisk", kDisk1).isNull());
  EXPECT_EQ(environment_.Images(), images_);
}

TEST_F(GuardedEdit, Edit_ImageUsedByDriveOrLibrary_IsNeitherGrownNorRemoved) {
  const std::string path = environment_.PathOf(kDisk1);
  for (const auto& [category, record] : {std::pair<const char*, std::string>("image", R"({"path":")" + path + "\"}"),
                                         {"guest", R"({"iso_images":[")" + path + "\"]}"}}) {
    PutText(*store_, KeyOf(category, "other"), record);
    EXPECT_EQ(Code(Grow()), 904) << category;
    RemoveKey(*store_, KeyOf(category, "other"));
  }
  ExpectUnchanged();
  PutText(*store_, KeyOf("image", "other"), R"({"path":")" + path + "\"}");
  EXPECT_EQ(Code(Remove()), 0);
  EXPECT_EQ(environment_.Images(), images_);
}

TEST_F(GuardedEdit, Edit_RecordNamesFile_WritesFilesKey) {
  const auto revision = [&] {
    const auto snapshot = Require(store_->Read());
    const auto value = Require(snapshot->Get(records::FileReferencesGuardKey()));
    return value ? value->revision : store::Revision{0};
  };
  WriteFile(environment_.File("x.iso"));
  store::Revision last = revision();
  for (const std::string& edit : {R"({"iso_images":[")" + environment_.File("x.iso") + R"(","unmounted"]})",
                                  std::string(R"({"vdisks_add":[{"vdisk_size":1}]})"),
                                  std::string(R"({"iso_images":["unmounted","unmounted"]})")}) {
    EXPECT_EQ(Code(edit), 0) << edit;
    EXPECT_GT(revision(), last) << edit;
    last = revision();
  }
  for (const std::string& edit : {std::string(R"({"vcpu_num":4})"), Grow(), Remove()}) {
    EXPECT_EQ(Code(edit), 0) << edit;
    EXPECT_EQ(revision(), last) << edit;
  }
}

TEST_F(GuardedEdit, InsertImage_DiskOfAnyHost_IsRefused) {
  WriteFile(environment_.File("x.img"));
  PutText(*store_, KeyOf("repository", "far"), R"({"host_id":")" + std::string(kOtherHost) + "\"}");
  PutText(*store_, KeyOf("vdisk", "d"), R"({"repository_id":"far","path":")" + environment_.File("x.img") + "\"}");
  const std::string edit = R"({"iso_images":[")" + environment_.File("x.img") + R"("]})";
  EXPECT_EQ(Code(edit), 932);
  PutText(*store_, KeyOf("vdisk", "d"), R"({"path":"/elsewhere"})");
  PutText(*store_, KeyOf("guest", "g"), R"({"nvram":")" + environment_.File("x.img") + "\"}");
  EXPECT_EQ(Code(edit), 932);
  PutText(*store_, KeyOf("guest", "g"), R"({"iso_images":[")" + environment_.File("x.img") + "\"]}");
  EXPECT_EQ(Code(edit), 0) << "two guests may have the same image in their drives";
}

TEST_F(GuardedEdit, AddDisk_RawFormat_NamesFileRaw) {
  EXPECT_EQ(Code(R"({"vdisks_add":[{"vdisk_size":1,"format":"raw"},{"vdisk_size":1}]})"), 0);
  const auto records = RecordsOf(*store_);
  EXPECT_EQ(FileOf(records.disks[2].second), records.disks[2].first + ".raw");
  EXPECT_EQ(FileOf(records.disks[3].second), records.disks[3].first + ".qcow2");
  At("commit records", [&] { store_->FailCommits(); });
  const auto images = environment_.Images();
  EXPECT_EQ(Code(R"({"vdisks_add":[{"vdisk_size":1,"format":"raw"}]})"), 901);
  store_->Heal();
  options_.before_step = nullptr;
  Edits(options_).FinishAll();
  EXPECT_EQ(environment_.Images(), images);
}

TEST_F(GuardedEdit, Job_FilesAndHypervisor_AreNotQueriedInCommitOrSnapshot) {
  const auto watched = std::make_shared<WatchedStore>(store_);
  options_.store = watched;
  const auto quiet = [&](const char* where) { watched->ExpectQuiet(where); };
  int images = 0;
  int pins = 0;
  options_.file_calls.before_lookup = [&] { quiet("file"); };
  options_.check_not_running = [&](const std::string&) { return quiet("hypervisor"), Result<void, Refusal>(); };
  options_.has_file = [&](const std::string&) { return quiet("image"), ++images > 0; };
  options_.check_pins = [&](const records::Guest&) {
    return quiet("pins"), ++pins < 0 ? Result<void, Refusal>({1, ""}) : Result<void, Refusal>();
  };
  // What is planned the second time was not looked at before.
  watched->Conflict(2, [&, turn = 0]() mutable {
    Json::Value disk = RecordOf(*store_, "vdisk", kDisk0);
    disk["path"] = environment_.Folder() + "/moved-" + std::to_string(++turn);
    WriteFile(disk["path"].asString());
    PutRecord(*store_, KeyOf("vdisk", kDisk0), disk);
  });
  At("commit records", [&] {
    watched->Conflict(2);
    PutText(*store_, records::FileReferencesGuardKey(), "1");
  });
  EXPECT_EQ(Code(R"({"iso_images":["/x.iso"],"vdisks_add":[{"vdisk_size":1}],"vdisks_del":[{)" + Id(kDisk0) +
                 R"(}],"vdisks_edit":[{"vdisk_size":48,)" + Id(kDisk1) + "}]}"),
            0);
  EXPECT_GT(images, 0);
  EXPECT_GT(watched->asked(), 15);
  PutRun(*store_);
  watched->Conflict(2, [&, turn = 2]() mutable {
    Json::Value guest = RecordOf(*store_, "guest", kEdited);
    guest["vcpu_num"] = ++turn;
    PutRecord(*store_, KeyOf("guest", kEdited), guest);
  });
  EXPECT_EQ(Code(R"({"cpu_pin_num":1})"), 0);
  EXPECT_EQ(pins, 3);
}

}  // namespace
}  // namespace vexa::test
