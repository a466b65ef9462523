// The networks of a host as users and administrators see them: a real host on a real libvirtd, with real guests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/process.h"
#include "tests/support/system_host_test.h"
#include "webapi/error_codes.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000012";
constexpr auto kLimit = 30s;

class Networks : public SystemHostTest {
 protected:
  void SetUp() override { SetUpHost({"ip", "iptables", "dnsmasq"}); }
  void TearDown() override {
    if (!libvirtd_) return;
    if (HasFailure() && host_) std::fprintf(stderr, "%s\n%s\n", host_->Log().c_str(), libvirtd_->Log().c_str());
    StopHost(kGuest);
    for (const std::string& name : InLibvirt()) {
      const auto connection = Connect();
      const SystemLibvirtd::Network network(::virNetworkLookupByName(connection.get(), name.c_str()), ::virNetworkFree);
      ::virNetworkDestroy(network.get());
      ::virNetworkUndefine(network.get());
    }
    libvirtd_.reset();
    environment_.reset();
  }

  ProcessResult Vexa(std::vector<std::string> words) {
    words.insert(words.begin(), {environment_->Program("vexa"), "--socket", host_->Socket()});
    return RunProcess({.argv = std::move(words)});
  }
  // As `vexa network list` shows it; "" without one.
  std::string State(const std::string& name) {
    const auto networks = ParseJson(Vexa({"network", "list", "--json"}).output);
    if (!networks) return "no answer";
    for (const Json::Value& network : json::Elements(*networks)) {
      if (json::StringMember(network, "name") == name) return json::StringMember(network, "state");
    }
    return "";
  }
  void ExpectState(const std::string& name, const std::string& state) {
    EXPECT_TRUE(Await([&] { return State(name) == state; }, kLimit)) << name << " is " << State(name) << "\n"
                                                                     << Vexa({"network", "show", name}).output;
  }
  static SystemLibvirtd::Connection Connect() { return {::virConnectOpen(kSystemUri), ::virConnectClose}; }
  static std::vector<std::string> InLibvirt() {
    std::vector<std::string> names;
    const auto connection = Connect();
    virNetworkPtr* networks = nullptr;
    const int count = connection ? ::virConnectListAllNetworks(connection.get(), &networks, 0) : 0;
    for (int i = 0; i < count; ++i) {
      names.emplace_back(::virNetworkGetName(networks[i]));
      ::virNetworkFree(networks[i]);
    }
    ::free(networks);
    return names;
  }
  void PutGuest() {
    HostGuest guest;
    guest.id = kGuest;
    guest.name = "connected";
    guest.disks = 0;
    host_->PutGuest(guest);
  }
  // The bridge that the guest's tap is on.
  static std::string BridgeOfTap() {
    const std::string links = RunTool({"ip", "-o", "link", "show"});
    const std::size_t tap = links.find(": vnet");
    const std::size_t master = links.find(" master ", tap);
    if (tap == std::string::npos || master == std::string::npos) return "";
    const std::size_t begin = master + std::string(" master ").size();
    return links.substr(begin, links.find(' ', begin) - begin);
  }
};

// Debian defines the network "default" and does not start it.
TEST_F(Networks, PowerOn_NetworkOfLibvirtIsInactive_StartsIt) {
  constexpr char kXml[] =
      "<network><name>default</name><forward mode='nat'/><ip address='192.168.122.1' netmask='255.255.255.0'>"
      "<dhcp><range start='192.168.122.2' end='192.168.122.254'/></dhcp></ip></network>";
  const auto connection = Connect();
  const SystemLibvirtd::Network network(::virNetworkDefineXML(connection.get(), kXml), ::virNetworkFree);
  ASSERT_TRUE(network);
  PutGuest();
  host_->Start();
  ExpectState("default", "ready");
  ASSERT_EQ(::virNetworkIsActive(network.get()), 0) << "not before a guest needs it";
  const ProcessResult set = Vexa({"guest", "set", "connected", "--add-nic", "net=default"});
  ASSERT_EQ(set.exit_code, 0) << set.errors;
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  EXPECT_EQ(::virNetworkIsActive(network.get()), 1);
  EXPECT_THAT(BridgeOfTap(), testing::StartsWith("virbr"));
  EXPECT_THAT(host_->Log(),
              HasSubstr(std::string("Started libvirt's network 'default', which the guest ") + kGuest + " needs."));
  // A network that cannot be started: its subnet is taken.
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  ASSERT_EQ(::virNetworkDestroy(network.get()), 0);
  RunTool({"ip", "link", "add", "taken0", "type", "bridge"});
  RunTool({"ip", "addr", "add", "192.168.122.9/24", "dev", "taken0"});
  RunTool({"ip", "link", "set", "taken0", "up"});
  EXPECT_EQ(host_->Power(kGuest, "poweron"), user_error::kNoNetwork);
  EXPECT_THAT(host_->Log(), HasSubstr("Cannot start the network 'default'"));
  RunTool({"ip", "link", "del", "taken0"});
}

TEST_F(Networks, FirstStart_GuestGetsTheDefaultNetwork_AndKeepsItWhileUsed) {
  PutGuest();
  host_->Start();
  ExpectState("default", "ready");
  const ProcessResult set = Vexa({"guest", "set", "connected", "--add-nic", "net=default"});
  ASSERT_EQ(set.exit_code, 0) << set.errors;
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  EXPECT_THAT(BridgeOfTap(), testing::StartsWith("virbr"));
  const ProcessResult used = Vexa({"network", "remove", "default"});
  EXPECT_EQ(used.exit_code, 1);
  EXPECT_THAT(used.errors,
              HasSubstr("Reason: The network 'default' is used by the guest 'connected'. Put their interfaces"));
  host_->Restart();
  ExpectState("default", "ready");
  EXPECT_THAT(BridgeOfTap(), testing::StartsWith("virbr"));
  // A change waits for the guest.
  ASSERT_EQ(Vexa({"network", "edit", "default", "--subnet", "10.77.0.0/24"}).exit_code, 0);
  EXPECT_TRUE(Await(
      [&] {
        return Vexa({"network", "show", "default"}).output.find("A change waits until no running guest") !=
               std::string::npos;
      },
      kLimit));
  EXPECT_THAT(BridgeOfTap(), testing::StartsWith("virbr"));
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_TRUE(Await([] { return RunTool({"ip", "-o", "address"}).find("10.77.0.1/24") != std::string::npos; }, kLimit));
}

TEST_F(Networks, Kill_BetweenRecordAndLibvirt_IsCompletedAtTheNextStart) {
  host_->Start();
  ExpectState("default", "ready");
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(Vexa({"network", "add", "lan"}).exit_code, 0);
    host_->Restart();  // kill -9
    ExpectState("lan", "ready");
    EXPECT_THAT(InLibvirt(), testing::UnorderedElementsAre("default", "lan"));
    ASSERT_EQ(Vexa({"network", "remove", "lan"}).exit_code, 0);
    host_->Restart();
    EXPECT_TRUE(Await([] { return InLibvirt() == std::vector<std::string>{"default"}; }, kLimit));
  }
  ASSERT_EQ(Vexa({"network", "remove", "default"}).exit_code, 0);
  EXPECT_TRUE(Await([] { return InLibvirt().empty(); }, kLimit));
  host_->Restart();
  EXPECT_EQ(State("default"), "") << "a removed network came back";
}

TEST_F(Networks, FirstStart_BridgeExists_IsFoundAndAdopted) {
  RunTool({"ip", "link", "add", "br5", "type", "bridge"});
  RunTool({"ip", "link", "set", "br5", "up"});
  PutGuest();
  host_->Start();
  ExpectState("br5", "ready");
  EXPECT_THAT(InLibvirt(), testing::IsEmpty());
  EXPECT_THAT(Vexa({"network", "show", "br5"}).output, HasSubstr("It was found on the hosts"));
  // Also without a record.
  ASSERT_EQ(Vexa({"guest", "set", "connected", "--add-nic", "net=br5"}).exit_code, 0);
  ASSERT_EQ(Vexa({"network", "add", "--bridge", "br5"}).exit_code, 0);
  EXPECT_THAT(Vexa({"network", "remove", "br5"}).errors, HasSubstr("is used by the guest 'connected'"));
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  EXPECT_EQ(BridgeOfTap(), "br5");
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  RunTool({"ip", "link", "delete", "br5"});
  ExpectState("br5", "missing");
}

TEST_F(Networks, Vlan_OnOpenVSwitch_TagsThePort) {
  if (const std::string why_not = VirtualSwitch::UnavailableReason(); !why_not.empty()) {
    GTEST_SKIP() << SkipNotice(why_not);
  }
  const VirtualSwitch virtual_switch;
  virtual_switch.AddBridge("lan");
  PutGuest();
  host_->Start();
  ASSERT_EQ(Vexa({"network", "add", "phones", "--vlan", "42", "--uplink", "lan"}).exit_code, 0);
  ExpectState("phones", "ready");
  ASSERT_EQ(Vexa({"guest", "set", "connected", "--add-nic", "net=phones"}).exit_code, 0);
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  EXPECT_THAT(RunTool({"ovs-vsctl", "get", "port", "vnet0", "tag"}), HasSubstr("42"));
}

TEST_F(Networks, Bridge_WithUplink_IsMadeForTheGuestAndRemoved) {
  RunTool({"ip", "link", "add", "up6", "type", "veth", "peer", "name", "far6"});
  RunTool({"mount", "-t", "tmpfs", "vexa-test", "/etc/systemd"});
  RunTool({"mkdir", "/etc/systemd/network"});
  PutGuest();
  host_->Start();
  ASSERT_EQ(Vexa({"network", "add", "br6", "--kind", "bridge", "--uplink", "up6"}).exit_code, 0);
  ExpectState("br6", "ready");
  ASSERT_EQ(Vexa({"guest", "set", "connected", "--add-nic", "net=br6"}).exit_code, 0);
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  EXPECT_EQ(BridgeOfTap(), "br6");
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  // Made again after it was removed by hand.
  RunTool({"ip", "link", "delete", "br6"});
  EXPECT_TRUE(Await([] { return RunTool({"ip", "link"}).find(": br6:") != std::string::npos; }, kLimit));
  host_->Restart();
  ExpectState("br6", "ready");
  ASSERT_EQ(Vexa({"guest", "delete", "connected", "--yes"}).exit_code, 0);
  ASSERT_EQ(Vexa({"network", "remove", "br6"}).exit_code, 0);
  EXPECT_TRUE(Await([] { return RunTool({"ip", "link"}).find(": br6:") == std::string::npos; }, kLimit));
  RunTool({"ip", "link", "delete", "up6"});
  RunProcess({.argv = {"umount", "/etc/systemd"}});
}

// Daemon and service have the rights of their units, so only the service can make the bridge.
TEST_F(Networks, ConfinedHost_BridgeWithUplink_IsMadeByTheService) {
  RunTool({"ip", "link", "add", "up6", "type", "veth", "peer", "name", "far6"});
  RunTool({"mount", "-t", "tmpfs", "vexa-test", "/etc/systemd"});
  RunTool({"mkdir", "-p", "/etc/systemd/network", "/run/vexa-network"});
  const auto confined = [](const char* unit, const std::string& program) {
    return std::vector<std::string>{CONFINED_PROGRAM, std::string(VEXA_SOURCE_DIR "/packaging/") + unit, "--", program};
  };
  QemuHostOptions options;
  options.hypervisor = kSystemUri;
  options.command = confined("vexad.service", VEXAD_PROGRAM);
  host_ = std::make_unique<QemuHost>(*environment_, options);
  host_->Start();
  ASSERT_EQ(Vexa({"network", "add", "br6", "--kind", "bridge", "--uplink", "up6"}).exit_code, 0);
  ExpectState("br6", "missing");
  EXPECT_THAT(Vexa({"network", "show", "br6"}).output,
              HasSubstr("This host may not make bridges: start the service vexa-network, or make the bridge"));
  const Process service(ProcessOptions{.argv = confined("vexa-network.service", VEXA_NETWORK)});
  ExpectState("br6", "ready");
  EXPECT_THAT(RunTool({"ip", "link", "show", "up6"}), HasSubstr("master br6"));
  ASSERT_EQ(Vexa({"network", "remove", "br6"}).exit_code, 0);
  EXPECT_TRUE(Await([] { return RunTool({"ip", "link"}).find(": br6:") == std::string::npos; }, kLimit));
  RunTool({"ip", "link", "delete", "up6"});
  RunProcess({.argv = {"umount", "/etc/systemd"}});
}

}  // namespace
}  // namespace vexa::test

int main(int argc, char** argv) {
  vexa::test::EnterNetworkNamespace(argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
