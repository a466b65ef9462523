#include "host/api/user/guest_api.h"

#include "host/api/edit_parameters.h"
#include "host/api/user/gone_host.h"
#include "webapi/guest/guest.h"
#include "webapi/guest/guest_action.h"

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
      {.api = "VEXA.Virtualization.Guest",
       .method = "set",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kLong,
       .handler = webapi::Plain(VexaVirtualization::Guest::Set),
       .summary =
           "Edit a guest; what is not named stays. For administrators and advanced users. Users who were granted "
           "the guest may change \"iso_images\" and \"use_ovmf\".",
       .parameters = webapi::EditParameters(webapi::Audience::kUsers),
       .errors = {401, 403, 406, 407, 409, 411, 413, 909, 910,  919,
                  920, 926, 930, 934, 935, 937, 943, 946, 1001, 1600}},
      {.api = "VEXA.Virtualization.Guest",
       .method = "delete",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kLong,
       .handler = services::WithGoneHostReason(webapi::Plain(VexaVirtualization::Guest::Delete),
                                               services::NeededHost::kHolder),
       .summary = "Delete a guest with its disks. It must not run. For administrators, and for advanced users who were "
                  "granted the guest.",
       .parameters = {{"guest_id", ParameterType::kString, Necessity::kRequired, "The guest's id, a UUID."}},
       .errors = {401, 403, 407, 409, 901}},
      {.api = "VEXA.Virtualization.Guest.Action",
       .method = "pwr_ctl",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kLong,
       .handler = services::WithGoneHostReason(webapi::Plain(VexaVirtualization::GuestAction::PwrCtl),
                                               services::NeededHost::kHolderOrNamed),
       .summary =
           "Power a guest on or off, shut it down or reboot it. \"poweroff_by_ha\" powers it off on several hosts "
           "and answers for each of them.",
       .parameters = {{"guest_id", ParameterType::kString, Necessity::kRequired, "The guest's id."},
                      {"action", ParameterType::kString, Necessity::kRequired,
                       "\"poweron\", \"shutdown\", \"poweroff\", \"reboot\" or \"poweroff_by_ha\"."},
                      {"host_ids", ParameterType::kArray, Necessity::kOptional,
                       "For \"poweroff_by_ha\", which needs it: the ids of the hosts to ask."}},
       .errors = {401, 403, 407, 409, 415, 620, 902, 903, 904, 905, 912, 914,
                  915, 927, 928, 932, 933, 939, 944, 947, 954, 959, 965}},
  };
}

}  // namespace vexa::daemon
