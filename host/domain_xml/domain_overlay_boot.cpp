// The boot order.
#include <algorithm>

#include "host/domain_xml/domain_overlay.h"
#include "json/readers.h"

namespace vexa::domain_xml::overlay {
namespace {

bool IsBootOrderChanged(const Overlay& overlay) {
  const auto& base = overlay.base.disks;
  const auto& now = overlay.records.disks;
  const bool same_disks = std::equal(base.begin(), base.end(), now.begin(), now.end(),
                                     [](const auto& left, const auto& right) { return left.first == right.first; });
  const Json::ArrayIndex drives = json::Elements(json::Member(overlay.base.guest, "iso_images")).size();
  return !same_disks || drives != overlay.drives.size() || !IsUnchanged(overlay, "boot_from", "disk");
}

// Devices other than disks with a boot order (network interfaces, host devices), in that order.
std::vector<pugi::xml_node> OtherDevices(const Overlay& overlay) {
  std::vector<std::pair<std::uint64_t, pugi::xml_node>> ordered;
  for (const pugi::xml_node device : overlay.devices.children()) {
    const pugi::xml_node boot = device.child("boot");
    if (!boot || std::string_view(device.name()) == "disk") continue;
    ordered.emplace_back(parse::ParseUnsigned(boot.attribute("order").value()).value_or(0), device);
  }
  std::stable_sort(ordered.begin(), ordered.end(),
                   [](const auto& left, const auto& right) { return left.first < right.first; });
  std::vector<pugi::xml_node> devices;
  devices.reserve(ordered.size());
  for (const auto& [order, device] : ordered) devices.push_back(device);
  return devices;
}

}  // namespace

Status ApplyBootOrder(Overlay& overlay) {
  const Result<std::string> from = build::BootSourceOf(overlay.guest());
  if (!from) return from.error();
  if (!IsBootOrderChanged(overlay)) return {};
  const bool from_iso = *from == "iso";
  std::vector<pugi::xml_node> order = from_iso ? overlay.drives : overlay.disks;
  const std::vector<pugi::xml_node>& second = from_iso ? overlay.disks : overlay.drives;
  order.insert(order.end(), second.begin(), second.end());
  const std::vector<pugi::xml_node> others = OtherDevices(overlay);
  order.insert(order.end(), others.begin(), others.end());

  RemoveChildren(overlay.domain.child("os"), "boot");
  for (const pugi::xml_node device : overlay.devices.children()) RemoveChildren(device, "boot");
  for (std::size_t i = 0; i < order.size(); ++i) Put(ChildOf(order[i], "boot"), "order", std::to_string(i + 1));
  return {};
}

}  // namespace vexa::domain_xml::overlay
