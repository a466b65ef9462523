// The networks of a host, on libvirt's test driver: what is made, changed, left alone, removed and reported.
#include "host/networks/network_keeper.h"

#include <gtest/gtest.h>
#include <libvirt/libvirt.h>

#include <filesystem>
#include <fstream>

#include "host/base/json_parse.h"
#include "host/domain_xml/domain_parse.h"
#include "host/networks/network_changes.h"
#include "host/records/keys.h"
#include "tests/support/matchers.h"
#include "tests/support/record_test.h"
#include "tests/support/syslog_capture.h"

namespace vexa::networks {
namespace {

using domain_xml::NetworkGroupId;
using domain_xml::ParseNetworkXml;
using hypervisor::KnownNetwork;
using records::NetworkCondition;
using records::NetworkKind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";

class Keeper : public test::RecordTest {
 protected:
  Keeper() {
    host_.PutText("host", kHost, R"({"name":"nas-1"})");
    for (const KnownNetwork& known : InLibvirt()) {
      (void)hypervisor_->StopNetwork(known.name);
      (void)hypervisor_->UndefineNetwork(known.name);
    }
    options_.store = std::shared_ptr<store::Store>(&host_.store(), [](store::Store*) {});
    options_.host_id = kHost;
    options_.machine_root = machine_.path();
    options_.addresses = [this] { return addresses_; };
    // Nothing is added by itself.
    Put(records::NetworksGuardKey(), "\"\"");
  }

  static std::unique_ptr<hypervisor::Hypervisor> Open() {
    auto opened = hypervisor::Hypervisor::Open({});
    EXPECT_TRUE(opened);
    return std::move(*opened);
  }
  void Keep() {
    if (!keeper_) keeper_ = std::make_unique<NetworkKeeper>(options_);
    keeper_->Keep(*hypervisor_);
  }
  std::string Add(const NewNetwork& added) {
    std::string id;
    const auto done = AddNetwork(host_.store(), added, id);
    EXPECT_TRUE(done.ok()) << done.error().reason;
    return id;
  }
  std::string Add(const std::string& name, NetworkKind kind, const std::string& uplink = "", int tag = 0) {
    NewNetwork added{kind, "", {}};
    added.settings.name = name;
    if (!uplink.empty()) added.settings.uplink = uplink;
    if (tag != 0) added.settings.vlan_id = tag;
    return Add(added);
  }
  void AddInterface(const std::string& name, bool is_bridge = false) {
    std::filesystem::create_directories(machine_.path() + "/sys/class/net/" + name + (is_bridge ? "/bridge" : ""));
  }
  records::NetworkReport Report() {
    return records::ParseNetworkReport(Parsed(TextOf(records::NetworkReportKey(kHost))));
  }
  NetworkCondition Condition(const std::string& id) { return Report().conditions[id]; }
  std::vector<KnownNetwork> InLibvirt() {
    return Require(Result<std::vector<KnownNetwork>>(hypervisor_->KnownNetworks()));
  }
  std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const KnownNetwork& known : InLibvirt()) names.push_back(known.name);
    return names;
  }
  static std::vector<std::string> LogLines() {
    std::vector<std::string> lines;
    for (const test::SyslogLine& line : test::CapturedSyslog()) {
      lines.push_back(std::to_string(line.level()) + " " + line.text);
    }
    return lines;
  }
  void DefineByHand(const std::string& name, const std::string& more) {
    const auto defined = hypervisor_->DefineNetwork("<network><name>" + name + "</name>" + more + "</network>");
    ASSERT_TRUE(defined) << defined.error().ToString();
  }

  const std::unique_ptr<hypervisor::Hypervisor> hypervisor_ = Open();
  const test::TempDir machine_;
  std::vector<machine::InterfaceAddress> addresses_;
  NetworkKeeperOptions options_;
  std::unique_ptr<NetworkKeeper> keeper_;
};

TEST_F(Keeper, Nat_Added_IsDefinedStartedAndReady) {
  const std::string id = Add("lan", NetworkKind::kNat);
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"ready", ""}));
  const auto networks = InLibvirt();
  ASSERT_EQ(networks.size(), 1u);
  EXPECT_TRUE(networks[0].is_active);
  EXPECT_TRUE(networks[0].is_autostarted);
  const auto parsed = ParseNetworkXml(networks[0].xml);
  EXPECT_EQ(parsed.kind, "nat");
  EXPECT_EQ(parsed.subnet, "192.168.100.0/24");
  EXPECT_EQ(parsed.id, id);
  EXPECT_EQ(parsed.host_id, kHost);
  EXPECT_THAT(networks[0].xml, HasSubstr("<range start='192.168.100.2' end='192.168.100.254'/>"));
  EXPECT_THAT(Report().found, IsEmpty());
}

TEST_F(Keeper, EachKindOfLibvirt_Added_LeadsWhereItShould) {
  AddInterface("eth0");
  AddInterface("ovs_br", false);
  Add("inside", NetworkKind::kIsolated);
  Add("direct", NetworkKind::kMacvtap, "eth0");
  const std::string vlan = Add("phones", NetworkKind::kVlan, "ovs_br", 42);
  Keep();
  EXPECT_EQ(Condition(vlan).state, "ready") << Condition(vlan).reason;
  ASSERT_THAT(Names(), ElementsAre("direct", "inside", "phones"));
  const auto networks = InLibvirt();
  EXPECT_EQ(ParseNetworkXml(networks[0].xml).kind, "macvtap");
  EXPECT_THAT(networks[0].xml, HasSubstr("<interface dev='eth0'/>"));
  EXPECT_EQ(ParseNetworkXml(networks[1].xml).kind, "isolated");
  EXPECT_EQ(ParseNetworkXml(networks[2].xml).bridge, "ovs_br");
  EXPECT_THAT(networks[2].xml, HasSubstr("<tag id='42'/>"));
  EXPECT_THAT(networks[2].xml, HasSubstr("type='openvswitch'"));
}

TEST_F(Keeper, Uplink_MissingOrOfOtherHosts_IsReported) {
  const std::string id = Add("direct", NetworkKind::kMacvtap, "eth7");
  test::ClearCapturedSyslog();
  Keep();
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"missing", "The host has no interface 'eth7'"}));
  NetworkSettings settings;
  settings.uplinks = std::map<std::string, std::string>{{kHost, ""}};
  std::string name;
  ASSERT_TRUE(EditNetwork(host_.store(), id, settings, name).ok());
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"missing", "The network has no uplink on this host"}));
  AddInterface("eth9");
  settings.uplinks = std::map<std::string, std::string>{{kHost, "eth9"}};
  ASSERT_TRUE(EditNetwork(host_.store(), id, settings, name).ok());
  Keep();
  EXPECT_EQ(Condition(id).state, "ready");
  EXPECT_THAT(
      LogLines(),
      ElementsAre("4 Guests cannot be started with the network 'direct': The host has no interface 'eth7'.",
                  "4 Guests cannot be started with the network 'direct': The network has no uplink on this host.",
                  "5 The network 'direct' was defined in libvirt: macvtap on eth9.",
                  "5 Guests can be started with the network 'direct' again."));
}

TEST_F(Keeper, Bridge_ComesAndGoes_IsReported) {
  const std::string id = Add("br0", NetworkKind::kBridge);
  Keep();
  EXPECT_EQ(Condition(id),
            (NetworkCondition{"missing", "The host has no bridge 'br0': make it, or give the network an uplink"}));
  AddInterface("br0", true);
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"ready", ""}));
}

TEST_F(Keeper, BridgeWithUplink_Missing_IsMadeOnceAndRemovedWithItsRecord) {
  AddInterface("eth0");
  std::vector<machine::BridgeRequest> made;
  std::vector<machine::BridgeRequest> removed;
  const std::string folder = machine_.path() + "/sys/class/net/";
  options_.bridge_maker.make = [&](const machine::BridgeRequest& request) {
    made.push_back(request);
    AddInterface("br0", true);
    std::ofstream(folder + "br0/ifalias") << machine::BridgeAlias({request.network_id, request.host_id}) << "\n";
    std::filesystem::create_directory_symlink("../br0", folder + "eth0/master");
    return Status();
  };
  options_.bridge_maker.remove = [&](const machine::BridgeRequest& request) {
    removed.push_back(request);
    return Status();
  };
  const std::string id = Add("br0", NetworkKind::kBridge, "eth0");
  Keep();
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"ready", ""}));
  EXPECT_EQ(made, (std::vector<machine::BridgeRequest>{{id, kHost, "br0", "eth0", 0, false}}));
  EXPECT_THAT(Report().found, IsEmpty());
  std::string name;
  ASSERT_TRUE(RemoveNetwork(host_.store(), id, name).ok());
  // A guest still runs on it.
  AddInterface("br0/brif/vnet0");
  AddInterface("vnet0");
  std::ofstream(folder + "vnet0/tun_flags") << "0x1002\n";
  Keep();
  EXPECT_THAT(removed, IsEmpty());
  std::filesystem::remove_all(folder + "br0/brif/vnet0");
  test::ClearCapturedSyslog();
  Keep();
  EXPECT_EQ(removed, (std::vector<machine::BridgeRequest>{{id, kHost, "br0", "", 0, false}}));
  EXPECT_THAT(LogLines(), ElementsAre("5 The bridge 'br0' was removed."));
}

// systemd-networkd has made it when the machine started.
TEST_F(Keeper, BridgeWithFilesOnly_IsMadeCompleteOrRemoved) {
  AddInterface("eth0");
  AddInterface("br0", true);
  const std::string id = Add("br0", NetworkKind::kBridge, "eth0");
  const std::string folder = machine_.path() + "/etc/systemd/network/";
  std::filesystem::create_directories(folder);
  std::ofstream(folder + "10-vexa-bridge-br0.netdev")
      << "# " << machine::BridgeAlias({id, kHost}) << "\n# uplink eth0\n";
  std::ofstream(folder + "10-vexa-bridge-br1.netdev") << "# somebody else\n";
  std::vector<machine::BridgeRequest> made;
  std::vector<machine::BridgeRequest> removed;
  options_.bridge_maker.make = [&](const machine::BridgeRequest& request) {
    made.push_back(request);
    return Status();
  };
  options_.bridge_maker.remove = [&](const machine::BridgeRequest& request) {
    removed.push_back(request);
    return Status();
  };
  Keep();
  EXPECT_EQ(made, (std::vector<machine::BridgeRequest>{{id, kHost, "br0", "eth0", 0, false}}));
  EXPECT_THAT(Report().found, IsEmpty());
  EXPECT_THAT(removed, IsEmpty());
  // Also without the bridge: the files would make it again.
  std::filesystem::remove_all(machine_.path() + "/sys/class/net/br0");
  std::string name;
  ASSERT_TRUE(RemoveNetwork(host_.store(), id, name).ok());
  Keep();
  EXPECT_EQ(removed, (std::vector<machine::BridgeRequest>{{id, kHost, "br0", "", 0, false}}));
}

// Two hosts on one machine.
TEST_F(Keeper, BridgeOfAnotherHost_IsUsedAsItIs) {
  AddInterface("eth0");
  AddInterface("br0", true);
  AddInterface("br1", true);
  constexpr char kOtherHost[] = "9d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
  for (const char* name : {"br0", "br1"}) {
    std::ofstream(machine_.path() + "/sys/class/net/" + name + "/ifalias")
        << machine::BridgeAlias({NetworkGroupId(name), kOtherHost}) << "\n";
  }
  int calls = 0;
  options_.bridge_maker.make = [&](const machine::BridgeRequest&) {
    ++calls;
    return Status();
  };
  options_.bridge_maker.remove = options_.bridge_maker.make;
  const std::string id = Add("br0", NetworkKind::kBridge, "eth0");
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"ready", ""}));
  EXPECT_EQ(Report().found.size(), 2u);
  EXPECT_EQ(calls, 0);
}

TEST_F(Keeper, Vlan_UplinkBecomesASwitch_LeavesNoBridgeBehind) {
  AddInterface("eth0");
  std::vector<std::string> removed;
  options_.bridge_maker.make = [&](const machine::BridgeRequest& request) {
    AddInterface("phones", true);
    std::ofstream(machine_.path() + "/sys/class/net/phones/ifalias")
        << machine::BridgeAlias({request.network_id, request.host_id}) << "\n";
    return Status();
  };
  options_.bridge_maker.remove = [&](const machine::BridgeRequest& request) {
    removed.push_back(request.bridge);
    return Status();
  };
  const std::string id = Add("phones", NetworkKind::kVlan, "eth0", 42);
  Keep();
  Keep();
  EXPECT_THAT(removed, IsEmpty());
  AddInterface("ovs_lan");
  NetworkSettings settings;
  settings.uplink = "ovs_lan";
  std::string name;
  ASSERT_TRUE(EditNetwork(host_.store(), id, settings, name).ok());
  Keep();
  EXPECT_THAT(Names(), ElementsAre("phones"));
  EXPECT_THAT(removed, ElementsAre("phones"));
  // And back again.
  settings.uplink = "eth0";
  ASSERT_TRUE(EditNetwork(host_.store(), id, settings, name).ok());
  Keep();
  EXPECT_THAT(Names(), IsEmpty());
  // An uplink that is missing for a while removes nothing.
  removed.clear();
  std::filesystem::remove_all(machine_.path() + "/sys/class/net/eth0");
  Keep();
  EXPECT_EQ(Condition(id).state, "missing");
  EXPECT_THAT(removed, IsEmpty());
}

TEST_F(Keeper, BridgeMaker_DoesNotAnswer_IsAskedOnce) {
  AddInterface("eth0");
  AddInterface("eth1");
  int calls = 0;
  options_.bridge_maker.make = [&](const machine::BridgeRequest&) {
    ++calls;
    return Status(Error(ErrorCode::kUnavailable, "It does not answer"));
  };
  options_.bridge_maker.remove = options_.bridge_maker.make;
  const std::string one = Add("br0", NetworkKind::kBridge, "eth0");
  const std::string other = Add("br1", NetworkKind::kBridge, "eth1");
  Keep();
  EXPECT_EQ(calls, 1);
  for (const std::string& id : {one, other}) {
    EXPECT_EQ(Condition(id), (NetworkCondition{"missing", "It does not answer"}));
  }
}

TEST_F(Keeper, Host_Stops_EndsThePass) {
  bool is_stopping = false;
  options_.is_stopping = [&] { return is_stopping; };
  (void)Add("lan", NetworkKind::kNat);
  is_stopping = true;
  Keep();
  EXPECT_THAT(Names(), IsEmpty());
  is_stopping = false;
  Keep();
  EXPECT_THAT(Names(), ElementsAre("lan"));
}

TEST_F(Keeper, EditedUplink_GuestsOnTheBridge_Waits) {
  AddInterface("eth0");
  AddInterface("br0", true);
  const std::string id = Add("br0", NetworkKind::kBridge, "eth0");
  std::ofstream(machine_.path() + "/sys/class/net/br0/ifalias") << machine::BridgeAlias({id, kHost}) << "\n";
  options_.bridge_maker.make = [](const machine::BridgeRequest&) {
    return Status(Error(ErrorCode::kBusy, "The bridge 'br0' has other ports: 'vnet0'"));
  };
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"ready", "A change waits: The bridge 'br0' has other ports: 'vnet0'"}));
}

TEST_F(Keeper, BridgeWithUplink_CannotBeMade_SaysWhy) {
  AddInterface("eth0");
  Status answer = Error(ErrorCode::kDenied, "The interface has addresses");
  options_.bridge_maker.make = [&](const machine::BridgeRequest&) { return answer; };
  options_.bridge_maker.remove = [&](const machine::BridgeRequest&) { return answer; };
  const std::string id = Add("br0", NetworkKind::kBridge, "eth0");
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"missing", "The interface has addresses"}));
  answer = Error(ErrorCode::kInternal, "Cannot make the bridge", "No buffer space");
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"failed", "Cannot make the bridge: No buffer space"}));
  // One that another program has made is used as it is.
  AddInterface("br0", true);
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"ready", ""}));
  // What cannot be removed is logged.
  std::ofstream(machine_.path() + "/sys/class/net/br0/ifalias") << machine::BridgeAlias({id, kHost}) << "\n";
  std::string name;
  ASSERT_TRUE(RemoveNetwork(host_.store(), id, name).ok());
  test::ClearCapturedSyslog();
  Keep();
  Keep();
  EXPECT_THAT(LogLines(),
              ElementsAre("3 The bridge 'br0' cannot be removed: Cannot make the bridge: No buffer space."));
}

TEST_F(Keeper, Vlan_OfACard_IsRequestedWithItsTag) {
  AddInterface("eth0");
  std::vector<machine::BridgeRequest> made;
  options_.bridge_maker.make = [&](const machine::BridgeRequest& request) {
    made.push_back(request);
    return Status();
  };
  const std::string id = Add("phones", NetworkKind::kVlan, "eth0", 42);
  Keep();
  EXPECT_EQ(Condition(id).state, "ready");
  EXPECT_EQ(made, (std::vector<machine::BridgeRequest>{{id, kHost, "phones", "eth0", 42, false}}));
}

TEST_F(Keeper, Edited_Subnet_IsDefinedAgain) {
  const std::string id = Add("lan", NetworkKind::kNat);
  Keep();
  const std::string uuid = ParseNetworkXml(InLibvirt()[0].xml).uuid;
  NetworkSettings settings;
  settings.subnet = "10.5.0.0/24";
  settings.name = "renamed";
  std::string name;
  ASSERT_TRUE(EditNetwork(host_.store(), id, settings, name).ok());
  Keep();
  const auto networks = InLibvirt();
  ASSERT_EQ(networks.size(), 1u);
  EXPECT_EQ(networks[0].name, "lan");
  EXPECT_TRUE(networks[0].is_active);
  EXPECT_EQ(ParseNetworkXml(networks[0].xml).subnet, "10.5.0.0/24");
  EXPECT_EQ(ParseNetworkXml(networks[0].xml).uuid, uuid);
  EXPECT_EQ(Condition(id).state, "ready");
}

TEST_F(Keeper, Stopped_ByAnybody_IsStartedAgain) {
  const std::string id = Add("lan", NetworkKind::kNat);
  Keep();
  ASSERT_TRUE(hypervisor_->StopNetwork("lan"));
  Keep();
  EXPECT_TRUE(InLibvirt()[0].is_active);
  ASSERT_TRUE(hypervisor_->StopNetwork("lan"));
  ASSERT_TRUE(hypervisor_->UndefineNetwork("lan"));
  Keep();
  EXPECT_TRUE(InLibvirt()[0].is_active);
  EXPECT_EQ(Condition(id).state, "ready");
}

TEST_F(Keeper, Removed_Record_RemovesOnlyWhatItHasMade) {
  DefineByHand("theirs", "<ip address='10.8.0.1' prefix='24'/>");
  // Made by this system, but on another host that uses the same libvirt.
  DefineByHand("of another host",
               "<metadata><v:network xmlns:v='urn:vexa:network:1' id='x' host='other' definition=''/></metadata>");
  const std::string id = Add("lan", NetworkKind::kNat);
  Keep();
  ASSERT_THAT(Names(), ElementsAre("lan", "of another host", "theirs"));
  std::string name;
  ASSERT_TRUE(RemoveNetwork(host_.store(), id, name).ok());
  test::ClearCapturedSyslog();
  Keep();
  EXPECT_THAT(Names(), ElementsAre("of another host", "theirs"));
  EXPECT_THAT(LogLines(), ElementsAre("5 The network 'lan' was removed from libvirt."));
  EXPECT_THAT(Report().conditions, IsEmpty());
}

TEST_F(Keeper, Adopted_NetworkOfLibvirt_IsUsedAsItIs) {
  DefineByHand("theirs", "<forward mode='nat'/><ip address='10.8.0.1' prefix='24'/>");
  const std::string before = InLibvirt()[0].xml;
  Keep();
  EXPECT_EQ(Report().found, (std::vector<records::FoundNetwork>{{"theirs", "nat", "10.8.0.0/24", false}}));
  const std::string id = Add("theirs", NetworkKind::kNat);
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"ready", kNotActive}));
  ASSERT_TRUE(hypervisor_->StartNetwork("theirs"));
  Keep();
  EXPECT_EQ(Condition(id), (NetworkCondition{"ready", ""}));
  EXPECT_EQ(Report().found, (std::vector<records::FoundNetwork>{{"theirs", "nat", "10.8.0.0/24"}}));
  EXPECT_EQ(InLibvirt()[0].xml, before);
  std::string name;
  ASSERT_TRUE(RemoveNetwork(host_.store(), id, name).ok());
  Keep();
  EXPECT_THAT(Names(), ElementsAre("theirs"));
}

TEST_F(Keeper, Found_BridgesAndAddresses_AreReported) {
  AddInterface("eth0");
  AddInterface("br0", true);
  AddInterface("virbr3", true);
  DefineByHand("theirs", "<bridge name='virbr3'/><ip address='10.8.0.1' netmask='255.255.255.0'/>");
  DefineByHand("office", "<forward mode='bridge'/><bridge name='br0'/>");
  addresses_ = {{"eth0", "192.168.1.7", "255.255.255.0", false},
                {"virbr3", "10.8.0.1", "255.255.255.0", false},
                {"lo", "127.0.0.1", "255.0.0.0", false},
                {"eth0", "169.254.3.4", "255.255.0.0", false},
                {"eth0", "2001:db8::1", "ffff::", true}};
  Keep();
  EXPECT_EQ(Report().found,
            (std::vector<records::FoundNetwork>{
                {"office", "bridge", "", false}, {"theirs", "isolated", "10.8.0.0/24", false}, {"br0", "bridge", ""}}));
  EXPECT_THAT(Report().subnets, ElementsAre("192.168.1.0/24"));
  const auto revision = Revision();
  Keep();
  EXPECT_EQ(Revision(), revision) << "nothing has changed";
}

TEST_F(Keeper, FirstPass_NeitherNetworksNorBridges_AddsDefault) {
  Delete(records::NetworksGuardKey());
  // The network of the host itself.
  addresses_ = {{"eth0", "192.168.100.7", "255.255.255.0", false}};
  Keep();
  EXPECT_THAT(Names(), ElementsAre("default"));
  EXPECT_EQ(ParseNetworkXml(InLibvirt()[0].xml).subnet, "192.168.101.0/24");
  EXPECT_EQ(Condition(NetworkGroupId("default")).state, "ready");
}

TEST_F(Keeper, FirstPass_BridgeExists_AddsNothing) {
  Delete(records::NetworksGuardKey());
  AddInterface("br0", true);
  Keep();
  EXPECT_THAT(Names(), IsEmpty());
  std::filesystem::remove_all(machine_.path() + "/sys/class/net/br0");
  Keep();
  EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(Keeper, TestMode_Bridges_AllExist) {
  options_.bridges = NetworkKeeperOptions::Bridges::kAllExist;
  addresses_ = {{"eth0", "192.168.1.7", "255.255.255.0", false}};
  const std::string bridge = Add("br0", NetworkKind::kBridge);
  const std::string vlan = Add("vlan", NetworkKind::kVlan, "eth0", 7);
  Keep();
  EXPECT_EQ(Condition(bridge).state, "ready");
  EXPECT_EQ(Condition(vlan).state, "ready");
  EXPECT_THAT(Report().subnets, IsEmpty());
}

TEST_F(Keeper, Record_Damaged_IsLeftAlone) {
  host_.PutText("network", "x", R"({"name":"a/b","kind":"nat","subnet":"everything"})");
  Keep();
  EXPECT_THAT(Names(), IsEmpty());
  EXPECT_THAT(Report().conditions, IsEmpty());
}

TEST_F(Keeper, Database_Lost_ChangesNothing) {
  const std::string id = Add("lan", NetworkKind::kNat);
  Keep();
  std::string name;
  ASSERT_TRUE(RemoveNetwork(host_.store(), id, name).ok());
  host_.store().ReportHealth(store::Health::kInaccessible);
  Keep();
  EXPECT_THAT(Names(), ElementsAre("lan"));
  host_.store().Heal();
  Keep();
  EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(Keeper, Database_CannotBeReadOrWritten_IsLoggedOnce) {
  Add("lan", NetworkKind::kNat);
  test::ClearCapturedSyslog();
  host_.store().FailReadsOf(records::CategoryKey("network"));
  Keep();
  Keep();
  EXPECT_THAT(Names(), IsEmpty()) << "what is not known is neither made nor removed";
  ASSERT_EQ(LogLines().size(), 1u);
  EXPECT_THAT(LogLines()[0], testing::StartsWith("3 The networks of this host cannot be kept: "));
  host_.store().Heal();
  host_.store().FailCommits();
  Keep();
  Keep();
  EXPECT_THAT(Names(), ElementsAre("lan"));
  EXPECT_EQ(LogLines().size(), 3u);
}

TEST_F(Keeper, Claim_Lost_ReportIsNotWritten) {
  options_.guard = [] { return store::Compare{"/claim", 7}; };
  Add("lan", NetworkKind::kNat);
  test::ClearCapturedSyslog();
  Keep();
  EXPECT_EQ(TextOf(records::NetworkReportKey(kHost)), "");
  EXPECT_THAT(LogLines().back(), testing::StartsWith("3 The networks of this host cannot be kept: "));
}

}  // namespace
}  // namespace vexa::networks
