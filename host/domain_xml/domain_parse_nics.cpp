// <interface>: network interfaces.
#include <set>

#include "host/base/rows.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml::parse {
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
  if (const Model* const known = FindRow(kModels, &Model::name, model)) return known->type;
  // A host device has no model; everything else has one in libvirt's output.
  if (std::string_view(nic.attribute("type").value()) != "hostdev") {
    context.Note(
        "The model {} of the network interface {} is unknown: virtio was recorded, and the model stays until it is "
        "edited.",
        Quote(model), mac);
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
  context.Note(
      "The network interface {} has the type {}: it was recorded without a network, and stays unchanged until it gets "
      "one.",
      mac, Quote(type));
  return "";
}

Status ReadNic(pugi::xml_node nic, const std::string& mac, Context& context) {
  const std::string network = NetworkNameOf(nic, mac, context);
  if (network.size() > kMaxNetworkNameBytes || HasControlCharacters(network)) {
    return InvalidNetworkName(mac, network);
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
    context.Note("The link of the network interface {} is down, which the records cannot express.", mac);
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
      return Invalid("<mac> of an <interface> has the address {}. Use a unicast address such as 52:54:00:12:34:56",
                     Quote(text));
    }
    if (!addresses.insert(mac).second) return DuplicateMac(mac);
    if (addresses.size() > kMaxNics) return TooManyNics();
    if (Status one = ReadNic(nic, mac, context); !one) return one;
  }
  return {};
}

}  // namespace vexa::domain_xml::parse
