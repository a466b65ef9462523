// Reads the parameters of an import. Administrators' programs send them: sizes, names and types are hostile.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/guests/import/guest_import.h"

namespace vexa::services {

inline constexpr std::size_t kMaxImportedGuests = 100;    // in one call
inline constexpr std::size_t kMaxPlannedGuests = 10'000;  // of the checks before
inline constexpr std::size_t kMaxImportEntries = 1000;    // sizes or networks of a guest

// The guests of the parameter "guests", an array. kInvalid, with a sentence about the first member that is missing,
// unknown, or not of its type and range. What the definitions say is not looked at.
Result<std::vector<guests::ImportRequest>> ReadImportRequests(const Json::Value& guests);

// Of the parameter "planned": names by id. kInvalid as above.
Result<std::map<std::string, std::string>> ReadPlannedGuests(const Json::Value& planned);

}  // namespace vexa::services
