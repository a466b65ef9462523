// What keeps a deletion from a file or a guest: machines, other hosts, and records that name the file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cerrno>
#include <functional>
#include <utility>

#include "host/guests/deletion/deletion.h"
#include "host/records/domain_record.h"
#include "host/records/guest_admin.h"
#include "host/records/run_record.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "tests/unit/guests/guest_deletion_ground.h"
#include "tests/unit/guests/job_steps.h"
#include "tests/unit/guests/watched_store.h"

namespace vexa::test {
namespace {

using guests::Deletion;
using guests::DeletionKey;
using guests::DeletionOptions;
using guests::Refusal;
using guests::Refused;
using testing::ElementsAre;
using testing::HasSubstr;

class GuardedDeletion : public testing::Test {
 protected:
  GuardedDeletion() : store_(ground_.OpenStore()), options_(ground_.Options(store_)) {
    PutBoth(ground_, *store_);
    Remember();
    ClearCapturedSyslog();
  }
  void Remember() {
    records_ = Everything(*store_);
    files_ = ground_.Files();
  }
  Refused Delete() { return Deletion(options_).Delete(kGuest, Alice()); }
  void At(std::string step, std::function<void()> act) {
    options_.before_step = OnceAt(std::move(step), std::move(act));
  }
  void ExpectRefused(int code, const std::string& words) {
    const Refused refused = Delete();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, code) << refused->reason;
    EXPECT_THAT(refused->reason, HasSubstr(words));
  }
  void ExpectAsBefore() {
    EXPECT_EQ(Everything(*store_), records_);
    EXPECT_EQ(ground_.Files(), files_);
  }
  void ExpectGone() {
    // The host's libvirt is to forget the guest as well.
    Texts left = Everything(*store_);
    EXPECT_EQ(left.erase(guests::UndefineKey(kThisHost, kGuest)), options_.refuse_active ? 1u : 0u);
    EXPECT_EQ(left, Without(records_, kGuest));
    EXPECT_EQ(ground_.Files(), Without(files_, kGuest));
  }
  // The guest's disk 1 is alone in its folder.
  std::string Path() const { return ground_.More(kGuest + std::string("-1.img")); }
  void ExpectLeft(const std::string& why) {
    EXPECT_TRUE(ground_.Files().contains(Path()));
    EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kGuest)));
    EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));
    EXPECT_TRUE(SyslogContains("the file [" + Path() + "] is left: " + why));
  }
  void PutOther(const std::string& category, const std::string& id, const std::string& record) {
    PutText(*store_, KeyOf(category, id), record);
  }
  // As importers and editors do.
  void PutNewUser(const std::string& path) {
    (void)Require(store_->Commit(
        {{},
         {{KeyOf("vdisk", "new"), R"({"guest_id":"new-guest","path":")" + path + "\"}"}, {guests::FilesKey(), "1"}}}));
  }
  // Has the disk's file, by its name or the hidden one, open in a machine.
  void Open(const std::string& name) {
    options_.file_calls.has_open = [name](int, const char* file, bool* has_open) {
      *has_open = std::string(file).ends_with(name);
      return 0;
    };
  }

  const DeletionGround ground_;
  const std::shared_ptr<FaultyStore> store_;
  DeletionOptions options_;
  Texts records_;
  Texts files_;
};

// Machines.

TEST_F(GuardedDeletion, OpenFile_Is910AndNamed) {
  Open("-1.img");
  ExpectRefused(910, "A machine has the file '" + Path() + "' open");
  ExpectAsBefore();
}

TEST_F(GuardedDeletion, HiddenFileThatAMachineHasOpen_StaysAndIsTriedAgain) {
  Open("-1");
  EXPECT_FALSE(Delete());
  EXPECT_TRUE(SyslogContains("could not be removed; this is tried again: A machine has the file"));
  EXPECT_THAT(Deletion(options_).Begun(), ElementsAre(kGuest));
  Deletion(options_).Finish(kGuest);
  EXPECT_THAT(Deletion(options_).Begun(), ElementsAre(kGuest));
  options_.file_calls = {};
  Deletion(options_).Finish(kGuest);
  EXPECT_THAT(Deletion(options_).Begun(), ElementsAre());
  ExpectGone();
}

TEST_F(GuardedDeletion, RemoveLeftovers_OpenFile_IsKeptAndOthersRemoved) {
  const std::string first = ground_.Image("one.img");
  const std::string second = ground_.Image("two.img");
  WriteFile(first);
  WriteFile(second);
  const std::string key = store::MakeKey({"leftover", kThisHost, "gone"});
  PutText(*store_, key, R"({"files":[")" + first + R"(",")" + second + "\"]}");
  Open("one.img");
  Deletion(options_).RemoveLeftovers();
  EXPECT_TRUE(ground_.Files().contains(first));
  EXPECT_FALSE(ground_.Files().contains(second));
  EXPECT_TRUE(TextOf(*store_, key));
  options_.file_calls = {};
  Deletion(options_).RemoveLeftovers();
  EXPECT_FALSE(ground_.Files().contains(first));
  EXPECT_FALSE(TextOf(*store_, key));
}

TEST_F(GuardedDeletion, Delete_GuestRunsInHypervisor_Is910BeforeWriting) {
  std::vector<std::string> steps;
  options_.before_step = [&](std::string_view step) { steps.emplace_back(step); };
  options_.refuse_active = [](const std::string& id) { return Refusal{910, "the hypervisor runs " + id}; };
  ExpectRefused(910, std::string("the hypervisor runs ") + kGuest);
  EXPECT_THAT(steps, ElementsAre());
  ExpectAsBefore();
}

TEST_F(GuardedDeletion, Job_GuestStartsAfterIntent_IsUndone) {
  int asked = 0;
  options_.refuse_active = [&](const std::string&) {
    return ++asked > 1 ? Refused(Refusal{asked == 2 ? 949 : 910, "not now"}) : std::nullopt;
  };
  ExpectRefused(949, "not now");
  EXPECT_EQ(asked, 2);
  ExpectAsBefore();
}

TEST_F(GuardedDeletion, ResumedWhileTheHypervisorCannotBeAsked_Waits) {
  At("sync hidden 0", [&] { store_->FailSnapshots(); });
  options_.file_calls.sync = [](int) { return EIO; };
  EXPECT_TRUE(Delete());
  store_->Heal();
  options_.before_step = nullptr;
  options_.file_calls = {};
  const auto begun = TextOf(*store_, DeletionKey(kGuest));
  ASSERT_TRUE(begun);
  const Texts hidden = ground_.Files();
  options_.refuse_active = [](const std::string&) { return Refusal{949, "cannot be asked"}; };
  for (int i = 0; i < 2; ++i) {
    Deletion(options_).Finish(kGuest);
    EXPECT_EQ(TextOf(*store_, DeletionKey(kGuest)), begun);
    EXPECT_EQ(ground_.Files(), hidden);
  }
  options_.refuse_active = [](const std::string&) { return Refused(); };
  Deletion(options_).Finish(kGuest);
  ExpectGone();
}

TEST_F(GuardedDeletion, ResumedWhileTheGuestRuns_IsUndone) {
  PutText(*store_, DeletionKey(kGuest),
          R"({"host_id":")" + std::string(kThisHost) + R"(","since":1,"stage":"hiding","files":[{"path":")" + Path() +
              R"(","hidden":".vexa-deleted-)" + kGuest + R"(-1"}]})");
  std::filesystem::rename(Path(), ground_.More(std::string(".vexa-deleted-") + kGuest + "-1"));
  options_.refuse_active = [](const std::string&) { return Refusal{910, "it runs"}; };
  Deletion(options_).FinishAll();
  ExpectAsBefore();
}

// Other hosts.

TEST_F(GuardedDeletion, RepositoryOfAHostThatIsAlive_Is901_BeforeAnythingIsWritten) {
  PutRepository(*store_, kOtherHost);
  Remember();
  std::vector<std::string> steps;
  options_.before_step = [&](std::string_view step) { steps.emplace_back(step); };
  options_.is_alive = [](const std::string& host_id) { return host_id == kOtherHost; };
  ExpectRefused(901, std::string("The guest's repository belongs to the host '") + kOtherHost + "', which is alive:");
  EXPECT_THAT(steps, ElementsAre());
  ExpectAsBefore();
}

TEST_F(GuardedDeletion, RepositoryHostThatComesBackMeanwhile_IsUndone) {
  PutRepository(*store_, kOtherHost);
  Remember();
  bool is_alive = false;
  options_.is_alive = [&](const std::string&) { return is_alive; };
  At("commit hiding", [&] { is_alive = true; });
  ExpectRefused(901, "which is alive");
  ExpectAsBefore();
  options_.before_step = nullptr;
  is_alive = false;
  EXPECT_FALSE(Delete());
}

TEST_F(GuardedDeletion, OwnRepository_IsNotAskedAbout) {
  options_.is_alive = [](const std::string&) { return true; };
  EXPECT_FALSE(Delete());
  ExpectGone();
}

// Records that name the file.

TEST_F(GuardedDeletion, ImageOfTheLibrary_IsLeft) {
  PutOther("image", "iso", R"({"name":"x","path":")" + Path() + "\"}");
  EXPECT_FALSE(Delete());
  ExpectLeft("an image record names it");
}

TEST_F(GuardedDeletion, ImageInADriveOfAnotherGuest_IsLeft) {
  PutOther("guest", "other", R"({"iso_images":["unmounted", ")" + Path() + R"("]})");
  EXPECT_FALSE(Delete());
  ExpectLeft("a drive of another guest has it");
}

TEST_F(GuardedDeletion, VariablesOfAnotherGuest_AreLeft) {
  PutOther("guest", "other", R"({"nvram" : ")" + Path() + R"("})");
  EXPECT_FALSE(Delete());
  ExpectLeft("another guest has its UEFI variables in it");
}

TEST_F(GuardedDeletion, RecordsWithEscapes_AreUnderstood) {
  std::string escaped = Path();
  escaped.replace(0, 1, "\\u002f");
  PutOther("guest", "other", R"({"iso_images":["a\"b", ")" + escaped + R"("]})");
  EXPECT_FALSE(Delete());
  ExpectLeft("a drive of another guest has it");
}

// Equal paths on different hosts are different files.
TEST_F(GuardedDeletion, RecordsOfOtherHosts_NameOtherFiles) {
  PutOther("repository", "far", R"({"host_id":")" + std::string(kOtherHost) + "\"}");
  const std::string far = R"("host_id":")" + std::string(kOtherHost) + R"(","repository_id":"far")";
  PutOther("vdisk", "d", R"({"repository_id":"far","path":")" + Path() + "\"}");
  PutOther("guest", "g", "{" + far + R"(,"nvram":")" + Path() + R"(","iso_images":[")" + Path() + "\"]}");
  PutOther("image", "i", "{" + far + R"(,"path":")" + Path() + "\"}");
  Remember();
  EXPECT_FALSE(Delete());
  ExpectGone();
}

TEST_F(GuardedDeletion, RecordsThatMayBeOfThisHost_NameTheFile) {
  PutOther("repository", "far", R"({"host_id":")" + std::string(kOtherHost) + "\"}");
  const std::string path = R"("path":")" + Path() + "\"}";
  const std::string drive = R"("iso_images":[")" + Path() + "\"]}";
  const std::pair<const char*, std::string> rows[] = {
      {"vdisk", "{" + path},
      {"vdisk", R"({"repository_id":"unknown",)" + path},
      {"vdisk", R"({"repository_id":"repository",)" + path},
      {"guest", R"({"repository_id":"far",)" + drive},
      {"guest", R"({"repository_id":"far","host_id":")" + std::string(kThisHost) + "\"," + drive},
      {"guest", R"({"repository_id":"repository","host_id":")" + std::string(kOtherHost) + "\"," + drive},
      {"image", R"({"host_id":")" + std::string(kThisHost) + "\"," + path},
  };
  for (const auto& [category, record] : rows) {
    SCOPED_TRACE(record);
    PutOther(category, "other", record);
    PutGuest(*store_, kGuest, {Path()});
    EXPECT_FALSE(Delete());
    EXPECT_TRUE(ground_.Files().contains(Path()));
    RemoveKey(*store_, KeyOf(category, "other"));
  }
}

// A second guest that is imported onto the file between the search and the commit.
TEST_F(GuardedDeletion, Commit_FileNamedByNewRecord_IsKept) {
  At("commit records", [&] { PutNewUser(Path()); });
  EXPECT_FALSE(Delete());
  ExpectLeft("another disk's record names it");
}

TEST_F(GuardedDeletion, Deletion_HiddenFileNamedByOtherPath_IsKept) {
  std::filesystem::create_directory_symlink(ground_.More(""), ground_.folder().File("alias"));
  At("commit records", [&] { PutNewUser(ground_.folder().File("alias/") + kGuest + "-1.img"); });
  EXPECT_FALSE(Delete());
  ExpectLeft("another disk's record names it");
}

// Also by a guest that has the id of the deleted one by now.
TEST_F(GuardedDeletion, LeftoverThatARecordNames_IsLeft) {
  const std::string iso = ground_.Image("x.iso");
  WriteFile(iso);
  Remember();
  PutOther("image", "iso", R"({"path":")" + iso + "\"}");
  PutText(*store_, store::MakeKey({"leftover", kThisHost, kGuest}), R"({"files":[")" + iso + "\"]}");
  PutText(*store_, store::MakeKey({"leftover", kThisHost, "other"}),
          R"({"files":[")" + ground_.Image(std::string("a/") + kGuest + "-0.img") + "\"]}");
  Deletion(options_).RemoveLeftovers();
  EXPECT_EQ(ground_.Files(), files_);
  EXPECT_TRUE(SyslogContains("is left: an image record names it"));
  EXPECT_TRUE(SyslogContains("is left: another disk's record names it"));
}

TEST_F(GuardedDeletion, RecordsThatKeepNamingOtherFiles_Is915_AndUndone) {
  options_.before_step = [&](std::string_view step) {
    if (step == "commit records") PutText(*store_, guests::FilesKey(), "1");
  };
  PutText(*store_, guests::FilesKey(), "1");
  Remember();
  ExpectRefused(915, "Other records keep naming files");
  ExpectAsBefore();
}

// What goes with a guest.

TEST_F(GuardedDeletion, Variables_GoWithTheGuest) {
  const std::string path = ground_.More("variables.fd");
  WriteFile(path);
  WriteFile(ground_.Outside("variables.fd"));
  Remember();
  Json::Value guest = Parsed(*TextOf(*store_, KeyOf("guest", kGuest)));
  guest["nvram"] = path;
  PutRecord(*store_, KeyOf("guest", kGuest), guest);
  std::string begun;
  At("hide 3", [&] { begun = TextOf(*store_, DeletionKey(kGuest)).value_or(""); });
  EXPECT_FALSE(Delete());
  EXPECT_THAT(begun, HasSubstr(path));
  EXPECT_FALSE(ground_.Files().contains(path));
  files_.erase(path);
  ExpectGone();
  guest["nvram"] = ground_.Outside("variables.fd");
  guest["vdisks"] = Json::Value(Json::arrayValue);
  PutRecord(*store_, KeyOf("guest", kGuest), guest);
  EXPECT_FALSE(Delete());
  EXPECT_TRUE(ground_.Files().contains(ground_.Outside("variables.fd")));
  EXPECT_TRUE(SyslogContains("it lies outside of the folders of images"));
}

TEST_F(GuardedDeletion, Grants_GoInTheSameCommit) {
  const auto key = [](const char* identifier) { return cluster::GuestAdminKey(identifier); };
  PutText(*store_, key("users-1"), R"({"authlevel":"user","guests":{")" + std::string(kGuest) + R"(":true,"b":true}})");
  PutText(*store_, key("users-2"), "damaged");
  const auto granted = TextOf(*store_, key("users-1"));
  std::optional<std::string> before;
  std::optional<std::string> after;
  options_.before_step = [&](std::string_view step) {
    if (step == "commit records") before = TextOf(*store_, key("users-1"));
    if (step == "remove 0") after = TextOf(*store_, key("users-1"));
  };
  EXPECT_FALSE(Delete());
  EXPECT_EQ(before, granted);
  EXPECT_EQ(after, R"({"authlevel":"user","guests":{"b":true}})");
  EXPECT_EQ(TextOf(*store_, key("users-2")), "damaged");
  EXPECT_TRUE(SyslogContains("grants may be left: The record"));
}

TEST_F(GuardedDeletion, FinishAll_GuestRecordGone_RemovesGrants) {
  PutText(*store_, cluster::GuestAdminKey("users-1"), R"({"guests":{")" + std::string(kGuest) + R"(":true}})");
  PutText(*store_, DeletionKey(kGuest),
          R"({"host_id":")" + std::string(kThisHost) + R"(","since":1,"stage":"hiding","files":[]})");
  RemoveKey(*store_, KeyOf("guest", kGuest));
  Deletion(options_).FinishAll();
  EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));
  EXPECT_EQ(TextOf(*store_, cluster::GuestAdminKey("users-1")), R"({"guests":{}})");
}

TEST_F(GuardedDeletion, Job_FilesAndHypervisor_AreNotQueriedInCommitOrSnapshot) {
  const auto watched = std::make_shared<WatchedStore>(store_);
  options_.store = watched;
  const auto quiet = [&](const char* where) { watched->ExpectQuiet(where); };
  options_.file_calls.before_lookup = [&] { quiet("file"); };
  options_.refuse_active = [&](const std::string&) { return quiet("hypervisor"), Refused(); };
  options_.is_alive = [&](const std::string&) { return quiet("host"), false; };
  // What is planned the second time was not looked at before.
  watched->Conflict(2, [&, turn = 0]() mutable {
    const std::string path = ground_.Image("moved-" + std::to_string(++turn));
    WriteFile(path);
    PutDisk(*store_, DiskId(kGuest, 0), kGuest, path);
  });
  At("commit records", [&] {
    watched->Conflict(2);
    PutText(*store_, guests::FilesKey(), "1");
  });
  EXPECT_FALSE(Delete());
  EXPECT_GT(watched->asked(), 12);
  EXPECT_FALSE(ground_.Files().contains(ground_.Image("moved-2")));
  PutRepository(*store_, kOtherHost);
  PutGuest(*store_, kGuest, {Path()});
  watched->Conflict(2);
  EXPECT_FALSE(Delete());
}

}  // namespace
}  // namespace vexa::test
