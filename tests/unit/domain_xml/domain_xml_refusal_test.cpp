// Refused domain XML and the sentences for it; hostile XML.

#include "tests/support/matchers.h"
#include "tests/unit/domain_xml/domain_xml_fixture.h"

namespace vexa::domain_xml {
namespace {

struct Refusal {
  const char* test;
  std::string xml;
  std::string sentence;
};

std::string WithName(const std::string& text) {
  DomainParts domain;
  domain.name = "<name>" + text + "</name>";
  return domain.Text();
}
std::string WithUuid(const std::string& element) {
  DomainParts domain;
  domain.uuid = element;
  return domain.Text();
}
std::string WithMemory(const std::string& element) {
  DomainParts domain;
  domain.memory = element;
  return domain.Text();
}
std::string DiskOf(const std::string& attributes, const std::string& inside) {
  return DomainWith("", "<disk " + attributes + ">" + inside + "</disk>");
}
std::string Repeat(const std::string& text, int count) {
  std::string result;
  for (int i = 0; i < count; ++i) result += text;
  return result;
}
std::string ManyDisks(int count) {
  std::string devices;
  for (int i = 0; i < count; ++i) devices += Disk("vd" + std::to_string(i));
  return DomainWith("", devices);
}
std::string ManyNics(int count) {
  std::string devices;
  for (int i = 0; i < count; ++i) devices += Nic("52:54:00:00:00:" + std::to_string(10 + i));
  return DomainWith("", devices);
}
std::string UsbSource(const std::string& source) {
  return DomainWith("", "<hostdev type='usb'><source>" + source + "</source></hostdev>");
}

constexpr const char* kNameRule = ": a guest's name has 1 to 128 bytes without control characters and line ends";
constexpr const char* kMacRule = ". Use a unicast address such as 52:54:00:12:34:56";
constexpr const char* kUsbRule =
    "<hostdev> of type 'usb' does not name a device. Use <vendor> and <product>, or <address> with a bus and a device";
constexpr const char* kDoctype = "The XML has a DOCTYPE. Document types and entities are not read: remove it";

std::vector<Refusal> Refusals() {
  const std::string line_end_name = std::string("<name> is 'a?b'") + kNameRule;
  const std::string empty_name = std::string("<name> is ''") + kNameRule;
  const std::string c1_name = std::string("<name> is 'a?b'") + kNameRule;
  const std::string long_name = "<name> is '" + std::string(80, 'n') + "…'" + kNameRule;
  const std::string wide_name = "<name> is '" + Repeat("ü", 39) + "…'" + kNameRule;
  const std::string multicast = std::string("<mac> of an <interface> has the address '01:00:5e:00:00:01'") + kMacRule;
  const std::string broadcast = std::string("<mac> of an <interface> has the address 'ff:ff:ff:ff:ff:ff'") + kMacRule;
  const std::string zero = std::string("<mac> of an <interface> has the address '00:00:00:00:00:00'") + kMacRule;
  const std::string short_mac = std::string("<mac> of an <interface> has the address '52:54:00:0:0:1'") + kMacRule;
  const std::string no_mac = std::string("<mac> of an <interface> has the address ''") + kMacRule;
  const std::string entities = "<!DOCTYPE domain [<!ENTITY a 'aaaaaaaaaa'><!ENTITY b '&a;&a;&a;&a;'>]>";
  return {
      {"name_missing", "<domain><uuid>" + std::string(kId) + "</uuid></domain>", empty_name},
      {"name_empty", WithName(""), empty_name},
      {"name_line_end", WithName("a\nb"), line_end_name},
      {"name_line_end_by_number", WithName("a&#10;b"), line_end_name},
      {"name_delete",
       WithName("a\x7F"
                "b"),
       line_end_name},
      {"name_c1",
       WithName("a\xC2\x9B"
                "b"),
       c1_name},
      {"name_300_bytes", WithName(std::string(300, 'n')), long_name},
      {"name_129_bytes", WithName(std::string(129, 'n')), long_name},
      {"name_130_bytes_of_two", WithName(Repeat("ü", 65)), wide_name},
      {"name_twice", DomainWith("<name>b</name>"), "<domain> has more than one <name>: remove all but one"},
      {"devices_twice", DomainWith("<devices/>"), "<domain> has more than one <devices>: remove all but one"},
      {"uuid_missing", WithUuid(""), "<uuid> is ''. Use the guest's UUID in the form 8-4-4-4-12, not all zeros"},
      {"uuid_malformed", WithUuid("<uuid>../../x</uuid>"),
       "<uuid> is '../../x'. Use the guest's UUID in the form 8-4-4-4-12, not all zeros"},
      {"uuid_zero", WithUuid("<uuid>00000000-0000-0000-0000-000000000000</uuid>"),
       "<uuid> is '00000000-0000-0000-0000-000000000000'. Use the guest's UUID in the form 8-4-4-4-12, not all "
       "zeros"},
      {"vcpu_zero", DomainWith("<vcpu>0</vcpu>"), "<vcpu> is '0': a guest has 1 to 512 virtual CPUs"},
      {"vcpu_513", DomainWith("<vcpu>513</vcpu>"), "<vcpu> is '513': a guest has 1 to 512 virtual CPUs"},
      {"vcpu_negative", DomainWith("<vcpu>-1</vcpu>"), "<vcpu> is '-1': a guest has 1 to 512 virtual CPUs"},
      {"vcpu_plus", DomainWith("<vcpu>+1</vcpu>"), "<vcpu> is '+1': a guest has 1 to 512 virtual CPUs"},
      {"vcpu_hex", DomainWith("<vcpu>0x2</vcpu>"), "<vcpu> is '0x2': a guest has 1 to 512 virtual CPUs"},
      {"vcpu_fraction", DomainWith("<vcpu>1.5</vcpu>"), "<vcpu> is '1.5': a guest has 1 to 512 virtual CPUs"},
      {"vcpu_empty", DomainWith("<vcpu/>"), "<vcpu> is '': a guest has 1 to 512 virtual CPUs"},
      {"vcpu_wraps_64_bits", DomainWith("<vcpu>18446744073709551617</vcpu>"),
       "<vcpu> is '18446744073709551617': a guest has 1 to 512 virtual CPUs"},
      {"vcpu_wraps_32_bits", DomainWith("<vcpu>4294967298</vcpu>"),
       "<vcpu> is '4294967298': a guest has 1 to 512 virtual CPUs"},
      {"memory_missing", WithMemory(""), "<memory> is missing. Set how much memory the guest has"},
      {"memory_unit", WithMemory("<memory unit='PiB'>1</memory>"),
       "<memory> has the unit 'PiB'. Use b, KB, KiB, MB, MiB, GB, GiB, TB or TiB"},
      {"memory_unit_case", WithMemory("<memory unit='mib'>1</memory>"),
       "<memory> has the unit 'mib'. Use b, KB, KiB, MB, MiB, GB, GiB, TB or TiB"},
      {"memory_zero", WithMemory("<memory>0</memory>"), "<memory> is '0' KiB: a guest has 1 to 2097151 MiB of memory"},
      {"memory_negative", WithMemory("<memory unit='MiB'>-512</memory>"),
       "<memory> is '-512' MiB: a guest has 1 to 2097151 MiB of memory"},
      {"memory_too_much", WithMemory("<memory unit='TiB'>2</memory>"),
       "<memory> is '2' TiB: a guest has 1 to 2097151 MiB of memory"},
      {"memory_product_wraps", WithMemory("<memory unit='TiB'>16777217</memory>"),
       "<memory> is '16777217' TiB: a guest has 1 to 2097151 MiB of memory"},
      {"memory_most_bytes", WithMemory("<memory unit='b'>18446744073709551615</memory>"),
       "<memory> is '18446744073709551615' b: a guest has 1 to 2097151 MiB of memory"},
      {"shares_one", DomainWith("<cputune><shares>1</shares></cputune>"),
       "<shares> is '1': a guest's CPU weight is 2 to 262144"},
      {"shares_much", DomainWith("<cputune><shares>262145</shares></cputune>"),
       "<shares> is '262145': a guest's CPU weight is 2 to 262144"},
      {"shares_word", DomainWith("<cputune><shares>high</shares></cputune>"),
       "<shares> is 'high': a guest's CPU weight is 2 to 262144"},
      {"pin_beyond", DomainWith("<vcpu>2</vcpu><cputune><vcpupin vcpu='2' cpuset='0'/></cputune>"),
       "<vcpupin> names the virtual CPU '2': the guest has the virtual CPUs 0 to 1"},
      {"pin_word", DomainWith("<cputune><vcpupin cpuset='0'/></cputune>"),
       "<vcpupin> names the virtual CPU '': the guest has the virtual CPUs 0 to 0"},
      {"container", DomainWith("<os><type>exe</type></os>"),
       "<type> of <os> is 'exe', which is a container. Only virtual machines can be imported"},
      {"boot_order_zero", DomainWith("", Disk("vda", "<boot order='0'/>")),
       "<boot> of the device 'disk' has the order '0': an order is a number from 1"},
      {"boot_order_word", DomainWith("", Nic("52:54:00:00:00:01", "<boot order='first'/>")),
       "<boot> of the device 'interface' has the order 'first': an order is a number from 1"},
      {"usb_five",
       DomainWith("", Repeat("<hostdev type='usb'><source><address bus='1' device='1'/></source></hostdev>", 5)),
       "The guest has more than four USB devices of the host: remove a <hostdev> of type 'usb'"},
      {"usb_nothing", UsbSource(""), kUsbRule},
      {"usb_bus_zero", UsbSource("<address bus='0' device='1'/>"), kUsbRule},
      {"usb_device_much", UsbSource("<address bus='1' device='256'/>"), kUsbRule},
      {"usb_vendor_only", UsbSource("<vendor id='0x1'/>"),
       "<hostdev> of type 'usb' names the vendor '0x1' and the product '': both are hexadecimal numbers of up to four "
       "digits"},
      {"usb_five_digits", UsbSource("<vendor id='0x12345'/><product id='-1'/>"),
       "<hostdev> of type 'usb' names the vendor '0x12345' and the product '-1': both are hexadecimal numbers of up to "
       "four digits"},
      {"disk_network", DiskOf("type='network'", "<source protocol='rbd' name='pool/a'/><target dev='vda'/>"),
       "The disk 'vda' has the type 'network'. Only disks in files and block devices can be imported: copy it into a "
       "file first"},
      {"disk_volume", DiskOf("type='volume'", "<source pool='p' volume='v'/><target dev='vda'/>"),
       "The disk 'vda' has the type 'volume'. Only disks in files and block devices can be imported: copy it into a "
       "file first"},
      {"disk_vmdk", DiskOf("type='file'", "<driver type='vmdk'/><source file='/a'/><target dev='vda'/>"),
       "The disk 'vda' has the format 'vmdk': convert the image to qcow2 or raw first"},
      {"disk_no_source", DiskOf("type='file'", "<target dev='vda'/>"),
       "The source of the disk 'vda' is '': use an absolute path without '..' and control characters"},
      {"disk_relative", DiskOf("type='file'", "<source file='a.img'/><target dev='vda'/>"),
       "The source of the disk 'vda' is 'a.img': use an absolute path without '..' and control characters"},
      {"disk_dots", DiskOf("type='file'", "<source file='/images/../etc/shadow'/><target dev='vda'/>"),
       "The source of the disk 'vda' is '/images/../etc/shadow': use an absolute path without '..' and control "
       "characters"},
      {"disk_dots_last", DiskOf("type='file'", "<source file='/images/..'/><target dev='vda'/>"),
       "The source of the disk 'vda' is '/images/..': use an absolute path without '..' and control characters"},
      {"disk_line_end", DiskOf("type='file'", "<source file='/a&#10;b'/><target dev='vda'/>"),
       "The source of the disk 'vda' is '/a?b': use an absolute path without '..' and control characters"},
      {"disk_device", DiskOf("device='tape'", "<source file='/a'/><target dev='vda'/>"),
       "The disk 'vda' has the device type 'tape': a disk is 'disk', 'lun', 'cdrom' or 'floppy'"},
      {"target_missing", DiskOf("type='file'", "<source file='/a'/>"),
       "<target> of a <disk> has the dev ''. Use a name of letters, digits and '_', such as 'vda'"},
      {"target_path", DiskOf("type='file'", "<source file='/a'/><target dev='../vda'/>"),
       "<target> of a <disk> has the dev '../vda'. Use a name of letters, digits and '_', such as 'vda'"},
      {"target_twice", DomainWith("", Disk("vda") + Disk("vda")),
       "Two disks have the target 'vda'. Give each a different one"},
      {"cdroms",
       DomainWith("",
                  "<disk device='cdrom'><target dev='sda'/></disk><disk device='cdrom'><target dev='sdb'/>"
                  "</disk><disk device='cdrom'><target dev='sdc'/></disk>"),
       "The guest has more than two CD-ROM drives: remove a <disk> with device='cdrom'"},
      {"disks_65", ManyDisks(65), "The guest has more than 64 disks. Remove some"},
      {"nics_65", ManyNics(65), "The guest has more than 64 network interfaces. Remove some"},
      {"mac_missing", DomainWith("", "<interface type='user'/>"), no_mac},
      {"mac_multicast", DomainWith("", Nic("01:00:5e:00:00:01")), multicast},
      {"mac_broadcast", DomainWith("", Nic("ff:ff:ff:ff:ff:ff")), broadcast},
      {"mac_zero", DomainWith("", Nic("00:00:00:00:00:00")), zero},
      {"mac_short", DomainWith("", Nic("52:54:00:0:0:1")), short_mac},
      {"mac_twice", DomainWith("", Nic("52:54:00:00:00:0a") + Nic("52:54:00:00:00:0A")),
       "Two network interfaces have the MAC address '52:54:00:00:00:0a'. Give each a different one"},
      {"network_line_end",
       DomainWith("",
                  "<interface type='bridge'><mac address='52:54:00:00:00:01'/><source bridge='a&#9;b'/></interface>"),
       "The network interface 52:54:00:00:00:01 is in the network 'a?b': a network's name has at most 255 bytes "
       "without "
       "control characters"},
      {"empty", "", "The XML is empty. Use the output of 'virsh dumpxml'"},
      {"blank", " \n\t ", "The XML is empty. Use the output of 'virsh dumpxml'"},
      {"root_snapshot", "<domainsnapshot><domain/></domainsnapshot>",
       "The root element is 'domainsnapshot'. Use a <domain>, as 'virsh dumpxml' prints it"},
      {"root_two", DomainWith("") + DomainWith(""),
       "The XML has more than one root element: import each <domain> from a separate file"},
      {"attribute_twice", DiskOf("type='file' type='block'", ""),
       "An element has the attribute 'type' twice: remove one"},
      {"doctype", "<!DOCTYPE domain>" + DomainWith(""), kDoctype},
      {"doctype_entities", entities + DomainWith("<description>&b;</description>"), kDoctype},
      {"doctype_external", "<!DOCTYPE domain SYSTEM 'file:///etc/passwd'>" + DomainWith(""), kDoctype},
      {"doctype_lower_case", "<!doctype domain>" + DomainWith(""), kDoctype},
      {"doctype_inside", DomainWith("<!DOCTYPE domain>"), kDoctype},
      {"nul", DomainWith("<description>a" + std::string(1, '\0') + "b</description>"),
       "The XML is malformed at line 1: a control character, which XML does not allow"},
      {"escape", DomainWith("\n<description>\x1b[2J</description>"),
       "The XML is malformed at line 2: a control character, which XML does not allow"},
      {"utf8", DomainWith("<description>\xff\xfe</description>"), "The XML is not valid UTF-8: convert it first"},
      {"utf16", std::string("\xff\xfe<\0d\0", 6), "The XML is not valid UTF-8: convert it first"},
      {"surrogate_bytes", WithName("\xed\xa0\x80"), "The XML is not valid UTF-8: convert it first"},
  };
}

void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.test; }

class RefusedDomain : public ::testing::TestWithParam<Refusal> {};

TEST_P(RefusedDomain, Refusal_NamesCauseAndRemedy) { EXPECT_EQ(RefusalOf(GetParam().xml), GetParam().sentence); }

INSTANTIATE_TEST_SUITE_P(Rows, RefusedDomain, ::testing::ValuesIn(Refusals()),
                         [](const auto& parameter) { return std::string(parameter.param.test); });

TEST(Hostile, UnknownOrForbiddenReference_IsRefused) {
  for (const char* text : {"&unknown;", "&#0;", "&#x0;", "&#1;", "&#xD800;", "&#x110000;", "&#xFFFE;", "&#4294967297;",
                           "&;", "&#;", "&#x;", "&#-1;", "&amp", "& ", "&"}) {
    EXPECT_EQ(RefusalOf(WithName("a" + std::string(text))),
              "The XML is malformed at line 1: '&' does not begin a character that XML knows; write '&amp;' for the "
              "character itself")
        << text;
    EXPECT_THAT(RefusalOf(DiskOf("type='" + std::string(text) + "'", "")), HasSubstr("'&' does not begin a character"));
  }
}

TEST(Hostile, Ampersand_InCommentOrCdata_IsNotReference) {
  const ImportedGuest guest = MustParse("<?xml version='1.0'?><!-- a & b <!DOCTYPE> -->" +
                                        DomainWith("<description><![CDATA[&x <y>]]></description>"));
  EXPECT_EQ(guest.guest["desc"], "&x <y>");
}

TEST(Hostile, ByteOrderMark_IsSkipped) { EXPECT_EQ(MustParse("\xEF\xBB\xBF" + DomainWith("")).id, kId); }

TEST(Hostile, HundredThousandLevels_AreRefusedQuickly) {
  EXPECT_EQ(RefusalOf(Repeat("<a>", 100'000)), "The XML is nested more than 64 levels deep. This is not domain XML");
  EXPECT_EQ(RefusalOf("<domain>" + Repeat("<a>", 100'000) + Repeat("</a>", 100'000) + "</domain>"),
            "The XML is nested more than 64 levels deep. This is not domain XML");
}

TEST(Hostile, SixtyFourLevels_AreRead) {
  const auto metadata = [](int levels) {
    return DomainWith(Repeat("<metadata>", levels) + Repeat("</metadata>", levels));
  };
  EXPECT_EQ(RefusalOf(metadata(63)), "");
  EXPECT_THAT(RefusalOf(metadata(64)), StartsWith("The XML is nested more than 64 levels"));
}

TEST(Hostile, Import_MoreThan4Mib_IsRefused) {
  const std::string small = DomainWith("<description></description>");
  const auto padded = [&](std::size_t size) {
    return DomainWith("<description>" + std::string(size - small.size(), 'x') + "</description>");
  };
  EXPECT_EQ(RefusalOf(padded(std::size_t{4} << 20)), "");
  EXPECT_EQ(RefusalOf(padded((std::size_t{4} << 20) + 1)), "The XML has 4194305 bytes: at most 4 MiB are read");
  EXPECT_EQ(RefusalOf(padded(10'000'000)), "The XML has 10000000 bytes: at most 4 MiB are read");
}

TEST(Hostile, ManyAttributes_AreRefused) {
  std::string attributes;
  for (int i = 0; i < 65; ++i) attributes += " a" + std::to_string(i) + "='1'";
  EXPECT_EQ(RefusalOf(DomainWith("<cpu" + attributes + "/>")),
            "An element has more than 64 attributes. This is not domain XML");
}

TEST(Hostile, Import_EveryPrefix_IsRefusedWithoutCrash) {
  const std::string xml = "<?xml version='1.0'?><!-- c -->" +
                          DomainWith("<description><![CDATA[x]]>&amp;&#65;</description>", Disk() + Nic());
  for (std::size_t length = 0; length < xml.size(); ++length) EXPECT_NE(RefusalOf(xml.substr(0, length)), "") << length;
  EXPECT_EQ(RefusalOf(xml), "");
}

TEST(Hostile, Import_EveryByteReplaced_DoesNotCrash) {
  const std::string xml = DomainWith("<description>&amp;</description>", Disk() + Nic());
  for (std::size_t i = 0; i < xml.size(); ++i) {
    for (const char c : {'<', '>', '&', '\'', '/', '!', '\0', '9', '\x80'}) {
      std::string changed = xml;
      changed[i] = c;
      const auto guest = ParseDomainXml(changed, WithImages());
      if (guest.ok()) {
        EXPECT_EQ(guest->id.size(), 36u);
      }
    }
  }
}

TEST(Hostile, MismatchedTags_AreRefusedWithTheirLine) {
  EXPECT_EQ(RefusalOf("<domain>\n<name>a</uuid>\n</domain>"),
            "The XML is malformed at line 2: Start-end tags mismatch");
  EXPECT_THAT(RefusalOf("</domain>"), HasSubstr("an end tag without a start tag"));
}

TEST(Options, Options_InvalidUuids_AreRefused) {
  ImportOptions options;
  options.repository_id = "../x";
  EXPECT_EQ(RefusalOf(DomainWith(""), options), "The repository id '../x' is not a UUID. Use the form 8-4-4-4-12");
  options = {};
  options.host_id = "h";
  EXPECT_EQ(RefusalOf(DomainWith(""), options), "The host id 'h' is not a UUID. Use the form 8-4-4-4-12");
  options = {};
  options.networks["lan"] = "1";
  EXPECT_EQ(RefusalOf(DomainWith(""), options),
            "The id '1' of the network 'lan' is not a UUID. Use the form 8-4-4-4-12");
}

TEST(Options, DiskSize_Unknown_ErrorNamesOption) {
  ImportOptions options;
  options.size_of = [](const std::string& path, ImageFormat) -> Result<std::uint64_t> {
    return Error(ErrorCode::kNotFound, "Cannot read the image '" + path + "'", "No such file or directory");
  };
  EXPECT_EQ(RefusalOf(DomainWith("", Disk()), options),
            "The size of the disk 'vda' is unknown. Set it with --disk-size vda=GiB: Cannot read the image "
            "'/images/vda': No such file or directory");
}

TEST(Options, DiskSize_OutOfRange_IsRefused) {
  ImportOptions options;
  for (const std::uint64_t mib : {std::uint64_t{0}, kMaxDiskMib + 1}) {
    options.disk_sizes_mib["vda"] = mib;
    EXPECT_EQ(RefusalOf(DomainWith("", Disk()), options),
              "The disk 'vda' has " + std::to_string(mib) + " MiB: a disk has 1 to 2147483647 MiB");
  }
}

TEST(Disks, Disks_SixtyFourAndTwoDrives_AreAccepted) {
  std::string devices;
  for (int i = 0; i < 64; ++i) {
    devices += "<disk><source file='/d" + std::to_string(i) + "'/><target dev='vd" + std::to_string(i) + "'/></disk>";
  }
  for (const char* drive : {"sda", "sdb"}) {
    devices += "<disk device='cdrom'><target dev='" + std::string(drive) + "' bus='sata'/><readonly/></disk>";
  }
  ImportOptions options;
  options.size_of = [](const std::string&, ImageFormat) -> Result<std::uint64_t> { return 1 << 20; };
  const auto parsed = ParseDomainXml(DomainWith("", devices), options);
  ASSERT_TRUE(parsed) << parsed.error().ToString();
  EXPECT_EQ(parsed->disks.size(), 64u);
  EXPECT_EQ(parsed->guest["iso_images"].size(), 2u);
}

}  // namespace
}  // namespace vexa::domain_xml
