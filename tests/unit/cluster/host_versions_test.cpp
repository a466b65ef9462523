// The version states of hosts.
#include <gtest/gtest.h>

#include <chrono>

#include "host/cluster/host_record.h"
#include "host/cluster/versions.h"
#include "host/store/key.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::cluster {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;
using test::TestHost;
using Map = std::map<std::string, std::string>;
namespace states = VexaCCC::State::Version;

std::string StateOfVersion(const std::string& version, const std::string& highest) {
  return VersionStates({{"host", {version, {}}}, {"other", {highest, {}}}})["host"];
}

TEST(Version, Text_IsThreeNumbers) {
  EXPECT_EQ(ParseVersion("1.20.300"), (Version{1, 20, 300}));
  EXPECT_EQ(ParseVersion("0.0.0"), (Version{0, 0, 0}));
  EXPECT_EQ(ParseVersion("999999999.0.007"), (Version{999'999'999, 0, 7}));
  const std::string refused[] = {"",
                                 "1",
                                 "1.2",
                                 "1.2.",
                                 ".1.2",
                                 "1..2",
                                 "1.2.3.4",
                                 "1.2.x",
                                 "1.2.3 ",
                                 " 1.2.3",
                                 "1.2.3-1",
                                 "-1.2.3",
                                 "1.2.+3",
                                 "1.2.3\n",
                                 "a.b.c",
                                 "%d.1.1",
                                 {"1.2.3\0", 6},
                                 "1.2.1000000000",
                                 std::string(1 << 20, '1')};
  for (const std::string& text : refused) EXPECT_FALSE(ParseVersion(text)) << text.substr(0, 20);
}

TEST(Version, State_ComparesWithTheHighest) {
  EXPECT_EQ(StateOfVersion("2.3.4", "2.3.4"), states::version_matched);
  EXPECT_EQ(StateOfVersion("2.3.4", "1.9.9"), states::version_matched) << "it is the highest";
  EXPECT_EQ(StateOfVersion("1.9.9", "2.0.0"), states::upgrade_required);
  EXPECT_EQ(StateOfVersion("2.3.4", "2.10.0"), states::upgrade_suggested) << "numbers, not texts";
  EXPECT_EQ(StateOfVersion("2.10.0", "2.9.9"), states::version_matched);
  EXPECT_EQ(StateOfVersion("2.3.4", "2.3.10"), states::package_upgrade_suggested);
  EXPECT_EQ(StateOfVersion("", "2.3.4"), states::unknown);
  EXPECT_EQ(StateOfVersion("2.3", "2.3.4"), states::unknown);
  EXPECT_EQ(StateOfVersion("2.3.4", "9.9"), states::version_matched) << "an unreadable one is not the highest";
}

TEST(Version, Versions_PackageAndHost_MoreUrgentWins) {
  const auto judge = [](const HostVersions& host) {
    return VersionStates({{"host", host}, {"other", {"2.3.4", "5.1.1"}}})["host"];
  };
  EXPECT_EQ(judge({"2.3.4", "5.1.1"}), states::version_matched);
  EXPECT_EQ(judge({"2.3.4", {}}), states::version_matched) << "it publishes none";
  EXPECT_EQ(judge({"2.3.4", "5.1.0"}), states::package_upgrade_suggested);
  EXPECT_EQ(judge({"2.3.4", "5.0.9"}), states::package_upgrade_suggested);
  EXPECT_EQ(judge({"2.3.4", "4.9.9"}), states::package_upgrade_required);
  EXPECT_EQ(judge({"2.2.0", "5.0.0"}), states::upgrade_suggested);
  EXPECT_EQ(judge({"2.2.0", "4.0.0"}), states::package_upgrade_required);
  EXPECT_EQ(judge({"1.2.0", "4.0.0"}), states::upgrade_required);
  EXPECT_EQ(judge({"2.3.4", "5"}), states::unknown);
  EXPECT_EQ(judge({{}, "5.1.1"}), states::unknown);
  EXPECT_TRUE(VersionStates({}).empty());
}

class HostVersionStates : public testing::Test {
 protected:
  // A host whose `seen` time is `age` ago.
  void AddHost(const std::string& id, const std::string& record, seconds age = seconds(0)) {
    host_.PutText("host", id, record);
    const auto time = std::chrono::duration_cast<seconds>(system_clock::now().time_since_epoch()) - age;
    PutSeen(id, R"({"time":)" + std::to_string(time.count()) + "}");
  }
  void PutSeen(const std::string& id, const std::string& text) {
    ASSERT_TRUE(host_.store().Commit({{}, {{store::MakeKey({"dash", "host", id, "seen"}), text}}}).ok());
  }
  void Ask() { result_ = VexaCCC::CCCVersionStateGetAllHosts(all_, reachable_); }

  TestHost host_;
  int result_ = 0;
  Map all_{{"before", "x"}};
  Map reachable_{{"before", "x"}};
};

TEST_F(HostVersionStates, Versions_NoHosts_AreEmptyMaps) {
  Ask();
  EXPECT_EQ(result_, 0);
  EXPECT_TRUE(all_.empty());
  EXPECT_TRUE(reachable_.empty());
}

TEST_F(HostVersionStates, Versions_RegisteredHost_IsReachableUntilItStops) {
  HostFacts facts;
  facts.host_id = "a";
  facts.version = "0.1.0";
  ASSERT_TRUE(RegisterHost(host_.store(), facts, system_clock::now()).ok());
  Ask();
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(all_, (Map{{"a", states::version_matched}}));
  EXPECT_EQ(reachable_, all_);
  ASSERT_TRUE(SignOffHost(host_.store(), "a").ok());
  Ask();
  EXPECT_EQ(all_.size(), 1u);
  EXPECT_TRUE(reachable_.empty());
}

TEST_F(HostVersionStates, Reachable_NoStateOrOldHeartbeat_IsFalse) {
  const std::string up = R"({"state":"host_running","version":"1.0.0"})";
  AddHost("fresh", up, records::kHeartbeatTimeout - seconds(2));
  AddHost("warn", R"({"state":"host_network_warn","version":"1.0.0"})");
  AddHost("old", up, records::kHeartbeatTimeout + seconds(2));
  AddHost("ahead", up, seconds(-3600));
  AddHost("left", R"({"state":"host_inaccessible","version":"1.0.0"})");
  AddHost("stateless", R"({"version":"1.0.0"})");
  host_.PutText("host", "unseen", up);
  int number = 0;
  for (const char* seen : {"{", "[]", "null", "{}", R"({"time":"now"})", R"({"time":1e300})", R"({"time":-1})",
                           R"({"time":9223372036854775807})", R"({"time":-9223372036854775808})"}) {
    const std::string id = "seen" + std::to_string(number++);
    host_.PutText("host", id, up);
    PutSeen(id, seen);
  }
  Ask();
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(all_.size(), 16u);
  EXPECT_EQ(reachable_, (Map{{"fresh", states::version_matched}, {"warn", states::version_matched}}));
}

TEST_F(HostVersionStates, Versions_RecordsWithoutVersion_AreUnknown) {
  AddHost("good", R"({"state":"host_running","version":"1.0.0","package_version":"1.0.0"})");
  for (const char* id : {"none", "../x", "a/b", "%", "n\nl"}) AddHost(id, R"({"state":"host_running"})");
  AddHost("number", R"({"state":"host_running","version":1})");
  AddHost("package", R"({"state":"host_running","version":"1.0.0","package_version":null})");
  AddHost("list", "[]");
  AddHost("damaged", "{");
  PutSeen("recordless", R"({"time":1})");
  Ask();
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(all_.size(), 11u);
  for (const auto& [id, state] : all_) {
    EXPECT_EQ(state, id == "good" ? states::version_matched : states::unknown) << id;
  }
  EXPECT_EQ(reachable_.at("none"), states::unknown) << "it can be reached all the same";
  EXPECT_FALSE(reachable_.contains("damaged"));
}

TEST_F(HostVersionStates, Versions_DatabaseUnreadable_FailsWithEmptyMaps) {
  AddHost("a", R"({"state":"host_running","version":"1.0.0"})");
  const std::string keys[] = {"/dash/host", TestHost::ObjectKey("host", "a"), "/dash/host/a/seen"};
  for (const std::string& key : keys) {
    host_.store().Heal();
    host_.store().FailReadsOf(key);
    all_ = reachable_ = {{"before", "x"}};
    Ask();
    EXPECT_LT(result_, 0) << key;
    EXPECT_TRUE(all_.empty() && reachable_.empty()) << key;
  }
  host_.store().Heal();
  host_.store().FailSnapshots();
  Ask();
  EXPECT_LT(result_, 0);
}

TEST(Version, DifferentMajorNumbers_AreIncompatible) {
  EXPECT_FALSE(AreIncompatible({}));
  EXPECT_FALSE(AreIncompatible({"1.0.0"}));
  EXPECT_FALSE(AreIncompatible({"1.0.0", "1.9.9", "1.0.0"}));
  EXPECT_TRUE(AreIncompatible({"1.0.0", "1.9.9", "2.0.0"}));
  EXPECT_FALSE(AreIncompatible({"1.0.0", "", "2.0"})) << "what cannot be read is not a version";
}

TEST_F(HostVersionStates, Cluster_DifferentMajorVersions_IsFrozenUnlessHostGone) {
  host_.PutText("host", "a", R"({"state":"host_running","version":"1.4.0"})");
  EXPECT_EQ(CCCIsIncompatibleUpgrading(), 0);
  host_.PutText("host", "b", R"({"state":"host_running","version":"2.0.0"})");
  EXPECT_EQ(CCCIsIncompatibleUpgrading(), 1) << "no heartbeat was ever stored: it is not gone";
  PutSeen("b", R"({"time":1})");
  EXPECT_EQ(CCCIsIncompatibleUpgrading(), 0) << "gone";
  const auto now = std::chrono::duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
  PutSeen("b", "{\"time\":" + std::to_string(now) + "}");
  EXPECT_EQ(CCCIsIncompatibleUpgrading(), 1);
  host_.PutText("host", "b", R"({"state":"host_inaccessible","version":"2.0.0"})");
  EXPECT_EQ(CCCIsIncompatibleUpgrading(), 0) << "it has left";
  host_.PutText("host", "b", R"({"state":"host_running","version":"1.9.0"})");
  EXPECT_EQ(CCCIsIncompatibleUpgrading(), 0);
}

}  // namespace
}  // namespace vexa::cluster
