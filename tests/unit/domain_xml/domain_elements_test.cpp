// What an import reports about elements that have no place in records, and that the report is true.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/domain_xml/domain_build.h"
#include "tests/unit/domain_xml/domain_xml_fixture.h"

namespace vexa::domain_xml {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

struct Row {
  std::string test;
  std::string rest;     // children of <domain>
  std::string devices;  // children of <devices>
  std::string path;
  std::string outcome;
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.test; }

std::string TextOf(const ImportedGuest& guest) {
  std::string text;
  for (const ElementOutcome& element : guest.elements) text += element.path + ": " + element.outcome + "\n";
  return text;
}

std::string Os(const std::string& inside) { return "<os><type arch='x86_64'>hvm</type>" + inside + "</os>"; }

class Element : public ::testing::TestWithParam<Row> {};

TEST_P(Element, Import_Element_IsReportedWithItsOutcome) {
  const Row& row = GetParam();
  const ImportedGuest guest = MustParse(DomainWith(row.rest, row.devices));
  EXPECT_THAT("\n" + TextOf(guest), HasSubstr("\n" + row.path + ": " + row.outcome));
}

// What is reported as kept is in a later definition, after an edit of something else.
TEST_P(Element, Import_ElementIsKept_IsInTheNextDefinition) {
  const Row& row = GetParam();
  if (!row.outcome.starts_with("kept") || row.path == "devices/emulator") GTEST_SKIP() << "depends on the host";
  const ImportedGuest guest = MustParse(DomainWith(row.rest, row.devices));
  GuestRecords records{guest.id, guest.guest, guest.disks, guest.nics};
  records.guest["desc"] = "edited";
  BuildOptions options;
  options.base_xml = guest.xml;
  const Result<std::string> built = BuildDomainXml(records, options);
  ASSERT_TRUE(built.ok()) << built.error().ToString();
  EXPECT_THAT("\n" + TextOf(MustParse(*built)), HasSubstr("\n" + row.path + ": " + row.outcome)) << *built;
}

const Row kRows[] = {
    {"vnc", "", "<graphics type='vnc' port='-1' listen='0.0.0.0'/>", "devices/graphics",
     "kept, with what it listens on; consoles of this system use the first VNC screen"},
    {"vnc_password", "", "<graphics type='vnc' passwd='x'/>", "devices/graphics",
     "kept, with what it listens on and its password"},
    {"spice", "", "<graphics type='vnc'/><graphics type='spice' passwd='x'><listen type='none'/></graphics>",
     "devices/graphics[2]", "kept, with what it listens on; consoles of this system need a VNC screen"},
    {"nvram", Os("<nvram>/vars.fd</nvram>"), "", "os/nvram", "kept: the file belongs to the guest from now on"},
    {"nvram_template", Os("<nvram template='/t.fd'>/vars.fd</nvram>"), "", "os/nvram", "kept, with its template"},
    {"loader", Os("<loader type='pflash'>/code.fd</loader>"), "", "os/loader",
     "kept; changed to firmware that libvirt chooses when 'use_ovmf' is edited"},
    {"secure_loader", Os("<loader secure='yes' type='pflash'>/code.fd</loader>"), "", "os/loader",
     "kept, with secure boot; changed to firmware without it when 'use_ovmf' is edited"},
    {"enrolled_keys", Os("<firmware><feature enabled='yes' name='enrolled-keys'/></firmware>"), "", "os/firmware",
     "kept, also enrolled keys; changed to firmware without secure boot when 'use_ovmf' is edited"},
    {"smm", "<features><acpi/><smm state='on'/></features>", "", "features/smm", "kept: secure boot may need it"},
    {"features", "<features><acpi/><pvspinlock state='on'/></features>", "", "features", "kept; <hyperv> changed when"},
    {"cache", "",
     "<disk><driver name='qemu' type='raw' cache='none' io='native' discard='unmap'/><source file='/a'/>"
     "<target dev='vda' bus='virtio'/></disk>",
     "devices/disk[1]/driver", "kept: cache mode, I/O mode, error policy; 'discard' follows the disk's 'unmap'"},
    {"serial", "", Disk("vda") + Disk("vdb", "<serial>S1</serial>"), "devices/disk[2]/serial", "kept"},
    {"wwn", "", Disk("vda", "<wwn>5000c50015ea71ac</wwn>"), "devices/disk[1]/wwn",
     "kept; dropped: when the disk's bus is edited"},
    {"iotune", "", Disk("vda", "<iotune><total_iops_sec>9</total_iops_sec></iotune>"), "devices/disk[1]/iotune",
     "kept"},
    {"tpm", "", "<tpm model='tpm-crb'><backend type='emulator' version='2.0'/></tpm>", "devices/tpm",
     "kept; the state of an emulated TPM stays where libvirt has it, and is not copied"},
    {"filesystem", "", "<filesystem type='mount'><source dir='/srv'/><target dir='s'/></filesystem>",
     "devices/filesystem", "kept: the guest's machine may open everything in this folder"},
    {"pci", "", "<hostdev mode='subsystem' type='pci'><source><address bus='1'/></source></hostdev>", "devices/hostdev",
     "kept: only hosts that have this device can start the guest"},
    {"usb", "",
     "<hostdev mode='subsystem' type='usb'><source><vendor id='0x1234'/><product id='0x00ab'/></source></hostdev>",
     "devices/hostdev", "kept, and in the guest's 'usbs'; dropped: when it is removed there, and on hosts without USB"},
    {"channel", "", "<channel type='unix'><target type='virtio' name='agent'/></channel>", "devices/channel", "kept"},
    {"sound", "", "<sound model='ich9'/>", "devices/sound", "kept"},
    {"watchdog", "", "<watchdog model='itco' action='reset'/>", "devices/watchdog", "kept"},
    {"memballoon", "", "<memballoon model='virtio'><stats period='10'/></memballoon>", "devices/memballoon",
     "kept, with the period of its statistics"},
    {"arguments",
     "<qemu:commandline xmlns:qemu='http://libvirt.org/schemas/domain/qemu/1.0'><qemu:arg value='-s'/>"
     "</qemu:commandline>",
     "", "qemu:commandline", "kept; files in its arguments are neither copied nor removed with the guest"},
    {"clock", "<clock offset='utc'><timer name='rtc' tickpolicy='catchup'/></clock>", "", "clock",
     "kept; a host that emulates guests drops the timers"},
    {"launch_security", "<launchSecurity type='sev'><policy>0x1</policy></launchSecurity>", "", "launchSecurity",
     "kept: only hosts with this technique can start the guest"},
    {"seclabel", "<seclabel type='dynamic' model='dac'/><seclabel type='none' model='apparmor'/>", "", "seclabel[2]",
     "kept"},
    {"emulator", "", "<emulator>/usr/bin/other</emulator>", "devices/emulator",
     "kept on hosts that have this program; dropped: on others"},
    {"memtune", "<memtune><hard_limit>1</hard_limit></memtune>", "", "memtune",
     "kept where libvirt has cgroups; dropped: on other hosts"},
    {"cputune", "<cputune><quota>1000</quota></cputune>", "", "cputune", "kept until the number of CPUs is edited"},
    {"unknown", "<pm><suspend-to-mem enabled='no'/></pm>", "", "pm", "kept"},
};

INSTANTIATE_TEST_SUITE_P(Rows, Element, ::testing::ValuesIn(kRows),
                         [](const auto& parameter) { return parameter.param.test; });

TEST(Elements, Import_WithRecordsOnly_HasNone) {
  EXPECT_EQ(TextOf(MustParse(DomainWith("<vcpu>2</vcpu>", Disk() + Nic() + "<video><model type='vga'/></video>"))), "");
}

TEST(Elements, Import_TooManyElements_ReportsThatMoreExist) {
  std::string devices;
  for (int i = 0; i < 200; ++i) devices += "<channel type='unix'/>";
  const ImportedGuest guest = MustParse(DomainWith("", devices));
  ASSERT_EQ(guest.elements.size(), 101u);
  EXPECT_EQ(guest.elements[99].path, "devices/channel[100]");
  EXPECT_EQ(guest.elements.back().outcome, "there are more elements than are listed here");
}

}  // namespace
}  // namespace vexa::domain_xml
