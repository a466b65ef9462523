// Users and groups of webapi/platform/base.h, from the installed account provider.
#include <exception>
#include <memory>
#include <optional>

#include "host/accounts/current_accounts.h"
#include "host/platform/hlib_error.h"
#include "host/platform/hlib_types.h"
#include "webapi/platform/base.h"

using vexa::base::HlibError;
using vexa::base::SetHlibError;

namespace {

// Empty, with the last error set to `place`: there is no such user, or that is unknown.
std::optional<vexa::base::User> FindUser(const char* name, vexa::base::Place place = vexa::base::Place::Here()) {
  if (!name) {
    SetHlibError(HlibError::kBadArgument, place);
    return std::nullopt;
  }
  const vexa::base::AccountProvider* accounts = vexa::base::CurrentAccounts();
  if (!accounts) {
    SetHlibError(HlibError::kUnavailable, place);
    return std::nullopt;
  }
  vexa::Result<vexa::base::User> user = accounts->FindUser(name);
  if (user) return std::move(*user);
  SetHlibError(vexa::base::HlibErrorOf(user.error()), place);
  return std::nullopt;
}

}  // namespace

PSZHASH HLIBGroupInfoHashGet(const char* user, int, int) try {
  const auto found = FindUser(user);
  if (!found) return nullptr;
  auto hash = std::make_unique<HLIBCSzHash>();
  for (const vexa::base::Group& group : found->groups) hash->values.emplace(group.gid, group.name);
  return hash.release();
} catch (const std::exception&) {
  SetHlibError(HlibError::kNoMemory);
  return nullptr;
}

// A null output is not requested.
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
