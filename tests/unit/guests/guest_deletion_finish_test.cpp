// Deletions that a host finishes when it starts, and leftovers of deletions by other hosts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>

#include "host/guests/deletion/deletion.h"
#include "host/records/run_record.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_deletion_fixture.h"

namespace vexa::test {
namespace {

class DeletionAtStart : public DeletionTest {
 protected:
  std::string Path(int index) const {
    const std::string name = kGuest + std::string("-") + std::to_string(index) + ".img";
    return index == 1 ? environment_.More(name) : environment_.Image("a/" + name);
  }
  static std::string Hidden(int index) { return ".vexa-deleted-" + std::string(kGuest) + "-" + std::to_string(index); }

  static std::string FileText(const std::string& path, const std::string& hidden) {
    return R"({"path":")" + path + R"(","hidden":")" + hidden + R"("})";
  }

  // As a host leaves it that ends while it hides.
  void PutUnfinishedDeletion(const std::string& files, const std::string& host_id = kThisHost,
                             const std::string& stage = "hiding") {
    PutText(*store_, DeletionKey(kGuest),
            R"({"host_id":")" + host_id + R"(","user":"bob","request_id":"r","since":1,"stage":")" + stage +
                R"(","files":[)" + files + "]}");
  }
  std::string AllFiles() const {
    return FileText(Path(0), Hidden(0)) + "," + FileText(Path(1), Hidden(1)) + "," + FileText(Path(2), Hidden(2));
  }
  void Hide(int index) const {
    const std::filesystem::path path = Path(index);
    std::filesystem::rename(path, path.parent_path() / Hidden(index));
  }

  void FinishAll() { Deletion(options_).FinishAll(); }

  static long CountLines(const std::string& text) {
    const std::vector<SyslogLine> lines = CapturedSyslog();
    return std::ranges::count_if(lines,
                                 [&](const SyslogLine& line) { return line.text.find(text) != std::string::npos; });
  }
};

TEST_F(DeletionAtStart, FinishAll_NothingUnfinished_ChangesNothing) {
  FinishAll();
  EXPECT_EQ(Everything(*store_), records_);
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_THAT(CapturedSyslog(), testing::IsEmpty());
}

TEST_F(DeletionAtStart, Deletion_SomeFilesHidden_IsResumed) {
  PutUnfinishedDeletion(AllFiles());
  Hide(1);
  FinishAll();
  ExpectGone();
  EXPECT_THAT(CapturedSyslog(), testing::IsEmpty());
}

TEST_F(DeletionAtStart, FinishAll_DeletionOfOtherHost_IsSkipped) {
  PutUnfinishedDeletion(AllFiles(), kOtherHost);
  Hide(1);
  const Texts before = Everything(*store_);
  const Texts files = environment_.Files();
  FinishAll();
  EXPECT_EQ(Everything(*store_), before);
  EXPECT_EQ(environment_.Files(), files);
}

TEST_F(DeletionAtStart, FinishAll_DamagedRecords_AreLoggedAndKept) {
  const std::string good = FileText(Path(0), Hidden(0));
  const std::vector<std::string> damaged = {"",
                                            "{",
                                            "[]",
                                            "7",
                                            "null",
                                            "{}",
                                            R"({"host_id":"x","stage":"hiding"})",
                                            R"({"host_id":7,"stage":"hiding","files":[]})",
                                            R"({"host_id":"x","stage":"other","files":[]})",
                                            R"({"host_id":"","stage":"hiding","files":[]})",
                                            R"({"host_id":"x","stage":"hiding","files":{}})"};
  for (const std::string& text : damaged) {
    ClearCapturedSyslog();
    PutText(*store_, DeletionKey(kGuest), text);
    FinishAll();
    EXPECT_EQ(TextOf(*store_, DeletionKey(kGuest)), text);
    EXPECT_EQ(CountLines("the record of it is damaged and was left unchanged"), 1) << text;
  }
  const std::vector<std::string> files = {"7",
                                          "{}",
                                          R"({"path":7,"hidden":[]})",
                                          FileText("relative", Hidden(0)),
                                          FileText(Path(0) + "/../x", Hidden(0)),
                                          FileText(Path(0), "../" + Hidden(0)),
                                          FileText(Path(0), "bystander-0.img"),
                                          FileText(Path(0), Hidden(0) + "/x"),
                                          FileText(Path(0), Hidden(0).substr(0, Hidden(0).size() - 1)),
                                          FileText(Path(0) + "\\u0000", Hidden(0)),
                                          FileText(Path(0), ".vexa-deleted-" + std::string(kBystander) + "-0")};
  for (const char* stage : {"hiding", "purging"}) {
    for (const std::string& file : files) {
      ClearCapturedSyslog();
      PutUnfinishedDeletion(good + "," + file, kThisHost, stage);
      FinishAll();
      EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
      EXPECT_EQ(CountLines("the record of it is damaged and was left unchanged"), 1) << file;
      EXPECT_EQ(environment_.Files(), files_);
    }
  }
}

TEST_F(DeletionAtStart, Finish_RecordNamesForeignFiles_KeepsThem) {
  // The guest's disks refer to neither, so the deletion is undone and started again.
  PutUnfinishedDeletion(AllFiles() + "," + FileText(environment_.Image("a/bystander-0.img"), Hidden(7)));
  WriteFile(environment_.Outside(Hidden(0)), "outside");
  files_[environment_.Outside(Hidden(0))] = "outside";
  FinishAll();
  EXPECT_TRUE(environment_.Files().contains(environment_.Image("a/bystander-0.img")));
  EXPECT_EQ(Everything(*store_), Without(records_, kGuest));

  PutUnfinishedDeletion(FileText(environment_.Outside("x"), Hidden(0)), kThisHost, "purging");
  FinishAll();
  EXPECT_EQ(environment_.Files()[environment_.Outside(Hidden(0))], "outside");
  EXPECT_TRUE(SyslogContains("it is outside the image folders"));
  EXPECT_TRUE(TextOf(*store_, DeletionKey(kGuest)));
}

TEST_F(DeletionAtStart, Finish_DiskAddedMeanwhile_IsDeleted) {
  PutUnfinishedDeletion(AllFiles());
  Hide(0);
  WriteFile(environment_.Image("added.img"));
  PutGuest(*store_, kGuest, {Path(0), Path(1), Path(2), environment_.Image("added.img")});
  FinishAll();
  ExpectGone();
}

TEST_F(DeletionAtStart, Finish_DiskDetachedMeanwhile_KeepsItsFile) {
  PutUnfinishedDeletion(AllFiles());
  Hide(0);
  Hide(2);
  PutGuest(*store_, kGuest, {Path(0)});
  PutDisk(*store_, DiskId(kGuest, 2), kBystander, Path(2));
  FinishAll();
  EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kGuest)));
  EXPECT_FALSE(environment_.Files().contains(Path(0)));
  EXPECT_EQ(environment_.Files()[Path(2)], "content of " + Path(2));
}

TEST_F(DeletionAtStart, Hide_FileNamedByOtherDiskMeanwhile_IsSkipped) {
  PutUnfinishedDeletion(AllFiles());
  PutDisk(*store_, "new", kBystander, Path(1));
  FinishAll();
  EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kGuest)));
  EXPECT_TRUE(environment_.Files().contains(Path(1)));
  EXPECT_FALSE(environment_.Files().contains(Path(0)));
}

TEST_F(DeletionAtStart, Finish_GuestRecordMissing_RemovesFiles) {
  PutUnfinishedDeletion(AllFiles());
  Hide(0);
  for (const auto& [key, text] : records_) {
    if (key.find(kGuest) != std::string::npos && !key.starts_with("/live")) RemoveKey(*store_, key);
  }
  FinishAll();
  ExpectGone();
}

TEST_F(DeletionAtStart, Finish_GuestRecreatedMeanwhile_IsKept) {
  PutUnfinishedDeletion(AllFiles());
  Hide(0);
  RemoveKey(*store_, KeyOf("guest", kGuest));
  options_.before_step = [&](std::string_view step) {
    if (step == "commit records") PutGuest(*store_, kGuest, {Path(0), Path(1), Path(2)});
  };
  FinishAll();
  EXPECT_EQ(Everything(*store_), records_);
  EXPECT_EQ(environment_.Files(), files_);
}

TEST_F(DeletionAtStart, Finish_GuestRecordDamaged_RestoresFiles) {
  PutUnfinishedDeletion(AllFiles());
  Hide(0);
  PutText(*store_, KeyOf("guest", kGuest), "[");
  FinishAll();
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));
  EXPECT_TRUE(SyslogContains("is not finished"));
}

TEST_F(DeletionAtStart, Finish_CannotContinue_IsUndone) {
  PutUnfinishedDeletion(AllFiles());
  Hide(0);
  options_.file_calls.rename = [](int folder, const char* from, const char* to) {
    return std::string_view(from).ends_with("-1.img") ? EROFS : disks::RenameInFolder(folder, from, to);
  };
  FinishAll();
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_EQ(Everything(*store_), records_);
  EXPECT_TRUE(SyslogContains("is not finished: Cannot rename"));
}

TEST_F(DeletionAtStart, Finish_FileUnderOldName_KeepsBothFiles) {
  PutUnfinishedDeletion(AllFiles());
  Hide(0);
  WriteFile(Path(0), "new");
  FinishAll();
  EXPECT_TRUE(TextOf(*store_, KeyOf("guest", kGuest)));
  EXPECT_EQ(environment_.Files()[Path(0)], "new");
  EXPECT_EQ(environment_.Files()[environment_.Image("a/" + Hidden(0))], "content of " + Path(0));
  EXPECT_TRUE(SyslogContains("Both were kept"));
  EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));
}

TEST_F(DeletionAtStart, FinishAll_OneDeletionFails_OthersAreFinished) {
  PutText(*store_, DeletionKey("0-damaged"), "{");
  PutUnfinishedDeletion(AllFiles());
  FinishAll();
  EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kGuest)));
  EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));
}

TEST_F(DeletionAtStart, FinishAll_StoreUnreadable_IsLogged) {
  store_->FailSnapshots();
  FinishAll();
  EXPECT_EQ(CountLines("Unfinished deletions cannot be completed"), 1);
}

class Leftovers : public DeletionAtStart {
 protected:
  Leftovers() { options_.host_id = kOtherHost; }
  static std::string Key() { return store::MakeKey({"leftover", kOtherHost, kGuest}); }

  // By this host, of a guest in the other's repository.
  void DeleteOnOtherHost() {
    PutRepository(*store_, kOtherHost);
    EXPECT_TRUE(Deletion(environment_.Options(store_)).Delete(kGuest, Alice()).ok());
  }
};

TEST_F(Leftovers, Leftovers_GuestDeletedByOtherHost_AreRemovedByRepositoryHost) {
  DeleteOnOtherHost();
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_EQ(TextOf(*store_, Key()), R"({"files":[")" + Path(0) + R"(",")" + Path(1) + R"(",")" + Path(2) +
                                        R"("],"repository_id":"repository"})");
  EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kGuest)));
  EXPECT_FALSE(TextOf(*store_, DeletionKey(kGuest)));

  Deletion(environment_.Options(store_)).RemoveLeftovers();
  EXPECT_EQ(environment_.Files(), files_) << "they are the other host's";
  Deletion(options_).RemoveLeftovers();
  EXPECT_EQ(environment_.Files(), Without(files_, kGuest));
  EXPECT_FALSE(TextOf(*store_, Key()));
}

TEST_F(Leftovers, RemoveLeftovers_FilesToKeep_AreKeptAndLogged) {
  const std::string link = environment_.Image("link");
  std::filesystem::create_symlink(Path(0), link);
  WriteFile(environment_.Outside("x"));
  files_ = environment_.Files();
  const std::string bystander = environment_.Image("a/bystander-0.img");
  PutText(*store_, Key(),
          R"({"files":[")" + bystander + R"(",")" + link + R"(",")" + environment_.Outside("x") + R"(",")" +
              environment_.Image("../outside/x") + R"(","","relative\n",")" + environment_.Image("none") + R"("]})");
  FinishAll();
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_FALSE(TextOf(*store_, Key()));
  EXPECT_EQ(CapturedSyslog().size(), 7u);
  EXPECT_EQ(CountLines("the record of another disk refers to it"), 1);
  EXPECT_EQ(CountLines("[relative ]"), 1);
}

TEST_F(Leftovers, Leftovers_GuestExistsAgain_AreKept) {
  DeleteOnOtherHost();
  PutBoth(environment_, *store_);
  FinishAll();
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_FALSE(TextOf(*store_, Key()));
}

TEST_F(Leftovers, Leftovers_OfTwoDeletions_AreRemovedTogether) {
  WriteFile(environment_.Image("former.img"));
  PutText(*store_, Key(), R"({"files":[")" + environment_.Image("former.img") + R"(",")" + Path(0) + R"("]})");
  DeleteOnOtherHost();
  FinishAll();
  EXPECT_EQ(environment_.Files(), Without(files_, kGuest));
}

TEST_F(Leftovers, RemoveLeftovers_DamagedRecord_IsKeptAndLoggedOnce) {
  for (const char* text : {"", "[]", "{}", R"({"files":{}})", R"({"files":[7]})"}) {
    ClearCapturedSyslog();
    PutText(*store_, Key(), text);
    Deletion deletion(options_);
    deletion.RemoveLeftovers();
    deletion.RemoveLeftovers();
    EXPECT_EQ(TextOf(*store_, Key()), text);
    EXPECT_EQ(CapturedSyslog().size(), 1u) << text;
  }
}

TEST_F(Leftovers, RemoveLeftovers_RemovalFails_IsRetried) {
  DeleteOnOtherHost();
  options_.file_calls.unlink = [](int, const char*) { return EROFS; };
  FinishAll();
  EXPECT_TRUE(TextOf(*store_, Key()));
  EXPECT_TRUE(SyslogContains("could not be removed: Cannot remove"));
  options_.file_calls = {};
  store_->FailCommits();
  FinishAll();
  EXPECT_TRUE(TextOf(*store_, Key()));
  store_->Heal();
  FinishAll();
  EXPECT_FALSE(TextOf(*store_, Key()));
  EXPECT_EQ(environment_.Files(), Without(files_, kGuest));
}

TEST_F(Leftovers, Leftovers_RepositoryHostIdInvalid_AreKept) {
  PutRepository(*store_, std::string(600, 'h'));
  EXPECT_TRUE(Deletion(environment_.Options(store_)).Delete(kGuest, Alice()).ok());
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kGuest)));
  EXPECT_TRUE(SyslogContains("its files are kept because the repository's record names no host"));
}

TEST_F(Leftovers, Leftovers_RepositoryWithoutHost_BelongToThisHost) {
  PutText(*store_, KeyOf("repository", "repository"), "{}");
  EXPECT_TRUE(Deletion(options_).Delete(kGuest, Alice()).ok());
  EXPECT_EQ(environment_.Files(), Without(files_, kGuest));
}

TEST_F(Leftovers, RepositoryHost_SeparateKey_OverridesRecord) {
  PutText(*store_, KeyOf("repository", "repository", "host_id"), '"' + std::string(kOtherHost) + '"');
  EXPECT_TRUE(Deletion(environment_.Options(store_)).Delete(kGuest, Alice()).ok());
  EXPECT_EQ(environment_.Files(), files_);
  EXPECT_TRUE(TextOf(*store_, Key()));
}

}  // namespace
}  // namespace vexa::test
