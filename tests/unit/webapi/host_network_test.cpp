// Interfaces of hosts, and addresses of guests' interfaces.
#include "tests/unit/webapi/host_fixture.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using VexaVirtualization::GetAllInterfaceInfo;
using VexaVirtualization::GetDefaultVnic;
using VexaVirtualization::GetInterfaceNameById;
using VexaVirtualization::MacAddrCheck;

class HostNetwork : public HostLibrary {
 protected:
  static void AddNic(const std::string& host, const std::string& id, std::string_view record) {
    Platform().children["host/" + host + "/nics"].push_back(id);
    Platform().records["host/" + host + "/nics/" + id] = Parsed(record);
  }
  static void AddHost(const std::string& id, std::string_view interfaces) {
    Platform().all_hosts.push_back(id);
    Platform().replies[id] = Success(interfaces);
  }
  Json::Value out_;
};

TEST_F(HostNetwork, AllInterfaces_WithRecord_AreInRecordOrder) {
  AddHost("h2", R"([{"ifname":"eth0","ip":"1"},{"ifname":"eth1","ip":"2"},{"ifname":"lo"}])");
  AddNic("h2", "n1", R"({"name":"eth1"})");
  AddNic("h2", "n0", R"({"name":"eth0"})");
  AddHost("h1", R"([{"ifname":"eth0","ip":"3","host_id":"forged","interface_id":7}])");
  AddNic("h1", "n2", R"({"name":"eth0"})");
  GetAllInterfaceInfo(out_);
  EXPECT_EQ(Text(out_), R"([{"host_id":"h2","ifname":"eth1","interface_id":"n1","ip":"2"},)"
                        R"({"host_id":"h2","ifname":"eth0","interface_id":"n0","ip":"1"},)"
                        R"({"host_id":"h1","ifname":"eth0","interface_id":"n2","ip":"3"}])");
  ASSERT_EQ(Platform().sent.size(), 2u);
  for (const SentRequest& sent : Platform().sent) {
    EXPECT_EQ(sent.by, SentRequest::By::kMultiSender);
    EXPECT_EQ(sent.timeout_s, 0);
    EXPECT_EQ(Text(sent.json), R"({"api":"VEXA.Core.Network.Interface","method":"list","version":1})");
  }
  ExpectNoLine();
}

TEST_F(HostNetwork, InterfacesByName_SeveralMatch_ReturnsAll) {
  AddHost("h", R"([{"ifname":"eth0","ip":"1"},{"ifname":"eth0","ip":"2"}])");
  AddNic("h", "n0", R"({"name":"eth0"})");
  AddNic("h", "n1", R"({"name":"eth0"})");
  GetAllInterfaceInfo(out_);
  EXPECT_EQ(out_.size(), 4u);
}

TEST_F(HostNetwork, InterfacesByName_SwitchPrefix_IsNotTrimmed) {
  AddHost("h", R"([{"ifname":"eth0"},{"ifname":"ovs_eth1"},{"ifname":"eth2 "}])");
  AddNic("h", "n0", R"({"name":"ovs_eth0"})");
  AddNic("h", "n1", R"({"name":"eth1"})");
  AddNic("h", "n2", R"({"name":"eth2"})");
  GetAllInterfaceInfo(out_);
  EXPECT_TRUE(out_.isNull());
}

TEST_F(HostNetwork, AllInterfaces_HostOrNicFails_IsSkipped) {
  for (const char* id : {"failed", "part", "empty", "unlisted", "bare", "good"}) {
    AddHost(id, R"([{"ifname":"eth0"}])");
    if (std::string(id) != "bare") AddNic(id, "n0", R"({"name":"eth0"})");
  }
  Platform().replies["failed"] = Failure(102);
  Platform().replies["part"]["has_fail"] = true;
  Platform().replies["empty"]["data"] = Json::Value();
  Platform().list_results["host/unlisted/nics"] = -1;
  AddNic("good", "unreadable", R"({"name":"eth0"})");
  Platform().read_results["host/good/nics/unreadable"] = -1;
  AddNic("good", "absent", R"({"name":"eth0"})");
  Platform().records.erase("host/good/nics/absent");
  AddNic("good", "nameless", "{}");
  AddNic("good", "number", "5");
  AddNic("good", "last", R"({"name":"eth0"})");
  GetAllInterfaceInfo(out_);
  EXPECT_EQ(Text(out_), R"([{"host_id":"good","ifname":"eth0","interface_id":"n0"},)"
                        R"({"host_id":"good","ifname":"eth0","interface_id":"last"}])");
  for (const char* id : {"failed", "part", "empty"}) {
    for (const std::string& read : Platform().reads) EXPECT_FALSE(read.starts_with("host/" + std::string(id))) << read;
  }
  ExpectNoLine();
}

TEST_F(HostNetwork, Network_InterfacesNotObjects_MatchNoName) {
  AddHost("h", R"([null,5,"eth0",["eth0"],{"ifname":["eth0"]},{}])");
  AddNic("h", "n0", R"({"name":""})");
  AddNic("h", "n1", R"({"name":"eth0"})");
  GetAllInterfaceInfo(out_);
  // A missing name reads as the empty one.
  EXPECT_EQ(Text(out_),
            R"([{"host_id":"h","ifname":["eth0"],"interface_id":"n0"},{"host_id":"h","interface_id":"n0"}])");
}

TEST_F(HostNetwork, AllInterfaces_OutputOfAnyType_IsAppendedToOrReplaced) {
  AddHost("h", R"([{"ifname":"eth0"}])");
  AddNic("h", "n0", R"({"name":"eth0"})");
  for (const char* before : {"null", "5", R"("x")", R"({"a":1})", "[]"}) {
    out_ = Parsed(before);
    GetAllInterfaceInfo(out_);
    EXPECT_EQ(Text(out_), R"([{"host_id":"h","ifname":"eth0","interface_id":"n0"}])") << before;
  }
  GetAllInterfaceInfo(out_);
  EXPECT_EQ(out_.size(), 2u);
}

TEST_F(HostNetwork, NameById_RecordName_IsReturnedWithoutPrefix) {
  AddNic("h", "n0", R"({"name":"ovs_eth0"})");
  AddNic("h", "n1", R"({"name":"bond1"})");
  AddNic("h", "n2", R"({})");
  std::string name = "untouched";
  EXPECT_TRUE(GetInterfaceNameById("h", "n0", name));
  EXPECT_EQ(name, "eth0");
  EXPECT_TRUE(GetInterfaceNameById("h", "n1", name));
  EXPECT_EQ(name, "bond1");
  EXPECT_TRUE(GetInterfaceNameById("h", "n2", name));
  EXPECT_EQ(name, "");
  EXPECT_TRUE(Platform().sent.empty());
}

TEST_F(HostNetwork, NameById_Fails_KeepsName) {
  AddNic("h", "n0", R"({"name":"eth0"})");
  AddNic("h", "gone", R"({})");
  Platform().records.erase("host/h/nics/gone");
  Platform().records["host/h/nics/unlisted"] = Parsed(R"({"name":"eth9"})");
  std::string name = "untouched";
  for (const char* id : {"N0", "n", "", "unlisted", "gone"}) EXPECT_FALSE(GetInterfaceNameById("h", id, name)) << id;
  EXPECT_FALSE(GetInterfaceNameById("other", "n0", name));
  Platform().read_results["host/h/nics/n0"] = -1;
  EXPECT_FALSE(GetInterfaceNameById("h", "n0", name));
  Platform().read_results.clear();
  Platform().list_results["host/h/nics"] = -1;
  EXPECT_FALSE(GetInterfaceNameById("h", "n0", name));
  EXPECT_EQ(name, "untouched");
  ExpectNoLine();
}

TEST_F(HostNetwork, MacCheck_FreeAddress_LeavesErrorUntouched) {
  for (const char* before : {"null", "5", R"({"a":1})"}) {
    out_ = Parsed(before);
    EXPECT_EQ(MacAddrCheck("02:00:00:00:00:01", out_), 0);
    EXPECT_EQ(Text(out_), Text(Parsed(before)));
  }
  EXPECT_EQ(Platform().checked_addresses.at(0), "02:00:00:00:00:01");
}

TEST_F(HostNetwork, MacCheck_UsedAddress_NamesTheGuest) {
  Platform().address_check_result = 1;
  Platform().address_user = "g";
  Platform().names["guest/g"] = "web";
  for (const char* before : {"null", "5", "[1]", R"({"a":1,"mac_addr":"old"})"}) {
    out_ = Parsed(before);
    EXPECT_EQ(MacAddrCheck("02:00:00:00:00:01", out_), -1);
    EXPECT_EQ(Text(out_), R"({"guest_name":"web","mac_addr":"02:00:00:00:00:01"})");
  }
  ExpectNoLine();
}

TEST_F(HostNetwork, MacCheck_UsedByNamelessGuest_ReportsAddressOnly) {
  for (const int result : {1, -1, 7}) {
    Platform().address_check_result = result;
    Platform().address_user = result < 0 ? "" : "g";
    out_ = Parsed(R"({"guest_name":"old"})");
    EXPECT_EQ(MacAddrCheck("m", out_), -1);
    EXPECT_EQ(Text(out_), R"({"mac_addr":"m"})");
  }
}

TEST_F(HostNetwork, DefaultVnic_Added_HasNewAddress) {
  Platform().new_address = "02:00:00:00:00:07";
  const std::string vnic =
      R"({"mac":"02:00:00:00:00:07","network_id":"","prefer_sriov":false,"type":"add","vnic_type":1})";
  for (const char* before : {"null", "5", R"("x")", R"({"a":1})", "[]"}) {
    out_ = Parsed(before);
    EXPECT_EQ(GetDefaultVnic(out_), 0);
    EXPECT_EQ(Text(out_), "[" + vnic + "]") << before;
  }
  EXPECT_EQ(GetDefaultVnic(out_), 0);
  EXPECT_EQ(Text(out_), "[" + vnic + "," + vnic + "]");
  EXPECT_EQ(out_[0]["vnic_type"].type(), Json::intValue);
  ExpectNoLine();
}

TEST_F(HostNetwork, DefaultVnic_NoNewAddress_KeepsListAndLogsLine1737) {
  for (const int result : {-1, 1}) {
    ClearCapturedSyslog();
    Platform().address_result = result;
    out_ = "untouched";
    EXPECT_EQ(GetDefaultVnic(out_), -1);
    EXPECT_EQ(out_, "untouched");
    ExpectOnlyLine(LOG_ERR, "utils:1737 Failed to gen mac");
  }
}

}  // namespace
}  // namespace vexa::test
