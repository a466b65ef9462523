// High-availability groups.
#include "host/cluster/ha_group.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/support/test_host.h"
#include "webapi/platform/ccc_ha.h"

namespace vexa::cluster {
namespace {

using test::TestHost;
using VexaCCC::HA_FAIL_REASON;
using VexaCCC::haErrorGet;
using VexaCCC::haStateGet;
using VexaCCC::haWarnGet;

class HaGroup : public testing::Test {
 protected:
  void PutGroup(const std::string& text) { host_.PutText("ha_group", "h", text); }
  int Reason() {
    HA_FAIL_REASON reason = static_cast<HA_FAIL_REASON>(77);
    EXPECT_EQ(haErrorGet("h", reason), 0);
    return reason;
  }
  Json::Value Warnings() {
    Json::Value warn("before");
    EXPECT_EQ(haWarnGet("h", warn), 0);
    return warn;
  }
  void ExpectNothing(const std::string& id) {
    std::string state = "before";
    Json::Value warn("before");
    HA_FAIL_REASON reason = static_cast<HA_FAIL_REASON>(77);
    EXPECT_NE(haStateGet(id, state), 0);
    EXPECT_NE(haWarnGet(id, warn), 0);
    EXPECT_NE(haErrorGet(id, reason), 0);
    EXPECT_EQ(state, "before");
    EXPECT_EQ(warn, "before");
    EXPECT_EQ(reason, 77);
  }

  TestHost host_;
};

TEST_F(HaGroup, HaRecord_CompleteRecord_IsRead) {
  PutGroup(R"({"name":"group","state":"hagroup_normal","fail_reason":202,
               "warn":{"ha_warn_host_short_ram":{"h1":true},"ha_warn_host_short_cpu":{},"other":{"h2":1}}})");
  std::string state;
  EXPECT_EQ(haStateGet("h", state), 0);
  EXPECT_EQ(state, VexaCCC::State::HAGroup::normal);
  EXPECT_EQ(Reason(), 202);
  EXPECT_EQ(Warnings(), Parsed(R"({"ha_warn_host_short_ram":{"h1":true}})")) << "only what some host lacks";
}

TEST_F(HaGroup, HaRecord_MissingOrInvalidMembers_GiveNoReasonOrWarning) {
  for (const char* record :
       {"{}", R"({"fail_reason":null,"warn":null,"state":7})", R"({"fail_reason":"202","warn":[1]})",
        R"({"fail_reason":2.5,"warn":"x"})", R"({"fail_reason":99999999999,"warn":{"a":1}})",
        R"({"fail_reason":[],"warn":{"ha_warn_host_short_ram":["h1"]}})",
        R"({"fail_reason":true,"warn":{"ha_warn_host_short_cpu_pin":7}})"}) {
    PutGroup(record);
    EXPECT_EQ(Reason(), 0) << record;
    EXPECT_EQ(Warnings(), Json::Value(Json::objectValue)) << record;
    std::string state = "before";
    EXPECT_NE(haStateGet("h", state), 0) << record;
    EXPECT_EQ(state, "before");
  }
  PutGroup(R"({"fail_reason":-5})");
  EXPECT_EQ(Reason(), -5) << "it may hold any value";
}

TEST_F(HaGroup, HaRecord_MissingOrDamaged_Fails) {
  for (const std::string& id : std::vector<std::string>{
           "none", "", "..", "../ha_group/h", {"h\0", 2}, "h\n", "%68", std::string(1 << 20, 'h')}) {
    ExpectNothing(id);
  }
  for (const char* text : {"{", "[]", "null", "7", ""}) {
    PutGroup(text);
    ExpectNothing("h");
  }
  PutGroup(R"({"state":"hagroup_normal","fail_reason":1})");
  host_.store().FailReadsOf(TestHost::ObjectKey("ha_group", "h"));
  ExpectNothing("h");
  host_.store().Heal();
  host_.store().FailSnapshots();
  ExpectNothing("h");
}

TEST(HaInfo, HaInfo_Hosts_HaveLibraryFormat) {
  const Json::Value group = Parsed(R"({"name":"x","hosts":[
    {"host_id":"a","ha_host_role":["repo_host","running_host"],"ha_warn_host_rocky":-1,
     "ha_warn_host_not_compatible":[401,402],"other":1},
    {"host_id":"b","ha_host_role":["recovery_host",7,null]}]})");
  EXPECT_EQ(HaInfoOf(group), Parsed(R"({"hosts":[
    {"host_id":"a","ha_host_role":["repo_host","running_host"],"ha_warn_host_rocky":-1,
     "ha_warn_host_not_compatible":[401,402]},
    {"host_id":"b","ha_host_role":["recovery_host"]}]})"));
}

TEST(HaInfo, HaInfo_UnexpectedHosts_AreSanitized) {
  const Json::Value none = Parsed(R"({"hosts":[]})");
  for (const char* group : {"{}", "null", "[]", "7", R"("x")", R"({"hosts":null})", R"({"hosts":{"a":{}}})",
                            R"({"hosts":[1,"a",null,[]]})"}) {
    EXPECT_EQ(HaInfoOf(Parsed(group)), none) << group;
  }
  EXPECT_EQ(HaInfoOf(Parsed(R"({"hosts":[{"host_id":7,"ha_host_role":"repo_host","ha_warn_host_rocky":"1",
                                "ha_warn_host_not_compatible":{"401":1}}]})")),
            Parsed(R"({"hosts":[{"host_id":"","ha_host_role":[]}]})"));
  EXPECT_EQ(HaInfoOf(Parsed(R"({"hosts":[{"ha_warn_host_rocky":4294967296,
                                "ha_warn_host_not_compatible":["401",401,9999999999,true]}]})")),
            Parsed(R"({"hosts":[{"host_id":"","ha_host_role":[],"ha_warn_host_not_compatible":[401]}]})"));
}

TEST(HostStateBits, FirstFive_HaveNamesOfTheirOwn) {
  std::set<std::string> names;
  for (int bit = 0; bit < 5; ++bit) names.insert(VexaCCC::DB::HostState::toString(bit));
  EXPECT_EQ(names.size(), 5u);
  EXPECT_FALSE(names.contains(""));
  for (const int bit : {-1, 5, 31, 1 << 30, -2147483647}) EXPECT_EQ(VexaCCC::DB::HostState::toString(bit), "");
}

}  // namespace
}  // namespace vexa::cluster
