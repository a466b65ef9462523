#include "host/api/user/recovery_api.h"

#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/guests/recovery.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_log.h"
#include "webapi/utils/utils.h"

namespace vexa::services {
namespace {

using guests::Refused;
using webapi::Call;

webapi::Parameter Flag(std::string_view name, std::string_view description) {
  return {name, webapi::ParameterType::kBoolean, webapi::Necessity::kOptional, description};
}

// Missing: false. Not set: it is not a boolean, and the call has been answered.
std::optional<bool> ReadFlag(const Call& call, const char* name) {
  const auto flag = call.request->GetAndCheckBool(name, kOptional);
  if (!flag.IsInvalid()) return flag.IsSet() && flag.Get();
  Fail(call, webapi::kErrorBadParameter);
  return std::nullopt;
}

void Answer(const Call& call, const Refused& refused) {
  if (!refused) return call.response->SetSuccess(Json::Value());
  call.response->SetError(refused->code, refused->reason);
}

guests::MachineIs MachineOf(bool is_off) {
  return is_off ? guests::MachineIs::kConfirmedOff : guests::MachineIs::kUnknown;
}

void Recover(store::Store& store, const Call& call) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  const auto host_id = call.request->GetAndCheckString("host_id", kOptional, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid() || host_id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  const auto is_off = ReadFlag(call, "machine_is_off");
  if (!is_off) return;
  const auto discards = ReadFlag(call, "discard_saved");
  if (!discards) return;
  guests::RecoverRequest request;
  request.guest_id = guest_id.Get();
  request.to_host_id = host_id.Get();
  request.machine = MachineOf(*is_off);
  request.saved = *discards ? guests::SavedMemory::kDiscard : guests::SavedMemory::kKeep;
  request.user = call.request->GetLoginUserName();
  std::string name;
  (void)VexaVirtualization::GetGuestNameById(request.guest_id, name);
  const Refused refused = guests::RecoverGuest(store, request);
  using namespace VexaCCC;
  if (refused) {
    ClusterLogAdd(request.user, CLOG_PRIORITY_FAILURE,
                  "Failed to recover the virtual machine [%s] from its host, which is inaccessible.", name.c_str());
  } else {
    ClusterLogAdd(request.user, CLOG_PRIORITY_SUCCESS,
                  "The virtual machine [%s] has been recovered from its host, which is inaccessible.", name.c_str());
  }
  Answer(call, refused);
}

void Forget(store::Store& store, const Call& call) {
  const auto host_id = call.request->GetAndCheckString("host_id", kRequired, VexaCCC::Utils::isUUID);
  if (host_id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  const auto is_off = ReadFlag(call, "machine_is_off");
  if (!is_off) return;
  const auto recovers = ReadFlag(call, "recover_guests");
  if (!recovers) return;
  guests::ForgetRequest request;
  request.host_id = host_id.Get();
  request.machine = MachineOf(*is_off);
  request.guests = *recovers ? guests::GuestsOfHost::kRecover : guests::GuestsOfHost::kKeep;
  request.user = call.request->GetLoginUserName();
  std::string name;
  if (!VexaCCC::Utils::GetHostNameById(request.host_id, name)) name = request.host_id;
  const Refused refused = guests::ForgetHost(store, request);
  using namespace VexaCCC;
  if (refused) {
    ClusterLogAdd(request.user, CLOG_PRIORITY_FAILURE, "Failed to remove the host [%s] from the cluster.",
                  name.c_str());
  } else {
    ClusterLogAdd(request.user, CLOG_PRIORITY_SUCCESS, "The host [%s] has been removed from the cluster.",
                  name.c_str());
  }
  Answer(call, refused);
}

}  // namespace

std::vector<webapi::ApiRow> RecoveryRows(std::shared_ptr<store::Store> store) {
  using webapi::Access;
  using webapi::LaneKind;
  const webapi::Parameter machine_is_off =
      Flag("machine_is_off",
           "The administrator confirms that the machine of the host is off. Two machines that run on the "
           "same disks destroy them.");
  return {
      {.api = "VEXA.Virtualization.Guest",
       .method = "recover",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kLong,
       .handler = [store](const Call& call) { Recover(*store, call); },
       .summary = "Take a guest from a host that is gone: it is shut down then, and can be started elsewhere. The host "
                  "ends the guest's machine when it comes back.",
       .parameters = {Text("guest_id", "The guest's id, a UUID."),
                      {"host_id", webapi::ParameterType::kString, webapi::Necessity::kOptional,
                       "The host that the guest is to have, a UUID; without it one is chosen at the next start."},
                      machine_is_off,
                      Flag("discard_saved", "The guest's saved memory, which is on the host, may be lost.")},
       .errors = {webapi::kErrorBadParameter, kErrorUnreadable, guests::kFailed, guests::kNotRunning,
                  guests::kHostIsAlive, guests::kNotConfirmed, guests::kSavedMemoryLost}},
      {.api = "VEXA.Virtualization.Host",
       .method = "forget",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kLong,
       .handler = [store](const Call& call) { Forget(*store, call); },
       .summary = "Remove a host that is gone for good from the cluster. Guests that were off lose it as their host.",
       .parameters = {Text("host_id", "The host's id, a UUID."), machine_is_off,
                      Flag("recover_guests", "Recover the guests that it has, too; their saved memory is lost.")},
       .errors = {webapi::kErrorBadParameter, kErrorUnreadable, guests::kFailed, guests::kHostIsAlive,
                  guests::kNotConfirmed, guests::kHostHasGuests}}};
}

}  // namespace vexa::services
