// Virtual functions of network cards for guests with "prefer_sriov": on libvirt's test driver, with a folder in place
// of /sys. A real card is not needed, and not tested.
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/libvirt_faults.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_control_fixture.h"
#include "tests/unit/machine/fake_card.h"

namespace vexa::guests {
namespace {

using test::FakeCard;

constexpr char kNic[] = "d1b2c3d4-0000-4000-8000-000000000011";
constexpr char kOtherNic[] = "d1b2c3d4-0000-4000-8000-000000000012";

class GuestVirtualFunctions : public GuestControlTest {
 protected:
  GuestVirtualFunctions() {
    test::ClearCapturedSyslog();
    net_.Add("br0", "bridge");
    net_.MakePort("eth0", "br0");
    PutGuestWithNic(kGuest, "web-1", kNic, "br0");
    PutGuestWithNic(kOther, "web-2", kOtherNic, "br0");
  }
  void PutGuestWithNic(const std::string& id, const std::string& name, const std::string& nic,
                       const std::string& network, bool prefers = true) {
    Json::Value record = Parsed(R"({"vnic_type":1})");
    record["guest_id"] = id;
    record["network_name"] = network;
    record["prefer_sriov"] = prefers;
    record["mac_address"] = nic == kNic ? "02:00:00:00:00:11" : "02:00:00:00:00:12";
    host_.Put("vnic", nic, record);
    PutGuest(id, name, Parsed(R"({"vnics":[")" + nic + R"("]})"));
  }
  void StartWithCard() {
    GuestControlOptions options = Options();
    options.system_root = net_.root();
    Start(std::move(options));
  }
  static bool HasFunction(const std::string& id, const std::string& source) {
    const std::string xml = test::XmlAsUser(id);
    return xml.find("<interface type='hostdev' managed='yes'>") != std::string::npos &&
           xml.find(source) != std::string::npos;
  }
  std::string Pending() const {
    const auto pending = control_->Pending(kGuest);
    if (!pending.ok()) return std::to_string(pending.error().code) + " " + pending.error().reason;
    return VexaVirtualization::json::ToText(domain_xml::ToJson(*pending));
  }
  void ExpectReported(const std::string& reason) {
    EXPECT_TRUE(test::SyslogContains("The network interface " + std::string(kNic) + " of the guest " + kGuest +
                                     " got no virtual function: " + reason))
        << reason;
    EXPECT_THAT(ClusterLog(), HasSubstr("without a virtual function: " + reason));
  }
  std::string ClusterLog() {
    std::string text;
    const auto snapshot = test::Require(host_.store().Read());
    EXPECT_TRUE(snapshot->Scan(store::MakeKey({"log"}), [&](std::string_view, const store::ValueView& value) {
      text += std::string(value.text) + "\n";
      return true;
    }));
    return text;
  }

  test::FakeInterfaces net_;
  FakeCard card_{net_, "eth0"};
};

TEST_F(GuestVirtualFunctions, Preferred_FreeFunction_IsUsedByOneGuestAtATime) {
  card_.AddFunction();
  card_.AddFunction();
  ASSERT_NO_FATAL_FAILURE(StartWithCard());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_TRUE(HasFunction(kGuest, "<address type='pci' domain='0x0000' bus='0x3b' slot='0x02' function='0x0'/>"))
      << test::XmlAsUser(kGuest);
  EXPECT_EQ(RunOf()->virtual_functions.at(kNic).address, "0000:3b:02.0");
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_EQ(RunOf(kOther)->virtual_functions.at(kOtherNic).address, "0000:3b:02.1");
  EXPECT_FALSE(test::SyslogContains("virtual function"));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOff(kOther, kAlice));
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_EQ(RunOf(kOther)->virtual_functions.at(kOtherNic).address, "0000:3b:02.0") << "free again";
}

TEST_F(GuestVirtualFunctions, Preferred_AllFunctionsTaken_IsOnTheBridgeAndReported) {
  card_.AddFunction();
  ASSERT_NO_FATAL_FAILURE(StartWithCard());
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_NE(test::XmlAsUser(kGuest).find("<interface type='bridge'>"), std::string::npos) << test::XmlAsUser(kGuest);
  EXPECT_TRUE(RunOf()->virtual_functions.empty());
  ExpectReported("other guests have all 1 virtual functions of the bridge 'br0'");
}

TEST_F(GuestVirtualFunctions, Preferred_CardHasNone_IsOnTheBridgeAndReported) {
  ASSERT_NO_FATAL_FAILURE(StartWithCard());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_NE(test::XmlAsUser(kGuest).find("<interface type='bridge'>"), std::string::npos) << test::XmlAsUser(kGuest);
  ExpectReported("the network card of the bridge 'br0' has no virtual functions");
}

TEST_F(GuestVirtualFunctions, Preferred_NoIommu_IsOnTheBridgeAndReported) {
  card_.AddFunction(FakeCard::Iommu::kNone);
  ASSERT_NO_FATAL_FAILURE(StartWithCard());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectReported(
      "none of the 1 virtual functions of the bridge 'br0' can be given to a guest: the host uses them, or has no "
      "IOMMU");
}

TEST_F(GuestVirtualFunctions, Preferred_NetworkIsNotABridge_IsReported) {
  card_.AddFunction();
  PutGuestWithNic(kGuest, "web-1", kNic, "nat-1");
  ASSERT_NO_FATAL_FAILURE(StartWithCard());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectReported("the network 'nat-1' is not a bridge of the host with a network card");
}

TEST_F(GuestVirtualFunctions, NotPreferred_IsOnTheBridgeWithoutAWord) {
  card_.AddFunction();
  PutGuestWithNic(kGuest, "web-1", kNic, "br0", false);
  ASSERT_NO_FATAL_FAILURE(StartWithCard());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_TRUE(RunOf()->virtual_functions.empty());
  EXPECT_FALSE(test::SyslogContains("virtual function"));
}

// The restarted test driver has forgotten the guest.
TEST_F(GuestVirtualFunctions, HostRestarted_GuestKeepsItsFunction) {
  card_.AddFunction();
  ASSERT_NO_FATAL_FAILURE(StartWithCard());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  Kill();
  ASSERT_NO_FATAL_FAILURE(StartWithCard());
  EXPECT_EQ(RunOf()->virtual_functions.at(kNic).address, "0000:3b:02.0");
  EXPECT_TRUE(HasFunction(kGuest, "bus='0x3b'")) << test::XmlAsUser(kGuest);
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_TRUE(RunOf(kOther)->virtual_functions.empty());
}

// A guest that runs has its function for as long as its record asks for one in the same network.
TEST_F(GuestVirtualFunctions, Pending_RecordNoLongerAsksForFunction_ListsBridge) {
  card_.AddFunction();
  ASSERT_NO_FATAL_FAILURE(StartWithCard());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(Pending(), "[]");
  const auto expected = [](const std::string& recorded) {
    return R"([{"id":")" + std::string(kNic) + R"(","property":"vnics","recorded":)" + recorded +
           R"(,"running":{"mac":"02:00:00:00:00:11","virtual_function":"0000:3b:02.0"}}])";
  };
  PutGuestWithNic(kGuest, "web-1", kNic, "br0", false);
  EXPECT_EQ(Pending(), expected(R"({"mac":"02:00:00:00:00:11","network":"br0","vnic_type":1})"));
  PutGuestWithNic(kGuest, "web-1", kNic, "br1");
  EXPECT_EQ(Pending(), expected(R"({"mac":"02:00:00:00:00:11","network":"br1","vnic_type":1})"))
      << "it is in the old network";
  PutGuestWithNic(kGuest, "web-1", kNic, "br0");
  EXPECT_EQ(Pending(), "[]");
}

// As after an interface was removed from a running guest, also when the host ended in between.
TEST_F(GuestVirtualFunctions, FunctionGivenBack_IsFreeForOtherGuests) {
  card_.AddFunction();
  card_.AddFunction();
  ASSERT_NO_FATAL_FAILURE(StartWithCard());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  RunRecord run = *RunOf();
  const records::VirtualFunction kept = run.virtual_functions.at(kNic);
  run.virtual_functions["d1b2c3d4-0000-4000-8000-000000000013"] = {"0000:3b:02.1", "br0"};
  PutRun(run);
  EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"desc":"it is reconciled"})"), kAlice));
  EXPECT_EQ(RunOf()->virtual_functions, (std::map<std::string, records::VirtualFunction>{{kNic, kept}}));
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_EQ(RunOf(kOther)->virtual_functions.at(kOtherNic).address, "0000:3b:02.1");
}

TEST_F(GuestVirtualFunctions, Edit_NetworkOfAKindWithoutCards_IsRefused) {
  constexpr char kNat[] = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";
  host_.Put("network", kNat,
            Parsed(R"({"name":"inside","kind":"nat","network_name":"inside","subnet":"10.9.0.0/24"})"));
  ASSERT_NO_FATAL_FAILURE(StartWithCard());
  const std::string add = R"({"vnics_add":[{"network_id":")" + std::string(kNat) + R"(","vnic_type":1,"prefer_sriov":)";
  EXPECT_REFUSED(
      control_->Edit(kGuest, Parsed(add + "true}]}"), kAlice), 903,
      "An interface in the network 'inside' cannot have a virtual function ('prefer_sriov'): it is of the kind "
      "'nat', and only a network of the kind 'bridge' leads to a network card");
  EXPECT_DONE(control_->Edit(kGuest, Parsed(add + "false}]}"), kAlice));
}

}  // namespace
}  // namespace vexa::guests
