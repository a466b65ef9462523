// <interface>: network interfaces.
#include <set>

#include "host/base/uuid.h"
#include "host/domain_xml/domain_xml_internal.h"

namespace vexa::hypervisor::domain_xml {
namespace {

constexpr std::size_t kMaxNetworkNameBytes = 255;

struct Model {
  std::string_view name;
  int type;
};
constexpr Model kModels[] = {
    {"virtio", 1},  {"virtio-transitional", 1}, {"virtio-non-transitional", 1}, {"e1000", 2}, {"e1000e", 2},
    {"rtl8139", 3},
};
constexpr int kDefaultType = 1;

int TypeOf(pugi::xml_node nic, const std::string& mac, Context& context) {
  const std::string_view model = nic.child("model").attribute("type").value();
  for (const Model& known : kModels) {
    if (known.name == model) return known.type;
  }
  // A host device has no model; everything else has one in libvirt's output.
  if (std::string_view(nic.attribute("type").value()) != "hostdev") {
    context.Note("The model " + Quote(model) + " of the network interface " + mac +
                 " is not known: virtio was recorded, and the model stays until it is edited.");
  }
  return kDefaultType;
}

// Virtual functions of an SR-IOV device: given directly, or taken from a libvirt network that consists of them.
bool IsHostDevice(pugi::xml_node nic) {
  return std::string_view(nic.attribute("type").value()) == "hostdev" ||
         std::string_view(nic.child("actual").attribute("type").value()) == "hostdev" ||
         std::string_view(nic.child("driver").attribute("name").value()) == "vfio";
}

std::string NetworkNameOf(pugi::xml_node nic, const std::string& mac, Context& context) {
  const std::string_view type = nic.attribute("type").value();
  const pugi::xml_node source = nic.child("source");
  if (type == "network") return source.attribute("network").value();
  if (type == "bridge") return source.attribute("bridge").value();
  context.Note("The network interface " + mac + " is of the type " + Quote(type) +
               ": it was recorded as one without a network, and stays as it is until it gets one.");
  return "";
}

Status ReadNic(pugi::xml_node nic, const std::string& mac, Context& context) {
  const std::string network = NetworkNameOf(nic, mac, context);
  if (network.size() > kMaxNetworkNameBytes || HasControlCharacters(network)) {
    return Refused("The network interface " + mac + " is in the network " + Quote(network) +
                   ": a network's name has at most 255 bytes without control characters");
  }
  std::string network_id;
  if (!network.empty()) {
    const auto known = context.options.networks.find(network);
    network_id = known == context.options.networks.end() ? NetworkGroupId(network) : NormalizeUuid(known->second);
  }
  Json::Value record(Json::objectValue);
  record["guest_id"] = context.result.id;
  record["network_group_id"] = network_id;
  record["network_name"] = network;
  record["prefer_sriov"] = IsHostDevice(nic);
  record["mac_address"] = mac;
  record["vnic_type"] = TypeOf(nic, mac, context);
  record["prefer_connect_ip"] = "";
  context.result.nics.emplace_back(NameBasedUuid(context.result.id + "/nic/" + mac), std::move(record));
  context.guest()["vnics"].append(context.result.nics.back().first);

  if (std::string_view(nic.child("link").attribute("state").value()) == "down") {
    context.Note("The link of the network interface " + mac + " is down, which no record says.");
  }
  return {};
}

}  // namespace

Status ReadNics(pugi::xml_node devices, Context& context) {
  context.guest()["vnics"] = Json::Value(Json::arrayValue);
  std::set<std::string> addresses;
  for (const pugi::xml_node nic : devices.children("interface")) {
    const std::string_view text = nic.child("mac").attribute("address").value();
    const std::string mac = NormalizeMac(text);
    if (mac.empty()) {
      return Refused("<mac> of an <interface> has the address " + Quote(text) +
                     ": give a unicast address such as 52:54:00:12:34:56");
    }
    if (!addresses.insert(mac).second) {
      return Refused("Two network interfaces have the MAC address '" + mac + "'. Give each a different one");
    }
    if (addresses.size() > kMaxNics) {
      return Refused("The guest has more than " + std::to_string(kMaxNics) + " network interfaces: remove some");
    }
    if (Status one = ReadNic(nic, mac, context); !one) return one;
  }
  return {};
}

}  // namespace vexa::hypervisor::domain_xml
