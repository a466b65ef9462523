// The host's network interfaces.
#include <algorithm>
#include <set>
#include <utility>

#include "host/api/peer/rows.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
using webapi::Call;
using webapi::LaneKind;

constexpr std::string_view kSwitchPrefix = "ovs_";

const char* StatusOf(const Interface& found) { return found.connected ? "connected" : "disconnected"; }

Json::Value Describe(const Interface& found) {
  Json::Value data(Json::objectValue);
  data["ifname"] = found.name;
  data["type"] = found.type;
  data["mac"] = found.mac;
  data["speed"] = found.speed;
  data["status"] = StatusOf(found);
  data["mtu"] = found.mtu;
  data["duplex"] = found.duplex;
  return data;
}

void Ethernet(const Machine& machine, const Call& call) {
  const auto name = call.request->GetAndCheckString("ifname", kRequired, IsInterfaceName);
  if (name.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  const std::optional<Interface> found = ReadInterface(machine, name.Get());
  if (!found) return Fail(call, kErrorUnreadable);
  call.response->SetSuccess(Describe(*found));
}

// Callers ask for bond0 as ovs_bond0, which can be longer than the kernel's names.
bool IsBondName(const std::string& name) {
  return IsInterfaceName(name) ||
         (name.starts_with(kSwitchPrefix) && IsInterfaceName(VexaCCC::Utils::TrimOVSPrefix(name)));
}

void Bond(const Machine& machine, const Call& call) {
  const auto name = call.request->GetAndCheckString("ifname", kRequired, IsBondName);
  if (name.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  std::optional<Interface> found = ReadInterface(machine, name.Get());
  if (!found) found = ReadInterface(machine, VexaCCC::Utils::TrimOVSPrefix(name.Get()));
  if (!found) return Fail(call, kErrorUnreadable);
  Json::Value data = Describe(*found);
  data["slaves"] = Json::Value(Json::arrayValue);
  for (const std::string& slave : found->slaves) data["slaves"].append(slave);
  call.response->SetSuccess(data);
}

// The first IPv4 address; an IPv6 one when there is no other.
const InterfaceAddress* AddressOf(const std::vector<InterfaceAddress>& addresses, const std::string& name) {
  const InterfaceAddress* found = nullptr;
  for (const InterfaceAddress& address : addresses) {
    if (address.interface != name) continue;
    if (!found || (found->is_ipv6 && !address.is_ipv6)) found = &address;
  }
  return found;
}

Json::Value Element(const std::string& name, const Interface& found, const InterfaceAddress* address) {
  Json::Value element(Json::objectValue);
  element["ifname"] = name;
  element["ip"] = address ? address->ip : "";
  element["mask"] = address ? address->mask : "";
  element["mac"] = found.mac;
  element["speed"] = found.speed;
  element["status"] = StatusOf(found);
  element["type"] = found.type;
  return element;
}

// Callers look up what guests are plugged into by its name with the switch's prefix. No interface record has that name,
// and the element has no address, so that readers of records or addresses see each interface once.
void AppendGuestPorts(const Machine& machine, Json::Value& data) {
  std::set<std::string> names;
  for (const Json::Value& element : json::Elements(data)) names.insert(json::String(json::Member(element, "ifname")));
  for (const Interface& found : GuestPorts(machine)) {
    const std::string name = std::string(kSwitchPrefix) + VexaCCC::Utils::TrimOVSPrefix(found.name);
    if (names.insert(name).second) data.append(Element(name, found, nullptr));
  }
}

void List(const Machine& machine, const AddressReader& read_addresses, const Call& call) {
  const std::vector<InterfaceAddress> addresses = read_addresses();
  Json::Value data(Json::arrayValue);
  for (const Interface& found : HostInterfaces(machine)) {
    data.append(Element(found.name, found, AddressOf(addresses, found.name)));
  }
  AppendGuestPorts(machine, data);
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<webapi::ApiRow> NetworkRows(const ServiceParts& parts) {
  const Machine machine = parts.machine;
  const webapi::Parameter name = Text("ifname", "The interface's name.");
  const std::vector<int> errors{webapi::kErrorBadParameter, kErrorUnreadable};
  return {HostRow(
              "VEXA.Core.Network.Ethernet", "get", LaneKind::kQuick,
              [machine](const Call& call) { Ethernet(machine, call); },
              "One network interface: speed (Mb/s; 0: not known), status, address, MTU, duplex.", {name}, errors),
          HostRow(
              "VEXA.Core.Network.Bond", "get", LaneKind::kQuick, [machine](const Call& call) { Bond(machine, call); },
              "One bond of network interfaces, also by its name with \"ovs_\" in front.", {name}, errors),
          HostRow(
              "VEXA.Core.Network.Interface", "list", LaneKind::kQuick,
              [machine, addresses = parts.addresses](const Call& call) { List(machine, addresses, call); },
              "The interfaces that connect the host to others, with their addresses.")};
}

}  // namespace vexa::services
