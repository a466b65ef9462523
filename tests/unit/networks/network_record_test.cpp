// Records of networks and reports of hosts: what is valid, and what is read from anything that is stored.
#include "host/records/network_record.h"

#include <gtest/gtest.h>

#include "tests/support/matchers.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"

namespace vexa::records {
namespace {

using test::Require;

constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";

Network Valid(NetworkKind kind) {
  Network network;
  network.name = "lan";
  network.network_name = "lan";
  network.kind = kind;
  if (HasSubnet(kind)) network.subnet = "192.168.100.0/24";
  if (kind == NetworkKind::kVlan) network.vlan_id = 42;
  if (kind == NetworkKind::kVlan || kind == NetworkKind::kMacvtap) network.uplink = "eth0";
  return network;
}

std::string Refusal(const Network& network) {
  const Status checked = CheckNetwork(network);
  return checked ? "" : checked.error().message();
}

constexpr NetworkKind kKinds[] = {NetworkKind::kBridge, NetworkKind::kNat, NetworkKind::kIsolated, NetworkKind::kVlan,
                                  NetworkKind::kMacvtap};

TEST(NetworkRecord, EachKind_Valid_IsAcceptedAndReadAsWritten) {
  for (const NetworkKind kind : kKinds) {
    Network network = Valid(kind);
    EXPECT_EQ(Refusal(network), "") << NetworkKindName(kind);
    EXPECT_EQ(FindNetworkKind(NetworkKindName(kind)), kind);
    network.description = "The office";
    if (!HasSubnet(kind)) network.uplinks = {{kHost, "eth1"}};
    NamedRecord record;
    record.id = "n";
    record.name = network.name;
    record.record = NetworkToJson(network);
    const StoredNetwork stored = ParseNetwork(std::move(record));
    EXPECT_EQ(stored.damage, "");
    EXPECT_EQ(NetworkToJson(stored.network), NetworkToJson(network));
  }
  EXPECT_FALSE(FindNetworkKind("ethernet"));
}

TEST(NetworkRecord, Name_Hostile_IsRefused) {
  for (const std::string& name : {std::string(), std::string(65, 'x'), std::string("a/b"), std::string("."),
                                  std::string(".."), std::string("a\nb"), std::string("a\0b", 3), std::string("\x7F"),
                                  std::string("\xFF"), std::string(" a"), std::string("a ")}) {
    Network network = Valid(NetworkKind::kNat);
    network.name = name;
    EXPECT_EQ(Refusal(network),
              "A network's name is 1 to 64 bytes of UTF-8 without '/' and control characters, and neither begins nor "
              "ends with a space")
        << name;
    network = Valid(NetworkKind::kNat);
    network.network_name = name;
    EXPECT_NE(Refusal(network), "") << name;
  }
  Network network = Valid(NetworkKind::kNat);
  network.name = std::string(64, 'x');
  EXPECT_EQ(Refusal(network), "");
  network.description = "a\nb";
  EXPECT_EQ(Refusal(network), "A network's description is up to 1024 bytes of UTF-8 without control characters");
  network.description = std::string(1025, 'x');
  EXPECT_NE(Refusal(network), "");
}

TEST(NetworkRecord, Bridge_NameOfNoInterface_IsRefused) {
  for (const NetworkKind kind : {NetworkKind::kBridge, NetworkKind::kVlan}) {
    Network network = Valid(kind);
    network.network_name = "the whole office";
    EXPECT_EQ(
        Refusal(network),
        "'the whole office' cannot be the name of a bridge: give one of 1 to 15 bytes without spaces, '/' and ':'");
    network = Valid(kind);
    network.uplink = "../eth0";
    EXPECT_EQ(Refusal(network),
              "'../eth0' cannot be the name of a network interface: give one of 1 to 15 bytes without spaces, '/' and "
              "':'");
    network.uplink = "lan";
    EXPECT_EQ(Refusal(network), "The interface 'lan' cannot be its own uplink");
  }
}

TEST(NetworkRecord, Subnet_OutsideOfWhatIsPrivate_IsRefused) {
  Network network = Valid(NetworkKind::kNat);
  for (const char* subnet : {"8.8.8.0/24", "192.168.0.0/15", "10.0.0.0/8", "192.168.1.0/30", "127.0.0.0/16"}) {
    network.subnet = subnet;
    EXPECT_NE(Refusal(network), "") << subnet;
  }
  network.subnet = "10.0.0.0/15";
  EXPECT_EQ(Refusal(network),
            "The subnet '10.0.0.0/15' cannot be used: give one of 10.0.0.0/8, 172.16.0.0/12 or 192.168.0.0/16 with a "
            "prefix length of 16 to 29");
  for (const char* subnet : {"10.0.0.0/16", "192.168.1.0/29"}) {
    network.subnet = subnet;
    EXPECT_EQ(Refusal(network), "") << subnet;
  }
  network.subnet = "192.168.1.1/24";
  EXPECT_EQ(Refusal(network),
            "'192.168.1.1/24' is not a subnet: give its first address and its prefix length, such as 192.168.100.0/24");
}

TEST(NetworkRecord, Settings_OfOtherKinds_AreRefused) {
  Network network = Valid(NetworkKind::kBridge);
  network.subnet = "192.168.100.0/24";
  EXPECT_EQ(Refusal(network), "Only networks of the kinds nat and isolated have a subnet");
  network = Valid(NetworkKind::kIsolated);
  network.uplink = "eth0";
  EXPECT_EQ(Refusal(network), "Networks of the kinds nat and isolated have no uplink");
  network = Valid(NetworkKind::kMacvtap);
  network.uplink.clear();
  EXPECT_EQ(Refusal(network), "A network of the kind macvtap needs an uplink");
  network = Valid(NetworkKind::kNat);
  network.vlan_id = 7;
  EXPECT_EQ(Refusal(network), "Only networks of the kind vlan have a tag");
  network = Valid(NetworkKind::kVlan);
  for (const int tag : {-1, 0, 4095}) {
    network.vlan_id = tag;
    EXPECT_EQ(Refusal(network), "The tag of a VLAN is a number from 1 to 4094") << tag;
  }
  network = Valid(NetworkKind::kMacvtap);
  network.move_addresses = true;
  EXPECT_EQ(Refusal(network), "Only a network of the kind bridge with an uplink can take over its addresses");
  network = Valid(NetworkKind::kBridge);
  network.uplinks = {{"nas-1", "eth0"}};
  EXPECT_EQ(Refusal(network), "'nas-1' is not a host's id");
}

TEST(NetworkRecord, UplinkOn_HostWithOwnUplink_IsThatOne) {
  Network network = Valid(NetworkKind::kVlan);
  network.uplinks = {{kHost, "eth1"}};
  EXPECT_EQ(network.UplinkOn(kHost), "eth1");
  EXPECT_EQ(network.UplinkOn("another"), "eth0");
}

StoredNetwork Read(const std::string& text) {
  NamedRecord record;
  record.id = "n";
  record.record = Parsed(text);
  if (record.record.isObject() && record.record["name"].isString()) record.name = record.record["name"].asString();
  return ParseNetwork(std::move(record));
}

// Older versions named a bridge in records that were written by hand.
TEST(NetworkRecord, Read_RecordWithoutKind_IsABridge) {
  const StoredNetwork stored = Read(R"({"name":"office","bridge_name":"br2"})");
  EXPECT_EQ(stored.damage, "");
  EXPECT_EQ(stored.network.kind, NetworkKind::kBridge);
  EXPECT_EQ(stored.network.network_name, "br2");
}

TEST(NetworkRecord, Read_DamagedRecord_SaysWhatIsWrong) {
  EXPECT_EQ(Read(R"({"name":"x","kind":"wifi"})").damage, "The kind 'wifi' is unknown");
  EXPECT_EQ(Read(R"({"name":"x","kind":"vlan","uplink":"eth0","vlan_id":9999999999})").damage,
            "The tag of a VLAN is a number from 1 to 4094");
  for (const char* text :
       {"{}", R"({"name":7,"kind":[],"uplinks":7})", R"({"name":"a/b"})", R"({"name":"x","kind":"nat","subnet":{}})",
        R"({"name":"x","kind":"bridge","uplinks":{"h":7}})", R"({"name":"x","kind":"macvtap","uplink":"\u0000"})"}) {
    EXPECT_NE(Read(text).damage, "") << text;
  }
}

TEST(NetworkReport, Read_WhatWasWritten_IsTheSame) {
  NetworkReport report;
  report.conditions = {{"a", {kNetworkReady, ""}}, {"b", {kNetworkFailed, "No such device"}}};
  report.found = {{"virbr", "other", ""}, {"default", "nat", "192.168.122.0/24", false}};
  report.subnets = {"192.168.1.0/24"};
  EXPECT_EQ(ParseNetworkReport(NetworkReportToJson(report)), report);
}

TEST(NetworkReport, Read_AnotherHostsNonsense_IsBoundedAndClean) {
  for (const char* text : {"null", "7", "[]", "{}", R"({"states":[],"found":{},"subnets":7})"}) {
    EXPECT_EQ(ParseNetworkReport(Parsed(text)), NetworkReport()) << text;
  }
  const NetworkReport report = ParseNetworkReport(
      Parsed(R"({"states":{"a":7,"b":{"state":"fine"},"c":{"state":"failed","reason":"x\u001b[2J\ny"}},
                 "found":[7,{"name":"a\nb"},{"name":"x","kind":7,"subnet":"y","active":7}],"subnets":[7,"z"]})"));
  ASSERT_EQ(report.conditions.size(), 1u);
  EXPECT_EQ(report.conditions.at("c").reason, "x [2J y");
  EXPECT_EQ(report.found, (std::vector<FoundNetwork>{{"x", "other", ""}}));
  Json::Value many(Json::objectValue);
  for (int i = 0; i < 2000; ++i) {
    many["found"][i]["name"] = "n" + std::to_string(i);
    many["subnets"][i] = "10.0.0.0/24";
    many["states"]["n" + std::to_string(i)]["state"] = "ready";
  }
  const NetworkReport bounded = ParseNetworkReport(many);
  EXPECT_EQ(bounded.found.size(), 512u);
  EXPECT_EQ(bounded.subnets.size(), 512u);
  EXPECT_EQ(bounded.conditions.size(), 512u);
}

}  // namespace
}  // namespace vexa::records
