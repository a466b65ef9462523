// Every node of every valid reply and record, replaced by every kind of value: nothing throws, and results keep their
// documented form.
#include <functional>
#include <vector>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/host_fixture.h"
#include "webapi/guest/guest.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;
using namespace VexaVirtualization;  // NOLINT: nearly all of it is under test

// As they stand in the reply, without the reader under test.
bool Succeeds(const Json::Value& reply) {
  return reply.isObject() && reply.isMember("success") && reply["success"] == Json::Value(true);
}
bool HasData(const Json::Value& reply) { return Succeeds(reply) && reply.isMember("data") && !reply["data"].isNull(); }
bool HasDataMember(const Json::Value& reply, const char* name) {
  return HasData(reply) && reply["data"].isObject() && reply["data"].isMember(name);
}

class HostileReplies : public HostLibrary {
 protected:
  void SetUp() override {
    HostLibrary::SetUp();
    Platform().all_hosts = {"h", "good"};
  }
  // Spoils the reply of "h" and of this host, with this good reply.
  static void WithReplies(std::string_view good_reply, const std::function<void(const Json::Value& reply)>& visit) {
    Platform().replies["good"] = Parsed(good_reply);
    Json::Value reply = Parsed(good_reply);
    ForEachMutation(reply, [&] {
      Platform().replies["h"] = Platform().replies["local"] = reply;
      ClearCapturedSyslog();
      visit(reply);
    });
  }
  static void ExpectLines(std::size_t count) { EXPECT_EQ(CapturedSyslog().size(), count); }
};

constexpr const char* kUtilization = R"({"success":true,"has_fail":false,"data":{"result":[
  {"data":{"cpu":{"system_load":1},"memory":{"a":1}}},{"data":{"memory":{"b":2}}}]}})";

TEST_F(HostileReplies, Utilization_AnyReply_IsObjectWithMemoryOrUntouched) {
  WithReplies(kUtilization, [](const Json::Value& reply) {
    Json::Value out = "untouched";
    const bool reported = GetSysUtilization("h", Json::Value(), out);
    EXPECT_EQ(reported, HasData(reply));
    if (reported) {
      EXPECT_TRUE(out.isObject() && out.isMember("memory")) << Text(out);
    } else {
      EXPECT_EQ(out, "untouched");
    }
    ExpectLines(reported ? 0 : 1);
  });
}

TEST_F(HostileReplies, SystemAndVolume_AnyReply_AreDataOrUntouched) {
  WithReplies(R"({"success":true,"data":{"a":{"b":[1]}}})", [](const Json::Value& reply) {
    Json::Value system = "untouched";
    Json::Value volume = "untouched";
    EXPECT_EQ(GetSysInfo("h", system), HasData(reply));
    EXPECT_EQ(GetVolumeInfo("h", reply, volume), HasData(reply));
    EXPECT_EQ(system, HasData(reply) ? reply["data"] : Json::Value("untouched"));
    EXPECT_EQ(volume, system);
    ExpectLines(HasData(reply) ? 0 : 2);
  });
}

TEST_F(HostileReplies, DiskUsage_AnyReply_HasUnsignedTotalsOfItsDisks) {
  WithReplies(R"({"success":true,"data":{"vdisks":[{"vdisk_id":"a","total_size":10,"used_size":1},
    {"vdisk_id":"b","total_size":20,"used_size":2}]}})",
              [](const Json::Value& reply) {
                Json::Value out;
                GetVdiskUsage("g", "h", out);
                ASSERT_TRUE(out.isObject());
                Json::UInt64 size = 0;
                Json::UInt64 used = 0;
                for (const std::string& name : out.getMemberNames()) {
                  if (name.starts_with("total_")) {
                    EXPECT_EQ(out[name].type(), Json::uintValue);
                    continue;
                  }
                  EXPECT_EQ(out[name]["size"].type(), Json::uintValue);
                  EXPECT_EQ(out[name]["used"].type(), Json::uintValue);
                  size += out[name]["size"].asUInt64();
                  used += out[name]["used"].asUInt64();
                }
                EXPECT_EQ(out["total_size"].asUInt64(), size);
                EXPECT_EQ(out["total_used"].asUInt64(), used);
                ExpectLines(HasDataMember(reply, "vdisks") ? 0 : 1);
              });
}

TEST_F(HostileReplies, NetStat_AnyReply_NeedsBothMembers) {
  WithReplies(R"({"success":true,"data":{"speed":1000,"status":"up"}})", [](const Json::Value& reply) {
    Json::Value out = "untouched";
    const bool both = HasDataMember(reply, "speed") && HasDataMember(reply, "status");
    EXPECT_EQ(GetNetStat("h", "eth0", out), both);
    EXPECT_EQ(out.isObject(), both);
    ExpectLines(0);
  });
}

TEST_F(HostileReplies, GuestInfo_AnyReply_HasItsThreeMembers) {
  const Json::Value record = Parsed(R"({"host_id":"h","state":"guest_running"})");
  WithReplies(R"({"success":true,"data":{"ip":["1"],"uptime":{"a":[5]},"has_agent":true}})",
              [&record](const Json::Value& reply) {
                Json::Value info;
                EXPECT_EQ(Guest::GetInformation("g", record, info), Succeeds(reply));
                EXPECT_EQ(info.getMemberNames(), (std::vector<std::string>{"has_agent", "ip", "uptime"}));
                EXPECT_TRUE(info["uptime"].isString());
                ExpectLines(0);
              });
}

TEST_F(HostileReplies, Checks_AnyReply_ReturnTheirCodes) {
  WithReplies(R"({"success":true,"error":{"code":507},"data":{"repo_usable":false,"failed_check":311}})",
              [](const Json::Value& reply) {
                auto check = static_cast<VMCHECK>(-77);
                const int result = CheckGuestRepoCap("g", check);
                EXPECT_EQ(result == 0, HasDataMember(reply, "repo_usable"));
                EXPECT_TRUE(result == 0 || result == 404 || result == 407) << result;
                if (result != 0) {
                  EXPECT_EQ(static_cast<int>(check), -77);
                }
                EXPECT_EQ(ClearPollTaskOnHost("h", "t"), Succeeds(reply) ? 0 : -1);
                ExpectLines((result == 0 ? 0u : 1u) + (Succeeds(reply) ? 0u : 1u));
              });
}

constexpr const char* kResources = R"({"success":true,"has_fail":false,"data":{"result":[
  {"data":{"http_port":80,"https_port":443,"enable_https":true,"enable_https_redirect":false}},
  {"data":[{"ip":"10.0.0.1","status":"connected","type":"lan"}]},
  {"data":{"cpu":{"system_load":10,"user_load":15}}},
  {"data":{"memory":{"avail_real":1,"buffer":20,"cached":300,"memory_size":4000}}}]}})";

void ExpectFigures(const Json::Value& host) {
  for (const char* name : {"http_port", "https_port", "https_enable", "https_redirect", "total_ram_size"}) {
    EXPECT_TRUE(host.isMember(name)) << name;
  }
  EXPECT_EQ(host["cpu_usage"].type(), Json::intValue);
  EXPECT_EQ(host["free_cpu_ghz"].type(), Json::realValue);
  EXPECT_EQ(host["free_ram_size"].type(), Json::intValue);
  if (host.isMember("ipList")) {
    EXPECT_TRUE(host["ipList"].isArray() && !host["ipList"].empty());
  }
}

TEST_F(HostileReplies, Resources_OneBadHost_OthersAreUnaffected) {
  const Json::Value record = Parsed(R"({"cpu_cores":4,"cpu_clock_speed":2400,"prefer_connect_ip":"1"})");
  Platform().records["host/h/object"] = Platform().records["host/good/object"] = record;
  WithReplies(kResources, [](const Json::Value& reply) {
    Json::Value out;
    EXPECT_EQ(GetHostResourceInfo(true, out), 0);
    ASSERT_TRUE(out.isObject() && out["good"].isObject());
    EXPECT_EQ(out["good"]["cpu_usage"], 25);
    EXPECT_EQ(Text(out["good"]["ipList"]), R"(["10.0.0.1"])");
    EXPECT_EQ(out.isMember("h"), HasData(reply) && !json::Bool(json::Member(reply, "has_fail")));
    for (const std::string& id : out.getMemberNames()) ExpectFigures(out[id]);
    ExpectLines(0);
  });
}

TEST_F(HostileReplies, Resources_MutatedRecord_HaveTheirForm) {
  Platform().all_hosts = {"h"};
  Platform().replies["h"] = Parsed(kResources);
  Json::Value record = Parsed(R"({"cpu_cores":4,"cpu_clock_speed":2400,"prefer_connect_ip":"1","ram_size":5})");
  ForEachMutation(record, [&record] {
    Platform().records["host/h/object"] = record;
    Json::Value out;
    EXPECT_EQ(GetHostResourceInfo(true, out), 0);
    ExpectFigures(out["h"]);
    EXPECT_EQ(out["h"].isMember("prefer_connect_ip"), record.isObject() && record.isMember("prefer_connect_ip"));
    EXPECT_EQ(GetHostTotalMemory("h"), json::Int(json::Member(record, "ram_size")));
  });
}

TEST_F(HostileReplies, Interfaces_AnyReply_EachHasItsIds) {
  for (const char* id : {"h", "good"}) {
    Platform().children["host/" + std::string(id) + "/nics"] = {"n0"};
    Platform().records["host/" + std::string(id) + "/nics/n0"] = Parsed(R"({"name":"eth0"})");
  }
  WithReplies(R"({"success":true,"has_fail":false,"data":[{"ifname":"eth0","ip":"1"},{"ifname":"eth1"}]})",
              [](const Json::Value&) {
                Json::Value out;
                GetAllInterfaceInfo(out);
                ASSERT_TRUE(out.isArray());
                for (const Json::Value& interface : out) {
                  EXPECT_EQ(interface["ifname"], "eth0");
                  EXPECT_EQ(interface["interface_id"], "n0");
                }
                EXPECT_EQ(out[out.size() - 1]["host_id"], "good");
                EXPECT_LE(out.size(), 2u);
                ExpectLines(0);
              });
}

TEST_F(HostileReplies, Interfaces_MutatedNicRecords_AreSkippedOrNamed) {
  Platform().all_hosts = {"h"};
  Platform().replies["h"] = Success(R"([{"ifname":"eth0"},{"ifname":""},{},null,5,[]])");
  Platform().children["host/h/nics"] = {"n0"};
  Json::Value record = Parsed(R"({"name":"eth0","more":{"a":1}})");
  ForEachMutation(record, [&record] {
    Platform().records["host/h/nics/n0"] = record;
    Json::Value out(Json::arrayValue);
    GetAllInterfaceInfo(out);
    for (const Json::Value& interface : out) EXPECT_EQ(interface["host_id"], "h");
    if (!record.isObject() || !record.isMember("name")) {
      EXPECT_TRUE(out.empty());
    }
    std::string name = "before";
    EXPECT_TRUE(GetInterfaceNameById("h", "n0", name));
    EXPECT_EQ(name, json::String(json::Member(record, "name")));
  });
}

TEST_F(HostileReplies, GuestInfo_MutatedRecord_CallsHostOnlyWhenRunning) {
  Platform().replies["h"] = Success(R"({"uptime":5})");
  Json::Value record = Parsed(R"({"host_id":"h","state":"guest_running"})");
  ForEachMutation(record, [&record] {
    Platform().sent.clear();
    Json::Value info;
    const bool reported = Guest::GetInformation("g", record, info);
    EXPECT_EQ(info["uptime"], reported ? "5" : "0");
    EXPECT_EQ(Platform().sent.size(), json::String(json::Member(record, "state")) == "guest_running" ? 1u : 0u);
  });
}

TEST_F(HostileReplies, Figures_AnyValue_AreNumbers) {
  Json::Value utilization = Parsed(R"({"cpu":{"system_load":1,"user_load":2},"memory":{"avail_real":1,"buffer":2,
    "cached":3}})");
  ForEachMutation(utilization, [&utilization] {
    if (!json::Member(utilization, "cpu").isObject()) {
      EXPECT_EQ(GetCpuUsage(utilization), -1);
    }
    (void)GetCpuUsage(utilization);
    if (!json::Member(utilization, "memory").isObject()) {
      EXPECT_EQ(GetFreeRamSize(utilization), 0);
    }
    (void)GetFreeRamSize(utilization);
  });
}

}  // namespace
}  // namespace vexa::test
