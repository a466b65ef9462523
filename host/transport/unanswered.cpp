#include "host/transport/unanswered.h"

#include "host/base/sanitize_for_log.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::transport {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::size_t kMaxReason = 1024;

thread_local FailedHostsScope* innermost = nullptr;

}  // namespace

FailedHostsScope::FailedHostsScope() : outer_(innermost) { innermost = this; }
FailedHostsScope::~FailedHostsScope() { innermost = outer_; }

void FailedHostsScope::Add(const std::string& host_id, const Json::Value& reply) {
  if (innermost == nullptr) return;
  innermost->hosts_.insert(host_id);
  const Json::Value& error = json::Member(reply, "error");
  const Json::Value& details = json::Member(error, "details");
  innermost->last_reason_ = details.isString() ? SanitizeForLog(json::String(details), kMaxReason) : std::string();
  const int code = json::Int(json::Member(error, "code"));
  const bool is_bad_parameter = code == host_error::kBadParameter || code == host_error::kBadNic;
  if (is_bad_parameter && details.isString()) innermost->bad_parameter_ = innermost->last_reason_;
}

}  // namespace vexa::transport
