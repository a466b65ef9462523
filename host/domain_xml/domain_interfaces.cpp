#include "host/domain_xml/domain_interfaces.h"

#include "host/base/rows.h"
#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml {
namespace {

// The value of <interface type='…'>.
struct Type {
  std::string_view name;
  NicAttachment attachment_kind;
};
// For a network that leads to a bridge or device of the host, the XML of a running domain shows that bridge or device.
constexpr Type kTypes[] = {
    {"bridge", NicAttachment::kBridge},
    {"network", NicAttachment::kNetwork},
    {"direct", NicAttachment::kDevice},
    {"user", NicAttachment::kUser},
};

NicAttachment TypeOf(std::string_view name) {
  const Type* const type = FindRow(kTypes, &Type::name, name);
  return type != nullptr ? type->attachment_kind : NicAttachment::kOther;
}

}  // namespace

Result<std::vector<GuestInterface>> ParseGuestInterfaces(std::string_view xml) {
  pugi::xml_document document;
  if (const Status loaded = parse::Load(xml, document); !loaded) return loaded.error();
  std::vector<GuestInterface> interfaces;
  for (const pugi::xml_node nic : document.document_element().child("devices").children("interface")) {
    if (interfaces.size() == kMaxNics) break;
    GuestInterface found;
    found.mac = parse::NormalizeMac(nic.child("mac").attribute("address").value());
    if (found.mac.empty()) continue;
    const pugi::xml_node source = nic.child("source");
    found.attachment_kind = TypeOf(nic.attribute("type").value());
    found.network = source.attribute("network").value();
    found.device = source.attribute(found.attachment_kind == NicAttachment::kDevice ? "dev" : "bridge").value();
    found.target = nic.child("target").attribute("dev").value();
    found.is_link_up = std::string_view(nic.child("link").attribute("state").value()) != "down";
    interfaces.push_back(std::move(found));
  }
  return interfaces;
}

void ResolveNetwork(std::string_view network_xml, const std::string& bridge, GuestInterface& interface) {
  if (!bridge.empty()) interface.device = bridge;
  pugi::xml_document document;
  if (!document.load_buffer(network_xml.data(), network_xml.size())) return;
  const pugi::xml_node network = document.document_element();
  const pugi::xml_node forward = network.child("forward");
  const std::string_view mode = forward.attribute("mode").value();
  const std::string_view device = forward.child("interface") ? forward.child("interface").attribute("dev").value()
                                                             : forward.attribute("dev").value();
  const std::string_view bridge_in_xml = network.child("bridge").attribute("name").value();
  if (interface.device.empty()) interface.device = bridge_in_xml;
  const bool uses_bridge = mode == "bridge" && !bridge_in_xml.empty();
  const bool uses_device = !uses_bridge && !device.empty() &&
                           (mode == "bridge" || mode == "private" || mode == "vepa" || mode == "passthrough");
  if (uses_bridge) interface.attachment_kind = NicAttachment::kBridge;
  if (uses_device) {
    interface.attachment_kind = NicAttachment::kDevice;
    interface.device = device;
  }
}

}  // namespace vexa::domain_xml
