#include "host/api/user/edit_reason.h"

#include <string>
#include <utility>
#include <variant>

#include "host/api/reason.h"
#include "host/guests/edit/edit_request.h"
#include "host/records/keys.h"
#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

// Users give sizes of disks in GiB and hosts in MiB, which makes no difference for types.
std::string ReasonOfParameters(const Json::Value& parameters) {
  const Json::Value& id = json::Member(parameters, keys::guest_id);
  if (!id.isString() || !VexaCCC::Utils::isUUID(json::String(id))) return "The parameter 'guest_id' is not a UUID";
  const auto parsed = guests::ParseEdit(parameters);
  const auto* const refusal = std::get_if<Refusal>(&parsed);
  return refusal ? refusal->reason : "";
}

}  // namespace

Handler WithEditReason(Handler handler) {
  return [handler = std::move(handler)](const Call& call) {
    handler(call);
    if (!call.extra_members || !call.response->IsSet() || call.response->IsSuccess()) return;
    if (call.response->ErrorCode() != user_error::kBadParameter) return;
    const std::string reason = ReasonOfParameters(call.request->GetParam("", Json::Value()));
    if (!reason.empty()) SetReason(call, reason);
  };
}

}  // namespace vexa::api
