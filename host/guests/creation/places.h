// The repository and the host that a new guest's record names. For host/guests/creation/*.cpp only.
#pragma once

#include <optional>
#include <string>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

// The refusal 403 when one of them has no record; "" is not looked up. Not set: both exist. Call it for each commit:
// they may have been removed meanwhile. Errors: those of the store.
Result<std::optional<Refusal>> FindMissingPlace(const store::Snapshot& snapshot, const std::string& repository_id,
                                                const std::string& host_id);

}  // namespace vexa::guests
