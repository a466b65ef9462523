// A host without heartbeats: the states that it, its repositories and its guests have for readers.
#include "host/records/host_liveness.h"

#include <gtest/gtest.h>

#include "host/records/environment.h"
#include "host/records/host_claim_record.h"
#include "host/records/live_state.h"
#include "host/store/key.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/utils.h"

namespace vexa::records {
namespace {

namespace states = VexaCCC::State;
using std::chrono::seconds;
using std::chrono::system_clock;
using VexaCCC::DB::DashCate;

// In the latest state.
Result<HostLiveness> LivenessOf(const std::string& host_id) {
  return records::LivenessOf(Require(Reader::OpenCurrent()), host_id);
}

constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr seconds kStale = kHeartbeatTimeout + seconds(2);

class HostLives : public testing::Test {
 protected:
  void PutHost(seconds age, const char* state = states::Host::running) {
    host_.PutText("host", kHost, R"({"name":"beta","state":")" + std::string(state) + "\"}");
    const auto now = std::chrono::duration_cast<seconds>(system_clock::now().time_since_epoch());
    seen_ = system_clock::time_point(now - age);
    Put(store::MakeKey({"dash", "host", kHost, "seen"}), R"({"time":)" + std::to_string((now - age).count()) + "}");
  }
  void PutGuest(const std::string& state, const std::string& host_id = kHost) {
    host_.PutText("guest", kGuest, R"({"name":"web-1","host_id":")" + host_id + R"(","repository_id":"pool"})");
    Put(LiveStateKey(kGuest), '"' + state + '"');
  }
  void Put(const std::string& key, const std::string& text) {
    (void)Require(host_.store().Commit({{}, {{key, text}}}));
  }
  static std::string Get(const DashCate& category, const std::string& id) {
    std::string text = "unread";
    EXPECT_EQ(VexaCCC::DB::Dashboard(category, id).Get(text, VexaCCC::DB::_k::state), 0);
    Json::Value record;
    EXPECT_EQ(VexaCCC::DB::Dashboard(category, id).Get(record, VexaCCC::DB::_k::object), 0);
    EXPECT_EQ(record["state"], Json::Value(text)) << "the record and its key say the same";
    return text;
  }

  test::TestHost host_;
  system_clock::time_point seen_;
};

TEST_F(HostLives, Liveness_HeartbeatAge_DecidesIsGone) {
  EXPECT_FALSE(Require(LivenessOf(kHost)).is_gone) << "nothing is known of it";
  PutHost(seconds(0));
  EXPECT_FALSE(Require(LivenessOf(kHost)).is_gone);
  PutHost(kHeartbeatTimeout - seconds(2));
  EXPECT_FALSE(Require(LivenessOf(kHost)).is_gone);
  PutHost(kStale);
  EXPECT_TRUE(Require(LivenessOf(kHost)).is_gone);
  EXPECT_EQ(Require(LivenessOf(kHost)).last_heartbeat, seen_);
  PutHost(-kStale);
  EXPECT_TRUE(Require(LivenessOf(kHost)).is_gone) << "a clock that is far ahead";
  PutHost(seconds(0), states::Host::inaccessible);
  EXPECT_TRUE(Require(LivenessOf(kHost)).is_gone) << "it has said that it leaves";
  EXPECT_EQ(Require(LivenessOf(kHost)).last_heartbeat, seen_);
}

TEST_F(HostLives, HostLife_DamagedRecords_CountAsAbsent) {
  PutHost(kStale);
  Put(store::MakeKey({"dash", "host", kHost, "seen"}), "{");
  EXPECT_FALSE(Require(LivenessOf(kHost)).is_gone);
  Put(store::MakeKey({"dash", "host", kHost, "seen"}), R"({"time":"now"})");
  EXPECT_TRUE(Require(LivenessOf(kHost)).is_gone);
}

TEST_F(HostLives, HostLife_ThisHost_IsNeverGone) {
  const std::string own = CurrentEnvironment()->host_id;
  host_.PutText("host", own, R"({"state":")" + std::string(states::Host::inaccessible) + "\"}");
  Put(store::MakeKey({"dash", "host", own, "seen"}), R"({"time":1})");
  EXPECT_FALSE(Require(LivenessOf(own)).is_gone);
}

TEST_F(HostLives, HostLife_ForgottenHost_IsGone) {
  Json::Value claim(Json::objectValue);
  ForgetClaim(claim, {"alice", system_clock::now()});
  Put(HostClaimKey(kHost), claim.toStyledString());
  EXPECT_TRUE(Require(LivenessOf(kHost)).is_gone);
}

TEST_F(HostLives, HostGone_HostAndRepositories_AreInaccessible) {
  host_.PutText("repository", "pool",
                R"({"host_id":")" + std::string(kHost) + R"(","state":")" + states::Repo::online + "\"}");
  host_.PutText("repository", "own", R"({"host_id":"","state":")" + std::string(states::Repo::online) + "\"}");
  PutHost(seconds(0), states::Host::network_warn);
  EXPECT_EQ(Get(DashCate::Host, kHost), states::Host::network_warn);
  EXPECT_EQ(Get(DashCate::Repository, "pool"), states::Repo::online);
  PutHost(kStale, states::Host::network_warn);
  EXPECT_EQ(Get(DashCate::Host, kHost), states::Host::inaccessible);
  EXPECT_EQ(Get(DashCate::Repository, "pool"), states::Repo::inaccessible);
  EXPECT_EQ(Get(DashCate::Repository, "own"), states::Repo::online);
}

struct GuestRow {
  const char* stored;
  const char* shown;  // while the host is gone
};

TEST_F(HostLives, HostGone_Guests_AreInaccessibleUnlessOff) {
  const GuestRow rows[] = {{states::Guest::running, states::Guest::inaccessible},
                           {states::Guest::booting, states::Guest::inaccessible},
                           {states::Guest::shutting_down, states::Guest::inaccessible},
                           {states::Guest::moving, states::Guest::inaccessible},
                           {states::Guest::stor_migrating, states::Guest::inaccessible},
                           {states::Guest::freeze, states::Guest::inaccessible},
                           {states::Guest::saved, states::Guest::inaccessible},
                           {states::Guest::shutdown, states::Guest::shutdown},
                           {states::Guest::crashed, states::Guest::crashed}};
  for (const GuestRow& row : rows) {
    PutGuest(row.stored);
    for (const bool is_gone : {false, true}) {
      PutHost(is_gone ? kStale : seconds(0));
      const char* const expected = is_gone ? row.shown : row.stored;
      EXPECT_EQ(Get(DashCate::Guest, kGuest), expected) << row.stored;
      Json::Value conf;
      EXPECT_EQ(vgConfGet(kGuest, conf), 0);
      EXPECT_EQ(conf["state"], Json::Value(expected)) << row.stored;
      std::string state;
      EXPECT_EQ(vgConfStateGet(kGuest, state), 0);
      EXPECT_EQ(state, expected) << row.stored;
    }
  }
}

TEST_F(HostLives, HostGone_Guest_HasErrorSeverity) {
  PutHost(kStale);
  PutGuest(states::Guest::running);
  Json::Value conf;
  ASSERT_EQ(vgConfGet(kGuest, conf), 0);
  std::string state = conf["state"].asString();
  std::string shown;
  std::string type;
  std::string reason;
  VexaVirtualization::GetGuestStateType(conf, {}, kGuest, state, shown, type, reason);
  EXPECT_EQ(shown, "inaccessible");
  EXPECT_EQ(type, "error");
}

TEST_F(HostLives, HostGone_GuestWithoutHost_KeepsState) {
  PutHost(kStale);
  PutGuest(states::Guest::running, "");
  EXPECT_EQ(Get(DashCate::Guest, kGuest), states::Guest::running);
}

}  // namespace
}  // namespace vexa::records
