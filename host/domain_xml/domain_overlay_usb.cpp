// USB: the controllers, and the host devices.
#include <algorithm>
#include <string>
#include <vector>

#include "host/domain_xml/domain_overlay.h"
#include "json/readers.h"

namespace vexa::hypervisor::domain_overlay {
namespace {

constexpr char kVersion[] = "usb_version";

bool IsUsbController(pugi::xml_node device) {
  return std::string_view(device.name()) == "controller" && Says(device, "type", "usb");
}

bool IsHostDevice(pugi::xml_node device) {
  return std::string_view(device.name()) == "hostdev" && Says(device, "type", "usb");
}

// Devices that exist only on a USB bus, except for disks and host devices, which records name.
bool IsOnUsb(pugi::xml_node device) {
  const std::string_view name = device.name();
  return name == "redirdev" || name == "redirfilter" || (name == "hub" && Says(device, "type", "usb")) ||
         (name == "input" && Says(device, "bus", "usb"));
}

template <class Predicate>
void RemoveDevices(pugi::xml_node devices, Predicate is_removed) {
  for (pugi::xml_node device = devices.first_child(); device;) {
    const pugi::xml_node next = device.next_sibling();
    if (is_removed(device)) devices.remove_child(device);
    device = next;
  }
}

// "1234:ABCD" and "1234:abcd" are the same device.
std::string Normalized(const std::string& name) {
  std::string lower = name;
  for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
  return lower;
}

std::vector<std::string> Names(const Json::Value& guest) {
  std::vector<std::string> names;
  for (const Json::Value& entry : json::Elements(json::Member(guest, "usbs"))) {
    std::string name = Normalized(json::String(entry));
    if (!name.empty() && name != "unmounted") names.push_back(std::move(name));
  }
  return names;
}

void ReplaceControllers(Overlay& overlay) {
  RemoveDevices(overlay.devices, IsUsbController);
  // Ports belong to the old controllers.
  for (pugi::xml_node device : overlay.devices.children()) {
    for (pugi::xml_node address = device.child("address"); address;) {
      const pugi::xml_node next = address.next_sibling("address");
      if (Says(address, "type", "usb")) device.remove_child(address);
      address = next;
    }
  }
  const pugi::xml_node built = overlay.built.child("devices");
  for (const pugi::xml_node controller : built.children("controller")) {
    if (IsUsbController(controller)) Insert(overlay.devices, controller);
  }
  const bool had_none = json::Int64(json::Member(overlay.before.guest, kVersion)) == 0;
  const bool has_none = SameValue(json::Member(overlay.guest(), kVersion), 0);
  if (has_none) RemoveDevices(overlay.devices, IsOnUsb);
  if (had_none && built.child("input")) Insert(overlay.devices, built.child("input"));
}

// A device of the base stays while a record names it. The i-th device element matches the i-th device of the base's
// records.
void ApplyHostDevices(Overlay& overlay) {
  const std::vector<std::string> before = Names(overlay.before.guest);
  const std::vector<std::string> now = Names(overlay.guest());
  std::vector<std::string> missing = now;
  std::size_t index = 0;
  RemoveDevices(overlay.devices, [&](pugi::xml_node device) {
    if (!IsHostDevice(device)) return false;
    const auto wanted = std::find(missing.begin(), missing.end(), before[index++]);
    if (wanted == missing.end()) return true;
    missing.erase(wanted);
    return false;
  });
  // The builder writes one for each name, in their order.
  std::size_t place = 0;
  for (const pugi::xml_node built : overlay.built.child("devices").children("hostdev")) {
    const auto wanted = std::find(missing.begin(), missing.end(), now[place++]);
    if (wanted == missing.end()) continue;
    missing.erase(wanted);
    Insert(overlay.devices, built);
  }
}

}  // namespace

Status ApplyUsb(Overlay& overlay) {
  if (!IsUnchanged(overlay, kVersion, 2)) ReplaceControllers(overlay);
  if (overlay.options.usb_bus == UsbBus::kAbsent) {
    RemoveDevices(overlay.devices, IsHostDevice);
  } else {
    ApplyHostDevices(overlay);
  }
  return {};
}

}  // namespace vexa::hypervisor::domain_overlay
