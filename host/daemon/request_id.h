// The id of the request that this thread works for, for log lines.
#pragma once

#include <string>
#include <string_view>

namespace vexa::daemon {

// While one lives, log lines of its thread carry `id`, which must outlive it. Scopes of one thread do not nest.
class RequestIdScope {
 public:
  explicit RequestIdScope(std::string_view id);
  ~RequestIdScope();
  RequestIdScope(const RequestIdScope&) = delete;
  RequestIdScope& operator=(const RequestIdScope&) = delete;
};

// Empty outside of a scope.
std::string_view CurrentRequestId();

}  // namespace vexa::daemon
