// The request that this thread works for: its id, for log lines, and the acting user.
#pragma once

#include <string_view>

namespace vexa::api {

// While a scope exists, the log lines of its thread carry `id`, and the thread's requests to hosts are made on behalf
// of `user`. Both must outlive it. Scopes of one thread do not nest.
class RequestIdScope {
 public:
  explicit RequestIdScope(std::string_view id, std::string_view user = {});
  ~RequestIdScope();
  RequestIdScope(const RequestIdScope&) = delete;
  RequestIdScope& operator=(const RequestIdScope&) = delete;
};

// For a scope whose user is determined later. `user` must outlive the scope.
void SetActingUser(std::string_view user);

// Empty outside of a scope.
std::string_view CurrentRequestId();
// Also empty outside of a scope, without a login, and when the asking host did not name one.
std::string_view CurrentActingUser();

}  // namespace vexa::api
