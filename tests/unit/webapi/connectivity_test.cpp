// Which network interfaces of guests have a link.
#include <string>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/state_fixture.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using Connected = std::map<std::string, int>;
using Strings = std::vector<std::string>;

constexpr const char* kPort = R"({"bridge_name":"ovs_eth0","nic_id":"n0"})";
constexpr const char* kPrivate = R"({"bridge_name":"PN-7"})";

class Connectivity : public StateLibrary {
 protected:
  void TearDown() override { ExpectNoLine(); }

  static void AddHost(const std::string& id, std::string_view interfaces) {
    Platform().ids["host"].push_back(id);
    Platform().replies[id] = Success(interfaces);
  }
  static void AddPort(const std::string& host, const std::string& id, const std::string& name) {
    Platform().children["host/" + host + "/nics"].push_back(id);
    Platform().records["host/" + host + "/nics/" + id]["name"] = name;
  }
  // A host whose port "n0" is eth0, with a link.
  static void AddLinkedHost(const std::string& id) {
    AddHost(id, R"([{"ifname":"ovs_eth0","status":"connected"}])");
    AddPort(id, "n0", "ovs_eth0");
  }
  static void AddGuest(const std::string& id, std::string_view vnics) {
    Platform().ids["guest"].push_back(id);
    Platform().records["guest/" + id + "/object"]["vnics"] = Parsed(vnics);
  }
  static void AddVnic(const std::string& id, const std::string& guest, std::string_view running) {
    Platform().ids["vnic"].push_back(id);
    Json::Value& record = Platform().records["vnic/" + id + "/object"];
    record["guest_id"] = guest;
    record["running"] = Parsed(running);
  }
  static void AddVnicOn(const std::string& id, const std::string& guest, const std::string& host, const char* place) {
    AddVnic(id, guest, "{\"" + host + "\":" + place + "}");
  }
  static Connected Map() {
    Connected connected = {{"old", 1}};
    EXPECT_TRUE(VexaVirtualization::GetGuestsConnectedMap(connected));
    return connected;
  }
};

TEST_F(Connectivity, ConnectedMap_GuestsWithoutLink_AreZero) {
  AddGuest("g2", R"(["v"])");
  AddGuest("g1", "[]");
  EXPECT_EQ(Map(), (Connected{{"g1", 0}, {"g2", 0}}));
  EXPECT_EQ(Platform().reads, (Strings{"host", "guest", "vnic"}));
}

TEST_F(Connectivity, ConnectedMap_AnyListingFails_IsEmpty) {
  AddLinkedHost("h");
  AddGuest("g", R"(["v"])");
  AddVnicOn("v", "g", "h", kPort);
  for (const char* category : {"host", "guest", "vnic"}) {
    for (const int result : {2, 1, -1}) {
      Platform().category_results = {{category, {result}}};
      Connected connected = {{"old", 1}};
      EXPECT_FALSE(VexaVirtualization::GetGuestsConnectedMap(connected)) << category << result;
      EXPECT_TRUE(connected.empty());
    }
  }
  EXPECT_TRUE(Platform().sent.empty());
}

TEST_F(Connectivity, Port_WithLink_SetsBitOfNicPosition) {
  AddLinkedHost("h2");
  AddLinkedHost("h1");
  AddGuest("g", R"(["a","v","b","v"])");
  AddVnicOn("v", "g", "h1", kPort);
  EXPECT_EQ(Map(), (Connected{{"g", 2}}));
  ASSERT_EQ(Platform().sent.size(), 2u);
  EXPECT_EQ(Platform().sent[0].host_id, "h2");
  for (const SentRequest& sent : Platform().sent) {
    EXPECT_EQ(sent.by, SentRequest::By::kMultiSender);
    EXPECT_EQ(sent.timeout_s, 0);
    EXPECT_EQ(Text(sent.json), R"({"api":"VEXA.Core.Network.Interface","method":"list","version":1})");
  }
}

TEST_F(Connectivity, PrivateBridge_NoHost_Connects) {
  Platform().ids["host"] = {"h"};  // does not answer
  AddGuest("g", R"(["v","w","x"])");
  AddVnicOn("v", "g", "h", kPrivate);
  AddVnicOn("w", "g", "nowhere", R"({"bridge_name":"PN","nic_id":"n0"})");
  AddVnicOn("x", "g", "h", R"({"bridge_name":"pn-7"})");
  EXPECT_EQ(Map(), (Connected{{"g", 3}}));
  // No port was looked at.
  for (const std::string& read : Platform().reads) EXPECT_FALSE(read.starts_with("host/")) << read;
}

TEST_F(Connectivity, Port_NameWithoutPrefix_DoesNotMatch) {
  AddHost("h", R"([{"ifname":"eth0","status":"connected"}])");
  AddPort("h", "n0", "eth0");
  AddGuest("g", R"(["v"])");
  AddVnicOn("v", "g", "h", kPort);
  EXPECT_EQ(Map(), (Connected{{"g", 0}}));
}

TEST_F(Connectivity, HostInterfaces_DuplicateName_LastCounts) {
  AddHost("h1", R"([{"ifname":"ovs_eth0","status":"connected"},{"ifname":"ovs_eth0","status":"disconnected"}])");
  AddHost("h2", R"([{"ifname":"ovs_eth0"},{"ifname":"ovs_eth0","status":"connected"}])");
  AddHost("h3", R"([{"ifname":"ovs_eth0","status":"connected"},{"ifname":"ovs_eth0"}])");
  AddGuest("g", R"(["v1","v2","v3"])");
  for (const char* number : {"1", "2", "3"}) {
    AddPort(std::string("h") + number, "n0", "eth0");
    AddVnicOn(std::string("v") + number, "g", std::string("h") + number, kPort);
  }
  EXPECT_EQ(Map(), (Connected{{"g", 2}}));
}

TEST_F(Connectivity, Host_FailsOrHasNoData_HasNoLinks) {
  for (const char* id : {"failed", "part", "empty", "object"}) AddLinkedHost(id);
  Platform().replies["failed"] = Failure(102);
  Platform().replies["part"]["has_fail"] = true;
  Platform().replies["empty"]["data"] = Json::Value();
  Platform().replies["object"]["data"] = Parsed(R"({"a":{"ifname":"ovs_eth0","status":"connected"}})");
  AddGuest("g", R"(["failed","part","empty","object"])");
  for (const char* id : {"failed", "part", "empty", "object"}) AddVnicOn(id, "g", id, kPort);
  // That a part of a reply failed is not looked at.
  EXPECT_EQ(Map(), (Connected{{"g", 2}}));
}

TEST_F(Connectivity, Nic_LiveOnTwoHosts_ReadsGuestTwice) {
  AddLinkedHost("h1");
  AddLinkedHost("h2");
  AddGuest("g", R"(["v"])");
  AddVnic("v", "g", std::string(R"({"h2":)") + kPort + R"(,"h1":)" + kPort + "}");
  EXPECT_EQ(Map(), (Connected{{"g", 1}}));
  EXPECT_EQ(std::count(Platform().reads.begin(), Platform().reads.end(), "guest/g/object"), 2);
}

TEST_F(Connectivity, Nic_EntryUnusable_NextHostIsUsed) {
  AddLinkedHost("h9");
  AddLinkedHost("h1");
  Platform().list_results["host/h1/nics"] = -1;
  AddGuest("g", R"(["v"])");
  AddVnic("v", "g",
          std::string(R"({"h1":{"bridge_name":"b","nic_id":"n0"},"h2":{},"h3":{"nic_id":"n0"},"h4":null,)") +
              R"("h5":{"bridge_name":"b"},"h6":{"bridge_name":"b","nic_id":"n0"},)" +
              R"("h7":{"bridge_name":"b","nic_id":"gone"},"h9":)" + kPort + "}");
  EXPECT_EQ(Map(), (Connected{{"g", 1}}));
}

TEST_F(Connectivity, Records_Unusable_SetNoBit) {
  AddGuest("g", R"(["unreadable","ownerless","idle","good"])");
  AddGuest("unread", R"(["v"])");
  AddGuest("bare", R"([])");
  Platform().records["guest/bare/object"].removeMember("vnics");
  AddGuest("stranger", R"(["other"])");
  for (const char* id : {"unreadable", "ownerless", "idle", "good"}) AddVnicOn(id, "g", "h", kPrivate);
  Platform().read_results["vnic/unreadable/object"] = -1;
  Platform().records["vnic/ownerless/object"].removeMember("guest_id");
  Platform().records["vnic/idle/object"].removeMember("running");
  AddVnicOn("v", "unread", "h", kPrivate);
  Platform().read_results["guest/unread/object"] = -1;
  AddVnicOn("w", "bare", "h", kPrivate);
  AddVnicOn("x", "stranger", "h", kPrivate);
  EXPECT_EQ(Map(), (Connected{{"bare", 0}, {"g", 8}, {"stranger", 0}, {"unread", 0}}));
}

TEST_F(Connectivity, ConnectedMap_UnlistedGuestWithLink_IsAdded) {
  AddGuest("new", R"(["v"])");
  AddGuest("other", R"([])");
  Platform().ids["guest"].clear();
  AddVnicOn("v", "new", "h", kPrivate);
  AddVnicOn("w", "other", "h", kPrivate);
  EXPECT_EQ(Map(), (Connected{{"new", 1}}));
}

TEST_F(Connectivity, Nic_Position_IsBitModulo32) {
  Json::Value vnics(Json::arrayValue);
  for (int i = 0; i < 65; ++i) vnics.append("v" + std::to_string(i));
  const std::pair<int, unsigned int> kBits[] = {{0, 1u},  {30, 1u << 30}, {31, 1u << 31},
                                                {32, 1u}, {63, 1u << 31}, {64, 1u}};
  for (const auto& [position, bit] : kBits) {
    ResetPlatform();
    AddGuest("g", Text(vnics));
    AddVnicOn("v" + std::to_string(position), "g", "h", kPrivate);
    EXPECT_EQ(static_cast<unsigned int>(Map().at("g")), bit) << position;
  }
  ResetPlatform();
  AddGuest("g", Text(vnics));
  for (int i = 0; i < 65; ++i) AddVnicOn("v" + std::to_string(i), "g", "h", kPrivate);
  EXPECT_EQ(Map().at("g"), -1);
}

TEST_F(Connectivity, Port_OfManyGuests_IsLookedUpOnce) {
  constexpr int kGuests = 50;
  AddLinkedHost("h");
  AddPort("h", "n1", "eth1");
  for (int i = 0; i < kGuests; ++i) {
    const std::string id = std::to_string(i);
    AddGuest(id, "[\"a" + id + "\",\"b" + id + "\"]");
    AddVnicOn("a" + id, id, "h", kPort);
    AddVnicOn("b" + id, id, "h", R"({"bridge_name":"b","nic_id":"n1"})");
  }
  const Connected connected = Map();
  EXPECT_EQ(connected.size(), 50u);
  for (const auto& [id, bits] : connected) EXPECT_EQ(bits, 1) << id;
  // Three listings, each interface, each guest once for its one link, and each port.
  EXPECT_EQ(Platform().reads.size(), 3u + 2 * kGuests + kGuests + 2 * 2);
}

TEST_F(Connectivity, RepliesAndRecordsOfAnyType_NeverThrow) {
  AddLinkedHost("h");
  AddGuest("g", R"(["v","w"])");
  AddVnic("v", "g", std::string(R"({"h":)") + kPort + "}");
  AddVnic("w", "g", std::string(R"({"h":)") + kPrivate + "}");
  EXPECT_EQ(Map(), (Connected{{"g", 3}}));
  for (Json::Value* value : {&Platform().replies["h"], &Platform().records["host/h/nics/n0"],
                             &Platform().records["vnic/v/object"], &Platform().records["guest/g/object"]}) {
    const Json::Value good = *value;
    ForEachMutation(*value, [&] { EXPECT_TRUE(Map().contains("g")); });
    *value = good;
  }
}

}  // namespace
}  // namespace vexa::test
