// The LMDB store while another process holds its lock for writers, or the slot of a reader.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "host/base/descriptor.h"
#include "host/store/lmdb_store.h"
#include "host/store/mirrored_store.h"
#include "tests/contract/store_contract.h"
#include "tests/contract/store_worker.h"
#include "tests/support/matchers.h"
#include "tests/support/syslog_capture.h"

namespace vexa::store {
namespace {

using namespace std::chrono_literals;

// Every commit has to begin within this time, also where it must succeed on a busy machine.
constexpr std::chrono::milliseconds kLockWait{3000};

bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

class HeldStore : public testing::Test {
 protected:
  void Open(std::chrono::milliseconds commit_timeout) {
    LmdbOptions options;
    options.directory = folder_.path();
    options.commit_timeout = commit_timeout;
    options.reader_check_interval = 20ms;
    auto store = OpenLmdbStore(options);
    ASSERT_TRUE(store.ok()) << store.error().ToString();
    store_ = *store;
    before_ = Put(*store_, "/a", "1");
  }
  void Hold() {
    holder_ = std::make_unique<Worker>(std::vector<std::string>{"stop_in_commit", folder_.path()});
    ASSERT_EQ(holder_->ReadLine(), "holds");
  }
  void ExpectRefused() {
    const Result<Revision> done = store_->Commit({{}, {{"/refused", "1"}}});
    ASSERT_FALSE(done.ok());
    EXPECT_EQ(done.error().code(), ErrorCode::kUnavailable);
    EXPECT_THAT(done.error().ToString(), HasSubstr("The database is held by another process"));
    EXPECT_THAT(done.error().ToString(), HasSubstr("(pid " + std::to_string(holder_->pid()) + ")"));
  }
  void ExpectWorksAgain() {
    EXPECT_TRUE(Eventually([&] { return store_->health() == Health::kReady; }));
    Put(*store_, "/b", "1");
    EXPECT_EQ(TextOf(*store_, "/refused"), "(absent)") << "a commit that was taken back was made later";
  }

  TemporaryFolder folder_;
  std::shared_ptr<Store> store_;
  Revision before_ = 0;
  std::unique_ptr<Worker> holder_;
};

TEST_F(HeldStore, Commit_HolderIsStopped_IsTakenBackUntilItContinues) {
  Open(kLockWait);
  Hold();
  ExpectRefused();
  EXPECT_EQ(store_->health(), Health::kHeld);
  EXPECT_EQ(TextOf(*store_, "/a"), "1") << "reads go on";
  holder_->Signal(SIGCONT);
  EXPECT_EQ(holder_->Wait(), 0);
  ExpectWorksAgain();
  EXPECT_EQ(ReadOf(*store_)->revision(), before_ + 2) << "the holder's commit and one of this process";
}

TEST_F(HeldStore, Commit_HolderIsKilled_WorksAgain) {
  Open(kLockWait);
  Hold();
  ExpectRefused();
  holder_->Kill();
  holder_->Wait();
  ExpectWorksAgain();
  EXPECT_EQ(TextOf(*store_, "/holder"), "(absent)");
}

// 64 that wait for their time each would take more than three minutes.
TEST_F(HeldStore, Commits_AfterTheFirst_AreRefusedImmediately) {
  Open(kLockWait);
  Hold();
  ExpectRefused();
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 64; ++i) ExpectRefused();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
  holder_->Signal(SIGCONT);
  ExpectWorksAgain();
}

TEST_F(HeldStore, Commits_FromManyThreads_AreAllTakenBack) {
  Open(kLockWait);
  Hold();
  std::vector<std::thread> threads;
  threads.reserve(64);
  for (int i = 0; i < 64; ++i) threads.emplace_back([&] { ExpectRefused(); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(store_->health(), Health::kHeld);
  holder_->Signal(SIGCONT);
  ExpectWorksAgain();
}

TEST_F(HeldStore, LimitLockWaits_CommitIsWaiting_IsTakenBack) {
  Open(std::chrono::hours(1));
  Hold();
  std::thread waiting([&] { ExpectRefused(); });
  std::this_thread::sleep_for(100ms);  // maybe it waits by now; the limit counts for it in either case
  store_->LimitLockWaits(kLockWait);
  waiting.join();
  holder_->Signal(SIGCONT);
  ExpectWorksAgain();
}

// When it begins to wait, the thread is not waiting for the lock yet.
TEST_F(HeldStore, LimitLockWaits_BeforeTheLockIsTaken_LimitsLaterCommits) {
  Open(std::chrono::hours(1));
  store_->LimitLockWaits(kLockWait);
  Hold();
  ExpectRefused();
  holder_->Signal(SIGCONT);
  ExpectWorksAgain();
}

TEST_F(HeldStore, LimitLockWaits_OfMirroredStore_LimitsDatabaseAndCopy) {
  const std::string copy = folder_.path() + "-copy";
  Open(std::chrono::hours(1));
  auto mirrored = MirroredStore::Make(store_, {.directory = copy});
  ASSERT_TRUE(mirrored.ok()) << mirrored.error().ToString();
  ASSERT_TRUE(Eventually([&] { return (*mirrored)->mirrored_revision() == before_; }));
  (*mirrored)->LimitLockWaits(kLockWait);

  Worker copy_holder({"stop_in_commit", copy});
  ASSERT_EQ(copy_holder.ReadLine(), "holds");
  before_ = Put(*store_, "/a", "1");
  const std::string limited =
      "(pid " + std::to_string(copy_holder.pid()) + ") for more than " + std::to_string(kLockWait.count()) + " ms.";
  EXPECT_TRUE(Eventually([&] { return test::SyslogContains(limited); })) << "the copy";

  Hold();
  store_ = *mirrored;
  ExpectRefused();
  holder_->Kill();
  std::filesystem::remove_all(copy);
}

TEST_F(HeldStore, Store_ClosedWhileHeld_ReturnsAndCanBeOpenedAgain) {
  Open(kLockWait);
  Hold();
  ExpectRefused();
  store_.reset();
  holder_->Kill();
  holder_->Wait();
  Open(30s);
  ExpectWorksAgain();
}

// A process that was stopped while it opened the store has this lock.
TEST_F(HeldStore, Open_AnotherProcessDoesNotFinishOpening_IsRefused) {
  const Descriptor folder(::open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::flock(folder.get(), LOCK_EX), 0);
  const auto refused = OpenLmdbStore({folder_.path()});
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code(), ErrorCode::kUnavailable);
  EXPECT_THAT(refused.error().ToString(), HasSubstr("Another process is opening the store"));
}

// A killed reader's slot keeps every page that has been used since, until somebody frees it.
TEST_F(HeldStore, ReaderSlot_OfKilledProcess_IsFreed) {
  Open(30s);
  const auto size_after_commits = [&] {
    for (int i = 0; i < 30; ++i) Put(*store_, "/large", std::string(100'000, static_cast<char>('a' + i % 20)));
    return std::filesystem::file_size(folder_.path() + "/data.mdb");
  };
  size_after_commits();
  Worker reader({"hold_snapshot", folder_.path()});
  ASSERT_EQ(reader.ReadLine(), "holds");
  const auto size = size_after_commits();
  EXPECT_GT(size_after_commits(), size) << "a living reader keeps its pages";
  reader.Kill();
  reader.Wait();
  EXPECT_TRUE(Eventually([&] { return size_after_commits() == size_after_commits(); })) << "the file keeps growing";
}

}  // namespace
}  // namespace vexa::store
