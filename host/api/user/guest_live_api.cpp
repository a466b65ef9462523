#include "host/api/user/guest_live_api.h"

#include <fmt/format.h>

#include <utility>

#include "host/api/rows.h"
#include "host/api/user/outcome_log.h"
#include "host/api/user/unreachable_host.h"
#include "host/base/guest_setting.h"
#include "host/records/request_scope.h"
#include "host/records/run_record.h"
#include "host/transport/added_parameter.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

namespace json = VexaVirtualization::json;

constexpr int kPendingTimeoutS = 3;
constexpr int kApplyTimeoutS = 3600;
constexpr char kPending[] = "pending";

VexaDRCore::Request NewRequest(const char* method, const std::string& guest_id, int timeout_s) {
  VexaDRCore::Request request;
  request.setAPI("VEXA.CCC.Guest");
  request.setMethod(method);
  request.setVersion(1);
  request.addParam("guest_id", guest_id);
  request.setTimeout(timeout_s);
  return request;
}

int ToUserCode(int host_code) {
  switch (host_code) {
    case host_error::kNotFoundOrUnreadable:
      return user_error::kNotFoundOrUnreadable;
    case host_error::kNotRunning:
      return user_error::kNotRunning;
    case host_error::kBusy:
      return user_error::kGuestBusy;
    case host_error::kUnavailable:
      return user_error::kUnavailable;
    default:
      return user_error::kActionFailed;
  }
}

// The host that has the guest; "" when no host has it, or that is unknown.
std::string HolderOf(const std::string& guest_id) {
  const auto reader = records::ReaderOfRequest();
  if (!reader) return "";
  const auto run = records::ReadRun(**reader, guest_id);
  return run && *run ? (*run)->run.host_id : std::string();
}

// Only administrators see where files are: others get their names.
void HideFolders(Json::Value& value) {
  if (value.isString()) {
    const std::string text = json::String(value);
    if (text.starts_with('/')) value = text.substr(text.rfind('/') + 1);
  } else if (value.isArray() || value.isObject()) {
    for (Json::Value& element : value) HideFolders(element);
  }
}

Json::Value PendingFor(const Call& call, const Json::Value& reply) {
  Json::Value pending = json::Elements(json::Member(reply, kPending));
  if (!call.request->IsAdmin()) HideFolders(pending);
  return pending;
}

void Apply(const Call& call) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  const auto forces_eject = ReadFlag(call, "force_eject");
  if (!forces_eject) return;
  if (!VexaVirtualization::IsGuestPermitted(call.request, guest_id.Get())) return Fail(call, user_error::kNotPermitted);
  std::string name;
  if (!VexaVirtualization::GetGuestNameById(guest_id.Get(), name)) return Fail(call, user_error::kNotFoundOrUnreadable);
  const std::string host_id = HolderOf(guest_id.Get());
  if (host_id.empty()) return Fail(call, user_error::kNotRunning, "The guest does not run");
  VexaDRCore::Request request = NewRequest("apply", guest_id.Get(), kApplyTimeoutS);
  request.addParam("force_eject", *forces_eject);
  const VexaDRCore::Response reply = VexaCCC::Sender(host_id).process(request);
  LogOutcome(call, reply.isSuccess() ? Outcome::kDone : Outcome::kFailed,
             fmt::format("The settings of the virtual machine [{}] have been applied while it runs.", name),
             fmt::format("Failed to apply the settings of the virtual machine [{}].", name));
  if (!reply.isSuccess()) return Fail(call, ToUserCode(reply.getErrCode()));
  Json::Value data(Json::objectValue);
  data[kPending] = PendingFor(call, reply.getData());
  call.response->SetSuccess(data);
}

}  // namespace

void AddPending(const Call& call, const std::string& guest_id, Json::Value& status) {
  const std::string host_id = HolderOf(guest_id);
  if (host_id.empty()) return;
  const VexaDRCore::Response reply =
      VexaCCC::Sender(host_id).process(NewRequest("pending", guest_id, kPendingTimeoutS));
  if (reply.isSuccess()) {
    status[kPending] = PendingFor(call, reply.getData());
    return;
  }
  const std::string reason = json::String(reply.getErrMsg());
  if (reason.empty()) {
    status["pending_reason"] = "The guest's host does not answer";
  } else {
    status["pending_reason"] = ReasonFor(call.request->IsAdmin(), Readers::kAdministrators, reason);
  }
}

Handler WithApply(Handler handler) {
  return [handler = std::move(handler)](const Call& call) {
    const auto apply = call.request->GetAndCheckString(kApply, kOptional);
    if (apply.IsInvalid()) return Fail(call, user_error::kBadParameter);
    if (!apply.IsSet()) return handler(call);
    if (apply.Get() != kApplyNow && apply.Get() != kApplyAtNextStart) {
      return Fail(
          call, user_error::kBadParameter,
          fmt::format("The parameter '{}' is neither \"{}\" nor \"{}\".", kApply, kApplyNow, kApplyAtNextStart));
    }
    const transport::AddedParameter added("VEXA.CCC.Guest", "set", kApply, apply.Get());
    handler(call);
  };
}

std::vector<ApiRow> GuestLiveRows() {
  return {UserRow(
      "VEXA.Virtualization.Guest", "apply", LaneKind::kLong, WithGoneHostReason(Apply, NeededHost::kHolderOrAssigned),
      "Change a running guest as it is set, as far as that works while it runs. The reply has what still "
      "waits for its next start.",
      {Text("guest_id", "The guest's id, a UUID."),
       OptionalFlag("force_eject", "Open drives that the guest has locked as well.")},
      {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kNotPermitted,
       user_error::kActionFailed, user_error::kNotRunning, user_error::kGuestBusy, user_error::kUnavailable})};
}

}  // namespace vexa::api
