// The definition of an imported guest: what stays in it, and what an edit changes.

#include <cstdlib>
#include <functional>

#include "host/base/files.h"
#include "host/hypervisor/event_loop.h"
#include "host/hypervisor/handles.h"
#include "tests/support/matchers.h"
#include "tests/unit/domain_xml/domain_overlay_fixture.h"

namespace vexa::domain_xml {
namespace {

const std::string kSource = VEXA_SOURCE_DIR;

std::string Unedited(const std::string& base, const BuildOptions& options) {
  return MustBuild(RecordsOfBase(base), options);
}
std::string Unedited(const std::string& base) { return Unedited(base, Over(base)); }

// The base with one edit of its records.
std::string Edited(const std::function<void(GuestRecords&)>& edit, const std::string& base = Base()) {
  GuestRecords records = RecordsOfBase(base);
  edit(records);
  return MustBuild(records, Over(base));
}

std::string EditedMember(const char* member, const Json::Value& value, const std::string& base = Base()) {
  return Edited([&](GuestRecords& records) { records.guest[member] = value; }, base);
}

Json::Value List(std::initializer_list<const char*> entries) {
  Json::Value list(Json::arrayValue);
  for (const char* entry : entries) list.append(entry);
  return list;
}

// What differs between the base and `xml`, line by line: "-" lines are the base's.
std::string Difference(const std::string& base, const std::string& xml) {
  const auto lines = [](const std::string& text) {
    std::vector<std::string> all;
    std::istringstream stream(Canonical(text));
    for (std::string line; std::getline(stream, line);) all.push_back(line.substr(line.find_first_not_of(' ')));
    return all;
  };
  std::vector<std::string> before = lines(base);
  std::vector<std::string> after = lines(xml);
  for (std::size_t i = 0; i < before.size();) {
    const auto same = std::find(after.begin(), after.end(), before[i]);
    if (same == after.end()) {
      ++i;
      continue;
    }
    after.erase(same);
    before.erase(before.begin() + static_cast<std::ptrdiff_t>(i));
  }
  std::string text;
  for (const std::string& line : before) text += "-" + line + "\n";
  for (const std::string& line : after) text += "+" + line + "\n";
  return text;
}

std::string TestDriverComplaint(const std::string& xml, unsigned flags) {
  EXPECT_TRUE(hypervisor::StartEventLoop().ok());
  const hypervisor::ConnectHandle connection(virConnectOpen("test:///default"));
  if (!connection) return "no connection";
  const hypervisor::DomainHandle domain(virDomainDefineXMLFlags(connection.get(), xml.c_str(), flags));
  if (!domain) return virGetLastErrorMessage();
  virDomainUndefine(domain.get());
  return "";
}

TEST(DomainOverlay, Overlay_NothingEdited_AddsOnlyOwnershipTag) {
  const std::string xml = Unedited(Base());
  EXPECT_EQ(Canonical(xml), Canonical(Base()));
  EXPECT_EQ(At(xml, "/domain/metadata/*[local-name()='guest']/@host"), kOverlayHost);
  EXPECT_EQ(At(xml, "/domain/metadata/*[local-name()='guest']/@kept"), "yes");
  EXPECT_THAT(xml, HasSubstr("<vexa:guest xmlns:vexa=\"urn:vexa:guest:1\" host=\""));
}

TEST(DomainOverlay, Overlay_AppliedToItsResult_IsUnchanged) {
  const std::string once = Unedited(Base());
  EXPECT_EQ(Unedited(once), once);
  EXPECT_EQ(CountAt(once, "/domain/metadata/*[local-name()='guest']"), 1u);
}

TEST(DomainOverlay, OwnershipTag_AnyXmlPrefix_IsReplaced) {
  std::string base = Base();
  const std::string place = "<metadata>";
  base.insert(base.find(place) + place.size(), "<old:guest xmlns:old='urn:vexa:guest:1' host='elsewhere'/>");
  const std::string xml = Unedited(base);
  EXPECT_THAT(xml, ::testing::Not(HasSubstr("elsewhere")));
  EXPECT_EQ(CountAt(xml, "/domain/metadata/*"), 2u);
}

TEST(DomainOverlay, Overlay_BaseWithoutMetadata_AddsIt) {
  EXPECT_EQ(At(Unedited(DomainWith("")), "/domain/metadata/*/@host"), kOverlayHost);
}

class OverlayExample : public ::testing::TestWithParam<const char*> {};

TEST_P(OverlayExample, Overlay_NothingEdited_IsUnchanged) {
  const Result<std::string> base = ReadFile(kSource + "/examples/" + GetParam() + ".xml", kMaxDomainXmlBytes);
  ASSERT_TRUE(base.ok());
  EXPECT_EQ(Canonical(Unedited(*base)), Canonical(*base));
}

INSTANTIATE_TEST_SUITE_P(Files, OverlayExample, ::testing::Values("web-1", "desktop-7", "gateway"),
                         [](const auto& row) { return std::string(row.param).substr(0, 3); });

// Elements that no record has a place for.
struct Persistence {
  const char* name;
  std::string rest;
  std::string devices;
};
void PrintTo(const Persistence& row, std::ostream* out) { *out << row.name; }
class KeptElement : public ::testing::TestWithParam<Persistence> {};

const Persistence kKept[] = {
    {"genid", "<genid>43dc0cf8-809b-4adb-9bea-a9abb5f3d90e</genid>", ""},
    {"memory_backing", "<memoryBacking><hugepages/><locked/></memoryBacking>", ""},
    {"memtune", "<memtune><hard_limit unit='KiB'>2097152</hard_limit></memtune>", ""},
    {"blkiotune", "<blkiotune><weight>500</weight></blkiotune>", ""},
    {"numatune", "<numatune><memory mode='strict' nodeset='0'/></numatune>", ""},
    {"iothreads", "<iothreads>2</iothreads>", ""},
    {"resource", "<resource><partition>/theirs</partition></resource>", ""},
    {"sysinfo", "<sysinfo type='smbios'><bios><entry name='vendor'>x</entry></bios></sysinfo>", ""},
    {"pm", "<pm><suspend-to-mem enabled='no'/></pm>", ""},
    {"perf", "<perf><event name='cmt' enabled='yes'/></perf>", ""},
    {"seclabel", "<seclabel type='static' model='dac' relabel='yes'><label>+0:+0</label></seclabel>", ""},
    {"launch_security", "<launchSecurity type='sev'><policy>0x3</policy></launchSecurity>", ""},
    {"qemu_commandline", "<qemu:commandline><qemu:arg value='-newarg'/></qemu:commandline>", ""},
    {"serial", "", "<serial type='tcp'><source mode='bind' host='127.0.0.1' service='4555'/></serial>"},
    {"parallel", "", "<parallel type='pty'/>"},
    {"console", "", "<console type='pty'><target type='virtio' port='0'/></console>"},
    {"channel", "", "<channel type='spicevmc'><target type='virtio' name='com.redhat.spice.0'/></channel>"},
    {"vnc", "", "<graphics type='vnc' port='5999' autoport='no' listen='0.0.0.0' passwd='x'/>"},
    {"second_video", "", "<video><model type='virtio'/></video>"},
    {"sound", "", "<sound model='ich9'/>"},
    {"audio", "", "<audio id='1' type='none'/>"},
    {"watchdog", "", "<watchdog model='i6300esb' action='reset'/>"},
    {"rng", "", "<rng model='virtio'><backend model='random'>/dev/urandom</backend></rng>"},
    {"tpm", "", "<tpm model='tpm-crb'><backend type='emulator' version='2.0'/></tpm>"},
    {"memballoon", "", "<memballoon model='virtio'><stats period='10'/></memballoon>"},
    {"filesystem", "", "<filesystem type='mount'><source dir='/srv'/><target dir='srv'/></filesystem>"},
    {"smartcard", "", "<smartcard mode='passthrough' type='spicevmc'/>"},
    {"redirdev", "", "<redirdev bus='usb' type='spicevmc'/>"},
    {"panic", "", "<panic model='isa'/>"},
    {"vsock", "", "<vsock model='virtio'><cid auto='no' address='3'/></vsock>"},
    {"shmem", "", "<shmem name='s'><model type='ivshmem-plain'/><size unit='M'>4</size></shmem>"},
    {"pci_hostdev", "",
     "<hostdev mode='subsystem' type='pci' managed='yes'><source><address domain='0' bus='6' slot='2' function='0'/>"
     "</source></hostdev>"},
    {"controller", "", "<controller type='pci' index='9' model='pcie-root-port'/>"},
    {"floppy", "", "<disk type='file' device='floppy'><source file='/f.img'/><target dev='fda' bus='fdc'/></disk>"},
    {"usb_disk", "", "<disk type='file'><source file='/u.img'/><target dev='sdx' bus='usb' removable='on'/></disk>"},
    {"shareable_disk", "",
     "<disk type='file'><driver name='qemu' type='raw'/><source file='/s.img'/><target dev='vdz' bus='virtio'/>"
     "<shareable/></disk>"},
    {"lun", "", "<disk type='block' device='lun'><source dev='/dev/sdq'/><target dev='sdq' bus='scsi'/></disk>"},
    {"block_cdrom", "",
     "<disk type='block' device='cdrom'><source dev='/dev/sr0'/><target dev='sdr' bus='sata'/></disk>"},
    {"odd_nic_model", "",
     "<interface type='ethernet'><mac address='52:54:00:00:00:09'/><model type='ne2k_pci'/></interface>"},
    {"network_nic", "",
     "<interface type='network'><mac address='52:54:00:00:00:09'/><source network='not a bridge name' portgroup='p'/>"
     "<model type='virtio-transitional'/><link state='down'/></interface>"},
};

TEST_P(KeptElement, Overlay_NothingEdited_KeepsElementVerbatim) {
  const std::string base = Base(GetParam().rest, GetParam().devices);
  EXPECT_EQ(Canonical(Unedited(base)), Canonical(base));
}

TEST_P(KeptElement, Overlay_OtherPartEdited_IsUnchanged) {
  const std::string base = Base(GetParam().rest, GetParam().devices);
  EXPECT_EQ(Difference(base, EditedMember("desc", "second", base)),
            "-<description>first</description>\n+<description>second</description>\n");
}

INSTANTIATE_TEST_SUITE_P(Rows, KeptElement, ::testing::ValuesIn(kKept),
                         [](const auto& row) { return std::string(row.param.name); });

// One facet edited: exactly these lines of the definition change.
struct SettingEdit {
  const char* name;
  std::function<void(GuestRecords&)> edit;
  const char* difference;
  std::string rest = "";
  std::string devices = "";
};
void PrintTo(const SettingEdit& row, std::ostream* out) { *out << row.name; }
class EditedSetting : public ::testing::TestWithParam<SettingEdit> {};

std::function<void(GuestRecords&)> Member(const char* member, Json::Value value) {
  return [=](GuestRecords& records) { records.guest[member] = value; };
}
std::function<void(GuestRecords&)> DiskMember(std::size_t disk, const char* member, Json::Value value) {
  return [=](GuestRecords& records) { records.disks[disk].second[member] = value; };
}
std::function<void(GuestRecords&)> NicMember(std::size_t nic, const char* member, Json::Value value) {
  return [=](GuestRecords& records) { records.nics[nic].second[member] = value; };
}

const SettingEdit kFacets[] = {
    {"name", Member("name", "other"), "-<name>guest</name>\n+<name>other</name>\n"},
    {"no_name", [](GuestRecords& records) { records.guest.removeMember("name"); },
     "-<name>guest</name>\n+<name>11111111-2222-4333-8444-555555555555</name>\n"},
    {"description", Member("desc", "a < b"),
     "-<description>first</description>\n+<description>a &lt; b</description>\n"},
    {"no_description", [](GuestRecords& records) { records.guest.removeMember("desc"); },
     "-<description>first</description>\n"},
    {"memory", Member("vram_size", 2048),
     "-<memory unit=\"KiB\">1048576</memory>\n-<currentMemory unit=\"KiB\">524288</currentMemory>\n"
     "+<memory unit=\"MiB\">2048</memory>\n"},
    {"memory_maximum", Member("vram_size", 2048),
     "-<memory unit=\"KiB\">1048576</memory>\n-<currentMemory unit=\"KiB\">524288</currentMemory>\n"
     "-<maxMemory slots=\"4\" unit=\"GiB\">1</maxMemory>\n"
     "+<memory unit=\"MiB\">2048</memory>\n+<maxMemory slots=\"4\" unit=\"MiB\">2048</maxMemory>\n",
     "<maxMemory slots='4' unit='GiB'>1</maxMemory>"},
    {"vcpus", Member("vcpu_num", 6),
     "-<vcpu placement=\"static\" current=\"2\">4</vcpu>\n"
     "-<topology sockets=\"2\" dies=\"1\" cores=\"2\" threads=\"1\" />\n"
     "+<vcpu placement=\"static\">6</vcpu>\n+<topology sockets=\"1\" cores=\"6\" threads=\"1\" />\n"},
    {"weight", Member("cpu_weight", 1024), "-<shares>512</shares>\n+<shares>1024</shares>\n"},
    {"pins", Member("cpu_pin_num", 1),
     "-<vcpupin vcpu=\"0\" cpuset=\"0-1\" />\n-<vcpupin vcpu=\"3\" cpuset=\"0\" />\n"},
    {"compatible_cpu", Member("cpu_passthru", false),
     "-<cpu mode=\"host-passthrough\" check=\"none\" migratable=\"on\">\n"
     "+<cpu mode=\"custom\" match=\"exact\" check=\"none\">\n+<model fallback=\"allow\">Nehalem</model>\n"},
    {"uefi", Member("use_ovmf", true),
     "-<os>\n+<os firmware=\"efi\">\n+<firmware>\n+<feature enabled=\"no\" name=\"secure-boot\" />\n+</firmware>\n"},
    {"hyperv_off", Member("hyperv_enlighten", false),
     "-<relaxed state=\"on\" />\n+<relaxed state=\"off\" />\n+<vapic state=\"off\" />\n+<spinlocks state=\"off\" />\n"},
    {"video", Member("video_card", "vga"),
     "-<model type=\"qxl\" ram=\"65536\" vram=\"65536\" vgamem=\"16384\" heads=\"1\" primary=\"yes\" />\n"
     "+<model type=\"vga\" primary=\"yes\" />\n"},
    {"keyboard", Member("kb_layout", "fr"),
     "-<graphics type=\"spice\" port=\"5910\" autoport=\"no\" listen=\"127.0.0.1\" keymap=\"de\">\n"
     "+<graphics type=\"spice\" port=\"5910\" autoport=\"no\" listen=\"127.0.0.1\" keymap=\"fr\">\n"},
    {"no_keyboard", Member("kb_layout", "Default"),
     "-<graphics type=\"spice\" port=\"5910\" autoport=\"no\" listen=\"127.0.0.1\" keymap=\"de\">\n"
     "+<graphics type=\"spice\" port=\"5910\" autoport=\"no\" listen=\"127.0.0.1\">\n"},
    {"usb_version", Member("usb_version", 1),
     "-<controller type=\"usb\" index=\"0\" model=\"qemu-xhci\" ports=\"15\" />\n-<input type=\"tablet\" bus=\"usb\">\n"
     "-<address type=\"usb\" bus=\"0\" port=\"1\" />\n-</input>\n"
     "+<controller type=\"usb\" index=\"0\" model=\"piix3-uhci\" />\n+<input type=\"tablet\" bus=\"usb\" />\n"},
    {"usb_device_added", Member("usbs", List({"unmounted", "3.14", "1234:00AB"})),
     "+<hostdev mode=\"subsystem\" type=\"usb\">\n+<source startupPolicy=\"optional\">\n"
     "+<address bus=\"3\" device=\"14\" />\n+</source>\n+</hostdev>\n"},
    {"usb_device_removed", Member("usbs", List({"unmounted"})),
     "-<hostdev mode=\"subsystem\" type=\"usb\" managed=\"yes\">\n-<source>\n-<vendor id=\"0x1234\" />\n"
     "-<product id=\"0x00AB\" />\n-</source>\n-</hostdev>\n"},
    {"medium", Member("iso_images", List({"/iso/b.iso"})),
     "-<source file=\"/iso/a.iso\" />\n+<source file=\"/iso/b.iso\" />\n"},
    {"medium_taken_out", Member("iso_images", List({"unmounted"})), "-<source file=\"/iso/a.iso\" />\n"},
    {"disk_path", DiskMember(0, "path", "/images/new"),
     "-<source file=\"/images/system\">\n+<source file=\"/images/new\">\n"},
    {"disk_to_block", DiskMember(0, "path", "/dev/vg0/system"),
     "-<disk type=\"file\" device=\"disk\">\n-<source file=\"/images/system\">\n-<seclabel model=\"dac\" "
     "relabel=\"no\" />\n"
     "-</source>\n+<source dev=\"/dev/vg0/system\" />\n+<disk type=\"block\" device=\"disk\">\n"},
    {"disk_format", DiskMember(0, "driver", "raw"),
     "-<driver name=\"qemu\" type=\"qcow2\" cache=\"none\" io=\"native\" discard=\"unmap\" queues=\"4\" />\n"
     "+<driver name=\"qemu\" type=\"raw\" cache=\"none\" io=\"native\" discard=\"unmap\" queues=\"4\" />\n"},
    {"disk_discard", DiskMember(0, "unmap", false),
     "-<driver name=\"qemu\" type=\"qcow2\" cache=\"none\" io=\"native\" discard=\"unmap\" queues=\"4\" />\n"
     "+<driver name=\"qemu\" type=\"qcow2\" cache=\"none\" io=\"native\" queues=\"4\" />\n"},
    // sda and sdc are taken: the one by an address, the other by a drive.
    {"disk_bus",
     [](GuestRecords& records) {
       records.disks[0].second["vdisk_mode"] = 4;
       records.disks[0].second["name"] = "";
     },
     "-<driver name=\"qemu\" type=\"qcow2\" cache=\"none\" io=\"native\" discard=\"unmap\" queues=\"4\" />\n"
     "-<target dev=\"vda\" bus=\"virtio\" />\n"
     "-<address type=\"pci\" domain=\"0x0000\" bus=\"0x04\" slot=\"0x00\" function=\"0x0\" />\n"
     "+<driver name=\"qemu\" type=\"qcow2\" cache=\"none\" io=\"native\" discard=\"unmap\" />\n"
     "+<target dev=\"sdd\" bus=\"scsi\" />\n"},
    {"nic_mac", NicMember(0, "mac_address", "52:54:00:00:00:0a"),
     "-<mac address=\"52:54:00:00:00:01\" />\n+<mac address=\"52:54:00:00:00:0a\" />\n"},
    {"nic_bridge", NicMember(0, "network_name", "br1"), "-<source bridge=\"br0\" />\n+<source bridge=\"br1\" />\n"},
    {"nic_unplugged", NicMember(0, "network_name", ""),
     "-<interface type=\"bridge\">\n-<source bridge=\"br0\" />\n-<virtualport type=\"openvswitch\" />\n-<vlan>\n"
     "-<tag id=\"7\" />\n-</vlan>\n-<target dev=\"vnet7\" />\n-<mtu size=\"9000\" />\n"
     "+<interface type=\"user\">\n+<link state=\"down\" />\n"},
    {"nic_plugged_in", NicMember(1, "network_name", "br1"),
     "-<interface type=\"direct\">\n-<source dev=\"eth0\" mode=\"bridge\" />\n"
     "+<interface type=\"bridge\">\n+<source bridge=\"br1\" />\n"},
    {"nic_model", NicMember(0, "vnic_type", 2),
     "-<model type=\"virtio\" />\n-<driver name=\"vhost\" queues=\"4\" />\n"
     "-<address type=\"pci\" domain=\"0x0000\" bus=\"0x01\" slot=\"0x00\" function=\"0x0\" />\n"
     "+<model type=\"e1000\" />\n"},
    {"nic_removed", [](GuestRecords& records) { records.nics.pop_back(); },
     "-<interface type=\"direct\">\n-<mac address=\"52:54:00:00:00:02\" />\n-<source dev=\"eth0\" mode=\"bridge\" />\n"
     "-<model type=\"e1000e\" />\n-</interface>\n"},
    {"boot_from", Member("boot_from", "iso"),
     "-<boot dev=\"network\" />\n-<boot dev=\"hd\" />\n+<boot order=\"2\" />\n+<boot order=\"3\" />\n"
     "+<boot order=\"1\" />\n"},
    {"disk_order", [](GuestRecords& records) { std::swap(records.disks[0], records.disks[1]); },
     "-<boot dev=\"network\" />\n-<boot dev=\"hd\" />\n+<boot order=\"2\" />\n+<boot order=\"1\" />\n"
     "+<boot order=\"3\" />\n"},
};

TEST_P(EditedSetting, Edit_OneSetting_ChangesOnlyItsLines) {
  const std::string base = Base(GetParam().rest, GetParam().devices);
  EXPECT_EQ(Difference(base, Edited(GetParam().edit, base)), GetParam().difference);
}

TEST_P(EditedSetting, Edit_OneSetting_IsAcceptedByTestDriver) {
  const std::string base = Base(GetParam().rest, GetParam().devices);
  GuestRecords records = RecordsOfBase(base);
  GetParam().edit(records);
  BuildOptions options = Over(base);
  options.domain_type = "test";
  EXPECT_EQ(TestDriverComplaint(MustBuild(records, options), 0), "");
}

INSTANTIATE_TEST_SUITE_P(Rows, EditedSetting, ::testing::ValuesIn(kFacets),
                         [](const auto& row) { return std::string(row.param.name); });

// The first interface of the base is on a virtual switch, the second on a device.
TEST(DomainOverlayNic, SetBridge_OfSwitchOrNot_UpdatesVirtualPort) {
  const std::string base = Base("", "");
  GuestRecords records = RecordsOfBase(base);
  for (auto& [id, nic] : records.nics) nic["network_name"] = "br1";
  BuildOptions options = Over(base);
  const auto ports = [&] { return CountAt(MustBuild(records, options), "//interface/virtualport"); };
  EXPECT_EQ(ports(), 1u) << "what the bridge is, is not known";
  options.kernel_bridges = {"br1"};
  EXPECT_EQ(ports(), 0u);
  options.kernel_bridges.clear();
  options.switch_bridges = {"br1"};
  EXPECT_EQ(ports(), 2u);
}

TEST(DomainOverlayDisk, AddDisk_NoTargetGiven_GetsFreeTargetAndBootOrder) {
  const std::string xml = Edited([](GuestRecords& records) {
    records.disks.emplace_back("new", DiskRecord("vda", 1));
    records.nics.emplace_back("new", NicRecord("52:54:00:00:00:0b", "br7"));
  });
  EXPECT_EQ(At(xml, "//disk[source/@file='/images/vda.qcow2']/target/@dev"), "vdb");
  EXPECT_EQ(At(xml, "//disk[source/@file='/images/vda.qcow2']/boot/@order"), "3");
  EXPECT_EQ(At(xml, "//disk[@device='cdrom']/boot/@order"), "4");
  EXPECT_EQ(CountAt(xml, "/domain/os/boot"), 0u);
  EXPECT_EQ(At(xml, "//interface[3]/source/@bridge"), "br7");
}

TEST(DomainOverlayDisk, AddDisk_ScsiWithoutController_AddsOne) {
  const std::string base = DomainWith("", Disk());
  const std::string xml =
      Edited([](GuestRecords& records) { records.disks.emplace_back("new", DiskRecord("sda", 4)); }, base);
  EXPECT_EQ(At(xml, "//controller[@type='scsi']/@model"), "virtio-scsi");
  const std::string full =
      Edited([](GuestRecords& records) { records.disks.emplace_back("new", DiskRecord("sdd", 4)); });
  EXPECT_EQ(CountAt(full, "//controller[@type='scsi']"), 1u);
  EXPECT_EQ(At(full, "//controller[@type='scsi']/driver/@queues"), "2");
}

TEST(DomainOverlayDisk, RemoveDisk_FirstDisk_RestGetsBootOrder) {
  const std::string xml = Edited([](GuestRecords& records) { records.disks.erase(records.disks.begin()); });
  EXPECT_EQ(CountAt(xml, "//disk[target/@dev='vda']"), 0u);
  EXPECT_EQ(At(xml, "//disk[target/@dev='sdb']/boot/@order"), "1");
}

TEST(DomainOverlayDisk, AddDisk_IdeOnMachineWithoutIde_IsRefused) {
  GuestRecords records = RecordsOfBase(Base());
  records.disks[0].second["vdisk_mode"] = 2;
  EXPECT_THAT(BuildRefusalOf(records, Over(Base())), HasSubstr("the machine type 'pc-q35-7.2'"));
}

TEST(DomainOverlayDisk, EditDisk_InvalidPath_IsRefused) {
  GuestRecords records = RecordsOfBase(Base());
  records.disks[0].second["path"] = "/images/../etc/shadow";
  EXPECT_THAT(BuildRefusalOf(records, Over(Base())), HasSubstr("absolute path"));
}

TEST(DomainOverlayBoot, BootOrder_OtherDevices_FollowDisks) {
  const std::string base =
      DomainWith("", Disk("vda", "<boot order='2'/>") + Nic("52:54:00:00:00:01", "<boot order='1'/>"));
  EXPECT_EQ(Canonical(Unedited(base)), Canonical(base));
  const std::string xml =
      Edited([](GuestRecords& records) { records.disks.emplace_back("new", DiskRecord("vdb", 1)); }, base);
  EXPECT_EQ(At(xml, "//disk[target/@dev='vda']/boot/@order"), "1");
  EXPECT_EQ(At(xml, "//disk[target/@dev='vdb']/boot/@order"), "2");
  EXPECT_EQ(At(xml, "//interface/boot/@order"), "3");
}

TEST(DomainOverlayDrives, AddDrive_Buses_UsesOneWithRoom) {
  const std::string xml = EditedMember("iso_images", List({"/iso/a.iso", "/iso/b.iso"}));
  EXPECT_EQ(At(xml, "//disk[source/@file='/iso/b.iso']/target/@bus"), "sata");
  EXPECT_EQ(At(xml, "//disk[source/@file='/iso/b.iso']/target/@dev"), "sda");
  const std::string none = EditedMember("iso_images", Json::Value(Json::arrayValue));
  EXPECT_EQ(CountAt(none, "//disk[@device='cdrom']"), 0u);
}

TEST(DomainOverlayDrives, Drive_ImageId_IsResolved) {
  GuestRecords records = RecordsOfBase(Base());
  records.guest["iso_images"] = List({"44444444-2222-4333-8444-555555555555"});
  BuildOptions options = Over(Base());
  options.image_path = [](const std::string&) -> Result<std::string> { return std::string("/iso/a.iso"); };
  EXPECT_EQ(Canonical(MustBuild(records, options)), Canonical(Base()));
  options.image_path = [](const std::string&) -> Result<std::string> { return std::string("/iso/b.iso"); };
  EXPECT_EQ(At(MustBuild(records, options), "//disk[@device='cdrom']/source/@file"), "/iso/b.iso");
}

TEST(DomainOverlayProcessor, Overlay_DedicatedProcessors_ReplaceUsersPins) {
  GuestRecords records = RecordsOfBase(Base());
  BuildOptions options = Over(Base());
  options.pinned_cpus = {6, 7};
  const std::string xml = MustBuild(records, options);
  EXPECT_EQ(CountAt(xml, "//vcpupin"), 2u);
  EXPECT_EQ(At(xml, "//vcpupin[@vcpu='1']/@cpuset"), "7");
}

TEST(DomainOverlayProcessor, SharedCpus_OwnersSets_AreConfined) {
  std::string base = Base("<iothreads>1</iothreads>");
  const std::size_t vcpu = base.find("<vcpu");
  ASSERT_NE(vcpu, std::string::npos);
  base.insert(vcpu + 5, " cpuset='2-5'");
  const std::size_t tuning = base.find("<cputune>");
  ASSERT_NE(tuning, std::string::npos);
  base.insert(tuning + 9, "<emulatorpin cpuset='7'/><iothreadpin iothread='1' cpuset='0,7'/>");
  BuildOptions options = Over(base);
  options.shared_cpus = {0, 1, 2, 3};
  const std::string xml = MustBuild(RecordsOfBase(base), options);
  EXPECT_EQ(At(xml, "/domain/vcpu/@cpuset"), "2-3");
  EXPECT_EQ(At(xml, "//emulatorpin/@cpuset"), "0-3") << "it must run somewhere";
  EXPECT_EQ(At(xml, "//iothreadpin/@cpuset"), "0");
}

TEST(DomainOverlayScreen, KeyboardLayout_QemuLacksIt_IsRemoved) {
  std::string base = Base("");
  const std::size_t devices = base.find("<devices>");
  ASSERT_NE(devices, std::string::npos);
  base.insert(devices + 9, "<graphics type='vnc' keymap='xx'/>");
  BuildOptions options = Over(base);
  EXPECT_EQ(CountAt(MustBuild(RecordsOfBase(base), options), "//graphics[@keymap='xx']"), 1u);
  options.keymaps = {"de"};
  EXPECT_EQ(CountAt(MustBuild(RecordsOfBase(base), options), "//graphics[@keymap='xx']"), 0u);
}

TEST(DomainOverlayProcessor, SetVirtualCpus_Fewer_RemovesPinsAndTopology) {
  const std::string base = Base("<vcpus><vcpu id='0' enabled='yes'/></vcpus>");
  const std::string xml = EditedMember("vcpu_num", 2, base);
  EXPECT_EQ(CountAt(xml, "//vcpupin"), 1u);
  EXPECT_EQ(CountAt(xml, "/domain/vcpus"), 0u);
}

TEST(DomainOverlayMemory, SetMemory_NumaCells_ShareNewSize) {
  const std::string cells =
      "<cpu mode='host-model'><numa><cell id='0' cpus='0' memory='256' unit='MiB'/>"
      "<cell id='1' cpus='1' memory='256' unit='MiB'/></numa></cpu>";
  const std::string base = DomainWith("<vcpu>2</vcpu>" + cells, "<memory model='dimm'><target/></memory>");
  EXPECT_EQ(Canonical(Unedited(base)), Canonical(base));
  const std::string xml = EditedMember("vram_size", 1025, base);
  EXPECT_EQ(At(xml, "//cell[@id='0']/@memory"), "512");
  EXPECT_EQ(At(xml, "//cell[@id='1']/@memory"), "513");
  EXPECT_EQ(CountAt(xml, "/domain/devices/memory"), 0u);
}

TEST(DomainOverlayFirmware, Firmware_OwnLoader_IsKeptWithRecordsNvram) {
  const std::string base = DomainWith(
      "<os><type>hvm</type><loader readonly='yes' type='pflash'>/fw.fd</loader>"
      "<nvram template='/fw-vars.fd'>/vars/old.fd</nvram></os>");
  EXPECT_EQ(Canonical(Unedited(base)), Canonical(base));
  const std::string xml = EditedMember("nvram", "/vars/new.fd", base);
  EXPECT_EQ(At(xml, "/domain/os/nvram"), "/vars/new.fd");
  EXPECT_EQ(At(xml, "/domain/os/nvram/@template"), "/fw-vars.fd");
  EXPECT_EQ(At(xml, "/domain/os/loader"), "/fw.fd");
  const std::string bios = EditedMember("use_ovmf", false, base);
  EXPECT_EQ(CountAt(bios, "/domain/os/*"), 1u);
  const std::string with_source =
      DomainWith("<os firmware='efi'><type>hvm</type><nvram type='file'><source file='/vars/a.fd'/></nvram></os>");
  EXPECT_EQ(Canonical(Unedited(with_source)), Canonical(with_source));
  EXPECT_EQ(At(EditedMember("nvram", "/vars/b.fd", with_source), "/domain/os/nvram"), "/vars/b.fd");
  const std::string without = DomainWith("<os firmware='efi'><type>hvm</type></os>");
  EXPECT_EQ(At(EditedMember("nvram", "/vars/b.fd", without), "/domain/os/nvram"), "/vars/b.fd");
}

TEST(DomainOverlayOptions, Overlay_WithoutCgroups_RemovesTuningAndKeepsPins) {
  BuildOptions options = Over(Base("<blkiotune><weight>500</weight></blkiotune><memtune/>"));
  options.cpu_shares = CpuShares::kOmitted;
  std::string xml = Unedited(options.base_xml, options);
  EXPECT_EQ(CountAt(xml, "//shares | //blkiotune | //memtune"), 0u);
  EXPECT_EQ(CountAt(xml, "//vcpupin"), 2u);
  options.base_xml = DomainWith(
      "<cputune><period>1000</period><quota>-1</quota><global_period>1000</global_period>"
      "<emulator_quota>1</emulator_quota><iothread_quota>1</iothread_quota></cputune>");
  xml = Unedited(options.base_xml, options);
  EXPECT_EQ(CountAt(xml, "//cputune"), 0u);
}

TEST(DomainOverlayOptions, Overlay_WithoutControllerForProcessors_RemovesOnlyTheirTuning) {
  BuildOptions options = Over(Base("<blkiotune><weight>500</weight></blkiotune><memtune/>"));
  options.cpu_shares = CpuShares::kNoController;
  const std::string xml = Unedited(options.base_xml, options);
  EXPECT_EQ(CountAt(xml, "//shares"), 0u);
  EXPECT_EQ(CountAt(xml, "//vcpupin"), 2u);
  EXPECT_EQ(CountAt(xml, "//blkiotune | //memtune"), 2u);
}

TEST(DomainOverlayOptions, Overlay_Emulation_RemovesKvmFeatures) {
  BuildOptions options = Over(Base());
  options.domain_type = "qemu";
  EXPECT_EQ(
      Difference(Base(), Unedited(Base(), options)),
      "-<domain type=\"kvm\" xmlns:qemu=\"http://libvirt.org/schemas/domain/qemu/1.0\">\n"
      "-<hyperv mode=\"custom\">\n-<relaxed state=\"on\" />\n-</hyperv>\n-<kvm>\n-<hidden state=\"on\" />\n-</kvm>\n"
      "-<cpu mode=\"host-passthrough\" check=\"none\" migratable=\"on\">\n"
      "-<timer name=\"hypervclock\" present=\"yes\" />\n"
      "+<domain type=\"qemu\" xmlns:qemu=\"http://libvirt.org/schemas/domain/qemu/1.0\">\n"
      "+<cpu mode=\"maximum\" check=\"none\">\n");
}

TEST(DomainOverlayOptions, Overlay_NoUsbBus_OmitsHostDevices) {
  BuildOptions options = Over(Base());
  options.usb_bus = UsbBus::kAbsent;
  const std::string xml = Unedited(Base(), options);
  EXPECT_EQ(CountAt(xml, "//hostdev[@type='usb']"), 0u);
  EXPECT_EQ(CountAt(xml, "//controller[@type='usb']"), 1u);
}

TEST(DomainOverlayUsb, Overlay_UsbTurnedOff_RemovesUsbDevices) {
  const std::string base = Base("", "<redirdev bus='usb' type='spicevmc'/><input type='mouse' bus='ps2'/>");
  const std::string xml = Edited(
      [](GuestRecords& records) {
        records.guest["usb_version"] = 0;
        records.guest["usbs"] = List({});
      },
      base);
  EXPECT_EQ(At(xml, "//controller[@type='usb']/@model"), "none");
  EXPECT_EQ(CountAt(xml, "//redirdev | //input[@bus='usb'] | //hostdev"), 0u);
  EXPECT_EQ(CountAt(xml, "//input[@bus='ps2']"), 1u);
}

TEST(DomainOverlayEmulator, Emulator_Missing_IsOmitted) {
  EXPECT_EQ(CountAt(Unedited(DomainWith("", "<emulator>/no/such/emulator</emulator>")), "//emulator"), 0u);
  EXPECT_EQ(CountAt(Unedited(DomainWith("", "<emulator>/etc/passwd</emulator>")), "//emulator"), 0u);
  EXPECT_EQ(CountAt(Unedited(DomainWith("", "<emulator>/</emulator>")), "//emulator"), 0u);
  EXPECT_EQ(At(Unedited(DomainWith("", "<emulator>/bin/sh</emulator>")), "//emulator"), "/bin/sh");
}

TEST(DomainOverlayFirmware, Nvram_InvalidRecord_IsRefused) {
  GuestRecords records = RecordsOfBase(Base());
  records.guest["nvram"] = "vars.fd";
  EXPECT_THAT(BuildRefusalOf(records, Over(Base())), HasSubstr("'nvram'"));
}

TEST(DomainOverlayDrives, SetDrive_HoldsBlockDevice_IsReplacedByFile) {
  const std::string base =
      DomainWith("", "<disk type='block' device='cdrom'><source dev='/dev/sr0'/><target dev='sda' bus='sata'/></disk>");
  const std::string xml = EditedMember("iso_images", List({"/iso/a.iso"}), base);
  EXPECT_EQ(At(xml, "//disk/@type"), "file");
  EXPECT_EQ(At(xml, "//disk/source/@file"), "/iso/a.iso");
  EXPECT_EQ(CountAt(xml, "//disk/source/@dev"), 0u);
}

TEST(DomainOverlayNic, Nic_OtherRecordId_IsMatchedByMacAddress) {
  const std::string xml = Edited([](GuestRecords& records) { records.nics[0].first = "another"; });
  EXPECT_EQ(Canonical(xml), Canonical(Base()));
}

TEST(DomainOverlayNic, Nics_DuplicateMac_AreRefused) {
  GuestRecords records = RecordsOfBase(Base());
  records.nics[0].second["mac_address"] = "52:54:00:00:00:02";
  EXPECT_THAT(BuildRefusalOf(records, Over(Base())), HasSubstr("Two network interfaces"));
}

TEST(DomainOverlayRunning, Overlay_BaseOfRunningDomain_OmitsItsId) {
  std::string base = Base();
  base.insert(std::string("<domain").size(), " id='7'");
  EXPECT_EQ(At(Unedited(base), "/domain/@id"), "");
}

TEST(DomainOverlayRefusal, Base_UnreadableOrOfOtherGuest_IsNamed) {
  const GuestRecords records = RecordsOfBase(Base());
  EXPECT_THAT(BuildRefusalOf(records, Over("<domain>")), HasSubstr("imported with cannot be used"));
  EXPECT_THAT(BuildRefusalOf(records, Over("<domain/>")), HasSubstr("imported with cannot be used"));
  DomainParts other;
  other.uuid = "<uuid>21111111-2222-4333-8444-555555555555</uuid>";
  EXPECT_THAT(BuildRefusalOf(records, Over(other.Text())), HasSubstr("with the definition of the guest '21111111"));
}

// Only edits are checked: libvirt took the rest before.
TEST(DomainOverlayNic, Nic_NetworkInvalidForBuilder_IsKeptUnlessEdited) {
  const std::string nic =
      "<interface type='network'><mac address='52:54:00:00:00:01'/><source network='a very long network name'/>"
      "<model type='virtio'/></interface>";
  const std::string base = DomainWith("", nic);
  EXPECT_EQ(Canonical(Unedited(base)), Canonical(base));
  EXPECT_EQ(At(Edited([](GuestRecords& records) { records.nics[0].second["vnic_type"] = 3; }, base),
               "//interface/source/@network"),
            "a very long network name");
}

TEST(DomainOverlayDriver, KeptElements_EachRow_IsAcceptedByTestDriver) {
  for (const Persistence& row : kKept) {
    const std::string base = Base(row.rest, row.devices);
    BuildOptions options = Over(base);
    options.domain_type = "test";
    EXPECT_EQ(TestDriverComplaint(Unedited(base, options), 0), "") << row.name;
  }
}

}  // namespace
}  // namespace vexa::domain_xml
