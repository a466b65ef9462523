#include "host/base/peer_network.h"

#include <gtest/gtest.h>

namespace vexa {
namespace {

struct Row {
  const char* address;
  const char* network;
};

class PeerNetworkTable : public testing::TestWithParam<Row> {};

TEST_P(PeerNetworkTable, Network_OfAddress_IsAsListed) {
  EXPECT_EQ(PeerNetwork(GetParam().address), GetParam().network);
}

INSTANTIATE_TEST_SUITE_P(Addresses, PeerNetworkTable,
                         testing::Values(Row{"192.0.2.1", "192.0.2.1"}, Row{"::ffff:192.0.2.1", "192.0.2.1"},
                                         Row{"::ffff:c000:201", "192.0.2.1"}, Row{"2001:db8::1", "2001:db8::/64"},
                                         Row{"2001:DB8:0:0:ffff::1", "2001:db8::/64"},
                                         Row{"2001:db8:0:1::1", "2001:db8:0:1::/64"},
                                         Row{"2001:db8:1:2:3:4:5:6", "2001:db8:1:2::/64"}, Row{"::1", "::/64"},
                                         Row{"fe80::1%eth0", "fe80::/64%eth0"}, Row{"fe80::2%eth0", "fe80::/64%eth0"},
                                         Row{"fe80::1%eth1", "fe80::/64%eth1"}, Row{"unix:1000", "unix:1000"},
                                         Row{"", ""}, Row{"not an address", "not an address"},
                                         Row{"192.0.2.1%eth0", "192.0.2.1%eth0"}));

TEST(PeerNetwork, Network_OfTextWithNul_IsThatText) {
  const std::string text("2001:db8::1\0x", 13);
  EXPECT_EQ(PeerNetwork(text), text);
}

}  // namespace
}  // namespace vexa
