// Finds positions on buses that neither an element of the base nor a record occupies.
#include <algorithm>
#include <set>

#include "host/domain_xml/domain_overlay.h"
#include "host/domain_xml/domain_xml_internal.h"

namespace vexa::hypervisor::domain_overlay {
namespace {

using domain_build::Bus;
using domain_xml::Quote;

// The maximum number of disks, drives and floppies together.
constexpr std::size_t kMaxPlaces = kMaxDisks + 16;

// The address that libvirt derives from a position: the controller, the bus on it and the unit.
struct Address {
  std::uint64_t controller = 0;
  std::uint64_t bus = 0;
  std::uint64_t unit = 0;
};

Address AddressOf(const Bus& bus, std::size_t index) {
  constexpr std::size_t kOnIde = 4;
  constexpr std::size_t kOnSata = 6;
  constexpr std::size_t kOnScsi = 7;
  if (bus.mode == domain_build::kIde) return {index / kOnIde, index % kOnIde / 2, index % 2};
  const std::size_t units = bus.mode == domain_build::kSata ? kOnSata : kOnScsi;
  return {index / units, 0, index % units};
}

bool Is(pugi::xml_node address, const char* attribute, std::uint64_t number) {
  return domain_xml::ParseUnsigned(address.attribute(attribute).as_string("0")) == number;
}

// Whether `disk` is at the position, according to its name or to an address that overrides it.
bool IsAt(pugi::xml_node disk, const Bus& bus, std::size_t index) {
  const pugi::xml_node target = disk.child("target");
  if (target.attribute("dev").value() == domain_build::TargetName(bus, index)) return true;
  const pugi::xml_node address = disk.child("address");
  if (!Says(target, "bus", bus.name) || !Says(address, "type", "drive")) return false;
  const Address place = AddressOf(bus, index);
  return Is(address, "controller", place.controller) && Is(address, "bus", place.bus) && Is(address, "target", 0) &&
         Is(address, "unit", place.unit);
}

bool IsTaken(const Overlay& overlay, const Bus& bus, std::size_t index, pugi::xml_node itself) {
  const auto disks = overlay.devices.children("disk");
  return std::any_of(disks.begin(), disks.end(),
                     [&](pugi::xml_node disk) { return disk != itself && IsAt(disk, bus, index); });
}

std::set<std::string> NamesInRecords(const Overlay& overlay) {
  std::set<std::string> names;
  for (const auto& [id, disk] : overlay.records.disks) {
    if (const Result<std::string> name = domain_build::TextOf(disk, "name", ""); name) names.insert(*name);
  }
  return names;
}

}  // namespace

bool HasIde(const Overlay& overlay) {
  const std::string_view machine = overlay.domain.child("os").child("type").attribute("machine").value();
  return machine == "pc" || machine == "isapc" || machine.starts_with("pc-i440fx") || machine.starts_with("pc-0.") ||
         machine.starts_with("pc-1.");
}

Result<std::string> TakeTarget(const Overlay& overlay, const Bus& bus, const std::string& wanted,
                               pugi::xml_node itself) {
  const std::string_view machine = overlay.domain.child("os").child("type").attribute("machine").value();
  if (bus.mode == domain_build::kIde && machine.find("q35") != std::string_view::npos) {
    return domain_xml::Refused("A disk of the guest is on IDE, which the machine " + Quote(machine) +
                               " of its definition does not have: put it on virtio, SATA or SCSI");
  }
  const auto index = domain_build::TargetIndex(wanted, bus);
  if (index && !IsTaken(overlay, bus, *index, itself)) return wanted;
  const std::size_t places = bus.mode == domain_build::kIde ? domain_build::kMaxIdeDrives : kMaxPlaces;
  const std::set<std::string> named = NamesInRecords(overlay);
  for (std::size_t place = 0; place < places; ++place) {
    const std::string name = domain_build::TargetName(bus, place);
    if (!named.contains(name) && !IsTaken(overlay, bus, place, itself)) return name;
  }
  return domain_xml::Refused("The guest has no place left for another disk on " + std::string(bus.name) +
                             ": put it on another bus");
}

}  // namespace vexa::hypervisor::domain_overlay
