#include "host/api/user/guest_saved_state_api.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/guest_live_api.h"
#include "host/api/user/outcome_log.h"
#include "host/api/user/simulated_guests.h"
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
                              {host_error::kNoNetwork, user_error::kNoNetwork},
                              {host_error::kTooManyVcpus, user_error::kTooManyVcpus},
                              {host_error::kNoMemory, user_error::kNoMemory},
                              {host_error::kRemoteNotVirtio, user_error::kRemoteNotVirtio},
                              {host_error::kNoCpuThreads, user_error::kNoCpuThreads},
                              {host_error::kRemoteEfi, user_error::kRemoteEfi},
                              {host_error::kUnavailable, user_error::kUnavailable},
                              {host_error::kIncompatibleCpu, user_error::kIncompatibleCpu}};

int ToUserCode(int host_code) {
  const auto* const row = std::ranges::find(kCodes, host_code, &CodeRow::host_code);
  return row == std::end(kCodes) ? user_error::kActionFailed : row->user_code;
}

enum class ActionKind { kSuspend, kResume, kSave, kRestore, kDiscardSaved, kRelease };

// The method for users, and that of the guest's host.
const char* MethodOf(ActionKind kind) {
  switch (kind) {
    case ActionKind::kSuspend:
      return "suspend";
    case ActionKind::kResume:
      return "resume";
    case ActionKind::kSave:
      return "save";
    case ActionKind::kRestore:
      return "restore";
    case ActionKind::kDiscardSaved:
      return "discard_saved";
    default:
      return "release";
  }
}

// What a user can do.
struct Action {
  ActionKind kind;
  Access access;
  const char* summary;
  // The sentences for the cluster log, each with a place for the guest's name.
  const char* done;
  const char* failed;
  std::vector<int> more_errors;
};

std::vector<Action> Actions() {
  using namespace user_error;
  const std::vector<int> of_starts{kNoNetwork,    kTooManyVcpus, kNoMemory,       kRemoteNotVirtio,
                                   kNoCpuThreads, kRemoteEfi,    kIncompatibleCpu};
  return {
      {ActionKind::kSuspend,
       Access::kUser,
       "Pause a running guest: it keeps its memory and executes nothing until it is resumed.",
       "The virtual machine [{}] has been suspended.",
       "Failed to suspend the virtual machine [{}].",
       {}},
      {ActionKind::kResume,
       Access::kUser,
       "Let a suspended guest run again.",
       "The virtual machine [{}] has been resumed.",
       "Failed to resume the virtual machine [{}].",
       {}},
      {ActionKind::kSave,
       Access::kUser,
       "Save the memory of a running guest to a file of its host, and end the guest. It continues from there when it "
       "is "
       "restored or powered on.",
       "The memory of the virtual machine [{}] has been saved.",
       "Failed to save the memory of the virtual machine [{}].",
       {}},
      {ActionKind::kRestore, Access::kUser,
       "Start a guest from its saved memory. A guest without saved memory is refused.",
       "The virtual machine [{}] has been restored from its saved memory.",
       "Failed to restore the virtual machine [{}] from its saved memory.", of_starts},
      {ActionKind::kDiscardSaved,
       Access::kUser,
       "Discard the saved memory of a guest, which is then shut down. Data that it had not written to its disks is "
       "lost.",
       "The saved memory of the virtual machine [{}] has been discarded.",
       "Failed to discard the saved memory of the virtual machine [{}].",
       {}},
      {ActionKind::kRelease,
       Access::kAdministrator,
       "Return a guest that is off to libvirt: its definition and files stay, and the cluster removes its records.",
       "The virtual machine [{}] has been released to libvirt.",
       "Failed to release the virtual machine [{}].",
       {}},
  };
}

VexaDRCore::Response AskHost(const Action& action, const std::string& guest_id, const std::string& host_id) {
  VexaDRCore::Request request;
  request.setAPI("VEXA.CCC.Guest");
  request.setMethod(MethodOf(action.kind));
  request.setVersion(1);
  request.addParam("guest_id", guest_id);
  request.setTimeout(kTimeoutS);
  return VexaCCC::Sender(host_id).process(request);
}

void Perform(const Call& call, const Action& action) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  if (!VexaVirtualization::IsGuestPermitted(call.request, guest_id.Get())) return Fail(call, user_error::kNotPermitted);
  std::string host_id;
  if (vgConfHostGet(guest_id.Get(), host_id) != 0) return Fail(call, user_error::kNotFoundOrUnreadable);
  std::string name;
  (void)VexaVirtualization::GetGuestNameById(guest_id.Get(), name);
  const VexaDRCore::Response reply = AskHost(action, guest_id.Get(), host_id);
  LogOutcome(call, reply.isSuccess() ? Outcome::kDone : Outcome::kFailed, fmt::format(fmt::runtime(action.done), name),
             fmt::format(fmt::runtime(action.failed), name));
  if (reply.isSuccess()) return call.response->SetSuccess(Json::Value());
  Fail(call, ToUserCode(reply.getErrCode()));
}

ApiRow Row(const Action& action) {
  std::vector<int> errors{user_error::kBadParameter, user_error::kNotFoundOrUnreadable,
                          user_error::kNotPermitted, user_error::kActionFailed,
                          user_error::kNotRunning,   user_error::kAddressInUseOrGuestRuns,
                          user_error::kGuestBusy,    user_error::kUnavailable};
  errors.insert(errors.end(), action.more_errors.begin(), action.more_errors.end());
  Handler handler =
      WithGoneHostReason([action](const Call& call) { Perform(call, action); }, NeededHost::kHolderOrAssigned);
  return {.api = "VEXA.Virtualization.Guest",
          .method = MethodOf(action.kind),
          .version = 1,
          .access = action.access,
          .lane = LaneKind::kLong,
          .handler = action.kind == ActionKind::kRestore ? WithSimulatedMark(std::move(handler)) : std::move(handler),
          .summary = action.summary,
          .parameters = {Text("guest_id", "The guest's id, a UUID.")},
          .errors = std::move(errors)};
}

}  // namespace

std::vector<ApiRow> GuestSavedStateRows() {
  std::vector<ApiRow> rows;
  for (const Action& action : Actions()) rows.push_back(Row(action));
  for (ApiRow& row : GuestLiveRows()) rows.push_back(std::move(row));
  return rows;
}

}  // namespace vexa::api
