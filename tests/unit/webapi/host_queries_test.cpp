// Questions to one host about its load, system, volumes, disks and interfaces.
#include "tests/unit/webapi/host_fixture.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using VexaVirtualization::GetNetStat;
using VexaVirtualization::GetSysInfo;
using VexaVirtualization::GetSysUtilization;
using VexaVirtualization::GetVdiskUsage;
using VexaVirtualization::GetVolumeInfo;

class HostQueries : public HostLibrary {
 protected:
  Json::Value out_ = "untouched";
};

constexpr const char* kUtilizationRequest = R"({"api":"VEXA.Entry.Request","version":1,"method":"request",
  "mode":"parallel","compound":[
  {"api":"VEXA.Core.System.Utilization","version":1,"method":"get","resource":["cpu","disk"]},
  {"api":"VEXA.CCC.Cluster.Member","version":1,"method":"utilization_get","resource":["memory"]}]})";

TEST_F(HostQueries, Utilization_Memory_ComesFromMember) {
  Platform().replies["h"] = Success(
      R"({"result":[{"data":{"cpu":{"user_load":3},"memory":{"old":1}}},{"data":{"memory":{"new":2},"cpu":0}}]})");
  EXPECT_TRUE(GetSysUtilization("h", Parsed(R"({"resource":["cpu","disk"],"other":1})"), out_));
  EXPECT_EQ(Text(out_), R"({"cpu":{"user_load":3},"memory":{"new":2}})");
  ExpectSent("h", kUtilizationRequest);
  ExpectNoLine();
}

TEST_F(HostQueries, Utilization_NoResource_SendsNull) {
  for (const char* params : {"{}", "null", "5", R"("x")", "[]"}) {
    Platform().sent.clear();
    (void)GetSysUtilization("h", Parsed(params), out_);
    const Json::Value& item = Platform().sent.at(0).json["compound"][0];
    EXPECT_EQ(Text(item), R"({"api":"VEXA.Core.System.Utilization","method":"get","resource":null,"version":1})");
  }
}

// A caller may keep one variable for what goes in and what comes out.
TEST_F(HostQueries, Query_OutputAliasesParameters_AreReadFirst) {
  Platform().replies["h"] = Success(R"({"result":[{"data":{"cpu":1}},{"data":{"memory":2}}]})");
  out_ = Parsed(R"({"resource":["cpu","disk"]})");
  EXPECT_TRUE(GetSysUtilization("h", out_, out_));
  EXPECT_EQ(Text(out_), R"({"cpu":1,"memory":2})");
  ExpectSent("h", kUtilizationRequest);
  Platform().replies["h"] = Success(R"({"volume":{}})");
  Platform().sent.clear();
  out_ = Parsed(R"({"volume_path":"/v"})");
  EXPECT_TRUE(GetVolumeInfo("h", out_, out_));
  EXPECT_EQ(Text(out_), R"({"volume":{}})");
  EXPECT_EQ(Text(Platform().sent.at(0).json["volume_path"]), R"("/v")");
}

TEST_F(HostQueries, Utilization_NoEntries_SucceedsWithNullMembers) {
  const std::pair<const char*, const char*> rows[] = {
      {"{}", R"({"memory":null})"},
      {"5", R"({"memory":null})"},
      {R"({"result":[]})", R"({"memory":null})"},
      {R"({"result":{"0":{"data":{"a":1}}}})", R"({"memory":null})"},
      {R"({"result":[{"data":{"a":1,"memory":9}}]})", R"({"a":1,"memory":null})"},
      {R"({"result":[{"data":7},{"data":{"memory":2}}]})", R"({"memory":2})"},
      {R"({"result":[{"data":[1]},{"data":{"memory":2}}]})", R"({"memory":2})"},
      {R"({"result":[null,{"success":false,"data":{"memory":2}}]})", R"({"memory":2})"},
  };
  for (const auto& [data, expected] : rows) {
    Platform().replies["h"] = Success(data);
    out_ = Parsed(R"({"before":1})");
    EXPECT_TRUE(GetSysUtilization("h", Json::Value(), out_)) << data;
    EXPECT_EQ(Text(out_), expected) << data;
  }
  ExpectNoLine();
}

TEST_F(HostQueries, Utilization_Fails_KeepsOutputAndLogsLine256) {
  Platform().replies["h"] = Failure(102);
  EXPECT_FALSE(GetSysUtilization("h", Parsed(R"({"resource":["cpu","disk"]})"), out_));
  EXPECT_EQ(out_, "untouched");
  ExpectOnlyLine(LOG_ERR, R"(utils:256 Bad response [{"error":{"code":102},"success":false}]/ request [)" +
                              Text(Parsed(kUtilizationRequest)) + "]");
}

TEST_F(HostQueries, Query_HasFailOfSingleHost_IsIgnored) {
  Platform().replies["h"] = Success(R"({"result":[{"data":{"a":1}},{"data":{"memory":2}}]})");
  Platform().replies["h"]["has_fail"] = true;
  EXPECT_TRUE(GetSysUtilization("h", Json::Value(), out_));
  EXPECT_EQ(Text(out_), R"({"a":1,"memory":2})");
}

TEST_F(HostQueries, SystemInfo_ReturnsDataUnchanged) {
  Platform().replies["h"] = Success(R"({"model":"m","ram":5})");
  EXPECT_TRUE(GetSysInfo("h", out_));
  EXPECT_EQ(Text(out_), R"({"model":"m","ram":5})");
  ExpectSent("h", R"({"api":"VEXA.Core.System","version":1,"method":"info"})");
  ExpectNoLine();
}

TEST_F(HostQueries, SystemInfo_NoData_KeepsOutputAndLogsLine297) {
  Platform().replies["h"] = Parsed(R"({"success":true})");
  EXPECT_FALSE(GetSysInfo("h", out_));
  EXPECT_EQ(out_, "untouched");
  ExpectOnlyLine(LOG_ERR, R"(utils:297 Bad response [{"success":true}]/ request [)"
                          R"({"api":"VEXA.Core.System","method":"info","version":1}])");
}

TEST_F(HostQueries, VolumeInfo_EveryMember_IsSentAsParameter) {
  Platform().replies["h"] = Success(R"({"volume":1})");
  EXPECT_TRUE(GetVolumeInfo("h", Parsed(R"({"volume_path":"/v","additional":[1]})"), out_));
  EXPECT_EQ(Text(out_), R"({"volume":1})");
  ExpectSent("h",
             R"({"api":"VEXA.Core.Storage.Volume","version":1,"method":"get","volume_path":"/v","additional":[1]})");
  ExpectNoLine();
}

TEST_F(HostQueries, VolumeInfo_Fails_KeepsOutputAndLogsLine323) {
  Platform().replies["h"] = Parsed(R"({"success":true,"data":null})");
  EXPECT_FALSE(GetVolumeInfo("h", Parsed("[5]"), out_));
  EXPECT_EQ(out_, "untouched");
  ExpectOnlyLine(LOG_ERR, R"(utils:323 Bad response [{"data":null,"success":true}]/ request [)"
                          R"({"api":"VEXA.Core.Storage.Volume","method":"get","version":1}])");
}

TEST_F(HostQueries, Log_PercentSignsInReply_AreKept) {
  Platform().replies["h"] = Parsed(R"({"success":false,"error":"%s%n%d\n"})");
  EXPECT_FALSE(GetSysInfo("h", out_));
  ExpectOnlyLine(LOG_ERR, R"(utils:297 Bad response [{"error":"%s%n%d\n","success":false}]/ request [)"
                          R"({"api":"VEXA.Core.System","method":"info","version":1}])");
}

TEST_F(HostQueries, DiskUsage_SeveralDisks_IsPerDiskAndInTotal) {
  Platform().replies["h"] = Success(R"({"vdisks":[{"vdisk_id":"a","total_size":10,"used_size":4},
    {"vdisk_id":"b","total_size":18446744073709551600,"used_size":5000000000}]})");
  out_ = Parsed(R"({"kept":true})");
  GetVdiskUsage("guest", "h", out_);
  EXPECT_EQ(Text(out_), R"({"a":{"size":10,"used":4},"b":{"size":18446744073709551600,"used":5000000000},)"
                        R"("kept":true,"total_size":18446744073709551610,"total_used":5000000004})");
  for (const char* name : {"total_size", "total_used"}) EXPECT_EQ(out_[name].type(), Json::uintValue);
  for (const char* name : {"size", "used"}) EXPECT_EQ(out_["a"][name].type(), Json::uintValue);
  ExpectSent("h", R"({"api":"VEXA.CCC.VDisk","version":1,"method":"list","guest_id":"guest"})");
  ExpectNoLine();
}

TEST_F(HostQueries, DiskUsage_SumOverflows_WrapsAround) {
  Platform().replies["h"] = Success(R"({"vdisks":[{"vdisk_id":"a","total_size":18446744073709551615},
    {"vdisk_id":"b","total_size":2}]})");
  GetVdiskUsage("guest", "h", out_);
  EXPECT_EQ(out_["total_size"].asUInt64(), 1u);
}

TEST_F(HostQueries, DiskUsage_NoDisks_IsUnsignedZero) {
  for (const char* disks : {"[]", "{}", "null", "5", R"({"a":{"total_size":1}})"}) {
    Platform().replies["h"] = Success(std::string(R"({"vdisks":)") + disks + "}");
    out_ = Json::Value();
    GetVdiskUsage("guest", "h", out_);
    EXPECT_EQ(Text(out_), R"({"total_size":0,"total_used":0})") << disks;
    EXPECT_EQ(out_["total_size"].type(), Json::uintValue);
    EXPECT_EQ(out_["total_used"].type(), Json::uintValue);
  }
  ExpectNoLine();
}

TEST_F(HostQueries, DiskUsage_Fails_TotalsAreZeroAndLogsDebugLine352) {
  Platform().replies["h"] = Success("{}");
  out_ = Parsed(R"({"kept":1,"total_size":99})");
  GetVdiskUsage("guest", "h", out_);
  EXPECT_EQ(Text(out_), R"({"kept":1,"total_size":0,"total_used":0})");
  EXPECT_EQ(out_["total_size"].type(), Json::uintValue);
  ExpectOnlyLine(LOG_DEBUG, R"(utils:352 Bad response [{"data":{},"success":true}]/ request [)"
                            R"({"api":"VEXA.CCC.VDisk","guest_id":"guest","method":"list","version":1}])");
}

TEST_F(HostQueries, NetStat_NameContainsBond_IsRequestedAsBond) {
  struct Row {
    const char* name;
    const char* api;
    const char* asked;
  };
  const Row rows[] = {
      {"eth0", "VEXA.Core.Network.Ethernet", "eth0"},
      {"ovs_eth0", "VEXA.Core.Network.Ethernet", "ovs_eth0"},
      {"", "VEXA.Core.Network.Ethernet", ""},
      {"bond0", "VEXA.Core.Network.Bond", "ovs_bond0"},
      {"ovs_bond0", "VEXA.Core.Network.Bond", "ovs_bond0"},
      {"xbondy", "VEXA.Core.Network.Bond", "ovs_xbondy"},
      {"trunk.7.bond", "VEXA.Core.Network.Bond", "ovs_trunk.7.bond"},
      {"bond_ovs_", "VEXA.Core.Network.Bond", "bond_ovs_"},
      {"Bond0", "VEXA.Core.Network.Ethernet", "Bond0"},
  };
  for (const Row& row : rows) {
    Platform().sent.clear();
    (void)GetNetStat("h", row.name, out_);
    ExpectSent(
        "h", std::string(R"({"version":1,"method":"get","api":")") + row.api + R"(","ifname":")" + row.asked + R"("})");
  }
}

TEST_F(HostQueries, NetStat_SpeedAndStatus_AreCopiedUnchanged) {
  Platform().replies["h"] = Success(R"({"speed":null,"status":["up"],"mtu":9})");
  out_ = Parsed(R"({"kept":1})");
  EXPECT_TRUE(GetNetStat("h", "eth0", out_));
  EXPECT_EQ(Text(out_), R"({"kept":1,"speed":null,"status":["up"]})");
}

TEST_F(HostQueries, NetStat_OneMemberMissing_FailsSilently) {
  for (const char* data : {R"({"speed":1})", R"({"status":"up"})", "{}", "[]", "null", R"("speed")"}) {
    Platform().replies["h"] = Success(data);
    EXPECT_FALSE(GetNetStat("h", "eth0", out_)) << data;
  }
  Platform().replies["h"] = Success(R"({"speed":1,"status":"up"})");
  Platform().replies["h"]["success"] = false;
  EXPECT_FALSE(GetNetStat("h", "eth0", out_));
  EXPECT_EQ(out_, "untouched");
  ExpectNoLine();
}

}  // namespace
}  // namespace vexa::test
