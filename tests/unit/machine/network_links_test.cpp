// How network interfaces are connected, on a folder in place of /sys.
#include "host/machine/network_links.h"

#include "host/base/json_parse.h"
#include "host/guests/host_networks.h"
#include "tests/support/matchers.h"
#include "tests/unit/machine/fake_interfaces.h"

namespace vexa::machine {
namespace {

using test::FakeInterfaces;
using test::FakeSwitch;
using test::SwitchAnswer;
using Cable = FakeInterfaces::Cable;

class Links : public testing::Test {
 protected:
  NetworkLinks links() const {
    return NetworkLinks(net_.root(), [this](const std::string& name) {
      return name == switched_ ? std::string("openvswitch") : std::string("veth");
    });
  }
  // "eth0 up" for each uplink.
  std::vector<std::string> Uplinks(const std::string& bridge) const {
    std::vector<std::string> words;
    for (const Uplink& uplink : links().UplinksOf(bridge)) {
      words.push_back(uplink.name + (uplink.has_link ? " up" : " down"));
    }
    return words;
  }
  bool HasLink(const std::string& name) const { return links().HasLink(name); }

  FakeInterfaces net_;
  std::string switched_;  // what has the driver of the switch
};

TEST_F(Links, Bridge_WithCard_HasLinkOfCardNotOfGuests) {
  net_.Add("br0", "bridge");
  net_.Add("eth0", "device");
  net_.AddTap("vnet0");
  net_.MakePort("eth0", "br0");
  net_.MakePort("vnet0", "br0");
  EXPECT_THAT(Uplinks("br0"), ElementsAre("eth0 up"));
  EXPECT_TRUE(HasLink("br0"));
  net_.Plug("eth0", Cable::kOut);
  EXPECT_THAT(Uplinks("br0"), ElementsAre("eth0 down"));
  EXPECT_FALSE(HasLink("br0")) << "the carrier of the bridge is that of its guest";
  net_.SwitchOff("eth0");
  EXPECT_FALSE(HasLink("br0"));
}

TEST_F(Links, Bridge_VirtualPortsOnly_UsesThemAsUplinks) {
  net_.Add("br0", "bridge");
  net_.Add("veth0");
  net_.AddTap("vnet0");
  net_.MakePort("veth0", "br0");
  net_.MakePort("vnet0", "br0");
  EXPECT_THAT(Uplinks("br0"), ElementsAre("veth0 up"));
  net_.Plug("veth0", Cable::kOut);
  EXPECT_FALSE(HasLink("br0"));
  net_.Unplug("veth0", "br0");
  EXPECT_THAT(Uplinks("br0"), IsEmpty());
}

TEST_F(Links, Bridge_CardAndContainer_IgnoresContainer) {
  net_.Add("br0", "bridge");
  net_.Add("eth0", "device", Cable::kOut);
  net_.Add("veth0");
  net_.MakePort("eth0", "br0");
  net_.MakePort("veth0", "br0");
  EXPECT_THAT(Uplinks("br0"), ElementsAre("eth0 down"));
}

TEST_F(Links, Bridge_OnBondsAndVlans_HasTheirLink) {
  net_.Add("eth0", "device");
  net_.Add("bond0", "bonding");
  net_.MakePort("eth0", "bond0");
  net_.Add("bond0.7");
  net_.Stack("bond0.7", "bond0");
  net_.Add("br7", "bridge");
  net_.MakePort("bond0.7", "br7");
  EXPECT_THAT(Uplinks("br7"), ElementsAre("bond0.7 up"));
  EXPECT_TRUE(links().IsPhysical("br7"));
  net_.Plug("bond0.7", Cable::kOut);
  EXPECT_FALSE(HasLink("br7"));
}

TEST_F(Links, Vlan_OnBridge_HasLinkOfBridgeUplinks) {
  net_.Add("br0", "bridge");
  net_.Add("eth0", "device", Cable::kOut);
  net_.MakePort("eth0", "br0");
  net_.Add("br0.9");
  net_.Stack("br0.9", "br0");
  net_.Add("br9", "bridge");
  net_.MakePort("br0.9", "br9");
  EXPECT_FALSE(HasLink("br9")) << "the VLAN has the carrier of the guests on the bridge below it";
  net_.Plug("eth0", Cable::kIn);
  EXPECT_TRUE(HasLink("br9"));
}

TEST_F(Links, Bridges_InACycle_Terminate) {
  net_.Add("br0", "bridge");
  net_.Add("br1", "bridge");
  net_.MakePort("br0", "br1");
  net_.MakePort("br1", "br0");
  EXPECT_FALSE(links().IsPhysical("br0"));
  EXPECT_FALSE(HasLink("br0"));
}

TEST_F(Links, KindOf_KernelSwitch_IsKnownByDriver) {
  net_.Add("lan");
  net_.Add("ovs-system");
  net_.Add("eth0", "device");
  net_.AddTap("vnet0");
  net_.MakePort("eth0", "ovs-system");
  net_.MakePort("vnet0", "ovs-system");
  EXPECT_EQ(links().KindOf("lan"), BridgeKind::kNone);
  switched_ = "lan";
  EXPECT_EQ(links().KindOf("lan"), BridgeKind::kSwitch);
  EXPECT_THAT(Uplinks("lan"), ElementsAre("eth0 up"));
  EXPECT_EQ(links().IsSwitchPort("lan", "vnet0"), std::nullopt) << "the kernel does not show on which bridge it is";
  EXPECT_TRUE(links().IsAnySwitchPort("eth0"));
  switched_ = "ovs-system";
  EXPECT_EQ(links().KindOf("ovs-system"), BridgeKind::kNone) << "it stands for all bridges of the switch";
}

TEST_F(Links, Uplinks_SwitchDatabase_HasPortsOfEachBridge) {
  for (const char* const name : {"lan", "dmz", "host0"}) net_.AddTap(name);
  net_.Add("eth0", "device");
  net_.Add("eth1", "device", Cable::kOut);
  net_.AddTap("vnet0");
  net_.AddTap("vnet1");
  const FakeSwitch fake(
      net_.root(),
      SwitchAnswer(
          {{"lan", {{"lan", "internal"}, {"host0", "internal"}, {"eth0", ""}, {"vnet0", ""}, {"missing", "system"}}},
           {"dmz", {{"eth1", "system"}, {"vnet1", ""}}}}));
  EXPECT_EQ(links().KindOf("lan"), BridgeKind::kSwitch);
  EXPECT_EQ(links().KindOf("host0"), BridgeKind::kNone) << "an internal port is not a bridge";
  EXPECT_THAT(Uplinks("lan"), ElementsAre("eth0 up"));
  EXPECT_THAT(Uplinks("dmz"), ElementsAre("eth1 down"));
  EXPECT_EQ(links().IsSwitchPort("lan", "vnet0"), true);
  EXPECT_EQ(links().IsSwitchPort("dmz", "vnet0"), false);
  EXPECT_THAT(links().GuestUplinks(), ElementsAre("dmz", "lan"));
  NetworkLinks once = links();
  const int before = fake.asked();
  once.GuestUplinks();
  EXPECT_TRUE(once.HasLink("lan"));
  EXPECT_EQ(fake.asked(), before + 1) << "one object asks once";
}

TEST_F(Links, Uplinks_SwitchWithPatches_IncludesPeerBridgeUplinks) {
  for (const char* const name : {"inner", "outer"}) net_.AddTap(name);
  net_.Add("eth0", "device");
  const FakeSwitch fake(net_.root(), SwitchAnswer({{"inner", {{"to-outer", "patch", "to-inner"}, {"tunnel", "vxlan"}}},
                                                   {"outer", {{"to-inner", "patch", "to-outer"}, {"eth0", ""}}}}));
  EXPECT_THAT(Uplinks("inner"), ElementsAre("eth0 up"));
  EXPECT_THAT(Uplinks("outer"), ElementsAre("eth0 up")) << "hardware comes before tunnels";
  EXPECT_TRUE(links().IsPhysical("inner"));
}

TEST_F(Links, Link_UserSpaceSwitch_UsesItsOwnLinkState) {
  net_.AddTap("fast");
  const FakeSwitch fake(net_.root(), SwitchAnswer({{"fast",
                                                    {{"dpdk0", "dpdk", "", "up"},
                                                     {"dpdk1", "dpdk", "", "down"},
                                                     {"vhost0", "dpdkvhostuserclient", "", "up"}}}}));
  EXPECT_THAT(Uplinks("fast"), ElementsAre("dpdk0 up", "dpdk1 down"));
}

TEST_F(Links, KindOf_SwitchDatabaseUnavailable_UsesName) {
  net_.AddTap("ovs_lan");
  EXPECT_EQ(links().KindOf("ovs_lan"), BridgeKind::kSwitch);
  EXPECT_THAT(Uplinks("ovs_lan"), IsEmpty());
  for (const std::string& answer :
       {std::string("{}"), std::string("{\"result\":[1,2,3],\"error\":null}"), std::string("}"),
        std::string(R"({"error":"a \" { string","result":null,"id":1})"), std::string("[\"rows\"]")}) {
    const FakeSwitch fake(net_.root(), answer);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(links().KindOf("ovs_lan"), BridgeKind::kSwitch) << answer;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5)) << answer;
  }
}

TEST_F(Links, Switch_Hangs_IsQueriedOnlyOnce) {
  net_.AddTap("ovs_lan");
  const FakeSwitch fake(net_.root(), "");
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(links().KindOf("ovs_lan"), BridgeKind::kSwitch);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  EXPECT_EQ(fake.asked(), 1);
}

TEST_F(Links, GuestPorts_BridgesWithUplinksAndMacvtapDevices_AreListed) {
  net_.Add("br0", "bridge");
  net_.Add("eth0", "device");
  net_.MakePort("eth0", "br0");
  net_.Add("virbr0", "bridge");
  net_.AddTap("vnet0");
  net_.MakePort("vnet0", "virbr0");
  net_.Add("eth1", "device");
  net_.Add("eth2", "device");
  net_.Add("macvtap0", "macvtap");
  net_.Stack("macvtap0", "eth1");
  EXPECT_THAT(links().GuestUplinks(), ElementsAre("br0", "eth1"));
}

TEST_F(Links, NetworkLinks_HostileNames_AreNotInterfaces) {
  net_.Add("br0", "bridge");
  NetworkLinks found = links();
  for (const std::string& name :
       std::vector<std::string>{"", ".", "..", "../net/br0", "br0/", std::string("br0\0", 4), std::string(100, 'x')}) {
    EXPECT_FALSE(found.Exists(name)) << name;
    EXPECT_FALSE(found.IsAdminUp(name)) << name;
    EXPECT_EQ(found.KindOf(name), BridgeKind::kNone) << name;
    EXPECT_FALSE(found.HasLink(name)) << name;
    EXPECT_EQ(found.MasterOf(name), "") << name;
  }
}

TEST_F(Links, HostNetworks_HaveBridgesOfTheSwitchWithAnyName) {
  net_.AddTap("lan");
  net_.Add("eth0", "device");
  const FakeSwitch fake(net_.root(), SwitchAnswer({{"lan", {{"eth0", ""}}}}));
  const guests::HostNetworks networks(nullptr, net_.root());
  EXPECT_TRUE(networks("lan"));
  EXPECT_FALSE(networks("eth0"));
  EXPECT_EQ(networks.KindOf("lan"), BridgeKind::kSwitch);
}

TEST(NetworkLinksOfThisMachine, Loopback_IsNotABridge) {
  NetworkLinks links;
  EXPECT_TRUE(links.Exists("lo"));
  EXPECT_EQ(links.KindOf("lo"), BridgeKind::kNone);
  EXPECT_FALSE(links.IsPhysical("lo"));
  EXPECT_EQ(SystemDriver("no-such"), "");
}

TEST(SwitchProtocol, SwitchQuestion_RequestsTheColumnsThatAreRead) {
  const auto question = ParseJson(SwitchQuery());
  ASSERT_TRUE(question);
  EXPECT_EQ((*question)["method"].asString(), "transact");
  EXPECT_EQ((*question)["params"][0].asString(), "Open_vSwitch");
  EXPECT_EQ((*question)["params"][3]["table"].asString(), "Interface");
}

}  // namespace
}  // namespace vexa::machine
