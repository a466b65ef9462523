// Fixture for edit tests: a guest with two disks and two interfaces in a real store and real folders, and
// another guest beside it.
#pragma once

#include <json/value.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/disks/image_file.h"
#include "host/domain_xml/domain_build.h"
#include "host/domain_xml/domain_parse.h"
#include "host/guests/edit/edit.h"
#include "host/records/run_record.h"
#include "tests/support/test_host.h"
#include "tests/unit/guests/guest_deletion_environment.h"

namespace vexa::test {

using guests::EditOptions;
using guests::Edits;

inline constexpr char kEdited[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
inline constexpr char kNeighbour[] = "c4a9e7d2-5b31-4f86-a07c-1e2d3f4a5b6c";
inline constexpr char kRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
inline constexpr char kDisk0[] = "d0000000-0000-4000-8000-000000000000";
inline constexpr char kDisk1[] = "d0000000-0000-4000-8000-000000000001";
inline constexpr char kNic0[] = "e0000000-0000-4000-8000-000000000000";
inline constexpr char kNic1[] = "e0000000-0000-4000-8000-000000000001";
inline constexpr char kNetwork0[] = "f0000000-0000-4000-8000-000000000000";
inline constexpr char kNetwork1[] = "f0000000-0000-4000-8000-000000000001";
inline constexpr char kNetworkByRecord[] = "f0000000-0000-4000-8000-000000000002";
inline constexpr char kUnknownId[] = "99999999-9999-4999-8999-999999999999";

class EditEnvironment {
 public:
  EditEnvironment() { std::filesystem::create_directory(folder_.File("images")); }

  std::shared_ptr<FaultyStore> OpenStore() const { return OpenStoreIn(folder_); }
  guests::EditOptions Options(std::shared_ptr<store::Store> store) const {
    guests::EditOptions options;
    options.store = std::move(store);
    options.host_id = kThisHost;
    options.image_roots = {folder_.File("images")};
    return options;
  }
  std::string Folder() const { return folder_.File(std::string("images/") + kRepository); }
  std::string PathOf(const std::string& disk_id) const { return Folder() + "/" + disk_id + ".qcow2"; }
  std::string File(const std::string& name) const { return folder_.File(name); }

  // The size that a guest sees of each image, by its file's name; of anything else -1.
  std::map<std::string, std::int64_t> Images() const {
    std::map<std::string, std::int64_t> images;
    if (!std::filesystem::exists(Folder())) return images;
    for (const auto& entry : std::filesystem::directory_iterator(Folder())) {
      auto size = domain_xml::ReadImageSize(entry.path(), domain_xml::ImageFormat::kQcow2);
      if (!size) size = domain_xml::ReadImageSize(entry.path(), domain_xml::ImageFormat::kRaw);
      images[entry.path().filename()] = size ? static_cast<std::int64_t>(*size) : -1;
    }
    return images;
  }

  // Disk 0 is qcow2 and has 8 MiB, disk 1 is raw and has 16.
  void Fill(store::Store& store, const std::string& repository_host = kThisHost) const {
    std::filesystem::create_directories(Folder());
    const disks::DiskFiles files({folder_.File("images")}, {});
    for (const auto& [id, format, mib] : {std::tuple(kDisk0, domain_xml::ImageFormat::kQcow2, 8),
                                          std::tuple(kDisk1, domain_xml::ImageFormat::kRaw, 16)}) {
      const auto image = disks::MakeEmptyImage(format, std::uint64_t(mib) << 20);
      Require(files.Create(PathOf(id), image.length, image.pieces));
      Json::Value disk = Parsed(R"({"unmap":false,"format":2,"is_dummy":false,"is_meta_disk":false,"vdisk_mode":1})");
      const bool is_raw = format == domain_xml::ImageFormat::kRaw;
      disk["guest_id"] = kEdited;
      disk["repository_id"] = kRepository;
      disk["name"] = is_raw ? "vdb" : "vda";
      disk["size"] = mib;
      disk["driver"] = is_raw ? "raw" : "qcow2";
      disk["type"] = is_raw ? 1 : 2;
      disk["path"] = PathOf(id);
      PutRecord(store, KeyOf("vdisk", id), disk);
    }
    PutNic(store, kNic0, kEdited, kNetwork0, "br0", "02:00:00:00:00:01");
    PutNic(store, kNic1, kEdited, "", "", "02:00:00:00:00:02");
    PutNic(store, "nic-of-neighbour", kNeighbour, kNetwork1, "br1", "02:00:00:00:00:03");
    Json::Value guest = Parsed(R"({"name":"web","vcpu_num":2,"vram_size":512,"cpu_weight":256,"cpu_pin_num":0,
        "usb_version":2,"usbs":["unmounted","unmounted","unmounted","unmounted"],"iso_images":[],"autorun":0,
        "boot_from":"disk","use_ovmf":false,"cpu_passthru":false,"video_card":"vga","kb_layout":"Default"})");
    guest["host_id"] = kThisHost;
    guest["repository_id"] = kRepository;
    guest["vdisks"] = Parsed(std::string("[\"") + kDisk0 + "\",\"" + kDisk1 + "\"]");
    guest["vnics"] = Parsed(std::string("[\"") + kNic0 + "\",\"" + kNic1 + "\"]");
    PutRecord(store, KeyOf("guest", kEdited), guest);
    PutRecord(store, KeyOf("guest", kNeighbour), Parsed(R"({"name":"db","vnics":["nic-of-neighbour"]})"));
    PutRecord(store, KeyOf("network", kNetworkByRecord), Parsed(R"({"name":"office","bridge_name":"br2"})"));
    Json::Value repository(Json::objectValue);
    repository["host_id"] = repository_host;
    PutRecord(store, KeyOf("repository", kRepository), repository);
  }

  static void PutNic(store::Store& store, const std::string& id, const std::string& guest_id,
                     const std::string& network_id, const std::string& name, const std::string& mac) {
    Json::Value nic = Parsed(R"({"prefer_connect_ip":"","vnic_type":1})");
    nic["guest_id"] = guest_id;
    nic["network_group_id"] = network_id;
    nic["network_name"] = name;
    nic["mac_address"] = mac;
    PutRecord(store, KeyOf("vnic", id), nic);
  }

 private:
  TempDir folder_;
};

inline Json::Value RecordOf(const store::Store& store, const std::string& category, const std::string& id) {
  const auto text = TextOf(store, KeyOf(category, id));
  return text ? Parsed(*text) : Json::Value();
}

inline domain_xml::GuestRecords RecordsOf(const store::Store& store) {
  domain_xml::GuestRecords records;
  records.id = kEdited;
  records.guest = RecordOf(store, "guest", kEdited);
  for (const auto& id : records.guest["vdisks"]) {
    records.disks.emplace_back(id.asString(), RecordOf(store, "vdisk", id.asString()));
  }
  for (const auto& id : records.guest["vnics"]) {
    records.nics.emplace_back(id.asString(), RecordOf(store, "vnic", id.asString()));
  }
  return records;
}

// The name of the disk's file.
inline std::string FileOf(const Json::Value& disk) { return std::filesystem::path(disk["path"].asString()).filename(); }

inline void PutRun(store::Store& store) {
  records::Run run;
  run.host_id = kThisHost;
  PutText(store, records::RunKey(kEdited), records::SerializeRun(run));
}

}  // namespace vexa::test
