// Cluster control: high-availability groups.
#pragma once

#include <json/value.h>

#include <string>

#pragma GCC visibility push(default)

namespace VexaCCC {

// Why the last failover or switchover of a group failed; 0: it did not. May hold any value.
enum HA_FAIL_REASON : int {
  HA_FAIL_NONE = 0,
};

// 0, or anything else on failure: the output is untouched.
int haStateGet(const std::string& group_id, std::string& state);
// {"ha_warn_host_short_ram", "ha_warn_host_short_cpu", "ha_warn_host_short_cpu_pin"}, each an object keyed by host id
// and each only when some host lacks it.
int haWarnGet(const std::string& group_id, Json::Value& warn);
int haErrorGet(const std::string& group_id, HA_FAIL_REASON& code);

namespace DB {
namespace HostState {

// The name of a problem of a host, by its bit (0 to 4); "" for any other.
std::string toString(int bit);

}  // namespace HostState
}  // namespace DB

}  // namespace VexaCCC

#pragma GCC visibility pop
