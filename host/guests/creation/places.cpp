#include "host/guests/creation/places.h"

#include <fmt/format.h>

#include <utility>

#include "host/guests/edit/edit_request.h"
#include "host/records/keys.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {

using VexaCCC::DB::DashCate;

Result<std::optional<Refusal>> FindMissingPlace(const store::Snapshot& snapshot, const std::string& repository_id,
                                                const std::string& host_id) {
  const std::pair<const DashCate&, const std::string&> places[] = {{DashCate::Repository, repository_id},
                                                                   {DashCate::Host, host_id}};
  for (const auto& [category, id] : places) {
    if (id.empty()) continue;
    const auto place = snapshot.Get(records::ObjectKey(category.name(), id));
    if (!place) return place.error();
    if (place->has_value()) continue;
    return std::optional(Refusal{host_error::kNotFoundOrUnreadable,
                                 fmt::format("There is no {} {}", category.name(), QuoteForMessage(id))});
  }
  return std::optional<Refusal>();
}

}  // namespace vexa::guests
