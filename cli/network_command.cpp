#include "cli/network_command.h"

#include <fmt/format.h>

#include <iostream>

#include "cli/listing.h"
#include "cli/object_names.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"

namespace vexa::cli {
namespace {

constexpr const char* kAddNetwork = "/webapi/VEXA.Virtualization.Network/add";
constexpr const char* kEditNetwork = "/webapi/VEXA.Virtualization.Network/edit";
constexpr const char* kGetNetwork = "/webapi/VEXA.Virtualization.Network/get";
constexpr const char* kRemoveNetwork = "/webapi/VEXA.Virtualization.Network/remove";

Status CheckUtf8(const Json::Value& parameters) {
  for (const std::string& member : VexaVirtualization::json::MemberNames(parameters)) {
    const Json::Value& value = Member(parameters, member);
    if (value.isString() && !IsValidUtf8(Text(value))) {
      return Error(ErrorCode::kInvalid, fmt::format("The value of '{}' is not valid UTF-8", member));
    }
  }
  return {};
}

// Adds the settings to the parameters of "add" and "edit". Hosts are named by id or name. Failures are printed.
ExitCode AddSettings(HttpClient& client, const NetworkSettingOptions& settings, Json::Value& parameters) {
  if (settings.description) parameters["description"] = *settings.description;
  if (settings.subnet) parameters["subnet"] = *settings.subnet;
  if (settings.vlan_id) parameters["vlan_id"] = *settings.vlan_id;
  if (settings.uplink) parameters["uplink"] = *settings.uplink;
  if (settings.move_addresses) parameters["move_addresses"] = *settings.move_addresses == "on";
  if (const Status checked = CheckUtf8(parameters); !checked) return Report(checked.error());
  for (const std::string& argument : settings.uplinks) {
    const std::size_t at = argument.find('=');
    if (at == std::string::npos || at == 0 || !IsValidUtf8(argument)) {
      return Report(Error(ErrorCode::kInvalid, fmt::format("'{}' is not an uplink. Use HOST=INTERFACE", argument)));
    }
    std::string host_id;
    const ExitCode found = FindId(client, kHosts, argument.substr(0, at), host_id);
    if (found != ExitCode::kOk) return found;
    parameters["uplinks"][host_id] = argument.substr(at + 1);
  }
  return ExitCode::kOk;
}

// What the network leads to: "192.168.100.0/24", "VLAN 42 on eth0", "br0".
std::string Summary(const Json::Value& network) {
  const auto text = [&](const char* member) { return Text(Member(network, member)); };
  std::string summary = text("subnet");
  if (!text("vlan_id").empty()) summary = "VLAN " + text("vlan_id");
  if (summary.empty()) summary = text("network_name");
  if (!text("uplink").empty()) summary += " on " + text("uplink");
  return summary;
}

std::string StateOf(const Json::Value& network) {
  const Json::Value& active = Member(network, "active");
  const bool is_inactive = active.isBool() && !active.asBool();
  return Text(Member(network, "state")) + (is_inactive ? " (not active)" : "");
}

void PrintNetwork(const GlobalOptions& global, const Json::Value& network) {
  ObjectNames names(global);
  struct Line {
    const char* label;
    const char* member;
  };
  static constexpr Line kLines[] = {{"Network", "network_id"}, {"Name", "name"},        {"Description", "description"},
                                    {"Kind", "kind"},          {"State", "state"},      {"On hosts", "network_name"},
                                    {"Subnet", "subnet"},      {"VLAN tag", "vlan_id"}, {"Uplink", "uplink"}};
  for (const Line& line : kLines) {
    const std::string text = Text(Member(network, line.member));
    if (!text.empty()) std::cout << fmt::format("{:<13}{}\n", fmt::format("{}:", line.label), Printable(text));
  }
  if (!IsTrue(Member(network, "managed"))) std::cout << "It was found on the hosts; 'vexa network add' adopts it.\n";
  const Json::Value& uplinks = Member(network, "uplinks");
  for (const std::string& host_id : VexaVirtualization::json::MemberNames(uplinks)) {
    std::cout << fmt::format("  uplink of {}: {}\n", Printable(names.Of(kHosts, host_id)),
                             Printable(Text(Member(uplinks, host_id))));
  }
  for (const Json::Value& host : VexaVirtualization::json::Elements(Member(network, "hosts"))) {
    const std::string reason = Text(Member(host, "reason"));
    std::cout << fmt::format("  host {}: {}{}\n", Printable(names.Of(kHosts, Text(Member(host, "host_id")))),
                             Printable(Text(Member(host, "state"))),
                             reason.empty() ? "" : fmt::format(" ({})", Printable(reason)));
  }
}

std::string KindOf(const NetworkAddOptions& options) {
  if (!options.kind.empty()) return options.kind;
  if (options.settings.vlan_id) return "vlan";
  return options.bridge.empty() ? "nat" : "bridge";
}

}  // namespace

ExitCode RunNetworkAdd(const GlobalOptions& global, const NetworkAddOptions& options) {
  const std::string& name = options.name.empty() ? options.bridge : options.name;
  if (name.empty()) return Report(Error(ErrorCode::kInvalid, "Give the network a name, or an existing --bridge"));
  Json::Value parameters(Json::objectValue);
  parameters["name"] = name;
  parameters["kind"] = KindOf(options);
  if (!options.bridge.empty()) parameters["bridge"] = options.bridge;
  const CallOutcome outcome = CallWithClient(global, [&](HttpClient& client) {
    CallOutcome failed;
    failed.exit_code = AddSettings(client, options.settings, parameters);
    if (failed.exit_code != ExitCode::kOk) return failed;
    return CallApi(client, kAddNetwork, RenderJson(parameters, JsonLayout::kOneLine));
  });
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  const std::string id = Text(Member(outcome.data, kNetworks.id));
  if (id.empty()) return Report(MissingInReply("id of the network"));
  std::cout << Printable(id) << '\n';
  return ExitCode::kOk;
}

ExitCode RunNetworkEdit(const GlobalOptions& global, const NetworkEditOptions& options) {
  Json::Value parameters(Json::objectValue);
  if (!options.name.empty()) parameters["name"] = options.name;
  const CallOutcome outcome = CallWithClient(global, [&](HttpClient& client) {
    CallOutcome failed;
    failed.exit_code = AddSettings(client, options.settings, parameters);
    if (failed.exit_code != ExitCode::kOk) return failed;
    if (parameters.empty()) {
      failed.exit_code =
          Report(Error(ErrorCode::kInvalid, "Nothing to change is named; see 'vexa network edit --help'"));
      return failed;
    }
    std::string id;
    failed.exit_code = FindId(client, kNetworks, options.network, id);
    if (failed.exit_code != ExitCode::kOk) return failed;
    parameters[kNetworks.id] = id;
    return CallApi(client, kEditNetwork, RenderJson(parameters, JsonLayout::kOneLine));
  });
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  return PrintConfirmation(global, fmt::format("Edited the network '{}'", Printable(options.network)));
}

ExitCode RunNetworkList(const GlobalOptions& global) {
  const CallOutcome outcome = ListObjects(global, kNetworks);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& networks = Member(outcome.data, kNetworks.plural);
  if (global.json) return PrintJson(networks);
  Table table{{"NAME", "KIND", "STATE", "MANAGED", "LEADS TO"}, {}};
  if (global.ids) table.header.insert(table.header.begin(), "NETWORK");
  for (const Json::Value& network : networks) {
    const auto text = [&](const char* member) { return Text(Member(network, member)); };
    table.rows.push_back({text(kNetworks.name), text("kind"), StateOf(network),
                          IsTrue(Member(network, "managed")) ? "yes" : "no", Summary(network)});
    if (global.ids) table.rows.back().insert(table.rows.back().begin(), text(kNetworks.id));
  }
  PrintTable(std::cout, table);
  return ExitCode::kOk;
}

ExitCode RunNetworkShow(const GlobalOptions& global, const std::string& network) {
  return ShowObject(global, kNetworks, kGetNetwork, network,
                    [&global](const Json::Value& data) { PrintNetwork(global, data); });
}

ExitCode RunNetworkRemove(const GlobalOptions& global, const std::string& network) {
  std::string id;
  const ExitCode removed = CallForObject(global, kNetworks, kRemoveNetwork, network, id);
  if (removed != ExitCode::kOk) return removed;
  return PrintConfirmation(global, fmt::format("Removed the network '{}'", Printable(network)));
}

ExitCode ResolveNetworks(HttpClient& client, Json::Value& parameters) {
  for (const char* list : {"vnics_add", "vnics_edit"}) {
    if (!parameters.isMember(list)) continue;
    for (Json::Value& nic : parameters[list]) {
      const std::string name = Text(Member(nic, "network_id"));
      if (name.empty()) continue;
      std::string id;
      const ExitCode found = FindId(client, kNetworks, name, id);
      if (found != ExitCode::kOk) return found;
      nic["network_id"] = id;
    }
  }
  return ExitCode::kOk;
}

}  // namespace vexa::cli
