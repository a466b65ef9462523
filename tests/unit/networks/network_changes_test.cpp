// Networks: what can be added, edited and removed, what is listed, and that names and subnets stay unique.
#include "host/networks/network_changes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <set>
#include <thread>

#include "host/domain_xml/domain_parse.h"
#include "host/guests/import/import_records.h"
#include "host/records/host_liveness.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/racing_store.h"
#include "tests/support/record_test.h"

namespace vexa::networks {
namespace {

using domain_xml::NetworkGroupId;
using records::NetworkKind;

constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr char kOtherHost[] = "9d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";

NewNetwork Nat(const std::string& name, const std::string& subnet = "") {
  NewNetwork added;
  added.settings.name = name;
  if (!subnet.empty()) added.settings.subnet = subnet;
  return added;
}

NewNetwork Bridge(const std::string& name, const std::string& bridge) {
  NewNetwork added{NetworkKind::kBridge, bridge, {}};
  added.settings.name = name;
  return added;
}

NewNetwork Vlan(const std::string& name, int tag, const std::string& uplink) {
  NewNetwork added{NetworkKind::kVlan, "", {}};
  added.settings.name = name;
  added.settings.vlan_id = tag;
  added.settings.uplink = uplink;
  return added;
}

class NetworkChanges : public test::RecordTest {
 protected:
  NetworkChanges() { host_.PutText("host", kHost, R"({"name":"nas-1"})"); }

  Result<void, Refusal> Add(const NewNetwork& network) {
    if (Status checked = CheckNewNetwork(network); !checked) return Refusal{401, checked.error().message()};
    return AddNetwork(host_.store(), network, id_);
  }
  void ExpectAdded(const NewNetwork& network) {
    const auto refused = Add(network);
    EXPECT_TRUE(refused.ok()) << refused.error().reason;
  }
  Result<void, Refusal> Edit(const std::string& id, const NetworkSettings& settings) {
    return EditNetwork(host_.store(), id, settings, name_);
  }
  Result<void, Refusal> Remove(const std::string& id) { return RemoveNetwork(host_.store(), id, name_); }
  void PutOldHeartbeat(const std::string& host) {
    const auto old = std::chrono::system_clock::now() - records::kHeartbeatTimeout - std::chrono::seconds(60);
    const auto time = std::chrono::duration_cast<std::chrono::seconds>(old.time_since_epoch()).count();
    Put(store::MakeKey({"dash", "host", host, "seen"}), R"({"time":)" + std::to_string(time) + "}");
  }
  void PutReport(const std::string& host_id, const std::string& text) {
    host_.PutText("host", host_id, R"({"name":"nas"})");
    Put(records::NetworkReportKey(host_id), text);
  }
  void PutNic(const std::string& id, const std::string& guest_id, const std::string& network_id,
              const std::string& network_name) {
    host_.PutText("vnic", id,
                  R"({"guest_id":")" + guest_id + R"(","network_group_id":")" + network_id + R"(","network_name":")" +
                      network_name + "\"}");
  }
  Json::Value Record(const std::string& id) { return Parsed(TextOf(records::ObjectKey("network", id))); }
  std::vector<ListedNetwork> List() { return Require(ListNetworks(host_.store())); }

  std::string id_;
  std::string name_;
};

TEST_F(NetworkChanges, Add_Nat_GetsIdOfItsNameAndFreeSubnet) {
  ExpectAdded(Nat("lan"));
  EXPECT_EQ(id_, NetworkGroupId("lan"));
  EXPECT_EQ(
      Record(id_),
      Parsed(R"({"bridge_name":"lan","kind":"nat","name":"lan","network_name":"lan","subnet":"192.168.100.0/24"})"));
  ExpectAdded(Nat("lan 2"));
  EXPECT_EQ(Record(id_)["subnet"], "192.168.101.0/24");
}

TEST_F(NetworkChanges, Add_Bridge_HasIdOfTheBridge) {
  ExpectAdded(Bridge("The office", "br0"));
  EXPECT_EQ(id_, NetworkGroupId("br0"));
  EXPECT_EQ(Record(id_), Parsed(R"({"bridge_name":"br0","kind":"bridge","name":"The office","network_name":"br0"})"));
  ExpectAdded(Bridge("br1", ""));
  EXPECT_EQ(id_, NetworkGroupId("br1"));
}

// Imports can give any id to the network of an interface.
TEST_F(NetworkChanges, Add_InterfacesHaveOtherId_AdoptsIt) {
  const std::string theirs = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";
  PutNic("n1", "g", "", "br0");
  PutNic("n2", "g", theirs, "br0");
  ExpectAdded(Bridge("office", "br0"));
  EXPECT_EQ(id_, theirs);
  PutNic("n3", "g", theirs, "br1");
  PutNic("n4", "g", NetworkGroupId("br1"), "br1");
  ExpectAdded(Bridge("br1", "br1"));
  EXPECT_EQ(id_, NetworkGroupId("br1"));
}

TEST_F(NetworkChanges, Add_SubnetsInUse_ChoosesAnotherOne) {
  PutReport(kHost,
            R"({"subnets":["192.168.100.0/25"],"found":[{"name":"d","kind":"nat","subnet":"192.168.101.0/24"}]})");
  ExpectAdded(Nat("a", "192.168.102.0/24"));
  ExpectAdded(Nat("b"));
  EXPECT_EQ(Record(id_)["subnet"], "192.168.103.0/24");
  PutReport(kOtherHost, R"({"subnets":["192.168.0.0/16"]})");
  ExpectAdded(Nat("c"));
  EXPECT_EQ(Record(id_)["subnet"], "172.20.0.0/24");
  PutReport(kOtherHost, R"({"subnets":["192.168.0.0/16","172.16.0.0/12"]})");
  ExpectRefused([&] { return Add(Nat("e")); }, kRecordExists, "No private subnet is free: give one with 'subnet'");
}

TEST_F(NetworkChanges, Add_OverlappingSubnet_IsRefused) {
  ExpectAdded(Nat("a", "10.1.0.0/16"));
  ExpectRefused([&] { return Add(Nat("b", "10.1.7.0/24")); }, kRecordExists,
                "The subnet 10.1.7.0/24 overlaps with 10.1.0.0/16 of the network 'a'");
  PutReport(kHost, R"({"subnets":["192.168.1.0/24"],"found":[{"name":"d","kind":"nat","subnet":"192.168.122.0/24"}]})");
  ExpectRefused([&] { return Add(Nat("b", "192.168.0.0/16")); }, kRecordExists,
                std::string("The subnet 192.168.0.0/16 overlaps with 192.168.1.0/24 of an interface of the host '") +
                    kHost + "'");
  ExpectRefused(
      [&] { return Add(Nat("b", "192.168.122.0/25")); }, kRecordExists,
      std::string("The subnet 192.168.122.0/25 overlaps with 192.168.122.0/24 of the network 'd' of the host '") +
          kHost + "'");
}

TEST_F(NetworkChanges, Add_Existing_IsRefused) {
  ExpectAdded(Bridge("office", "br0"));
  ExpectRefused([&] { return Add(Bridge("other", "br0")); }, kRecordExists, "There is a network 'br0' already");
  ExpectRefused([&] { return Add(Nat("office")); }, kRecordExists, "There is a network 'office' already");
  host_.PutText("network", "x", R"({"name":"by hand","bridge_name":"br7"})");
  ExpectRefused([&] { return Add(Bridge("other", "br7")); }, kRecordExists,
                "The network 'by hand' has the name 'br7' on its hosts");
}

TEST_F(NetworkChanges, Add_SameVlanOnSameUplink_IsRefused) {
  ExpectAdded(Vlan("a", 42, "eth0"));
  ExpectRefused([&] { return Add(Vlan("b", 42, "eth0")); }, kRecordExists,
                "The network 'a' has the tag 42 on the same uplink");
  NewNetwork other = Vlan("b", 42, "eth1");
  other.settings.uplinks = std::map<std::string, std::string>{{kHost, "eth0"}};
  ExpectRefused([&] { return Add(other); }, kRecordExists, "The network 'a' has the tag 42 on the same uplink");
  ExpectAdded(Vlan("b", 42, "eth1"));
  ExpectAdded(Vlan("c", 43, "eth0"));
}

TEST_F(NetworkChanges, Add_FoundNetwork_IsAdoptedWithItsKindAndSubnet) {
  PutReport(
      kHost,
      R"({"found":[{"name":"default","kind":"nat","subnet":"192.168.122.0/24"},{"name":"br0","kind":"bridge"}]})");
  NewNetwork isolated = Nat("default");
  isolated.kind = NetworkKind::kIsolated;
  ExpectRefused([&] { return Add(isolated); }, kRecordExists,
                std::string("The host '") + kHost + "' has a network 'default' of the kind nat");
  ExpectAdded(Nat("default"));
  EXPECT_EQ(Record(id_)["subnet"], "192.168.122.0/24");
  ExpectAdded(Bridge("br0", "br0"));
}

TEST_F(NetworkChanges, Add_256Networks_IsTheLimit) {
  for (int i = 0; i < 256; ++i) {
    host_.PutText(
        "network", "n" + std::to_string(i),
        R"({"name":"n)" + std::to_string(i) + R"(","kind":"bridge","network_name":"b)" + std::to_string(i) + "\"}");
  }
  ExpectRefused([&] { return Add(Nat("one too many")); }, kRecordExists,
                "There are 256 networks already, and no more are possible");
}

TEST_F(NetworkChanges, Check_InvalidSettings_AreRefused) {
  EXPECT_EQ(Add(Nat("a/b")).error().code, 401);
  EXPECT_EQ(Add(Nat("a", "8.8.8.0/24")).error().code, 401);
  EXPECT_EQ(Add(Vlan("a", 5000, "eth0")).error().code, 401);
  NewNetwork nat = Nat("a");
  nat.bridge = "br0";
  EXPECT_EQ(Add(nat).error().reason, "Only networks of the kinds bridge and vlan have a bridge");
  EXPECT_EQ(Add(Bridge("a name that is too long for a bridge", "")).error().reason,
            "'a name that is too long for a bridge' cannot be the name of a bridge: give one of 1 to 15 bytes without "
            "spaces, '/' and ':'");
}

TEST_F(NetworkChanges, Add_EightConcurrentWithOneName_OneIsAccepted) {
  constexpr int kThreads = 8;
  for (int round = 0; round < 5; ++round) {
    std::latch start(kThreads);
    std::vector<Result<void, Refusal>> results(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        const std::string name = "round " + std::to_string(round);
        // Half of them name the network alike, the others its bridge.
        const NewNetwork added = i % 2 == 0 ? Nat(name) : Bridge(name, "br" + std::to_string(i));
        start.arrive_and_wait();
        std::string id;
        results[static_cast<std::size_t>(i)] = AddNetwork(host_.store(), added, id);
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(test::CountAccepted(results), 1);
    EXPECT_EQ(List().size(), static_cast<std::size_t>(round) + 1);
  }
}

TEST_F(NetworkChanges, Add_EightConcurrentWithoutSubnets_GetDifferentOnes) {
  constexpr int kThreads = 8;
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      std::string id;
      EXPECT_TRUE(AddNetwork(host_.store(), Nat("n" + std::to_string(i)), id).ok());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::string> subnets;
  for (const ListedNetwork& listed : List()) subnets.insert(listed.network.subnet);
  EXPECT_EQ(subnets.size(), 8u);
}

TEST_F(NetworkChanges, Edit_Settings_KeepIdAndUnknownMembers) {
  ExpectAdded(Nat("lan"));
  Json::Value record = Record(id_);
  record["of_a_newer_version"] = 7;
  Put(records::ObjectKey("network", id_), json::ToText(record));
  NetworkSettings settings;
  settings.name = "renamed";
  settings.description = "The lab";
  settings.subnet = "10.9.0.0/24";
  EXPECT_TRUE(Edit(id_, settings).ok());
  EXPECT_EQ(name_, "lan");
  EXPECT_EQ(Record(id_),
            Parsed(R"({"bridge_name":"lan","description":"The lab","kind":"nat","name":"renamed","network_name":"lan",
                                    "of_a_newer_version":7,"subnet":"10.9.0.0/24"})"));
  settings = {};
  settings.description = "";
  EXPECT_TRUE(Edit(id_, settings).ok());
  EXPECT_FALSE(Record(id_).isMember("description"));
  // The name on hosts is still taken.
  ExpectRefused([&] { return Add(Nat("lan")); }, kRecordExists, "There is a network 'lan' already");
}

TEST_F(NetworkChanges, Edit_Nothing_WritesNothing) {
  ExpectAdded(Nat("lan"));
  const auto before = Revision();
  EXPECT_TRUE(Edit(id_, {}).ok());
  EXPECT_EQ(Revision(), before);
}

TEST_F(NetworkChanges, Edit_Refused_ChangesNothing) {
  ExpectAdded(Nat("a", "10.1.0.0/24"));
  ExpectAdded(Nat("b"));
  NetworkSettings settings;
  settings.name = "a";
  ExpectRefused([&] { return Edit(id_, settings); }, kRecordExists, "There is a network 'a' already");
  settings = {};
  settings.subnet = "10.1.0.0/16";
  ExpectRefused([&] { return Edit(id_, settings); }, kRecordExists,
                "The subnet 10.1.0.0/16 overlaps with 10.1.0.0/24 of the network 'a'");
  settings = {};
  settings.uplink = "eth0";
  ExpectRefused([&] { return Edit(id_, settings); }, user_error::kBadParameter,
                "Networks of the kinds nat and isolated have no uplink");
  ExpectRefused([&] { return Edit("none", {}); }, user_error::kNotFoundOrUnreadable, "There is no network 'none'");
  EXPECT_EQ(name_, "");
}

TEST_F(NetworkChanges, Edit_RemovedBetweenReadAndCommit_IsRefused) {
  ExpectAdded(Nat("lan"));
  test::RacingStore store(host_.store(), [&] { EXPECT_TRUE(Remove(id_).ok()); });
  NetworkSettings settings;
  settings.name = "renamed";
  const auto refused = EditNetwork(store, id_, settings, name_);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, user_error::kNotFoundOrUnreadable);
  EXPECT_TRUE(List().empty());
}

TEST_F(NetworkChanges, Remove_UnusedNetwork_DeletesIt) {
  ExpectAdded(Nat("lan"));
  EXPECT_TRUE(Remove(id_).ok());
  EXPECT_EQ(name_, "lan");
  EXPECT_EQ(TextOf(records::ObjectKey("network", id_)), "");
  ExpectRefused([&] { return Remove(id_); }, user_error::kNotFoundOrUnreadable, "There is no network '" + id_ + "'");
  ExpectAdded(Nat("lan"));
}

TEST_F(NetworkChanges, Remove_UsedByIdOrName_NamesTheGuests) {
  ExpectAdded(Nat("lan"));
  host_.PutText("guest", "g1", R"({"name":"web"})");
  PutNic("n1", "g1", id_, "lan");
  PutNic("n2", "g1", id_, "lan");
  PutNic("n3", "g2", "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8", "lan");
  PutNic("n4", "g3", NetworkGroupId("br0"), "br0");
  ExpectRefused([&] { return Remove(id_); }, kRecordInUse,
                "The network 'lan' is used by the guest 'web', an interface without a guest ('g2'). Put their "
                "interfaces into another network first");
  // The name is hidden by an escape.
  for (const char* id : {"n1", "n2"}) host_.Remove("vnic", id);
  host_.PutText("vnic", "n3", R"({"guest_id":"g1","network_name":"l\u0061n"})");
  EXPECT_EQ(Remove(id_).error().code, kRecordInUse);
  host_.Remove("vnic", "n3");
  EXPECT_TRUE(Remove(id_).ok());
}

TEST_F(NetworkChanges, Remove_InterfaceComesBetweenReadAndCommit_IsRefused) {
  ExpectAdded(Nat("lan"));
  host_.PutText("guest", "g1", R"({"name":"web"})");
  domain_xml::ImportedGuest imported;
  imported.id = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";
  imported.guest = Parsed(R"({"name":"web","vnics":["n1"]})");
  imported.nics.emplace_back("n1", Parsed(R"({"guest_id":"5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8","network_group_id":")" +
                                          id_ + R"(","network_name":"lan"})"));
  test::RacingStore store(
      host_.store(), [&] { (void)Require(host_.store().Commit(guests::MakeImportTransaction(imported, {}, {}))); });
  const auto refused = RemoveNetwork(store, id_, name_);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, kRecordInUse);
  EXPECT_EQ(store.commits(), 1);
  EXPECT_EQ(List().size(), 1u);
}

TEST_F(NetworkChanges, Default_FirstHostWithoutNetworks_IsAddedOnce) {
  EXPECT_TRUE(Require(AddDefaultNetwork(host_.store(), HostHasNetworks::kNo, kHost, {})));
  ASSERT_EQ(List().size(), 1u);
  EXPECT_EQ(List()[0].network.name, "default");
  EXPECT_EQ(List()[0].network.kind, NetworkKind::kNat);
  EXPECT_FALSE(Require(AddDefaultNetwork(host_.store(), HostHasNetworks::kNo, kHost, {})));
  EXPECT_TRUE(Remove(List()[0].network.id).ok());
  // Administrators who remove it do not get it back.
  EXPECT_FALSE(Require(AddDefaultNetwork(host_.store(), HostHasNetworks::kNo, kHost, {})));
  EXPECT_TRUE(List().empty());
}

TEST_F(NetworkChanges, Default_SubnetTakenOnTheHost_IsAnotherOne) {
  records::NetworkReport report;
  report.subnets = {"192.168.100.0/24"};
  EXPECT_TRUE(Require(AddDefaultNetwork(host_.store(), HostHasNetworks::kNo, kHost, report)));
  EXPECT_EQ(List()[0].network.subnet, "192.168.101.0/24");
}

TEST_F(NetworkChanges, Default_FirstHostWithNetworks_IsNotAddedLater) {
  EXPECT_FALSE(Require(AddDefaultNetwork(host_.store(), HostHasNetworks::kYes, kHost, {})));
  EXPECT_FALSE(Require(AddDefaultNetwork(host_.store(), HostHasNetworks::kNo, kHost, {})));
  EXPECT_TRUE(List().empty());
}

TEST_F(NetworkChanges, List_ReportsOfHosts_AreShownAndTheWorstCounts) {
  ExpectAdded(Nat("lan"));
  EXPECT_EQ(List()[0].State(), "unknown");
  EXPECT_EQ(List()[0].hosts.at(kHost).reason, "The host has not looked at it yet");
  PutReport(kHost, R"({"states":{")" + id_ + R"(":{"state":"ready"}}})");
  EXPECT_EQ(List()[0].State(), "ready");
  PutReport(kOtherHost, R"({"states":{")" + id_ + R"(":{"state":"missing","reason":"why"}}})");
  EXPECT_EQ(List()[0].State(), "missing");
  EXPECT_EQ(List()[0].hosts.at(kOtherHost).reason, "why");
  PutOldHeartbeat(kOtherHost);
  EXPECT_EQ(List()[0].State(), "unknown");
  EXPECT_EQ(List()[0].hosts.at(kOtherHost).reason, "The host is inaccessible");
}

TEST_F(NetworkChanges, List_FoundNetworks_AreShownUntilAdopted) {
  PutReport(kHost,
            R"({"found":[{"name":"br0","kind":"bridge"},{"name":"default","kind":"nat","subnet":"10.0.0.0/24"}]})");
  PutReport(kOtherHost, R"({"found":[{"name":"br0","kind":"bridge"}]})");
  const auto found = List();
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].network.id, NetworkGroupId("br0"));
  EXPECT_FALSE(found[0].is_managed);
  EXPECT_EQ(found[0].hosts.size(), 2u);
  EXPECT_EQ(found[1].network.subnet, "10.0.0.0/24");
  EXPECT_EQ(found[1].State(), "ready");
  ExpectAdded(Bridge("office", "br0"));
  const auto adopted = List();
  ASSERT_EQ(adopted.size(), 2u);
  EXPECT_EQ(adopted[1].network.name, "office");
  EXPECT_TRUE(adopted[1].is_managed);
}

TEST_F(NetworkChanges, List_NetworkOfLibvirtIsInactive_IsReadyAndSaysSo) {
  const std::string inactive = R"({"found":[{"name":"default","kind":"nat","active":false}]})";
  PutReport(kHost, inactive);
  PutReport(kOtherHost, R"({"found":[]})");
  const auto one = List();
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0].State(), "ready");
  EXPECT_FALSE(one[0].is_active);
  EXPECT_EQ(one[0].hosts.at(kHost).reason, "It is not active in libvirt; the start of a guest that needs it starts it");
  // One host has started it.
  PutReport(kOtherHost, R"({"found":[{"name":"default","kind":"nat"}]})");
  EXPECT_TRUE(List()[0].is_active);
  EXPECT_EQ(List()[0].hosts.at(kOtherHost).reason, "");
  // It is gone.
  PutOldHeartbeat(kOtherHost);
  EXPECT_FALSE(List()[0].is_active);
  // The same when it is adopted.
  PutReport(kOtherHost, inactive);
  ExpectAdded(Nat("default"));
  EXPECT_TRUE(List()[0].is_managed);
  EXPECT_FALSE(List()[0].is_active);
}

TEST_F(NetworkChanges, List_DamagedRecord_IsFailedOnEachHost) {
  host_.PutText("network", "x", "[]");
  const auto listed = List();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].State(), "failed");
  EXPECT_THAT(listed[0].hosts.at(kHost).reason, testing::StartsWith("The record is damaged: A network's name is 1 to"));
}

}  // namespace
}  // namespace vexa::networks
