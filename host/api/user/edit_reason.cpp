#include "host/api/user/edit_reason.h"

#include <fmt/format.h>

#include <string>
#include <utility>
#include <variant>

#include "host/api/reason.h"
#include "host/base/error_help.h"
#include "host/base/sanitize_for_log.h"
#include "host/guests/edit/edit_request.h"
#include "host/records/guest_image.h"
#include "host/records/keys.h"
#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_image.h"

namespace vexa::api {
namespace {

constexpr std::size_t kMaxShown = 128;

// Users give sizes of disks in GiB and hosts in MiB, which makes no difference for types.
std::string ReasonOfParameters(const Json::Value& parameters) {
  const Json::Value& id = json::Member(parameters, keys::guest_id);
  if (!id.isString() || !VexaCCC::Utils::isUUID(json::String(id))) return "The parameter 'guest_id' is not a UUID";
  const auto parsed = guests::ParseEdit(parameters);
  const auto* const refusal = std::get_if<Refusal>(&parsed);
  return refusal ? refusal->reason : "";
}

// About the first value that no drive can have. "": a drive can have each of them.
std::string ReasonOfImages(const Json::Value& images) {
  for (Json::ArrayIndex i = 0; i < images.size(); ++i) {
    const std::string image = json::String(json::Element(images, i));
    if (VexaCCC::GuestImageIsValidID(image) || VexaCCC::GuestImageIsValidDsPath(image)) continue;
    if (VexaCCC::GuestImageIsDsPath(image)) {
      return fmt::format("'{}' is not a file '….iso' below an image folder of this host (the setting image-roots)",
                         SanitizePathForLog(image));
    }
    return fmt::format("The parameter 'iso_images[{}]' is neither the id of an image, nor a path, nor '{}': it is '{}'",
                       i, records::kEmptyDrive, SanitizeForLog(image, kMaxShown));
  }
  return "";
}

}  // namespace

Handler WithEditReason(Handler handler) {
  return [handler = std::move(handler)](const Call& call) {
    handler(call);
    if (!call.extra_members || !call.response->IsSet() || call.response->IsSuccess()) return;
    const int code = call.response->ErrorCode();
    if (code != user_error::kBadParameter && code != user_error::kImageUnusable) return;
    const Json::Value parameters = call.request->GetParam("", Json::Value());
    std::string reason = ReasonOfParameters(parameters);
    if (reason.empty()) {
      reason = ReasonOfImages(json::Elements(json::Member(parameters, "iso_images")));
      if (!reason.empty()) SetHint(call, HintFor(user_error::kImageUnusable));
    }
    if (!reason.empty()) SetReason(call, reason);
  };
}

}  // namespace vexa::api
