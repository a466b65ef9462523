// Elements that change a running machine.
#include "host/domain_xml/domain_devices.h"

#include <gtest/gtest.h>

#include "tests/unit/domain_xml/domain_build_fixture.h"

namespace vexa::domain_xml {
namespace {

constexpr char kRunning[] =
    "<domain type='kvm' id='4'><maxMemory slots='16' unit='KiB'>2097152</maxMemory><vcpu current='2'>8</vcpu><devices>"
    "<disk type='file' device='disk'><source file='/a' index='2'/><backingStore/><target dev='vda' bus='virtio'/>"
    "<boot order='1'/><alias name='d0'/><address type='pci'/></disk>"
    "<disk type='block' device='disk'><source dev='/dev/b'/><target dev='sda' bus='scsi'/></disk>"
    "<disk type='file' device='cdrom'><target dev='sdb' bus='sata'/><readonly/></disk>"
    "<disk type='block' device='cdrom'><source dev='/dev/sr0'/><target dev='sdc' bus='sata'/><readonly/></disk>"
    "<controller type='scsi' model='virtio-scsi'/><controller type='usb' model='none'/>"
    "<controller type='pci' model='pcie-root'/>"
    "<interface type='bridge'><mac address='52:54:00:AB:CD:EF'/><source bridge='br0'/><target dev='vnet0'/>"
    "<model type='virtio'/><alias name='net0'/><address type='pci'/></interface>"
    "<hostdev mode='subsystem' type='usb'><source><vendor id='0x1234'/><product id='0x00ab'/></source></hostdev>"
    "<hostdev mode='subsystem' type='usb'><source><address bus='3' device='14'/></source></hostdev>"
    "</devices></domain>";

TEST(DomainDevices, Elements_OfRunningMachine_OmitAddressesAndAliases) {
  EXPECT_EQ(DiskElement(kRunning, "/a"),
            R"(<disk type="file" device="disk"><source file="/a" index="2"/><target dev="vda" bus="virtio"/></disk>)");
  EXPECT_EQ(DiskElement(kRunning, "/dev/b"),
            R"(<disk type="block" device="disk"><source dev="/dev/b"/><target dev="sda" bus="scsi"/></disk>)");
  EXPECT_EQ(NicElement(kRunning, "52:54:00:ab:cd:ef"),
            R"(<interface type="bridge"><mac address="52:54:00:AB:CD:EF"/><source bridge="br0"/>)"
            R"(<model type="virtio"/></interface>)");
  EXPECT_NE(UsbElement(kRunning, "1234:00ab"), "");
  EXPECT_NE(UsbElement(kRunning, "3.14"), "");
}

TEST(DomainDevices, DriveElement_OtherMedium_ReplacesSource) {
  EXPECT_EQ(DriveElement(kRunning, 0, "/i&.iso"),
            R"(<disk type="file" device="cdrom"><target dev="sdb" bus="sata"/><readonly/>)"
            R"(<source file="/i&amp;.iso"/></disk>)");
  EXPECT_EQ(DriveElement(kRunning, 1, ""),
            R"(<disk type="file" device="cdrom"><target dev="sdc" bus="sata"/><readonly/></disk>)");
}

TEST(DomainDevices, Elements_OfNoSuchDevice_AreEmpty) {
  for (const char* xml : {kRunning, "<network/>", "", "<domain/>"}) {
    EXPECT_EQ(DiskElement(xml, "/b"), "");
    EXPECT_EQ(NicElement(xml, "52:54:00:ab:cd:00"), "");
    EXPECT_EQ(UsbElement(xml, "4.14"), "");
    EXPECT_EQ(DriveElement(xml, 2, "/c"), "");
  }
}

TEST(DomainDevices, Limits_OfRunningMachine_AreRead) {
  const auto limits = ParseMachineLimits(kRunning);
  ASSERT_TRUE(limits);
  EXPECT_EQ(limits->max_vcpus, 8U);
  EXPECT_EQ(limits->max_memory_mib, 2048U);
  EXPECT_EQ(limits->drives, 2U);
  EXPECT_TRUE(limits->has_scsi);
  EXPECT_FALSE(limits->has_usb);
  EXPECT_FALSE(limits->has_pci_slots);
  EXPECT_FALSE(ParseMachineLimits("<network/>"));
}

TEST(HotPlugLimits, Build_WithLimits_GivesMachineRoom) {
  BuildOptions options;
  options.hot_plug = {8, 2048, 3};
  const std::string xml = MustBuild(SmallGuest(), options);
  EXPECT_EQ(At(xml, "/domain/vcpu"), "8");
  EXPECT_EQ(At(xml, "/domain/vcpu/@current"), "2");
  EXPECT_EQ(At(xml, "/domain/cpu/topology/@cores"), "8");
  EXPECT_EQ(At(xml, "/domain/cpu/numa/cell/@cpus"), "0-7");
  EXPECT_EQ(At(xml, "/domain/cpu/numa/cell/@memory"), "512");
  EXPECT_EQ(At(xml, "/domain/maxMemory"), "2048");
  EXPECT_EQ(At(xml, "/domain/memory"), "512");
  EXPECT_EQ(CountAt(xml, "//controller[@model='pcie-root-port']"), 8U) << "those of its own devices, and three";
}

TEST(HotPlugLimits, Build_LimitsBelowCurrentSize_AddNoRoom) {
  BuildOptions options;
  options.hot_plug = {1, 512, 0};
  EXPECT_EQ(MustBuild(SmallGuest(), options), MustBuild(SmallGuest()));
}

TEST(HotPlugLimits, Import_OwnDefinition_ReadsCurrentNumberOfCpus) {
  BuildOptions options;
  options.hot_plug = {8, 2048, 3};
  for (const auto& [host_id, vcpus] : {std::pair("", 8), std::pair("host-1", 2)}) {
    options.host_id = host_id;
    const auto imported = ParseDomainXml(MustBuild(SmallGuest(), options), ImportOptions());
    ASSERT_TRUE(imported) << imported.error().ToString();
    EXPECT_EQ(imported->guest["vcpu_num"], vcpus);
    EXPECT_EQ(imported->guest["vram_size"], 512);
  }
}

TEST(HotPlugLimits, Build_ImportedGuest_KeepsOwnersMachine) {
  BuildOptions options;
  options.base_xml = MustBuild(SmallGuest());
  GuestRecords records = SmallGuest();
  records.guest["vcpu_num"] = 3;
  records.guest["vram_size"] = 640;
  const std::string before = MustBuild(records, options);
  options.hot_plug = {8, 2048, 3};
  EXPECT_EQ(MustBuild(records, options), before);
}

}  // namespace
}  // namespace vexa::domain_xml
