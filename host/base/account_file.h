// The embedded account provider: users and groups in one file of ours.
//
// The file is JSON, mode 0600, replaced atomically, and locked (flock(2) on "<path>.lock") while it is changed:
//   {"version": 1, "next_id": 1900000003,
//    "groups": [{"name": "administrators", "gid": 1900000000}, {"name": "users", "gid": 1900000001}],
//    "users":  [{"name": "alice", "uid": 1900000002, "gid": 1900000001, "password": "$y$…",
//                "groups": ["administrators"]}]}
// Passwords are yescrypt hashes (crypt(5)); "" and "!…" disable login. "gid" names the primary group, "groups" the
// others. "next_id" may be missing; it keeps the ids of deleted users from being given again. Any other member is
// refused, and so is a file that others may read or write, that belongs to neither this process's user nor root, or
// that is a symbolic link.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/accounts.h"

namespace vexa::base {

// The first id given to users and groups of ours that the machine does not know: systemd's UIDS-GIDS document leaves
// 1879048192 to 2147483647 unused.
inline constexpr std::uint32_t kFirstOwnId = 1'900'000'000;
inline constexpr std::string_view kAdministratorsGroup = "administrators";

inline constexpr std::uint32_t kLastOwnId = 2'147'483'646;
inline constexpr std::string_view kUsersGroup = "users";  // everybody's primary group

// Every call first looks whether the file has changed, and reads it when it has. When it then cannot be used, readers
// answer kUnavailable rather than from what they knew: rights may have been taken away.
// Writers answer with the reason (kCorrupt, kDenied, kNotFound for a missing file or user), kBusy when another process
// keeps the lock, kUnavailable when the name service does not answer, kNoSpace and kInternal when the file cannot be
// written. A change that fails changes nothing.
//
// Threads: any, at the same time; no reader waits for a writer.
class AccountFile : public AccountProvider {
 public:
  // Opens the file, creating one with the group "administrators" and no users when there is none.
  // kCorrupt when it cannot be understood, kDenied when it is not private.
  static Result<std::unique_ptr<AccountFile>> Open(const std::string& path);

  Result<User> FindUser(const std::string& name) const override;
  Result<User> FindUserByUid(std::uint32_t uid) const override;
  Result<Group> FindGroupByGid(std::uint32_t gid) const override;
  Result<User> VerifyPassword(const std::string& name, const std::string& password) const override;

  struct NewUser {
    std::string name;
    std::string password;              // 8 to 512 bytes, no NUL
    std::vector<std::string> groups;   // created when missing
    std::optional<std::uint32_t> uid;  // default: the machine's id of a user of that name, else the next of ours
  };
  // kConflict when the name or uid is taken, kInvalid for a name, password or group that cannot be.
  // A new group gets the machine's id of a group of that name, else the next of ours.
  Status AddUser(const NewUser& user);
  Status SetPassword(const std::string& name, const std::string& password);
  // Replaces the user's groups, but for the primary one. Groups are created when missing, and stay without members.
  Status SetGroups(const std::string& name, const std::vector<std::string>& groups);
  // Removes the user and nothing else: not its groups, its sessions, or what it owns and may use elsewhere.
  Status DeleteUser(const std::string& name);
  // By name.
  Result<std::vector<User>> ListUsers() const;

  ~AccountFile() override;

 private:
  class Impl;
  explicit AccountFile(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::base
