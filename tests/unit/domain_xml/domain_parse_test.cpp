// What each element of domain XML becomes, row by row as docs/import.md has it.

#include "host/base/json_parse.h"
#include "tests/support/matchers.h"
#include "tests/unit/domain_xml/domain_xml_fixture.h"

namespace vexa::domain_xml {
namespace {

struct Row {
  const char* test;
  std::string rest;     // children of <domain>
  std::string devices;  // children of <devices>
  const char* member;   // of the guest's record
  const char* json;     // its value; nullptr: the member is absent
  const char* note = nullptr;
};

std::string Print(const Json::Value& value) { return value.toStyledString(); }

void PrintTo(const Row& row, std::ostream* out) { *out << row.test; }

class GuestMember : public ::testing::TestWithParam<Row> {};

TEST_P(GuestMember, Import_EachElement_HasDocumentedValue) {
  const Row& row = GetParam();
  const ImportedGuest guest = MustParse(DomainWith(row.rest, row.devices));
  if (row.json == nullptr) {
    EXPECT_FALSE(guest.guest.isMember(row.member)) << Print(guest.guest);
  } else {
    const Result<Json::Value> expected = ParseJson(row.json);
    ASSERT_TRUE(expected.ok()) << row.json;
    EXPECT_EQ(Print(guest.guest[row.member]), Print(*expected));
  }
  if (row.note != nullptr) {
    EXPECT_THAT(guest.notes, Contains(row.note));
  }
}

std::string Usb(const std::string& source) {
  return "<hostdev mode='subsystem' type='usb'><source>" + source + "</source></hostdev>";
}
std::string UsbIds(const std::string& vendor, const std::string& product) {
  return Usb("<vendor id='" + vendor + "'/><product id='" + product + "'/>");
}
std::string Controller(const std::string& model) { return "<controller type='usb' index='0' model='" + model + "'/>"; }
std::string Video(const std::string& model) { return "<video><model type='" + model + "'/></video>"; }
std::string Cdrom(const std::string& target, const std::string& inside) {
  return "<disk type='file' device='cdrom'>" + inside + "<target dev='" + target + "' bus='sata'/></disk>";
}
std::string Os(const std::string& inside) { return "<os><type arch='x86_64'>hvm</type>" + inside + "</os>"; }

const Row kRows[] = {
    {"name", "", "", "name", R"("guest")"},
    {"repository", "", "", "repository_id", R"("")"},
    {"host", "", "", "host_id", R"("")"},
    {"state", "", "", "state", R"("guest_shutdown")"},
    {"autorun", "", "", "autorun", "0"},
    {"general", "", "", "is_general_vm", "true"},
    {"no_ha", "", "", "ha_group_id", nullptr},
    {"no_desc", "", "", "desc", nullptr},
    {"desc", "<description>two\nlines &amp; more</description>", "", "desc", R"("two\nlines & more")"},
    {"desc_in_parts", "<description>a<!-- x -->b<![CDATA[<c>]]></description>", "", "desc", R"("ab<c>")"},
    {"vcpu", "<vcpu placement='static'> 8 </vcpu>", "", "vcpu_num", "8"},
    {"vcpu_missing", "", "", "vcpu_num", "1"},
    {"vcpu_most", "<vcpu>512</vcpu>", "", "vcpu_num", "512"},
    {"vcpu_current", "<vcpu current='1'>2</vcpu>", "", "vcpu_num", "2",
     "The guest starts with '1' of its 2 virtual CPUs: the record counts all of them."},
    {"memory", "", "", "vram_size", "512"},
    {"memory_current", "<currentMemory unit='MiB'>256</currentMemory>", "", "vram_size", "512",
     "<currentMemory> differs from <memory>: 512 MiB was recorded, and the balloon stays until the memory is "
     "edited."},
    {"passthrough", "<cpu mode='host-passthrough'/>", "", "cpu_passthru", "true"},
    {"cpu_host_model", "<cpu mode='host-model'/>", "", "cpu_passthru", "false"},
    {"cpu_custom", "<cpu mode='custom'><model>qemu64</model></cpu>", "", "cpu_passthru", "false"},
    {"cpu_missing", "", "", "cpu_passthru", "false"},
    {"shares", "<cputune><shares>2048</shares></cputune>", "", "cpu_weight", "2048"},
    {"shares_least", "<cputune><shares>2</shares></cputune>", "", "cpu_weight", "2"},
    {"shares_most", "<cputune><shares>262144</shares></cputune>", "", "cpu_weight", "262144"},
    {"shares_missing", "", "", "cpu_weight", "256"},
    {"pins", "<vcpu>4</vcpu><cputune><vcpupin vcpu='0' cpuset='1'/><vcpupin vcpu='3' cpuset='2'/></cputune>", "",
     "cpu_pin_num", "2",
     "The CPU sets of <vcpupin> are replaced by processors that the host dedicates to the guest: only the number of "
     "pinned virtual CPUs was recorded."},
    {"pins_twice", "<cputune><vcpupin vcpu='0' cpuset='1'/><vcpupin vcpu='0' cpuset='2'/></cputune>", "", "cpu_pin_num",
     "1"},
    {"pins_missing", "", "", "cpu_pin_num", "0"},
    {"efi", "<os firmware='efi'><type>hvm</type></os>", "", "use_ovmf", "true"},
    {"pflash", Os("<loader readonly='yes' type='pflash'>/usr/share/fw.fd</loader>"), "", "use_ovmf", "true"},
    {"loader_rom", Os("<loader type='rom'>/usr/share/bios.bin</loader>"), "", "use_ovmf", "false"},
    {"bios", "<os firmware='bios'><type>hvm</type></os>", "", "use_ovmf", "false"},
    {"no_os", "", "", "use_ovmf", "false"},
    {"no_nvram", "<os firmware='efi'><type>hvm</type><nvram template='/t.fd'/></os>", "", "nvram", nullptr},
    {"nvram", Os("<loader type='pflash'>/f.fd</loader><nvram template='/t.fd'> /vars/a.fd </nvram>"), "", "nvram",
     R"("/vars/a.fd")"},
    {"nvram_source", Os("<nvram type='file'><source file='/vars/b.fd'/></nvram>"), "", "nvram", R"("/vars/b.fd")"},
    {"nvram_network", Os("<nvram type='network'><source protocol='nbd'/></nvram>"), "", "nvram", nullptr,
     "The UEFI variables have the type 'network': they were not recorded, and are not managed with the guest's "
     "files."},
    {"nvram_odd", Os("<nvram>../vars.fd</nvram>"), "", "nvram", nullptr,
     "The UEFI variables are at '../vars.fd', which is not an absolute path. They were not recorded."},
    {"no_hyperv", "<features><acpi/></features>", "", "hyperv_enlighten", nullptr},
    {"hyperv", "<features><hyperv mode='custom'><relaxed state='on'/></hyperv></features>", "", "hyperv_enlighten",
     "true"},
    {"hyperv_passthrough", "<features><hyperv mode='passthrough'/></features>", "", "hyperv_enlighten", "true"},
    {"hyperv_off", "<features><hyperv><relaxed state='off'/></hyperv></features>", "", "hyperv_enlighten", "false"},
    {"boot_missing", "", "", "boot_from", R"("disk")"},
    {"boot_hd", Os("<boot dev='hd'/><boot dev='cdrom'/>"), "", "boot_from", R"("disk")"},
    {"boot_cdrom", Os("<boot dev='cdrom'/><boot dev='hd'/>"), "", "boot_from", R"("iso")"},
    {"boot_network_first", Os("<boot dev='network'/><boot dev='cdrom'/>"), "", "boot_from", R"("iso")",
     "The guest boots from 'network' first, which the records cannot express. This stays until its disks, drives or "
     "'boot_from' "
     "are edited."},
    {"boot_network_only", Os("<boot dev='network'/>"), "", "boot_from", R"("disk")"},
    {"boot_order_disk", "", Cdrom("sdb", "<boot order='2'/>") + Disk("vda", "<boot order='1'/>"), "boot_from",
     R"("disk")"},
    {"boot_order_cdrom", "", Disk("vda", "<boot order='10'/>") + Cdrom("sdb", "<boot order='9'/>"), "boot_from",
     R"("iso")"},
    {"boot_order_nic", "", Nic("52:54:00:00:00:01", "<boot order='1'/>") + Cdrom("sdb", "<boot order='2'/>"),
     "boot_from", R"("iso")",
     "The guest boots from 'network' first, which the records cannot express. This stays until its disks, drives or "
     "'boot_from' "
     "are edited."},
    {"boot_order_wins", Os("<boot dev='cdrom'/>"), Disk("vda", "<boot order='1'/>"), "boot_from", R"("disk")"},
    {"cirrus", "", Video("cirrus"), "video_card", R"("cirrus")"},
    {"vga", "", Video("vga"), "video_card", R"("vga")"},
    {"vmvga", "", Video("vmvga"), "video_card", R"("vmvga")"},
    {"qxl", "", Video("qxl"), "video_card", R"("qxl")"},
    {"virtio", "", Video("virtio"), "video_card", R"("virtio")"},
    {"bochs", "", Video("bochs"), "video_card", nullptr,
     "The video card 'bochs' is unknown: it stays until 'video_card' is set."},
    {"no_video", "", "", "video_card", nullptr, "The guest has no video card, and gets one when 'video_card' is set."},
    {"two_videos", "", Video("vga") + "<video><model type='qxl' primary='yes'/></video>", "video_card", R"("qxl")",
     "The guest has 2 video cards: only the primary one was recorded."},
    {"usb_missing", "", "", "usb_version", "2"},
    {"usb_none", "", Controller("none"), "usb_version", "0"},
    {"usb_piix3", "", Controller("piix3-uhci"), "usb_version", "1"},
    {"usb_piix4", "", Controller("piix4-uhci"), "usb_version", "1"},
    {"usb_ich9_uhci", "", Controller("ich9-uhci1"), "usb_version", "1"},
    {"usb_ehci", "", Controller("ehci"), "usb_version", "2"},
    {"usb_ich9", "", Controller("ich9-uhci1") + Controller("ich9-ehci1") + Controller("ich9-uhci2"), "usb_version",
     "2"},
    {"usb_nec", "", Controller("nec-xhci"), "usb_version", "3"},
    {"usb_qemu", "", Controller("qemu-xhci"), "usb_version", "3"},
    {"usb_no_model", "", "<controller type='usb'/>", "usb_version", "2"},
    {"usb_unknown", "", Controller("qusb9"), "usb_version", "2",
     "The USB controller model 'qusb9' is unknown: USB 2 was recorded."},
    {"usb_other_controller", "", "<controller type='scsi' model='virtio-scsi'/>", "usb_version", "2"},
    {"usbs_missing", "", "", "usbs", R"(["unmounted","unmounted","unmounted","unmounted"])"},
    {"usbs_ids", "", UsbIds("0x0ABC", "0x1"), "usbs", R"(["0abc:0001","unmounted","unmounted","unmounted"])"},
    {"usbs_address", "", Usb("<address bus='3' device='14'/>"), "usbs",
     R"(["3.14","unmounted","unmounted","unmounted"])"},
    {"usbs_four", "", UsbIds("1", "1") + UsbIds("2", "2") + UsbIds("3", "3") + UsbIds("4", "4"), "usbs",
     R"(["0001:0001","0002:0002","0003:0003","0004:0004"])"},
    {"usbs_other_hostdev", "", "<hostdev mode='subsystem' type='pci'><source/></hostdev>", "usbs",
     R"(["unmounted","unmounted","unmounted","unmounted"])"},
    {"keyboard", "", "<graphics type='vnc' keymap='en-us'/>", "kb_layout", R"("en-us")"},
    {"keyboard_second", "", "<graphics type='spice'/><graphics type='vnc' keymap='fr'/>", "kb_layout", R"("fr")"},
    {"keyboard_missing", "", "<graphics type='vnc'/>", "kb_layout", R"("Default")"},
    {"keyboard_odd", "", "<graphics type='vnc' keymap='../de'/>", "kb_layout", R"("Default")",
     "The keyboard layout '../de' was not recorded because its name is not valid."},
    {"no_iso", "", Disk(), "iso_images", nullptr},
    {"iso", "", Cdrom("sda", "<source file='/iso/a.iso'/>"), "iso_images", R"(["/iso/a.iso"])"},
    {"iso_empty", "", Cdrom("sda", ""), "iso_images", R"(["unmounted"])"},
    {"iso_two", "", Cdrom("sda", "") + Cdrom("sdb", "<source file='/b.iso'/>"), "iso_images",
     R"(["unmounted","/b.iso"])"},
    {"iso_block", "", "<disk type='block' device='cdrom'><source dev='/dev/sr0'/><target dev='sda' bus='sata'/></disk>",
     "iso_images", R"(["unmounted"])",
     "The medium of the CD-ROM drive 'sda' has the type 'block': the record shows an empty drive."},
    {"iso_relative", "", Cdrom("sda", "<source file='../../etc/shadow'/>"), "iso_images", R"(["unmounted"])",
     "The medium of the CD-ROM drive 'sda' is '../../etc/shadow', which is not an absolute path. The record shows an "
     "empty "
     "drive."},
    {"no_disks", "", "", "vdisks", "[]"},
    {"no_nics", "", "", "vnics", "[]"},
};

INSTANTIATE_TEST_SUITE_P(Rows, GuestMember, ::testing::ValuesIn(kRows),
                         [](const auto& parameter) { return std::string(parameter.param.test); });

struct MemoryRow {
  const char* unit;
  const char* number;
  int mib;
};

TEST(Memory, EveryUnit_IsRoundedUpToMib) {
  const MemoryRow rows[] = {
      {nullptr, "1048576", 1024},
      {"b", "1048577", 2},
      {"bytes", "1048576", 1},
      {"KB", "1049", 2},
      {"k", "2048", 2},
      {"KiB", "1025", 2},
      {"MB", "100", 96},
      {"M", "64", 64},
      {"MiB", "64", 64},
      {"GB", "1", 954},
      {"G", "2", 2048},
      {"GiB", "2", 2048},
      {"TB", "1", 953675},
      {"T", "1", 1048576},
      {"TiB", "1", 1048576},
      {"MiB", "2097151", 2097151},
      {"b", "1", 1},
      {"MiB", " 64\n ", 64},
  };
  for (const MemoryRow& row : rows) {
    DomainParts domain;
    domain.memory = row.unit == nullptr ? "<memory>" : "<memory unit='" + std::string(row.unit) + "'>";
    domain.memory += std::string(row.number) + "</memory>";
    EXPECT_EQ(MustParse(domain.Text()).guest["vram_size"], row.mib) << domain.memory;
  }
}

TEST(Identity, Uuid_UpperCase_IsLowered) {
  DomainParts domain;
  domain.uuid = "<uuid>\n AAAAAAAA-BBBB-4CCC-8DDD-EEEEEEEEEEEE </uuid>";
  EXPECT_EQ(MustParse(domain.Text()).id, "aaaaaaaa-bbbb-4ccc-8ddd-eeeeeeeeeeee");
}

TEST(Identity, Name_SlashPercentAndMarkup_IsUnchanged) {
  DomainParts domain;
  domain.name = "<name>../a%2F&lt;b&gt; ü</name>";
  EXPECT_EQ(MustParse(domain.Text()).guest["name"], "../a%2F<b> ü");
}

TEST(Identity, Name_Of128Bytes_IsAccepted) {
  DomainParts domain;
  domain.name = "<name>" + std::string(128, 'n') + "</name>";
  EXPECT_EQ(MustParse(domain.Text()).guest["name"], std::string(128, 'n'));
}

TEST(Import, Import_SameXmlTwice_ReturnsSameRecords) {
  const std::string xml = DomainWith("", Disk("vda") + Disk("vdb") + Nic());
  EXPECT_EQ(Print(ToJson(MustParse(xml))), Print(ToJson(MustParse(xml))));
}

TEST(Import, OptionIds_AreRecordedInLowerCase) {
  ImportOptions options = WithImages();
  options.repository_id = "ABCDEF00-0000-4000-8000-000000000001";
  options.host_id = "ABCDEF00-0000-4000-8000-000000000002";
  const ImportedGuest guest = MustParse(DomainWith("", Disk()), options);
  EXPECT_EQ(guest.guest["repository_id"], "abcdef00-0000-4000-8000-000000000001");
  EXPECT_EQ(guest.guest["host_id"], "abcdef00-0000-4000-8000-000000000002");
  EXPECT_EQ(guest.disks.at(0).second["repository_id"], "abcdef00-0000-4000-8000-000000000001");
}

TEST(Import, Import_Definition_IsKeptVerbatim) {
  const std::string xml = "<?xml version='1.0'?>\n<!-- mine -->\n" + DomainWith("<title>t</title>") + "\n";
  EXPECT_EQ(MustParse(xml).xml, xml);
}

TEST(Notes, Import_PreservedElements_CauseNoNotes) {
  const ImportedGuest guest = MustParse(
      DomainWith("<memtune/><metadata><x/></metadata><on_reboot>destroy</on_reboot><clock offset='localtime'/>"
                 "<features><kvm/></features><cputune><quota>1</quota></cputune><cpu mode='host-model'/>" +
                     Os("<kernel>/k</kernel><bootmenu enable='yes'/>"),
                 "<serial type='pty'/><rng/><emulator/><input/><hostdev mode='subsystem' type='pci'/>" + Video("vga") +
                     Disk("vda", "<iotune/><shareable/>") + Nic("52:54:00:00:00:01", "<vlan/><mtu size='9000'/>")));
  EXPECT_THAT(guest.notes, IsEmpty());
}

TEST(Notes, Notes_Thousand_AreTruncatedWithSentence) {
  std::string devices;
  for (int i = 0; i < 1000; ++i) devices += Controller("m" + std::to_string(i));
  const ImportedGuest guest = MustParse(DomainWith("", devices));
  ASSERT_EQ(guest.notes.size(), 101u);
  EXPECT_EQ(guest.notes.back(), "The records approximate more than is listed here.");
}

TEST(Uuid, NameBased_IsVersion5OfRfc4122) {
  // Checked with another implementation of RFC 4122.
  EXPECT_EQ(NameBasedUuid("network/default"), NetworkGroupId("default"));
  EXPECT_EQ(NetworkGroupId("default"), "03422cd0-4a23-57c4-b939-511a0a1aedce");
  EXPECT_EQ(NameBasedUuid(""), "0d37e943-8513-5cd5-827f-4d318b4280f2");
  EXPECT_THAT(NameBasedUuid("a"), Not(NameBasedUuid("b")));
}

}  // namespace
}  // namespace vexa::domain_xml
