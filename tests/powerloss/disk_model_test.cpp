// What the model says that a disk keeps.
#include <gtest/gtest.h>

#include <set>

#include "tests/powerloss/disk_model.h"

namespace vexa::powerloss {
namespace {

constexpr std::uint32_t kFile = 1;
constexpr std::uint32_t kOther = 2;
constexpr std::uint32_t kFolder = 3;

// Makes recordings by hand. Each call begins when the one before has ended.
class Steps {
 public:
  Steps() { Add(CallKind::kStart, 0); }
  Call& Add(CallKind kind, std::uint32_t object) {
    Call call;
    call.kind = kind;
    call.object = object;
    call.mode = 0600;
    call.begun = calls_.size();
    calls_.push_back(call);
    return calls_.back();
  }
  Steps& Create(std::uint32_t file, const std::string& name) {
    Add(CallKind::kCreate, file).name = name;
    return *this;
  }
  Steps& Write(std::uint32_t file, const std::string& bytes, std::uint64_t offset = 0) {
    Call& call = Add(CallKind::kWrite, file);
    call.bytes = bytes;
    call.offset = offset;
    return *this;
  }
  Steps& Rename(std::uint32_t file, const std::string& from, const std::string& to) {
    Call& call = Add(CallKind::kRename, file);
    call.old_name = from;
    call.name = to;
    return *this;
  }
  Steps& Sync(std::uint32_t file) {
    Add(CallKind::kSync, file);
    return *this;
  }
  Call& last() { return calls_.back(); }
  Disk After(Loss loss, unsigned seed = 1) const { return AfterCalls(calls_.size(), loss, seed); }
  Disk AfterCalls(std::size_t cut, Loss loss, unsigned seed = 1) const {
    std::mt19937 random(seed);
    return DiskModel(calls_).After(cut, loss, random);
  }
  // The contents of "f" that many cuts leave; "-" without the file.
  std::set<std::string> Contents(Loss loss, std::size_t cut = 0) const {
    std::set<std::string> contents;
    for (unsigned seed = 0; seed < 200; ++seed) {
      const Disk disk = AfterCalls(cut == 0 ? calls_.size() : cut, loss, seed);
      contents.insert(disk.Has("f") ? disk.ContentOf("f") : "-");
    }
    return contents;
  }

 private:
  std::vector<Call> calls_;
};

using Set = std::set<std::string>;

TEST(DiskModel, FileThatIsSyncedWithItsFolder_StaysWhateverIsLost) {
  const Steps steps = Steps().Create(kFile, "f").Write(kFile, "content").Sync(kFile).Sync(0);
  for (const Loss loss : kAllLosses) EXPECT_EQ(steps.Contents(loss), Set{"content"}) << ToString(loss);
}

TEST(DiskModel, FileWithoutSyncedFolder_MayHaveNoName) {
  const Steps steps = Steps().Create(kFile, "f").Write(kFile, "content").Sync(kFile);
  EXPECT_EQ(steps.Contents(Loss::kEverything), Set{"-"});
  EXPECT_EQ(steps.Contents(Loss::kRandom), (Set{"-", "content"}));
}

TEST(DiskModel, SyncedNameOfUnsyncedFile_MayBeEmptyOrZeros) {
  const Steps steps = Steps().Create(kFile, "f").Write(kFile, "abc").Sync(0);
  EXPECT_EQ(steps.Contents(Loss::kNothing), Set{"abc"});
  EXPECT_EQ(steps.Contents(Loss::kEverything), Set{""});
  EXPECT_EQ(steps.Contents(Loss::kBytes), Set{std::string(3, '\0')});
  EXPECT_EQ(steps.Contents(Loss::kRandom), (Set{"", "abc", std::string(3, '\0')}));
}

TEST(DiskModel, Rename_IsAtomic) {
  Steps steps = Steps().Create(kFile, "f").Write(kFile, "old").Sync(kFile).Sync(0);
  steps.Create(kOther, "t").Write(kOther, "new").Sync(kOther).Rename(kOther, "t", "f");
  EXPECT_EQ(steps.Contents(Loss::kRandom), (Set{"old", "new"}));
  EXPECT_EQ(steps.Contents(Loss::kEverything), Set{"old"});
  steps.Sync(0);
  EXPECT_EQ(steps.Contents(Loss::kRandom), Set{"new"});
}

TEST(DiskModel, RenameOfUnsyncedFile_MayLeaveAnEmptyOne) {
  Steps steps = Steps().Create(kFile, "f").Write(kFile, "old").Sync(kFile).Sync(0);
  steps.Create(kOther, "t").Write(kOther, "new").Rename(kOther, "t", "f");
  EXPECT_EQ(steps.Contents(Loss::kContents), Set{""});
  EXPECT_TRUE(steps.Contents(Loss::kRandom).contains("old"));
}

TEST(DiskModel, WriteAfterTheBeginningOfASync_IsNotSynced) {
  Steps steps = Steps().Create(kFile, "f").Sync(0).Write(kFile, "abc");
  steps.Sync(kFile).last().begun = 3;  // the write ended during the sync
  EXPECT_EQ(steps.Contents(Loss::kEverything), Set{""});
}

TEST(DiskModel, Sectors_AreKeptOrLostAsAWhole) {
  const std::string old(2 * kSectorBytes, 'a');
  const std::string updated(2 * kSectorBytes, 'b');
  const Steps steps = Steps().Create(kFile, "f").Write(kFile, old).Sync(kFile).Sync(0).Write(kFile, updated);
  const std::string one(kSectorBytes, 'a');
  const std::string other(kSectorBytes, 'b');
  EXPECT_EQ(steps.Contents(Loss::kRandom), (Set{old, updated, one + other, other + one}));
}

TEST(DiskModel, CallInProgress_MayHaveHappenedInPart) {
  const std::string updated = std::string(kSectorBytes, 'b') + "b";
  const Steps steps = Steps().Create(kFile, "f").Write(kFile, "a").Sync(kFile).Sync(0).Write(kFile, updated);
  EXPECT_EQ(steps.Contents(Loss::kNothing, 5), Set{"a"});
  EXPECT_TRUE(steps.Contents(Loss::kTorn, 5).contains("a" + std::string(kSectorBytes - 1, '\0') + "b"));
}

TEST(DiskModel, SyncedWrite_StaysWithoutASyncOfTheFile) {
  Steps steps = Steps().Create(kFile, "f").Sync(0).Write(kFile, "one").Write(kFile, "two");
  steps.last().is_data_sync = true;
  EXPECT_EQ(steps.Contents(Loss::kEverything), Set{"two"});
  EXPECT_NE(steps.Contents(Loss::kEverything, 4), Set{"two"});
}

TEST(DiskModel, Mode_NeedsMoreThanADataSync) {
  Steps steps = Steps().Create(kFile, "f").Sync(0);
  steps.Add(CallKind::kMode, kFile).mode = 0444;
  steps.Sync(kFile).last().is_data_sync = true;
  EXPECT_EQ(steps.After(Loss::kEverything).files.at(kFile).mode, 0600u);
  steps.Sync(kFile);
  EXPECT_EQ(steps.After(Loss::kEverything).files.at(kFile).mode, 0444u);
}

TEST(DiskModel, FolderWithoutSyncedParent_IsLostWithItsFiles) {
  Steps steps;
  steps.Add(CallKind::kMakeFolder, kFolder).name = "d";
  steps.Create(kFile, "f").last().folder = kFolder;
  steps.Sync(kFile).Sync(kFolder);
  EXPECT_FALSE(steps.After(Loss::kEverything).Has("d/f"));
  steps.Sync(0);
  EXPECT_TRUE(steps.After(Loss::kEverything).Has("d/f"));
}

TEST(DiskModel, TruncatedFile_DoesNotGetItsBytesBack) {
  Steps steps = Steps().Create(kFile, "f").Write(kFile, std::string(600, 'x'));
  steps.Add(CallKind::kLength, kFile).offset = 2;
  steps.Add(CallKind::kGrow, kFile).offset = 4;
  EXPECT_EQ(steps.After(Loss::kNothing).ContentOf("f"), std::string("xx\0\0", 4));
}

TEST(DiskModel, Newest_IsLostFromOneCallOn) {
  Steps steps = Steps().Create(kFile, "f").Sync(0);
  for (int i = 0; i < 4; ++i) steps.Write(kFile, std::string(1, static_cast<char>('0' + i)), i * kSectorBytes);
  for (const std::string& content : steps.Contents(Loss::kNewest)) {
    EXPECT_TRUE(content == "-" || content.size() % kSectorBytes <= 1) << content.size();
    for (std::size_t at = 0; at < content.size(); at += kSectorBytes) {
      EXPECT_EQ(content[at], static_cast<char>('0' + at / kSectorBytes));
    }
  }
}

}  // namespace
}  // namespace vexa::powerloss
