// The host's network interfaces.
#include <algorithm>
#include <set>
#include <utility>

#include "host/api/peer/rows.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

constexpr std::string_view kSwitchPrefix = "ovs_";

const char* StatusOf(const machine::Interface& interface) { return interface.connected ? "connected" : "disconnected"; }

Json::Value Describe(const machine::Interface& interface) {
  Json::Value data(Json::objectValue);
  data["ifname"] = interface.name;
  data["type"] = interface.type;
  data["mac"] = interface.mac;
  data["speed"] = interface.speed;
  data["status"] = StatusOf(interface);
  data["mtu"] = interface.mtu;
  data["duplex"] = interface.duplex;
  return data;
}

void Ethernet(const machine::Machine& machine, const Call& call) {
  const auto name = call.request->GetAndCheckString("ifname", kRequired, machine::IsInterfaceName);
  if (name.IsInvalid()) return Fail(call, host_error::kBadParameter);
  const std::optional<machine::Interface> interface = machine::ReadInterface(machine, name.Get());
  if (!interface) return Fail(call, host_error::kNotFoundOrUnreadable);
  call.response->SetSuccess(Describe(*interface));
}

// Callers ask for bond0 as ovs_bond0, which can be longer than the kernel's names.
bool IsBondName(const std::string& name) {
  return machine::IsInterfaceName(name) ||
         (name.starts_with(kSwitchPrefix) && machine::IsInterfaceName(VexaCCC::Utils::TrimOVSPrefix(name)));
}

void Bond(const machine::Machine& machine, const Call& call) {
  const auto name = call.request->GetAndCheckString("ifname", kRequired, IsBondName);
  if (name.IsInvalid()) return Fail(call, host_error::kBadParameter);
  std::optional<machine::Interface> interface = machine::ReadInterface(machine, name.Get());
  if (!interface) interface = machine::ReadInterface(machine, VexaCCC::Utils::TrimOVSPrefix(name.Get()));
  if (!interface) return Fail(call, host_error::kNotFoundOrUnreadable);
  Json::Value data = Describe(*interface);
  data["slaves"] = Json::Value(Json::arrayValue);
  for (const std::string& slave : interface->slaves) data["slaves"].append(slave);
  call.response->SetSuccess(data);
}

// The first IPv4 address; an IPv6 one when there is no other.
const machine::InterfaceAddress* AddressOf(const std::vector<machine::InterfaceAddress>& addresses,
                                           const std::string& name) {
  const machine::InterfaceAddress* best = nullptr;
  for (const machine::InterfaceAddress& address : addresses) {
    if (address.interface != name) continue;
    if (!best || (best->is_ipv6 && !address.is_ipv6)) best = &address;
  }
  return best;
}

Json::Value Element(const std::string& name, const machine::Interface& interface,
                    const machine::InterfaceAddress* address) {
  Json::Value element(Json::objectValue);
  element["ifname"] = name;
  element["ip"] = address ? address->ip : "";
  element["mask"] = address ? address->mask : "";
  element["mac"] = interface.mac;
  element["speed"] = interface.speed;
  element["status"] = StatusOf(interface);
  element["type"] = interface.type;
  return element;
}

// Callers look up what guests are plugged into by its name with the switch's prefix. No interface record has that name,
// and the element has no address, so that readers of records or addresses see each interface once.
void AppendGuestUplinks(const machine::Machine& machine, Json::Value& data) {
  std::set<std::string> names;
  for (const Json::Value& element : json::Elements(data)) names.insert(json::String(json::Member(element, "ifname")));
  for (const machine::Interface& interface : machine::GuestUplinks(machine)) {
    const std::string name = std::string(kSwitchPrefix) + VexaCCC::Utils::TrimOVSPrefix(interface.name);
    if (names.insert(name).second) data.append(Element(name, interface, nullptr));
  }
}

void List(const machine::Machine& machine, const machine::AddressReader& read_addresses, const Call& call) {
  const std::vector<machine::InterfaceAddress> addresses = read_addresses();
  Json::Value data(Json::arrayValue);
  for (const machine::Interface& interface : machine::HostInterfaces(machine)) {
    data.append(Element(interface.name, interface, AddressOf(addresses, interface.name)));
  }
  AppendGuestUplinks(machine, data);
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> NetworkRows(const ServiceParts& parts) {
  const machine::Machine machine = parts.machine;
  const Parameter name = Text("ifname", "The interface's name.");
  const std::vector<int> errors{host_error::kBadParameter, host_error::kNotFoundOrUnreadable};
  return {HostRow(
              "VEXA.Core.Network.Ethernet", "get", LaneKind::kQuick,
              [machine](const Call& call) { Ethernet(machine, call); },
              "One network interface: speed (Mb/s; 0: unknown), status, address, MTU, duplex.", {name}, errors),
          HostRow(
              "VEXA.Core.Network.Bond", "get", LaneKind::kQuick, [machine](const Call& call) { Bond(machine, call); },
              "One bond of network interfaces, also by its name with \"ovs_\" in front.", {name}, errors),
          HostRow(
              "VEXA.Core.Network.Interface", "list", LaneKind::kQuick,
              [machine, addresses = parts.addresses](const Call& call) { List(machine, addresses, call); },
              "The interfaces that connect the host to others, with their addresses.")};
}

}  // namespace vexa::api
