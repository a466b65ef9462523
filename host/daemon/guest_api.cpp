#include "host/daemon/guest_api.h"

#include "webapi/guest/guest.h"

namespace vexa::daemon {

using webapi::Access;
using webapi::LaneKind;
using webapi::Necessity;
using webapi::ParameterType;

std::vector<webapi::ApiRow> GuestRows() {
  return {
      {.api = "VEXA.Virtualization.Guest",
       .method = "get",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kQuick,
       .handler = webapi::Plain(VexaVirtualization::Guest::Get),
       .summary = "The stored configuration of one guest: general settings, disks and network interfaces.",
       .parameters = {{"guest_id", ParameterType::kString, Necessity::kRequired, "The guest's id, a UUID."}},
       .errors = {401, 403, 409, 413}},
  };
}

}  // namespace vexa::daemon
