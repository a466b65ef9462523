// The embedded account provider: users and groups in one file of ours.
//
// The file is JSON, mode 0600, replaced atomically, and locked (flock(2) on "<path>.lock") while it is changed:
//   {"version": 1,
//    "groups": [{"name": "administrators", "gid": 1900000000}],
//    "users":  [{"name": "alice", "uid": 1900000001, "gid": 1900000000, "password": "$y$…", "groups": ["administrators"]}]}
// Passwords are yescrypt hashes (crypt(5)). A file that others may read or write is refused.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/base/accounts.h"

namespace vexa::base {

// The first id given to users and groups of ours that the machine does not know: systemd's UIDS-GIDS document leaves
// 1879048192 to 2147483647 unused.
inline constexpr std::uint32_t kFirstOwnId = 1'900'000'000;
inline constexpr std::string_view kAdministratorsGroup = "administrators";

class AccountFile : public AccountProvider {
 public:
  // Opens the file, creating one with the group "administrators" and no users when there is none.
  static Result<std::unique_ptr<AccountFile>> Open(const std::string& path);

  Result<User> FindUser(const std::string& name) const override;
  Result<User> FindUserByUid(std::uint32_t uid) const override;
  Result<Group> FindGroupByGid(std::uint32_t gid) const override;
  Result<User> VerifyPassword(const std::string& name, const std::string& password) const override;

  struct NewUser {
    std::string name;
    std::string password;             // 8 to 512 bytes, no NUL
    std::vector<std::string> groups;  // created when missing
    std::optional<std::uint32_t> uid;  // default: the machine's id of a user of that name, else the next of ours
  };
  // kConflict when the name or uid is taken, kInvalid for a name, password or group that cannot be.
  Status AddUser(const NewUser& user);
  Status SetPassword(const std::string& name, const std::string& password);
  // Replaces the user's groups.
  Status SetGroups(const std::string& name, const std::vector<std::string>& groups);
  Status DeleteUser(const std::string& name);
  Result<std::vector<User>> ListUsers() const;

  ~AccountFile() override;

 private:
  class Impl;
  explicit AccountFile(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::base
