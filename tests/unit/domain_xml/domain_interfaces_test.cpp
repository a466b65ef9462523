// Interfaces as the XML of running domains describes them.
#include "host/domain_xml/domain_interfaces.h"

#include <gtest/gtest.h>

namespace vexa::domain_xml {
namespace {

std::string Domain(const std::string& interfaces) {
  return "<domain type='kvm' id='3'><devices>" + interfaces + "</devices></domain>";
}

// "into device target network up" of the only interface.
std::string Words(const GuestInterface& interface) {
  constexpr const char* kNames[] = {"bridge", "network", "device", "user", "other"};
  return std::string(kNames[static_cast<int>(interface.attachment_kind)]) + " [" + interface.device + "] [" +
         interface.target + "] [" + interface.network + "] " + (interface.is_link_up ? "up" : "down");
}

struct Row {
  const char* name;
  const char* xml;
  const char* words;
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class LiveInterface : public testing::TestWithParam<Row> {};

TEST_P(LiveInterface, Read_EachType_MatchesWhatLibvirtShows) {
  const auto interfaces = ParseGuestInterfaces(Domain(GetParam().xml));
  ASSERT_TRUE(interfaces);
  ASSERT_EQ(interfaces->size(), 1U);
  EXPECT_EQ(interfaces->front().mac, "52:54:00:ab:cd:ef");
  EXPECT_EQ(Words(interfaces->front()), GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, LiveInterface,
    testing::Values(
        Row{"bridge",
            "<interface type='bridge'><mac address='52:54:00:AB:CD:EF'/><source bridge='br0'/><target dev='vnet3'/>"
            "</interface>",
            "bridge [br0] [vnet3] [] up"},
        Row{"switch",
            "<interface type='bridge'><mac address='52:54:00:ab:cd:ef'/><source bridge='lan'/>"
            "<virtualport type='openvswitch'/><target dev='vnet3'/><link state='up'/></interface>",
            "bridge [lan] [vnet3] [] up"},
        Row{"nat",
            "<interface type='network'><mac address='52:54:00:ab:cd:ef'/>"
            "<source network='default' portid='x' bridge='virbr0'/><target dev='vnet0'/><link state='down'/>"
            "</interface>",
            "network [virbr0] [vnet0] [default] down"},
        Row{"network_on_a_bridge",
            "<interface type='bridge'><mac address='52:54:00:ab:cd:ef'/>"
            "<source network='lan' portid='x' bridge='br0'/><target dev='vnet0'/></interface>",
            "bridge [br0] [vnet0] [lan] up"},
        Row{"macvtap",
            "<interface type='direct'><mac address='52:54:00:ab:cd:ef'/><source dev='eth1' mode='bridge'/>"
            "<target dev='macvtap0'/></interface>",
            "device [eth1] [macvtap0] [] up"},
        Row{"user", "<interface type='user'><mac address='52:54:00:ab:cd:ef'/></interface>", "user [] [] [] up"},
        Row{"tap", "<interface type='ethernet'><mac address='52:54:00:ab:cd:ef'/><target dev='tap7'/></interface>",
            "other [] [tap7] [] up"}),
    [](const testing::TestParamInfo<Row>& row) { return row.param.name; });

TEST(LiveInterfaces, Parse_NoUsableMacAddress_OmitsInterface) {
  const auto interfaces = ParseGuestInterfaces(
      Domain("<interface type='bridge'/><interface type='bridge'><mac address='01:00:5e:00:00:01'/></interface>"
             "<interface type='user'><mac address='52:54:00:00:00:02'/></interface>"));
  ASSERT_TRUE(interfaces);
  ASSERT_EQ(interfaces->size(), 1U);
  EXPECT_EQ(interfaces->front().mac, "52:54:00:00:00:02");
}

TEST(LiveInterfaces, Interfaces_NotADomain_IsError) {
  for (const char* const xml : {"", "<network/>", "<domain", "text"}) EXPECT_FALSE(ParseGuestInterfaces(xml)) << xml;
  const auto none = ParseGuestInterfaces("<domain/>");
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->empty());
}

std::string Resolved(const char* xml, const std::string& bridge) {
  GuestInterface interface;
  interface.attachment_kind = NicAttachment::kNetwork;
  interface.network = "n";
  ResolveNetwork(xml, bridge, interface);
  return Words(interface);
}

TEST(NetworksOfLibvirt, ResolveNetwork_FollowsNetworkXml) {
  EXPECT_EQ(Resolved("<network><forward mode='nat'/><bridge name='virbr0'/></network>", "virbr0"),
            "network [virbr0] [] [n] up");
  EXPECT_EQ(Resolved("<network><bridge name='virbr1'/></network>", ""), "network [virbr1] [] [n] up");
  EXPECT_EQ(Resolved("<network><forward mode='bridge'/><bridge name='br0'/></network>", "br0"),
            "bridge [br0] [] [n] up");
  EXPECT_EQ(Resolved("<network><forward mode='passthrough'><interface dev='eth1'/><interface dev='eth2'/></forward>"
                     "</network>",
                     ""),
            "device [eth1] [] [n] up");
  EXPECT_EQ(Resolved("<network><forward dev='eth0' mode='nat'/><bridge name='virbr0'/></network>", ""),
            "network [virbr0] [] [n] up");
  EXPECT_EQ(Resolved("not XML", "virbr7"), "network [virbr7] [] [n] up");
}

}  // namespace
}  // namespace vexa::domain_xml
