// Where the interfaces of guests are attached, and how their records note it.
#include "host/guests/guest_nics.h"

#include <gmock/gmock.h>

#include "host/cluster/nic_id.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"
#include "tests/unit/machine/fake_interfaces.h"

namespace vexa::guests {
namespace {

using domain_xml::GuestInterface;
using domain_xml::NicAttachment;
using test::FakeInterfaces;
using test::FakeSwitch;
using test::SwitchAnswer;
using Cable = FakeInterfaces::Cable;

constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr char kMac[] = "52:54:00:00:00:01";

GuestInterface On(NicAttachment attachment_kind, const std::string& device, const std::string& target = "vnet0") {
  GuestInterface interface;
  interface.mac = kMac;
  interface.attachment_kind = attachment_kind;
  interface.device = device;
  interface.target = target;
  return interface;
}

class Places : public testing::Test {
 protected:
  Places() {
    net_.AddTap("vnet0");
    net_.Add("eth0", "device");
    net_.Add("br0", "bridge");
    net_.MakePort("eth0", "br0");
  }
  // "bridge_name port", "none" when it is not plugged in.
  std::string Place(const GuestInterface& interface) const {
    machine::NetworkLinks links(net_.root());
    const auto place = FindNicAttachment(interface, links);
    return place ? place->bridge_name + " " + place->port : "none";
  }
  FakeInterfaces net_;
};

TEST_F(Places, Place_BridgeWithUplink_IsItsPort) {
  net_.MakePort("vnet0", "br0");
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "br0")), "br0 br0");
  net_.Plug("eth0", Cable::kOut);
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "br0")), "br0 br0") << "the list of interfaces has the cable's state";
}

TEST_F(Places, Place_BridgeWithoutUplinks_IsPrivateWhileUp) {
  net_.Add("br1", "bridge");
  net_.MakePort("vnet0", "br1");
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "br1")), "PN-br1 ");
  net_.SwitchOff("br1");
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "br1")), "br1 ");
}

TEST_F(Places, Place_LibvirtNetwork_IsPrivateWhateverItsPorts) {
  net_.MakePort("vnet0", "br0");
  EXPECT_EQ(Place(On(NicAttachment::kNetwork, "br0")), "PN-br0 ");
}

TEST_F(Places, FindPlace_NameWithPrivatePrefix_IsEscaped) {
  net_.Add("PNlan", "bridge");
  net_.Add("eth1", "device");
  net_.MakePort("eth1", "PNlan");
  net_.MakePort("vnet0", "PNlan");
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "PNlan")), "ovs_PNlan PNlan");
}

TEST_F(Places, FindPlace_HostEndMoved_UsesKernel) {
  net_.Add("br1", "bridge");
  net_.MakePort("vnet0", "br1");
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "br0")), "PN-br1 ");
  net_.Unplug("vnet0", "br1");
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "br0")), "none") << "its end is on no bridge";
  EXPECT_EQ(Place(On(NicAttachment::kOther, "", "vnet0")), "none");
  net_.MakePort("vnet0", "br0");
  EXPECT_EQ(Place(On(NicAttachment::kOther, "", "vnet0")), "br0 br0") << "a tap that another program put on a bridge";
}

TEST_F(Places, FindPlace_HostEndInvisible_UsesLibvirt) {
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "br0", "vnet7")), "br0 br0");
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "gone", "vnet7")), "none");
  EXPECT_EQ(Place(On(NicAttachment::kNetwork, "", "")), "none");
}

TEST_F(Places, Place_LinkDown_IsAbsent) {
  net_.MakePort("vnet0", "br0");
  GuestInterface interface = On(NicAttachment::kBridge, "br0");
  interface.is_link_up = false;
  EXPECT_EQ(Place(interface), "none");
  EXPECT_FALSE(FakeNicAttachment(interface));
}

TEST_F(Places, Place_Macvtap_IsItsLowerDevice) {
  EXPECT_EQ(Place(On(NicAttachment::kDevice, "eth0", "macvtap0")), "eth0 eth0");
  EXPECT_EQ(Place(On(NicAttachment::kDevice, "eth9", "macvtap0")), "none");
  net_.Add("br1", "bridge");
  EXPECT_EQ(Place(On(NicAttachment::kDevice, "br1", "macvtap0")), "PN-br1 ");
}

TEST_F(Places, Place_EmulatorNat_IsPrivate) { EXPECT_EQ(Place(On(NicAttachment::kUser, "", "")), "PN-user "); }

TEST_F(Places, Attachment_OpenVSwitch_FindsBridgeInDatabase) {
  net_.AddTap("lan");
  net_.SwitchOff("lan");
  net_.AddTap("alone");
  net_.SwitchOff("alone");
  const FakeSwitch fake(net_.root(),
                        SwitchAnswer({{"lan", {{"eth0", ""}, {"vnet0", ""}}}, {"alone", {{"vnet1", ""}}}}));
  net_.AddTap("vnet1");
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "lan")), "lan lan");
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "alone")), "none") << "its end is on another bridge";
  EXPECT_EQ(Place(On(NicAttachment::kBridge, "alone", "vnet1")), "PN-alone ")
      << "it forwards while its own device is switched off";
}

TEST_F(Places, Place_TestMode_IsNetworkName) {
  GuestInterface interface = On(NicAttachment::kNetwork, "virbr0");
  interface.network = "default";
  EXPECT_EQ(FakeNicAttachment(interface)->bridge_name, "PN-default");
  EXPECT_EQ(FakeNicAttachment(On(NicAttachment::kBridge, "anything"))->bridge_name, "PN-anything");
  EXPECT_FALSE(FakeNicAttachment(On(NicAttachment::kUser, "")));
}

class NoteInRecords : public Places {
 protected:
  NoteInRecords() {
    host_.Put("guest", kGuest, Parsed(R"({"name":"web-1","vnics":["nic-1","nic-2",7,""]})"));
    host_.Put("vnic", "nic-1", Parsed(R"({"mac_address":"52:54:00:00:00:01","kept":1})"));
    host_.Put("vnic", "nic-2", Parsed(R"({"mac_address":"52:54:00:00:00:02"})"));
  }

  Status Note(RunsHere runs_here, const std::vector<NicAttachmentRecord>& places) {
    machine::NetworkLinks links(net_.root());
    return WriteNicAttachments(host_.store(), kHost, kGuest, runs_here, places, links);
  }
  void Expect(const std::string& vnic, const std::string& running) {
    const Json::Value record = Stored(test::TestHost::ObjectKey("vnic", vnic));
    EXPECT_EQ(json::ToText(json::Member(record, "running")), running) << vnic;
  }
  Json::Value Stored(const std::string& key) {
    const auto snapshot = test::Require(host_.store().Read());
    const auto value = test::Require(snapshot->Get(key));
    return value ? Parsed(std::string(value->text)) : Json::Value();
  }
  void PutNic(const std::string& id, const std::string& name) {
    const std::string key = store::MakeKey({"dash", "host", kHost, "nics", id});
    ASSERT_TRUE(host_.store().Commit({{}, {{key, R"({"name":")" + name + R"("})"}}}));
  }
  store::Revision Revision() { return test::Require(host_.store().Read())->revision(); }

  test::TestHost host_;
};

TEST_F(NoteInRecords, NicNote_Place_IsWrittenOnceAndRemoved) {
  PutNic("card", "eth0");
  PutNic("bridge", "br0");
  ASSERT_TRUE(Note(RunsHere::kYes, {{kMac, "br0", "br0"}, {"52:54:00:00:00:02", "PN-virbr0", ""}}));
  Expect("nic-1", R"({")" + std::string(kHost) +
                      R"(":{"bridge_name":"br0","mac_address":"52:54:00:00:00:01","nic_id":"bridge"}})");
  Expect("nic-2", R"({")" + std::string(kHost) + R"(":{"bridge_name":"PN-virbr0","mac_address":"52:54:00:00:00:02"}})");
  EXPECT_EQ(Stored(test::TestHost::ObjectKey("vnic", "nic-1"))["kept"], 1);

  const store::Revision before = Revision();
  ASSERT_TRUE(Note(RunsHere::kYes, {{kMac, "br0", "br0"}, {"52:54:00:00:00:02", "PN-virbr0", ""}}));
  EXPECT_EQ(Revision(), before) << "nothing has changed";

  ASSERT_TRUE(Note(RunsHere::kYes, {{kMac, "br0", "br0"}}));
  Expect("nic-2", "null");
  ASSERT_TRUE(Note(RunsHere::kNo, {}));
  Expect("nic-1", "null");
  const store::Revision after = Revision();
  ASSERT_TRUE(Note(RunsHere::kNo, {}));
  EXPECT_EQ(Revision(), after);
}

TEST_F(NoteInRecords, NicNote_EntriesOfOtherHosts_AreRemovedOnlyByRunHere) {
  const std::string other = R"({"mac_address":"52:54:00:00:00:01","running":{"other":{"bridge_name":"PN-x"},")" +
                            std::string(kHost) + R"(":{"bridge_name":"br0"}}})";
  host_.Put("vnic", "nic-1", Parsed(other));
  ASSERT_TRUE(Note(RunsHere::kNo, {}));
  Expect("nic-1", R"({"other":{"bridge_name":"PN-x"}})");
  host_.Put("vnic", "nic-1", Parsed(other));
  ASSERT_TRUE(Note(RunsHere::kYes, {}));
  Expect("nic-1", "null");
}

TEST_F(NoteInRecords, NicNote_AddressEdited_IsMatchedByRunningAddress) {
  ASSERT_TRUE(Note(RunsHere::kYes, {{kMac, "PN-a", ""}}));
  Json::Value edited = Stored(test::TestHost::ObjectKey("vnic", "nic-1"));
  edited["mac_address"] = "52:54:00:00:00:99";
  host_.Put("vnic", "nic-1", edited);
  ASSERT_TRUE(Note(RunsHere::kYes, {{kMac, "PN-b", ""}}));
  Expect("nic-1", R"({")" + std::string(kHost) + R"(":{"bridge_name":"PN-b","mac_address":"52:54:00:00:00:01"}})");
  // After the next start it has the new one.
  ASSERT_TRUE(Note(RunsHere::kYes, {{"52:54:00:00:00:99", "PN-b", ""}}));
  Expect("nic-1", R"({")" + std::string(kHost) + R"(":{"bridge_name":"PN-b","mac_address":"52:54:00:00:00:99"}})");
}

TEST_F(NoteInRecords, NicNote_HostInterfaceWithoutRecord_GetsOneUnlessHardware) {
  ASSERT_TRUE(Note(RunsHere::kYes, {{kMac, "br0", "br0"}, {"52:54:00:00:00:02", "br0", "br0"}}));
  const std::string id = cluster::NicId(kHost, "br0");
  EXPECT_EQ(Stored(store::MakeKey({"dash", "host", kHost, "nics", id}))["name"], "br0");
  for (const char* const vnic : {"nic-1", "nic-2"}) {
    const Json::Value record = Stored(test::TestHost::ObjectKey("vnic", vnic));
    EXPECT_EQ(record["running"][kHost]["nic_id"], id) << vnic;
  }
  ASSERT_TRUE(Note(RunsHere::kYes, {{kMac, "eth0", "eth0"}}));
  Expect("nic-1", R"({")" + std::string(kHost) + R"(":{"bridge_name":"eth0","mac_address":"52:54:00:00:00:01"}})");
  PutNic("card", "eth0");
  ASSERT_TRUE(Note(RunsHere::kYes, {{kMac, "eth0", "eth0"}}));
  EXPECT_EQ(Stored(test::TestHost::ObjectKey("vnic", "nic-1"))["running"][kHost]["nic_id"], "card");
}

TEST_F(NoteInRecords, NicNote_DamagedRecords_AreKeptAndOthersWritten) {
  host_.PutText("vnic", "nic-1", "[]");
  ASSERT_TRUE(Note(RunsHere::kYes, {{kMac, "PN-a", ""}, {"52:54:00:00:00:02", "PN-a", ""}}));
  EXPECT_EQ(json::ToText(Stored(test::TestHost::ObjectKey("vnic", "nic-1"))), "[]");
  Expect("nic-2", R"({")" + std::string(kHost) + R"(":{"bridge_name":"PN-a","mac_address":"52:54:00:00:00:02"}})");
  host_.Put("vnic", "nic-2", Parsed(R"({"mac_address":5,"running":"what"})"));
  ASSERT_TRUE(Note(RunsHere::kYes, {{"52:54:00:00:00:02", "PN-a", ""}}));
  Expect("nic-2", "null");
  host_.Remove("vnic", "nic-2");
  host_.PutText("guest", kGuest, "7");
  EXPECT_TRUE(Note(RunsHere::kYes, {{kMac, "PN-a", ""}}));
  host_.Remove("guest", kGuest);
  EXPECT_TRUE(Note(RunsHere::kYes, {{kMac, "PN-a", ""}}));
}

}  // namespace
}  // namespace vexa::guests
