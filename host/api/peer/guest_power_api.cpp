// What other hosts can make this host do with its guests: power, deletion, and the choice of a guest's host.
#include <functional>
#include <utility>

#include "host/api/peer/rows.h"
#include "host/guests/guest_control.h"
#include "host/records/environment.h"
#include "webapi/platform/ccc.h"

namespace vexa::services {
namespace {

using guests::GuestControl;
using guests::Refused;
using guests::Requester;
using webapi::Call;

// The caller acts for high availability, which must be sure that the guest does not run here.
constexpr int kReasonHa = 20;

using Act = std::function<Refused(GuestControl& guests, const std::string& guest_id, const Requester& requester)>;

void Answer(const Call& call, const Refused& refused) {
  if (refused) return call.response->SetError(refused->code, refused->reason);
  call.response->SetSuccess(Json::Value());
}

void Do(const ServiceParts& parts, const Call& call, const Act& act) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  if (!parts.guests) return Answer(call, guests::Refusal{guests::kUnavailable, "This host runs no guests"});
  Answer(call, act(*parts.guests, guest_id.Get(), RequesterOf(call)));
}

Act UnlessDatabaseIsLost(const ServiceParts& parts, Act act) {
  return [store = parts.store, act = std::move(act)](GuestControl& guests, const std::string& guest_id,
                                                     const Requester& requester) -> Refused {
    if (const Refused refused = RefusedByDatabase(store.get())) return refused;
    return act(guests, guest_id, requester);
  };
}

webapi::Handler ActionHandler(const ServiceParts& parts, Act act) {
  return [parts, act = UnlessDatabaseIsLost(parts, std::move(act))](const Call& call) { Do(parts, call, act); };
}

void PowerOff(const ServiceParts& parts, const Call& call) {
  const auto reason = call.request->GetAndCheckInt("reason", kOptional);
  if (reason.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  // High availability must be able to end a guest whatever else is lost.
  if (reason.Get() == kReasonHa) {
    return Do(parts, call, [](GuestControl& control, const std::string& guest_id, const Requester&) {
      return control.Fence(guest_id);
    });
  }
  Do(parts, call, UnlessDatabaseIsLost(parts, &GuestControl::PowerOff));
}

void SetHost(const ServiceParts& parts, const Call& call) {
  const auto host_id = call.request->GetAndCheckString("host_id", kRequired, VexaCCC::Utils::IsNotEmpty);
  if (host_id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  const Act act = [&](GuestControl& control, const std::string& guest_id, const Requester&) {
    return control.SetHost(guest_id, host_id.Get());
  };
  Do(parts, call, UnlessDatabaseIsLost(parts, act));
}

}  // namespace

Requester RequesterOf(const Call& call) {
  Requester requester;
  requester.user = call.caller.acts_for;
  requester.host_id = call.caller.host_id;
  const cluster::Environment* const environment = cluster::CurrentEnvironment();
  if (environment && environment->request_id) requester.request_id = environment->request_id();
  return requester;
}

guests::Refused RefusedByDatabase(const store::Store* store) {
  if (!store || store->health() != store::Health::kInaccessible) return std::nullopt;
  return guests::Refusal{guests::kUnavailable, webapi::kDatabaseLost};
}

std::vector<webapi::ApiRow> GuestPowerRows(const ServiceParts& parts) {
  using enum webapi::LaneKind;
  const webapi::Parameter guest = Text("guest_id", "The guest's id, a UUID.");
  const std::vector<int> anything{401, 403, 901, 915, 949};
  const auto with = [&](std::vector<int> further) {
    further.insert(further.end(), anything.begin(), anything.end());
    return further;
  };
  return {
      HostRow("VEXA.CCC.Guest", "poweron", kLong, ActionHandler(parts, &GuestControl::PowerOn),
              "Starts a guest of this host, and answers when it runs.", {guest},
              with({910, 912, 917, 927, 928, 935, 942, 945, 955})),
      HostRow("VEXA.CCC.Guest", "shutdown", kLong, ActionHandler(parts, &GuestControl::ShutDown),
              "Asks a guest to shut down, again and again until it is off or has not been for minutes.", {guest},
              with({911})),
      HostRow(
          "VEXA.CCC.Guest", "poweroff", kLong, [parts](const Call& call) { PowerOff(parts, call); },
          "Powers a guest off immediately.",
          {guest,
           {"reason", webapi::ParameterType::kInteger, webapi::Necessity::kOptional,
            "20: for high availability. Overrides any other operation on the guest; succeeds if the guest does not "
            "run here."}},
          with({911})),
      HostRow("VEXA.CCC.Guest", "reboot", kLong, ActionHandler(parts, &GuestControl::Reboot), "Asks a guest to reboot.",
              {guest}, with({911})),
      HostRow("VEXA.CCC.Guest", "delete", kLong, ActionHandler(parts, &GuestControl::Delete),
              "Deletes a guest that is off, with its disks.", {guest}, with({910})),
      HostRow("VEXA.CCC.Guest", "discard_saved", kLong, ActionHandler(parts, &GuestControl::DiscardSaved),
              "Removes the saved memory of a guest, which is off then.", {guest}, with({911})),
      HostRow("VEXA.CCC.Guest", "release", kLong, ActionHandler(parts, &GuestControl::Release),
              "Returns a guest that is off to libvirt: its definition and files stay, its records are deleted.",
              {guest}, with({910, 912})),
      HostRow(
          "VEXA.CCC.Guest", "hostset", kLong, [parts](const Call& call) { SetHost(parts, call); },
          "Makes a host the one that a guest belongs to.", {guest, Text("host_id", "The host's id.")}, with({910})),
  };
}

}  // namespace vexa::services
