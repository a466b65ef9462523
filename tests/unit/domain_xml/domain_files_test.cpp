#include "host/domain_xml/domain_files.h"

#include <gmock/gmock.h>

#include "tests/unit/domain_xml/domain_xml_fixture.h"

namespace vexa::domain_xml {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

DomainFiles FilesOf(const std::string& xml) {
  auto files = ParseDomainFiles(xml);
  EXPECT_TRUE(files.ok()) << (files.ok() ? "" : files.error().ToString());
  return files.ok() ? *files : DomainFiles{};
}

std::string FilesRefusal(const std::string& disk) {
  const auto files = ParseDomainFiles(DomainWith("", disk));
  if (files.ok()) return "";
  EXPECT_EQ(files.error().code(), ErrorCode::kInvalid);
  return files.error().message();
}

TEST(DomainFilesOf, Parse_DisksAndDrives_HaveFormats) {
  const DomainFiles files = FilesOf(
      DomainWith("<os><nvram template='/t'>/vars.fd</nvram></os>",
                 "<disk><driver type='qcow2'/><source file='/a'/><target dev='vda'/></disk>"
                 "<disk type='block'><source dev='/dev/b'/><backingStore/><target dev='vdb'/></disk>"
                 "<disk device='cdrom'><source file='/c.iso' startupPolicy='optional'/><target dev='sda'/></disk>"
                 "<disk device='cdrom'><driver type='qcow2'/><target dev='sdb'/></disk>"
                 "<disk device='floppy'><source file='/f'/><target dev='fda'/></disk>"
                 "<disk type='network'><source protocol='rbd' name='pool/x'/><target dev='vdc'/></disk>"));
  ASSERT_EQ(files.images.size(), 5U);
  const char* const names[] = {"disk 'vda'", "disk 'vdb'", "drive 'sda'", "drive 'fda'",
                               "file with the UEFI variables"};
  const char* const paths[] = {"/a", "/dev/b", "/c.iso", "/f", "/vars.fd"};
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(files.images[i].name, names[i]);
    EXPECT_EQ(files.images[i].path, paths[i]);
    EXPECT_EQ(files.images[i].format, i == 0 ? ImageFormat::kQcow2 : ImageFormat::kRaw) << i;
    EXPECT_EQ(files.images[i].is_optional, i == 2 || i == 4) << i;
  }
}

TEST(DomainFilesOf, Parse_ImageThatBringsFilesAlong_IsRefused) {
  const std::string target = "<target dev='vda'/>";
  EXPECT_THAT(FilesRefusal("<disk><source file='/a'/><backingStore type='file'><source file='/b'/></backingStore>" +
                           target + "</disk>"),
              HasSubstr("The disk 'vda' has a backing image. Merge both into one image with 'qemu-img convert'"));
  EXPECT_THAT(
      FilesRefusal("<disk><source file='/a'/><backingStore><source file='/b'/></backingStore>" + target + "</disk>"),
      HasSubstr("has a backing image"));
  EXPECT_THAT(FilesRefusal("<disk><driver type='qcow2'/><source file='/a'><dataStore type='file'><source file='/b'/>"
                           "</dataStore></source>" +
                           target + "</disk>"),
              HasSubstr("The disk 'vda' has its data in another file"));
  EXPECT_THAT(FilesRefusal("<disk type='volume'><source pool='p' volume='v'/>" + target + "</disk>"),
              HasSubstr("The disk 'vda' is in a storage pool. Name its file instead"));
  for (const char* device : {"disk", "cdrom", "floppy", "lun"}) {
    for (const char* format : {"vmdk", "vhdx", "qed", "vdi", "qcow", "auto", ""}) {
      EXPECT_THAT(FilesRefusal(std::string("<disk device='") + device + "'><driver type='" + format +
                               "'/><source file='/a'/>" + target + "</disk>"),
                  HasSubstr("convert the image to qcow2 or raw first"))
          << device << " " << format;
    }
  }
  EXPECT_FALSE(ParseDomainFiles("<network/>").ok());
}

TEST(DomainFilesOf, Parse_OtherPaths_ComeFromDevicesOnly) {
  const DomainFiles files = FilesOf(
      "<domain xmlns:qemu='http://libvirt.org/schemas/domain/qemu/1.0'><name>/n</name><description>/d</description>"
      "<os><loader>/usr/share/code.fd</loader><nvram>/vars.fd</nvram></os><devices>"
      "<disk type='dir' device='floppy'><source dir='/vvfat'/><target dev='fda'/></disk>"
      "<filesystem><source dir='/shared'/></filesystem><filesystem><source socket='/x'/></filesystem>"
      "<interface type='bridge'><source bridge='/br'/></interface>"
      "<serial type='file'><source path='/serial.log'/></serial>"
      "</devices><qemu:commandline><qemu:arg value='-drive'/><qemu:arg value='file=/extra'/></qemu:commandline>"
      "</domain>");
  EXPECT_THAT(files.other_files, UnorderedElementsAre("/usr/share/code.fd", "/serial.log"));
  EXPECT_THAT(files.shared_folders, ElementsAre("/vvfat", "/shared"));
  EXPECT_THAT(files.arguments, ElementsAre("-drive", "file=/extra"));
  EXPECT_THAT(FilesOf(DomainWith("")).other_files, IsEmpty());
}

TEST(DomainFilesOf, ParseFirmwareFiles_AreFiles) {
  const auto firmware = ParseFirmwareFiles(DomainWith("<os><loader> /code.fd</loader><nvram>/vars.fd</nvram></os>"));
  EXPECT_EQ(firmware.loader, "/code.fd");
  EXPECT_EQ(firmware.variables, "/vars.fd");
  EXPECT_EQ(ParseFirmwareFiles(DomainWith("<os><nvram><source file='/v'/></nvram></os>")).variables, "/v");
  EXPECT_EQ(ParseFirmwareFiles(DomainWith("<os><nvram type='network'/></os>")).variables, "");
  EXPECT_EQ(ParseFirmwareFiles("<network/>").loader, "");
}

}  // namespace
}  // namespace vexa::domain_xml
