// Revoking certificates when the clock of this host may be wrong.
#include "host/cluster/revocation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "host/records/host_membership.h"
#include "host/store/key.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"

namespace vexa::cluster {
namespace {

using std::chrono::hours;
using std::chrono::system_clock;

constexpr char kOwn[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr char kOther[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e9";

class Revocation : public testing::Test {
 protected:
  Revocation() {
    Put(records::HostClaimKey(kOther), "{}");
    PutHeartbeat(kOwn, system_clock::now());
  }
  void Put(const std::string& key, const std::string& text) {
    (void)Require(host_.store().Commit({{}, {{key, text}}}));
  }
  void PutHeartbeat(const std::string& host, system_clock::time_point time) {
    Put(store::MakeKey({"dash", "host", host, "object"}), "{}");
    Put(store::MakeKey({"dash", "host", host, "seen"}),
        R"({"time":)" + std::to_string(system_clock::to_time_t(time)) + "}");
  }
  Status Revoke(std::chrono::milliseconds wait) { return RevokeHost(host_.store(), {kOther, kOwn, "root", wait}); }
  static bool Accepts(system_clock::time_point issued) {
    return Require(records::MembershipOf(Require(records::Reader::OpenCurrent()), kOther)).Accepts(issued);
  }

  test::TestHost host_;
};

TEST_F(Revocation, Done_RefusesWhatExists_AndAcceptsWhatIsMadeNext) {
  PutHeartbeat(kOther, system_clock::now());
  const auto issued_before = std::chrono::floor<std::chrono::seconds>(system_clock::now());
  ASSERT_TRUE(Revoke(std::chrono::seconds(30)).ok());
  EXPECT_FALSE(Accepts(issued_before));
  EXPECT_TRUE(Accepts(std::chrono::floor<std::chrono::seconds>(system_clock::now())));
}

TEST_F(Revocation, OtherHostIsGoneForHours_IsDone) {
  PutHeartbeat(kOther, system_clock::now() - hours(50));
  EXPECT_TRUE(Revoke(std::chrono::milliseconds(200)).ok());
  EXPECT_FALSE(Accepts(system_clock::now() - hours(1)));
}

// Otherwise the certificates that are made next would be refused for as long as the clock is ahead.
TEST_F(Revocation, OtherHostLivesHoursBehind_IsRefused) {
  PutHeartbeat(kOther, system_clock::now() - hours(3));
  std::atomic<bool> stop = false;
  std::thread heartbeats([&] {
    while (!stop) {
      PutHeartbeat(kOwn, system_clock::now());
      PutHeartbeat(kOther, system_clock::now() - hours(2));
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  const Status done = Revoke(std::chrono::seconds(30));
  stop = true;
  heartbeats.join();
  ASSERT_FALSE(done.ok());
  EXPECT_EQ(done.error().code(), ErrorCode::kDenied);
  EXPECT_TRUE(Accepts(system_clock::now() - hours(1))) << "nothing has been revoked";
}

TEST_F(Revocation, ClockIsALittleBehind_RefusesWhatExists) {
  const auto heartbeat = std::chrono::floor<std::chrono::seconds>(system_clock::now()) + std::chrono::minutes(30);
  PutHeartbeat(kOther, heartbeat);
  ASSERT_TRUE(Revoke(std::chrono::seconds(30)).ok());
  EXPECT_FALSE(Accepts(heartbeat)) << "made in the second of the heartbeat";
  EXPECT_TRUE(Accepts(heartbeat + std::chrono::seconds(1)));
}

TEST_F(Revocation, ClockIsBehindTheOneThatIssued_RefusesWhatTheHostUses) {
  PutHeartbeat(kOther, system_clock::now());
  const auto issued = std::chrono::floor<std::chrono::seconds>(system_clock::now()) + std::chrono::minutes(50);
  Put(store::MakeKey({"dash", "host", kOther, "object"}),
      R"({"certificate":{"issued":)" + std::to_string(system_clock::to_time_t(issued)) + "}}");
  ASSERT_TRUE(Revoke(std::chrono::seconds(30)).ok());
  EXPECT_FALSE(Accepts(issued));
  EXPECT_TRUE(Accepts(issued + std::chrono::seconds(1)));
}

TEST_F(Revocation, DamagedOrImpossibleRecord_IsRevokedByTheClock) {
  for (const char* record : {"damaged", "[]", R"({"certificate":{"issued":"x"}})", R"({"certificate":{"issued":-5}})",
                             R"({"certificate":{"issued":9223372036854775807}})"}) {
    PutHeartbeat(kOther, system_clock::now());
    Put(store::MakeKey({"dash", "host", kOther, "object"}), record);
    const auto issued_before = std::chrono::floor<std::chrono::seconds>(system_clock::now());
    ASSERT_TRUE(Revoke(std::chrono::seconds(30)).ok()) << record;
    EXPECT_FALSE(Accepts(issued_before)) << record;
  }
}

// Otherwise certificates that exist would look as if they were made after the revocation.
TEST_F(Revocation, ClockIsHoursBehind_IsRefused) {
  PutHeartbeat(kOther, system_clock::now() + hours(2));
  const Status done = Revoke(std::chrono::seconds(30));
  ASSERT_FALSE(done.ok());
  EXPECT_EQ(done.error().code(), ErrorCode::kDenied);
  EXPECT_EQ(done.error().ToString(),
            "The clock of this host is more than an hour behind the last heartbeat of the host '" +
                std::string(kOther) + "'. Set the clock that is wrong, or remove that host if it is gone for good");
  EXPECT_TRUE(Accepts(system_clock::now() - hours(1))) << "nothing has been revoked";
}

}  // namespace
}  // namespace vexa::cluster
