#include "host/api/peer/guest_set_api.h"

#include <utility>

#include "host/api/edit_parameters.h"
#include "host/api/peer/rows.h"
#include "host/guests/guest_control.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

// For processors that could not be dedicated to a running guest, the details in the form that callers read; otherwise a
// sentence.
Json::Value DetailsOf(const Refusal& refusal) {
  if (refusal.code != kNotPinned) return refusal.reason;
  Json::Value details(Json::objectValue);
  details["pin_reserved"] = false;
  return details;
}

void Set(guests::GuestControl* control, const store::Store* store, const Call& call) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, host_error::kBadParameter);
  if (!control) return call.response->SetError(host_error::kUnavailable, "This host runs no guests");
  if (const auto allowed = CheckDatabaseReadable(store); !allowed.ok()) {
    return call.response->SetError(allowed.error().code, allowed.error().reason);
  }
  const auto edited = control->Edit(guest_id.Get(), call.request->GetParam("", Json::Value()), RequesterOf(call));
  if (!edited.ok()) return call.response->SetError(edited.error().code, DetailsOf(edited.error()));
  call.response->SetSuccess(Json::Value());
}

}  // namespace

std::vector<ApiRow> GuestSetRows(const ServiceParts& parts) {
  return {HostRow(
      "VEXA.CCC.Guest", "set", LaneKind::kLong,
      [control = parts.guests, store = parts.store](const Call& call) { Set(control, store.get(), call); },
      "Edits a guest: makes all changes or none. A running guest takes what it can, and the rest at its next start.",
      EditParametersWithApply(Audience::kHosts),
      {host_error::kBadParameter, host_error::kNotFoundOrUnreadable, host_error::kTooManyDisks, host_error::kFailed,
       host_error::kNameTaken, host_error::kBadNic, host_error::kBadDisk, host_error::kOnOtherHost, host_error::kBusy,
       host_error::kNoImage, host_error::kBadUsb, host_error::kNoUsbPort, host_error::kSuspended,
       host_error::kUnavailable, host_error::kPartsNotReserved})};
}

}  // namespace vexa::api
