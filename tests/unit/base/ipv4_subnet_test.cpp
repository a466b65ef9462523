// Subnets: which texts are subnets, which are private, and which overlap.
#include "host/base/ipv4_subnet.h"

#include <gtest/gtest.h>

#include "host/base/interface_name.h"

namespace vexa {
namespace {

Ipv4Subnet Subnet(const char* text) { return ParseIpv4Subnet(text).value(); }

TEST(Ipv4Subnet, Parse_ValidText_IsPrintedAgain) {
  for (const char* text : {"192.168.100.0/24", "10.0.0.0/8", "0.0.0.0/0", "255.255.255.255/32", "172.16.4.8/29"}) {
    const auto subnet = ParseIpv4Subnet(text);
    ASSERT_TRUE(subnet) << text;
    EXPECT_EQ(subnet->ToString(), text);
  }
  EXPECT_EQ(Ipv4Text(Subnet("192.168.100.0/24").Last()), "192.168.100.255");
}

TEST(Ipv4Subnet, Parse_AnythingElse_IsNotASubnet) {
  for (const char* text : {"", "/", "192.168.100.0", "192.168.100.0/", "192.168.100.0/33", "192.168.100.0/-1",
                           "192.168.100.1/24", "192.168.100/24", "192.168.100.0.0/24", "192.168.100.256/24",
                           "192.168.0100.0/24", "192.168.100.0/024", " 192.168.100.0/24", "192.168.100.0/24 ",
                           "192.168.100.0/24/1", "a.b.c.d/24", "1..2.3/24", "fd00::/64", "4294967296.0.0.0/8"}) {
    EXPECT_FALSE(ParseIpv4Subnet(text)) << text;
  }
}

TEST(Ipv4Subnet, SubnetOf_AddressAndMask_IsTheirSubnet) {
  EXPECT_EQ(SubnetOf("192.168.1.77", "255.255.255.0"), Subnet("192.168.1.0/24"));
  EXPECT_EQ(SubnetOf("10.1.2.3", "255.255.255.255"), Subnet("10.1.2.3/32"));
  EXPECT_FALSE(SubnetOf("10.1.2.3", "255.0.255.0"));
  EXPECT_FALSE(SubnetOf("fe80::1", "255.0.0.0"));
}

TEST(Ipv4Subnet, Overlap_OneContainsTheOther_IsTrue) {
  EXPECT_TRUE(Overlap(Subnet("10.0.0.0/8"), Subnet("10.200.0.0/16")));
  EXPECT_TRUE(Overlap(Subnet("10.200.0.0/16"), Subnet("10.0.0.0/8")));
  EXPECT_TRUE(Overlap(Subnet("10.0.0.0/24"), Subnet("10.0.0.0/24")));
  EXPECT_FALSE(Overlap(Subnet("10.0.0.0/24"), Subnet("10.0.1.0/24")));
}

TEST(Ipv4Subnet, IsPrivate_Ranges_AreThoseForPrivateNetworks) {
  for (const char* text : {"10.0.0.0/8", "10.255.255.0/24", "172.16.0.0/12", "172.31.0.0/16", "192.168.0.0/16"}) {
    EXPECT_TRUE(IsPrivate(Subnet(text))) << text;
  }
  for (const char* text : {"0.0.0.0/0", "8.0.0.0/7", "11.0.0.0/8", "172.32.0.0/16", "172.0.0.0/8", "192.0.0.0/8",
                           "192.169.0.0/16", "127.0.0.0/8"}) {
    EXPECT_FALSE(IsPrivate(Subnet(text))) << text;
  }
}

TEST(InterfaceName, NamesTheKernelRefuses_AreInvalid) {
  for (const char* name : {"br0", "eth0.42", "enp0s31f6", "123456789012345", "vlan-büro"}) {
    EXPECT_TRUE(IsInterfaceName(name)) << name;
  }
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("a/b"), std::string("a b"), std::string("a:b"),
        std::string("1234567890123456"), std::string("a\nb"), std::string("a\0b", 3), std::string("\xFF")}) {
    EXPECT_FALSE(IsInterfaceName(name)) << name;
  }
}

}  // namespace
}  // namespace vexa
