// What this host does with its guests when other hosts ask: power, deletion, and whose guest it is.
#include <functional>
#include <utility>

#include "host/cluster/environment.h"
#include "host/guests/guest_control.h"
#include "host/services/rows.h"
#include "webapi/platform/ccc.h"

namespace vexa::services {
namespace {

using guests::GuestControl;
using guests::Refused;
using guests::Requester;
using webapi::Call;

// The caller asks for high availability, which must know that the guest does not run here.
constexpr int kReasonHa = 20;

using Act = std::function<Refused(GuestControl& guests, const std::string& guest_id, const Requester& requester)>;

void Answer(const Call& call, const Refused& refused) {
  if (refused) return call.response->SetError(refused->code, refused->reason);
  call.response->SetSuccess(Json::Value());
}

void Do(GuestControl* guests, const Call& call, const Act& act) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  if (!guests) return Answer(call, guests::Refusal{guests::kUnavailable, "This host runs no guests"});
  Answer(call, act(*guests, guest_id.Get(), RequesterOf(call)));
}

webapi::Handler Doing(const ServiceParts& parts, Act act) {
  return [guests = parts.guests, act = std::move(act)](const Call& call) { Do(guests, call, act); };
}

void PowerOff(GuestControl* guests, const Call& call) {
  const auto reason = call.request->GetAndCheckInt("reason", kOptional);
  if (reason.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  Do(guests, call, [&](GuestControl& control, const std::string& guest_id, const Requester& requester) {
    return reason.Get() == kReasonHa ? control.Fence(guest_id) : control.PowerOff(guest_id, requester);
  });
}

void SetHost(GuestControl* guests, const Call& call) {
  const auto host_id = call.request->GetAndCheckString("host_id", kRequired, VexaCCC::Utils::IsNotEmpty);
  if (host_id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  Do(guests, call, [&](GuestControl& control, const std::string& guest_id, const Requester&) {
    return control.SetHost(guest_id, host_id.Get());
  });
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

std::vector<webapi::ApiRow> GuestPowerRows(const ServiceParts& parts) {
  using enum webapi::LaneKind;
  const webapi::Parameter guest = Text("guest_id", "The guest's id, a UUID.");
  const std::vector<int> anything{401, 403, 901, 915, 949};
  const auto with = [&](std::vector<int> further) {
    further.insert(further.end(), anything.begin(), anything.end());
    return further;
  };
  return {
      HostRow("VEXA.CCC.Guest", "poweron", kLong, Doing(parts, &GuestControl::PowerOn),
              "Starts a guest of this host, and answers when it runs.", {guest},
              with({910, 912, 917, 927, 928, 935, 942, 945, 955})),
      HostRow("VEXA.CCC.Guest", "shutdown", kLong, Doing(parts, &GuestControl::ShutDown),
              "Asks a guest to shut down, again and again until it is off or has not been for minutes.", {guest},
              with({911})),
      HostRow(
          "VEXA.CCC.Guest", "poweroff", kLong, [guests = parts.guests](const Call& call) { PowerOff(guests, call); },
          "Ends a guest at once.",
          {guest,
           {"reason", webapi::ParameterType::kInteger, webapi::Necessity::kOptional,
            "20: for high availability. Whatever else is being done with the guest; one that does not run here is "
            "a success."}},
          with({911})),
      HostRow("VEXA.CCC.Guest", "reboot", kLong, Doing(parts, &GuestControl::Reboot), "Asks a guest to reboot.",
              {guest}, with({911})),
      HostRow("VEXA.CCC.Guest", "delete", kLong, Doing(parts, &GuestControl::Delete),
              "Deletes a guest that is off, with its disks.", {guest}, with({910})),
      HostRow("VEXA.CCC.Guest", "discard_saved", kLong, Doing(parts, &GuestControl::DiscardSaved),
              "Removes the saved memory of a guest, which is off then.", {guest}, with({911})),
      HostRow("VEXA.CCC.Guest", "release", kLong, Doing(parts, &GuestControl::Release),
              "Gives a guest that is off back to libvirt: its definition and files stay, its records go.", {guest},
              with({910, 912})),
      HostRow(
          "VEXA.CCC.Guest", "hostset", kLong, [guests = parts.guests](const Call& call) { SetHost(guests, call); },
          "Makes a host the one that a guest belongs to.", {guest, Text("host_id", "The host's id.")}, with({910})),
  };
}

}  // namespace vexa::services
