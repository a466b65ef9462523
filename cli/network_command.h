// vexa network: the networks of guests' interfaces.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/client_options.h"

namespace vexa::cli {

// What is set of a network. A value that is not set stays as it is, or gets its default.
struct NetworkSettingOptions {
  std::optional<std::string> description;
  std::optional<std::string> subnet;
  std::optional<int> vlan_id;
  std::optional<std::string> uplink;
  std::vector<std::string> uplinks;           // "HOST=INTERFACE"
  std::optional<std::string> move_addresses;  // "on" or "off"
};

struct NetworkAddOptions {
  std::string name;    // "": that of the bridge
  std::string kind;    // "": "vlan" with a tag, "bridge" with a bridge, otherwise "nat"
  std::string bridge;  // "": the network's name
  NetworkSettingOptions settings;
};

// Prints the id.
ExitCode RunNetworkAdd(const GlobalOptions& global, const NetworkAddOptions& options);

struct NetworkEditOptions {
  std::string network;  // its id or name
  std::string name;     // a new one; "": it stays
  NetworkSettingOptions settings;
};
ExitCode RunNetworkEdit(const GlobalOptions& global, const NetworkEditOptions& options);

// A line each: id, name, kind, state, and for administrators what it leads to; with --json the server's list.
ExitCode RunNetworkList(const GlobalOptions& global);

// `network`: an id or a name.
ExitCode RunNetworkShow(const GlobalOptions& global, const std::string& network);
ExitCode RunNetworkRemove(const GlobalOptions& global, const std::string& network);

// Replaces the names of networks in the interfaces of `parameters`, those of "set", by their ids. Failures are printed.
ExitCode ResolveNetworks(HttpClient& client, Json::Value& parameters);

}  // namespace vexa::cli
