#include "host/accounts/account_local.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "host/accounts/account_shadow.h"
#include "host/accounts/entry_file.h"

namespace vexa::accounts {
namespace {

// Accounts are unknown, rather than not there, when the file with them is missing or may not be read.
Error Unavailable(const Error& error) { return {ErrorCode::kUnavailable, error.message(), error.cause()}; }

class LocalAccounts : public AccountProvider {
 public:
  explicit LocalAccounts(LocalAccountOptions options) : options_(std::move(options)) {}

  Result<User> FindUser(const std::string& name) const override {
    return Find([&](const passwd& entry) { return entry.pw_name == name; });
  }
  Result<User> FindUserByUid(std::uint32_t uid) const override {
    return Find([&](const passwd& entry) { return entry.pw_uid == uid; });
  }
  Result<Group> FindGroupByGid(std::uint32_t gid) const override {
    Result<Group> found = Error(ErrorCode::kNotFound, "There is no such group");
    const Status read = ForEachEntry<group>(options_.group_file, &::fgetgrent_r, [&](const group& entry) {
      if (entry.gr_gid != gid) return true;
      found = Group{entry.gr_name, entry.gr_gid};
      return false;
    });
    return read ? found : Result<Group>(Unavailable(read.error()));
  }
  Result<User> VerifyPassword(const std::string& /*name*/, const std::string& /*password*/) const override {
    return Error(ErrorCode::kUnavailable, "The password cannot be checked now");
  }

 private:
  Result<User> Find(const std::function<bool(const passwd&)>& is_wanted) const {
    Result<User> found = Error(ErrorCode::kNotFound, "There is no such user");
    const Status read = ForEachEntry<passwd>(options_.user_file, &::fgetpwent_r, [&](const passwd& entry) {
      if (!is_wanted(entry)) return true;
      found = User{entry.pw_name, entry.pw_uid, entry.pw_gid, {}, entry.pw_uid == 0};
      return false;
    });
    if (!read) return Unavailable(read.error());
    if (!found) return found;
    if (Status added = AddGroups(*found); !added) return Unavailable(added.error());
    Result<std::string> stamp = ReadPasswordStamp(options_.shadow_file, found->name);
    if (!stamp) return stamp.error();
    found->stamp = *std::move(stamp);
    return found;
  }

  Status AddGroups(User& user) const {
    const Status read = ForEachEntry<group>(options_.group_file, &::fgetgrent_r, [&](const group& entry) {
      bool is_member = entry.gr_gid == user.gid;
      for (char** member = entry.gr_mem; !is_member && *member != nullptr; ++member) is_member = user.name == *member;
      const bool is_known =
          std::ranges::any_of(user.groups, [&](const Group& known) { return known.gid == entry.gr_gid; });
      if (is_member && !is_known) user.groups.push_back({entry.gr_name, entry.gr_gid});
      return true;
    });
    std::stable_partition(user.groups.begin(), user.groups.end(),
                          [&](const Group& known) { return known.gid == user.gid; });
    user.is_administrator |= std::ranges::any_of(
        user.groups, [&](const Group& known) { return known.name == options_.administrators_group; });
    return read;
  }

  const LocalAccountOptions options_;
};

}  // namespace

std::unique_ptr<AccountProvider> MakeLocalAccounts(const LocalAccountOptions& options) {
  return std::make_unique<LocalAccounts>(options);
}

}  // namespace vexa::accounts
