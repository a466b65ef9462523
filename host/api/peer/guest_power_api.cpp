// What other hosts can make this host do with its guests: power, deletion, and the choice of a guest's host.
#include <functional>
#include <utility>

#include "host/api/peer/rows.h"
#include "host/guests/guest_control.h"
#include "host/records/environment.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

using guests::GuestControl;
using guests::Requester;

// The reason of calls by high availability, which must be sure that the guest does not run here.
constexpr int kReasonHighAvailability = 20;

using Action =
    std::function<Result<void, Refusal>(GuestControl& guests, const std::string& guest_id, const Requester& requester)>;

void Respond(const Call& call, const Result<void, Refusal>& refused) {
  if (!refused.ok()) return call.response->SetError(refused.error().code, refused.error().reason);
  call.response->SetSuccess(Json::Value());
}

void RunAction(const ServiceParts& parts, const Call& call, const Action& action) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, host_error::kBadParameter);
  if (!parts.guests) return Respond(call, Refusal{host_error::kUnavailable, "This host runs no guests"});
  Respond(call, action(*parts.guests, guest_id.Get(), RequesterOf(call)));
}

Action UnlessDatabaseIsLost(const ServiceParts& parts, Action action) {
  return [store = parts.store, action = std::move(action)](GuestControl& guests, const std::string& guest_id,
                                                           const Requester& requester) -> Result<void, Refusal> {
    if (const auto allowed = CheckDatabaseReadable(store.get()); !allowed.ok()) return allowed;
    return action(guests, guest_id, requester);
  };
}

Handler ActionHandler(const ServiceParts& parts, Action action) {
  return [parts, action = UnlessDatabaseIsLost(parts, std::move(action))](const Call& call) {
    RunAction(parts, call, action);
  };
}

void PowerOff(const ServiceParts& parts, const Call& call) {
  const auto reason = call.request->GetAndCheckInt("reason", kOptional);
  if (reason.IsInvalid()) return Fail(call, host_error::kBadParameter);
  // High availability must be able to stop a guest even while the database is lost.
  if (reason.Get() == kReasonHighAvailability) {
    return RunAction(parts, call, [](GuestControl& control, const std::string& guest_id, const Requester&) {
      return control.Fence(guest_id);
    });
  }
  RunAction(parts, call, UnlessDatabaseIsLost(parts, &GuestControl::PowerOff));
}

void SetHost(const ServiceParts& parts, const Call& call) {
  const auto host_id = call.request->GetAndCheckString("host_id", kRequired, VexaCCC::Utils::IsNotEmpty);
  if (host_id.IsInvalid()) return Fail(call, host_error::kBadParameter);
  const Action action = [&](GuestControl& control, const std::string& guest_id, const Requester&) {
    return control.SetHost(guest_id, host_id.Get());
  };
  RunAction(parts, call, UnlessDatabaseIsLost(parts, action));
}

}  // namespace

Requester RequesterOf(const Call& call) {
  Requester requester;
  requester.user = call.caller.acts_for;
  requester.host_id = call.caller.host_id;
  const records::Environment* const environment = records::CurrentEnvironment();
  if (environment && environment->request_id) requester.request_id = environment->request_id();
  return requester;
}

Result<void, Refusal> CheckDatabaseReadable(const store::Store* store) {
  if (!store || store->health() != store::Health::kInaccessible) return {};
  return Refusal{host_error::kUnavailable, kDatabaseLost};
}

std::vector<ApiRow> GuestPowerRows(const ServiceParts& parts) {
  using enum LaneKind;
  const Parameter guest = Text("guest_id", "The guest's id, a UUID.");
  const std::vector<int> any_method{host_error::kBadParameter, host_error::kNotFoundOrUnreadable, host_error::kFailed,
                                    host_error::kBusy, host_error::kUnavailable};
  const auto with = [&](std::vector<int> more) {
    more.insert(more.end(), any_method.begin(), any_method.end());
    return more;
  };
  const auto of_starts = [](std::vector<int> more) {
    more.insert(more.end(), {host_error::kAlreadyRunning, host_error::kOnOtherHost, host_error::kNoNetwork,
                             host_error::kTooManyVcpus, host_error::kNoMemory, host_error::kRemoteNotVirtio,
                             host_error::kNoCpuThreads, host_error::kRemoteEfi, host_error::kIncompatibleCpu});
    return more;
  };
  return {
      HostRow("VEXA.CCC.Guest", "poweron", kLong, ActionHandler(parts, &GuestControl::PowerOn),
              "Starts a guest of this host, and answers when it runs.", {guest}, with(of_starts({}))),
      HostRow("VEXA.CCC.Guest", "shutdown", kLong, ActionHandler(parts, &GuestControl::ShutDown),
              "Asks a guest to shut down, repeatedly, and gives up when it is still on after some minutes.", {guest},
              with({host_error::kNotRunning})),
      HostRow(
          "VEXA.CCC.Guest", "poweroff", kLong, [parts](const Call& call) { PowerOff(parts, call); },
          "Powers a guest off immediately.",
          {guest,
           {"reason", ParameterType::kInteger, Necessity::kOptional,
            "20: for high availability. Overrides any other operation on the guest; succeeds if the guest does not "
            "run here."}},
          with({host_error::kNotRunning})),
      HostRow("VEXA.CCC.Guest", "reboot", kLong, ActionHandler(parts, &GuestControl::Reboot), "Asks a guest to reboot.",
              {guest}, with({host_error::kNotRunning})),
      HostRow("VEXA.CCC.Guest", "suspend", kLong, ActionHandler(parts, &GuestControl::Suspend),
              "Pauses a guest of this host.", {guest}, with({host_error::kNotRunning, host_error::kOnOtherHost})),
      HostRow("VEXA.CCC.Guest", "resume", kLong, ActionHandler(parts, &GuestControl::Resume),
              "Lets a paused guest run.", {guest}, with({host_error::kNotRunning, host_error::kOnOtherHost})),
      HostRow("VEXA.CCC.Guest", "save", kLong, ActionHandler(parts, &GuestControl::Save),
              "Saves the memory of a guest to a file of this host, and ends the guest.", {guest},
              with({host_error::kNotRunning, host_error::kOnOtherHost})),
      HostRow("VEXA.CCC.Guest", "restore", kLong, ActionHandler(parts, &GuestControl::Restore),
              "Starts a guest from its saved memory, and answers when it runs.", {guest},
              with(of_starts({host_error::kNotRunning}))),
      HostRow("VEXA.CCC.Guest", "delete", kLong, ActionHandler(parts, &GuestControl::Delete),
              "Deletes a guest that is off, and its disks.", {guest}, with({host_error::kAlreadyRunning})),
      HostRow("VEXA.CCC.Guest", "discard_saved", kLong, ActionHandler(parts, &GuestControl::DiscardSaved),
              "Removes the saved memory of a guest, which is then off.", {guest}, with({host_error::kNotRunning})),
      HostRow("VEXA.CCC.Guest", "release", kLong, ActionHandler(parts, &GuestControl::Release),
              "Returns a guest that is off to libvirt: its definition and files stay, its records are deleted.",
              {guest}, with({host_error::kAlreadyRunning, host_error::kOnOtherHost})),
      HostRow(
          "VEXA.CCC.Guest", "hostset", kLong, [parts](const Call& call) { SetHost(parts, call); },
          "Assigns a guest to a host.", {guest, Text("host_id", "The host's id.")},
          with({host_error::kAlreadyRunning})),
  };
}

}  // namespace vexa::api
