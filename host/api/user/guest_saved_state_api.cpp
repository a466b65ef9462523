#include "host/api/user/guest_saved_state_api.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/outcome_log.h"
#include "host/api/user/unreachable_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

constexpr int kTimeoutS = 3600;

// The user's error code for an error code of the guest's host; any other code becomes kActionFailed.
struct CodeRow {
  int host_code;
  int user_code;
};
constexpr CodeRow kCodes[] = {{host_error::kNotFoundOrUnreadable, user_error::kNotFoundOrUnreadable},
                              {host_error::kAlreadyRunning, user_error::kAddressInUseOrGuestRuns},
                              {host_error::kNotRunning, user_error::kNotRunning},
                              {host_error::kBusy, user_error::kGuestBusy},
                              {host_error::kUnavailable, user_error::kUnavailable}};

int ToUserCode(int host_code) {
  const auto* const row = std::ranges::find(kCodes, host_code, &CodeRow::host_code);
  return row == std::end(kCodes) ? user_error::kActionFailed : row->user_code;
}

enum class SavedStateAction { kDiscard, kRelease };

const char* MethodOf(SavedStateAction action) {
  return action == SavedStateAction::kDiscard ? "discard_saved" : "release";
}

VexaDRCore::Response AskHost(SavedStateAction action, const std::string& guest_id, const std::string& host_id) {
  VexaDRCore::Request request;
  request.setAPI("VEXA.CCC.Guest");
  request.setMethod(MethodOf(action));
  request.setVersion(1);
  request.addParam("guest_id", guest_id);
  request.setTimeout(kTimeoutS);
  return VexaCCC::Sender(host_id).process(request);
}

void Log(const Call& call, SavedStateAction action, Outcome outcome, const std::string& name) {
  if (action == SavedStateAction::kDiscard) {
    LogOutcome(call, outcome, fmt::format("The saved memory of the virtual machine [{}] has been discarded.", name),
               fmt::format("Failed to discard the saved memory of the virtual machine [{}].", name));
  } else {
    LogOutcome(call, outcome, fmt::format("The virtual machine [{}] has been released to libvirt.", name),
               fmt::format("Failed to release the virtual machine [{}].", name));
  }
}

void Perform(const Call& call, SavedStateAction action) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  if (!VexaVirtualization::IsGuestPermitted(call.request, guest_id.Get())) return Fail(call, user_error::kNotPermitted);
  std::string host_id;
  if (vgConfHostGet(guest_id.Get(), host_id) != 0) return Fail(call, user_error::kNotFoundOrUnreadable);
  std::string name;
  (void)VexaVirtualization::GetGuestNameById(guest_id.Get(), name);
  const VexaDRCore::Response reply = AskHost(action, guest_id.Get(), host_id);
  Log(call, action, reply.isSuccess() ? Outcome::kDone : Outcome::kFailed, name);
  if (reply.isSuccess()) return call.response->SetSuccess(Json::Value());
  call.response->SetError(ToUserCode(reply.getErrCode()), reply.getErrMsg());
}

ApiRow Row(SavedStateAction action, Access access, std::string_view summary) {
  return {.api = "VEXA.Virtualization.Guest",
          .method = MethodOf(action),
          .version = 1,
          .access = access,
          .lane = LaneKind::kLong,
          .handler =
              WithGoneHostReason([action](const Call& call) { Perform(call, action); }, NeededHost::kHolderOrAssigned),
          .summary = summary,
          .parameters = {Text("guest_id", "The guest's id, a UUID.")},
          .errors = {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kNotPermitted,
                     user_error::kActionFailed, user_error::kAddressInUseOrGuestRuns, user_error::kNotRunning,
                     user_error::kGuestBusy, user_error::kUnavailable}};
}

}  // namespace

std::vector<ApiRow> GuestSavedStateRows() {
  return {Row(SavedStateAction::kDiscard, Access::kUser,
              "Discard the saved memory of a guest, which is then shut down. Data that it had not written to its "
              "disks is lost."),
          Row(SavedStateAction::kRelease, Access::kAdministrator,
              "Return a guest that is off to libvirt: its definition and files stay, and the cluster removes its "
              "records.")};
}

}  // namespace vexa::api
