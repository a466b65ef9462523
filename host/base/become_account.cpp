#include "host/base/become_account.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>

namespace vexa {

Status BecomeAccount(const std::string& account) {
  const passwd* const entry = ::getpwnam(account.c_str());
  if (!entry) return Error(ErrorCode::kNotFound, fmt::format("There is no account '{}'", account));
  if (entry->pw_uid == ::geteuid()) return {};
  const gid_t group = entry->pw_gid;
  const uid_t user = entry->pw_uid;
  if (::initgroups(account.c_str(), group) != 0 || ::setgid(group) != 0 || ::setuid(user) != 0) {
    return SystemError(ErrorCode::kDenied, fmt::format("Only root can run as '{}'", account), errno);
  }
  return {};
}

}  // namespace vexa
