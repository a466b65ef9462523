// States of this host's guests that it has observed and could not store because the cluster database is lost.
#pragma once

#include <optional>
#include <string>

namespace vexa::records {

// In memory only: after a restart, the guests are observed again. Threads: any, at the same time.

// `state` is a value of VexaCCC::State::Guest.
void SetUnstoredState(const std::string& guest_id, const std::string& state);
// Call when this or another state of the guest has been stored.
void ClearUnstoredState(const std::string& guest_id);
// Not set: no observed state of the guest waits to be stored.
std::optional<std::string> UnstoredState(const std::string& guest_id);

}  // namespace vexa::records
