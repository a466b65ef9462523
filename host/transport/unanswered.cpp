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
  const int code = json::Int(json::Member(error, "code"));
  // Hosts that give details of another form, or of an older version, may add a reason beside them. The message of a
  // reply that the transport made itself has the cause.
  std::string reason = json::StringMember(error, "reason");
  if (reason.empty() && details.isString()) reason = json::String(details);
  if (reason.empty() && code == host_error::kUnreachable) reason = json::StringMember(error, "message");
  innermost->last_reason_ = SanitizeForLog(reason, kMaxReason);
  innermost->last_host_ = host_id;
  innermost->last_code_ = code;
  const bool is_bad_parameter = code == host_error::kBadParameter || code == host_error::kBadNic;
  if (is_bad_parameter && details.isString()) innermost->bad_parameter_ = innermost->last_reason_;
}

}  // namespace vexa::transport
