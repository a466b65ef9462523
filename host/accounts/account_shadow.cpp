#include "host/accounts/account_shadow.h"

#include <fmt/format.h>
#include <shadow.h>

#include "host/accounts/entry_file.h"

namespace vexa::accounts {

std::string StampOfDay(long day) { return fmt::format("day-{}", day); }

Result<std::string> ReadPasswordStamp(const std::string& shadow_file, const std::string& name) {
  std::string stamp;
  const Status read = ForEachEntry<spwd>(shadow_file, &::fgetspent_r, [&](const spwd& entry) {
    if (name != entry.sp_namp) return true;
    stamp = StampOfDay(entry.sp_lstchg);
    return false;
  });
  if (!read && read.error().code() == ErrorCode::kUnavailable) return read.error();
  return stamp;
}

}  // namespace vexa::accounts
