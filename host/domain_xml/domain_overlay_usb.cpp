// USB: the controllers, and the host devices.
#include <algorithm>
#include <string>
#include <vector>

#include "host/domain_xml/domain_overlay.h"
#include "json/readers.h"

namespace vexa::domain_xml::overlay {
namespace {

constexpr char kVersion[] = "usb_version";

bool IsUsbController(pugi::xml_node device) {
  return std::string_view(device.name()) == "controller" && HasAttributeValue(device, "type", "usb");
}

bool IsHostDevice(pugi::xml_node device) {
  return std::string_view(device.name()) == "hostdev" && HasAttributeValue(device, "type", "usb");
}

// Devices on the USB bus, except for disks and host devices, which have records.
bool IsOnUsb(pugi::xml_node device) {
  const std::string_view name = device.name();
  return name == "redirdev" || name == "redirfilter" || (name == "hub" && HasAttributeValue(device, "type", "usb")) ||
         (name == "input" && HasAttributeValue(device, "bus", "usb"));
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

std::vector<std::string> DeviceNames(const Json::Value& guest) {
  std::vector<std::string> names;
  for (const Json::Value& entry : json::Elements(json::Member(guest, "usbs"))) {
    std::string name = Normalized(json::String(entry));
    if (!name.empty() && name != "unmounted") names.push_back(std::move(name));
  }
  return names;
}

void ReplaceControllers(Overlay& overlay) {
  RemoveDevices(overlay.devices, IsUsbController);
  // Addresses are ports of the old controllers.
  for (pugi::xml_node device : overlay.devices.children()) {
    for (pugi::xml_node address = device.child("address"); address;) {
      const pugi::xml_node next = address.next_sibling("address");
      if (HasAttributeValue(address, "type", "usb")) device.remove_child(address);
      address = next;
    }
  }
  const pugi::xml_node built = overlay.built.child("devices");
  for (const pugi::xml_node controller : built.children("controller")) {
    if (IsUsbController(controller)) Insert(overlay.devices, controller);
  }
  const bool had_no_usb = json::Int64(json::Member(overlay.base.guest, kVersion)) == 0;
  const bool has_no_usb = SameValue(json::Member(overlay.guest(), kVersion), 0);
  if (has_no_usb) RemoveDevices(overlay.devices, IsOnUsb);
  if (had_no_usb && built.child("input")) Insert(overlay.devices, built.child("input"));
}

// A host device of the base stays if it is still in "usbs". The i-th <hostdev> of the base belongs to the i-th name in
// the base's record.
void ApplyHostDevices(Overlay& overlay) {
  const std::vector<std::string> base_names = DeviceNames(overlay.base.guest);
  const std::vector<std::string> names = DeviceNames(overlay.guest());
  std::vector<std::string> missing = names;
  std::size_t index = 0;
  RemoveDevices(overlay.devices, [&](pugi::xml_node device) {
    if (!IsHostDevice(device)) return false;
    const auto wanted = std::find(missing.begin(), missing.end(), base_names[index++]);
    if (wanted == missing.end()) return true;
    missing.erase(wanted);
    return false;
  });
  // The builder writes one <hostdev> for each name, in their order.
  std::size_t position = 0;
  for (const pugi::xml_node built : overlay.built.child("devices").children("hostdev")) {
    const auto wanted = std::find(missing.begin(), missing.end(), names[position++]);
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

}  // namespace vexa::domain_xml::overlay
