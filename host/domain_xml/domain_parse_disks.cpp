// <disk>: disks become records, CD-ROM drives become the guest's ISO images, floppies have no record.
#include <algorithm>
#include <set>

#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml::parse {
namespace {

constexpr std::uint64_t kMib = std::uint64_t{1} << 20;
constexpr std::size_t kMaxIsoImages = 2;
constexpr std::size_t kMaxDrives = 8;
constexpr std::size_t kMaxTargetBytes = 32;

constexpr int kRecordFormat = 2;
constexpr int kTypeRaw = 1;
constexpr int kTypeQcow2 = 2;

struct Bus {
  std::string_view name;
  std::string_view target_prefix;  // libvirt's rule for a <target> without a bus
  int mode;
};
constexpr Bus kBuses[] = {{"virtio", "vd", 1}, {"ide", "hd", 2}, {"sata", "", 3}, {"scsi", "sd", 4}};
constexpr int kSubstituteMode = 3;  // SATA: every system has a driver for it

std::string ValueOf(pugi::xml_node element, const char* attribute, const char* fallback = "") {
  return element.attribute(attribute).as_string(fallback);
}

bool IsTargetName(std::string_view text) {
  return !text.empty() && text.size() <= kMaxTargetBytes && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  });
}

int ModeOf(pugi::xml_node target, const std::string& name, Context& context) {
  const std::string bus = ValueOf(target, "bus");
  for (const Bus& known : kBuses) {
    if (bus == known.name) return known.mode;
    if (bus.empty() && !known.target_prefix.empty() && name.starts_with(known.target_prefix)) return known.mode;
  }
  context.Note(
      "The disk {} is on the bus {}: SATA was recorded, and the disk stays where it is until its bus is edited.",
      Quote(name), Quote(bus));
  return kSubstituteMode;
}

std::uint64_t RoundUpToMib(std::uint64_t bytes) { return bytes / kMib + (bytes % kMib != 0 ? 1 : 0); }

// From the image when it can be read, otherwise from the options.
Result<std::uint64_t> SizeMib(const std::string& name, const std::string& path, ImageFormat format, Context& context) {
  const auto& sizes = context.options.disk_sizes_mib;
  const auto option = sizes.find(name);
  Result<std::uint64_t> bytes = Error(ErrorCode::kNotFound, "Images are not read");
  if (context.options.size_of) bytes = context.options.size_of(path, format);
  if (!bytes && bytes.error().code() == ErrorCode::kInvalid) return bytes.error();
  if (!bytes && option == sizes.end()) {
    return Error(ErrorCode::kInvalid,
                 fmt::format("The size of the disk {} is unknown. Set it with --disk-size {}=GiB", Quote(name), name),
                 bytes.error().ToString());
  }
  const std::uint64_t size = bytes ? RoundUpToMib(*bytes) : option->second;
  if (size < 1 || size > kMaxDiskMib) {
    return Invalid("The disk {} has {} MiB: a disk has 1 to {} MiB", Quote(name), size, kMaxDiskMib);
  }
  if (bytes && option != sizes.end() && option->second != size) {
    context.Note("The image of the disk {} has {} MiB: the size given for it was not used.", Quote(name), size);
  }
  if (!bytes && bytes.error().code() != ErrorCode::kNotFound) {
    context.Note("The image of the disk {} could not be read: the size given for it was used.", Quote(name));
  }
  return size;
}

void ReadCdrom(pugi::xml_node disk, const std::string& name, Context& context) {
  const std::string type = ValueOf(disk, "type", "file");
  std::string image = ValueOf(disk.child("source"), "file");
  if (type != "file" && disk.child("source")) {
    context.Note("The medium of the CD-ROM drive {} has the type {}: the record shows an empty drive.", Quote(name),
                 Quote(type));
    image.clear();
  } else if (!image.empty() && !IsPlainPath(image)) {
    context.Note(
        "The medium of the CD-ROM drive {} is {}, which is not an absolute path. The record shows an empty drive.",
        Quote(name), Quote(image));
    image.clear();
  }
  context.guest()["iso_images"].append(image.empty() ? "unmounted" : image);
}

Status CheckDriver(const std::string& name, const std::string& type, const std::string& driver) {
  if (type != "file" && type != "block") {
    return Invalid(
        "The disk {} has the type {}. Only disks in files and block devices can be imported: copy it into a file first",
        Quote(name), Quote(type));
  }
  if (driver != "qcow2" && driver != "raw") {
    return Invalid("The disk {} has the format {}: convert the image to qcow2 or raw first", Quote(name),
                   Quote(driver));
  }
  return {};
}

Status ReadDisk(pugi::xml_node disk, const std::string& name, Context& context) {
  const std::string type = ValueOf(disk, "type", "file");
  const std::string driver = ValueOf(disk.child("driver"), "type", "raw");  // libvirt does not probe formats
  if (Status driven = CheckDriver(name, type, driver); !driven) return driven;

  const std::string path = ValueOf(disk.child("source"), type == "file" ? "file" : "dev");
  if (!IsPlainPath(path)) {
    return Invalid("The source of the disk {} is {}: use an absolute path without '..' and control characters",
                   Quote(name), Quote(path));
  }
  const bool qcow2 = driver == "qcow2";
  const auto size = SizeMib(name, path, qcow2 ? ImageFormat::kQcow2 : ImageFormat::kRaw, context);
  if (!size) return size.error();

  Json::Value record(Json::objectValue);
  record["guest_id"] = context.result.id;
  record["repository_id"] = context.guest()["repository_id"];
  record["name"] = name;
  record["size"] = static_cast<Json::Int64>(*size);
  record["format"] = kRecordFormat;
  record["type"] = qcow2 ? kTypeQcow2 : kTypeRaw;
  record["driver"] = driver;
  record["path"] = path;
  record["vdisk_mode"] = ModeOf(disk.child("target"), name, context);
  record["is_dummy"] = false;
  record["unmap"] = ValueOf(disk.child("driver"), "discard") == "unmap";
  record["is_meta_disk"] = false;
  context.result.disks.emplace_back(NameBasedUuid(context.result.id + "/disk/" + name), std::move(record));
  context.guest()["vdisks"].append(context.result.disks.back().first);
  return {};
}

Status ReadOne(pugi::xml_node disk, const std::string& name, Context& context) {
  const std::string device = ValueOf(disk, "device", "disk");
  if (device == "floppy") return {};
  if (device == "cdrom") {
    if (context.guest()["iso_images"].size() == kMaxIsoImages) {
      return Invalid("The guest has more than two CD-ROM drives: remove a <disk> with device='cdrom'");
    }
    ReadCdrom(disk, name, context);
    return {};
  }
  if (device != "disk" && device != "lun") {
    return Invalid("The disk {} has the device type {}: a disk is 'disk', 'lun', 'cdrom' or 'floppy'", Quote(name),
                   Quote(device));
  }
  if (device == "lun") {
    context.Note("The disk {} passes SCSI commands through: it was recorded as a plain disk.", Quote(name));
  }
  return ReadDisk(disk, name, context);
}

}  // namespace

Status ReadDisks(pugi::xml_node devices, Context& context) {
  context.guest()["vdisks"] = Json::Value(Json::arrayValue);
  std::set<std::string> names;
  for (const pugi::xml_node disk : devices.children("disk")) {
    const std::string name = ValueOf(disk.child("target"), "dev");
    if (!IsTargetName(name)) {
      return Invalid("<target> of a <disk> has the dev {}. Use a name of letters, digits and '_', such as 'vda'",
                     Quote(name));
    }
    if (!names.insert(name).second) {
      return Invalid("Two disks have the target {}. Give each a different one", Quote(name));
    }
    if (Status one = ReadOne(disk, name, context); !one) return one;
    // Drives do not count as disks, but neither may be unlimited.
    if (context.result.disks.size() > kMaxDisks || names.size() > kMaxDisks + kMaxDrives) {
      return TooManyDisks();
    }
  }
  for (const auto& [name, size] : context.options.disk_sizes_mib) {
    const auto& disks = context.result.disks;
    const bool used = std::any_of(disks.begin(), disks.end(), [&, wanted = std::string_view(name)](const auto& disk) {
      return disk.second["name"].asString() == wanted;
    });
    if (!used) context.Note("The size given for {} was not used: the guest does not have this disk.", Quote(name));
  }
  return {};
}

}  // namespace vexa::domain_xml::parse
