#include "host/api/peer/services.h"

#include <iterator>
#include <utility>

#include "host/api/peer/guest_rating_api.h"
#include "host/api/peer/rows.h"

namespace vexa::api {

std::vector<ApiRow> ServiceRows(const ServiceParts& parts) {
  std::vector<ApiRow> rows;
  for (const auto make :

       {UtilizationRows, SystemRows, VolumeRows, NetworkRows, GuestReportRows, GuestPowerRows, GuestConsoleRows,
        CertificateRows, GuestLiveRows, GuestSetRows, GuestCreationRows, GuestImportRows, PollTaskRows}) {
    auto part = make(parts);
    rows.insert(rows.end(), std::make_move_iterator(part.begin()), std::make_move_iterator(part.end()));
  }
  auto ratings = GuestRatingRows(parts);
  rows.insert(rows.end(), std::make_move_iterator(ratings.begin()), std::make_move_iterator(ratings.end()));
  return rows;
}

}  // namespace vexa::api
