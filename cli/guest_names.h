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

// The data of Guest "list", checked; failures are printed.
CallOutcome ListGuests(HttpClient& client);

// Finds the guests for `words`, ids or names in UTF-8, in the list from ListGuests, without duplicates and in the order
// of the words. An id that is not in the list is passed on: the server knows why. Unknown and ambiguous words are all
// printed, and then the exit code is not kOk.
ExitCode FindGuests(const Json::Value& list, const std::vector<std::string>& words, std::vector<NamedGuest>& guests);

// The guest with this id.
NamedGuest GuestOf(const Json::Value& list, const std::string& id);

}  // namespace vexa::cli
