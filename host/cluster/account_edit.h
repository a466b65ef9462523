// One change of the accounts: planned on a snapshot, and committed only if nobody has changed an account since.
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
  // Errors: what LoadAccounts says.
  static Result<AccountEdit> Begin(const store::Snapshot& snapshot);

  // With what has been changed so far.
  const AccountIndex& accounts() const { return index_; }

  // kCorrupt when a record is damaged: its name and groups are unknown, so nobody can be added beside it.
  Status CheckWhole() const;

  // Whether the id was never given to anybody. Of the ids that TakeId gives all below the next one count as given.
  Result<bool> IsFree(AccountKind kind, std::uint32_t id) const;
  // The next id that no user and no group has or had, and that no grants stand under. kNoSpace when all are used up.
  Result<std::uint32_t> TakeId();
  // No id below `next_id` is given by TakeId.
  void RaiseNextId(std::uint32_t next_id);

  // Creates "administrators" and "users" when they are missing, so that no other spelling of these names can be.
  Status MakeWellKnownGroups();
  // The group of that name in any case, created when missing.
  Result<base::Group> GroupFor(const std::string& name);
  // Adds a group with an id that IsFree.
  void AddGroup(const base::Group& group);

  // Deletes the group, which no user may be in, and what was granted to it, and remembers the id.
  void DeleteGroup(std::uint32_t gid);

  // Adds the user or replaces the one of the same id.
  void PutUser(const Account& account);
  // Deletes the user and what was granted to them, and remembers the id.
  void DeleteUser(std::uint32_t uid);
  // Whatever was granted under this id is not for the new account.
  void ForgetGrants(std::uint32_t uid);

  // Further operations of the same commit.
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
