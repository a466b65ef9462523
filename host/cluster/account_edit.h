// One change of the accounts: planned on a snapshot, and committed only if no account has changed since.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/records/account_records.h"
#include "host/store/store.h"

namespace vexa::cluster {

// Threads: one. The snapshot must outlive it.
class AccountEdit {
 public:
  // Errors: those of LoadAccounts.
  static Result<AccountEdit> Begin(const store::Snapshot& snapshot);

  // Includes the changes made so far.
  const AccountIndex& accounts() const { return index_; }

  // kCorrupt when a record is damaged: its name and groups are unknown, so no account can be added beside it.
  Status CheckWhole() const;

  // Whether the id was never assigned. In TakeId's range, all ids below the next one count as assigned.
  Result<bool> IsFree(AccountKind kind, std::uint32_t id) const;
  // The next id that no user or group has or had, and that has no grants. kNoSpace when all are used up.
  Result<std::uint32_t> TakeId();
  // Makes TakeId skip the ids below `next_id`.
  void RaiseNextId(std::uint32_t next_id);

  // Creates "administrators" and "users" when they are missing, so that no other spelling of these names can exist.
  Status MakeWellKnownGroups();
  // The group of that name, ignoring case; created when missing.
  Result<base::Group> GroupFor(const std::string& name);
  // Adds a group. IsFree must hold for its id.
  void AddGroup(const base::Group& group);

  // Adds the user, or replaces the user with the same id.
  void PutUser(const Account& account);
  // Deletes the user and their grants, and remembers the id.
  void DeleteUser(std::uint32_t uid);
  // Removes earlier grants under this id: they are not meant for the new account.
  void ForgetGrants(std::uint32_t uid);

  // More operations for the same commit.
  store::Transaction& transaction() { return transaction_; }

  // What to commit.
  store::Transaction Finish() &&;

 private:
  AccountEdit(const store::Snapshot& snapshot, AccountIndex index) : snapshot_(&snapshot), index_(std::move(index)) {}
  Result<bool> Exists(const std::string& key) const;

  const store::Snapshot* snapshot_;
  AccountIndex index_;
  store::Transaction transaction_;
};

}  // namespace vexa::cluster
