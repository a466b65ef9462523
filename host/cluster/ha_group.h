// High-availability groups.
//
//   /dash/ha_group/<group id>/object
//     {"name", "state" (VexaCCC::State::HAGroup), "fail_reason" (VexaCCC::HA_FAIL_REASON),
//      "warn": {"ha_warn_host_short_ram" | "ha_warn_host_short_cpu" | "ha_warn_host_short_cpu_pin": {"<host id>": …}},
//      "hosts": [{"host_id", "ha_host_role": ["repo_host" | "recovery_host" | "running_host"],
//                 "ha_warn_host_rocky": <bits of VexaCCC::DB::HostState: problems of the host; negative: inaccessible>,
//                 "ha_warn_host_not_compatible": [<check>]}]}
//
// A guest's record names its group as "ha_group_id".
#pragma once

#include <json/value.h>

#include "webapi/platform/ccc.h"

namespace vexa::cluster {

inline constexpr VexaCCC::DB::DashCate kHaGroup("ha_group");

// The hosts of a group in the library's format for info["ha"]: {"hosts": […]}. `group` is the group's record. The last
// two members of a host are present only when they have the right type; a host that is not an object is left out, and
// anything else of a wrong type reads as "" or an empty list.
Json::Value HaInfoOf(const Json::Value& group);

}  // namespace vexa::cluster
