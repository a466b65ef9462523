// The Open vSwitch bridges and what is plugged into them, according to its database.
//
// The kernel does not show which port is on which of its bridges, and with the datapath in user space it shows nothing.
// The database is queried over its socket (RFC 7047), /run/openvswitch/db.sock. Only its owner, root, may use that
// unless an administrator has opened it. If it cannot be queried, callers fall back to what the kernel shows.
#pragma once

#include <json/value.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vexa::guests {

struct SwitchPort {
  std::string name;       // of the interface
  std::string type;       // "" for a kernel interface, "internal", "patch", "vxlan", "dpdk", …
  std::string peer;       // for a patch port: the name of the other one
  bool has_link = false;  // as the switch sees it
};

// By the bridge's name.
using SwitchBridges = std::map<std::string, std::vector<SwitchPort>>;

// Not set: there is no such switch, access is denied, or it did not answer within a second, now or in the last 30 s.
// `root` is prepended to the socket's path. Threads: any, at the same time.
std::optional<SwitchBridges> ReadSwitch(const std::string& root = "");

// The query, and the parser of its answer. Not set: the answer is an error or malformed.
std::string SwitchQuestion();
std::optional<SwitchBridges> ParseSwitchAnswer(const Json::Value& answer);

}  // namespace vexa::guests
