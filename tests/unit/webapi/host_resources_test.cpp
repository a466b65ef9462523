// What every host of the cluster has free, and how it is reached.
#include <limits>

#include "tests/unit/webapi/host_fixture.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using VexaVirtualization::GetCpuUsage;
using VexaVirtualization::GetFreeRamSize;
using VexaVirtualization::GetHostResourceInfo;
using VexaVirtualization::GetHostTotalMemory;

constexpr int kIntMax = std::numeric_limits<int>::max();
constexpr int kIntMin = std::numeric_limits<int>::min();

constexpr const char* kAnswer = R"({"result":[
  {"data":{"http_port":80,"https_port":443,"enable_https":true,"enable_https_redirect":false,"more":1}},
  {"data":[{"ip":"10.0.0.1"},{"ip":"10.0.0.2","status":"connected","type":"lan"},
           {"ip":"10.0.0.3","status":"disconnected"},{"ip":"10.0.0.4","type":"wificlient"},{"ip":""},{}]},
  {"data":{"cpu":{"system_load":10,"user_load":15,"other_load":50}}},
  {"data":{"memory":{"avail_real":1,"buffer":20,"cached":300,"memory_size":4000}}}]})";

constexpr const char* kReached = R"("https_enable":true,"https_port":443,"https_redirect":false,)"
                                 R"("ipList":["10.0.0.1","10.0.0.2"])";

class HostResources : public HostLibrary {
 protected:
  // A host that answers and has a record.
  static void AddHost(const std::string& id, std::string_view answer = kAnswer,
                      std::string_view record = R"({"cpu_cores":4,"cpu_clock_speed":2400})") {
    Platform().all_hosts.push_back(id);
    Platform().replies[id] = Success(answer);
    Platform().records["host/" + id + "/object"] = Parsed(record);
  }
  Json::Value out_;
};

TEST_F(HostResources, Resources_WithUsage_SendsFourItemsToEveryHost) {
  AddHost("h1");
  AddHost("h2");
  EXPECT_EQ(GetHostResourceInfo(true, out_), 0);
  const std::string host = std::string(R"({"cpu_usage":25,"free_cpu_ghz":7.2,"free_ram_size":321,"http_port":80,)") +
                           kReached + R"(,"total_ram_size":4000})";
  // The double's text has as many digits as distinguish it from its neighbours.
  EXPECT_DOUBLE_EQ(out_["h1"]["free_cpu_ghz"].asDouble(), 7.2);
  for (const char* id : {"h1", "h2"}) out_[id]["free_cpu_ghz"] = 7.2;
  Json::Value expected;
  expected["h1"] = expected["h2"] = Parsed(host);
  EXPECT_EQ(Text(out_), Text(expected));
  ASSERT_EQ(Platform().sent.size(), 2u);
  for (const SentRequest& sent : Platform().sent) {
    EXPECT_EQ(sent.by, SentRequest::By::kMultiSender);
    EXPECT_EQ(sent.timeout_s, 0);
    EXPECT_EQ(Text(sent.json), Text(Parsed(R"({"api":"VEXA.Entry.Request","version":1,"method":"request",
      "mode":"parallel","compound":[{"api":"VEXA.Core.Web.Orla","version":1,"method":"get"},
      {"api":"VEXA.Core.Network.Interface","version":1,"method":"list"},
      {"api":"VEXA.Core.System.Utilization","version":1,"method":"get","resource":["cpu"]},
      {"api":"VEXA.CCC.Cluster.Member","version":1,"method":"utilization_get","resource":["memory"]}]})")));
  }
  ExpectNoLine();
}

TEST_F(HostResources, Resources_WithoutUsage_SendsTwoItemsAndWritesNoFigures) {
  AddHost("h1");
  EXPECT_EQ(GetHostResourceInfo(false, out_), 0);
  EXPECT_EQ(Text(out_), std::string(R"({"h1":{"http_port":80,)") + kReached + "}}");
  ASSERT_EQ(Platform().sent.size(), 1u);
  EXPECT_EQ(Text(Platform().sent[0].json["compound"]),
            Text(Parsed(R"([{"api":"VEXA.Core.Web.Orla","version":1,"method":"get"},
                            {"api":"VEXA.Core.Network.Interface","version":1,"method":"list"}])")));
}

TEST_F(HostResources, Resources_Figures_HaveTheirTypes) {
  AddHost("h1");
  EXPECT_EQ(GetHostResourceInfo(true, out_), 0);
  EXPECT_EQ(out_["h1"]["cpu_usage"].type(), Json::intValue);
  EXPECT_EQ(out_["h1"]["free_cpu_ghz"].type(), Json::realValue);
  EXPECT_EQ(out_["h1"]["free_ram_size"].type(), Json::intValue);
}

TEST_F(HostResources, Resources_NoHosts_HasNoOutputAndNoError) {
  EXPECT_EQ(GetHostResourceInfo(true, out_), 0);
  EXPECT_TRUE(out_.isNull());
  out_ = "kept";
  EXPECT_EQ(GetHostResourceInfo(true, out_), 0);
  EXPECT_EQ(out_, "kept");
}

TEST_F(HostResources, Resources_HostFails_IsOmittedAndItsRecordNotRead) {
  for (const char* id : {"failed", "part", "empty", "silent", "good"}) AddHost(id);
  Platform().replies["failed"] = Failure(102);
  Platform().replies["part"]["has_fail"] = true;
  Platform().replies["empty"].removeMember("data");
  Platform().replies.erase("silent");
  for (const char* id : {"failed", "part", "empty", "silent"}) {
    Platform().read_results[std::string("host/") + id + "/object"] = -1;
  }
  Platform().replies["good"]["has_fail"] = false;
  EXPECT_EQ(GetHostResourceInfo(true, out_), 0);
  EXPECT_EQ(out_.getMemberNames(), std::vector<std::string>{"good"});
  EXPECT_EQ(Platform().reads, std::vector<std::string>{"host/good/object"});
  ExpectNoLine();
}

TEST_F(HostResources, Resources_UnreadableRecord_StopsWith403AndKeepsEarlierHosts) {
  for (const int result : {-1, 2, 1}) {
    ResetPlatform();
    for (const char* id : {"b", "a", "c"}) AddHost(id);  // not in the order of their names
    Platform().read_results["host/a/object"] = result;
    out_ = Parsed(R"({"before":1})");
    EXPECT_EQ(GetHostResourceInfo(false, out_), 403);
    EXPECT_EQ(out_.getMemberNames(), (std::vector<std::string>{"b", "before"}));
    EXPECT_EQ(Platform().reads, (std::vector<std::string>{"host/b/object", "host/a/object"}));
  }
  ExpectNoLine();
}

TEST_F(HostResources, Resources_PreferredAddressInRecord_IsCopied) {
  AddHost("h1", kAnswer, R"({"prefer_connect_ip":null})");
  AddHost("h2", kAnswer, R"({"prefer_connect_ip":"10.9.9.9"})");
  AddHost("h3");
  EXPECT_EQ(GetHostResourceInfo(false, out_), 0);
  EXPECT_TRUE(out_["h1"].isMember("prefer_connect_ip"));
  EXPECT_TRUE(out_["h1"]["prefer_connect_ip"].isNull());
  EXPECT_EQ(out_["h2"]["prefer_connect_ip"], "10.9.9.9");
  EXPECT_FALSE(out_["h3"].isMember("prefer_connect_ip"));
}

TEST_F(HostResources, Resources_OnlyUnusableInterfaces_HasNoList) {
  AddHost("h1", R"({"result":[{},{"data":[{"ip":"1","status":"disconnected"},{"ip":"2","type":"wificlient"},
    {"ip":""},{"status":"connected"},{"ip":null},5,null,["ip"]]}]})");
  AddHost("h2", R"({"result":[{},{"data":{"0":{"ip":"10.0.0.1"}}}]})");
  EXPECT_EQ(GetHostResourceInfo(false, out_), 0);
  for (const char* id : {"h1", "h2"}) {
    EXPECT_EQ(Text(out_[id]), R"({"http_port":null,"https_enable":null,"https_port":null,"https_redirect":null})");
  }
}

TEST_F(HostResources, Resources_NoLoadFigures_AreMinusOneAnd101Percent) {
  AddHost("h1", R"({"result":[]})", R"({"cpu_cores":2,"cpu_clock_speed":1000.0})");
  EXPECT_EQ(GetHostResourceInfo(true, out_), 0);
  EXPECT_EQ(out_["h1"]["cpu_usage"], -1);
  EXPECT_DOUBLE_EQ(out_["h1"]["free_cpu_ghz"].asDouble(), 2.02);
  EXPECT_EQ(out_["h1"]["free_ram_size"], 0);
  EXPECT_TRUE(out_["h1"]["total_ram_size"].isNull());
}

TEST_F(HostResources, FreeClock_Computed_InDocumentedOrder) {
  for (const int usage : {0, 1, 33, 99, 100, 250, -7}) {
    ResetPlatform();
    Json::Value answer = Parsed(kAnswer);
    answer["result"][2]["data"]["cpu"]["system_load"] = 0;
    answer["result"][2]["data"]["cpu"]["user_load"] = usage;
    AddHost("h1", Text(answer), R"({"cpu_cores":6,"cpu_clock_speed":1999.9})");
    EXPECT_EQ(GetHostResourceInfo(true, out_), 0);
    const double core_ghz = 1999.9 / 1000.0;  // any other order rounds differently
    const double all_ghz = 6 * core_ghz;
    const double scaled = static_cast<double>(100 - usage) * all_ghz;
    EXPECT_EQ(out_["h1"]["free_cpu_ghz"].asDouble(), scaled / 100.0) << usage;
  }
}

TEST_F(HostResources, CpuUsage_AtEndOfRange_PercentageWraps) {
  Json::Value answer = Parsed(kAnswer);
  answer["result"][2]["data"]["cpu"] = Parsed(R"({"system_load":-2147483648,"user_load":0})");
  AddHost("h1", Text(answer), R"({"cpu_cores":1,"cpu_clock_speed":1000})");
  EXPECT_EQ(GetHostResourceInfo(true, out_), 0);
  EXPECT_EQ(out_["h1"]["cpu_usage"], kIntMin);
  EXPECT_DOUBLE_EQ(out_["h1"]["free_cpu_ghz"].asDouble(), -21474835.48);
}

TEST_F(HostResources, Resources_OutputOfAnyType_IsAddedToOrReplaced) {
  AddHost("h1");
  for (const char* before : {"null", "true", "5", "2.5", R"("x")", "[]", "[[1]]"}) {
    out_ = Parsed(before);
    EXPECT_EQ(GetHostResourceInfo(false, out_), 0);
    EXPECT_EQ(Text(out_), std::string(R"({"h1":{"http_port":80,)") + kReached + "}}") << before;
  }
  for (const char* host : {"null", "5", R"("x")", "[]"}) {
    out_ = Parsed(std::string(R"({"h1":)") + host + R"(,"h0":3})");
    EXPECT_EQ(GetHostResourceInfo(false, out_), 0);
    EXPECT_EQ(Text(out_), std::string(R"({"h0":3,"h1":{"http_port":80,)") + kReached + "}}") << host;
  }
  out_ = Parsed(R"({"h1":{"kept":1,"ipList":"none"}})");
  EXPECT_EQ(GetHostResourceInfo(false, out_), 0);
  EXPECT_EQ(Text(out_["h1"]["ipList"]), R"(["10.0.0.1","10.0.0.2"])");
  EXPECT_EQ(out_["h1"]["kept"], 1);
}

TEST_F(HostResources, CpuUsage_BothLoads_AreSummedOrMinusOne) {
  const std::pair<const char*, int> rows[] = {
      {R"({"cpu":{"system_load":10,"user_load":15}})", 25},
      {R"({"cpu":{"system_load":null,"user_load":"x"}})", 0},
      {R"({"cpu":{"system_load":1.9,"user_load":true}})", 2},
      {R"({"cpu":{"system_load":10}})", -1},
      {R"({"cpu":{"user_load":10}})", -1},
      {R"({"cpu":[]})", -1},
      {R"({"system_load":1,"user_load":1})", -1},
      {"null", -1},
      {"[]", -1},
      {R"("cpu")", -1},
      {R"({"cpu":{"system_load":2147483647,"user_load":2}})", kIntMin + 1},
      {R"({"cpu":{"system_load":-2147483648,"user_load":-1}})", kIntMax},
  };
  for (const auto& [utilization, expected] : rows) EXPECT_EQ(GetCpuUsage(Parsed(utilization)), expected) << utilization;
}

TEST_F(HostResources, FreeMemory_Sum_WrapsIn32Bits) {
  const std::pair<const char*, int> rows[] = {
      {R"({"memory":{"avail_real":1,"buffer":20,"cached":300,"total":4000}})", 321},
      {R"({"memory":{"cached":300}})", 300},
      {R"({"memory":{}})", 0},
      {R"({"memory":[1]})", 0},
      {"null", 0},
      {R"({"avail_real":1})", 0},
      {R"({"memory":{"avail_real":"1","buffer":[],"cached":2.9}})", 2},
      {R"({"memory":{"avail_real":99999999999,"buffer":1}})", 1},
      {R"({"memory":{"avail_real":2147483647,"buffer":1}})", kIntMin},
      {R"({"memory":{"avail_real":2147483647,"buffer":2147483647,"cached":2}})", 0},
  };
  for (const auto& [memory, expected] : rows) EXPECT_EQ(GetFreeRamSize(Parsed(memory)), expected) << memory;
}

TEST_F(HostResources, TotalMemory_OnlyNegativeResult_Fails) {
  Platform().records["host/h1/object"] = Parsed(R"({"ram_size":4096})");
  EXPECT_EQ(GetHostTotalMemory("h1"), 4096);
  EXPECT_EQ(GetHostTotalMemory("absent"), 0);
  Platform().read_results["host/h1/object"] = -1;
  EXPECT_EQ(GetHostTotalMemory("h1"), 0);
  Platform().read_results["host/h1/object"] = 2;
  EXPECT_EQ(GetHostTotalMemory("h1"), 4096);
  Platform().read_results.clear();
  for (const char* record : {"null", "5", "[]", "{}", R"({"ram_size":"4096"})", R"({"ram_size":[1]})"}) {
    Platform().records["host/h1/object"] = Parsed(record);
    EXPECT_EQ(GetHostTotalMemory("h1"), 0) << record;
  }
  EXPECT_EQ(Platform().reads.at(1), "host/absent/object");
  ExpectNoLine();
}

}  // namespace
}  // namespace vexa::test
