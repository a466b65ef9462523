// A store whose folder is moved away, replaced, unreadable or hangs, while the memory map goes on working.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <future>
#include <thread>

#include "host/store/lmdb_store.h"
#include "host/store/store_place.h"
#include "tests/contract/store_contract.h"

namespace vexa::store {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

// Returns how long it took until `is_so`, or more than 20 s.
template <class Condition>
std::chrono::milliseconds TimeUntil(const Condition& is_so) {
  const auto begun = std::chrono::steady_clock::now();
  while (!is_so() && std::chrono::steady_clock::now() - begun < 20s) std::this_thread::sleep_for(10ms);
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begun);
}

class StoreElsewhere : public testing::Test {
 protected:
  void SetUp() override {
    auto store = OpenLmdbStore({place_, kStoreMapBytes, 1000});
    ASSERT_TRUE(store.ok()) << store.error().ToString();
    store_ = *store;
    Put(*store_, "/a", "1");
  }

  void ExpectLost(const char* reason) {
    EXPECT_LT(TimeUntil([&] { return store_->health() == Health::kInaccessible; }), 3s);
    const auto read = store_->Read();
    ASSERT_FALSE(read.ok());
    EXPECT_EQ(read.error().code(), ErrorCode::kUnavailable);
    EXPECT_THAT(read.error().ToString(), HasSubstr(reason));
    const auto commit = store_->Commit({{}, {{"/b", "1"}}});
    ASSERT_FALSE(commit.ok());
    EXPECT_EQ(commit.error().code(), ErrorCode::kUnavailable);
    EXPECT_FALSE(store_->Watch("", 0, 0ms).ok());
  }

  void ExpectBack() {
    EXPECT_LT(TimeUntil([&] { return store_->health() == Health::kReady; }), 3s);
    EXPECT_EQ(TextOf(*store_, "/a"), "1");
    EXPECT_EQ(TextOf(*store_, "/b"), "(absent)");
    Put(*store_, "/c", "1");
  }

  TemporaryFolder folder_;
  const std::string place_ = folder_.path() + "/store";
  const std::string elsewhere_ = folder_.path() + "/elsewhere";
  std::shared_ptr<Store> store_;
};

TEST_F(StoreElsewhere, FolderMovedAway_IsLostUntilItIsBack) {
  std::filesystem::rename(place_, elsewhere_);
  ExpectLost("is gone");
  std::filesystem::rename(elsewhere_, place_);
  ExpectBack();
}

TEST_F(StoreElsewhere, FileRemoved_IsLost) {
  std::filesystem::remove(place_ + "/data.mdb");
  ExpectLost("is gone");
}

// Another one counts its own revisions.
TEST_F(StoreElsewhere, FolderReplaced_IsLostUntilTheFirstIsBack) {
  std::filesystem::rename(place_, elsewhere_);
  std::filesystem::copy(elsewhere_, place_);
  ExpectLost("Another file is in the place");
  std::filesystem::remove_all(place_);
  std::filesystem::rename(elsewhere_, place_);
  ExpectBack();
}

TEST_F(StoreElsewhere, FileInThePlaceOfTheFolder_IsLost) {
  std::filesystem::rename(place_, elsewhere_);
  std::ofstream(place_) << "x";
  ExpectLost("is gone");
}

TEST_F(StoreElsewhere, FileCutShort_IsLost) {
  const std::string other = folder_.path() + "/other";
  auto opened = OpenLmdbStore({other, kStoreMapBytes, 1000});
  ASSERT_TRUE(opened.ok());
  // Nothing is read from this map afterwards: pages that are gone would end the process.
  ASSERT_EQ(::truncate((other + "/data.mdb").c_str(), 100), 0);
  EXPECT_LT(TimeUntil([&] { return (*opened)->health() == Health::kInaccessible; }), 3s);
  EXPECT_FALSE((*opened)->Read().ok());
}

// A snapshot that was taken before is one state for good.
TEST_F(StoreElsewhere, OpenSnapshot_StaysReadable) {
  const auto snapshot = ReadOf(*store_);
  std::filesystem::rename(place_, elsewhere_);
  ExpectLost("is gone");
  EXPECT_EQ(snapshot->Get("/a").value()->text, "1");
  std::filesystem::rename(elsewhere_, place_);
  ExpectBack();
}

TEST(StorePlace, PlaceCheck_Fails_IsRetriedAndRecovers) {
  std::atomic<int> looks{0};
  std::atomic<bool> fails{false};
  const StorePlace place("/none", {}, [&]() -> Status {
    ++looks;
    if (fails) return SystemError(ErrorCode::kUnavailable, "no", EIO);
    return {};
  });
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(place.Check().ok());
  EXPECT_EQ(looks, 1) << "once a second, however many callers";
  fails = true;
  EXPECT_LT(TimeUntil([&] { return !place.Check().ok(); }), 1500ms);
  EXPECT_EQ(place.Check().error().code(), ErrorCode::kUnavailable);
  fails = false;
  EXPECT_LT(TimeUntil([&] { return place.Check().ok(); }), 1000ms);
}

// A disk that does not answer holds one thread, and the others learn it.
TEST(StorePlace, PlaceCheck_Hangs_CountsAsFailed) {
  std::promise<void> began;
  std::promise<void> release;
  int looks = 0;
  const StorePlace place("/none", {}, [&]() -> Status {
    if (++looks != 2) return {};
    began.set_value();
    release.get_future().wait();
    return {};
  });
  EXPECT_TRUE(place.Check().ok());
  std::this_thread::sleep_for(1100ms);
  std::thread looking([&] { EXPECT_TRUE(place.Check().ok()); });
  began.get_future().wait();
  EXPECT_TRUE(place.Check().ok()) << "others go on";
  EXPECT_LT(TimeUntil([&] { return !place.Check().ok(); }), 2s);
  EXPECT_THAT(place.Check().error().ToString(), HasSubstr("does not answer"));
  release.set_value();
  looking.join();
  EXPECT_TRUE(place.Check().ok());
}

}  // namespace
}  // namespace vexa::store
