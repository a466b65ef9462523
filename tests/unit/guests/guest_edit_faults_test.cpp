// Edits of disks where every call fails from some step on, also the calls that would undo the edit. An edit that was
// answered with success is complete; any other is undone, at the latest when the host starts again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/unit/guests/guest_edit_environment.h"

namespace vexa::test {
namespace {

using disks::FileSystemCalls;

constexpr char kEverything[] = R"({"vcpu_num":4,"vdisks_add":[{"vdisk_size":32},{"vdisk_size":64,"format":"raw"}],)"
                               R"("vdisks_edit":[{"vdisk_size":24,"vdisk_id":"d0000000-0000-4000-8000-000000000000"}],)"
                               R"("vdisks_del":[{"vdisk_id":"d0000000-0000-4000-8000-000000000001"}]})";

class FailingEdit : public testing::Test {
 protected:
  void Prepare() {
    options_ = {};
    store_.reset();
    environment_ = std::make_unique<EditEnvironment>();
    store_ = environment_->OpenStore();
    environment_->Fill(*store_);
    records_ = Everything(*store_);
    images_ = environment_->Images();
    options_ = environment_->Options(store_);
    error_ = 0;
    let_go_ = false;
    FileSystemCalls& calls = options_.file_calls;
    calls.create = [this](int folder, const char* name, int* file) {
      return error_ ? error_ : disks::CreateInFolder(folder, name, file);
    };
    calls.set_length = [this](int file, std::uint64_t length) {
      return error_ ? error_ : disks::SetFileLength(file, length);
    };
    calls.write = [this](int file, std::string_view bytes, std::uint64_t offset) {
      return error_ ? error_ : disks::WriteToFile(file, bytes, offset);
    };
    calls.sync_file = [this](int file) { return error_ ? error_ : disks::SyncFile(file); };
    calls.rename = [this](int folder, const char* from, const char* to) {
      return error_ && !let_go_ ? error_ : disks::RenameInFolder(folder, from, to);
    };
    calls.unlink = [this](int folder, const char* name) {
      return error_ && !let_go_ ? error_ : disks::UnlinkInFolder(folder, name);
    };
    calls.sync = [this](int folder) { return error_ ? error_ : disks::SyncFolder(folder); };
  }

  Result<void, Refusal> Edit() { return Edits(options_).Edit(kEdited, Parsed(kEverything), Alice()); }
  // The next start, on a machine that works again.
  void Restart() {
    error_ = 0;
    store_->Heal();
    Edits(environment_->Options(store_)).FinishAll();
  }
  bool IsBegun() const { return TextOf(*store_, records::EditKey(kEdited)).has_value(); }

  void ExpectUnchanged() {
    EXPECT_EQ(Everything(*store_), records_);
    EXPECT_EQ(environment_->Images(), images_);
  }
  void ExpectDone() {
    const auto records = RecordsOf(*store_);
    EXPECT_EQ(records.guest["vcpu_num"], 4);
    ASSERT_EQ(records.disks.size(), 3u);
    std::map<std::string, std::int64_t> images;
    const std::int64_t sizes[] = {24, 32, 64};
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(records.disks[i].second["size"].asInt64(), sizes[i]);
      images[FileOf(records.disks[i].second)] = sizes[i] << 20;
    }
    EXPECT_EQ(environment_->Images(), images);
    EXPECT_TRUE(RecordOf(*store_, "vdisk", kDisk1).isNull());
    EXPECT_FALSE(IsBegun());
  }

  // `fail` at each step in turn, from which on it stays so.
  void ExpectAllOrNothing(const std::function<void()>& fail) {
    int steps = 0;
    int done = 0;
    for (bool has_failed = true; has_failed && !HasFailure(); ++steps) {
      SCOPED_TRACE("from step " + std::to_string(steps));
      Prepare();
      has_failed = false;
      int step = 0;
      std::string last;
      options_.before_step = [&](std::string_view name) {
        if (step++ != steps) return;
        last = name;
        has_failed = true;
        fail();
      };
      const auto refused = Edit();
      Restart();
      SCOPED_TRACE(last);
      if (!refused.ok()) {
        ExpectUnchanged();
      } else {
        ++done;
        ExpectDone();
      }
    }
    EXPECT_GT(steps, 10);
    EXPECT_GT(done, 2);
    EXPECT_LT(done, steps);
  }

  std::unique_ptr<EditEnvironment> environment_;
  std::shared_ptr<FaultyStore> store_;
  EditOptions options_;
  Texts records_;
  std::map<std::string, std::int64_t> images_;
  int error_ = 0;        // of calls of the system; 0: they work
  bool let_go_ = false;  // files can be renamed and removed anyway
};

TEST_F(FailingEdit, FullDisk_FromEachStepOn_AppliesAllOrNothing) {
  ExpectAllOrNothing([this] {
    error_ = ENOSPC;
    let_go_ = true;
    store_->FailCommits();
  });
}

TEST_F(FailingEdit, FailingFiles_FromEachStepOn_ApplyAllOrNothing) {
  ExpectAllOrNothing([this] { error_ = EIO; });
}

TEST_F(FailingEdit, FailingCommits_FromEachStepOn_ApplyAllOrNothing) {
  ExpectAllOrNothing([this] { store_->FailCommits(); });
}

TEST_F(FailingEdit, Edit_StoreLostFromEachStep_IsAllOrNothing) {
  ExpectAllOrNothing([this] {
    store_->FailCommits();
    store_->FailSnapshots();
  });
}

TEST_F(FailingEdit, Edit_UndoCommitFails_IsReportedAndGuestStaysBusy) {
  Prepare();
  options_.before_step = [&](std::string_view step) {
    if (step == "hide 0") error_ = EROFS;
    if (step == "shrink 0") error_ = 0;
    if (step == "commit undo") store_->FailCommits();
  };
  const auto refused = Edit();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, 901);
  EXPECT_THAT(refused.error().reason, HasSubstr("could not be undone; the undo is retried"));
  store_->Heal();
  options_.before_step = nullptr;
  EXPECT_EQ(environment_->Images(), images_);
  ASSERT_TRUE(IsBegun());
  const auto next = Edit();
  ASSERT_FALSE(next.ok());
  EXPECT_EQ(next.error().code, 915);
  EXPECT_THAT(next.error().reason, HasSubstr("by 'alice' at 20"));
  Restart();
  ExpectUnchanged();
  EXPECT_TRUE(Edit().ok());
  ExpectDone();
}

// Also root cannot remove a folder as if it were a file.
TEST_F(FailingEdit, Purge_RemovalFails_IsRetriedAtNextStart) {
  Prepare();
  std::string hidden;
  options_.before_step = [&](std::string_view step) {
    if (step != "remove 0") return;
    for (const auto& [name, size] : environment_->Images()) {
      if (name.starts_with('.')) hidden = environment_->Folder() + "/" + name;
    }
    ASSERT_FALSE(hidden.empty());
    std::filesystem::remove(hidden);
    std::filesystem::create_directory(hidden);
  };
  const auto refused = Edit();
  EXPECT_TRUE(refused.ok()) << refused.error().reason;
  ASSERT_TRUE(IsBegun());
  EXPECT_TRUE(RecordOf(*store_, "vdisk", kDisk1).isNull());
  options_.before_step = nullptr;
  const auto next = Edit();
  ASSERT_FALSE(next.ok());
  // Its first disk has the size that is asked for, its second one is gone.
  EXPECT_EQ(next.error().code, 904);
  Restart();
  EXPECT_TRUE(IsBegun());
  std::filesystem::remove(hidden);
  WriteFile(hidden);
  Restart();
  ExpectDone();
  EXPECT_FALSE(std::filesystem::exists(hidden));
}

}  // namespace
}  // namespace vexa::test
