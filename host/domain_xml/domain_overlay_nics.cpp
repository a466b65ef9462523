// Network interfaces. An element belongs to the record with its id, otherwise to the record with its MAC address.
#include <algorithm>
#include <map>
#include <set>

#include "host/domain_xml/domain_overlay.h"
#include "json/readers.h"

namespace vexa::domain_xml::overlay {
namespace {

// Parts of an interface that apply only to its old kind of network.
constexpr const char* kNetworkTypeElements[] = {"virtualport", "vlan", "actual", "backend",
                                                "portForward", "ip",   "route",  "guest",
                                                "bandwidth",   "mtu",  "target", "filterref"};
constexpr const char* kNetworkSpecificSourceAttributes[] = {"portgroup", "portid"};

// A network interface of the base.
struct NicSlot {
  pugi::xml_node element;
  const Json::Value* base_record = nullptr;  // the record parsed from the element
  std::string id;                            // of that record
  std::string mac;
  bool is_used = false;
};

// The base's records are in the order of its elements.
std::vector<NicSlot> NicSlotsOf(const Overlay& overlay) {
  std::vector<NicSlot> slots;
  auto base_nic = overlay.base.nics.begin();
  for (const pugi::xml_node nic : overlay.devices.children("interface")) {
    if (base_nic == overlay.base.nics.end()) break;
    slots.push_back(
        {nic, &base_nic->second, base_nic->first, json::String(json::Member(base_nic->second, "mac_address"))});
    ++base_nic;
  }
  return slots;
}

std::string MacOf(const Json::Value& record) {
  return parse::NormalizeMac(json::String(json::Member(record, "mac_address")));
}

// The slot of each record, nullptr for a new one. Ids are matched first, because an address can be edited.
std::vector<NicSlot*> Match(const GuestRecords& records, std::vector<NicSlot>& slots) {
  std::vector<NicSlot*> matched(records.nics.size(), nullptr);
  const auto match = [&](const auto& belongs_to) {
    for (std::size_t i = 0; i < matched.size(); ++i) {
      if (matched[i] != nullptr) continue;
      for (NicSlot& slot : slots) {
        if (slot.is_used || !belongs_to(slot, records.nics[i])) continue;
        slot.is_used = true;
        matched[i] = &slot;
        break;
      }
    }
  };
  match([](const NicSlot& slot, const auto& nic) { return slot.id == nic.first; });
  match([](const NicSlot& slot, const auto& nic) { return slot.mac == MacOf(nic.second); });
  return matched;
}

// The builder's <interface> for a record.
Status Build(const Overlay& overlay, const std::string& id, const Json::Value& record, pugi::xml_document& scratch) {
  GuestRecords one;
  one.id = overlay.records.id;
  one.guest = Json::Value(Json::objectValue);
  one.nics.emplace_back(id, record);
  build::Context context{one, overlay.options};
  context.devices = scratch.append_child("devices");
  return build::WriteNics(context);
}

void ChangeModel(pugi::xml_node nic, pugi::xml_node built) {
  const std::string model = built.child("model").attribute("type").value();
  Put(ChildOf(nic, "model"), "type", model);
  // The address and the driver of the old model may not fit the new one.
  nic.remove_child("address");
  if (model != "virtio") nic.remove_child("driver");
}

// Switches between kernel bridges and Open vSwitch bridges, if the bridge is known.
void ChangeSwitch(const Overlay& overlay, pugi::xml_node nic, pugi::xml_node built) {
  if (overlay.options.kernel_bridges.contains(built.child("source").attribute("bridge").value())) {
    nic.remove_child("virtualport");
  } else if (built.child("virtualport") && !nic.child("virtualport")) {
    nic.append_copy(built.child("virtualport"));
  }
}

void ChangeNetwork(const Overlay& overlay, pugi::xml_node nic, pugi::xml_node built) {
  const bool had_no_network = HasAttributeValue(nic, "type", "user");
  const bool has_no_network = HasAttributeValue(built, "type", "user");
  if (HasAttributeValue(nic, "type", built.attribute("type").value())) {
    const pugi::xml_attribute name = built.child("source").first_attribute();
    if (name) Put(ChildOf(nic, "source"), name.name(), name.value());
    RemoveAttributes(nic.child("source"), kNetworkSpecificSourceAttributes);
    if (HasAttributeValue(nic, "type", "bridge")) ChangeSwitch(overlay, nic, built);
    return;
  }
  const bool was_host_device = HasAttributeValue(nic, "type", "hostdev");
  if (was_host_device || HasAttributeValue(nic.child("driver"), "name", "vfio")) nic.remove_child("driver");
  if (was_host_device) nic.remove_attribute("managed");
  Put(nic, "type", built.attribute("type").value());
  RemoveChildren(nic, kNetworkTypeElements);
  nic.remove_child("source");
  if (built.child("source")) nic.append_copy(built.child("source"));
  if (built.child("virtualport")) nic.append_copy(built.child("virtualport"));
  if (!nic.child("model")) nic.append_copy(built.child("model"));
  if (has_no_network) Put(ChildOf(nic, "link"), "state", "down");
  if (had_no_network) nic.remove_child("link");
}

Status Change(const Overlay& overlay, const std::string& id, const Json::Value& record, const NicSlot& slot) {
  const auto differs = [&](const char* member, const Json::Value& fallback) {
    const Json::Value& now = json::Member(record, member);
    return !SameValue(json::Member(*slot.base_record, member), now.isNull() ? fallback : now);
  };
  const bool mac_differs = slot.mac != MacOf(record);
  const bool type_differs = differs("vnic_type", 1);
  const bool network_differs = differs("network_name", "");
  if (!mac_differs && !type_differs && !network_differs) return {};
  // An unchanged network stays as the base has it, even with a name that the builder would refuse.
  Json::Value to_build = record;
  if (!network_differs && to_build.isObject()) to_build["network_name"] = "";
  pugi::xml_document scratch;
  if (Status built = Build(overlay, id, to_build, scratch); !built) return built;
  const pugi::xml_node built = scratch.child("devices").child("interface");
  pugi::xml_node nic = slot.element;
  if (mac_differs) Put(ChildOf(nic, "mac"), "address", built.child("mac").attribute("address").value());
  if (network_differs) ChangeNetwork(overlay, nic, built);
  if (type_differs) ChangeModel(nic, built);
  return {};
}

Status Check(const GuestRecords& records) {
  if (records.nics.size() > kMaxNics) return parse::TooManyNics();
  std::set<std::string> addresses;
  for (const auto& [id, record] : records.nics) {
    const std::string mac = MacOf(record);
    if (!mac.empty() && !addresses.insert(mac).second) return parse::DuplicateMac(mac);
  }
  return {};
}

}  // namespace

Status ApplyNics(Overlay& overlay) {
  if (Status checked = Check(overlay.records); !checked) return checked;
  std::vector<NicSlot> slots = NicSlotsOf(overlay);
  const std::vector<NicSlot*> matched = Match(overlay.records, slots);
  for (const NicSlot& slot : slots) {
    if (!slot.is_used) overlay.devices.remove_child(slot.element);
  }
  for (std::size_t i = 0; i < matched.size(); ++i) {
    const auto& [id, record] = overlay.records.nics[i];
    if (matched[i] != nullptr) {
      if (Status changed = Change(overlay, id, record, *matched[i]); !changed) return changed;
      continue;
    }
    pugi::xml_document scratch;
    if (Status built = Build(overlay, id, record, scratch); !built) return built;
    Insert(overlay.devices, scratch.child("devices").child("interface"));
  }
  return {};
}

}  // namespace vexa::domain_xml::overlay
