// Which hosts of the cluster are gone, by their signs of life.
//
// A running host writes the time into /dash/host/<id>/seen every kPresenceInterval. One that has not done so for
// kPresenceWindow is gone, and so is one that says in its record that it has left, or that was removed from the
// cluster. What the records say of such a host, its repositories and the guests that it has is what they said last; the
// readers of the dashboard and of the local configuration put "inaccessible" in its place. Threads: any, at the same
// time.
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
  // The last sign of life of a host that is gone; the epoch when none is known.
  std::chrono::system_clock::time_point seen;
};

// This host itself is never gone, and neither is a host of which no sign of life was ever stored.
// Errors: what the store says. Damaged records count as absent.
Result<HostLife> LifeOf(const std::string& host_id);

// Nobody could write signs of life while the cluster database was lost, so none of them counts as missing until hosts
// have had the time to write them again. Whoever finds the database lost notes it.
void NoteDatabaseLost();

// Whether the time in a record of kind "seen" is a sign of life now. Clocks differ: a time ahead is judged as one
// behind.
bool IsSignOfLife(const Json::Value& seen, std::chrono::system_clock::time_point now);

// The state that takes the place of the stored one: "inaccessible" of the kind of object when the host that speaks for
// it is gone. Not set: the stored state holds.
Result<std::optional<std::string_view>> HostStateNow(const std::string& host_id);
// `record` is the repository's.
Result<std::optional<std::string_view>> RepositoryStateNow(const Json::Value& record);
// `record` is the guest's, `state` its stored state, which is replaced when the guest had something that runs, or saved
// memory, on a host that is gone. A guest that was off is off.
Result<std::optional<std::string_view>> GuestStateNow(const Json::Value& record, std::string_view state);

}  // namespace vexa::cluster
