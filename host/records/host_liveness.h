// Decides from their heartbeats which hosts of the cluster are gone.
//
// A running host writes the time into /dash/host/<id>/seen every kHeartbeatInterval. A host that has not done so
// for kHeartbeatTimeout is gone, and so is one whose record says that it has left, or that was removed from the
// cluster. The stored states of such a host, its repositories and the guests that it has are then outdated; the readers
// of the dashboard and of the local configuration replace them with "inaccessible". Threads: any, at the same time.
#pragma once

#include <json/value.h>

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "host/base/result.h"
#include "host/records/reader.h"

namespace vexa::records {

inline constexpr std::chrono::seconds kHeartbeatInterval{3};
inline constexpr std::chrono::seconds kHeartbeatTimeout{12};

struct HostLiveness {
  bool is_gone = false;
  // The host's last heartbeat, by its own clock; the epoch when it is unknown or was not needed.
  std::chrono::system_clock::time_point last_heartbeat;
};

// This host itself is never gone, and neither is a host without any stored heartbeat, unless it was removed from the
// cluster. Errors: those of the store. Damaged records count as absent.
Result<HostLiveness> LivenessOf(const Reader& reader, const std::string& host_id);

// The ids of the hosts that send heartbeats and whose records do not say "inaccessible". Errors: those of the store.
// Damaged records count as absent.
Result<std::set<std::string>> ReachableHosts(const Reader& reader);

// Code that finds the cluster database lost calls this: while it is lost, no host can write heartbeats, so no host
// counts as gone until kHeartbeatTimeout after the last call.
void RecordDatabaseLoss();

// Whether the time in a "seen" record is at most kHeartbeatTimeout before or after `now`: clocks differ, so a time in
// the future is treated like one in the past.
bool IsRecentHeartbeat(const Json::Value& heartbeat, std::chrono::system_clock::time_point now);

// The state that readers see instead of the stored one: the "inaccessible" of that kind of object when the host
// responsible for it is gone. Not set: the stored state is valid. Errors: those of LivenessOf.
Result<std::optional<std::string_view>> HostStateIfGone(const Reader& reader, const std::string& host_id);
// `record` is the repository's.
Result<std::optional<std::string_view>> RepositoryStateIfHostGone(const Reader& reader, const Json::Value& record);
// `record` is the guest's, `state` its stored state. It is replaced when the guest was running, or had saved memory, on
// a host that is gone. A guest that was off stays off.
Result<std::optional<std::string_view>> GuestStateIfHostGone(const Reader& reader, const Json::Value& record,
                                                             std::string_view state);

}  // namespace vexa::records
