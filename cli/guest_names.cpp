#include "cli/guest_names.h"

#include <algorithm>
#include <utility>

#include "cli/api_paths.h"
#include "cli/listing.h"
#include "cli/reply.h"

namespace vexa::cli {
namespace {}  // namespace

CallOutcome ListGuests(HttpClient& client) {
  CallOutcome outcome = CallApi(client, kGuestList, "{}");
  if (outcome.exit_code == ExitCode::kOk && !Member(outcome.data, "guests").isArray()) {
    outcome.exit_code = Report(NotUnderstood("guests"));
  }
  return outcome;
}

NamedGuest GuestOf(const Json::Value& list, const std::string& id) {
  NamedGuest guest{id, id, ""};
  for (const Json::Value& element : list) {
    if (Text(Member(element, kGuestNaming.id)) != id) continue;
    if (const std::string name = Text(Member(element, kGuestNaming.name)); !name.empty()) guest.name = name;
    guest.host_id = Text(Member(element, "host_id"));
    break;
  }
  return guest;
}

ExitCode FindGuests(const Json::Value& list, const std::vector<std::string>& words, std::vector<NamedGuest>& guests) {
  ExitCode exit_code = ExitCode::kOk;
  for (const std::string& word : words) {
    const Result<std::string> id = FindByIdOrName(list, kGuestNaming, word);
    if (!id) {
      exit_code = Report(id.error());
    } else if (std::ranges::find(guests, *id, &NamedGuest::id) == guests.end()) {
      guests.push_back(GuestOf(list, *id));
    }
  }
  return exit_code;
}

}  // namespace vexa::cli
