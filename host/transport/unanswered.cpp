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
  const int code = json::Int(json::Member(error, "code"));
  if (code != host_error::kBadParameter && code != host_error::kBadNic) return;
  const Json::Value& details = json::Member(error, "details");
  if (details.isString()) innermost->bad_parameter_ = SanitizeForLog(json::String(details), kMaxReason);
}

}  // namespace vexa::transport
