// Single members of records, and what they become.
#include "tests/support/matchers.h"
#include "tests/unit/domain_xml/domain_build_fixture.h"

#include "tests/unit/domain_xml/domain_xml_fixture.h"

namespace vexa::domain_xml {
namespace {

constexpr const char* kDiskId = "22222222-2222-4333-8444-555555555555";
constexpr const char* kNicId = "33333333-2222-4333-8444-555555555555";

std::string BuildWith(const char* member, const Json::Value& value) {
  GuestRecords records = SmallGuest();
  records.guest[member] = value;
  return MustBuild(records);
}

BuildOptions WithoutKvm() {
  BuildOptions options;
  options.domain_type = "qemu";
  return options;
}

Json::Value List(std::initializer_list<const char*> entries) {
  Json::Value list(Json::arrayValue);
  for (const char* entry : entries) list.append(entry);
  return list;
}

TEST(DomainBuild, SmallGuest_HasDefaults) {
  const std::string xml = MustBuild(SmallGuest());
  constexpr std::pair<const char*, const char*> kDefaults[] = {
      {"/domain/@type", "kvm"},
      {"/domain/name", "guest"},
      {"/domain/uuid", "11111111-2222-4333-8444-555555555555"},
      {"/domain/memory", "512"},
      {"/domain/memory/@unit", "MiB"},
      {"/domain/vcpu", "2"},
      {"/domain/cputune/shares", "256"},
      {"/domain/os/type/@machine", "q35"},
      {"/domain/os/@firmware", ""},
      {"/domain/cpu/@mode", "custom"},
      {"/domain/devices/video/model/@type", "cirrus"},
      {"/domain/devices/channel/target/@name", "org.qemu.guest_agent.0"},
      {"/domain/devices/console/target/@type", "serial"},
  };
  for (const auto& [path, value] : kDefaults) EXPECT_EQ(At(xml, path), value) << path;
  EXPECT_EQ(CountAt(xml, "//disk"), 0u);
  EXPECT_EQ(CountAt(xml, "//interface"), 0u);
}

TEST(DomainBuild, Build_SameRecords_IsSameText) { EXPECT_EQ(MustBuild(SmallGuest()), MustBuild(SmallGuest())); }

TEST(DomainBuild, CpuPassthru_EachDomainType_IsBuiltForIt) {
  GuestRecords records = SmallGuest();
  records.guest["cpu_passthru"] = true;
  EXPECT_EQ(At(MustBuild(records), "/domain/cpu/@mode"), "host-passthrough");
  EXPECT_EQ(At(MustBuild(records, WithoutKvm()), "/domain/cpu/@mode"), "maximum");
}

TEST(DomainBuild, Hyperv_WithoutKvm_IsOmitted) {
  GuestRecords records = SmallGuest();
  records.guest["hyperv_enlighten"] = true;
  EXPECT_EQ(At(MustBuild(records), "//hyperv/relaxed/@state"), "on");
  EXPECT_EQ(CountAt(MustBuild(records, WithoutKvm()), "//hyperv"), 0u);
  records.guest["hyperv_enlighten"] = false;
  EXPECT_EQ(At(MustBuild(records), "//hyperv/relaxed/@state"), "off");
}

TEST(DomainBuild, CpuShares_WithoutCgroups_AreOmitted) {
  BuildOptions options;
  for (const CpuShares missing : {CpuShares::kOmitted, CpuShares::kNoController}) {
    options.cpu_shares = missing;
    EXPECT_EQ(CountAt(MustBuild(SmallGuest(), options), "//cputune"), 0u);
  }
}

TEST(DomainBuild, PinnedCpus_Built_PinFirstVirtualCpus) {
  GuestRecords records = SmallGuest();
  records.guest["cpu_pin_num"] = 1;
  BuildOptions options;
  options.pinned_cpus = {6, 7};
  const std::string xml = MustBuild(records, options);
  EXPECT_EQ(CountAt(xml, "//vcpupin"), 1u);
  EXPECT_EQ(At(xml, "//vcpupin[@vcpu='0']/@cpuset"), "6");
}

TEST(DomainBuild, SharedCpus_AreTheGuestsExceptForItsPins) {
  GuestRecords records = SmallGuest();
  records.guest["cpu_pin_num"] = 1;
  BuildOptions options;
  EXPECT_EQ(CountAt(MustBuild(records, options), "/domain/vcpu/@cpuset"), 0u);
  options.pinned_cpus = {7};
  options.shared_cpus = {0, 1, 2, 4};
  const std::string xml = MustBuild(records, options);
  EXPECT_EQ(At(xml, "/domain/vcpu/@cpuset"), "0-2,4");
  EXPECT_EQ(At(xml, "//vcpupin[@vcpu='0']/@cpuset"), "7");
}

TEST(DomainBuild, CpuWeight_AboveTheHostsMost_IsTheMost) {
  GuestRecords records = SmallGuest();
  records.guest["cpu_weight"] = 262144;
  BuildOptions options;
  options.max_cpu_weight = 10000;
  EXPECT_EQ(At(MustBuild(records, options), "/domain/cputune/shares"), "10000");
  records.guest["cpu_weight"] = 300;
  EXPECT_EQ(At(MustBuild(records, options), "/domain/cputune/shares"), "300");
}

TEST(DomainBuild, KeyboardLayout_QemuLacksIt_IsLeftOut) {
  GuestRecords records = SmallGuest();
  records.guest["kb_layout"] = "de";
  BuildOptions options;
  EXPECT_EQ(At(MustBuild(records, options), "//graphics/@keymap"), "de");
  options.keymaps = {"de", "en-us"};
  EXPECT_EQ(At(MustBuild(records, options), "//graphics/@keymap"), "de");
  options.keymaps = {"en-us"};
  EXPECT_EQ(CountAt(MustBuild(records, options), "//graphics/@keymap"), 0u);
}

TEST(DomainBuild, Ovmf_IsFirmwareEfiWithoutSecureBoot) {
  const std::string xml = BuildWith("use_ovmf", true);
  EXPECT_EQ(At(xml, "/domain/os/@firmware"), "efi");
  EXPECT_EQ(At(xml, "/domain/os/firmware/feature[@name='secure-boot']/@enabled"), "no");
}

TEST(DomainBuild, Variables_AreInTheFileOfTheRecord) {
  GuestRecords records = SmallGuest();
  records.guest["nvram"] = "/vars/guest.fd";
  EXPECT_EQ(CountAt(MustBuild(records), "//nvram"), 0u);
  records.guest["use_ovmf"] = true;
  for (const char* type : {"kvm", "qemu", "test"}) {
    BuildOptions options;
    options.domain_type = type;
    EXPECT_EQ(At(MustBuild(records, options), "/domain/os/nvram"), "/vars/guest.fd");
  }
}

TEST(DomainBuild, Mark_IdentifiesDefiningHost) {
  EXPECT_EQ(CountAt(MustBuild(SmallGuest()), "/domain/metadata"), 0u);
  BuildOptions options;
  options.host_id = "a'<b";
  const std::string xml = MustBuild(SmallGuest(), options);
  EXPECT_EQ(At(xml, "/domain/metadata/*[local-name()='guest']/@host"), "a'<b");
  EXPECT_THAT(xml, HasSubstr("<vexa:guest xmlns:vexa=\"urn:vexa:guest:1\" host=\""));
  EXPECT_EQ(CountAt(xml, "/domain/metadata/*/@kept"), 0u);
}

TEST(DomainBuild, TestType_Built_HasNoMachineType) {
  BuildOptions options;
  options.domain_type = "test";
  EXPECT_EQ(At(MustBuild(SmallGuest(), options), "/domain/os/type/@machine"), "");
}

struct BusRow {
  int mode;
  const char* bus;
  const char* target;
  const char* machine;
};
class DiskBus : public ::testing::TestWithParam<BusRow> {};

TEST_P(DiskBus, Bus_OfEachMode_IsBuilt) {
  GuestRecords records = SmallGuest();
  records.disks.emplace_back(kDiskId, DiskRecord("no_target", GetParam().mode));
  const std::string xml = MustBuild(records);
  EXPECT_EQ(At(xml, "//disk/target/@bus"), GetParam().bus);
  EXPECT_EQ(At(xml, "//disk/target/@dev"), GetParam().target);
  EXPECT_EQ(At(xml, "/domain/os/type/@machine"), GetParam().machine);
}

INSTANTIATE_TEST_SUITE_P(Modes, DiskBus,
                         ::testing::Values(BusRow{1, "virtio", "vda", "q35"}, BusRow{2, "ide", "hda", "pc"},
                                           BusRow{3, "sata", "sda", "q35"}, BusRow{4, "scsi", "sda", "q35"}),
                         [](const auto& row) { return std::string(row.param.bus); });

TEST(DomainBuildDisk, Target_FitsBus_IsKept) {
  GuestRecords records = SmallGuest();
  records.disks.emplace_back("a", DiskRecord("vda", 3));  // another bus since it was recorded
  records.disks.emplace_back("b", DiskRecord("sda", 3));
  records.disks.emplace_back("c", DiskRecord("sda", 4));  // taken
  records.disks.emplace_back("d", DiskRecord("vdc", 1));
  const std::string xml = MustBuild(records);
  EXPECT_EQ(At(xml, "//disk[1]/target/@dev"), "sdb");
  EXPECT_EQ(At(xml, "//disk[2]/target/@dev"), "sda");
  EXPECT_EQ(At(xml, "//disk[3]/target/@dev"), "sdc");
  EXPECT_EQ(At(xml, "//disk[4]/target/@dev"), "vdc");
}

TEST(DomainBuildDisk, SixtyFour_Disks_HaveUniqueTargetsAndControllers) {
  GuestRecords records = SmallGuest();
  for (int i = 0; i < 64; ++i) records.disks.emplace_back(std::to_string(i), DiskRecord("", 4));
  for (auto& [id, disk] : records.disks) disk["path"] = "/images/x";
  const std::string xml = MustBuild(records);
  EXPECT_EQ(At(xml, "//disk[26]/target/@dev"), "sdz");
  EXPECT_EQ(At(xml, "//disk[27]/target/@dev"), "sdaa");
  EXPECT_EQ(At(xml, "//disk[64]/target/@dev"), "sdbl");
  EXPECT_EQ(CountAt(xml, "//controller[@type='scsi'][@model='virtio-scsi']"), 10u);
  records.disks.emplace_back("64", DiskRecord("", 4));
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr("more than 64 disks"));
}

TEST(DomainBuildDisk, Format_ComesFromTheDriverOrTheType) {
  GuestRecords records = SmallGuest();
  records.disks.emplace_back(kDiskId, DiskRecord("vda", 1));
  Json::Value& disk = records.disks[0].second;
  EXPECT_EQ(At(MustBuild(records), "//disk/driver/@type"), "qcow2");
  disk["driver"] = "raw";
  EXPECT_EQ(At(MustBuild(records), "//disk/driver/@type"), "raw");
  disk.removeMember("driver");
  EXPECT_EQ(At(MustBuild(records), "//disk/driver/@type"), "raw");
  disk["type"] = 2;
  EXPECT_EQ(At(MustBuild(records), "//disk/driver/@type"), "qcow2");
  disk["driver"] = "vmdk";
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr("'vmdk'"));
}

TEST(DomainBuildDisk, Unmap_IsDiscard) {
  GuestRecords records = SmallGuest();
  records.disks.emplace_back(kDiskId, DiskRecord("vda", 1));
  EXPECT_EQ(At(MustBuild(records), "//disk/driver/@discard"), "");
  records.disks[0].second["unmap"] = true;
  EXPECT_EQ(At(MustBuild(records), "//disk/driver/@discard"), "unmap");
}

TEST(DomainBuildDisk, PathBelowDev_Disk_IsBlockDevice) {
  GuestRecords records = SmallGuest();
  records.disks.emplace_back(kDiskId, DiskRecord("vda", 1));
  records.disks[0].second["path"] = "/dev/pool/disk";
  const std::string xml = MustBuild(records);
  EXPECT_EQ(At(xml, "//disk/@type"), "block");
  EXPECT_EQ(At(xml, "//disk/source/@dev"), "/dev/pool/disk");
}

TEST(DomainBuildDisk, BadPath_IsRefused) {
  for (const char* path : {"", "image", "/images/../etc/shadow", "/images/..", "/a\nb", "/a\xEF\xBF\xBE"}) {
    GuestRecords records = SmallGuest();
    records.disks.emplace_back(kDiskId, DiskRecord("vda", 1));
    records.disks[0].second["path"] = path;
    EXPECT_THAT(BuildRefusalOf(records), HasSubstr("absolute path")) << path;
  }
  GuestRecords records = SmallGuest();
  records.disks.emplace_back(kDiskId, DiskRecord("vda", 1));
  records.disks[0].second["path"] = std::string("/a\0b", 4);
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr("absolute path"));
}

TEST(DomainBuildDisk, FiveDisks_OnIde_AreRefused) {
  GuestRecords records = SmallGuest();
  for (int i = 0; i < 5; ++i) records.disks.emplace_back(std::to_string(i), DiskRecord("hda", 2));
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr("four disks on IDE"));
}

TEST(DomainBuildBoot, BootFromIso_Drives_ComeFirst) {
  GuestRecords records = SmallGuest();
  records.disks.emplace_back(kDiskId, DiskRecord("vda", 1));
  records.guest["iso_images"] = List({"/iso/install.iso", "unmounted"});
  std::string xml = MustBuild(records);
  EXPECT_EQ(At(xml, "//disk[@device='disk']/boot/@order"), "1");
  EXPECT_EQ(At(xml, "//disk[@device='cdrom'][1]/boot/@order"), "2");
  records.guest["boot_from"] = "iso";
  xml = MustBuild(records);
  EXPECT_EQ(At(xml, "//disk[@device='cdrom'][1]/boot/@order"), "1");
  EXPECT_EQ(At(xml, "//disk[@device='cdrom'][2]/boot/@order"), "2");
  EXPECT_EQ(At(xml, "//disk[@device='disk']/boot/@order"), "3");
  EXPECT_EQ(At(xml, "//disk[@device='cdrom'][1]/source/@file"), "/iso/install.iso");
  EXPECT_EQ(CountAt(xml, "//disk[@device='cdrom'][2]/source"), 0u);
  records.guest["boot_from"] = "ISO";
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr("'disk' or 'iso'"));
}

TEST(DomainBuildDrives, Drives_OldMachineType_AreOnIdeWhileThereIsRoom) {
  GuestRecords records = SmallGuest();
  records.disks.emplace_back("a", DiskRecord("hda", 2));
  records.guest["iso_images"] = List({"unmounted", "unmounted"});
  EXPECT_EQ(CountAt(MustBuild(records), "//disk[@device='cdrom']/target[@bus='ide']"), 2u);
  records.disks.emplace_back("b", DiskRecord("hdb", 2));
  records.disks.emplace_back("c", DiskRecord("hdc", 2));
  EXPECT_EQ(CountAt(MustBuild(records), "//disk[@device='cdrom']/target[@bus='sata']"), 2u);
}

TEST(DomainBuildDrives, ImageIds_AreLookedUp) {
  GuestRecords records = SmallGuest();
  records.guest["iso_images"] = List({"44444444-2222-4333-8444-555555555555"});
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr("absolute path"));
  BuildOptions options;
  options.image_path = [](const std::string& image) -> Result<std::string> { return "/iso/" + image; };
  EXPECT_EQ(At(MustBuild(records, options), "//disk/source/@file"), "/iso/44444444-2222-4333-8444-555555555555");
  options.image_path = [](const std::string&) -> Result<std::string> { return Error(ErrorCode::kNotFound, "none"); };
  const Result<std::string> failed = BuildDomainXml(records, options);
  ASSERT_FALSE(failed.ok());
  EXPECT_EQ(failed.error().code(), ErrorCode::kNotFound);
}

TEST(DomainBuildNic, Source_EachKind_IsBridgeNetworkOrNone) {
  GuestRecords records = SmallGuest();
  records.nics.emplace_back("a", NicRecord("52:54:00:00:00:01", "br0"));
  records.nics.emplace_back("b", NicRecord("52:54:00:00:00:02", "default"));
  records.nics.emplace_back("c", NicRecord("52:54:00:00:00:03", ""));
  BuildOptions options;
  options.libvirt_networks = {"default"};
  const std::string xml = MustBuild(records, options);
  EXPECT_EQ(At(xml, "//interface[1]/@type"), "bridge");
  EXPECT_EQ(At(xml, "//interface[1]/source/@bridge"), "br0");
  EXPECT_EQ(At(xml, "//interface[2]/@type"), "network");
  EXPECT_EQ(At(xml, "//interface[2]/source/@network"), "default");
  EXPECT_EQ(At(xml, "//interface[3]/link/@state"), "down");
  EXPECT_EQ(CountAt(xml, "//interface[3]/source"), 0u);
}

TEST(DomainBuildNic, Model_EachType_IsMapped) {
  const std::pair<int, const char*> kRows[] = {{1, "virtio"}, {2, "e1000"}, {3, "rtl8139"}};
  for (const auto& [type, model] : kRows) {
    GuestRecords records = SmallGuest();
    records.nics.emplace_back(kNicId, NicRecord("52:54:00:00:00:01", "br0"));
    records.nics[0].second["vnic_type"] = type;
    EXPECT_EQ(At(MustBuild(records), "//interface/model/@type"), model);
  }
}

TEST(DomainBuildNic, Bridge_OfVirtualSwitch_HasVirtualPort) {
  GuestRecords records = SmallGuest();
  records.nics.emplace_back(kNicId, NicRecord("52:54:00:00:00:01", "lan"));
  EXPECT_EQ(CountAt(MustBuild(records), "//interface/virtualport"), 0u);
  BuildOptions options;
  options.switch_bridges = {"lan"};
  EXPECT_EQ(At(MustBuild(records, options), "//interface/virtualport/@type"), "openvswitch");
}

TEST(DomainBuildNic, BadValues_AreRefused) {
  const auto refusal = [](const char* member, const Json::Value& value) {
    GuestRecords records = SmallGuest();
    records.nics.emplace_back(kNicId, NicRecord("52:54:00:00:00:01", "br0"));
    records.nics[0].second[member] = value;
    return BuildRefusalOf(records);
  };
  EXPECT_THAT(refusal("mac_address", "53:54:00:00:00:01"), HasSubstr("unicast"));
  EXPECT_THAT(refusal("mac_address", Json::nullValue), HasSubstr("unicast"));
  EXPECT_THAT(refusal("vnic_type", 4), HasSubstr("from 1 to 3"));
  EXPECT_THAT(refusal("network_name", "sixteen-bytes-ab"), HasSubstr("15 bytes"));
  EXPECT_THAT(refusal("network_name", "a b"), HasSubstr("15 bytes"));
  EXPECT_THAT(refusal("network_name", "../x"), HasSubstr("15 bytes"));
  GuestRecords records = SmallGuest();
  for (const char* id : {"a", "b"}) records.nics.emplace_back(id, NicRecord("52:54:00:00:00:01", "br0"));
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr("Two network interfaces"));
}

TEST(DomainBuildUsb, UsbVersion_Each_SelectsController) {
  const std::pair<int, const char*> kRows[] = {{0, "none"}, {1, "piix3-uhci"}, {2, "ich9-ehci1"}, {3, "qemu-xhci"}};
  for (const auto& [version, model] : kRows) {
    const std::string xml = BuildWith("usb_version", version);
    EXPECT_EQ(At(xml, "//controller[@type='usb'][1]/@model"), model);
    EXPECT_EQ(CountAt(xml, "//input[@bus='usb']"), version == 0 ? 0u : 1u);
    EXPECT_EQ(MustParse(xml).guest["usb_version"], version);
  }
}

TEST(DomainBuildUsb, UsbDevices_Listed_ArePassedThrough) {
  const std::string xml = BuildWith("usbs", List({"1234:00ab", "unmounted", "3.14", "unmounted"}));
  EXPECT_EQ(At(xml, "//hostdev[1]/source/vendor/@id"), "0x1234");
  EXPECT_EQ(At(xml, "//hostdev[1]/source/product/@id"), "0x00ab");
  EXPECT_EQ(At(xml, "//hostdev[2]/source/address/@bus"), "3");
  EXPECT_EQ(At(xml, "//hostdev[2]/source/address/@device"), "14");
  for (const char* bad : {"1234", "1234:", "x:1", "0.1", "1.256", "1234:12345", "1.2'/><evil/>"}) {
    GuestRecords records = SmallGuest();
    records.guest["usbs"] = List({bad});
    EXPECT_THAT(BuildRefusalOf(records), HasSubstr("cannot be passed through")) << bad;
  }
}

TEST(DomainBuildUsb, UsbDevices_NoUsbController_AreOmitted) {
  GuestRecords records = SmallGuest();
  records.guest["usbs"] = List({"1234:00ab", "unmounted"});
  BuildOptions options;
  options.usb_bus = UsbBus::kAbsent;
  const std::string xml = MustBuild(records, options);
  EXPECT_EQ(CountAt(xml, "//hostdev"), 0u);
  EXPECT_EQ(CountAt(xml, "//controller[@type='usb']"), 4u);
}

// A part of the message for a bad member of the guest's record.
struct GuestRow {
  const char* member;
  Json::Value value;
  const char* sentence;
};
void PrintTo(const GuestRow& row, std::ostream* out) { *out << row.member << " " << row.value.toStyledString(); }
class BadMember : public ::testing::TestWithParam<GuestRow> {};

TEST_P(BadMember, Guest_BadMember_IsRefused) {
  GuestRecords records = SmallGuest();
  records.guest[GetParam().member] = GetParam().value;
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr(GetParam().sentence));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BadMember,
    ::testing::Values(
        GuestRow{"vram_size", 0, "from 1 to 2097151"}, GuestRow{"vram_size", Json::nullValue, "no 'vram_size'"},
        GuestRow{"vram_size", 2'097'152, "from 1 to"}, GuestRow{"vram_size", "512", "from 1 to"},
        GuestRow{"vram_size", 1e30, "from 1 to"}, GuestRow{"vcpu_num", 0, "from 1 to 512"},
        GuestRow{"vcpu_num", 513, "from 1 to 512"}, GuestRow{"vcpu_num", -1, "from 1 to 512"},
        GuestRow{"cpu_weight", 1, "from 2 to"}, GuestRow{"cpu_pin_num", 3, "from 0 to 2"},
        GuestRow{"usb_version", 4, "from 0 to 3"}, GuestRow{"video_card", "vga'/><evil/>", "is unknown"},
        GuestRow{"kb_layout", "de'/><evil/>", "name of a keyboard layout"}, GuestRow{"name", 5, "is not a string"},
        GuestRow{"usbs", "3.14", "not a list"}, GuestRow{"iso_images", "x", "not a list"},
        GuestRow{"nvram", "", "absolute path"}, GuestRow{"nvram", "vars.fd", "absolute path"},
        GuestRow{"nvram", "/a/../b", "absolute path"}, GuestRow{"nvram", "/a\nb", "absolute path"},
        GuestRow{"nvram", Json::arrayValue, "is not a string"}, GuestRow{"boot_from", 1, "is not a string"},
        GuestRow{"desc", Json::arrayValue, "is not a string"}));

// Nothing that a record holds can end an attribute or an element.
TEST(DomainBuildHostile, Build_MarkupInTexts_IsEscaped) {
  const std::string hostile[] = {
      "</name><evil/><name>", "\"'><evil/>", "&evil;", "]]><evil/>", "<!--", "<![CDATA[", "<?evil ?>", "%s%n", "&#0;",
      "&lt;evil/&gt;"};
  for (const std::string& text : hostile) {
    GuestRecords records = SmallGuest();
    records.guest["name"] = text;
    records.guest["desc"] = text;
    records.disks.emplace_back(kDiskId, DiskRecord("vda", 1));
    records.disks[0].second["path"] = "/images/" + text;
    records.disks[0].second["name"] = text;
    records.guest["iso_images"].append("/iso/" + text);
    records.nics.emplace_back(kNicId, NicRecord("52:54:00:00:00:01", text));
    BuildOptions options;
    options.libvirt_networks = {text};
    const std::string xml = MustBuild(records, options);
    EXPECT_EQ(CountAt(xml, "//evil"), 0u) << xml;
    EXPECT_EQ(CountAt(xml, "/domain/devices/disk"), 2u);
    const bool plain = text.find('/') == std::string::npos;
    EXPECT_EQ(At(xml, "/domain/name"), plain ? text : records.id);
    // The strict reader takes it and finds the same texts.
    const ImportedGuest imported = MustParse(xml);
    EXPECT_EQ(imported.guest["desc"].asString(), text);
    ASSERT_EQ(imported.disks.size(), 1u);
    EXPECT_EQ(imported.disks[0].second["path"].asString(), "/images/" + text);
    ASSERT_EQ(imported.nics.size(), 1u);
    EXPECT_EQ(imported.nics[0].second["network_name"].asString(), text);
    EXPECT_EQ(imported.guest["iso_images"][0].asString(), "/iso/" + text);
  }
}

TEST(DomainBuildHostile, Build_CharactersInvalidInXml_AreReplaced) {
  GuestRecords records = SmallGuest();
  records.guest["desc"] = std::string(
      "a\0b\x01"
      "c\xFF"
      "d\xEF\xBF\xBF"
      "e\xED\xA0\x80"
      "f\xC3\xA4\n\t",
      19);
  EXPECT_EQ(At(MustBuild(records), "/domain/description"), "a?b?c?d?e???f\xC3\xA4\n\t");
}

TEST(DomainBuildHostile, Build_NameInvalidForLibvirt_UsesIdInstead) {
  for (const char* name : {"", ".", "..", "a/b", "a\nb", " a", "a ", "\xFF", "a\xEF\xBF\xBE"}) {
    GuestRecords records = SmallGuest();
    records.guest["name"] = name;
    EXPECT_EQ(At(MustBuild(records), "/domain/name"), records.id) << name;
  }
  GuestRecords records = SmallGuest();
  records.guest["name"] = std::string(129, 'a');
  EXPECT_EQ(At(MustBuild(records), "/domain/name"), records.id);
  records.guest["name"] = std::string(128, 'a');
  EXPECT_EQ(At(MustBuild(records), "/domain/name"), std::string(128, 'a'));
}

TEST(DomainBuildHostile, Build_WrongTypes_AreRefusedOrDefaulted) {
  GuestRecords records;
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr("not a UUID"));  // the id is empty
  records = SmallGuest();
  records.guest = Json::Value("text");
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr("is not an object"));
  records = SmallGuest();
  records.disks.emplace_back(kDiskId, Json::Value(Json::arrayValue));
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr("absolute path"));
  records = SmallGuest();
  records.nics.emplace_back(kNicId, Json::Value(5));
  EXPECT_THAT(BuildRefusalOf(records), HasSubstr("unicast"));
  BuildOptions options;
  options.domain_type = "xen'/>";
  EXPECT_THAT(BuildRefusalOf(SmallGuest(), options), HasSubstr("'kvm', 'qemu' or 'test'"));
}

}  // namespace
}  // namespace vexa::domain_xml
