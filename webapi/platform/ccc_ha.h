// Cluster control: high-availability groups.
#pragma once

#include <json/value.h>

#include <string>

#pragma GCC visibility push(default)

namespace VexaCCC {

// Why the last failover or switchover of a group failed; 0 when it did not. May have any value.
enum HA_FAIL_REASON : int {
  HA_FAIL_NONE = 0,
};

// These return 0 on success. On any other result, the output is unchanged.
int haStateGet(const std::string& group_id, std::string& state);
// `warn` becomes {"ha_warn_host_short_ram", "ha_warn_host_short_cpu", "ha_warn_host_short_cpu_pin"}, each an object
// keyed by the ids of the hosts with that shortage. A member is missing when no host has the shortage.
int haWarnGet(const std::string& group_id, Json::Value& warn);
int haErrorGet(const std::string& group_id, HA_FAIL_REASON& code);

namespace DB {
namespace HostState {

// The name of a host problem, by its bit (0 to 4); "" for any other number.
std::string toString(int bit);

}  // namespace HostState
}  // namespace DB

}  // namespace VexaCCC

#pragma GCC visibility pop
