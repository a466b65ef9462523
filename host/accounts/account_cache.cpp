#include "host/accounts/account_cache.h"

#include <string>
#include <utility>

namespace vexa::accounts {
namespace {

template <class Value>
bool IsUnavailable(const Result<Value>& result) {
  return !result.ok() && result.error().code() == ErrorCode::kUnavailable;
}

class CachedAccounts : public AccountProvider {
 public:
  CachedAccounts(std::shared_ptr<const AccountProvider> directory, std::shared_ptr<const AccountProvider> fallback,
                 const LookupOptions& options)
      : directory_(std::move(directory)),
        fallback_(std::move(fallback)),
        threads_(std::make_shared<LookupThreads>(options)),
        users_(options, threads_),
        groups_(options, threads_) {}

  Result<User> FindUser(const std::string& name) const override {
    Result<User> user = users_.Get(KeyOf(name), [directory = directory_, name] { return directory->FindUser(name); });
    return IsUnavailable(user) ? Local(fallback_->FindUser(name), std::move(user)) : user;
  }

  Result<User> FindUserByUid(std::uint32_t uid) const override {
    Result<User> user = users_.Get("uid " + std::to_string(uid),
                                   [directory = directory_, uid] { return directory->FindUserByUid(uid); });
    return IsUnavailable(user) ? Local(fallback_->FindUserByUid(uid), std::move(user)) : user;
  }

  Result<Group> FindGroupByGid(std::uint32_t gid) const override {
    Result<Group> group =
        groups_.Get(std::to_string(gid), [directory = directory_, gid] { return directory->FindGroupByGid(gid); });
    return IsUnavailable(group) ? Local(fallback_->FindGroupByGid(gid), std::move(group)) : group;
  }

  Result<User> VerifyPassword(const std::string& name, const std::string& password) const override {
    Result<User> user = directory_->VerifyPassword(name, password);
    // Otherwise the session of this login would be compared with an earlier answer, from before a password change.
    if (user.ok()) users_.Put(KeyOf(user->name), *user);
    return user;
  }

 private:
  static std::string KeyOf(const std::string& name) { return "name " + name; }

  // An account that is not local may be in the directory, so it is not reported as missing.
  template <class Value>
  static Result<Value> Local(Result<Value> local, Result<Value> unavailable) {
    return local.ok() ? std::move(local) : std::move(unavailable);
  }

  const std::shared_ptr<const AccountProvider> directory_;
  const std::shared_ptr<const AccountProvider> fallback_;
  const std::shared_ptr<LookupThreads> threads_;
  const LookupCache<User> users_;
  const LookupCache<Group> groups_;
};

}  // namespace

std::unique_ptr<AccountProvider> MakeCachedAccounts(std::shared_ptr<const AccountProvider> directory,
                                                    std::shared_ptr<const AccountProvider> fallback,
                                                    const LookupOptions& options) {
  return std::make_unique<CachedAccounts>(std::move(directory), std::move(fallback), options);
}

}  // namespace vexa::accounts
