// The screens and keyboards of guests that run here. Their consoles are opened at GET /console/ (host/api/console.h).
#include <utility>

#include "host/api/peer/rows.h"
#include "host/base/base64.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

// Not set: the call has been answered.
std::optional<std::string> ReadGuestId(const ServiceParts& parts, const Call& call) {
  const auto id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (id.IsInvalid()) {
    Fail(call, host_error::kBadParameter);
  } else if (!parts.guests) {
    call.response->SetError(host_error::kUnavailable, "This host runs no guests");
  } else {
    return id.Get();
  }
  return std::nullopt;
}

void TakeScreenshot(const ServiceParts& parts, const Call& call) {
  const auto guest_id = ReadGuestId(parts, call);
  if (!guest_id) return;
  const auto png = parts.guests->Screenshot(*guest_id);
  if (!png.ok()) return call.response->SetError(png.error().code, png.error().reason);
  Json::Value data(Json::objectValue);
  data["png"] = EncodeBase64(*png);
  call.response->SetSuccess(data);
}

void TypeText(const ServiceParts& parts, const Call& call) {
  const auto text = call.request->GetAndCheckString("text", kRequired, VexaCCC::Utils::IsNotEmpty);
  if (text.IsInvalid()) return Fail(call, host_error::kBadParameter);
  const auto guest_id = ReadGuestId(parts, call);
  if (!guest_id) return;
  const auto typed = parts.guests->Type(*guest_id, text.Get());
  if (!typed.ok()) return call.response->SetError(typed.error().code, typed.error().reason);
  Json::Value data(Json::objectValue);
  data["typed"] = static_cast<Json::UInt64>(*typed);
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> GuestConsoleRows(const ServiceParts& parts) {
  const Parameter guest = Text("guest_id", "The guest's id, a UUID.");
  const std::vector<int> codes{host_error::kBadParameter, host_error::kNotFoundOrUnreadable,
                               host_error::kFailed,       host_error::kNotRunning,
                               host_error::kBusy,         host_error::kUnavailable};
  return {
      HostRow(
          "VEXA.CCC.Guest", "screenshot", LaneKind::kLong, [parts](const Call& call) { TakeScreenshot(parts, call); },
          "A picture of the screen of a guest that runs here.", {guest}, codes),
      HostRow(
          "VEXA.CCC.Guest", "type", LaneKind::kLong, [parts](const Call& call) { TypeText(parts, call); },
          "Types a text on the keyboard of a guest that runs here, at most its first 32 characters; \"typed\" is how "
          "many "
          "were typed.",
          {guest, Text("text", "What is typed.")}, codes)};
}

}  // namespace vexa::api
