// Disks and CD-ROM drives.
#include <algorithm>
#include <optional>
#include <set>

#include "host/domain_xml/domain_build_internal.h"
#include "json/readers.h"

namespace vexa::domain_xml::build {
namespace {

std::size_t CountIde(const GuestRecords& records) {
  const auto count = std::count_if(records.disks.begin(), records.disks.end(), [](const auto& disk) {
    const Result<std::int64_t> mode = ModeOf(disk.second);
    return mode && *mode == kIde;
  });
  return static_cast<std::size_t>(count);
}

// Assigns target names. A disk keeps the name in its record where possible, so that guests find it under its old name.
class TargetNames {
 public:
  explicit TargetNames(const GuestRecords& records) {
    for (const auto& [id, disk] : records.disks) {
      const Result<std::int64_t> mode = ModeOf(disk);
      const Result<std::string> name = StringOf(disk, "name", "");
      if (mode && name && TargetIndex(*name, BusOf(static_cast<int>(*mode)))) reserved_.insert(*name);
    }
  }

  std::string Assign(const std::string& name, const Bus& bus) {
    if (TargetIndex(name, bus) && assigned_.insert(name).second) return name;
    for (std::size_t index = 0;; ++index) {
      const std::string free = TargetName(bus, index);
      if (reserved_.count(free) == 0 && assigned_.insert(free).second) return free;
    }
  }

 private:
  std::set<std::string> reserved_;
  std::set<std::string> assigned_;
};

// Adds the controllers up to that of position `index`. libvirt would add controllers of an obsolete model.
void AddScsiControllers(Context& context, std::size_t index) {
  constexpr std::size_t kUnitsPerController = 7;  // libvirt's, for disks without an address
  const std::size_t needed = index / kUnitsPerController + 1;
  for (; context.scsi_controllers < needed; ++context.scsi_controllers) {
    pugi::xml_node controller = Add(context.devices, "controller");
    Set(controller, "type", "scsi");
    Set(controller, "index", std::to_string(context.scsi_controllers));
    Set(controller, "model", "virtio-scsi");
  }
}

Status WriteDisk(Context& context, const std::string& id, const Json::Value& disk, TargetNames& targets) {
  const Result<std::int64_t> mode = ModeOf(disk);
  const Result<std::string> format = FormatOf(disk);
  const Result<std::string> path = StringOf(disk, "path", "");
  const Result<std::string> name = StringOf(disk, "name", "");
  if (!mode) return mode.error();
  for (const auto* text : {&format, &path, &name}) {
    if (!*text) return text->error();
  }
  if (!parse::IsPlainPath(*path) || XmlText(*path) != *path) {
    return Invalid("The path of the disk {} is {}: use an absolute path without '..' and control characters", Quote(id),
                   Quote(*path));
  }
  const Bus& bus = BusOf(static_cast<int>(*mode));
  const bool block = path->starts_with("/dev/");
  pugi::xml_node element = Add(context.devices, "disk");
  Set(element, "type", block ? "block" : "file");
  Set(element, "device", "disk");
  pugi::xml_node driver = Add(element, "driver");
  Set(driver, "name", "qemu");
  Set(driver, "type", *format);
  if (FlagOf(disk, "unmap")) Set(driver, "discard", "unmap");
  Set(Add(element, "source"), block ? "dev" : "file", *path);
  pugi::xml_node target = Add(element, "target");
  const std::string assigned = targets.Assign(*name, bus);
  Set(target, "dev", assigned);
  Set(target, "bus", bus.name);
  Set(Add(element, "boot"), "order", std::to_string(++context.boot_order));
  if (bus.mode == kScsi) AddScsiControllers(context, TargetIndex(assigned, bus).value_or(0));
  return {};
}

// The path for each drive; empty for an empty drive.
Result<std::vector<std::string>> ImagePaths(const Context& context) {
  const Result<Json::Value> images = IsoImagesOf(context.guest());
  if (!images) return images.error();
  std::vector<std::string> paths;
  for (const Json::Value& entry : *images) {
    if (!entry.isString()) return Invalid("An entry of 'iso_images' of the guest is not a string");
    const std::string image = json::String(entry);
    if (image.empty() || image == "unmounted") {
      paths.emplace_back();
      continue;
    }
    const Result<std::string> path = context.options.image_path ? context.options.image_path(image) : image;
    if (!path) return path.error();
    if (!parse::IsPlainPath(*path) || XmlText(*path) != *path) {
      return Invalid("The ISO image {} is at {}: use an absolute path without '..' and control characters",
                     Quote(image), Quote(*path));
    }
    paths.push_back(*path);
  }
  return paths;
}

// The bus of the CD-ROM drives: IDE while there is room, because systems that need IDE for their disks may not support
// another bus.
const Bus& DriveBus(const Context& context, std::size_t drives) {
  const bool has_room = CountIde(context.records) + drives <= kMaxIdeDrives;
  return BusOf(context.legacy_machine && has_room ? kIde : kSata);
}

void WriteDrive(Context& context, const std::string& path, const Bus& bus, TargetNames& targets) {
  pugi::xml_node element = Add(context.devices, "disk");
  Set(element, "type", "file");
  Set(element, "device", "cdrom");
  pugi::xml_node driver = Add(element, "driver");
  Set(driver, "name", "qemu");
  Set(driver, "type", "raw");
  if (!path.empty()) Set(Add(element, "source"), "file", path);
  pugi::xml_node target = Add(element, "target");
  Set(target, "dev", targets.Assign("", bus));
  Set(target, "bus", bus.name);
  Add(element, "readonly");
  Set(Add(element, "boot"), "order", std::to_string(++context.boot_order));
}

Status WriteHardDisks(Context& context, TargetNames& targets) {
  for (const auto& [id, disk] : context.records.disks) {
    if (Status written = WriteDisk(context, id, disk, targets); !written) return written;
  }
  return {};
}

}  // namespace

bool NeedsLegacyMachine(const GuestRecords& records) { return CountIde(records) > 0; }

Status WriteDisks(Context& context) {
  if (context.records.disks.size() > kMaxDisks) return parse::TooManyDisks();
  if (CountIde(context.records) > kMaxIdeDrives) {
    return Invalid("The guest has more than four disks on IDE. Move some to another bus");
  }
  const Result<std::string> from = BootSourceOf(context.guest());
  if (!from) return from.error();
  const Result<std::vector<std::string>> images = ImagePaths(context);
  if (!images) return images.error();

  TargetNames targets(context.records);
  const Bus& bus = DriveBus(context, images->size());
  const auto write_drives = [&] {
    for (const std::string& path : *images) WriteDrive(context, path, bus, targets);
  };
  if (*from == "iso") write_drives();
  if (Status disks = WriteHardDisks(context, targets); !disks) return disks;
  if (*from == "disk") write_drives();
  return {};
}

}  // namespace vexa::domain_xml::build
