// The accounts of the cluster: users and groups in the store, the same on all hosts that share it.
//
// Names keep their case as they were created, and two names that differ only in the case of ASCII letters cannot both
// exist. Look-ups and logins ignore that case and yield the created spelling. Users and groups have names apart.
//
// Ids come from one counter that only rises. An id is given once in the life of the store: neither deleting its owner
// nor giving it explicitly makes it free again. account_records.h has the records.
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

// Readers answer kUnavailable when the store cannot be read, or when what is asked for is in a damaged record. Each
// call looks whether an account has changed since the last one, also through other processes and hosts.
// Writers commit with compares and try again, so of two that add one name exactly one wins. They fail with kConflict
// (others change accounts without a pause), kCorrupt (a record is damaged), and what the store says. A change that
// fails changes nothing.
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

  enum class Level { kUser, kAdvanced };
  struct NewUser {
    std::string name;
    std::string password;             // 8 to 512 bytes of UTF-8, no NUL
    std::vector<std::string> groups;  // created when missing
    // Says that this user id of the machines is this person on all hosts, so that the Unix socket of each knows them.
    // Default: the next id of ours, also where the machine has a user of that name: machines differ in their ids.
    std::optional<std::uint32_t> uid;
    Level level = Level::kUser;
  };
  // kConflict when the name is taken in any case, or the uid is or was somebody's. kInvalid for a name, password, uid
  // or group that cannot be. The new user starts without grants, whatever stood under the uid.
  Status AddUser(const NewUser& user);
  Status SetPassword(const std::string& name, const std::string& password);
  // Replaces the user's groups, except for the primary one. Groups are created when missing, and stay without members.
  Status SetGroups(const std::string& name, const std::vector<std::string>& groups);
  // Deletes the user and what was granted to them. Its groups stay. Its sessions end on every host.
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
  mutable std::mutex mutex_;  // of current_ alone
  mutable Accounts current_;
  mutable std::mutex load_mutex_;  // one thread loads what all wait for
};

}  // namespace vexa::cluster
