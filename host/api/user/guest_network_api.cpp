#include "host/api/user/guest_network_api.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/record_calls.h"
#include "host/networks/network_changes.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

using networks::ListedNetwork;
using networks::NetworkSettings;

constexpr char kNetworkId[] = "network_id";

// What only administrators see.
void DescribeSettings(const ListedNetwork& listed, Json::Value& entry) {
  const records::Network& network = listed.network;
  entry["network_name"] = network.network_name;
  if (!network.subnet.empty()) entry["subnet"] = network.subnet;
  if (network.vlan_id != 0) entry["vlan_id"] = network.vlan_id;
  if (!network.uplink.empty()) entry["uplink"] = network.uplink;
  for (const auto& [host_id, uplink] : network.uplinks) entry["uplinks"][host_id] = uplink;
  if (network.move_addresses) entry["move_addresses"] = true;
  Json::Value& hosts = entry["hosts"] = Json::Value(Json::arrayValue);
  for (const auto& [host_id, condition] : listed.hosts) {
    Json::Value& host = hosts.append(Json::Value(Json::objectValue));
    host["host_id"] = host_id;
    host["state"] = condition.state;
    if (!condition.reason.empty()) host["reason"] = condition.reason;
  }
}

Json::Value Describe(const ListedNetwork& listed, bool with_settings) {
  Json::Value entry(Json::objectValue);
  entry[kNetworkId] = listed.network.id;
  entry["name"] = listed.network.name;
  entry["kind"] = listed.kind;
  entry["description"] = listed.network.description;
  entry["managed"] = listed.is_managed;
  entry["state"] = listed.State();
  if (!listed.is_active) entry["active"] = false;
  if (with_settings) DescribeSettings(listed, entry);
  return entry;
}

void List(const store::Store& store, const Call& call) {
  const auto listed = networks::ListNetworks(store);
  if (!listed) return RespondListError(call, "networks", listed.error());
  Json::Value data(Json::objectValue);
  Json::Value& list = data["networks"] = Json::Value(Json::arrayValue);
  for (const ListedNetwork& network : *listed) list.append(Describe(network, call.request->IsAdmin()));
  call.response->SetSuccess(data);
}

void Get(const store::Store& store, const Call& call) {
  const auto id = call.request->GetAndCheckString(kNetworkId, kRequired, IsId);
  if (id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  const auto listed = networks::ListNetworks(store);
  if (!listed) return RespondListError(call, "networks", listed.error());
  const auto found = std::ranges::find(*listed, id.Get(), [](const ListedNetwork& one) { return one.network.id; });
  if (found == listed->end()) {
    return Fail(call, user_error::kNotFoundOrUnreadable, fmt::format("There is no network '{}'", id.Get()));
  }
  call.response->SetSuccess(Describe(*found, call.request->IsAdmin()));
}

// The parameters that "add" and "edit" have in common. False: one has the wrong type, and the call has been answered.
bool ReadSettings(const Call& call, NetworkSettings& settings) {
  const auto name = call.request->GetAndCheckString("name", kOptional);
  const auto description = call.request->GetAndCheckString("description", kOptional);
  const auto subnet = call.request->GetAndCheckString("subnet", kOptional);
  const auto vlan_id = call.request->GetAndCheckInt("vlan_id", kOptional);
  const auto uplink = call.request->GetAndCheckString("uplink", kOptional);
  const auto move_addresses = call.request->GetAndCheckBool("move_addresses", kOptional);
  const Json::Value uplinks = call.request->GetParam("uplinks", Json::Value());
  const bool has_uplinks = call.request->HasParam("uplinks");
  bool is_valid = !name.IsInvalid() && !description.IsInvalid() && !subnet.IsInvalid() && !vlan_id.IsInvalid() &&
                  !uplink.IsInvalid() && !move_addresses.IsInvalid() && (!has_uplinks || uplinks.isObject());
  const auto set = [](const auto& parameter, auto& setting) {
    if (parameter.IsSet()) setting = parameter.Get();
  };
  set(name, settings.name);
  set(description, settings.description);
  set(subnet, settings.subnet);
  set(vlan_id, settings.vlan_id);
  set(uplink, settings.uplink);
  set(move_addresses, settings.move_addresses);
  if (has_uplinks) settings.uplinks.emplace();
  for (const std::string& host_id : json::MemberNames(uplinks)) {
    const Json::Value& value = json::Member(uplinks, host_id);
    is_valid = is_valid && value.isString();
    (*settings.uplinks)[host_id] = json::String(value);
  }
  if (!is_valid) Fail(call, user_error::kBadParameter);
  return is_valid;
}

void LogAddition(const Call& call, Outcome outcome, const std::string& name) {
  LogOutcome(call, outcome, fmt::format("The network [{}] has been added.", name),
             fmt::format("Failed to add the network [{}].", name));
}

void Add(store::Store& store, const Call& call) {
  const auto name = call.request->GetAndCheckString("name", kRequired);
  const auto kind_name = call.request->GetAndCheckString("kind", kRequired);
  const auto bridge = call.request->GetAndCheckString("bridge", kOptional);
  if (name.IsInvalid() || kind_name.IsInvalid() || bridge.IsInvalid()) return Fail(call, user_error::kBadParameter);
  const auto kind = records::FindNetworkKind(kind_name.Get());
  if (!kind) {
    return Fail(call, user_error::kBadParameter, "The kind of a network is bridge, nat, isolated, vlan or macvtap");
  }
  networks::NewNetwork added{*kind, bridge.Get(), {}};
  if (!ReadSettings(call, added.settings)) return;
  const Status checked = networks::CheckNewNetwork(added);
  if (!checked) return Fail(call, user_error::kBadParameter, checked.error().message());
  std::string id;
  const auto done = networks::AddNetwork(store, added, id);
  LogAddition(call, OutcomeOf(done), name.Get());
  RespondToAddition(call, done, kNetworkId, id);
}

void LogEdit(const Call& call, Outcome outcome, const std::string& name) {
  LogOutcome(call, outcome, fmt::format("The network [{}] has been edited.", name),
             fmt::format("Failed to edit the network [{}].", name));
}

void Edit(store::Store& store, const Call& call) {
  const auto id = call.request->GetAndCheckString(kNetworkId, kRequired, IsId);
  if (id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  NetworkSettings settings;
  if (!ReadSettings(call, settings)) return;
  std::string name;
  const auto done = networks::EditNetwork(store, id.Get(), settings, name);
  LogEdit(call, OutcomeOf(done), name.empty() ? id.Get() : name);
  if (!done.ok()) return Fail(call, done.error().code, done.error().reason);
  call.response->SetSuccess(Json::Value());
}

void LogRemoval(const Call& call, Outcome outcome, const std::string& name) {
  LogOutcome(call, outcome, fmt::format("The network [{}] has been removed.", name),
             fmt::format("Failed to remove the network [{}].", name));
}

void Remove(store::Store& store, const Call& call) {
  ChangeRecord(store, call, kNetworkId, networks::RemoveNetwork, LogRemoval);
}

std::vector<Parameter> SettingParameters() {
  return {
      OptionalString("description", "A text of up to 1024 bytes."),
      OptionalString("subnet",
                     "Of the kinds nat and isolated: a private IPv4 subnet with a prefix length of 16 to 29, such "
                     "as 192.168.100.0/24 (default: a free one)."),
      Optional("vlan_id", ParameterType::kInteger, "Of the kind vlan: its tag, 1 to 4094."),
      OptionalString("uplink", "Of the kinds bridge, vlan and macvtap: the interface of the hosts that leads outside."),
      Optional("uplinks", ParameterType::kObject,
               "Other uplinks by host id, for hosts whose interface has another name; \"\": none."),
      OptionalFlag("move_addresses",
                   "Of the kind bridge: it takes over the addresses and routes of its uplink; "
                   "otherwise, an uplink with addresses is refused.")};
}

std::vector<Parameter> Joined(std::vector<Parameter> parameters, const std::vector<Parameter>& more) {
  parameters.insert(parameters.end(), more.begin(), more.end());
  return parameters;
}

}  // namespace

std::vector<ApiRow> GuestNetworkRows(const std::shared_ptr<store::Store>& store) {
  const Parameter network_id = Text(kNetworkId, "The network's id.");
  return {
      UserRow("VEXA.Virtualization.Network", "list", LaneKind::kQuick,
              [store](const Call& call) { List(*store, call); },
              "The networks that guests' interfaces can be in: id, name, kind, and whether the hosts have them. "
              "Administrators also see their settings and hosts.",
              {}, {user_error::kRecordFailed}),
      UserRow("VEXA.Virtualization.Network", "get", LaneKind::kQuick, [store](const Call& call) { Get(*store, call); },
              "One network, as in the list.", {network_id},
              {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordFailed}),
      AdministratorRow(
          "VEXA.Virtualization.Network", "add", LaneKind::kLong, [store](const Call& call) { Add(*store, call); },
          "Add a network, and get its id. All hosts make it, or use the network or bridge that they have.",
          Joined({Text("name", "The network's name, 1 to 64 bytes; no other network may have it."),
                  Text("kind", "\"bridge\", \"nat\", \"isolated\", \"vlan\" or \"macvtap\"."),
                  OptionalString("bridge",
                                 "Of the kinds bridge and vlan: the name of the bridge on the hosts (default: the "
                                 "network's name).")},
                 SettingParameters()),
          {user_error::kBadParameter, user_error::kRecordExists, user_error::kRecordFailed}),
      AdministratorRow(
          "VEXA.Virtualization.Network", "edit", LaneKind::kLong, [store](const Call& call) { Edit(*store, call); },
          "Change a network. Its kind and its bridge stay.",
          Joined({network_id, OptionalString("name", "A new name, 1 to 64 bytes; no other network may have it.")},
                 SettingParameters()),
          {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordExists,
           user_error::kRecordFailed}),
      AdministratorRow("VEXA.Virtualization.Network", "remove", LaneKind::kLong,
                       [store](const Call& call) { Remove(*store, call); },
                       "Remove a network that no interface of a guest is in. The hosts remove what they have made for "
                       "it.",
                       {network_id},
                       {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordInUse,
                        user_error::kRecordFailed})};
}

}  // namespace vexa::api
