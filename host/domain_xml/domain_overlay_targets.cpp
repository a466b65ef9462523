// Finds positions on buses that neither an element of the base nor a record occupies.
#include <algorithm>
#include <set>

#include "host/domain_xml/domain_overlay.h"

namespace vexa::domain_xml::overlay {
namespace {

using build::Bus;

// The maximum number of disks, drives and floppies together.
constexpr std::size_t kMaxPositions = kMaxDisks + 16;

// The address that libvirt derives from a position: the controller, the bus on it and the unit.
struct Address {
  std::uint64_t controller = 0;
  std::uint64_t bus = 0;
  std::uint64_t unit = 0;
};

Address AddressOf(const Bus& bus, std::size_t index) {
  constexpr std::size_t kUnitsPerIdeController = 4;
  constexpr std::size_t kUnitsPerSataController = 6;
  constexpr std::size_t kUnitsPerScsiController = 7;
  if (bus.mode == build::kIde) return {index / kUnitsPerIdeController, index % kUnitsPerIdeController / 2, index % 2};
  const std::size_t units = bus.mode == build::kSata ? kUnitsPerSataController : kUnitsPerScsiController;
  return {index / units, 0, index % units};
}

bool AttributeEquals(pugi::xml_node address, const char* attribute, std::uint64_t number) {
  return parse::ParseUnsigned(address.attribute(attribute).as_string("0")) == number;
}

// Whether `disk` is at the position, according to its name or to an address that overrides it.
bool IsAt(pugi::xml_node disk, const Bus& bus, std::size_t index) {
  const pugi::xml_node target = disk.child("target");
  if (target.attribute("dev").value() == build::TargetName(bus, index)) return true;
  const pugi::xml_node address = disk.child("address");
  if (!HasAttributeValue(target, "bus", bus.name) || !HasAttributeValue(address, "type", "drive")) return false;
  const Address position = AddressOf(bus, index);
  return AttributeEquals(address, "controller", position.controller) && AttributeEquals(address, "bus", position.bus) &&
         AttributeEquals(address, "target", 0) && AttributeEquals(address, "unit", position.unit);
}

bool IsTaken(const Overlay& overlay, const Bus& bus, std::size_t index, pugi::xml_node itself) {
  const auto disks = overlay.devices.children("disk");
  return std::any_of(disks.begin(), disks.end(),
                     [&](pugi::xml_node disk) { return disk != itself && IsAt(disk, bus, index); });
}

std::set<std::string> NamesInRecords(const Overlay& overlay) {
  std::set<std::string> names;
  for (const auto& [id, disk] : overlay.records.disks) {
    if (const Result<std::string> name = build::StringOf(disk, "name", ""); name) names.insert(*name);
  }
  return names;
}

}  // namespace

bool HasIde(const Overlay& overlay) {
  const std::string_view machine = overlay.domain.child("os").child("type").attribute("machine").value();
  return machine == "pc" || machine == "isapc" || machine.starts_with("pc-i440fx") || machine.starts_with("pc-0.") ||
         machine.starts_with("pc-1.");
}

Result<std::string> AssignTarget(const Overlay& overlay, const Bus& bus, const std::string& wanted,
                                 pugi::xml_node itself) {
  const std::string_view machine = overlay.domain.child("os").child("type").attribute("machine").value();
  if (bus.mode == build::kIde && machine.find("q35") != std::string_view::npos) {
    return Invalid(
        "A disk of the guest is on IDE, which the machine type {} of its definition does not have. Put it on virtio, "
        "SATA or SCSI",
        Quote(machine));
  }
  const auto index = build::TargetIndex(wanted, bus);
  if (index && !IsTaken(overlay, bus, *index, itself)) return wanted;
  const std::size_t positions = bus.mode == build::kIde ? build::kMaxIdeDrives : kMaxPositions;
  const std::set<std::string> named = NamesInRecords(overlay);
  for (std::size_t position = 0; position < positions; ++position) {
    const std::string name = build::TargetName(bus, position);
    if (!named.contains(name) && !IsTaken(overlay, bus, position, itself)) return name;
  }
  return Invalid("The guest has no room for another disk on {}. Put it on another bus", bus.name);
}

}  // namespace vexa::domain_xml::overlay
