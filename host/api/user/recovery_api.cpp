#include "host/api/user/recovery_api.h"

#include <fmt/format.h>

#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/outcome_log.h"
#include "host/cluster/revocation.h"
#include "host/guests/recovery.h"
#include "host/records/request_scope.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

void Respond(const Call& call, const Result<void, Refusal>& done) {
  if (done.ok()) return call.response->SetSuccess(Json::Value());
  call.response->SetError(done.error().code, done.error().reason);
}

guests::MachineState ToMachineState(bool is_off) {
  return is_off ? guests::MachineState::kConfirmedOff : guests::MachineState::kUnknown;
}

void Recover(store::Store& store, const Call& call) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  const auto host_id = call.request->GetAndCheckString("host_id", kOptional, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid() || host_id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  const auto is_off = ReadFlag(call, "machine_is_off");
  if (!is_off) return;
  const auto discards = ReadFlag(call, "discard_saved");
  if (!discards) return;
  guests::RecoverRequest request;
  request.guest_id = guest_id.Get();
  request.to_host_id = host_id.Get();
  request.machine = ToMachineState(*is_off);
  request.saved = *discards ? guests::SavedMemory::kDiscard : guests::SavedMemory::kKeep;
  request.user = call.request->GetLoginUserName();
  std::string name;
  (void)VexaVirtualization::GetGuestNameById(request.guest_id, name);
  const auto done = guests::RecoverGuest(store, request);
  LogOutcome(call, OutcomeOf(done),
             fmt::format("The virtual machine [{}] has been recovered from its host, which is inaccessible.", name),
             fmt::format("Failed to recover the virtual machine [{}] from its host, which is inaccessible.", name));
  Respond(call, done);
}

void Forget(store::Store& store, const Call& call) {
  const auto host_id = call.request->GetAndCheckString("host_id", kRequired, VexaCCC::Utils::isUUID);
  if (host_id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  const auto is_off = ReadFlag(call, "machine_is_off");
  if (!is_off) return;
  const auto recovers = ReadFlag(call, "recover_guests");
  if (!recovers) return;
  guests::ForgetRequest request;
  request.host_id = host_id.Get();
  request.machine = ToMachineState(*is_off);
  request.guests = *recovers ? guests::GuestsOfHost::kRecover : guests::GuestsOfHost::kKeep;
  request.user = call.request->GetLoginUserName();
  std::string name;
  if (!VexaCCC::Utils::GetHostNameById(request.host_id, name)) name = request.host_id;
  const auto done = guests::ForgetHost(store, request);
  LogOutcome(call, OutcomeOf(done), fmt::format("The host [{}] has been removed from the cluster.", name),
             fmt::format("Failed to remove the host [{}] from the cluster.", name));
  Respond(call, done);
}

int CodeOf(const Error& error) {
  return error.code() == ErrorCode::kNotFound ? user_error::kNotFoundOrUnreadable : user_error::kActionFailed;
}

void Revoke(store::Store& store, const Call& call) {
  const auto host_id = call.request->GetAndCheckString("host_id", kRequired, VexaCCC::Utils::isUUID);
  if (host_id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  std::string name;
  if (!VexaCCC::Utils::GetHostNameById(host_id.Get(), name)) name = host_id.Get();
  const records::RequestPause waiting_without_reader;
  const Status done =
      cluster::RevokeHost(store, {host_id.Get(), VexaCCC::DB::DBLocalhostID(), call.request->GetLoginUserName()});
  LogOutcome(call, done ? Outcome::kDone : Outcome::kFailed,
             fmt::format("The certificates of the host [{}] have been revoked.", name),
             fmt::format("Failed to revoke the certificates of the host [{}].", name));
  if (done) return call.response->SetSuccess(Json::Value());
  call.response->SetError(CodeOf(done.error()), done.error().ToString());
}

}  // namespace

std::vector<ApiRow> RecoveryRows(const std::shared_ptr<store::Store>& store) {
  const Parameter machine_is_off =
      OptionalFlag("machine_is_off",
                   "The administrator confirms that the machine of the host is off. If two machines use the same "
                   "disks, the disks are destroyed.");
  return {
      AdministratorRow(
          "VEXA.Virtualization.Guest", "recover", LaneKind::kLong, [store](const Call& call) { Recover(*store, call); },
          "Take a guest from a host that is gone. The guest is then shut down, and can be started on another "
          "host. If its old host comes back, it stops the guest's VM process.",
          {Text("guest_id", "The guest's id, a UUID."),
           OptionalString("host_id", "The guest's new host, a UUID (default: chosen at the next start)."),
           machine_is_off,
           OptionalFlag("discard_saved", "true: the guest's saved memory, which is on the host, may be lost.")},
          {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kActionFailed,
           user_error::kNotRunning, user_error::kHostIsAlive, user_error::kNotConfirmed, user_error::kSavedMemoryLost}),
      AdministratorRow(
          "VEXA.Virtualization.Host", "forget", LaneKind::kLong, [store](const Call& call) { Forget(*store, call); },
          "Remove a host that is gone for good from the cluster. Guests that were off are no longer assigned to it.",
          {Text("host_id", "The host's id, a UUID."), machine_is_off,
           OptionalFlag("recover_guests", "true: also recover the guests that it has; their saved memory is lost.")},
          {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kActionFailed,
           user_error::kHostIsAlive, user_error::kNotConfirmed, user_error::kHostHasGuests}),
      AdministratorRow("VEXA.Virtualization.Host", "revoke", LaneKind::kLong,
                       [store](const Call& call) { Revoke(*store, call); },
                       "Make all hosts refuse the certificates of a host that have been issued until now.",
                       {Text("host_id", "The host's id, a UUID.")},
                       {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kActionFailed})};
}

}  // namespace vexa::api
