#include "host/api/peer/services.h"

#include <iterator>
#include <utility>

#include "host/api/peer/guest_rating_api.h"
#include "host/api/peer/rows.h"

namespace vexa::services {

webapi::ApiRow HostRow(std::string_view api, std::string_view method, webapi::LaneKind lane, webapi::Handler handler,
                       std::string_view summary, std::vector<webapi::Parameter> parameters, std::vector<int> errors) {
  return {.api = api,
          .method = method,
          .version = 1,
          .access = webapi::Access::kHost,
          .lane = lane,
          .handler = std::move(handler),
          .summary = summary,
          .parameters = std::move(parameters),
          .errors = std::move(errors)};
}

std::vector<webapi::ApiRow> ServiceRows(const ServiceParts& parts) {
  std::vector<webapi::ApiRow> rows;
  for (const auto make : {UtilizationRows, SystemRows, VolumeRows, NetworkRows, GuestReportRows, GuestPowerRows,
                          GuestSetRows, PollTaskRows}) {
    auto part = make(parts);
    rows.insert(rows.end(), std::make_move_iterator(part.begin()), std::make_move_iterator(part.end()));
  }
  auto ratings = GuestRatingRows(parts);
  rows.insert(rows.end(), std::make_move_iterator(ratings.begin()), std::make_move_iterator(ratings.end()));
  return rows;
}

}  // namespace vexa::services
