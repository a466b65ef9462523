// Reads the parameters of an import. They are untrusted: sizes, names and types are checked.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/guests/import/guest_import.h"

namespace vexa::api {

inline constexpr std::size_t kMaxImportedGuests = 100;    // in one call
inline constexpr std::size_t kMaxPlannedGuests = 10'000;  // of earlier dry runs
inline constexpr std::size_t kMaxImportEntries = 1000;    // sizes or networks of a guest

// The guests of the parameter "guests", an array. kInvalid, with a sentence about the first member that is missing,
// unknown, or not of its type and range. The definitions themselves are not checked.
Result<std::vector<guests::ImportRequest>> ReadImportRequests(const Json::Value& guests);

// The names of the parameter "planned", by id. kInvalid as above.
Result<std::map<std::string, std::string>> ReadPlannedGuests(const Json::Value& planned);

}  // namespace vexa::api
