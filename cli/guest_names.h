// Finds guests by the names that users know.
#pragma once

#include <string>
#include <vector>

#include "cli/client_options.h"

namespace vexa::cli {

struct NamedGuest {
  std::string id;
  std::string name;     // the id when it has no name, or is not in the list
  std::string host_id;  // "" when it has none
};

// Finds guests by id or name (UTF-8) in the list of all guests, which is "guests" in the reply to "list". Appends them
// to `guests` in the order of `ids_or_names`, without duplicates. An id that is not in the list is passed on, because
// the server reports the reason. Prints all unknown and ambiguous names; the exit code is not kOk then.
ExitCode FindGuests(const Json::Value& list, const std::vector<std::string>& ids_or_names,
                    std::vector<NamedGuest>& guests);

// The guest with this id in the list; only the id is known when it is not there.
NamedGuest GuestOf(const Json::Value& list, const std::string& id);

}  // namespace vexa::cli
