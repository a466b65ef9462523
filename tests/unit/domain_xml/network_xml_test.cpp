// XML of libvirt's networks: what is written, and what is read of any XML.
#include "host/domain_xml/network_xml.h"

#include <gtest/gtest.h>

namespace vexa::domain_xml {
namespace {

TEST(NetworkXml, Definition_WithHostileName_IsReadAsWritten) {
  NetworkDefinition definition;
  definition.name = "<a> & 'b'";
  definition.uuid = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
  definition.id = "i";
  definition.host_id = "h";
  definition.subnet = ParseIpv4Subnet("192.168.100.0/29");
  definition.has_nat = true;
  EXPECT_EQ(BuildNetworkXml(definition), R"(<network>
  <name>&lt;a&gt; &amp; 'b'</name>
  <uuid>0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211</uuid>
  <metadata>
    <vexa:network xmlns:vexa="urn:vexa:network:1" id="i" host="h" definition="nat 192.168.100.0/29" />
  </metadata>
  <forward mode="nat" />
  <ip address="192.168.100.1" prefix="29">
    <dhcp>
      <range start="192.168.100.2" end="192.168.100.6" />
    </dhcp>
  </ip>
</network>
)");
  const ParsedNetwork parsed = ParseNetworkXml(BuildNetworkXml(definition));
  EXPECT_EQ(parsed.uuid, definition.uuid);
  EXPECT_EQ(parsed.kind, "nat");
  EXPECT_EQ(parsed.subnet, "192.168.100.0/29");
  EXPECT_EQ(parsed.id, "i");
  EXPECT_EQ(parsed.host_id, "h");
  EXPECT_EQ(parsed.definition, "nat 192.168.100.0/29");
}

TEST(NetworkXml, Kinds_OfLibvirt_AreRecognized) {
  const std::pair<const char*, const char*> rows[] = {
      {"<network/>", "isolated"},
      {"<network><forward/></network>", "nat"},
      {"<network><forward mode='nat'/></network>", "nat"},
      {"<network><forward mode='route'/></network>", "other"},
      {"<network><forward mode='bridge'/><bridge name='br0'/></network>", "bridge"},
      {"<network><forward mode='bridge'><interface dev='eth0'/></forward></network>", "macvtap"},
      {"<network><forward mode='bridge'/><bridge name='b'/><vlan><tag id='7'/></vlan></network>", "other"},
      {"<network><forward mode='hostdev'/></network>", "other"},
      {"not XML", "other"},
  };
  for (const auto& [xml, kind] : rows) EXPECT_EQ(ParseNetworkXml(xml).kind, kind) << xml;
}

TEST(NetworkXml, Subnet_FirstOfIpv4_IsRead) {
  const auto subnet = [](const std::string& ips) { return ParseNetworkXml("<network>" + ips + "</network>").subnet; };
  EXPECT_EQ(subnet("<ip address='192.168.122.1' netmask='255.255.255.0'/>"), "192.168.122.0/24");
  EXPECT_EQ(subnet("<ip family='ipv6' address='fd00::1' prefix='64'/><ip address='10.0.0.1' prefix='8'/>"),
            "10.0.0.0/8");
  for (const char* ips : {"", "<ip/>", "<ip address='x' prefix='24'/>", "<ip address='10.0.0.1' prefix='99'/>",
                          "<ip address='10.0.0.1' netmask='255.0.255.0'/>"}) {
    EXPECT_EQ(subnet(ips), "") << ips;
  }
}

TEST(NetworkXml, Mark_OfOtherPrograms_IsNotOurs) {
  EXPECT_FALSE(
      ParseNetworkXml("<network><metadata><a:network xmlns:a='urn:other' id='x'/></metadata></network>").IsMarked());
  EXPECT_FALSE(ParseNetworkXml("<network><metadata><network id='x'/></metadata></network>").IsMarked());
  EXPECT_TRUE(
      ParseNetworkXml("<network><metadata><a:network xmlns:a='urn:vexa:network:1' id='x'/></metadata></network>")
          .IsMarked());
}

}  // namespace
}  // namespace vexa::domain_xml
