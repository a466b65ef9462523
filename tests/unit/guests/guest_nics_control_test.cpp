// What a host with guests on libvirt's test driver writes of their interfaces.
#include "host/records/object_edit.h"
#include "json/readers.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

class RunningNics : public GuestControlTest {
 protected:
  RunningNics() {
    Json::Value changes(Json::objectValue);
    changes["vnics"] = Parsed(R"(["nic-1","nic-2"])");
    PutGuest(kGuest, "web-1", changes);
    host_.Put("vnic", "nic-1", Nic("52:54:00:00:00:01", "lan"));
    host_.Put("vnic", "nic-2", Nic("52:54:00:00:00:02", ""));
  }

  static Json::Value Nic(const std::string& mac, const std::string& network) {
    Json::Value nic(Json::objectValue);
    nic["guest_id"] = kGuest;
    nic["mac_address"] = mac;
    nic["network_name"] = network;
    return nic;
  }
  std::string Running(const std::string& vnic) {
    const auto snapshot = test::Require(host_.store().Read());
    const auto stored = test::Require(records::LoadObject(*snapshot, test::TestHost::ObjectKey("vnic", vnic)));
    return json::ToText(json::Member(stored.record, "running"));
  }
  // What an event or the next look brings.
  void ExpectRunning(const std::string& vnic, const std::string& expected) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (Running(vnic) != expected && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
    EXPECT_EQ(Running(vnic), expected) << vnic;
  }
  std::string Here(const std::string& network) {
    return R"({")" + HostId() + R"(":{"bridge_name":"PN-)" + network + R"(","mac_address":"52:54:00:00:00:01"}})";
  }
};

TEST_F(RunningNics, PowerOnAndOff_PluggedNics_AreNotedInRecords) {
  ASSERT_NO_FATAL_FAILURE(Start());
  EXPECT_EQ(Running("nic-1"), "null");
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectRunning("nic-1", Here("lan"));
  EXPECT_EQ(Running("nic-2"), "null") << "it is in no network";
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  ExpectRunning("nic-1", "null");
}

TEST_F(RunningNics, NicNote_GuestMovedHere_RemovesOtherHostsNote) {
  Json::Value nic = Nic("52:54:00:00:00:01", "lan");
  nic["running"] = Parsed(R"({"host-2":{"bridge_name":"PN-x"}})");
  host_.Put("vnic", "nic-1", nic);
  ASSERT_NO_FATAL_FAILURE(Start());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectRunning("nic-1", Here("lan"));
}

TEST_F(RunningNics, NicNote_RemovedElsewhere_IsRestoredByNextReconcile) {
  GuestControlOptions options = Options();
  options.maintenance_interval = 50ms;
  ASSERT_NO_FATAL_FAILURE(Start(std::move(options)));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectRunning("nic-1", Here("lan"));
  host_.Put("vnic", "nic-1", Nic("52:54:00:00:00:01", "lan"));
  ExpectRunning("nic-1", Here("lan"));
}

TEST_F(RunningNics, HostKilled_Restarted_FindsRunAndNotesItsEnd) {
  ASSERT_NO_FATAL_FAILURE(Start());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectRunning("nic-1", Here("lan"));
  Kill();
  ASSERT_NO_FATAL_FAILURE(Start());
  ExpectRunning("nic-1", Here("lan"));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  ExpectRunning("nic-1", "null");
}

}  // namespace
}  // namespace vexa::guests
