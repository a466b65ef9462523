// Whether users see that a guest's network works: a real host with a real guest on each kind of network, whose cables
// are pulled out.
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/process.h"
#include "tests/support/system_host_test.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000011";
constexpr char kHealthy[] = "healthy";
constexpr char kUnconnectable[] = "warning network_unconnectable";
// 10 s by the promise, and a busy machine.
constexpr auto kLimit = 30s;

class NetworkHealth : public SystemHostTest {
 protected:
  void SetUp() override { SetUpHost({"ip"}); }
  void TearDown() override {
    if (HasFailure() && host_) {
      std::fprintf(stderr, "%s\n%s\n%s\n", host_->Log().c_str(), libvirtd_->Log().c_str(),
                   Content("/var/log/libvirt/qemu/connected.log").c_str());
    }
    StopHost(kGuest);
    libvirtd_.reset();
    environment_.reset();
  }

  // A host that runs the guest on `network`.
  void StartGuest(const std::string& network) {
    HostGuest guest;
    guest.id = kGuest;
    guest.name = "connected";
    guest.disks = 0;
    host_->PutGuest(guest);
    Json::Value nic(Json::objectValue);
    nic["guest_id"] = kGuest;
    nic["mac_address"] = "52:54:00:00:00:11";
    nic["network_name"] = network;
    host_->Put("vnic", kNic, nic);
    host_->Start();
    ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  }

  // As `vexa guest status` shows it: "healthy", "warning network_unconnectable".
  std::string Severity() const {
    const auto status =
        ParseJson(host_->Vexa({"guest", "status", kGuest, "--json", "--socket", environment_->folder() + "/s"}));
    if (!status) return "no answer";
    const std::string reason = json::String(json::Member(*status, "status_reason"));
    return json::String(json::Member(*status, "status_type")) + (reason.empty() ? "" : " " + reason);
  }
  // Within what is promised.
  void ExpectWithinPromisedTime(const std::string& severity, const std::string& after) const {
    const auto begin = Clock::now();
    std::string seen;
    do {
      seen = Severity();
      if (seen == severity) break;
      std::this_thread::sleep_for(100ms);
    } while (Clock::now() - begin < kLimit);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
    EXPECT_EQ(seen, severity) << after << ", guest " << host_->State(kGuest) << ", vnic "
                              << json::ToText(host_->Record("vnic", kNic));
    EXPECT_LE(took, kLimit) << after;
    std::printf("%s: %s after %lld ms\n", after.c_str(), seen.c_str(), static_cast<long long>(took.count()));
    std::fflush(stdout);
  }
  // The guest's own cable, which is the machine's.
  void ExpectOwnCableCounts() {
    libvirtd_->SetLink(kGuest, "down");
    ExpectWithinPromisedTime(kUnconnectable, "the guest's own link is down");
    libvirtd_->SetLink(kGuest, "up");
    ExpectWithinPromisedTime(kHealthy, "the guest's own link is up");
  }
  void ExpectCableCounts(const Cable& cable) {
    ExpectWithinPromisedTime(kHealthy, "the guest runs");
    cable.PullOut();
    ExpectWithinPromisedTime(kUnconnectable, "the cable is out");
    cable.PlugIn();
    ExpectWithinPromisedTime(kHealthy, "the cable is in");
  }
  void ExpectNothingIsLeft() {
    ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
    EXPECT_TRUE(Await([&] { return json::Member(host_->Record("vnic", kNic), "running").isNull(); }, kLimit))
        << json::ToText(host_->Record("vnic", kNic));
  }

  static inline const std::string kNic = std::string("nic-") + kGuest;
};

TEST_F(NetworkHealth, Bridge_WithUplink_FollowsItsCable) {
  RunTool({"ip", "link", "add", "br0", "type", "bridge"});
  RunTool({"ip", "link", "set", "br0", "up"});
  const Cable cable("up0");
  RunTool({"ip", "link", "set", "up0", "master", "br0"});
  ASSERT_NO_FATAL_FAILURE(StartGuest("br0"));
  ExpectCableCounts(cable);
  ExpectOwnCableCounts();
  const std::string tap = "vnet0";
  RunTool({"ip", "link", "set", tap, "nomaster"});
  ExpectWithinPromisedTime(kUnconnectable, "the guest's end was taken off the bridge");
  RunTool({"ip", "link", "set", tap, "master", "br0"});
  ExpectWithinPromisedTime(kHealthy, "the guest's end is on the bridge");
  host_->Restart();
  ExpectWithinPromisedTime(kHealthy, "the host was killed and started");
  ExpectNothingIsLeft();
  RunTool({"ip", "link", "delete", "br0"});
}

TEST_F(NetworkHealth, Bridge_NoUplinks_IsPrivate) {
  RunTool({"ip", "link", "add", "br1", "type", "bridge"});
  RunTool({"ip", "link", "set", "br1", "up"});
  ASSERT_NO_FATAL_FAILURE(StartGuest("br1"));
  ExpectWithinPromisedTime(kHealthy, "the guest runs");
  RunTool({"ip", "link", "set", "br1", "down"});
  ExpectWithinPromisedTime(kUnconnectable, "the bridge is switched off");
  RunTool({"ip", "link", "set", "br1", "up"});
  ExpectWithinPromisedTime(kHealthy, "the bridge is switched on");
  ExpectNothingIsLeft();
  RunTool({"ip", "link", "delete", "br1"});
}

class NetworkOfLibvirt : public NetworkHealth,
                         public testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(NetworkOfLibvirt, Guest_BridgeUp_IsHealthy) {
  const bool is_nat = std::string(GetParam().first) == "Nat";
  if (is_nat && !IsInstalled("iptables")) GTEST_SKIP() << SkipNotice("there is no iptables, which NAT needs");
  ASSERT_NO_FATAL_FAILURE(libvirtd_->StartNetwork(GetParam().second));
  ASSERT_NO_FATAL_FAILURE(StartGuest("inside"));
  ExpectWithinPromisedTime(kHealthy, "the guest runs");
  ExpectOwnCableCounts();
  RunTool({"ip", "link", "set", "virbr7", "down"});
  ExpectWithinPromisedTime(kUnconnectable, "the bridge of the network is switched off");
  RunTool({"ip", "link", "set", "virbr7", "up"});
  ExpectWithinPromisedTime(kHealthy, "the bridge of the network is switched on");
  ASSERT_NO_FATAL_FAILURE(libvirtd_->StopNetwork());
  ExpectWithinPromisedTime(kUnconnectable, "the network was stopped");
}

INSTANTIATE_TEST_SUITE_P(NetworkHealth, NetworkOfLibvirt,
                         testing::Values(std::pair("Nat", "<forward mode='nat'/>"), std::pair("Isolated", "")),
                         [](const auto& row) { return row.param.first; });

TEST_F(NetworkHealth, SwitchBridge_AnyName_FollowsItsCable) {
  if (const std::string why_not = VirtualSwitch::UnavailableReason(); !why_not.empty())
    GTEST_SKIP() << SkipNotice(why_not);
  const VirtualSwitch virtual_switch;
  const Cable cable("up1");
  virtual_switch.AddBridge("lan");
  virtual_switch.AddPort("lan", "up1");
  ASSERT_NO_FATAL_FAILURE(StartGuest("lan"));
  ExpectCableCounts(cable);
  ExpectOwnCableCounts();
  virtual_switch.DeletePort("lan", "up1");
  ExpectWithinPromisedTime(kHealthy, "a bridge without uplinks is private");
  virtual_switch.DeletePort("lan", "vnet0");
  ExpectWithinPromisedTime(kUnconnectable, "the guest's end was taken off the bridge");
  virtual_switch.AddPort("lan", "vnet0");
  ExpectWithinPromisedTime(kHealthy, "the guest's end is on the bridge");
  ExpectNothingIsLeft();
}

TEST_F(NetworkHealth, Macvtap_OnCard_FollowsItsCable) {
  const Cable cable("up2");
  const std::string image = host_->DiskFolder() + "/boot.img";
  RunTool({"cp", environment_->Image(GuestImage::kWithAgent), image});
  const LibvirtUser user(kSystemUri);
  const std::string defined = user.Define(
      std::string("<domain type='qemu'><name>direct</name><uuid>") + kGuest +
      "</uuid><memory unit='MiB'>192</memory><vcpu>1</vcpu><os><type arch='x86_64' machine='q35'>hvm</type></os>"
      "<devices><disk type='file' device='disk'><driver name='qemu' type='raw'/><source file='" +
      image +
      "'/><target dev='vda' bus='virtio'/></disk><interface type='direct'><mac address='52:54:00:00:00:11'/>"
      "<source dev='up2' mode='bridge'/><model type='virtio'/></interface></devices></domain>");
  ASSERT_EQ(defined, "");
  if (const std::string refused = user.Start(kGuest); !refused.empty()) {
    GTEST_SKIP() << SkipNotice("a guest on macvtap cannot be started: " + refused);
  }
  host_->Start();
  host_->Vexa({"import", "--all", kSystemUri, "--socket", host_->Socket(), "--host-id", host_->id(), "--repository-id",
               kHostRepository});
  ExpectCableCounts(cable);
  ExpectOwnCableCounts();
}

}  // namespace
}  // namespace vexa::test

int main(int argc, char** argv) {
  vexa::test::EnterNetworkNamespace(argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
