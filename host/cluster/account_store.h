// The accounts of the cluster: users and groups in the store, the same on all hosts that share it.
//
// Names keep the case in which they were created, and two names that differ only in the case of ASCII letters cannot
// both exist. Look-ups and logins ignore case and return the created spelling. Users and groups have separate name
// spaces.
//
// Ids come from one counter that only increases. An id is assigned once in the lifetime of the store: neither deleting
// its owner nor assigning it explicitly makes it free again. account_records.h has the records.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/records/account_records.h"
#include "host/store/store.h"

namespace vexa::cluster {

class AccountEdit;

// Readers return kUnavailable when the store cannot be read, or when the requested account may be in a damaged record.
// Each call checks whether an account has changed since the last one, also in other processes and on other hosts.
// Writers commit with compares and retry, so of two that add the same name exactly one succeeds. They fail with
// kUnavailable (accounts keep changing, or the store fails in any way) and kCorrupt (a record is damaged). A failed
// change changes nothing.
//
// Threads: any, at the same time.
class AccountStore : public base::AccountProvider {
 public:
  explicit AccountStore(std::shared_ptr<store::Store> store);
  ~AccountStore() override;

  Result<base::User> FindUser(const std::string& name) const override;
  Result<base::User> FindUserByUid(std::uint32_t uid) const override;
  Result<base::Group> FindGroup(const std::string& name) const;
  Result<base::Group> FindGroupByGid(std::uint32_t gid) const override;
  Result<base::User> VerifyPassword(const std::string& name, const std::string& password) const override;
  // The same, with the hash that the password was compared with.
  Result<Account> VerifyAccount(const std::string& name, const std::string& password) const;

  enum class Level { kUser, kAdvanced };
  struct NewUser {
    std::string name;
    std::string password;             // 8 to 512 bytes of UTF-8, no NUL
    std::vector<std::string> groups;  // created when missing
    // Declares that this user id of the machines is this person on all hosts, so that each host's Unix socket
    // recognises them. Default: our next id, even where the machine has a user of that name, because machines differ in
    // their ids.
    std::optional<std::uint32_t> uid;
    Level level = Level::kUser;
  };
  // kConflict when the name is taken, ignoring case, or the uid is or was assigned. kInvalid for an invalid name,
  // password, uid or group. The new user starts without grants, even if there were grants for the uid.
  Status AddUser(const NewUser& user);
  // Whether somebody may declare that this user id of the machines is a user's. kInvalid for root's and for that of
  // this process: on the Unix sockets they would turn the machine's own administrator into the user.
  static Status CheckSharedUid(std::uint32_t uid);
  // kNotFound when there is no user with the uid. kDenied when `verified_hash` is given and is no longer the user's:
  // the password has been changed since it was verified.
  Status SetPassword(std::uint32_t uid, const std::string& password,
                     const std::optional<std::string>& verified_hash = std::nullopt);
  // Replaces the user's groups, except for the primary one. Missing groups are created, and groups without members
  // stay. kDenied when nobody would be left in "administrators".
  Status SetGroups(const std::string& name, const std::vector<std::string>& groups);
  // Deletes the user and their grants. The user's groups stay. Their sessions end on every host. kDenied for the last
  // one in "administrators".
  Status DeleteUser(const std::string& name);
  // By name. kUnavailable when a user's record is damaged.
  Result<std::vector<base::User>> ListUsers() const;

  struct GroupWithMembers {
    base::Group group;
    std::vector<std::string> members;  // names of users, in order
  };
  // By name; kUnavailable as ListUsers.
  Result<std::vector<GroupWithMembers>> ListGroups() const;
  // Deletes a group without members and what was granted to it. kDenied, with the reason, for one that has members and
  // for "administrators" and "users", which every cluster has.
  Status DeleteGroup(const std::string& name);

 private:
  using Accounts = std::shared_ptr<const AccountIndex>;
  Result<Accounts> Current() const;
  template <class Change>
  Status Edit(const Change& change);

  const std::shared_ptr<store::Store> store_;
  mutable std::mutex mutex_;  // protects only current_
  mutable Accounts current_;
  mutable std::mutex load_mutex_;  // one thread loads what all the others wait for
};

}  // namespace vexa::cluster
