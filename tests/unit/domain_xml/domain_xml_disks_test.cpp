// Disks and network interfaces: each member of their records, sizes, and unsupported kinds.
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "host/base/json_parse.h"
#include "tests/support/matchers.h"
#include "tests/support/qcow2_image.h"
#include "tests/unit/domain_xml/domain_xml_fixture.h"

namespace vexa::domain_xml {
namespace {

std::string Print(const Json::Value& value) { return value.toStyledString(); }

Json::Value FromText(const char* text) {
  const Result<Json::Value> value = ParseJson(text);
  EXPECT_TRUE(value.ok()) << text;
  return value.ok() ? *value : Json::Value();
}

TEST(DiskRecord, Qcow2OnVirtio_HasEveryMember) {
  ImportOptions options = WithImages();
  options.repository_id = "3F1C7A52-6b0e-4d8f-9a43-5e2d81c0b7f6";
  const ImportedGuest guest = MustParse(DomainWith("", Disk("vda")), options);
  ASSERT_EQ(guest.disks.size(), 1u);
  EXPECT_EQ(guest.disks[0].first, "c706d6db-3679-55d0-b547-97f26f2a47f2");
  EXPECT_EQ(Print(guest.guest["vdisks"]), Print(FromText(R"(["c706d6db-3679-55d0-b547-97f26f2a47f2"])")));
  EXPECT_EQ(Print(guest.disks[0].second), Print(FromText(R"({
    "guest_id": "11111111-2222-4333-8444-555555555555", "repository_id": "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6",
    "name": "vda", "size": 3072, "format": 2, "type": 2, "driver": "qcow2", "path": "/images/vda", "vdisk_mode": 1,
    "is_dummy": false, "unmap": false, "is_meta_disk": false})")));
}

TEST(DiskRecord, BlockDevice_Imported_IsRawAndKeepsPath) {
  const ImportedGuest guest = MustParse(
      DomainWith("", "<disk type='block'><driver type='raw'/><source dev='/dev/vg/x'/><target dev='vda'/></disk>"));
  const Json::Value& disk = guest.disks.at(0).second;
  EXPECT_EQ(disk["type"], 1);
  EXPECT_EQ(disk["driver"], "raw");
  EXPECT_EQ(disk["path"], "/dev/vg/x");
}

TEST(DiskRecord, NoDriverType_IsRaw) {
  const ImportedGuest guest = MustParse(DomainWith("", "<disk><source file='/a'/><target dev='vda'/></disk>"));
  EXPECT_EQ(guest.disks.at(0).second["driver"], "raw");
}

TEST(DiskRecord, DiscardUnmap_IsUnmap) {
  for (const auto& [discard, unmap] : {std::pair("unmap", true), std::pair("ignore", false)}) {
    const ImportedGuest guest = MustParse(DomainWith("", "<disk><driver type='raw' discard='" + std::string(discard) +
                                                             "'/><source file='/a'/><target dev='vda'/></disk>"));
    EXPECT_EQ(guest.disks.at(0).second["unmap"], unmap);
  }
}

TEST(DiskRecord, EveryBus_HasItsMode) {
  struct Row {
    const char* target;
    const char* bus;  // "" for none
    int mode;
  };
  const Row rows[] = {{"vda", "virtio", 1}, {"hda", "ide", 2}, {"sda", "sata", 3}, {"sda", "scsi", 4},
                      {"vda", "", 1},       {"hda", "", 2},    {"sda", "", 4},     {"vda", "scsi", 4}};
  for (const Row& row : rows) {
    const std::string bus = *row.bus == '\0' ? "" : " bus='" + std::string(row.bus) + "'";
    const ImportedGuest guest = MustParse(
        DomainWith("", "<disk><source file='/a'/><target dev='" + std::string(row.target) + "'" + bus + "/></disk>"));
    EXPECT_EQ(guest.disks.at(0).second["vdisk_mode"], row.mode) << row.target << " " << row.bus;
  }
}

TEST(DiskRecord, Bus_Unsupported_IsNotedAndRecordedAsSata) {
  const ImportedGuest guest =
      MustParse(DomainWith("", "<disk><source file='/a'/><target dev='sda' bus='usb'/></disk>"));
  EXPECT_EQ(guest.disks.at(0).second["vdisk_mode"], 3);
  EXPECT_THAT(
      guest.notes,
      Contains("The disk 'sda' is on the bus 'usb': SATA was recorded, and the disk stays where it is until its "
               "bus is edited."));
}

TEST(DiskRecord, FloppyDrive_Imported_HasNoRecord) {
  const ImportedGuest guest =
      MustParse(DomainWith("", "<disk device='floppy'><source file='/a'/><target dev='fda'/></disk>"));
  EXPECT_TRUE(guest.disks.empty());
  EXPECT_THAT(guest.notes, Not(Contains(HasSubstr("fda"))));
}

TEST(DiskRecord, Lun_Imported_IsNotedAndOtherElementsAreNot) {
  const ImportedGuest guest =
      MustParse(DomainWith("",
                           "<disk type='block' device='lun'><source dev='/dev/sdb'/><target dev='sda' bus='scsi'/>"
                           "<iotune/></disk>"));
  EXPECT_THAT(guest.notes, Contains("The disk 'sda' passes SCSI commands through: it was recorded as a plain disk."));
  EXPECT_THAT(guest.notes, Not(Contains(HasSubstr("iotune"))));
}

TEST(DiskSize, Size_OneByteMoreThanMib_IsRoundedUp) {
  ImportOptions options;
  options.size_of = [](const std::string& path, ImageFormat format) -> Result<std::uint64_t> {
    EXPECT_EQ(path, "/images/vda");
    EXPECT_EQ(format, ImageFormat::kQcow2);
    return std::uint64_t{(1 << 20) + 1};
  };
  EXPECT_EQ(MustParse(DomainWith("", Disk()), options).disks.at(0).second["size"], 2);
}

// The guest with one disk, for which the caller gives a size.
ImportedGuest ParseWithGivenSize(ImportOptions options) {
  options.disk_sizes_mib["vda"] = 20480;
  return MustParse(DomainWith("", Disk()), options);
}

TEST(DiskSize, Size_NoImage_ComesFromOption) {
  const ImportedGuest guest = ParseWithGivenSize({});
  EXPECT_EQ(guest.disks.at(0).second["size"], 20480);
  EXPECT_THAT(guest.notes, Not(Contains(HasSubstr("size"))));
}

TEST(DiskSize, Size_ImageUnreadable_ComesFromOptionWithNote) {
  ImportOptions options;
  options.size_of = [](const std::string&, ImageFormat) -> Result<std::uint64_t> {
    return Error(ErrorCode::kDenied, "no");
  };
  const ImportedGuest guest = ParseWithGivenSize(std::move(options));
  EXPECT_EQ(guest.disks.at(0).second["size"], 20480);
  EXPECT_THAT(guest.notes, Contains("The image of the disk 'vda' could not be read: the size given for it was used."));
}

TEST(DiskSize, Size_ImageAndOptionDiffer_ComesFromImage) {
  const ImportedGuest guest = ParseWithGivenSize(WithImages());
  EXPECT_EQ(guest.disks.at(0).second["size"], 3072);
  EXPECT_THAT(guest.notes, Contains("The image of the disk 'vda' has 3072 MiB: the size given for it was not used."));
}

TEST(DiskSize, Size_OptionForMissingDisk_IsNoted) {
  ImportOptions options = WithImages();
  options.disk_sizes_mib["vdz"] = 1024;
  EXPECT_THAT(MustParse(DomainWith("", Disk()), options).notes,
              Contains("The size given for 'vdz' was not used: the guest does not have this disk."));
}

TEST(NicRecord, VirtioOnANetwork_HasEveryMember) {
  const ImportedGuest guest = MustParse(DomainWith("", Nic()));
  ASSERT_EQ(guest.nics.size(), 1u);
  EXPECT_EQ(guest.nics[0].first, "57a4212b-0f02-5cc3-9075-bf9234057c06");
  EXPECT_EQ(Print(guest.guest["vnics"]), Print(FromText(R"(["57a4212b-0f02-5cc3-9075-bf9234057c06"])")));
  Json::Value expected = FromText(R"({
    "guest_id": "11111111-2222-4333-8444-555555555555", "network_name": "default", "prefer_sriov": false,
    "mac_address": "52:54:00:00:00:01", "vnic_type": 1, "prefer_connect_ip": ""})");
  expected["network_group_id"] = NetworkGroupId("default");
  EXPECT_EQ(Print(guest.nics[0].second), Print(expected));
}

TEST(NicRecord, Bridge_HasTheIdOfItsName) {
  const ImportedGuest guest = MustParse(
      DomainWith("", "<interface type='bridge'><mac address='52:54:00:00:00:01'/><source bridge='br0'/></interface>"));
  EXPECT_EQ(guest.nics.at(0).second["network_group_id"], "85aa552e-3ab9-5fc9-998e-b55a462f24e4");
  EXPECT_EQ(guest.nics.at(0).second["network_name"], "br0");
}

TEST(NicRecord, NetworkWithAGivenId_HasThatId) {
  ImportOptions options;
  options.networks["default"] = "ABCDEF00-0000-4000-8000-000000000009";
  EXPECT_EQ(MustParse(DomainWith("", Nic()), options).nics.at(0).second["network_group_id"],
            "abcdef00-0000-4000-8000-000000000009");
}

TEST(NicRecord, Nic_NoSource_HasNoNetwork) {
  const ImportedGuest guest =
      MustParse(DomainWith("", "<interface type='network'><mac address='52:54:00:00:00:01'/></interface>"));
  EXPECT_EQ(guest.nics.at(0).second["network_group_id"], "");
  EXPECT_EQ(guest.nics.at(0).second["network_name"], "");
}

TEST(NicRecord, Nic_UnsupportedType_IsNotedWithoutNetwork) {
  const ImportedGuest guest = MustParse(
      DomainWith("", "<interface type='user'><mac address='52:54:00:00:00:01'/><model type='virtio'/></interface>"));
  EXPECT_EQ(guest.nics.at(0).second["network_group_id"], "");
  EXPECT_THAT(guest.notes,
              Contains("The network interface 52:54:00:00:00:01 has the type 'user': it was recorded without a "
                       "network, and stays unchanged until it gets one."));
}

TEST(NicRecord, Nic_HostDeviceOrItsNetwork_PrefersSriov) {
  const std::string mac = "<mac address='52:54:00:00:00:01'/>";
  for (const std::string& nic :
       {"<interface type='hostdev'>" + mac + "<source><address type='pci'/></source></interface>",
        "<interface type='network'>" + mac + "<source network='sriov'/><driver name='vfio'/></interface>",
        "<interface type='network'>" + mac + "<source network='sriov'/><actual type='hostdev'/></interface>"}) {
    EXPECT_EQ(MustParse(DomainWith("", nic)).nics.at(0).second["prefer_sriov"], true) << nic;
  }
}

TEST(NicRecord, Mac_UpperCase_IsLowered) {
  EXPECT_EQ(MustParse(DomainWith("", Nic("52:54:00:AB:CD:EF"))).nics.at(0).second["mac_address"], "52:54:00:ab:cd:ef");
}

TEST(NicRecord, EveryModel_HasItsType) {
  const std::pair<const char*, int> rows[] = {
      {"virtio", 1}, {"virtio-transitional", 1}, {"virtio-non-transitional", 1}, {"e1000", 2}, {"e1000e", 2},
      {"rtl8139", 3}};
  for (const auto& [model, type] : rows) {
    const ImportedGuest guest =
        MustParse(DomainWith("",
                             "<interface type='bridge'><mac address='52:54:00:00:00:01'/><source bridge='b'/><model "
                             "type='" +
                                 std::string(model) + "'/></interface>"));
    EXPECT_EQ(guest.nics.at(0).second["vnic_type"], type) << model;
  }
}

TEST(NicRecord, Model_Unsupported_IsNotedAndRecordedAsVirtio) {
  const ImportedGuest guest = MustParse(DomainWith(
      "",
      "<interface type='bridge'><mac address='52:54:00:00:00:01'/><source bridge='b'/><model type='ne2k_pci'/>"
      "</interface>"));
  EXPECT_EQ(guest.nics.at(0).second["vnic_type"], 1);
  EXPECT_THAT(guest.notes,
              Contains("The model 'ne2k_pci' of the network interface 52:54:00:00:00:01 is unknown: virtio was "
                       "recorded, and the model stays until it is edited."));
}

TEST(NicRecord, SixtyFourDisksAndNics_AreAccepted) {
  std::string devices;
  for (int i = 0; i < 64; ++i) {
    char mac[18];
    std::snprintf(mac, sizeof mac, "52:54:00:00:00:%02x", static_cast<unsigned>(i & 0xFF));
    devices += Disk("vd" + std::to_string(i)) + Nic(mac);
  }
  const ImportedGuest guest = MustParse(DomainWith("", devices));
  EXPECT_EQ(guest.disks.size(), 64u);
  EXPECT_EQ(guest.nics.size(), 64u);
}

class ImageFile : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = ::testing::TempDir() + "vexa-image-XXXXXX";
    folder_ = ::mkdtemp(pattern.data());
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string Write(const std::string& content) {
    const std::string path = folder_ + "/image";
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  std::string folder_;
};

using namespace std::string_literals;
TEST_F(ImageFile, Qcow2_Header_HasVirtualSize) {
  for (const std::uint32_t version : {2U, 3U}) {
    test::Qcow2Image image;
    image.version = version;
    const auto size = ReadImageSize(Write(image.Text()), ImageFormat::kQcow2);
    ASSERT_TRUE(size.ok());
    EXPECT_EQ(*size, std::uint64_t{20} << 30);
  }
}

TEST_F(ImageFile, Qcow2_NamesOtherFile_IsInvalid) {
  test::Qcow2Image image;
  image.backing_file = "/etc/shadow";
  const auto size = ReadImageSize(Write(image.Text()), ImageFormat::kQcow2);
  ASSERT_FALSE(size.ok());
  EXPECT_EQ(size.error().code(), ErrorCode::kInvalid);
  EXPECT_THAT(size.error().message(), HasSubstr("has the backing file '/etc/shadow'"));
  // The caller says what the image is; nothing is guessed.
  EXPECT_TRUE(ReadImageSize(Write(image.Text()), ImageFormat::kRaw).ok());
}

TEST_F(ImageFile, SymbolicLink_IsInvalid) {
  const std::string path = Write(test::Qcow2Image().Text());
  std::filesystem::create_symlink(path, folder_ + "/link");
  for (const ImageFormat format : {ImageFormat::kRaw, ImageFormat::kQcow2}) {
    const auto size = ReadImageSize(folder_ + "/link", format);
    ASSERT_FALSE(size.ok());
    EXPECT_EQ(size.error().code(), ErrorCode::kInvalid);
    EXPECT_THAT(size.error().message(), HasSubstr("is a symbolic link. Name the file that it leads to"));
  }
}

TEST_F(ImageFile, RawFile_Size_IsItsLength) {
  const std::string path = Write("");
  std::filesystem::resize_file(path, std::uintmax_t{5} << 30);  // sparse
  const auto size = ReadImageSize(path, ImageFormat::kRaw);
  ASSERT_TRUE(size.ok());
  EXPECT_EQ(*size, std::uint64_t{5} << 30);
}

TEST_F(ImageFile, Qcow2_NotAnImage_IsInvalid) {
  for (const std::string& content : {""s, "QFI\xfb"s, "no image"s}) {
    const auto size = ReadImageSize(Write(content), ImageFormat::kQcow2);
    ASSERT_FALSE(size.ok());
    EXPECT_EQ(size.error().code(), ErrorCode::kInvalid);
  }
}

TEST_F(ImageFile, UnusableImage_SizeGiven_IsRefusedByImport) {
  ImportOptions options;
  options.disk_sizes_mib["vda"] = 1;
  options.size_of = [&](const std::string&, ImageFormat format) { return ReadImageSize(Write("no image"), format); };
  EXPECT_THAT(RefusalOf(DomainWith("", Disk()), options), HasSubstr("cannot be used: it is not a qcow2 image"));
}

TEST_F(ImageFile, Qcow2_AbsurdSize_IsRefusedByImport) {
  test::Qcow2Image image;
  image.size = UINT64_MAX;
  Write(image.Text());
  ImportOptions options;
  options.size_of = [this](const std::string&, ImageFormat format) {
    return ReadImageSize(folder_ + "/image", format);
  };
  EXPECT_EQ(RefusalOf(DomainWith("", Disk()), options),
            "The disk 'vda' has 17592186044416 MiB: a disk has 1 to 2147483647 MiB");
}

TEST_F(ImageFile, Missing_IsNotFound) {
  for (const std::string& path : {folder_ + "/none", Write("x") + "/below"}) {
    const auto size = ReadImageSize(path, ImageFormat::kRaw);
    ASSERT_FALSE(size.ok());
    EXPECT_EQ(size.error().code(), ErrorCode::kNotFound);
  }
}

TEST_F(ImageFile, Open_FolderOrFifo_IsInvalidWithoutBlocking) {
  const std::string fifo = folder_ + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {folder_, fifo}) {
    const auto size = ReadImageSize(path, ImageFormat::kRaw);
    ASSERT_FALSE(size.ok());
    EXPECT_EQ(size.error().code(), ErrorCode::kInvalid);
  }
}

}  // namespace
}  // namespace vexa::domain_xml
