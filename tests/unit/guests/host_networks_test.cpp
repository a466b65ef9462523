// Which networks a host has, on a folder in the place of the machine's.
#include "host/guests/host_networks.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/temp_dir.h"

namespace vexa::guests {
namespace {

class Networks : public testing::Test {
 protected:
  void MakeFolder(const std::string& path) { std::filesystem::create_directories(folder_.path() + path); }
  bool Has(const std::string& name) const { return HostNetworks({}, folder_.path())(name); }
  test::TempDir folder_;
};

TEST_F(Networks, HostNetworks_KernelBridges_Exist) {
  MakeFolder("/sys/class/net/br0/bridge");
  MakeFolder("/sys/class/net/eth0/device");
  EXPECT_TRUE(Has("br0"));
  EXPECT_FALSE(Has("eth0")) << "a card is not a bridge";
  EXPECT_FALSE(Has("br1"));
  std::ofstream(folder_.path() + "/sys/class/net/eth0/bridge") << "a file";
  EXPECT_FALSE(Has("eth0"));
}

TEST_F(Networks, HostNetworks_BridgeThroughSymlink_Exists) {
  MakeFolder("/sys/devices/virtual/net/br0/bridge");
  MakeFolder("/sys/class/net");
  std::filesystem::create_directory_symlink("../../devices/virtual/net/br0", folder_.path() + "/sys/class/net/br0");
  std::filesystem::create_directory_symlink("../../devices/virtual/net/gone",
                                            folder_.path() + "/sys/class/net/ovs_gone");
  EXPECT_TRUE(Has("br0"));
  EXPECT_FALSE(Has("ovs_gone"));
}

TEST_F(Networks, HostNetworks_SwitchBridges_AreFoundByName) {
  MakeFolder("/sys/class/net/ovs_lan");
  MakeFolder("/sys/class/net/ovs_card/device");
  MakeFolder("/sys/class/net/tap0");
  EXPECT_TRUE(Has("ovs_lan"));
  EXPECT_FALSE(Has("ovs_card")) << "hardware, whatever its name";
  EXPECT_FALSE(Has("tap0"));
  EXPECT_FALSE(Has("lan"));
}

TEST_F(Networks, HostNetworks_PathLikeNames_DoNotExist) {
  MakeFolder("/sys/class/net/br0/bridge");
  MakeFolder("/sys/class/net/bridge");
  MakeFolder("/sys/class/bridge");
  MakeFolder("/sys/class/net/sixteen-letters-/bridge");
  MakeFolder("/sys/class/net/fifteen-letters/bridge");
  MakeFolder("/sys/class/net/with blank/bridge");
  MakeFolder("/sys/class/net/a:1/bridge");
  MakeFolder("/sys/class/net/br\xC3\xB6/bridge");
  for (const std::string& name :
       std::vector<std::string>{"", ".", "..", "/", "br0/", "/br0", "../net/br0", "br0/../br0", "br0\n",
                                std::string("br0\0", 4), std::string("br0\0x", 5), "with blank", "a:1", "br\xC3\xB6",
                                "sixteen-letters-", std::string(100'000, 'x'), "%s%n"}) {
    EXPECT_FALSE(Has(name)) << name;
  }
  EXPECT_TRUE(Has("fifteen-letters"));
}

TEST_F(Networks, HostNetworks_NotABridge_AsksLibvirt) {
  MakeFolder("/sys/class/net/br0/bridge");
  int asked = 0;
  const HostNetworks networks(
      [&] {
        ++asked;
        return std::vector<std::string>{"default", "a network / of libvirt", ""};
      },
      folder_.path());
  EXPECT_TRUE(networks("br0"));
  EXPECT_EQ(asked, 0);
  EXPECT_TRUE(networks("default"));
  EXPECT_TRUE(networks("a network / of libvirt"));
  EXPECT_FALSE(networks("defaul"));
  EXPECT_EQ(asked, 3);
  EXPECT_FALSE(networks("")) << "no name names nothing";
}

TEST(HostNetworksOfThisMachine, HostNetworks_Loopback_IsNotNetwork) {
  const std::function<bool(const std::string&)> networks = HostNetworks({});
  EXPECT_FALSE(networks("lo"));
  EXPECT_FALSE(networks("no-such-bridge"));
}

}  // namespace
}  // namespace vexa::guests
