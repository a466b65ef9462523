// The bridges of Open vSwitch and their ports, from its database.
//
// The kernel does not show which port is on which bridge, and with the datapath in user space it shows no ports at all.
// The database is queried over its socket (RFC 7047), /run/openvswitch/db.sock, which only root may use unless an
// administrator permits others. If it cannot be queried, callers fall back to what the kernel shows.
#pragma once

#include <json/value.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vexa::machine {

struct SwitchPort {
  std::string name;       // the name of the interface
  std::string type;       // "" for a kernel interface, "internal", "patch", "vxlan", "dpdk", …
  std::string peer;       // of a patch port: the name of the patch port that it connects to
  bool has_link = false;  // as the switch reports it
};

// The ports by the name of their bridge.
using SwitchBridges = std::map<std::string, std::vector<SwitchPort>>;

// Queries the database. Not set if there is no switch, access is denied, the reply is malformed, or the switch did not
// reply within a second, in this call or in one of the last 30 s. `root` is prepended to the socket's path.
// Threads: any, at the same time.
std::optional<SwitchBridges> ReadSwitch(const std::string& root = "");

// The query that ReadSwitch sends, and the parser of its reply. Not set if the reply is an error or malformed.
std::string SwitchQuery();
std::optional<SwitchBridges> ParseSwitchReply(const Json::Value& reply);

}  // namespace vexa::machine
