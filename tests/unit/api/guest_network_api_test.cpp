// VEXA.Virtualization.Network on a real store: who sees what, codes, sentences, the log.
#include "host/api/user/guest_network_api.h"

#include <gtest/gtest.h>

#include "host/domain_xml/domain_parse.h"
#include "host/records/network_record.h"
#include "tests/support/matchers.h"
#include "tests/unit/api/services_fixture.h"

namespace vexa::api {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kApi[] = "VEXA.Virtualization.Network";
constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
const accounts::User kOrdinary{"eve", 7, 7, {}, false};

class NetworkApi : public ::testing::Test {
 protected:
  NetworkApi() : table_(GuestNetworkRows(records::CurrentEnvironment()->store)) {
    host_.PutText("host", kHost, R"({"name":"nas-1"})");
  }

  Answer Call(const std::string& method, const std::string& parameters = "{}",
              const accounts::User& user = Administrator()) {
    return CallTable(table_, kApi, method, parameters, UserCaller(user));
  }
  static std::string Named(const std::string& id, const std::string& more = "") {
    return R"({"network_id":")" + id + "\"" + more + "}";
  }

  test::TestHost host_;
  ApiTable table_;
  const std::string lan_ = domain_xml::NetworkGroupId("lan");
};

TEST_F(NetworkApi, Rows_ChangesAreForAdministrators) {
  ASSERT_EQ(table_.rows().size(), 5u);
  for (const ApiRow& row : table_.rows()) {
    const bool only_reads = row.method == "list" || row.method == "get";
    EXPECT_EQ(row.access.value, only_reads ? Access::kUser : Access::kAdministrator) << row.method;
    EXPECT_EQ(row.lane.value, only_reads ? LaneKind::kQuick : LaneKind::kLong) << row.method;
  }
}

TEST_F(NetworkApi, AddGetEditRemove_WorksAndIsLogged) {
  const Answer added = Call("add", R"({"name":"lan","kind":"nat","description":"Lab"})");
  EXPECT_EQ(added.code, 0) << ReasonOf(added);
  EXPECT_EQ(added.data, Parsed(Named(lan_)));
  Json::Value expected = Parsed(R"({"name":"lan","kind":"nat","description":"Lab","managed":true,"state":"unknown",
      "network_name":"lan","subnet":"192.168.100.0/24"})");
  expected["network_id"] = lan_;
  expected["hosts"] = Parsed(R"([{"host_id":")" + std::string(kHost) +
                             R"(","state":"unknown","reason":"The host has not looked at it yet"}])");
  EXPECT_EQ(Call("get", Named(lan_)).data, expected);
  EXPECT_EQ(Call("list").data["networks"][0], expected);
  EXPECT_EQ(Call("edit", Named(lan_, R"(,"name":"lab")")).code, 0);
  EXPECT_EQ(Call("get", Named(lan_)).data["name"], "lab");
  EXPECT_EQ(Call("remove", Named(lan_)).code, 0);
  EXPECT_EQ(Call("list").data, Parsed(R"({"networks":[]})"));
  EXPECT_THAT(ClusterLogLines(),
              ElementsAre("root 3 The network [lan] has been added.", "root 3 The network [lan] has been edited.",
                          "root 3 The network [lab] has been removed."));
}

TEST_F(NetworkApi, Settings_EachKind_AreStoredAndShown) {
  const std::string host = kHost;
  const Answer vlan = Call("add", R"({"name":"phones","kind":"vlan","bridge":"br42","vlan_id":42,"uplink":"eth0",
      "uplinks":{")" + host + R"(":"eth1"}})");
  ASSERT_EQ(vlan.code, 0) << ReasonOf(vlan);
  const Json::Value shown = Call("get", json::ToText(vlan.data)).data;
  EXPECT_EQ(shown["network_name"], "br42");
  EXPECT_EQ(shown["vlan_id"], 42);
  EXPECT_EQ(shown["uplink"], "eth0");
  EXPECT_EQ(shown["uplinks"], Parsed("{\"" + host + R"(":"eth1"})"));
  const Answer bridge =
      Call("add", R"({"name":"office","kind":"bridge","bridge":"br1","uplink":"eth2","move_addresses":true})");
  ASSERT_EQ(bridge.code, 0) << ReasonOf(bridge);
  EXPECT_EQ(Call("get", json::ToText(bridge.data)).data["move_addresses"], true);
  EXPECT_EQ(Call("add", R"({"name":"direct","kind":"macvtap","uplink":"eth0"})").code, 0);
  EXPECT_EQ(Call("add", R"({"name":"inside","kind":"isolated","subnet":"10.3.0.0/24"})").code, 0);
  EXPECT_EQ(Call("add", R"({"name":"br0","kind":"bridge"})").code, 0);
}

TEST_F(NetworkApi, OrdinaryUser_SeesNeitherSettingsNorHosts) {
  ASSERT_EQ(Call("add", R"({"name":"lan","kind":"nat"})").code, 0);
  Json::Value expected = Parsed(R"({"name":"lan","kind":"nat","description":"","managed":true,"state":"unknown"})");
  expected["network_id"] = lan_;
  EXPECT_EQ(Call("get", Named(lan_), kOrdinary).data, expected);
  EXPECT_EQ(Call("list", "{}", kOrdinary).data["networks"][0], expected);
}

TEST_F(NetworkApi, Refused_HasCodeSentenceAndLogLine) {
  ASSERT_EQ(Call("add", R"({"name":"lan","kind":"nat"})").code, 0);
  const Answer same = Call("add", R"({"name":"lan","kind":"nat"})");
  EXPECT_EQ(same.code, 990);
  EXPECT_EQ(ReasonOf(same), "There is a network 'lan' already");
  host_.PutText("guest", "g", R"({"name":"web"})");
  host_.PutText("vnic", "n", R"({"guest_id":"g","network_name":"lan"})");
  const Answer used = Call("remove", Named(lan_));
  EXPECT_EQ(used.code, 991);
  EXPECT_EQ(ReasonOf(used),
            "The network 'lan' is used by the guest 'web'. Put their interfaces into another network first");
  const Answer unknown = Call("get", Named("x"));
  EXPECT_EQ(unknown.code, 403);
  EXPECT_EQ(ReasonOf(unknown), "There is no network 'x'");
  EXPECT_EQ(Call("remove", Named("x")).code, 403);
  EXPECT_EQ(Call("edit", Named("x")).code, 403);
  const Answer uplink = Call("edit", Named(lan_, R"(,"uplink":"eth0")"));
  EXPECT_EQ(uplink.code, 401);
  EXPECT_EQ(ReasonOf(uplink), "Networks of the kinds nat and isolated have no uplink");
  EXPECT_THAT(ClusterLogLines(),
              ElementsAre("root 3 The network [lan] has been added.", "root 1 Failed to add the network [lan].",
                          "root 1 Failed to remove the network [lan].", "root 1 Failed to remove the network [x].",
                          "root 1 Failed to edit the network [x].", "root 1 Failed to edit the network [lan]."));
}

TEST_F(NetworkApi, Parameters_Invalid_AreRefusedAndNotLogged) {
  for (const std::string& parameters :
       {std::string("{}"),
        std::string(R"({"name":"a"})"),
        std::string(R"({"kind":"nat"})"),
        std::string(R"({"name":7,"kind":"nat"})"),
        std::string(R"({"name":"a","kind":"wifi"})"),
        std::string(R"({"name":"a/b","kind":"nat"})"),
        R"({"name":")" + std::string(65, 'x') + R"(","kind":"nat"})",
        std::string(R"({"name":"a\u0000b","kind":"nat"})"),
        std::string(R"({"name":"a","kind":"nat","subnet":7})"),
        std::string(R"({"name":"a","kind":"nat","subnet":"8.8.8.0/24"})"),
        std::string(R"({"name":"a","kind":"nat","bridge":"br0"})"),
        std::string(R"({"name":"a","kind":"vlan","uplink":"e","vlan_id":"7"})"),
        std::string(R"({"name":"a","kind":"vlan","uplink":"e","vlan_id":4095})"),
        std::string(R"({"name":"a","kind":"vlan","uplink":"e"})"),
        std::string(R"({"name":"a","kind":"macvtap"})"),
        std::string(R"({"name":"a","kind":"macvtap","uplink":null})"),
        std::string(R"({"name":"a","kind":"bridge","uplinks":[]})"),
        std::string(R"({"name":"a","kind":"bridge","uplinks":{"h":"eth0"}})"),
        std::string(R"({"name":"a","kind":"bridge","uplinks":{"8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8":7}})"),
        std::string(R"({"name":"a","kind":"bridge","move_addresses":"yes"})")}) {
    EXPECT_EQ(Call("add", parameters).code, 401) << parameters;
  }
  for (const char* method : {"get", "edit", "remove"}) {
    for (const char* parameters : {"{}", R"({"network_id":7})", R"({"network_id":""})", R"({"network_id":"a\nb"})"}) {
      EXPECT_EQ(Call(method, parameters).code, 401) << method << parameters;
    }
  }
  EXPECT_EQ(ReasonOf(Call("add", R"({"name":"a","kind":"wifi"})")),
            "The kind of a network is bridge, nat, isolated, vlan or macvtap");
  EXPECT_THAT(ClusterLogLines(), IsEmpty());
}

TEST_F(NetworkApi, Database_CannotBeRead_IsAnErrorWithReasonForAdministrators) {
  host_.store().FailSnapshots();
  for (const char* method : {"list", "get"}) {
    const Answer answer = Call(method, Named("x"));
    EXPECT_EQ(answer.code, 992) << method;
    EXPECT_THAT(ReasonOf(answer), testing::StartsWith("The networks cannot be listed: ")) << method;
    EXPECT_EQ(ReasonOf(Call(method, Named("x"), kOrdinary)), kAskAdministrator) << method;
  }
}

}  // namespace
}  // namespace vexa::api
