#include "host/base/peer_network.h"

#include <gtest/gtest.h>

namespace vexa {
namespace {

TEST(PeerNetwork, Ipv6_AddressesOfOneNetwork_HaveOneKey) {
  EXPECT_EQ(PeerNetwork("2001:db8:0:1::1"), "2001:db8:0:1::/64");
  EXPECT_EQ(PeerNetwork("2001:DB8:0:1:ffff:ffff:ffff:ffff"), "2001:db8:0:1::/64");
  EXPECT_EQ(PeerNetwork("2001:db8:0:2::1"), "2001:db8:0:2::/64");
  EXPECT_EQ(PeerNetwork("::1"), "::/64");
}

TEST(PeerNetwork, Ipv4_AlsoMappedIntoIpv6_IsItsOwnKey) {
  EXPECT_EQ(PeerNetwork("192.0.2.1"), "192.0.2.1");
  EXPECT_EQ(PeerNetwork("::ffff:192.0.2.1"), "192.0.2.1");
  EXPECT_EQ(PeerNetwork("::ffff:c000:202"), "192.0.2.2");
}

TEST(PeerNetwork, TextThatIsNotAnAddress_IsUnchanged) {
  for (const std::string& text : {std::string(), std::string("unix:0"), std::string("fe80::1%eth0"),
                                  std::string("::1\0", 4), std::string("2001:db8::/64")}) {
    EXPECT_EQ(PeerNetwork(text), text);
  }
}

}  // namespace
}  // namespace vexa
