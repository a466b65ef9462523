// Which hosts of the cluster are gone, judged by their signs of life.
//
// A running host writes the time into /dash/host/<id>/seen every kPresenceInterval. A host that has not done so for
// kPresenceWindow is gone, and so is one whose record says that it has left, or that was removed from the cluster. The
// stored states of such a host, its repositories and the guests that it has are then outdated; the readers of the
// dashboard and of the local configuration replace them with "inaccessible". Threads: any, at the same time.
#pragma once

#include <json/value.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::cluster {

inline constexpr std::chrono::seconds kPresenceInterval{3};
inline constexpr std::chrono::seconds kPresenceWindow{12};

struct HostLife {
  bool is_gone = false;
  // The last sign of life of a host that is gone; the epoch when it is unknown.
  std::chrono::system_clock::time_point seen;
};

// This host itself is never gone, and neither is a host without any stored sign of life. Errors: those of the store.
// Damaged records count as absent.
Result<HostLife> LifeOf(const std::string& host_id);

// While the cluster database was lost, no host could write signs of life, so none of them counts as missing until the
// hosts have had time to write them again. Code that finds the database lost calls this.
void NoteDatabaseLost();

// Whether the time in a record of kind "seen" is a current sign of life. Clocks differ: a time in the future is judged
// like one in the past.
bool IsSignOfLife(const Json::Value& seen, std::chrono::system_clock::time_point now);

// The state that replaces the stored one: the "inaccessible" of that kind of object when the host responsible for it is
// gone. Not set: the stored state is valid.
Result<std::optional<std::string_view>> HostStateNow(const std::string& host_id);
// `record` is the repository's.
Result<std::optional<std::string_view>> RepositoryStateNow(const Json::Value& record);
// `record` is the guest's, `state` its stored state. It is replaced when the guest was running, or had saved memory, on
// a host that is gone. A guest that was off stays off.
Result<std::optional<std::string_view>> GuestStateNow(const Json::Value& record, std::string_view state);

}  // namespace vexa::cluster
