// Whether the connections that a host depends on work, on a folder in the place of its machine's.
#include "host/machine/host_links.h"

#include <gtest/gtest.h>

#include "tests/unit/machine/fake_interfaces.h"

namespace vexa::machine {
namespace {

using test::FakeInterfaces;
using Cable = FakeInterfaces::Cable;

class BrokenLink : public testing::Test {
 protected:
  bool IsBroken() const {
    return HasBrokenLink(Machine(net_.root()), [this] { return addresses_; });
  }
  FakeInterfaces net_;
  std::vector<InterfaceAddress> addresses_;
};

TEST_F(BrokenLink, BrokenLink_SpareCard_DoesNotCount) {
  net_.Add("eth0", "device");
  net_.Add("eth1", "device", Cable::kOut);
  addresses_ = {{"eth0", "192.0.2.1", "255.255.255.0", false}};
  EXPECT_FALSE(IsBroken());
  addresses_.push_back({"eth1", "169.254.3.4", "255.255.0.0", false});
  EXPECT_FALSE(IsBroken()) << "an address that the card gave itself";
  addresses_.push_back({"eth1", "2001:db8::1", "ffff:ffff::", true});
  EXPECT_TRUE(IsBroken());
  net_.SwitchOff("eth1");
  EXPECT_FALSE(IsBroken()) << "an administrator has switched it off";
}

TEST_F(BrokenLink, PortOfABridge_Counts) {
  net_.Add("br0", "bridge");
  net_.Add("eth0", "device");
  net_.MakePort("eth0", "br0");
  EXPECT_FALSE(IsBroken());
  net_.Plug("eth0", Cable::kOut);
  EXPECT_TRUE(IsBroken());
}

TEST_F(BrokenLink, OnePortOfABond_Counts) {
  net_.Add("bond0", "bonding");
  net_.Add("eth0", "device");
  net_.Add("eth1", "device");
  net_.MakePort("eth0", "bond0");
  net_.MakePort("eth1", "bond0");
  EXPECT_FALSE(IsBroken());
  net_.Plug("eth1", Cable::kOut);
  EXPECT_TRUE(IsBroken()) << "the bond is up, and no longer safe";
}

TEST_F(BrokenLink, Bond_CountsLikeACard) {
  net_.Add("bond0", "bonding", Cable::kOut);
  EXPECT_FALSE(IsBroken());
  addresses_ = {{"bond0", "192.0.2.1", "255.255.255.0", false}};
  EXPECT_TRUE(IsBroken());
}

TEST_F(BrokenLink, BrokenLink_VlanHasAddress_CardCounts) {
  net_.Add("eth0", "device", Cable::kOut);
  net_.Add("eth0.7");
  net_.Put("eth0.7", "uevent", "DEVTYPE=vlan");
  net_.Stack("eth0.7", "eth0");
  EXPECT_FALSE(IsBroken());
  addresses_ = {{"eth0.7", "192.0.2.1", "255.255.255.0", false}};
  EXPECT_TRUE(IsBroken());
}

TEST_F(BrokenLink, PortOfTheVirtualSwitch_Counts) {
  net_.Add("ovs-system");
  net_.Add("eth0", "device", Cable::kOut);
  net_.MakePort("eth0", "ovs-system");
  EXPECT_TRUE(IsBroken());
}

TEST_F(BrokenLink, PortOfAnotherMaster_DoesNotCount) {
  net_.Add("vrf0");
  net_.Add("eth0", "device", Cable::kOut);
  net_.MakePort("eth0", "vrf0");
  EXPECT_FALSE(IsBroken());
}

TEST(BrokenLinkOfThisMachine, BrokenLink_ThisMachine_CanBeQueried) { (void)HasBrokenLink(Machine()); }

}  // namespace
}  // namespace vexa::machine
