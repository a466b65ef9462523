#include "host/accounts/account_pam.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/accounts/account_nss.h"
#include "host/accounts/password_check.h"
#include "host/accounts/password_service.h"

namespace vexa::accounts {
namespace {

class PamAccounts : public AccountProvider {
 public:
  explicit PamAccounts(PamOptions options) : options_(std::move(options)) {}

  Result<User> FindUser(const std::string& name) const override {
    if (!IsValidAccountName(name)) return Error(ErrorCode::kNotFound, "The user name is invalid");
    return AddGroups(NssFindUser(name));
  }
  Result<User> FindUserByUid(std::uint32_t uid) const override { return AddGroups(NssFindUserByUid(uid)); }
  Result<Group> FindGroupByGid(std::uint32_t gid) const override { return NssFindGroupByGid(gid); }

  Result<User> VerifyPassword(const std::string& name, const std::string& password) const override {
    const Error denied(ErrorCode::kDenied, "The name or the password is wrong");
    PasswordQuestion question{options_.service, name, password};
    const PasswordAnswer check = Check(question);
    Wipe(question.password);
    switch (check.outcome) {
      case PasswordAnswer::Outcome::kRight:
        break;
      case PasswordAnswer::Outcome::kWrong:
      case PasswordAnswer::Outcome::kUnusable:
        return denied;
      case PasswordAnswer::Outcome::kFailed:
        return Error(ErrorCode::kUnavailable, "The password cannot be checked now", check.cause);
    }
    auto user = FindUser(check.user);
    if (!user.ok() && user.error().code() == ErrorCode::kNotFound) return denied;
    return user;
  }

 private:
  // By the service where there is one: this process may not be allowed to read the hashes.
  PasswordAnswer Check(const PasswordQuestion& question) const {
    const bool has_service = !options_.auth_socket.empty() && ::access(options_.auth_socket.c_str(), F_OK) == 0;
    return has_service ? AskPasswordService(options_.auth_socket, question)
                       : CheckPasswordWithPam(question, options_.config_directory);
  }

  Result<User> AddGroups(const Result<NssUser>& entry) const {
    if (!entry.ok()) return entry.error();
    auto groups = NssGroupsOf(*entry);
    if (!groups.ok()) return groups.error();
    auto stamp = NssPasswordStamp(entry->name, options_.shadow_file);
    if (!stamp.ok()) return stamp.error();
    User user{
        entry->name, entry->uid, entry->gid, std::move(groups).value(), entry->uid == 0, std::move(stamp).value()};
    user.is_administrator |= std::any_of(user.groups.begin(), user.groups.end(), [this](const Group& group) {
      return group.name == options_.administrators_group;
    });
    return user;
  }

  const PamOptions options_;
};

}  // namespace

std::unique_ptr<AccountProvider> MakePamAccounts(const PamOptions& options) {
  return std::make_unique<PamAccounts>(options);
}

}  // namespace vexa::accounts
