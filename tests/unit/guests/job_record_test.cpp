// The records of unfinished jobs: their format is stable, since a host finishes jobs that an older version began.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/guests/jobs/deletion_record.h"
#include "host/guests/jobs/edit_record.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/guests/jobs/unfinished_jobs.h"
#include "host/records/run_record.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_deletion_environment.h"

namespace vexa::test {
namespace {

using guests::JobKind;
using guests::JobRecord;
using guests::JobStage;
using guests::kDeletionKind;
using guests::kEditKind;
using guests::StoredJob;

constexpr char kUuid[] = "d0000000-0000-4000-8000-000000000000";

std::string HiddenText(const std::string& path, int index, const std::string& guest_id = kGuest) {
  return R"({"hidden":".vexa-deleted-)" + guest_id + "-" + std::to_string(index) + R"(","path":")" + path + "\"}";
}

std::string EditWith(const std::string& made, const std::string& hidden, const std::string& grown,
                     const std::string& stage = "doing") {
  return R"({"grown":[)" + grown + R"(],"hidden":[)" + hidden + R"(],"host_id":")" + kThisHost + R"(","made":[)" +
         made + R"(],"repository_id":"r","request_id":"q","since":1700000000,"stage":")" + stage +
         R"(","storage":{"/i/":"ino=1 fsid=2"},"user":"alice"})";
}

std::string DeletionWith(const std::string& files, const std::string& stage = "hiding") {
  return R"({"files":[)" + files + R"(],"host_id":")" + kThisHost +
         R"(","repository_id":"r","request_id":"q","since":1700000000,"stage":")" + stage +
         R"(","storage":{"/i/":"ino=1 fsid=2"},"user":"alice"})";
}

class JobRecords : public testing::Test {
 protected:
  JobRecords() : store_(environment_.OpenStore()) { ClearCapturedSyslog(); }

  // As the store has it.
  std::optional<StoredJob> Stored(const JobKind& kind, const std::string& text) {
    PutText(*store_, kind.key(kGuest), text);
    return Require(guests::ReadJob(*Require(store_->Read()), kind, kGuest));
  }
  std::optional<JobRecord> Parse(const JobKind& kind, const std::string& text) { return Stored(kind, text)->record; }

  // Of other jobs; "" when they may begin.
  std::string ReasonOfRefusal() const {
    const auto free = guests::CheckNoUnfinishedJob(*store_, kGuest);
    return free.ok() ? "" : free.error().reason;
  }

  const DeletionEnvironment environment_;
  const std::shared_ptr<FaultyStore> store_;
};

TEST_F(JobRecords, EditRecord_ReadAndWritten_IsSameText) {
  const std::string text = EditWith("\"/i/" + std::string(kUuid) + ".qcow2\",\"/i/" + kUuid + ".raw\"",
                                    HiddenText("/i/c.img", 0) + "," + HiddenText("/i/d.img", 11),
                                    R"({"from":1048576,"path":"/i/a.raw","to":2097152},)"
                                    R"({"from":"000102030405060708090a0b0c0d0eff","path":"/i/b.qcow2",)"
                                    R"("to":"100102030405060708090a0b0c0d0eff"})");
  const std::optional<JobRecord> record = Parse(kEditKind, text);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->host_id, kThisHost);
  EXPECT_EQ(record->stage, JobStage::kChanging);
  EXPECT_EQ(record->files.made.size(), 2u);
  ASSERT_EQ(record->files.hidden.size(), 2u);
  EXPECT_EQ(record->files.hidden[1].path, "/i/d.img");
  ASSERT_EQ(record->files.grown.size(), 2u);
  EXPECT_EQ(record->files.grown[0].to_length, 2097152u);
  EXPECT_EQ(record->files.grown[1].to_header.size(), 16u);
  EXPECT_EQ(record->files.storage.size(), 1u);
  EXPECT_EQ(guests::SerializeJob(kEditKind, *record), text);
}

TEST_F(JobRecords, DeletionRecord_ReadAndWritten_IsSameText) {
  const std::string text = DeletionWith(HiddenText("/i/c.img", 0) + "," + HiddenText("/i/d.img", 16384));
  const std::optional<JobRecord> record = Parse(kDeletionKind, text);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->stage, JobStage::kChanging);
  EXPECT_EQ(record->files.hidden.size(), 2u);
  EXPECT_EQ(record->files.repository_id, "r");
  EXPECT_EQ(guests::SerializeJob(kDeletionKind, *record), text);
}

// Older versions wrote neither "repository_id" nor "storage".
TEST_F(JobRecords, RecordWithoutStorage_ReadAndWritten_IsSameText) {
  const std::string rest = R"("request_id":"","since":1,"stage":"purging","user":"bob"})";
  const std::string edit = R"({"grown":[],"hidden":[],"host_id":"far","made":[],)" + rest;
  const std::string deletion = R"({"files":[],"host_id":"far",)" + rest;
  for (const auto& [kind, text] : {std::pair(&kEditKind, edit), std::pair(&kDeletionKind, deletion)}) {
    const std::optional<JobRecord> record = Parse(*kind, text);
    ASSERT_TRUE(record) << text;
    EXPECT_EQ(record->stage, JobStage::kPurging);
    EXPECT_EQ(guests::SerializeJob(*kind, *record), text);
  }
}

TEST_F(JobRecords, Record_FileOutsideItsLimits_IsDamaged) {
  const std::string other = "bbbbbbbb-bbbb-4bbb-8bbb-bbbbbbbbbbbb";
  const struct {
    const JobKind& kind;
    std::string text;
  } rows[] = {
      {kEditKind, EditWith(R"("/i/disk.raw")", "", "")},
      {kEditKind, EditWith("\"/i/" + std::string(kUuid) + ".img\"", "", "")},
      {kEditKind, EditWith("\"/i/../" + std::string(kUuid) + ".raw\"", "", "")},
      {kEditKind, EditWith("", HiddenText("/i/c.img", 0, other), "")},
      {kEditKind, EditWith("", HiddenText("i/c.img", 0), "")},
      {kEditKind, EditWith("", "", R"({"from":"00","path":"/i/b.qcow2","to":"00"})")},
      {kEditKind, EditWith("", "", R"({"from":-1,"path":"/i/b.qcow2","to":1})")},
      {kEditKind, EditWith("", "", "", "hiding")},
      {kDeletionKind, DeletionWith(HiddenText("/i/c.img", 0, other))},
      {kDeletionKind, DeletionWith(R"({"hidden":".vexa-deleted-)" + std::string(kGuest) + R"(-x","path":"/i/c.img"})")},
      {kDeletionKind, DeletionWith(R"({"hidden":".vexa-deleted-)" + std::string(kGuest) + R"(-","path":"/i/c.img"})")},
      {kDeletionKind, DeletionWith(R"({"hidden":"c.img","path":"/i/c.img"})")},
      {kDeletionKind, DeletionWith("\"/i/c.img\"")},
      {kDeletionKind, DeletionWith("", "doing")},
      {kDeletionKind, R"({"host_id":"far","stage":"hiding"})"},
      {kDeletionKind, R"({"files":[],"stage":"hiding"})"},
      {kDeletionKind, "["},
  };
  for (const auto& [kind, text] : rows) EXPECT_FALSE(Parse(kind, text)) << text;
}

TEST_F(JobRecords, Refusal_GuestBusy_NamesUserOrHost) {
  (void)Stored(kEditKind, EditWith("", "", ""));
  EXPECT_EQ(ReasonOfRefusal(), "The guest is being edited (started by 'alice' at 2023-11-14T22:13:20Z)");
  (void)Stored(kDeletionKind, R"({"files":[],"host_id":"far","since":1700000000,"stage":"hiding"})");
  EXPECT_EQ(ReasonOfRefusal(), "The guest is being deleted (started by the host 'far' at 2023-11-14T22:13:20Z)");
  (void)Stored(kDeletionKind, "[");
  EXPECT_EQ(ReasonOfRefusal(), "The guest is being deleted, but the record of the deletion is damaged");
}

TEST_F(JobRecords, FinishJobs_OwnJobs_AreResumedAndFailuresLogged) {
  const std::string far = R"({"files":[],"host_id":"far","stage":"hiding"})";
  PutText(*store_, records::DeletionKey("a"), DeletionWith(""));
  PutText(*store_, records::DeletionKey("b"), far);
  PutText(*store_, records::DeletionKey("c"), "[");
  PutText(*store_, records::DeletionKey("d"), DeletionWith("", "purging"));
  EXPECT_THAT(guests::UnfinishedJobs(*store_, kDeletionKind, kThisHost), ElementsAre("a", "d"));
  EXPECT_THAT(guests::UnfinishedJobs(*store_, kEditKind, kThisHost), ElementsAre());
  std::vector<std::string> resumed;
  guests::FinishJobs(*store_, kDeletionKind, kThisHost, [&](const std::string& guest_id, const StoredJob& begun) {
    resumed.push_back(guest_id);
    if (begun.record->stage == JobStage::kPurging) return Result<void, Refusal>();
    return Result<void, Refusal>({host_error::kBusy, "not now"});
  });
  EXPECT_THAT(resumed, ElementsAre("a", "d"));
  ASSERT_EQ(CapturedSyslog().size(), 2u);
  EXPECT_TRUE(SyslogContains("The deletion of guest[a] that was started earlier is not finished: not now"));
  EXPECT_TRUE(
      SyslogContains("The deletion of guest[c] that was started earlier is not finished: the record of it is damaged "
                     "and was left unchanged"));
}

TEST_F(JobRecords, FinishJobs_StoreCannotBeRead_IsLogged) {
  store_->FailSnapshots();
  guests::FinishJobs(*store_, kEditKind, kThisHost,
                     [](const std::string& guest_id, const StoredJob&) -> Result<void, Refusal> {
                       ADD_FAILURE() << guest_id;
                       return {};
                     });
  EXPECT_TRUE(SyslogContains("Unfinished edits cannot be completed: "));
  EXPECT_THAT(guests::UnfinishedJobs(*store_, kEditKind, kThisHost), ElementsAre());
}

}  // namespace
}  // namespace vexa::test
