// Network interfaces.
#include <algorithm>
#include <set>

#include "host/base/rows.h"
#include "host/domain_xml/domain_build_internal.h"

namespace vexa::domain_xml::build {
namespace {

constexpr std::size_t kMaxNetworkNameBytes = 255;
constexpr std::size_t kMaxBridgeNameBytes = 15;

struct Model {
  int type;  // value of "vnic_type"
  const char* name;
};
constexpr Model kModels[] = {{1, "virtio"}, {2, "e1000"}, {3, "rtl8139"}};

// `type` is a known one.
const char* ModelName(std::int64_t type) { return FindRow(kModels, &Model::type, static_cast<int>(type))->name; }

// Whether the kernel accepts the name for a network device.
bool IsBridgeName(const std::string& name) {
  return name.size() <= kMaxBridgeNameBytes && name != "." && name != ".." &&
         std::none_of(name.begin(), name.end(), [](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return byte <= 0x20 || byte >= 0x7F || c == '/' || c == ':';
         });
}

Status WriteSource(Context& context, pugi::xml_node element, const std::string& mac, const std::string& network) {
  if (context.options.libvirt_networks.count(network) > 0) {
    if (network.size() > kMaxNetworkNameBytes || XmlText(network) != network) {
      return parse::InvalidNetworkName(mac, network);
    }
    Set(element, "type", "network");
    Set(Add(element, "source"), "network", network);
    return {};
  }
  if (!IsBridgeName(network)) {
    return Invalid(
        "The network interface {} is in the network {}: a bridge's name has at most 15 bytes without spaces, '/' and "
        "':'",
        mac, Quote(network));
  }
  Set(element, "type", "bridge");
  Set(Add(element, "source"), "bridge", network);
  if (context.options.switch_bridges.contains(network)) Set(Add(element, "virtualport"), "type", "openvswitch");
  return {};
}

// "0000:3b:02.1"
void WriteFunction(pugi::xml_node element, const std::string& address) {
  Set(element, "type", "hostdev");
  // libvirt takes the function from the host's driver, and gives it back.
  Set(element, "managed", "yes");
  pugi::xml_node pci = Add(Add(element, "source"), "address");
  Set(pci, "type", "pci");
  Set(pci, "domain", "0x" + address.substr(0, 4));
  Set(pci, "bus", "0x" + address.substr(5, 2));
  Set(pci, "slot", "0x" + address.substr(8, 2));
  Set(pci, "function", "0x" + address.substr(11));
}

Status WriteNic(Context& context, const std::string& id, const Json::Value& nic, std::set<std::string>& addresses) {
  const Result<std::string> address = StringOf(nic, "mac_address", "");
  const Result<std::string> network = StringOf(nic, "network_name", "");
  const Result<std::int64_t> type = NumberOf(nic, "vnic_type", 1, 1, 3);
  if (!address) return address.error();
  if (!network) return network.error();
  if (!type) return type.error();
  const std::string mac = parse::NormalizeMac(*address);
  if (mac.empty()) {
    return Invalid("The network interface {} has the MAC address {}. Use a unicast address such as 52:54:00:12:34:56",
                   Quote(id), Quote(*address));
  }
  if (!addresses.insert(mac).second) return parse::DuplicateMac(mac);
  pugi::xml_node element = Add(context.devices, "interface");
  const auto& functions = context.options.virtual_functions;
  if (const auto function = functions.find(id); function != functions.end()) {
    WriteFunction(element, function->second);
    Set(Add(element, "mac"), "address", mac);
    return {};
  }
  if (network->empty()) {
    // The guest has the device, but its link is down, as without a cable.
    Set(element, "type", "user");
  } else if (Status source = WriteSource(context, element, mac, *network); !source) {
    return source;
  }
  Set(Add(element, "mac"), "address", mac);
  Set(Add(element, "model"), "type", ModelName(*type));
  if (network->empty()) Set(Add(element, "link"), "state", "down");
  return {};
}

}  // namespace

Status WriteNics(Context& context) {
  if (context.records.nics.size() > kMaxNics) return parse::TooManyNics();
  std::set<std::string> addresses;
  for (const auto& [id, nic] : context.records.nics) {
    if (Status written = WriteNic(context, id, nic, addresses); !written) return written;
  }
  return {};
}

}  // namespace vexa::domain_xml::build
