#include "host/domain_xml/network_xml.h"

#include <fmt/format.h>

#include <pugixml.hpp>
#include <sstream>

#include "host/domain_xml/domain_build_internal.h"

namespace vexa::domain_xml {
namespace {

using build::Add;
using build::AddText;
using build::Set;

constexpr std::string_view kMark = "vexa:network";

void WriteMark(const NetworkDefinition& definition, pugi::xml_node network) {
  pugi::xml_node mark = Add(Add(network, "metadata"), kMark.data());
  Set(mark, "xmlns:vexa", kNetworkMarkNamespace);
  Set(mark, "id", definition.id);
  Set(mark, "host", definition.host_id);
  Set(mark, "definition", definition.Summary());
}

void WriteSubnet(const Ipv4Subnet& subnet, pugi::xml_node network) {
  pugi::xml_node ip = Add(network, "ip");
  Set(ip, "address", Ipv4Text(subnet.address + 1));
  Set(ip, "prefix", std::to_string(subnet.prefix));
  pugi::xml_node range = Add(Add(ip, "dhcp"), "range");
  Set(range, "start", Ipv4Text(subnet.address + 2));
  Set(range, "end", Ipv4Text(subnet.Last() - 1));
}

// The first IPv4 subnet; "": none.
std::string SubnetIn(pugi::xml_node network) {
  for (const pugi::xml_node ip : network.children("ip")) {
    const std::string_view family = ip.attribute("family").value();
    if (!family.empty() && family != "ipv4") continue;
    const std::string_view address = ip.attribute("address").value();
    std::optional<Ipv4Subnet> subnet = SubnetOf(address, ip.attribute("netmask").value());
    const unsigned prefix = ip.attribute("prefix").as_uint(0);
    if (!subnet && prefix >= 1 && prefix <= 32) {
      const Ipv4Subnet mask{0, static_cast<int>(prefix)};
      subnet = SubnetOf(address, Ipv4Text(mask.Mask()));
    }
    if (subnet) return subnet->ToString();
  }
  return "";
}

std::string KindIn(pugi::xml_node network) {
  const pugi::xml_node forward = network.child("forward");
  const std::string_view mode = forward.attribute("mode").value();
  if (!forward) return "isolated";
  if (mode == "nat" || mode.empty()) return "nat";
  if (mode != "bridge") return "other";
  if (network.child("vlan") || network.child("portgroup")) return "other";
  return network.child("bridge") ? "bridge" : "macvtap";
}

}  // namespace

std::string NetworkDefinition::Summary() const {
  if (subnet) return fmt::format("{} {}", has_nat ? "nat" : "isolated", subnet->ToString());
  if (!switch_bridge.empty()) return fmt::format("vlan {} on {}", vlan_id, switch_bridge);
  return fmt::format("macvtap on {}", device);
}

std::string BuildNetworkXml(const NetworkDefinition& definition) {
  pugi::xml_document document;
  pugi::xml_node network = document.append_child("network");
  AddText(network, "name", definition.name);
  if (!definition.uuid.empty()) AddText(network, "uuid", definition.uuid);
  WriteMark(definition, network);
  if (definition.subnet) {
    if (definition.has_nat) Set(Add(network, "forward"), "mode", "nat");
    WriteSubnet(*definition.subnet, network);
  } else {
    pugi::xml_node forward = Add(network, "forward");
    Set(forward, "mode", "bridge");
    if (definition.switch_bridge.empty()) {
      Set(Add(forward, "interface"), "dev", definition.device);
    } else {
      Set(Add(network, "bridge"), "name", definition.switch_bridge);
      Set(Add(network, "virtualport"), "type", "openvswitch");
      Set(Add(Add(network, "vlan"), "tag"), "id", std::to_string(definition.vlan_id));
    }
  }
  std::ostringstream text;
  document.save(text, "  ", pugi::format_indent | pugi::format_no_declaration);
  return text.str();
}

ParsedNetwork ParseNetworkXml(std::string_view xml) {
  ParsedNetwork parsed;
  pugi::xml_document document;
  if (!document.load_buffer(xml.data(), xml.size())) {
    parsed.kind = "other";
    return parsed;
  }
  const pugi::xml_node network = document.document_element();
  parsed.uuid = network.child("uuid").text().get();
  parsed.kind = KindIn(network);
  parsed.bridge = network.child("bridge").attribute("name").value();
  parsed.subnet = SubnetIn(network);
  for (const pugi::xml_node mark : network.child("metadata").children()) {
    const std::string_view name = mark.name();
    const std::size_t colon = name.find(':');
    const std::string declaration = "xmlns:" + std::string(name.substr(0, colon));
    const bool is_ours = colon != std::string_view::npos && name.substr(colon + 1) == "network" &&
                         std::string_view(mark.attribute(declaration.c_str()).value()) == kNetworkMarkNamespace;
    if (!is_ours) continue;
    parsed.id = mark.attribute("id").value();
    parsed.host_id = mark.attribute("host").value();
    parsed.definition = mark.attribute("definition").value();
  }
  return parsed;
}

}  // namespace vexa::domain_xml
