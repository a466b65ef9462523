// What other hosts ask about guests that run here: what waits for their next start, and to apply it now.
#include "host/api/peer/rows.h"
#include "host/guests/guest_control.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

void Refuse(const Call& call, const Refusal& refusal) { call.response->SetError(refusal.code, refusal.reason); }

void ShowPending(guests::GuestControl* control, const Call& call) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, host_error::kBadParameter);
  if (!control) return Refuse(call, {host_error::kUnavailable, "This host runs no guests"});
  const auto pending = control->Pending(guest_id.Get());
  if (!pending.ok()) return Refuse(call, pending.error());
  Json::Value data(Json::objectValue);
  data["pending"] = domain_xml::ToJson(*pending);
  call.response->SetSuccess(data);
}

void Apply(guests::GuestControl* control, const store::Store* store, const Call& call) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, host_error::kBadParameter);
  const auto is_forced = call.request->GetAndCheckBool("force_eject", kOptional);
  if (is_forced.IsInvalid()) return Fail(call, host_error::kBadParameter);
  if (!control) return Refuse(call, {host_error::kUnavailable, "This host runs no guests"});
  if (const auto allowed = CheckDatabaseReadable(store); !allowed.ok()) return Refuse(call, allowed.error());
  const bool forces = is_forced.IsSet() && is_forced.Get();
  const auto eject = forces ? hypervisor::Eject::kForced : hypervisor::Eject::kIfUnlocked;
  const auto except = domain_xml::DifferencesFromJson(call.request->GetParam("except", Json::Value()));
  const auto applied = control->Apply(guest_id.Get(), except, eject, RequesterOf(call));
  if (!applied.ok()) return Refuse(call, applied.error());
  ShowPending(control, call);
}

}  // namespace

std::vector<ApiRow> GuestLiveRows(const ServiceParts& parts) {
  const Parameter guest = Text("guest_id", "The guest's id, a UUID.");
  return {
      HostRow("VEXA.CCC.Guest", "pending", LaneKind::kLong,
              [control = parts.guests](const Call& call) { ShowPending(control, call); },
              "What a guest that runs here will have otherwise at its next start.", {guest},
              {host_error::kBadParameter, host_error::kNotFoundOrUnreadable, host_error::kFailed,
               host_error::kUnavailable}),
      HostRow("VEXA.CCC.Guest", "apply", LaneKind::kLong,
              [control = parts.guests, store = parts.store](const Call& call) { Apply(control, store.get(), call); },
              "Changes a guest that runs here as its records say, as far as it can be changed; answers what waits.",
              {guest, OptionalFlag("force_eject", "Opens drives that the guest has locked as well."),
               Optional("except", ParameterType::kArray, "What goes on waiting, as \"pending\" has it.")},
              {host_error::kBadParameter, host_error::kNotFoundOrUnreadable, host_error::kFailed,
               host_error::kNotRunning, host_error::kBusy, host_error::kUnavailable})};
}

}  // namespace vexa::api
