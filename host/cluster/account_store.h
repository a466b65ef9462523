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
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/base/mutex.h"
#include "host/records/account_records.h"
#include "host/store/store.h"

namespace vexa::cluster {

class AccountEdit;

// A name in any case, or an id.
using PrincipalNameOrId = std::variant<std::string, std::uint32_t>;

// Look-ups fail with kNotFound (there is no such user or group) and kUnavailable (the store cannot be read, or the
// requested account may be in a damaged record). Each call sees all changes committed before it, in any process and on
// any host.
// Changes are committed with compares and retried, so of two that add the same name exactly one succeeds. They fail
// with kNotFound (there is no such user or group), kUnavailable (accounts keep changing, or the store fails in any way)
// and kCorrupt (a record is damaged). A failed change changes nothing. Callers that have looked an account up should
// pass its id: its name may belong to another account by now.
//
// Threads: any, at the same time.
class AccountStore : public accounts::AccountProvider {
 public:
  explicit AccountStore(std::shared_ptr<store::Store> store);
  ~AccountStore() override;

  Result<accounts::User> FindUser(const std::string& name) const override;
  Result<accounts::User> FindUserByUid(std::uint32_t uid) const override;
  Result<accounts::Group> FindGroup(const std::string& name) const;
  Result<accounts::Group> FindGroupByGid(std::uint32_t gid) const override;
  Result<accounts::User> VerifyPassword(const std::string& name, const std::string& password) const override;
  // The same, and returns the hash that the password was compared with.
  Result<records::Account> VerifyAccount(const std::string& name, const std::string& password) const;

  enum class Level { kUser, kAdvanced };
  struct NewUser {
    std::string name;
    std::string password;             // 8 to 512 bytes of UTF-8, no NUL
    std::vector<std::string> groups;  // created when missing
    // The uid of this user on every machine, so that each host's Unix socket recognises them. Default: the cluster's
    // next id, even when the machine has a user of that name, because machines may assign different uids.
    std::optional<std::uint32_t> uid;
    Level level = Level::kUser;
  };
  // kConflict when the name is taken, ignoring case, or the uid is or was assigned. kInvalid for an invalid name,
  // password, uid or group. The new user starts without grants, even if there were grants for the uid.
  Status AddUser(const NewUser& user);
  // Whether this uid of the machines may be assigned to a user. kInvalid for the uids of root and of this process: on
  // the Unix sockets, they stand for the machine's own administrator.
  static Status CheckMachineUid(std::uint32_t uid);
  // kDenied when `verified_hash` is given and is no longer the user's: the password has been changed since it was
  // verified.
  // `before_commit` gets the user's new stamp before any other caller can see it; its errors are returned.
  // Returns the user's new stamp.
  Result<std::string> SetPassword(const PrincipalNameOrId& user, const std::string& password,
                                  const std::optional<std::string>& verified_hash = std::nullopt,
                                  const std::function<Status(const std::string& stamp)>& before_commit = {});
  // Replaces the user's groups, except for the primary one. Missing groups are created, and groups without members
  // stay. kDenied when no user would be left in "administrators".
  Status SetGroups(const PrincipalNameOrId& user, const std::vector<std::string>& groups);
  // Deletes the user and their grants. The user's groups stay. Their sessions end on every host. kDenied for the last
  // user in "administrators".
  Status DeleteUser(const PrincipalNameOrId& user);
  // All users, sorted by name. kUnavailable when any record is damaged.
  Result<std::vector<accounts::User>> ListUsers() const;

  struct GroupWithMembers {
    accounts::Group group;
    std::vector<std::string> members;  // names of users, sorted
  };
  // All groups, sorted by name. kUnavailable when any record is damaged.
  Result<std::vector<GroupWithMembers>> ListGroups() const;
  // Deletes a group without members, and its grants. kDenied, with the reason, for one that has members, and for
  // "administrators" and "users", which every cluster has.
  Status DeleteGroup(const PrincipalNameOrId& group);

 private:
  using Accounts = std::shared_ptr<const records::AccountIndex>;
  Result<Accounts> Current() const;
  template <class Change>
  Status Edit(const Change& change);

  const std::shared_ptr<store::Store> store_;
  mutable Mutex mutex_;
  mutable Accounts current_ VEXA_GUARDED_BY(mutex_);
  mutable Mutex load_mutex_;  // so that one thread loads the accounts while the others wait for them
};

}  // namespace vexa::cluster
