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
#include "tests/unit/guests/guest_deletion_ground.h"

namespace vexa::test {
namespace {

using guests::Deletion;
using guests::DeletionKey;
using guests::Refused;
using guests::RunKey;
using testing::HasSubstr;

class GuestDeletion : public testing::Test {
 protected:
  GuestDeletion() : store_(ground_.OpenStore()) { ClearCapturedSyslog(); }

  Refused Delete(const std::string& id = kGuest) { return Deletion(ground_.Options(store_)).Delete(id, Alice()); }

  void ExpectRefused(int code, const std::string& words) {
    const Texts records = Everything(*store_);
    const Texts files = ground_.Files();
    const Refused refused = Delete();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, code) << refused->reason;
    EXPECT_THAT(refused->reason, HasSubstr(words));
    EXPECT_EQ(Everything(*store_), records);
    EXPECT_EQ(ground_.Files(), files);
  }

  // Deletes a guest whose only disk is at `path`, which is left, with a line that says why.
  void ExpectLeft(const Json::Value& path, const std::string& why) {
    PutGuest(*store_, kGuest, {"x"});
    PutDisk(*store_, DiskId(kGuest, 0), kGuest, path);
    const Texts files = ground_.Files();
    ClearCapturedSyslog();
    const Refused refused = Delete();
    ASSERT_FALSE(refused) << refused->reason;
    EXPECT_EQ(ground_.Files(), files);
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

  const DeletionGround ground_;
  const std::shared_ptr<FaultyStore> store_;
};

TEST_F(GuestDeletion, RemovesRecordsAndFiles_AndNothingOfOthers) {
  PutBoth(ground_, *store_);
  const Texts records = Without(Everything(*store_), kGuest);
  const Texts files = Without(ground_.Files(), kGuest);
  ASSERT_EQ(files.size() + 3, ground_.Files().size());
  EXPECT_FALSE(Delete());
  EXPECT_EQ(Everything(*store_), records);
  EXPECT_EQ(ground_.Files(), files);
  EXPECT_THAT(Warnings(), testing::IsEmpty());
}

TEST_F(GuestDeletion, StepsHaveNamesOfTheirOwn_InTheOrderOfTheDescription) {
  PutBoth(ground_, *store_);
  std::vector<std::string> steps;
  guests::DeletionOptions options = ground_.Options(store_);
  options.before_step = [&](std::string_view step) { steps.emplace_back(step); };
  EXPECT_FALSE(Deletion(options).Delete(kGuest, Alice()));
  EXPECT_THAT(steps, testing::ElementsAre("commit hiding", "hide 0", "hide 1", "hide 2", "sync hidden 0",
                                          "sync hidden 1", "commit records", "remove 0", "remove 1", "remove 2",
                                          "sync removed 0", "sync removed 1", "commit end"));
}

TEST_F(GuestDeletion, DeletionRecord_ContainsUserTimeAndFiles) {
  PutBoth(ground_, *store_);
  guests::DeletionOptions options = ground_.Options(store_);
  options.now = [] { return std::chrono::system_clock::time_point(std::chrono::milliseconds(1'700'000'000'900)); };
  std::map<std::string, std::string> records;
  options.before_step = [&](std::string_view step) {
    records[std::string(step)] = TextOf(*store_, DeletionKey(kGuest)).value_or("none");
  };
  EXPECT_FALSE(Deletion(options).Delete(kGuest, Alice()));
  const std::string path = ground_.Image(std::string("a/") + kGuest + "-0.img");
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

TEST_F(GuestDeletion, NoRecord_Is403) { ExpectRefused(guests::kUnreadable, "There is no such guest"); }

TEST_F(GuestDeletion, ImpossibleId_Is403) {
  for (const std::string& id : {std::string(), std::string("../x"), std::string("\0x", 2), std::string(600, 'x')}) {
    const Refused refused = Delete(id);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, guests::kUnreadable);
  }
}

TEST_F(GuestDeletion, DamagedRecord_Is403) {
  for (const char* text : {"[]", "\"x\"", "{", "", "null"}) {
    PutText(*store_, KeyOf("guest", kGuest), text);
    ExpectRefused(guests::kUnreadable, "is no JSON object");
  }
}

TEST_F(GuestDeletion, Delete_GuestHeldByHost_Is910AndNamesHost) {
  PutBoth(ground_, *store_);
  PutText(*store_, RunKey(kGuest), R"({"host_id":"some host"})");
  ExpectRefused(guests::kRunsAlready, "The host 'some host' has the guest");
  PutText(*store_, RunKey(kGuest), "damaged");
  ExpectRefused(guests::kRunsAlready, "A host has the guest, and the record of it is damaged");
}

TEST_F(GuestDeletion, Delete_AlreadyInProgress_Is915WithUserAndTime) {
  PutBoth(ground_, *store_);
  PutText(*store_, DeletionKey(kGuest),
          R"({"host_id":"far","user":"bob","request_id":"","since":1700000000,"stage":"hiding","files":[]})");
  ExpectRefused(guests::kBusy, "The guest is being deleted by 'bob' since 2023-11-14T22:13:20Z");
  PutText(*store_, DeletionKey(kGuest), R"({"host_id":"far\n","since":1e300,"stage":"purging","files":[]})");
  ExpectRefused(guests::kBusy, "The guest is being deleted by the host 'far ' since 1970-01-01T00:00:00Z");
  PutText(*store_, DeletionKey(kGuest), "damaged");
  ExpectRefused(guests::kBusy, "The guest is being deleted, and the record of it is damaged");
}

TEST_F(GuestDeletion, DeletionUnderWay_GivesTheTextOfTheRefusal) {
  EXPECT_FALSE(guests::JobUnderWay(*store_, kGuest));
  PutText(*store_, DeletionKey(kGuest), R"({"host_id":"far","user":"bob","since":1,"stage":"hiding","files":[]})");
  const Refused refused = guests::JobUnderWay(*store_, kGuest);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, guests::kBusy);
  EXPECT_EQ(refused->reason, "The guest is being deleted by 'bob' since 1970-01-01T00:00:01Z");
  store_->FailSnapshots();
  EXPECT_EQ(guests::JobUnderWay(*store_, kGuest)->code, guests::kFailed);
}

TEST_F(GuestDeletion, FileOutsideOfTheRoots_IsLeft) {
  WriteFile(ground_.Outside("x.img"));
  ExpectLeft(ground_.Outside("x.img"),
             "the file [" + ground_.Outside("x.img") + "] is left: it lies outside of the folders of images");
  const std::string beside = ground_.folder().File("images-2");
  ExpectLeft(beside, "the file [" + beside + "] is left: it lies outside of the folders of images");
}

TEST_F(GuestDeletion, PathThatLeadsUpwards_IsLeft) {
  WriteFile(ground_.Outside("x.img"));
  const std::string path = ground_.Image("../outside/x.img");
  ExpectLeft(path, "the file [" + path + "] is left: it is no absolute path of a file");
}

TEST_F(GuestDeletion, SymbolicLinks_AreLeft_WhereverTheyAreOnTheWay) {
  WriteFile(ground_.Outside("x.img"));
  WriteFile(ground_.Image("real/x.img"));
  std::filesystem::create_symlink(ground_.Outside("x.img"), ground_.Image("link.img"));
  std::filesystem::create_directory_symlink(ground_.Outside(""), ground_.Image("out"));
  std::filesystem::create_directory_symlink("real", ground_.Image("inside"));
  ExpectLeft(ground_.Image("link.img"), "the file [" + ground_.Image("link.img") + "] is left: it is a symbolic link");
  for (const char* name : {"out/x.img", "inside/x.img"}) {
    ExpectLeft(ground_.Image(name),
               "the file [" + ground_.Image(name) + "] is left: it is reached through a symbolic link");
  }
}

TEST_F(GuestDeletion, Delete_NotRegularFile_IsKept) {
  std::filesystem::create_directory(ground_.Image("folder"));
  ExpectLeft(ground_.Image("folder"), "the file [" + ground_.Image("folder") + "] is left: it is no regular file");
  EXPECT_TRUE(std::filesystem::is_directory(ground_.Image("folder")));
  ASSERT_EQ(::mkfifo(ground_.Image("fifo").c_str(), 0600), 0);
  ExpectLeft(ground_.Image("fifo"), "the file [" + ground_.Image("fifo") + "] is left: it is no regular file");
  EXPECT_TRUE(std::filesystem::is_fifo(ground_.Image("fifo")));
  if (::mknod(ground_.Image("block").c_str(), S_IFBLK | 0600, makedev(7, 255)) != 0) {
    GTEST_SKIP() << "no right to make a device";
  }
  ExpectLeft(ground_.Image("block"), "the file [" + ground_.Image("block") + "] is left: it is a block device");
  EXPECT_TRUE(std::filesystem::is_block_file(ground_.Image("block")));
}

TEST_F(GuestDeletion, Delete_InvalidPaths_AreLoggedAndSkipped) {
  const std::string none = "] is left: it is no absolute path of a file";
  ExpectLeft("relative.img", "the file [relative.img" + none);
  ExpectLeft(std::string("/x\0y", 4), "the file [/x y" + none);
  ExpectLeft("line\nbreak\x1b[31m", "the file [line break [31m" + none);
  ExpectLeft(ground_.Image("x/"), "the file [" + ground_.Image("x/") + none);
  ExpectLeft(7, "the path of its disk 0 is no text; no file of it is removed");
  ExpectLeft(Json::Value(Json::arrayValue), "the path of its disk 0 is no text; no file of it is removed");
  const std::string long_name(300, 'n');
  ExpectLeft(ground_.Image(long_name), "the file [" + ground_.Image(long_name) + "] is left: its name is too long");
  ExpectLeft(ground_.Image(long_name + "/x"),
             "the file [" + ground_.Image(long_name + "/x") + "] is left: its name is too long");
}

TEST_F(GuestDeletion, VeryLongPath_IsCutInItsLine) {
  PutGuest(*store_, kGuest, {"/" + std::string(1'000'000, 'x')});
  EXPECT_FALSE(Delete());
  ASSERT_EQ(Warnings().size(), 1u);
  EXPECT_LT(Warnings()[0].size(), 1000u);
}

TEST_F(GuestDeletion, MissingFile_IsSkippedWithALine) {
  ExpectLeft(ground_.Image("none.img"), "there is no file [" + ground_.Image("none.img") + "]");
  ExpectLeft(ground_.Image("no/folder/none.img"), "there is no file [" + ground_.Image("no/folder/none.img") + "]");
  WriteFile(ground_.Image("file"));
  ExpectLeft(ground_.Image("file/none.img"), "there is no file [" + ground_.Image("file/none.img") + "]");
}

TEST_F(GuestDeletion, DiskWithoutAPath_NeedsNoLine) {
  for (const Json::Value& path : {Json::Value(), Json::Value("")}) {
    PutGuest(*store_, kGuest, {"x"});
    PutDisk(*store_, DiskId(kGuest, 0), kGuest, path);
    EXPECT_FALSE(Delete());
    EXPECT_THAT(Warnings(), testing::IsEmpty());
  }
}

TEST_F(GuestDeletion, FileOfAnotherDisk_IsLeft_HoweverThatNamesIt) {
  WriteFile(ground_.Image("shared.img"));
  std::filesystem::create_directory_symlink(ground_.Image(""), ground_.folder().File("alias"));
  const std::string path = ground_.Image("shared.img");
  const std::string why = "the file [" + path + "] is left: another disk's record names it";
  const std::string other = KeyOf("vdisk", "other");
  std::string escaped = path;
  escaped.replace(escaped.rfind("shared"), 1, "\\u0073");
  const std::vector<std::string> texts = {
      R"({"path":")" + path + R"("})",
      R"({ "path" : ")" + ground_.Image("./x//..//shared.img") + R"(" })",
      R"({"path":")" + ground_.Image(".//shared.img") + R"("})",
      R"({"path":")" + ground_.folder().File("alias/shared.img") + R"("})",
      R"({"path":")" + escaped + R"("})",
      R"({"p\u0061th":")" + path + R"("})",
      R"({"name":"path","path":")" + path + R"(","guest_id":")" + kGuest + R"("})",
  };
  std::filesystem::create_directory(ground_.Image("x"));
  for (const std::string& text : texts) {
    PutText(*store_, other, text);
    ExpectLeft(path, why);
  }
  RemoveKey(*store_, other);
  PutText(*store_, KeyOf("vdisk", "other", "path"), '"' + path + '"');
  ExpectLeft(path, why);
}

TEST_F(GuestDeletion, RecordsThatDoNotNameTheFile_DoNotKeepIt) {
  const std::string path = ground_.Image("shared.img");
  const std::vector<std::string> texts = {
      R"({"path":")" + ground_.Image("other/shared.img") + R"("})",
      R"({"path":")" + ground_.Image("shared.img.bak") + R"("})",
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
    EXPECT_FALSE(Delete());
    EXPECT_FALSE(std::filesystem::exists(path)) << text;
  }
}

TEST_F(GuestDeletion, TwoDisksWithOneFile_RemoveItOnce) {
  WriteFile(ground_.Image("a.img"));
  PutGuest(*store_, kGuest, {ground_.Image("a.img"), ground_.Image("./a.img")});
  EXPECT_FALSE(Delete());
  EXPECT_THAT(ground_.Files(), testing::IsEmpty());
  EXPECT_THAT(Warnings(), testing::IsEmpty());
}

TEST_F(GuestDeletion, ImagesInDrives_AreLeft) {
  WriteFile(ground_.Image("system.iso"));
  PutGuest(*store_, kGuest, {ground_.Image("system.iso")});
  Json::Value guest(Json::objectValue);
  guest["vdisks"].append(DiskId(kGuest, 0));
  guest["iso_images"].append(ground_.Image("system.iso"));
  guest["iso_images"].append(7);
  PutRecord(*store_, KeyOf("guest", kGuest), guest);
  EXPECT_FALSE(Delete());
  EXPECT_EQ(ground_.Files().size(), 1u);
  EXPECT_THAT(Warnings(), testing::ElementsAre(HasSubstr("it is an image in a drive of the guest")));
}

TEST_F(GuestDeletion, HiddenFileOfAnotherDeletion_IsLeft) {
  const std::string path = ground_.Image(".vexa-deleted-" + std::string(kBystander) + "-0");
  WriteFile(path);
  ExpectLeft(path, "the file [" + path + "] is left: it belongs to a deletion");
}

TEST_F(GuestDeletion, ListedDisksAndInterfacesOfOthers_AreLeft) {
  PutBoth(ground_, *store_);
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
  EXPECT_FALSE(Delete());
  EXPECT_EQ(Without(Everything(*store_), kGuest), others);
  // What it does not list stays.
  EXPECT_TRUE(TextOf(*store_, KeyOf("vdisk", DiskId(kGuest, 1))));
  EXPECT_TRUE(TextOf(*store_, KeyOf("vnic", "nic-" + std::string(kGuest))));
  EXPECT_FALSE(TextOf(*store_, KeyOf("vdisk", DiskId(kGuest, 0))));
  const std::string begin = "Deleted guest[" + std::string(kGuest) + "]: it lists the ";
  EXPECT_THAT(Warnings(), testing::ElementsAre(
                              begin + "vdisk [" + DiskId(kBystander, 0) + "], which is not its own and is left.",
                              begin + "vdisk [damaged], whose record is damaged and is left.",
                              begin + "vnic [nic-" + std::string(kBystander) + "], which is not its own and is left."));
}

TEST_F(GuestDeletion, Delete_ManyDisks_AreRemovedTogether) {
  std::vector<std::string> paths;
  for (int i = 0; i < 64; ++i) paths.push_back(ground_.Image(std::to_string(i % 7) + "/" + std::to_string(i)));
  for (const std::string& path : paths) WriteFile(path);
  PutGuest(*store_, kGuest, paths);
  EXPECT_FALSE(Delete());
  EXPECT_THAT(ground_.Files(), testing::IsEmpty());
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
  EXPECT_FALSE(Delete());
  EXPECT_THAT(Everything(*store_), testing::IsEmpty());
  // A line each, but not without end.
  EXPECT_EQ(Warnings().size(), 257u);

  for (int i = 0; i < 10'000; ++i) guest["vdisks"].append("e" + std::to_string(i));
  PutRecord(*store_, KeyOf("guest", kGuest), guest);
  ExpectRefused(guests::kUnreadable, "names 20000 of the kind 'vdisk', and at most 16384 are deleted with a guest");
}

TEST_F(GuestDeletion, RecordsOfWrongTypes_AreDeleted) {
  for (const char* text : {R"({})", R"({"vdisks":7,"vnics":"x","repository_id":[],"iso_images":{}})",
                           R"({"vdisks":{"a":1},"vnics":[null,[],{}],"repository_id":"\u0000"})"}) {
    PutText(*store_, KeyOf("guest", kGuest), text);
    EXPECT_FALSE(Delete());
    EXPECT_THAT(Everything(*store_), testing::IsEmpty());
  }
}

TEST_F(GuestDeletion, WithoutRoots_LeavesAllFiles) {
  PutBoth(ground_, *store_);
  const Texts files = ground_.Files();
  guests::DeletionOptions options = ground_.Options(store_);
  options.image_roots = {"", "relative", "/no/../where"};
  EXPECT_FALSE(Deletion(options).Delete(kGuest, Alice()));
  EXPECT_EQ(ground_.Files(), files);
  EXPECT_EQ(Everything(*store_), Without(Everything(*store_), kGuest));
}

}  // namespace
}  // namespace vexa::test
