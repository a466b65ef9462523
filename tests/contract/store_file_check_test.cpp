// A store whose folder is moved away, replaced, unreadable or hangs, while its memory map still works.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <future>
#include <thread>

#include "host/store/lmdb_store.h"
#include "host/store/store_file_check.h"
#include "tests/contract/store_contract.h"
#include "tests/support/matchers.h"

namespace vexa::store {
namespace {

using namespace std::chrono_literals;

// Returns the time until `condition` was true; 20 s or more when it was not.
template <class Condition>
std::chrono::milliseconds TimeUntil(const Condition& condition) {
  const auto start = std::chrono::steady_clock::now();
  while (!condition() && std::chrono::steady_clock::now() - start < 20s) std::this_thread::sleep_for(10ms);
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

class LostStoreFolder : public testing::Test {
 protected:
  void SetUp() override {
    auto store = OpenLmdbStore({directory_, kStoreMapBytes, 1000});
    ASSERT_TRUE(store.ok()) << store.error().ToString();
    store_ = *store;
    Put(*store_, "/a", "1");
  }

  void ExpectLost(const char* reason) {
    EXPECT_LT(TimeUntil([&] { return store_->health() == Health::kInaccessible; }), 20s);
    const auto read = store_->Read();
    ASSERT_FALSE(read.ok());
    EXPECT_EQ(read.error().code(), ErrorCode::kUnavailable);
    EXPECT_THAT(read.error().ToString(), HasSubstr(reason));
    const auto commit = store_->Commit({{}, {{"/b", "1"}}});
    ASSERT_FALSE(commit.ok());
    EXPECT_EQ(commit.error().code(), ErrorCode::kUnavailable);
    EXPECT_FALSE(store_->Watch("", 0, 0ms).ok());
  }

  void ExpectRecovered() {
    EXPECT_LT(TimeUntil([&] { return store_->health() == Health::kReady; }), 20s);
    EXPECT_EQ(TextOf(*store_, "/a"), "1");
    EXPECT_EQ(TextOf(*store_, "/b"), "(absent)");
    Put(*store_, "/c", "1");
  }

  TemporaryFolder folder_;
  const std::string directory_ = folder_.path() + "/store";
  const std::string moved_directory_ = folder_.path() + "/elsewhere";
  std::shared_ptr<Store> store_;
};

TEST_F(LostStoreFolder, FolderMovedAway_IsLostUntilMovedBack) {
  std::filesystem::rename(directory_, moved_directory_);
  ExpectLost("is missing");
  std::filesystem::rename(moved_directory_, directory_);
  ExpectRecovered();
}

TEST_F(LostStoreFolder, FileRemoved_IsLost) {
  std::filesystem::remove(directory_ + "/data.mdb");
  ExpectLost("is missing");
}

// Another database has revisions of its own, so it must not be used instead.
TEST_F(LostStoreFolder, FolderReplaced_IsLostUntilOriginalIsBack) {
  std::filesystem::rename(directory_, moved_directory_);
  std::filesystem::copy(moved_directory_, directory_);
  ExpectLost("has been replaced by another file");
  std::filesystem::remove_all(directory_);
  std::filesystem::rename(moved_directory_, directory_);
  ExpectRecovered();
}

TEST_F(LostStoreFolder, FolderReplacedByFile_IsLost) {
  std::filesystem::rename(directory_, moved_directory_);
  std::ofstream(directory_) << "x";
  ExpectLost("is missing");
}

TEST_F(LostStoreFolder, FileCutShort_IsLost) {
  const std::string other = folder_.path() + "/other";
  auto opened = OpenLmdbStore({other, kStoreMapBytes, 1000});
  ASSERT_TRUE(opened.ok());
  // Nothing is read from this map afterwards, because access to the removed pages would end the process.
  ASSERT_EQ(::truncate((other + "/data.mdb").c_str(), 100), 0);
  EXPECT_LT(TimeUntil([&] { return (*opened)->health() == Health::kInaccessible; }), 20s);
  EXPECT_FALSE((*opened)->Read().ok());
}

// A snapshot that was taken before remains valid.
TEST_F(LostStoreFolder, OpenSnapshot_StaysReadable) {
  const auto snapshot = ReadOf(*store_);
  std::filesystem::rename(directory_, moved_directory_);
  ExpectLost("is missing");
  EXPECT_EQ(snapshot->Get("/a").value()->text, "1");
  std::filesystem::rename(moved_directory_, directory_);
  ExpectRecovered();
}

TEST(StoreFileCheck, PlaceCheck_Fails_IsRetriedAndRecovers) {
  std::atomic<int> checks{0};
  std::atomic<bool> fails{false};
  const StoreFileCheck file_check("/none", {}, [&]() -> Status {
    ++checks;
    if (fails) return SystemError(ErrorCode::kUnavailable, "no", EIO);
    return {};
  });
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(file_check.Check().ok());
  EXPECT_EQ(checks, 1) << "once a second, however many callers";
  fails = true;
  EXPECT_LT(TimeUntil([&] { return !file_check.Check().ok(); }), 20s);
  EXPECT_EQ(file_check.Check().error().code(), ErrorCode::kUnavailable);
  fails = false;
  EXPECT_LT(TimeUntil([&] { return file_check.Check().ok(); }), 20s);
}

// A disk that does not respond blocks one thread; the others get an error.
TEST(StoreFileCheck, PlaceCheck_Hangs_CountsAsFailed) {
  std::promise<void> began;
  std::promise<void> release;
  int checks = 0;
  const StoreFileCheck file_check("/none", {}, [&]() -> Status {
    if (++checks != 2) return {};
    began.set_value();
    release.get_future().wait();
    return {};
  });
  EXPECT_TRUE(file_check.Check().ok());
  std::this_thread::sleep_for(1100ms);
  std::thread checking([&] { EXPECT_TRUE(file_check.Check().ok()); });
  began.get_future().wait();
  EXPECT_TRUE(file_check.Check().ok()) << "other threads are not blocked";
  EXPECT_LT(TimeUntil([&] { return !file_check.Check().ok(); }), 20s);
  EXPECT_THAT(file_check.Check().error().ToString(), HasSubstr("does not respond"));
  release.set_value();
  checking.join();
  EXPECT_TRUE(file_check.Check().ok());
}

}  // namespace
}  // namespace vexa::store
