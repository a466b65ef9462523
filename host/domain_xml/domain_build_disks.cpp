// Disks and CD-ROM drives.
#include <algorithm>
#include <optional>
#include <set>

#include "host/domain_xml/domain_build_internal.h"
#include "host/domain_xml/domain_xml.h"
#include "host/domain_xml/domain_xml_internal.h"
#include "json/readers.h"

namespace vexa::hypervisor::domain_build {
namespace {

using domain_xml::Quote;
using domain_xml::Refused;

std::size_t CountIde(const GuestRecords& records) {
  const auto count = std::count_if(records.disks.begin(), records.disks.end(), [](const auto& disk) {
    const Result<std::int64_t> mode = ModeOf(disk.second);
    return mode && *mode == kIde;
  });
  return static_cast<std::size_t>(count);
}

// Assigns target names. A disk keeps the name in its record where possible, so that guests find their disks in place.
class Targets {
 public:
  explicit Targets(const GuestRecords& records) {
    for (const auto& [id, disk] : records.disks) {
      const Result<std::int64_t> mode = ModeOf(disk);
      const Result<std::string> name = TextOf(disk, "name", "");
      if (mode && name && TargetIndex(*name, BusOf(static_cast<int>(*mode)))) wanted_.insert(*name);
    }
  }

  std::string Take(const std::string& name, const Bus& bus) {
    if (TargetIndex(name, bus) && taken_.insert(name).second) return name;
    for (std::size_t index = 0;; ++index) {
      const std::string free = TargetName(bus, index);
      if (wanted_.count(free) == 0 && taken_.insert(free).second) return free;
    }
  }

 private:
  std::set<std::string> wanted_;
  std::set<std::string> taken_;
};

// libvirt would add missing controllers with an obsolete model.
void AddScsiControllers(Context& context, std::size_t index) {
  constexpr std::size_t kUnits = 7;  // of one controller, as libvirt numbers disks that only have a name
  const std::size_t needed = index / kUnits + 1;
  for (; context.scsi_controllers < needed; ++context.scsi_controllers) {
    pugi::xml_node controller = Add(context.devices, "controller");
    Set(controller, "type", "scsi");
    Set(controller, "index", std::to_string(context.scsi_controllers));
    Set(controller, "model", "virtio-scsi");
  }
}

Status WriteDisk(Context& context, const std::string& id, const Json::Value& disk, Targets& targets) {
  const Result<std::int64_t> mode = ModeOf(disk);
  const Result<std::string> format = FormatOf(disk);
  const Result<std::string> path = TextOf(disk, "path", "");
  const Result<std::string> name = TextOf(disk, "name", "");
  if (!mode) return mode.error();
  for (const auto* text : {&format, &path, &name}) {
    if (!*text) return text->error();
  }
  if (!domain_xml::IsPlainPath(*path) || XmlText(*path) != *path) {
    return Refused("The path of the disk " + Quote(id) + " is " + Quote(*path) +
                   ": an image has an absolute path without '..' and control characters");
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
  const std::string taken = targets.Take(*name, bus);
  Set(target, "dev", taken);
  Set(target, "bus", bus.name);
  Set(Add(element, "boot"), "order", std::to_string(++context.boot_order));
  if (bus.mode == kScsi) AddScsiControllers(context, TargetIndex(taken, bus).value_or(0));
  return {};
}

// The path for each drive; empty for an empty drive.
Result<std::vector<std::string>> ImagePaths(const Context& context) {
  const Json::Value& images = json::Member(context.guest(), "iso_images");
  if (!images.isNull() && (!images.isArray() || images.size() > kMaxIsoImages)) {
    return Refused("The member 'iso_images' of the guest is not a list of at most two images");
  }
  std::vector<std::string> paths;
  for (const Json::Value& entry : json::Elements(images)) {
    if (!entry.isString()) return Refused("An entry of 'iso_images' of the guest is not a text");
    const std::string image = json::String(entry);
    if (image.empty() || image == "unmounted") {
      paths.emplace_back();
      continue;
    }
    const Result<std::string> path = context.options.image_path ? context.options.image_path(image) : image;
    if (!path) return path.error();
    if (!domain_xml::IsPlainPath(*path) || XmlText(*path) != *path) {
      return Refused("The ISO image " + Quote(image) + " is at " + Quote(*path) +
                     ": an image has an absolute path without '..' and control characters");
    }
    paths.push_back(*path);
  }
  return paths;
}

// IDE while there is room: systems that need IDE for their disks may not support another bus.
const Bus& DriveBus(const Context& context, std::size_t drives) {
  const bool room = CountIde(context.records) + drives <= kMaxIdeDrives;
  return BusOf(context.legacy_machine && room ? kIde : kSata);
}

void WriteDrive(Context& context, const std::string& path, const Bus& bus, Targets& targets) {
  pugi::xml_node element = Add(context.devices, "disk");
  Set(element, "type", "file");
  Set(element, "device", "cdrom");
  pugi::xml_node driver = Add(element, "driver");
  Set(driver, "name", "qemu");
  Set(driver, "type", "raw");
  if (!path.empty()) Set(Add(element, "source"), "file", path);
  pugi::xml_node target = Add(element, "target");
  Set(target, "dev", targets.Take("", bus));
  Set(target, "bus", bus.name);
  Add(element, "readonly");
  Set(Add(element, "boot"), "order", std::to_string(++context.boot_order));
}

Status WriteHardDisks(Context& context, Targets& targets) {
  for (const auto& [id, disk] : context.records.disks) {
    if (Status written = WriteDisk(context, id, disk, targets); !written) return written;
  }
  return {};
}

}  // namespace

bool NeedsLegacyMachine(const GuestRecords& records) { return CountIde(records) > 0; }

Status WriteDisks(Context& context) {
  if (context.records.disks.size() > kMaxDisks) {
    return Refused("The guest has more than " + std::to_string(kMaxDisks) + " disks");
  }
  if (CountIde(context.records) > kMaxIdeDrives) {
    return Refused("The guest has more than four disks on IDE: a machine has room for four");
  }
  const Result<std::string> from = TextOf(context.guest(), "boot_from", "disk");
  if (!from) return from.error();
  if (*from != "disk" && *from != "iso") {
    return Refused("The member 'boot_from' of the guest says " + Quote(*from) + ": a guest boots from 'disk' or 'iso'");
  }
  const Result<std::vector<std::string>> images = ImagePaths(context);
  if (!images) return images.error();

  Targets targets(context.records);
  const Bus& bus = DriveBus(context, images->size());
  const auto write_drives = [&] {
    for (const std::string& path : *images) WriteDrive(context, path, bus, targets);
  };
  if (*from == "iso") write_drives();
  if (Status disks = WriteHardDisks(context, targets); !disks) return disks;
  if (*from == "disk") write_drives();
  return {};
}

}  // namespace vexa::hypervisor::domain_build
