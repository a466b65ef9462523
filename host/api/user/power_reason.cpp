#include "host/api/user/power_reason.h"

#include <fmt/format.h>

#include <string>
#include <utility>

#include "host/api/reason.h"
#include "host/base/sanitize_for_log.h"
#include "host/records/keys.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"

namespace vexa::api {
namespace {

namespace json = VexaVirtualization::json;

constexpr int kRatingTimeoutS = 30;
constexpr std::size_t kMaxReason = 1024;
constexpr char kHintWithoutHost[] =
    "'vexa guest list' shows the guests; with 'vexa cluster settings --auto-select-host on', a guest without a host "
    "gets one when it starts.";

// "The host 'nas1': …" for each host; "" when the hosts cannot be rated.
std::string WhatHostsLack(const std::string& guest_id) {
  const records::RequestPause without_reader;
  VexaDRCore::Request request;
  request.setAPI("VEXA.Virtualization.Guest.Action");
  request.setMethod("check_host_resource");
  request.setVersion(1);
  request.addParam("guest_id", guest_id);
  request.addParam("type", "poweron");
  request.setTimeout(kRatingTimeoutS);
  const VexaDRCore::Response rated = VexaCCC::Sender::localhost().process(request);
  if (!rated.isSuccess()) return "";
  std::string text;
  const Json::Value hosts = rated.getDataField("hosts");
  for (const Json::Value& host : json::Elements(hosts)) {
    std::string lacks;
    for (const Json::Value& reason : json::Elements(json::Member(host, "reasons"))) {
      if (!lacks.empty()) lacks += ' ';
      lacks += json::String(reason);
    }
    std::string name = json::StringMember(host, "host");
    if (name.empty()) name = json::StringMember(host, keys::host_id);
    if (lacks.empty()) lacks = "It could start the guest, but may not be chosen, or was not free a moment ago.";
    text += fmt::format("{}Host '{}': {}", text.empty() ? "" : " ", name, lacks);
  }
  return SanitizeForLog(text, kMaxReason);
}

}  // namespace

Handler WithPowerReason(Handler handler) {
  return [handler = std::move(handler)](const Call& call) {
    handler(call);
    if (!call.response->IsSet() || call.response->IsSuccess()) return;
    const int code = call.response->ErrorCode();
    if (code == user_error::kNotFoundOrUnreadable) SetHint(call, kHintWithoutHost);
    const bool has_reason = call.extra_members && json::FindMember(*call.extra_members, kReason);
    if (code != user_error::kNoHostChosen || has_reason) return;
    // Rating the guest asks every host, so it is done only for those who may read the result.
    if (!call.request->IsAdmin()) return SetReason(call, kAskAdministrator);
    const std::string reason = WhatHostsLack(json::String(call.request->GetParam("guest_id", Json::Value())));
    if (!reason.empty()) SetReason(call, reason);
  };
}

}  // namespace vexa::api
