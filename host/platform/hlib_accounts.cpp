// The user and group functions of webapi/platform/base.h, on top of the installed account provider.
#include <exception>
#include <memory>
#include <optional>

#include "host/accounts/current_accounts.h"
#include "host/platform/hlib_error.h"
#include "host/platform/hlib_types.h"
#include "webapi/platform/base.h"

using vexa::platform::HlibError;
using vexa::platform::SetHlibError;

namespace {

// On failure, sets the last error with `location`.
std::optional<vexa::accounts::User> FindUser(
    const char* name, vexa::platform::SourceLocation location = vexa::platform::SourceLocation::Current()) {
  if (!name) {
    SetHlibError(HlibError::kBadArgument, location);
    return std::nullopt;
  }
  const vexa::accounts::AccountProvider* accounts = vexa::accounts::CurrentAccounts();
  if (!accounts) {
    SetHlibError(HlibError::kUnavailable, location);
    return std::nullopt;
  }
  vexa::Result<vexa::accounts::User> user = accounts->FindUser(name);
  if (user) return std::move(*user);
  SetHlibError(vexa::platform::HlibErrorFor(user.error()), location);
  return std::nullopt;
}

}  // namespace

PSZHASH HLIBGroupInfoHashGet(const char* user, int, int) try {
  const auto found = FindUser(user);
  if (!found) return nullptr;
  auto hash = std::make_unique<HLIBCSzHash>();
  for (const vexa::accounts::Group& group : found->groups) hash->values.emplace(group.gid, group.name);
  return hash.release();
} catch (const std::exception&) {
  SetHlibError(HlibError::kNoMemory);
  return nullptr;
}

// `uid` and `gid` may be null.
int VEXAUserGetUGID(const char* name, uid_t* uid, gid_t* gid) try {
  const auto found = FindUser(name);
  if (!found) return -1;
  if (uid) *uid = found->uid;
  if (gid) *gid = found->gid;
  return 0;
} catch (const std::exception&) {
  SetHlibError(HlibError::kNoMemory);
  return -1;
}
