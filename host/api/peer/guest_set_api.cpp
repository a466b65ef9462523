#include "host/api/peer/guest_set_api.h"

#include <utility>

#include "host/api/edit_parameters.h"
#include "host/api/peer/rows.h"
#include "host/base/guest_setting.h"
#include "host/guests/guest_control.h"
#include "host/records/run_record.h"
#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"

namespace vexa::api {
namespace {

namespace json = VexaVirtualization::json;

// For processors that could not be dedicated to a running guest, the details in the form that callers read; otherwise a
// sentence.
Json::Value DetailsOf(const Refusal& refusal) {
  if (refusal.code != kNotPinned) return refusal.reason;
  Json::Value details(Json::objectValue);
  details["pin_reserved"] = false;
  return details;
}

constexpr int kPendingTimeoutS = 3;
constexpr int kApplyTimeoutS = 600;

// The host that runs the guest, when that is another one; "" otherwise.
std::string OtherHolder(const store::Store* store, const std::string& guest_id) {
  if (!store) return "";
  const auto run = records::ReadRun(*store, guest_id);
  if (!run || !*run || (*run)->run.host_id == VexaCCC::DB::DBLocalhostID()) return "";
  return (*run)->run.host_id;
}

VexaDRCore::Response Ask(const std::string& host_id, const char* method, Json::Value parameters, int timeout_s) {
  VexaDRCore::Request request;
  request.setAPI("VEXA.CCC.Guest");
  request.setMethod(method);
  request.setVersion(1);
  request.addParam(parameters);
  request.setTimeout(timeout_s);
  return VexaCCC::Sender(host_id).process(request);
}

// After an edit here: the host that runs the guest changes its machine. When it does not answer, the edit waits for the
// guest's next start.
void ApplyElsewhere(const std::string& host_id, const std::string& guest_id, const VexaDRCore::Response& before) {
  if (!before.isSuccess()) return;
  Json::Value parameters(Json::objectValue);
  parameters["guest_id"] = guest_id;
  parameters["except"] = json::Elements(json::Member(before.getData(), "pending"));
  (void)Ask(host_id, "apply", parameters, kApplyTimeoutS);
}

void Set(guests::GuestControl* control, const store::Store* store, const Call& call) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, host_error::kBadParameter);
  if (!control) return call.response->SetError(host_error::kUnavailable, "This host runs no guests");
  if (const auto allowed = CheckDatabaseReadable(store); !allowed.ok()) {
    return call.response->SetError(allowed.error().code, allowed.error().reason);
  }
  const Json::Value parameters = call.request->GetParam("", Json::Value());
  const std::string apply = json::StringMember(parameters, kApply);
  const std::string holder = apply == kApplyAtNextStart ? std::string() : OtherHolder(store, guest_id.Get());
  if (!holder.empty() && apply == kApplyNow) {
    // Only that host knows what its machine can take.
    const VexaDRCore::Response reply = Ask(holder, "set", parameters, kApplyTimeoutS);
    return reply.isSuccess() ? call.response->SetSuccess(Json::Value())
                             : call.response->SetError(reply.getErrCode(), reply.getErrMsg());
  }
  VexaDRCore::Response before;
  if (!holder.empty()) {
    Json::Value guest(Json::objectValue);
    guest["guest_id"] = guest_id.Get();
    before = Ask(holder, "pending", guest, kPendingTimeoutS);
  }
  const auto edited = control->Edit(guest_id.Get(), parameters, RequesterOf(call));
  if (!edited.ok()) return call.response->SetError(edited.error().code, DetailsOf(edited.error()));
  if (!holder.empty()) ApplyElsewhere(holder, guest_id.Get(), before);
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
