// Guests that are changed while they run, on libvirt's test driver: it changes processors, and no devices.
#include <filesystem>
#include <fstream>

#include "host/domain_xml/domain_devices.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/guests/live_changes.h"
#include "json/readers.h"
#include "tests/support/libvirt_faults.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

using domain_xml::Difference;
using domain_xml::MachineLimits;

struct Row {
  const char* name;
  Difference difference;
  MachineLimits limits;
  const char* obstacle;  // "": none
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class Obstacle : public testing::TestWithParam<Row> {};

TEST_P(Obstacle, OfPendingChange_HasReason) {
  EXPECT_EQ(ObstacleTo(GetParam().difference, GetParam().limits), GetParam().obstacle);
}

MachineLimits Roomy() { return {8, 1024, 1, true, true, true}; }
MachineLimits Without(bool MachineLimits::*part) {
  MachineLimits limits = Roomy();
  limits.*part = false;
  return limits;
}
Difference Change(const char* property, const char* running, const char* recorded) {
  return {property, "", Parsed(running), Parsed(recorded)};
}

INSTANTIATE_TEST_SUITE_P(
    Properties, Obstacle,
    testing::Values(
        Row{"vcpus", Change("vcpu_num", "1", "8"), Roomy(), ""},
        Row{"fewer_vcpus", Change("vcpu_num", "4", "2"), Roomy(), ""},
        Row{"too_many_vcpus", Change("vcpu_num", "1", "9"), Roomy(),
            "the guest was started with room for 8 virtual CPUs"},
        Row{"memory", Change("vram_size", "512", "1024"), Roomy(), ""},
        Row{"less_memory", Change("vram_size", "512", "256"), Roomy(), "a running guest gives no memory back"},
        Row{"too_much_memory", Change("vram_size", "512", "1152"), Roomy(),
            "the guest was started with room for 1024 MiB"},
        Row{"odd_memory", Change("vram_size", "512", "513"), Roomy(),
            "memory is added to a running guest in multiples of 128 MiB"},
        Row{"no_slots", Change("vram_size", "512", "640"), MachineLimits{},
            "the guest was started without room for more memory"},
        Row{"weight", Change("cpu_weight", "256", "300"), Roomy(), ""},
        Row{"drives", Change("iso_images", R"(["/a"])", R"(["unmounted"])"), Roomy(), ""},
        Row{"more_drives", Change("iso_images", R"(["/a"])", R"(["/a","/b"])"), Roomy(),
            "drives cannot be added or removed while the guest runs"},
        Row{"usb", Change("usbs", "[]", R"(["3.14"])"), Roomy(), ""},
        Row{"no_usb", Change("usbs", "[]", R"(["3.14"])"), Without(&MachineLimits::has_usb),
            "the running guest has no USB controller"},
        Row{"nic", Change("vnics", "null", R"({"vnic_type":1})"), Without(&MachineLimits::has_pci_slots), ""},
        Row{"nic_removed", Change("vnics", R"({"vnic_type":2})", "null"), Without(&MachineLimits::has_pci_slots), ""},
        Row{"nic_moved", Change("vnics", R"({"network":"a","vnic_type":2})", R"({"network":"b","vnic_type":2})"),
            Without(&MachineLimits::has_pci_slots), ""},
        Row{"pci_nic", Change("vnics", "null", R"({"vnic_type":2})"), Roomy(), ""},
        Row{"no_slot_for_nic", Change("vnics", "null", R"({"vnic_type":3})"), Without(&MachineLimits::has_pci_slots),
            "the running guest has no slot for interfaces of this type"},
        Row{"disk", Change("vdisks", "null", R"({"vdisk_mode":1})"), Roomy(), ""},
        Row{"scsi_disk", Change("vdisks", R"({"vdisk_mode":4})", "null"), Roomy(), ""},
        Row{"no_scsi", Change("vdisks", "null", R"({"vdisk_mode":4})"), Without(&MachineLimits::has_scsi),
            "the running guest has no SCSI controller"},
        Row{"sata_disk", Change("vdisks", "null", R"({"vdisk_mode":3})"), Roomy(),
            "only disks on VirtIO and SCSI can be added and removed while the guest runs"},
        Row{"disk_moved", Change("vdisks", R"({"vdisk_mode":4})", R"({"vdisk_mode":1})"), Roomy(),
            "a disk cannot change its controller while the guest runs"},
        Row{"grown", Change("vdisks", R"({"size":1})", R"({"size":2})"), Roomy(), ""},
        Row{"shrunk", Change("vdisks", R"({"size":2})", R"({"size":1})"), Roomy(), "disks do not shrink"},
        Row{"order", Change("vdisks_order", "[]", R"(["a"])"), Roomy(), "it is part of the machine that a start makes"},
        Row{"video", Change("video_card", R"("vga")", R"("qxl")"), Roomy(),
            "it is part of the machine that a start makes"},
        Row{"pins", Change("cpu_pin_num", "0", "1"), Roomy(), "it is part of the machine that a start makes"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(LiveDifferences, New_EarlierPendingChanges_AreLeftOut) {
  const Difference waits = Change("video_card", R"("vga")", R"("qxl")");
  const Difference other = Change("video_card", R"("vga")", R"("virtio")");
  EXPECT_EQ(NewDifferences({waits}, {waits, other}), std::vector<Difference>{other});
  EXPECT_EQ(NewDifferences({}, {waits}), std::vector<Difference>{waits});
  EXPECT_TRUE(NewDifferences({waits}, {waits}).empty());
}

TEST(LiveRelease, DevicesThatStay_TakeTheTimeOnce) {
  ReleaseTimer timer(50ms, [] { return false; });
  int looks = 0;
  const auto stays = [&]() -> Result<bool> {
    ++looks;
    return true;
  };
  const Status first = timer.AwaitRelease(stays);
  EXPECT_EQ(first.error().ToString(), "The guest has not given the device back yet");
  looks = 0;
  EXPECT_FALSE(timer.AwaitRelease(stays));
  EXPECT_EQ(looks, 1) << "the time begins again for each device";
  EXPECT_TRUE(timer.AwaitRelease([]() -> Result<bool> { return false; }));
}

TEST(LiveRelease, HostStops_EndsTheWait) {
  ReleaseTimer timer(1h, [] { return true; });
  const Status waited = timer.AwaitRelease([]() -> Result<bool> { return true; });
  ASSERT_FALSE(waited);
  EXPECT_EQ(waited.error().ToString(), "This host is stopping");
}

class GuestLive : public GuestControlTest {
 protected:
  void StartRunning() {
    Start();
    ASSERT_TRUE(control_->PowerOn(kGuest, kAlice).ok());
    ASSERT_EQ(Pending(), "[]");
  }
  std::string Pending() const {
    const auto pending = control_->Pending(kGuest);
    if (!pending.ok()) return std::to_string(pending.error().code) + " " + pending.error().reason;
    return VexaVirtualization::json::ToText(domain_xml::ToJson(*pending));
  }
  Result<void, Refusal> Edit(const std::string& edit) { return control_->Edit(kGuest, Parsed(edit), kAlice); }
};

TEST_F(GuestLive, Edit_MoreProcessors_RunningGuestAndReservationHaveThem) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  test::ClearCapturedSyslog();
  EXPECT_DONE(Edit(R"({"vcpu_num":2})"));
  EXPECT_EQ(Pending(), "[]");
  ASSERT_TRUE(RunOf());
  EXPECT_EQ(RunOf()->vcpus, 2U);
  EXPECT_TRUE(test::SyslogContains("Changed 'vcpu_num' of the running guest " + std::string(kGuest) + "."));
}

TEST_F(GuestLive, Edit_MoreProcessorsThanMachineHasRoomFor_Waits) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  test::ClearCapturedSyslog();
  EXPECT_DONE(Edit(R"({"vcpu_num":512})"));
  EXPECT_EQ(Pending(), R"([{"property":"vcpu_num","recorded":512,"running":1}])");
  EXPECT_EQ(RunOf()->vcpus, 1U);
  EXPECT_TRUE(test::SyslogContains("The change of 'vcpu_num' of the running guest " + std::string(kGuest) +
                                   " waits for its next start: the guest was started with room for"));
}

TEST_F(GuestLive, Edit_OtherGuestsHaveProcessors_Waits) {
  GuestControlOptions options = Options();
  options.vcpus_per_cpu = 1;
  const auto cpus = std::thread::hardware_concurrency();
  if (cpus > 1) PutGuest(kOther, "web-2", Parsed(R"({"vcpu_num":)" + std::to_string(cpus - 1) + "}"));
  Start(std::move(options));
  ASSERT_TRUE(control_->PowerOn(kGuest, kAlice).ok());
  if (cpus > 1) {
    ASSERT_TRUE(control_->PowerOn(kOther, kAlice).ok());
  }
  test::ClearCapturedSyslog();
  EXPECT_DONE(Edit(R"({"vcpu_num":2})"));
  EXPECT_EQ(Pending(), R"([{"property":"vcpu_num","recorded":2,"running":1}])");
  EXPECT_EQ(RunOf()->vcpus, 1U);
  EXPECT_TRUE(test::SyslogContains("waits for its next start: The host has room for " + std::to_string(cpus) +
                                   " virtual CPUs, and other guests have " + std::to_string(cpus - 1)));
}

TEST_F(GuestLive, Edit_DeviceThatDriverCannotAdd_WaitsWithReason) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  test::ClearCapturedSyslog();
  EXPECT_DONE(Edit(R"({"vnics_add":[{"network_id":"","mac":"02:00:5e:10:00:01"}]})"));
  const auto pending = control_->Pending(kGuest);
  ASSERT_TRUE(pending.ok());
  ASSERT_EQ(pending->size(), 1U);
  EXPECT_EQ(pending->front().recorded["mac"], "02:00:5e:10:00:01");
  EXPECT_TRUE(pending->front().running.isNull());
  EXPECT_TRUE(test::SyslogContains("of the running guest " + std::string(kGuest) +
                                   " waits for its next start: Cannot add the device to the guest"));
  // It has the interface from its next start on.
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_EQ(Pending(), "[]") << "it has no machine";
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(Pending(), "[]");
}

TEST_F(GuestLive, Edit_ApplyNow_RefusesBeforeAnythingIsStored) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  const auto before = StoredGuest();
  EXPECT_REFUSED(
      Edit(R"({"apply":"now","vcpu_num":2,"vram_size":65,"video_card":"qxl"})"), 901,
      "Not everything can be applied while the guest runs: vram_size (the guest was started without room for "
      "more memory); video_card (it is part of the machine that a start makes)");
  EXPECT_EQ(StoredGuest(), before);
  EXPECT_EQ(RunOf()->vcpus, 1U);
  EXPECT_DONE(Edit(R"({"apply":"now","vcpu_num":2,"desc":"two"})"));
  EXPECT_EQ(Pending(), "[]");
  EXPECT_EQ(RunOf()->vcpus, 2U);
}

TEST_F(GuestLive, Edit_ApplyAtNextStart_LeavesMachineUntilApplied) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  EXPECT_DONE(Edit(R"({"apply":"next_start","vcpu_num":2})"));
  EXPECT_EQ(Pending(), R"([{"property":"vcpu_num","recorded":2,"running":1}])");
  // An edit applies what it changes, and nothing else.
  EXPECT_DONE(Edit(R"({"vram_size":128})"));
  EXPECT_EQ(RunOf()->vcpus, 1U);
  EXPECT_DONE(control_->Apply(kGuest, *control_->Pending(kGuest), hypervisor::Eject::kIfUnlocked, kAlice));
  EXPECT_EQ(RunOf()->vcpus, 1U) << "all that waits is excepted";
  EXPECT_DONE(control_->Apply(kGuest, {}, hypervisor::Eject::kIfUnlocked, kAlice));
  EXPECT_EQ(RunOf()->vcpus, 2U);
}

TEST_F(GuestLive, Edit_HostStops_WaitsForNextStart) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  test::ClearCapturedSyslog();
  control_->BeginStop();
  EXPECT_DONE(Edit(R"({"vcpu_num":2})"));
  EXPECT_EQ(Pending(), R"([{"property":"vcpu_num","recorded":2,"running":1}])");
  EXPECT_TRUE(test::SyslogContains("waits for its next start: this host is stopping"));
}

TEST_F(GuestLive, Apply_GuestOff_Is911) {
  Start();
  EXPECT_REFUSED(control_->Apply(kGuest, {}, hypervisor::Eject::kIfUnlocked, kAlice), 911, "The guest does not run");
  EXPECT_REFUSED(control_->Apply(kOther, {}, hypervisor::Eject::kIfUnlocked, kAlice), 403, "");
  EXPECT_EQ(Pending(), "[]");
}

// The file of a disk that was removed from the guest kOther, which a user runs with `disk`.
class FileOfRemovedDisk : public GuestLive {
 protected:
  void StartWithShortInterval() {
    GuestControlOptions options = Options();
    options.maintenance_interval = 20ms;
    Start(std::move(options));
  }
  void LeaveFile() {
    std::ofstream(path_) << "data";
    ASSERT_TRUE(host_.store().Commit({{}, {{LeftoverKey(HostId(), kOther), SerializeLeftover({path_}, "")}}}));
  }
  void RunWithDisk(const std::string& disk) {
    StartWithShortInterval();
    ASSERT_TRUE(test::DefineAsUser("<domain type='test'><name>theirs</name><uuid>" + std::string(kOther) +
                                   "</uuid><memory>65536</memory><vcpu>1</vcpu><os><type>hvm</type></os><devices>"
                                   "<disk type='file' device='disk'>" +
                                   disk + "<target dev='vda' bus='virtio'/></disk></devices></domain>"));
    ASSERT_TRUE(test::StartAsUser(kOther));
    LeaveFile();
  }
  bool IsRemovedWithin(std::chrono::milliseconds time) const {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::filesystem::exists(path_) && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
    return !std::filesystem::exists(path_);
  }
  void ExpectKeptUntilOff() {
    EXPECT_FALSE(IsRemovedWithin(300ms)) << "the machine has it open";
    ASSERT_TRUE(test::DestroyAsUser(kOther));
    EXPECT_TRUE(IsRemovedWithin(30s));
  }

  const std::string folder_ = host_.folder().path();
  const std::string path_ = folder_ + "/removed.qcow2";
};

TEST_F(FileOfRemovedDisk, MachineNamesIt_IsKeptUntilOff) {
  ASSERT_NO_FATAL_FAILURE(RunWithDisk("<source file='" + path_ + "'/>"));
  ExpectKeptUntilOff();
}

TEST_F(FileOfRemovedDisk, MachineSpellsPathInAnotherWay_IsKeptUntilOff) {
  ASSERT_NO_FATAL_FAILURE(RunWithDisk("<source file='" + folder_ + "//./removed.qcow2'/>"));
  ExpectKeptUntilOff();
}

TEST_F(FileOfRemovedDisk, MachineNamesItAsBackingFile_IsKeptUntilOff) {
  ASSERT_NO_FATAL_FAILURE(
      RunWithDisk("<source file='/srv/top.qcow2'/><backingStore type='file'><format type='qcow2'/>"
                  "<source file='" +
                  path_ + "'/></backingStore>"));
  ExpectKeptUntilOff();
}

TEST_F(FileOfRemovedDisk, MachineHasOtherFiles_IsRemoved) {
  ASSERT_NO_FATAL_FAILURE(RunWithDisk("<source file='" + folder_ + "/other.qcow2'/>"));
  EXPECT_TRUE(IsRemovedWithin(30s));
}

TEST_F(FileOfRemovedDisk, MachinesCannotBeRead_IsKeptUntilTheyCan) {
  ASSERT_NO_FATAL_FAILURE(StartWithShortInterval());
  {
    // As with an address that libvirt does not understand.
    const test::FailingConnects failing({VIR_ERR_INVALID_ARG, "unknown driver"});
    test::CloseLastConnection();
    LeaveFile();
    EXPECT_FALSE(IsRemovedWithin(300ms));
  }
  EXPECT_TRUE(IsRemovedWithin(30s));
}

TEST_F(GuestLive, Pending_DefinitionCannotBeMade_ReportsReason) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  PutGuest(kGuest, "web-1", Parsed(R"({"video_card":"unheard of"})"));
  EXPECT_THAT(Pending(), HasSubstr("901 The video card 'unheard of' is unknown"));
  // That it cannot be compared does not keep it from being edited.
  EXPECT_DONE(Edit(R"({"vcpu_num":2})"));
}

TEST_F(GuestLive, Pending_MachineCannotBeRead_ReportsReason) {
  ASSERT_NO_FATAL_FAILURE(StartRunning());
  test::FakeXml("<network/>");
  const std::string pending = Pending();
  test::FakeXml("");
  EXPECT_THAT(pending, testing::StartsWith("901 "));
}

}  // namespace
}  // namespace vexa::guests
