// Lists in a server's replies: tables of them, and the one object that a user means.
#pragma once

#include <json/value.h>

#include <span>
#include <string>

#include "host/base/result.h"

namespace vexa::cli {

// Like Text (cli/reply.h), but numbers in a readable form: with at most 3 decimals and without trailing zeros.
std::string Shown(const Json::Value& value);

struct Column {
  const char* label;
  const char* member;
};

// A table on standard output; elements that are not objects become empty rows.
void PrintRows(const Json::Value& list, std::span<const Column> columns);

// How users refer to an object of a list.
struct Naming {
  const char* kind;             // "host"
  const char* id;               // the members with the id
  const char* name;             // and the name
  const char* kinds = nullptr;  // the plural, when it is not the kind with an "s"
};

inline constexpr Naming kGuestNaming{"guest", "guest_id", "guest_name"};
inline constexpr Naming kHostNaming{"host", "host_id", "name"};
inline constexpr Naming kImageNaming{"image", "image_id", "name"};
inline constexpr Naming kRepositoryNaming{"repository", "repository_id", "name", "repositories"};

// The id of the one object with this name. kNotFound; kConflict, with their ids, when there are several.
Result<std::string> FindByName(const Json::Value& list, const Naming& naming, const std::string& name);

// The id of the one object with this id, else of this name. A UUID that is not in the list stays what it is: the server
// knows why. Errors: as FindByName.
Result<std::string> FindByIdOrName(const Json::Value& list, const Naming& naming, const std::string& word);

// {"<name>": "<value>"}
std::string OneParameter(const char* name, const std::string& value);

Error NotUnderstood(const char* what);
Error NotText(const char* what);

}  // namespace vexa::cli
