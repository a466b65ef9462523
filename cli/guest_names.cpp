#include "cli/guest_names.h"

#include <algorithm>
#include <utility>

#include "cli/objects.h"
#include "cli/reply.h"

namespace vexa::cli {
NamedGuest GuestOf(const Json::Value& list, const std::string& id) {
  NamedGuest guest{id, id, ""};
  for (const Json::Value& element : list) {
    if (Text(Member(element, kGuests.id)) != id) continue;
    if (const std::string name = Text(Member(element, kGuests.name)); !name.empty()) guest.name = name;
    guest.host_id = Text(Member(element, "host_id"));
    break;
  }
  return guest;
}

ExitCode FindGuests(const Json::Value& list, const std::vector<std::string>& ids_or_names,
                    std::vector<NamedGuest>& guests) {
  ExitCode exit_code = ExitCode::kOk;
  for (const std::string& id_or_name : ids_or_names) {
    const Result<std::string> id = FindByIdOrName(list, kGuests, id_or_name);
    if (!id) {
      exit_code = Report(id.error());
    } else if (std::ranges::find(guests, *id, &NamedGuest::id) == guests.end()) {
      guests.push_back(GuestOf(list, *id));
    }
  }
  return exit_code;
}

}  // namespace vexa::cli
