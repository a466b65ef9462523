#include "host/guests/deletion/deletion.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>

#include <algorithm>
#include <set>

#include "host/guests/jobs/guest_locks.h"
#include "host/records/run_record.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_deletion_environment.h"

namespace vexa::test {
namespace {

class GuestDeletion : public testing::Test {
 protected:
  GuestDeletion() : store_(environment_.OpenStore()) { ClearCapturedSyslog(); }

  Result<void, Refusal> Delete(const std::string& id = kGuest) {
    return Deletion(environment_.Options(store_)).Delete(id, Alice());
  }

  void ExpectRefused(int code, const std::string& words) {
    const Texts records = Everything(*store_);
    const Texts files = environment_.Files();
    const auto refused = Delete();
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code, code) << refused.error().reason;
    EXPECT_THAT(refused.error().reason, HasSubstr(words));
    EXPECT_EQ(Everything(*store_), records);
    EXPECT_EQ(environment_.Files(), files);
  }

  // Deletes a guest whose only disk is at `path`, which is left, with a line that says why.
  void ExpectLeft(const Json::Value& path, const std::string& why) {
    PutGuest(*store_, kGuest, {"x"});
    PutDisk(*store_, DiskId(kGuest, 0), kGuest, path);
    const Texts files = environment_.Files();
    ClearCapturedSyslog();
    const auto refused = Delete();
    ASSERT_TRUE(refused.ok()) << refused.error().reason;
    EXPECT_EQ(environment_.Files(), files);
    EXPECT_EQ(Warnings(), std::vector<std::string>{"Deleted guest[" + std::string(kGuest) + "]: " + why + "."});
    EXPECT_EQ(Everything(*store_), Without(Everything(*store_), kGuest));
  }

  static std::vector<std::string> Warnings() {
    std::vector<std::string> texts;
    for (const SyslogLine& line : CapturedSyslog()) {
      if (line.level() == LOG_WARNING) texts.push_back(line.text);
      EXPECT_NE(line.level(), LOG_ERR) << line.text;
    }
    return texts;
  }

  const DeletionEnvironment environment_;
  const std::shared_ptr<FaultyStore> store_;
};

TEST_F(GuestDeletion, Delete_Guest_RemovesOnlyItsRecordsAndFiles) {
  PutBoth(environment_, *store_);
  const Texts records = Without(Everything(*store_), kGuest);
  const Texts files = Without(environment_.Files(), kGuest);
  ASSERT_EQ(files.size() + 3, environment_.Files().size());
  EXPECT_TRUE(Delete().ok());
  EXPECT_EQ(Everything(*store_), records);
  EXPECT_EQ(environment_.Files(), files);
  EXPECT_THAT(Warnings(), testing::IsEmpty());
}

// A plan and its refusal are of one state, and nothing is pinned while a commit waits.
TEST_F(GuestDeletion, Delete_DoneOrRefused_NeverHasTwoSnapshotsOpenNorOneAtACommit) {
  PutBoth(environment_, *store_);
  records::Run run;
  run.host_id = "host-2";
  ASSERT_TRUE(store_->Commit({{}, {{records::RunKey(kGuest), records::SerializeRun(run)}}}));
  (void)store_->TakeSnapshotUse();
  EXPECT_FALSE(Delete().ok());
  SnapshotUse use = store_->TakeSnapshotUse();
  EXPECT_EQ(use, (SnapshotUse{1, 0, 0}));
  ASSERT_TRUE(store_->Commit({{}, {{records::RunKey(kGuest), std::nullopt}}}));
  EXPECT_TRUE(Delete().ok());
  use = store_->TakeSnapshotUse();
  EXPECT_GT(use.taken, 0);
  use.taken = 0;
  EXPECT_EQ(use, SnapshotUse());
}

TEST_F(GuestDeletion, Steps_Names_AreUniqueAndInDocumentedOrder) {
  PutBoth(environment_, *store_);
  std::vector<std::string> steps;
  guests::DeletionOptions options = environment_.Options(store_);
  options.before_step = [&](std::string_view step) { steps.emplace_back(step); };
  EXPECT_TRUE(Deletion(options).Delete(kGuest, Alice()).ok());
  EXPECT_THAT(steps, testing::ElementsAre("commit hiding", "hide 0", "hide 1", "hide 2", "sync hidden 0",
                                          "sync hidden 1", "commit records", "remove 0", "remove 1", "remove 2",
                                          "sync removed 0", "sync removed 1", "commit end"));
}

TEST_F(GuestDeletion, DeletionRecord_ContainsUserTimeAndFiles) {
  PutBoth(environment_, *store_);
  guests::DeletionOptions options = environment_.Options(store_);
  options.now = [] { return std::chrono::system_clock::time_point(std::chrono::milliseconds(1'700'000'000'900)); };
  std::map<std::string, std::string> records;
  options.before_step = [&](std::string_view step) {
    records[std::string(step)] = TextOf(*store_, DeletionKey(kGuest)).value_or("none");
  };
  EXPECT_TRUE(Deletion(options).Delete(kGuest, Alice()).ok());
  const std::string path = environment_.Image(std::string("a/") + kGuest + "-0.img");
  EXPECT_EQ(records["commit hiding"], "none");
  EXPECT_THAT(records["hide 0"],
              HasSubstr(R"("host_id":"11111111-1111-4111-8111-111111111111","repository_id":"repository",)"
                        R"("request_id":"request-1","since":1700000000,"stage":"hiding","storage":{)"));
  EXPECT_THAT(records["hide 0"], HasSubstr(R"(/images/":"ino=)"));
  EXPECT_THAT(records["hide 0"], HasSubstr(R"("user":"alice")"));
  EXPECT_THAT(records["hide 0"],
              HasSubstr(R"({"hidden":".vexa-deleted-)" + std::string(kGuest) + R"(-0","path":")" + path + R"("})"));
  EXPECT_EQ(records["commit records"], records["hide 0"]);
  EXPECT_THAT(records["remove 0"], HasSubstr(R"("stage":"purging")"));
  EXPECT_EQ(records["commit end"], records["remove 0"]);
}

TEST_F(GuestDeletion, Delete_NoRecord_Is403) {
  ExpectRefused(host_error::kNotFoundOrUnreadable, "There is no such guest");
}

TEST_F(GuestDeletion, Delete_InvalidId_Is403) {
  for (const std::string& id : {std::string(), std::string("../x"), std::string("\0x", 2), std::string(600, 'x')}) {
    const auto refused = Delete(id);
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code, host_error::kNotFoundOrUnreadable);
  }
}

TEST_F(GuestDeletion, Delete_DamagedRecord_Is403) {
  for (const char* text : {"[]", "\"x\"", "{", "", "null"}) {
    PutText(*store_, KeyOf("guest", kGuest), text);
    ExpectRefused(host_error::kNotFoundOrUnreadable, "is not a JSON object");
  }
}

TEST_F(GuestDeletion, Delete_GuestHeldByHost_Is910AndNamesHost) {
  PutBoth(environment_, *store_);
  PutText(*store_, RunKey(kGuest), R"({"host_id":"some host"})");
  ExpectRefused(host_error::kAlreadyRunning, "The guest may be running on the host 'some host'");
  PutText(*store_, RunKey(kGuest), "damaged");
  ExpectRefused(
      host_error::kAlreadyRunning,
      "The run record of the guest is damaged, so a host may still be running it. Restore the store from a backup");
}

TEST_F(GuestDeletion, Delete_AlreadyInProgress_Is915WithUserAndTime) {
  PutBoth(environment_, *store_);
  PutText(*store_, DeletionKey(kGuest),
          R"({"host_id":"far","user":"bob","request_id":"","since":1700000000,"stage":"hiding","files":[]})");
  ExpectRefused(host_error::kBusy, "The guest is being deleted (started by 'bob' at 2023-11-14T22:13:20Z)");
  PutText(*store_, DeletionKey(kGuest), R"({"host_id":"far\n","since":1e300,"stage":"purging","files":[]})");
  ExpectRefused(host_error::kBusy, "The guest is being deleted (started by the host 'far ' at 1970-01-01T00:00:00Z)");
  PutText(*store_, DeletionKey(kGuest), "damaged");
  ExpectRefused(host_error::kBusy, "The guest is being deleted, but the record of the deletion is damaged");
}

TEST_F(GuestDeletion, FindCurrentJob_DeletionInProgress_HasRefusalSentence) {
  EXPECT_TRUE(guests::CheckNoUnfinishedJob(*store_, kGuest).ok());
  PutText(*store_, DeletionKey(kGuest), R"({"host_id":"far","user":"bob","since":1,"stage":"hiding","files":[]})");
  const auto refused = guests::CheckNoUnfinishedJob(*store_, kGuest);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, host_error::kBusy);
  EXPECT_EQ(refused.error().reason, "The guest is being deleted (started by 'bob' at 1970-01-01T00:00:01Z)");
  store_->FailSnapshots();
  EXPECT_EQ(guests::CheckNoUnfinishedJob(*store_, kGuest).error().code, host_error::kFailed);
}

TEST_F(GuestDeletion, Delete_FileOutsideRoots_IsKept) {
  WriteFile(environment_.Outside("x.img"));
  ExpectLeft(environment_.Outside("x.img"),
             "the file [" + environment_.Outside("x.img") + "] is kept: it is outside the image folders");
  const std::string beside = environment_.folder().File("images-2");
  ExpectLeft(beside, "the file [" + beside + "] is kept: it is outside the image folders");
}

TEST_F(GuestDeletion, Delete_PathWithDotDot_IsKept) {
  WriteFile(environment_.Outside("x.img"));
  const std::string path = environment_.Image("../outside/x.img");
  ExpectLeft(path, "the file [" + path + "] is kept: the path is not a valid absolute path");
}

TEST_F(GuestDeletion, Delete_SymbolicLinkAnywhereInPath_IsKept) {
  WriteFile(environment_.Outside("x.img"));
  WriteFile(environment_.Image("real/x.img"));
  std::filesystem::create_symlink(environment_.Outside("x.img"), environment_.Image("link.img"));
  std::filesystem::create_directory_symlink(environment_.Outside(""), environment_.Image("out"));
  std::filesystem::create_directory_symlink("real", environment_.Image("inside"));
  ExpectLeft(environment_.Image("link.img"),
             "the file [" + environment_.Image("link.img") + "] is kept: it is a symbolic link");
  for (const char* name : {"out/x.img", "inside/x.img"}) {
    ExpectLeft(environment_.Image(name),
               "the file [" + environment_.Image(name) + "] is kept: it is reached through a symbolic link");
  }
}

TEST_F(GuestDeletion, Delete_NotRegularFile_IsKept) {
  std::filesystem::create_directory(environment_.Image("folder"));
  ExpectLeft(environment_.Image("folder"),
             "the file [" + environment_.Image("folder") + "] is kept: it is not a regular file");
  EXPECT_TRUE(std::filesystem::is_directory(environment_.Image("folder")));
  ASSERT_EQ(::mkfifo(environment_.Image("fifo").c_str(), 0600), 0);
  ExpectLeft(environment_.Image("fifo"),
             "the file [" + environment_.Image("fifo") + "] is kept: it is not a regular file");
  EXPECT_TRUE(std::filesystem::is_fifo(environment_.Image("fifo")));
  if (::mknod(environment_.Image("block").c_str(), S_IFBLK | 0600, makedev(7, 255)) != 0) {
    GTEST_SKIP() << "no right to make a device";
  }
  ExpectLeft(environment_.Image("block"),
             "the file [" + environment_.Image("block") + "] is kept: it is a block device");
  EXPECT_TRUE(std::filesystem::is_block_file(environment_.Image("block")));
}

TEST_F(GuestDeletion, Delete_InvalidPaths_AreLoggedAndSkipped) {
  const std::string none = "] is kept: the path is not a valid absolute path";
  ExpectLeft("relative.img", "the file [relative.img" + none);
  ExpectLeft(std::string("/x\0y", 4), "the file [/x y" + none);
  ExpectLeft("line\nbreak\x1b[31m", "the file [line break [31m" + none);
  ExpectLeft(environment_.Image("x/"), "the file [" + environment_.Image("x/") + none);
  ExpectLeft(7, "the path of its disk 0 is not a string, so no file of the disk is removed");
  ExpectLeft(Json::Value(Json::arrayValue),
             "the path of its disk 0 is not a string, so no file of the disk is removed");
  const std::string long_name(300, 'n');
  ExpectLeft(environment_.Image(long_name),
             "the file [" + environment_.Image(long_name) + "] is kept: its name is too long");
  ExpectLeft(environment_.Image(long_name + "/x"),
             "the file [" + environment_.Image(long_name + "/x") + "] is kept: its name is too long");
}

TEST_F(GuestDeletion, Delete_VeryLongPath_IsTruncatedInLog) {
  PutGuest(*store_, kGuest, {"/" + std::string(1'000'000, 'x')});
  EXPECT_TRUE(Delete().ok());
  ASSERT_EQ(Warnings().size(), 1u);
  EXPECT_LT(Warnings()[0].size(), 1000u);
}

TEST_F(GuestDeletion, Delete_FileMissing_IsSkippedAndLogged) {
  ExpectLeft(environment_.Image("none.img"), "there is no file [" + environment_.Image("none.img") + "]");
  ExpectLeft(environment_.Image("no/folder/none.img"),
             "there is no file [" + environment_.Image("no/folder/none.img") + "]");
  WriteFile(environment_.Image("file"));
  ExpectLeft(environment_.Image("file/none.img"), "there is no file [" + environment_.Image("file/none.img") + "]");
}

TEST_F(GuestDeletion, Delete_DiskWithoutPath_IsNotLogged) {
  for (const Json::Value& path : {Json::Value(), Json::Value("")}) {
    PutGuest(*store_, kGuest, {"x"});
    PutDisk(*store_, DiskId(kGuest, 0), kGuest, path);
    EXPECT_TRUE(Delete().ok());
    EXPECT_THAT(Warnings(), testing::IsEmpty());
  }
}

TEST_F(GuestDeletion, Delete_FileOfOtherDiskByAnyPath_IsKept) {
  WriteFile(environment_.Image("shared.img"));
  std::filesystem::create_directory_symlink(environment_.Image(""), environment_.folder().File("alias"));
  const std::string path = environment_.Image("shared.img");
  const std::string why = "the file [" + path + "] is kept: the record of another disk refers to it";
  const std::string other = KeyOf("vdisk", "other");
  std::string escaped = path;
  escaped.replace(escaped.rfind("shared"), 1, "\\u0073");
  const std::vector<std::string> texts = {
      R"({"path":")" + path + R"("})",
      R"({ "path" : ")" + environment_.Image("./x//..//shared.img") + R"(" })",
      R"({"path":")" + environment_.Image(".//shared.img") + R"("})",
      R"({"path":")" + environment_.folder().File("alias/shared.img") + R"("})",
      R"({"path":")" + escaped + R"("})",
      R"({"p\u0061th":")" + path + R"("})",
      R"({"name":"path","path":")" + path + R"(","guest_id":")" + kGuest + R"("})",
  };
  std::filesystem::create_directory(environment_.Image("x"));
  for (const std::string& text : texts) {
    PutText(*store_, other, text);
    ExpectLeft(path, why);
  }
  RemoveKey(*store_, other);
  PutText(*store_, KeyOf("vdisk", "other", "path"), '"' + path + '"');
  ExpectLeft(path, why);
}

TEST_F(GuestDeletion, Delete_SimilarPathsInRecords_DoNotKeepFile) {
  const std::string path = environment_.Image("shared.img");
  const std::vector<std::string> texts = {
      R"({"path":")" + environment_.Image("other/shared.img") + R"("})",
      R"({"path":")" + environment_.Image("shared.img.bak") + R"("})",
      R"({"name":")" + path + R"(","path":7})",
      R"({"inner":{"path":")" + path + R"("}})",
      R"({"path":")" + path + R"(")",
      R"(["path"])",
      "\"path",
  };
  for (const std::string& text : texts) {
    WriteFile(path);
    PutText(*store_, KeyOf("vdisk", "other"), text);
    PutGuest(*store_, kGuest, {path});
    EXPECT_TRUE(Delete().ok());
    EXPECT_FALSE(std::filesystem::exists(path)) << text;
  }
}

TEST_F(GuestDeletion, Delete_TwoDisksWithOneFile_RemovesItOnce) {
  WriteFile(environment_.Image("a.img"));
  PutGuest(*store_, kGuest, {environment_.Image("a.img"), environment_.Image("./a.img")});
  EXPECT_TRUE(Delete().ok());
  EXPECT_THAT(environment_.Files(), testing::IsEmpty());
  EXPECT_THAT(Warnings(), testing::IsEmpty());
}

TEST_F(GuestDeletion, Delete_ImagesInDrives_AreKept) {
  WriteFile(environment_.Image("system.iso"));
  PutGuest(*store_, kGuest, {environment_.Image("system.iso")});
  Json::Value guest(Json::objectValue);
  guest["vdisks"].append(DiskId(kGuest, 0));
  guest["iso_images"].append(environment_.Image("system.iso"));
  guest["iso_images"].append(7);
  PutRecord(*store_, KeyOf("guest", kGuest), guest);
  EXPECT_TRUE(Delete().ok());
  EXPECT_EQ(environment_.Files().size(), 1u);
  EXPECT_THAT(Warnings(), testing::ElementsAre(HasSubstr("it is an image in a drive of the guest")));
}

TEST_F(GuestDeletion, Delete_HiddenFileOfOtherDeletion_IsKept) {
  const std::string path = environment_.Image(".vexa-deleted-" + std::string(kBystander) + "-0");
  WriteFile(path);
  ExpectLeft(path, "the file [" + path + "] is kept: it belongs to a deletion");
}

TEST_F(GuestDeletion, Delete_ListsPartsOfOtherGuests_KeepsThem) {
  PutBoth(environment_, *store_);
  Json::Value guest(Json::objectValue);
  guest["vdisks"].append(DiskId(kBystander, 0));
  guest["vdisks"].append("no such disk");
  guest["vdisks"].append(DiskId(kGuest, 0));
  guest["vdisks"].append(DiskId(kGuest, 0));
  guest["vdisks"].append(7);
  guest["vdisks"].append(Json::Value(Json::objectValue));
  guest["vdisks"].append("damaged");
  guest["vnics"].append("nic-" + std::string(kBystander));
  guest["vnics"].append(std::string(1000, 'n'));
  PutRecord(*store_, KeyOf("guest", kGuest), guest);
  PutText(*store_, KeyOf("vdisk", "damaged"), "[");
  const Texts others = Without(Everything(*store_), kGuest);
  EXPECT_TRUE(Delete().ok());
  EXPECT_EQ(Without(Everything(*store_), kGuest), others);
  // What it does not list stays.
  EXPECT_TRUE(TextOf(*store_, KeyOf("vdisk", DiskId(kGuest, 1))));
  EXPECT_TRUE(TextOf(*store_, KeyOf("vnic", "nic-" + std::string(kGuest))));
  EXPECT_FALSE(TextOf(*store_, KeyOf("vdisk", DiskId(kGuest, 0))));
  const std::string begin = "Deleted guest[" + std::string(kGuest) + "]: it lists the ";
  EXPECT_THAT(Warnings(),
              testing::ElementsAre(
                  begin + "vdisk [" + DiskId(kBystander, 0) + "], which does not belong to it and is kept.",
                  begin + "vdisk [damaged], whose record is damaged and is kept.",
                  begin + "vnic [nic-" + std::string(kBystander) + "], which does not belong to it and is kept."));
}

TEST_F(GuestDeletion, Delete_ManyDisks_AreRemovedTogether) {
  std::vector<std::string> paths;
  for (int i = 0; i < 64; ++i) paths.push_back(environment_.Image(std::to_string(i % 7) + "/" + std::to_string(i)));
  for (const std::string& path : paths) WriteFile(path);
  PutGuest(*store_, kGuest, paths);
  EXPECT_TRUE(Delete().ok());
  EXPECT_THAT(environment_.Files(), testing::IsEmpty());
  EXPECT_THAT(Everything(*store_), testing::IsEmpty());
}

TEST_F(GuestDeletion, Delete_TenThousandDisks_AllOrNothing) {
  store::Transaction all;
  Json::Value guest(Json::objectValue);
  for (int i = 0; i < 10'000; ++i) {
    const std::string id = "d" + std::to_string(i);
    guest["vdisks"].append(id);
    all.operations.push_back({KeyOf("vdisk", id), R"({"guest_id":")" + std::string(kGuest) + R"(","path":"/x"})"});
  }
  (void)Require(store_->Commit(all));
  PutRecord(*store_, KeyOf("guest", kGuest), guest);
  EXPECT_TRUE(Delete().ok());
  EXPECT_THAT(Everything(*store_), testing::IsEmpty());
  // A line each, but not without end.
  EXPECT_EQ(Warnings().size(), 257u);

  for (int i = 0; i < 10'000; ++i) guest["vdisks"].append("e" + std::to_string(i));
  PutRecord(*store_, KeyOf("guest", kGuest), guest);
  ExpectRefused(host_error::kNotFoundOrUnreadable,
                "lists 20000 entries of the kind 'vdisk', and at most 16384 are deleted with a guest");
}

TEST_F(GuestDeletion, Delete_RecordsOfWrongTypes_Succeeds) {
  for (const char* text : {R"({})", R"({"vdisks":7,"vnics":"x","repository_id":[],"iso_images":{}})",
                           R"({"vdisks":{"a":1},"vnics":[null,[],{}],"repository_id":"\u0000"})"}) {
    PutText(*store_, KeyOf("guest", kGuest), text);
    EXPECT_TRUE(Delete().ok());
    EXPECT_THAT(Everything(*store_), testing::IsEmpty());
  }
}

TEST_F(GuestDeletion, Delete_NoRoots_KeepsAllFiles) {
  PutBoth(environment_, *store_);
  const Texts files = environment_.Files();
  guests::DeletionOptions options = environment_.Options(store_);
  options.image_roots = {"", "relative", "/no/../where"};
  EXPECT_TRUE(Deletion(options).Delete(kGuest, Alice()).ok());
  EXPECT_EQ(environment_.Files(), files);
  EXPECT_EQ(Everything(*store_), Without(Everything(*store_), kGuest));
}

}  // namespace
}  // namespace vexa::test
