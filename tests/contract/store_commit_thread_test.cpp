// Updates that meet in the queue of the thread that writes to a store.
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include "host/store/lmdb_keyspace.h"
#include "tests/contract/store_contract.h"
#include "tests/support/matchers.h"

namespace vexa::store {
namespace {

using namespace std::chrono_literals;

// Every update has to begin within this time, also where it must succeed on a busy machine.
constexpr std::chrono::milliseconds kWait{3000};

class CommitThreadTest : public testing::Test {
 protected:
  void Open(std::size_t map_bytes, std::chrono::milliseconds commit_timeout) {
    LmdbOptions options;
    options.directory = folder_.path();
    options.map_bytes = map_bytes;
    options.commit_timeout = commit_timeout;
    auto opened = LmdbKeyspace::Open(options);
    ASSERT_TRUE(opened.ok()) << opened.error().ToString();
    keyspace_ = std::move(*opened);
  }
  Status Put(const std::string& key, const std::string& text) {
    return keyspace_->Update([&](KeyspaceWriter& writer) {
      return writer.Apply(writer.revision() + 1, std::vector<Operation>{{key, text}});
    });
  }
  // Keeps the thread inside of an update until Release().
  void Occupy() {
    occupant_ = std::async(std::launch::async, [this] {
      return keyspace_->Update([this](KeyspaceWriter&) -> Status {
        inside_.set_value();
        released_.get_future().wait();
        return {};
      });
    });
    inside_.get_future().wait();
  }
  void Release() {
    released_.set_value();
    EXPECT_TRUE(occupant_.get().ok());
  }
  std::string TextOf(const std::string& key) const {
    const auto snapshot = keyspace_->Read();
    EXPECT_TRUE(snapshot.ok());
    const auto value = (*snapshot)->Get(key);
    return value.ok() && *value ? std::string((*value)->text) : "(absent)";
  }

  TemporaryFolder folder_;
  std::unique_ptr<LmdbKeyspace> keyspace_;
  std::promise<void> inside_;
  std::promise<void> released_;
  std::future<Status> occupant_;
};

TEST_F(CommitThreadTest, Update_AnotherDoesNotEnd_IsTakenBack) {
  Open(std::size_t{64} << 20, kWait);
  Occupy();
  const Status late = Put("/late", "1");
  ASSERT_FALSE(late.ok());
  EXPECT_EQ(late.error().code(), ErrorCode::kUnavailable);
  EXPECT_THAT(late.error().ToString(), HasSubstr("The database is too slow"));
  Release();
  EXPECT_TRUE(Put("/next", "1").ok());
  EXPECT_EQ(TextOf("/late"), "(absent)");
  EXPECT_EQ(keyspace_->health(), Health::kReady);
}

// For a stop: its limit is for locks of other processes.
TEST_F(CommitThreadTest, LimitLockWaits_UpdateQueuesBehindAnother_KeepsItsTime) {
  Open(std::size_t{64} << 20, std::chrono::hours(1));
  Occupy();
  auto queued = std::async(std::launch::async, [&] { return Put("/queued", "1"); });
  keyspace_->LimitLockWaits(kWait);
  auto late = std::async(std::launch::async, [&] { return Put("/late", "1"); });
  std::this_thread::sleep_for(kWait + 500ms);
  Release();
  EXPECT_TRUE(queued.get().ok());
  EXPECT_TRUE(late.get().ok());
}

TEST_F(CommitThreadTest, Update_BodyThrows_ChangesNothing) {
  Open(std::size_t{64} << 20, 30s);
  const Status thrown = keyspace_->Update([](KeyspaceWriter& writer) -> Status {
    EXPECT_TRUE(writer.Apply(writer.revision() + 1, std::vector<Operation>{{"/thrown", "1"}}).ok());
    throw std::runtime_error("out of luck");
  });
  ASSERT_FALSE(thrown.ok());
  EXPECT_EQ(thrown.error().code(), ErrorCode::kInternal);
  EXPECT_THAT(thrown.error().ToString(), HasSubstr("out of luck"));
  EXPECT_TRUE(Put("/next", "1").ok());
  EXPECT_EQ(TextOf("/thrown"), "(absent)");
}

TEST_F(CommitThreadTest, Updates_OneFailsBeforeItWrites_FailsAlone) {
  Open(std::size_t{64} << 20, 30s);
  Occupy();
  auto first = std::async(std::launch::async, [&] { return Put("/first", "1"); });
  auto failing = std::async(std::launch::async, [&] {
    return keyspace_->Update([](KeyspaceWriter&) -> Status { return Error(ErrorCode::kConflict, "no"); });
  });
  auto last = std::async(std::launch::async, [&] { return Put("/last", "1"); });
  std::this_thread::sleep_for(100ms);  // so that they share a transaction, mostly
  Release();
  EXPECT_TRUE(first.get().ok());
  EXPECT_TRUE(last.get().ok());
  const Status failed = failing.get();
  ASSERT_FALSE(failed.ok());
  EXPECT_EQ(failed.error().code(), ErrorCode::kConflict);
  EXPECT_EQ(TextOf("/first") + TextOf("/last"), "11");
}

TEST_F(CommitThreadTest, Updates_OneIsTooLarge_FailsAlone) {
  Open(std::size_t{1} << 20, 30s);
  Occupy();
  auto first = std::async(std::launch::async, [&] { return Put("/first", "1"); });
  auto large = std::async(std::launch::async, [&] { return Put("/large", std::string(2'000'000, 'x')); });
  auto last = std::async(std::launch::async, [&] { return Put("/last", "1"); });
  std::this_thread::sleep_for(100ms);
  Release();
  EXPECT_TRUE(first.get().ok());
  EXPECT_TRUE(last.get().ok());
  const Status refused = large.get();
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code(), ErrorCode::kNoSpace);
  EXPECT_EQ(TextOf("/first") + TextOf("/last"), "11");
  EXPECT_EQ(TextOf("/large"), "(absent)");
}

}  // namespace
}  // namespace vexa::store
