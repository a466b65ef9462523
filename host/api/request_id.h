// The request that this thread works for: its id, for log lines, and the user who acts.
#pragma once

#include <string_view>

namespace vexa::daemon {

// While one lives, log lines of its thread carry `id`, and what the thread asks of hosts is asked for `user`. Both must
// outlive it. Scopes of one thread do not nest.
class RequestIdScope {
 public:
  explicit RequestIdScope(std::string_view id, std::string_view user = {});
  ~RequestIdScope();
  RequestIdScope(const RequestIdScope&) = delete;
  RequestIdScope& operator=(const RequestIdScope&) = delete;
};

// Within a scope whose user is found out later. `user` must outlive the scope.
void SetActingUser(std::string_view user);

// Empty outside of a scope.
std::string_view CurrentRequestId();
// Empty outside of a scope as well, and when nobody has logged in or the asking host does not say.
std::string_view CurrentActingUser();

}  // namespace vexa::daemon
