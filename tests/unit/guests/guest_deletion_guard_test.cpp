// What prevents a deletion of a file or guest: running domains, other hosts, and records that name the file.
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
#include "tests/unit/guests/guest_deletion_fixture.h"
#include "tests/unit/guests/job_steps.h"
#include "tests/unit/guests/watched_store.h"

namespace vexa::test {
namespace {

class GuardedDeletion : public DeletionTest {
 protected:
  void At(std::string step, std::function<void()> act) {
    options_.before_step = OnceAt(std::move(step), std::move(act));
  }
  void ExpectRefused(int code, const std::string& words) {
    const auto refused = Delete();
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code, code) << refused.error().reason;
    EXPECT_THAT(refused.error().reason, HasSubstr(words));
  }
  void ExpectGone() {
    // The host's libvirt is to forget the guest as well.
    Texts left = Everything(*store_);
    EXPECT_EQ(left.erase(records::UndefineKey(kThisHost, kGuest)), options_.check_not_running ? 1u : 0u);
    EXPECT_EQ(left, Without(records_, kGuest));
    EXPECT_EQ(environment_.Files(), Without(files_, kGuest));
  }
  // The guest's disk 1 is alone in its folder.
  std::string Path() const { return environment_.More(kGuest + std::string("-1.img")); }
  void ExpectLeft(const std::string& why) {
    EXPECT_TRUE(environment_.Files().contains(Path()));
    EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kGuest)));
    EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));
    EXPECT_TRUE(SyslogContains("the file [" + Path() + "] is kept: " + why));
  }
  void PutOther(const std::string& category, const std::string& id, const std::string& record) {
    PutText(*store_, KeyOf(category, id), record);
  }
  // As importers and editors do.
  void PutNewUser(const std::string& path) {
    (void)Require(store_->Commit({{},
                                  {{KeyOf("vdisk", "new"), R"({"guest_id":"new-guest","path":")" + path + "\"}"},
                                   {records::FileReferencesGuardKey(), "1"}}}));
  }
  // Has the disk's file, by its name or the hidden one, open in a machine.
  void Open(const std::string& name) {
    options_.file_calls.is_open_in_vm = [name](int, const char* file, bool* is_open_in_vm) {
      *is_open_in_vm = std::string(file).ends_with(name);
      return 0;
    };
  }
};

// Machines.

TEST_F(GuardedDeletion, Delete_FileOpen_Is910AndNamesFile) {
  Open("-1.img");
  ExpectRefused(910, "A VM process has the file '" + Path() + "' open");
  ExpectUnchanged();
}

TEST_F(GuardedDeletion, Purge_HiddenFileOpen_IsKeptAndRetried) {
  Open("-1");
  EXPECT_TRUE(Delete().ok());
  EXPECT_TRUE(SyslogContains("could not be removed; this is retried: A VM process has the file"));
  EXPECT_THAT(Deletion(options_).Unfinished(), ElementsAre(kGuest));
  Deletion(options_).Finish(kGuest);
  EXPECT_THAT(Deletion(options_).Unfinished(), ElementsAre(kGuest));
  options_.file_calls = {};
  Deletion(options_).Finish(kGuest);
  EXPECT_THAT(Deletion(options_).Unfinished(), ElementsAre());
  ExpectGone();
}

TEST_F(GuardedDeletion, RemoveLeftovers_OpenFile_IsKeptAndOthersRemoved) {
  const std::string first = environment_.Image("one.img");
  const std::string second = environment_.Image("two.img");
  WriteFile(first);
  WriteFile(second);
  const std::string key = store::MakeKey({"leftover", kThisHost, "gone"});
  PutText(*store_, key, R"({"files":[")" + first + R"(",")" + second + "\"]}");
  Open("one.img");
  Deletion(options_).RemoveLeftovers();
  EXPECT_TRUE(environment_.Files().contains(first));
  EXPECT_FALSE(environment_.Files().contains(second));
  EXPECT_TRUE(TextOf(*store_, key));
  options_.file_calls = {};
  Deletion(options_).RemoveLeftovers();
  EXPECT_FALSE(environment_.Files().contains(first));
  EXPECT_FALSE(TextOf(*store_, key));
}

TEST_F(GuardedDeletion, Delete_GuestRunsInHypervisor_Is910BeforeWriting) {
  std::vector<std::string> steps;
  options_.before_step = [&](std::string_view step) { steps.emplace_back(step); };
  options_.check_not_running = [](const std::string& id) { return Refusal{910, "the hypervisor runs " + id}; };
  ExpectRefused(910, std::string("the hypervisor runs ") + kGuest);
  EXPECT_THAT(steps, ElementsAre());
  ExpectUnchanged();
}

TEST_F(GuardedDeletion, Job_GuestStartsAfterIntent_IsUndone) {
  int asked = 0;
  options_.check_not_running = [&](const std::string&) {
    return ++asked > 1 ? Result<void, Refusal>(Refusal{asked == 2 ? 949 : 910, "not now"}) : Result<void, Refusal>();
  };
  ExpectRefused(949, "not now");
  EXPECT_EQ(asked, 2);
  ExpectUnchanged();
}

TEST_F(GuardedDeletion, Resume_HypervisorUnreachable_Waits) {
  At("sync hidden 0", [&] { store_->FailSnapshots(); });
  options_.file_calls.sync = [](int) { return EIO; };
  EXPECT_FALSE(Delete().ok());
  store_->Heal();
  options_.before_step = nullptr;
  options_.file_calls = {};
  const auto begun = TextOf(*store_, DeletionKey(kGuest));
  ASSERT_TRUE(begun);
  const Texts hidden = environment_.Files();
  options_.check_not_running = [](const std::string&) { return Refusal{949, "cannot be asked"}; };
  for (int i = 0; i < 2; ++i) {
    Deletion(options_).Finish(kGuest);
    EXPECT_EQ(TextOf(*store_, DeletionKey(kGuest)), begun);
    EXPECT_EQ(environment_.Files(), hidden);
  }
  options_.check_not_running = [](const std::string&) { return Result<void, Refusal>(); };
  Deletion(options_).Finish(kGuest);
  ExpectGone();
}

TEST_F(GuardedDeletion, Resume_GuestRunning_IsUndone) {
  PutText(*store_, DeletionKey(kGuest),
          R"({"host_id":")" + std::string(kThisHost) + R"(","since":1,"stage":"hiding","files":[{"path":")" + Path() +
              R"(","hidden":".vexa-deleted-)" + kGuest + R"(-1"}]})");
  std::filesystem::rename(Path(), environment_.More(std::string(".vexa-deleted-") + kGuest + "-1"));
  options_.check_not_running = [](const std::string&) { return Refusal{910, "it runs"}; };
  Deletion(options_).FinishAll();
  ExpectUnchanged();
}

// Other hosts.

TEST_F(GuardedDeletion, Delete_RepositoryHostAlive_Is901BeforeWriting) {
  PutRepository(*store_, kOtherHost);
  Remember();
  std::vector<std::string> steps;
  options_.before_step = [&](std::string_view step) { steps.emplace_back(step); };
  options_.is_alive = [](const std::string& host_id) { return host_id == kOtherHost; };
  ExpectRefused(901, std::string("The guest's repository belongs to the host '") + kOtherHost + "', which is alive.");
  EXPECT_THAT(steps, ElementsAre());
  ExpectUnchanged();
}

TEST_F(GuardedDeletion, Delete_RepositoryHostReturnsMeanwhile_IsUndone) {
  PutRepository(*store_, kOtherHost);
  Remember();
  bool is_alive = false;
  options_.is_alive = [&](const std::string&) { return is_alive; };
  At("commit hiding", [&] { is_alive = true; });
  ExpectRefused(901, "which is alive");
  ExpectUnchanged();
  options_.before_step = nullptr;
  is_alive = false;
  EXPECT_TRUE(Delete().ok());
}

TEST_F(GuardedDeletion, Delete_OwnRepository_MakesNoHostCheck) {
  options_.is_alive = [](const std::string&) { return true; };
  EXPECT_TRUE(Delete().ok());
  ExpectGone();
}

// Records that name the file.

TEST_F(GuardedDeletion, Delete_DiskIsRegisteredImage_KeepsFile) {
  PutOther("image", "iso", R"({"name":"x","path":")" + Path() + "\"}");
  EXPECT_TRUE(Delete().ok());
  ExpectLeft("an image record refers to it");
}

TEST_F(GuardedDeletion, Delete_DiskInOtherGuestsDrive_KeepsFile) {
  PutOther("guest", "other", R"({"iso_images":["unmounted", ")" + Path() + R"("]})");
  EXPECT_TRUE(Delete().ok());
  ExpectLeft("it is in a CD-ROM drive of another guest");
}

TEST_F(GuardedDeletion, Delete_DiskIsOtherGuestsNvram_KeepsFile) {
  PutOther("guest", "other", R"({"nvram" : ")" + Path() + R"("})");
  EXPECT_TRUE(Delete().ok());
  ExpectLeft("it holds the UEFI variables of another guest");
}

TEST_F(GuardedDeletion, Delete_RecordsWithEscapes_AreUnderstood) {
  std::string escaped = Path();
  escaped.replace(0, 1, "\\u002f");
  PutOther("guest", "other", R"({"iso_images":["a\"b", ")" + escaped + R"("]})");
  EXPECT_TRUE(Delete().ok());
  ExpectLeft("it is in a CD-ROM drive of another guest");
}

// Equal paths on different hosts are different files.
TEST_F(GuardedDeletion, Delete_RecordOfOtherHost_NamesOtherFile) {
  PutOther("repository", "far", R"({"host_id":")" + std::string(kOtherHost) + "\"}");
  const std::string far = R"("host_id":")" + std::string(kOtherHost) + R"(","repository_id":"far")";
  PutOther("vdisk", "d", R"({"repository_id":"far","path":")" + Path() + "\"}");
  PutOther("guest", "g", "{" + far + R"(,"nvram":")" + Path() + R"(","iso_images":[")" + Path() + "\"]}");
  PutOther("image", "i", "{" + far + R"(,"path":")" + Path() + "\"}");
  Remember();
  EXPECT_TRUE(Delete().ok());
  ExpectGone();
}

TEST_F(GuardedDeletion, Delete_FileReferencedByRecordOfThisOrUnknownHost_IsKept) {
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
    EXPECT_TRUE(Delete().ok());
    EXPECT_TRUE(environment_.Files().contains(Path()));
    RemoveKey(*store_, KeyOf(category, "other"));
  }
}

// A second guest that is imported onto the file between the search and the commit.
TEST_F(GuardedDeletion, Commit_FileNamedByNewRecord_IsKept) {
  At("commit records", [&] { PutNewUser(Path()); });
  EXPECT_TRUE(Delete().ok());
  ExpectLeft("the record of another disk refers to it");
}

TEST_F(GuardedDeletion, Deletion_HiddenFileNamedByOtherPath_IsKept) {
  std::filesystem::create_directory_symlink(environment_.More(""), environment_.folder().File("alias"));
  At("commit records", [&] { PutNewUser(environment_.folder().File("alias/") + kGuest + "-1.img"); });
  EXPECT_TRUE(Delete().ok());
  ExpectLeft("the record of another disk refers to it");
}

// Also by a guest that has the id of the deleted one by now.
TEST_F(GuardedDeletion, RemoveLeftovers_FileNamedByRecord_IsKept) {
  const std::string iso = environment_.Image("x.iso");
  WriteFile(iso);
  Remember();
  PutOther("image", "iso", R"({"path":")" + iso + "\"}");
  PutText(*store_, store::MakeKey({"leftover", kThisHost, kGuest}), R"({"files":[")" + iso + "\"]}");
  PutText(*store_, store::MakeKey({"leftover", kThisHost, "other"}),
          R"({"files":[")" + environment_.Image(std::string("a/") + kGuest + "-0.img") + "\"]}");
  Deletion(options_).RemoveLeftovers();
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_TRUE(SyslogContains("is kept: an image record refers to it"));
  EXPECT_TRUE(SyslogContains("is kept: the record of another disk refers to it"));
}

TEST_F(GuardedDeletion, Delete_RecordsKeepNamingFiles_Is915AndUndone) {
  options_.before_step = [&](std::string_view step) {
    if (step == "commit records") PutText(*store_, records::FileReferencesGuardKey(), "1");
  };
  PutText(*store_, records::FileReferencesGuardKey(), "1");
  Remember();
  ExpectRefused(915, "Other records keep changing the files that they refer to");
  ExpectUnchanged();
}

// What goes with a guest.

TEST_F(GuardedDeletion, Delete_GuestWithNvram_RemovesIt) {
  const std::string path = environment_.More("variables.fd");
  WriteFile(path);
  WriteFile(environment_.Outside("variables.fd"));
  Remember();
  Json::Value guest = Parsed(*TextOf(*store_, KeyOf("guest", kGuest)));
  guest["nvram"] = path;
  PutRecord(*store_, KeyOf("guest", kGuest), guest);
  std::string begun;
  At("hide 3", [&] { begun = TextOf(*store_, DeletionKey(kGuest)).value_or(""); });
  EXPECT_TRUE(Delete().ok());
  EXPECT_THAT(begun, HasSubstr(path));
  EXPECT_FALSE(environment_.Files().contains(path));
  files_.erase(path);
  ExpectGone();
  guest["nvram"] = environment_.Outside("variables.fd");
  guest["vdisks"] = Json::Value(Json::arrayValue);
  PutRecord(*store_, KeyOf("guest", kGuest), guest);
  EXPECT_TRUE(Delete().ok());
  EXPECT_TRUE(environment_.Files().contains(environment_.Outside("variables.fd")));
  EXPECT_TRUE(SyslogContains("it is outside the image folders"));
}

TEST_F(GuardedDeletion, Delete_GuestWithGrants_RemovesThemInSameCommit) {
  const auto key = [](const char* identifier) { return records::GuestAdminKey(identifier); };
  PutText(*store_, key("users-1"), R"({"authlevel":"user","guests":{")" + std::string(kGuest) + R"(":true,"b":true}})");
  PutText(*store_, key("users-2"), "damaged");
  const auto granted = TextOf(*store_, key("users-1"));
  std::optional<std::string> before;
  std::optional<std::string> after;
  options_.before_step = [&](std::string_view step) {
    if (step == "commit records") before = TextOf(*store_, key("users-1"));
    if (step == "remove 0") after = TextOf(*store_, key("users-1"));
  };
  EXPECT_TRUE(Delete().ok());
  EXPECT_EQ(before, granted);
  EXPECT_EQ(after, R"({"authlevel":"user","guests":{"b":true}})");
  EXPECT_EQ(TextOf(*store_, key("users-2")), "damaged");
  EXPECT_TRUE(SyslogContains("grants may remain: The record"));
}

TEST_F(GuardedDeletion, FinishAll_GuestRecordGone_RemovesGrants) {
  PutText(*store_, records::GuestAdminKey("users-1"), R"({"guests":{")" + std::string(kGuest) + R"(":true}})");
  PutText(*store_, DeletionKey(kGuest),
          R"({"host_id":")" + std::string(kThisHost) + R"(","since":1,"stage":"hiding","files":[]})");
  RemoveKey(*store_, KeyOf("guest", kGuest));
  Deletion(options_).FinishAll();
  EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));
  EXPECT_EQ(TextOf(*store_, records::GuestAdminKey("users-1")), R"({"guests":{}})");
}

TEST_F(GuardedDeletion, Job_FilesAndHypervisor_AreNotQueriedInCommitOrSnapshot) {
  const auto watched = std::make_shared<WatchedStore>(store_);
  options_.store = watched;
  const auto quiet = [&](const char* where) { watched->ExpectQuiet(where); };
  options_.file_calls.before_lookup = [&] { quiet("file"); };
  options_.check_not_running = [&](const std::string&) { return quiet("hypervisor"), Result<void, Refusal>(); };
  options_.is_alive = [&](const std::string&) { return quiet("host"), false; };
  // What is planned the second time was not looked at before.
  watched->Conflict(2, [&, turn = 0]() mutable {
    const std::string path = environment_.Image("moved-" + std::to_string(++turn));
    WriteFile(path);
    PutDisk(*store_, DiskId(kGuest, 0), kGuest, path);
  });
  At("commit records", [&] {
    watched->Conflict(2);
    PutText(*store_, records::FileReferencesGuardKey(), "1");
  });
  EXPECT_TRUE(Delete().ok());
  EXPECT_GT(watched->asked(), 12);
  EXPECT_FALSE(environment_.Files().contains(environment_.Image("moved-2")));
  PutRepository(*store_, kOtherHost);
  PutGuest(*store_, kGuest, {Path()});
  watched->Conflict(2);
  EXPECT_TRUE(Delete().ok());
}

}  // namespace
}  // namespace vexa::test
