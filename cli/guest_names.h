// Guests as users call them.
#pragma once

#include <string>
#include <vector>

#include "cli/client_options.h"

namespace vexa::cli {

struct NamedGuest {
  std::string id;
  std::string name;     // the id when it has none, or is not in the list
  std::string host_id;  // "" when it has none
};

// The data of Guest "list", checked; failures are printed.
CallOutcome ListGuests(HttpClient& client);

// Finds the guests called `words`, ids or names in UTF-8, in the list of ListGuests; each once, in the order of the
// words. An id that is not in the list stays what it is: the server knows why. Words that are nobody's or several
// guests' are all printed, and then the exit code is not kOk.
ExitCode FindGuests(const Json::Value& list, const std::vector<std::string>& words, std::vector<NamedGuest>& guests);

// The guest with this id.
NamedGuest GuestOf(const Json::Value& list, const std::string& id);

}  // namespace vexa::cli
