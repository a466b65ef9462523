#include "host/api/peer/guest_set_api.h"

#include <utility>

#include "host/api/edit_parameters.h"
#include "host/api/peer/rows.h"
#include "host/guests/guest_control.h"
#include "webapi/platform/ccc.h"

namespace vexa::services {
namespace {

using webapi::Call;

// For processors that could not be dedicated to a running guest, the details in the form that callers read; otherwise a
// sentence.
Json::Value DetailsOf(const guests::Refusal& refusal) {
  if (refusal.code != guests::kNotPinned) return refusal.reason;
  Json::Value details(Json::objectValue);
  details["pin_reserved"] = false;
  return details;
}

void Set(guests::GuestControl* control, const store::Store* store, const Call& call) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  if (!control) return call.response->SetError(guests::kUnavailable, "This host runs no guests");
  if (const guests::Refused refused = RefusedByDatabase(store)) {
    return call.response->SetError(refused->code, refused->reason);
  }
  const guests::Refused refused =
      control->Edit(guest_id.Get(), call.request->GetParam("", Json::Value()), RequesterOf(call));
  if (refused) return call.response->SetError(refused->code, DetailsOf(*refused));
  call.response->SetSuccess(Json::Value());
}

}  // namespace

std::vector<webapi::ApiRow> GuestSetRows(const ServiceParts& parts) {
  return {HostRow(
      "VEXA.CCC.Guest", "set", webapi::LaneKind::kLong,
      [control = parts.guests, store = parts.store](const Call& call) { Set(control, store.get(), call); },
      "Changes a guest: all that is given, or nothing. What a guest that runs cannot take counts from its next start.",
      webapi::EditParameters(webapi::Audience::kHosts),
      {401, 403, 410, 901, 902, 903, 904, 912, 915, 932, 936, 938, 944, 949, 2101})};
}

}  // namespace vexa::services
