// The records of users and groups in the store, and an in-memory index of all of them for look-ups.
//
//   /accounts/state                     {"next_id": 1900000003}: written with every change of any account
//   /accounts/user/<id>                 {"name": "alice", "gid": 1900000001, "groups": [1900000000],
//                                        "password": "$y$…"}
//   /accounts/group/<id>                {"name": "users"}
//   /accounts/deleted_user/<id>         {"name": "bob"}: the id was assigned once, and is never assigned again
//   /accounts/deleted_group/<id>        {"name": "crew"}: the same for a group
//   /accounts/taken_over/<fingerprint>  {"users": 3}: an account file of an older version, whose accounts have been
//                                       migrated to the store; the fingerprint is that of the file's content
//
// "gid" names the primary group, "groups" the other groups. Passwords are yescrypt hashes (crypt(5)); "" and "!…"
// disable login. All changes compare the revision of /accounts/state, so each is planned on the state that it replaces.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "host/accounts/accounts.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::records {

enum class AccountKind { kUser, kGroup };

// Whether the id is in the range that the cluster assigns itself.
constexpr bool IsAssignedId(std::uint32_t id) {
  return id >= accounts::kFirstAssignedId && id <= accounts::kLastAssignedId;
}

std::string AccountStateKey();
std::string AccountKey(AccountKind kind, std::uint32_t id);
std::string DeletedUserKey(std::uint32_t uid);
std::string DeletedGroupKey(std::uint32_t gid);
std::string MigratedFileKey(std::string_view fingerprint);

struct Account {
  accounts::User user;   // AccountIndex::Put makes its stamp
  std::string password;  // a hash, or "" or "!…"
};

Json::Value AccountRecordOf(const Account& account);

// All accounts in one state of the store. A damaged record affects only the look-ups that need it: those of its
// account, and those of names that are not found, because the damaged record may contain the name. Threads: one; or any
// number of readers.
struct AccountIndex {
  store::Revision revision = 0;  // of /accounts/state; 0: there are no accounts
  std::uint32_t next_id = accounts::kFirstAssignedId;
  std::unordered_map<std::uint32_t, Account> users;
  std::unordered_map<std::uint32_t, accounts::Group> groups;
  std::unordered_map<std::string, std::uint32_t> user_ids;   // by lower-case name
  std::unordered_map<std::string, std::uint32_t> group_ids;  // by lower-case name
  std::unordered_set<std::uint32_t> damaged_users;
  std::unordered_set<std::uint32_t> damaged_groups;
  std::optional<Error> damage;  // an error about one of the damaged records; not set: all records are intact

  // By name, ignoring case; null when absent.
  const Account* FindUser(std::string_view name) const;
  const accounts::Group* FindGroup(std::string_view name) const;

  void Put(Account account);
  void Put(accounts::Group group);
  void RemoveUser(std::uint32_t uid);
  void RemoveGroup(std::uint32_t gid);
};

// The revision of the accounts; 0 without accounts. Errors: those of the store.
Result<store::Revision> AccountRevision(const store::Snapshot& snapshot);

// Errors: those of the store; kCorrupt when /accounts/state cannot be parsed.
Result<AccountIndex> LoadAccounts(const store::Snapshot& snapshot);

}  // namespace vexa::records
