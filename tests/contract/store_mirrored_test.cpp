// How a mirrored store behaves while its primary fails, and how the mirror follows the primary.
#include "host/store/mirrored_store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <random>
#include <thread>

#include "host/store/lmdb_store.h"
#include "host/store/lost_store.h"
#include "tests/contract/store_contract.h"
#include "tests/support/faulty_store.h"
#include "tests/support/matchers.h"
#include "tests/support/syslog_capture.h"

namespace vexa::store {
namespace {

using namespace std::chrono_literals;
using test::FaultyStore;

template <class Condition>
bool Within(std::chrono::milliseconds limit, const Condition& condition) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// All keys with their revisions and values, and the revision of the store.
std::string Dump(const Store& store) {
  const auto snapshot = ReadOf(store);
  std::string all = std::to_string(snapshot->revision()) + "\n";
  EXPECT_TRUE(snapshot
                  ->Scan("",
                         [&](std::string_view key, const ValueView& value) {
                           all += std::string(key) + "@" + std::to_string(value.revision) + "=" +
                                  std::string(value.text) + "\n";
                           return true;
                         })
                  .ok());
  return all;
}

class Mirrored : public testing::Test {
 protected:
  void SetUp() override {
    OpenPrimary("/store", 1000);
    Put(*primary_, "/a", "1");
    Put(*primary_, "/b/c", "2");
    OpenMirror();
  }

  void OpenPrimary(const char* folder, std::size_t change_log_length) {
    auto opened = OpenLmdbStore({folder_.path() + folder, kStoreMapBytes, change_log_length});
    ASSERT_TRUE(opened.ok()) << opened.error().ToString();
    primary_ = std::make_shared<FaultyStore>(*opened);
  }
  void OpenMirror() {
    store_.reset();
    MirrorOptions options;
    options.directory = Folder();
    options.retry_interval = 20ms;
    options.batch_delay = 10ms;
    options.on_change = [this] { ++changes_; };
    auto store = MirroredStore::Make(primary_, options);
    ASSERT_TRUE(store.ok()) << store.error().ToString();
    store_ = *store;
  }
  std::string Folder() const { return folder_.path() + "/mirror"; }
  bool HasMirrorCaughtUp() const {
    return Within(20s, [&] { return store_->mirrored_revision() == ReadOf(*primary_)->revision(); });
  }
  void Fail() {
    primary_->FailSnapshots();
    primary_->FailCommits();
  }
  std::string DumpOfMirror() {
    EXPECT_TRUE(HasMirrorCaughtUp());
    const std::string expected = Dump(*primary_);
    Fail();
    EXPECT_EQ(Dump(*store_), expected);
    primary_->Heal();
    EXPECT_TRUE(Within(5s, [&] { return store_->health() == Health::kReady; }));
    return expected;
  }

  TemporaryFolder folder_;
  std::shared_ptr<FaultyStore> primary_;
  std::shared_ptr<MirroredStore> store_;
  std::atomic<int> changes_{0};
};

TEST_F(Mirrored, PrimaryFails_CopyIsRead_CommitsAreRefused) {
  ASSERT_TRUE(HasMirrorCaughtUp());
  EXPECT_EQ(store_->health(), Health::kReady);
  const std::string before = Dump(*store_);
  Fail();
  EXPECT_EQ(Dump(*store_), before);
  EXPECT_EQ(store_->health(), Health::kInaccessible);
  const auto commit = store_->Commit({{}, {{"/a", "9"}}});
  ASSERT_FALSE(commit.ok());
  EXPECT_THAT(commit.error().ToString(), HasSubstr("The cluster database cannot be reached"));
  EXPECT_FALSE(store_->Watch("", 0, 0ms).ok());
  EXPECT_TRUE(Within(5s, [&] { return changes_ >= 1; }));

  primary_->Heal();
  EXPECT_TRUE(Within(5s, [&] { return store_->health() == Health::kReady; }));
  Put(*store_, "/a", "3");
  EXPECT_EQ(TextOf(*store_, "/a"), "3");
  EXPECT_TRUE(Within(5s, [&] { return changes_ >= 3; })) << "at both ends, and once more after each";
}

TEST_F(Mirrored, Read_HealthInaccessible_UsesCopy) {
  ASSERT_TRUE(HasMirrorCaughtUp());
  primary_->ReportHealth(Health::kInaccessible);
  EXPECT_TRUE(Within(5s, [&] { return store_->health() == Health::kInaccessible; }));
  EXPECT_EQ(TextOf(*store_, "/a"), "1");
  EXPECT_FALSE(store_->Commit({{}, {{"/a", "9"}}}).ok());
  primary_->ReportHealth(Health::kReadOnly);
  EXPECT_TRUE(Within(5s, [&] { return store_->health() == Health::kReadOnly; })) << "reads are the primary's again";
}

// There are no reads and no calls of health().
TEST_F(Mirrored, PrimaryFailure_WithoutReaders_IsDetected) {
  ASSERT_TRUE(HasMirrorCaughtUp());
  test::ClearCapturedSyslog();
  primary_->ReportHealth(Health::kInaccessible);
  EXPECT_TRUE(Within(3s, [&] { return changes_ >= 1; }));
  ASSERT_FALSE(test::CapturedSyslog().empty());
  EXPECT_THAT(test::CapturedSyslog().front().text, HasSubstr("The cluster database cannot be reached"));
}

TEST_F(Mirrored, Read_OneValueUnreadable_FailsOnlyThatRead) {
  ASSERT_TRUE(HasMirrorCaughtUp());
  primary_->FailReadsOf("/a");
  EXPECT_FALSE(ReadOf(*store_)->Get("/a").ok());
  EXPECT_EQ(TextOf(*store_, "/b/c"), "2");
  EXPECT_EQ(store_->health(), Health::kReady);
}

// With an empty copy, the cluster would seem to have no guests.
TEST_F(Mirrored, Read_PrimaryFailsBeforeFirstCopy_IsAnError) {
  store_.reset();
  std::filesystem::remove_all(Folder());
  Fail();
  OpenMirror();
  const auto read = store_->Read();
  EXPECT_FALSE(read.ok());
  EXPECT_EQ(store_->health(), Health::kInaccessible);
  primary_->Heal();
  EXPECT_TRUE(Within(5s, [&] { return store_->health() == Health::kReady; }));
  EXPECT_TRUE(HasMirrorCaughtUp());
}

// The copy may be of another database, until it has been compared with the primary.
TEST_F(Mirrored, Read_CopyOfEarlierRun_WaitsForComparison) {
  ASSERT_TRUE(HasMirrorCaughtUp());
  Fail();
  OpenMirror();
  EXPECT_FALSE(store_->Read().ok());
  primary_->Heal();
  EXPECT_TRUE(HasMirrorCaughtUp());
}

TEST_F(Mirrored, Mirror_PrimaryRestoredFromBackup_ComparesValues) {
  ASSERT_TRUE(HasMirrorCaughtUp());
  store_.reset();
  OpenPrimary("/other", 1000);
  Put(*primary_, "/a", "another");
  Put(*primary_, "/b/d", "2");
  ASSERT_EQ(RevisionOf(*primary_, "/a"), 1u) << "the revision that the first one had";
  OpenMirror();
  EXPECT_THAT(DumpOfMirror(), HasSubstr("/a@1=another"));
}

TEST_F(Mirrored, Mirror_OlderPrimary_ResetsCopyToIt) {
  for (int i = 0; i < 50; ++i) Put(*primary_, "/a", std::to_string(i));
  ASSERT_TRUE(HasMirrorCaughtUp());
  store_.reset();
  OpenPrimary("/other", 1000);
  Put(*primary_, "/x", "1");
  OpenMirror();
  EXPECT_EQ(DumpOfMirror(), "1\n/x@1=1\n");
}

TEST_F(Mirrored, Changes_ShortChangeLog_AreAllCopied) {
  store_.reset();
  OpenPrimary("/other", 3);
  OpenMirror();
  std::mt19937 random(7);
  for (int i = 0; i < 400; ++i) {
    const std::string key = "/k/" + std::to_string(random() % 40);
    if (random() % 3 == 0) {
      Erase(*primary_, key);
    } else {
      Put(*primary_, key, std::string(random() % 3000, 'x') + std::to_string(i));
    }
    if (random() % 50 == 0) (void)DumpOfMirror();
  }
  (void)DumpOfMirror();
}

// A watch returns these changes in several batches.
TEST_F(Mirrored, Changes_MoreThanAWatchBatch_AreCopiedAsOneState) {
  ASSERT_TRUE(HasMirrorCaughtUp());
  for (int round = 0; round < 3; ++round) {
    Transaction transaction;
    for (int i = 0; i < 12'000; ++i) {
      transaction.operations.push_back({"/m/" + std::to_string(i), std::to_string(round)});
    }
    ASSERT_TRUE(primary_->Commit(transaction).ok());
  }
  (void)DumpOfMirror();
}

TEST_F(Mirrored, Mirror_DamagedCopy_IsRecreatedAndTheLastTwoAreKept) {
  const auto content = [](const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  for (const char letter : {'x', 'y', 'z'}) {
    ASSERT_TRUE(HasMirrorCaughtUp());
    store_.reset();
    std::ofstream(Folder() + "/data.mdb", std::ios::binary) << std::string(8192, letter);
    test::ClearCapturedSyslog();
    OpenMirror();
    (void)DumpOfMirror();
    const std::string kept = Folder() + ".damaged-1.mdb";
    EXPECT_TRUE(test::SyslogContains("is damaged and is being rebuilt. The damaged one is kept as '" + kept + "': '"));
    EXPECT_EQ(content(kept), std::string(8192, letter));
  }
  EXPECT_EQ(content(Folder() + ".damaged-2.mdb"), std::string(8192, 'y'));
  EXPECT_FALSE(std::filesystem::exists(Folder() + ".damaged-3.mdb"));
}

TEST_F(Mirrored, Mirror_DamagedCopyCannotBeRenamed_IsAnError) {
  ASSERT_TRUE(HasMirrorCaughtUp());
  store_.reset();
  std::ofstream(Folder() + "/data.mdb", std::ios::binary) << std::string(8192, 'x');
  std::filesystem::create_directories(Folder() + ".damaged-1.mdb/full");
  std::filesystem::create_directories(Folder() + ".damaged-2.mdb/full");
  const auto made = MirroredStore::Make(primary_, {.directory = Folder()});
  ASSERT_FALSE(made.ok());
  EXPECT_THAT(made.error().ToString(), HasSubstr("The damaged copy of the cluster database cannot be renamed to '" +
                                                 Folder() + ".damaged-1.mdb': "));
  EXPECT_TRUE(std::filesystem::exists(Folder() + "/data.mdb"));
}

TEST_F(Mirrored, ReadersAndWriters_PrimaryFailsAndRecovers_SeeCompleteStates) {
  ASSERT_TRUE(HasMirrorCaughtUp());
  Transaction first;
  first.operations = {{"/x", "0"}, {"/y", "0"}};
  ASSERT_TRUE(primary_->Commit(first).ok());
  ASSERT_TRUE(HasMirrorCaughtUp());
  std::atomic<bool> is_done{false};
  std::atomic<int> reads{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      while (!is_done) {
        const auto snapshot = store_->Read();
        ASSERT_TRUE(snapshot.ok()) << snapshot.error().ToString();
        const auto x = (*snapshot)->Get("/x");
        const auto y = (*snapshot)->Get("/y");
        ASSERT_TRUE(x.ok() && *x && y.ok() && *y);
        EXPECT_EQ((*x)->text, (*y)->text);
        EXPECT_EQ((*x)->revision, (*y)->revision);
        ++reads;
      }
    });
  }
  int committed = 0;
  for (int i = 1; i < 300; ++i) {
    const std::string text = std::to_string(i);
    Transaction both;
    both.operations = {{"/x", text}, {"/y", text}};
    if (store_->Commit(both).ok()) ++committed;
    if (i % 20 == 0) Fail();
    if (i % 20 == 10) {
      std::this_thread::sleep_for(50ms);
      primary_->Heal();
      std::this_thread::sleep_for(50ms);
    }
  }
  primary_->Heal();
  is_done = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(committed, 50);
  EXPECT_GT(reads, 1000);
  EXPECT_TRUE(Within(5s, [&] { return store_->health() == Health::kReady; }));
  (void)DumpOfMirror();
}

// A folder that is not mounted, or an old one, must not replace the last copy of the right database.
TEST_F(Mirrored, CheckPrimary_EmptyOrOlderDatabase_IsRefused) {
  ASSERT_TRUE(HasMirrorCaughtUp());
  store_.reset();
  EXPECT_TRUE(CheckPrimaryIsNotOlder(*primary_, Folder()).ok()) << "as old as its copy";
  const LmdbOptions small{folder_.path() + "/other", kStoreMapBytes, 10};
  const auto other = OpenLmdbStore(small);
  ASSERT_TRUE(other.ok());
  for (const char* expected : {"an empty one", "an older one"}) {
    const Status refused = CheckPrimaryIsNotOlder(**other, Folder());
    ASSERT_FALSE(refused.ok()) << expected;
    EXPECT_EQ(refused.error().code(), ErrorCode::kConflict);
    EXPECT_THAT(refused.error().ToString(), HasSubstr("remove the folder '" + Folder() + "'"));
    Put(**other, "/a", "1");
  }
  Put(*primary_, "/a", "newer than the copy");
  EXPECT_TRUE(CheckPrimaryIsNotOlder(*primary_, Folder()).ok());
}

TEST_F(Mirrored, CheckPrimary_NoReadableCopy_AcceptsAnyDatabase) {
  ASSERT_TRUE(HasMirrorCaughtUp());
  store_.reset();
  const auto empty = OpenLmdbStore({folder_.path() + "/other", kStoreMapBytes, 10});
  ASSERT_TRUE(empty.ok());
  EXPECT_TRUE(CheckPrimaryIsNotOlder(**empty, folder_.path() + "/no-copy").ok());
  std::ofstream(Folder() + "/data.mdb", std::ios::trunc) << "no database";
  EXPECT_TRUE(CheckPrimaryIsNotOlder(**empty, Folder()).ok());
}

TEST(PrimaryFolder, CheckPrimaryExists_DatabaseGone_IsRefused) {
  const TemporaryFolder folder;
  const std::string primary = folder.path() + "/primary";
  const std::string mirror = folder.path() + "/mirror";
  EXPECT_TRUE(CheckPrimaryExists(primary, mirror).ok()) << "a first start";
  ASSERT_TRUE(OpenLmdbStore({mirror, kStoreMapBytes, 10}).ok());
  const Status refused = CheckPrimaryExists(primary, mirror);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code(), ErrorCode::kUnavailable);
  EXPECT_THAT(refused.error().ToString(), HasSubstr("Mount it"));
  ASSERT_TRUE(OpenLmdbStore({primary, kStoreMapBytes, 10}).ok());
  EXPECT_TRUE(CheckPrimaryExists(primary, mirror).ok());
}

}  // namespace
}  // namespace vexa::store
