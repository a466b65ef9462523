// The bridges of Open vSwitch and what is plugged into them, as its database knows them.
//
// The kernel does not show which port is on which of its bridges, and with the datapath in user space it shows nothing.
// The database is asked over its socket (RFC 7047), /run/openvswitch/db.sock, which only its owner may use: root,
// unless somebody has opened it. Where it cannot be asked, callers fall back to what the kernel shows.
#pragma once

#include <json/value.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vexa::guests {

struct SwitchPort {
  std::string name;       // of the interface
  std::string type;       // "" for one of the kernel's, "internal", "patch", "vxlan", "dpdk", …
  std::string peer;       // of a patch port: the other one's name
  bool has_link = false;  // as the switch sees it
};

// By the bridge's name.
using SwitchBridges = std::map<std::string, std::vector<SwitchPort>>;

// Not set: there is no such switch, it may not be asked, or it did not answer within a second, now or in
// the last 30 s. `root` stands in front of the socket's path. Threads: any, at the same time.
std::optional<SwitchBridges> ReadSwitch(const std::string& root = "");

// The question, and what becomes of its answer. Not set: the answer is an error or does not have the form of one.
std::string SwitchQuestion();
std::optional<SwitchBridges> ParseSwitchAnswer(const Json::Value& answer);

}  // namespace vexa::guests
