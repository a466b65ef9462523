// Builds the transaction for one change of the accounts: it is planned on a snapshot, and its commit fails if any
// account has changed since.
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

  // The accounts in the snapshot with the changes made so far.
  const records::AccountIndex& accounts() const { return index_; }

  // kCorrupt when any record is damaged: its name and groups are unknown, so no account can be added, since the damaged
  // record may be of the same account.
  Status CheckIntact() const;

  // Whether the id was never assigned. In the range of AllocateId, all ids below the next one count as assigned.
  // Errors: those of the store.
  Result<bool> IsFree(records::AccountKind kind, std::uint32_t id) const;
  // The next id that no user or group has or had, and that has no grants. Errors: kNoSpace when all are used up; those
  // of the store.
  Result<std::uint32_t> AllocateId();
  // Makes AllocateId skip the ids below `next_id`.
  void SkipIdsBelow(std::uint32_t next_id);

  // Creates "administrators" and "users" when they are missing, so that no other spelling of these names can exist.
  Status EnsureWellKnownGroups();
  // The group of that name, ignoring case; created when missing. Errors: those of CheckIntact and AllocateId.
  Result<accounts::Group> FindOrCreateGroup(const std::string& name);
  // Adds a group. Its id must be free, see IsFree.
  void AddGroup(const accounts::Group& group);

  // Deletes the group, which must have no members, and its grants, and records that the id was assigned.
  void DeleteGroup(std::uint32_t gid);

  // Adds the user or replaces the one of the same id.
  void PutUser(const records::Account& account);
  // Deletes the user and their grants, and records that the id was assigned.
  void DeleteUser(std::uint32_t uid);
  // Removes the grants stored under this id, which were made to an earlier owner of the id.
  void DropGrantsOf(std::uint32_t uid);

  // For adding more operations to the same commit.
  store::Transaction& transaction() { return transaction_; }

  // The transaction to commit.
  store::Transaction Finish() &&;

 private:
  AccountEdit(const store::Snapshot& snapshot, records::AccountIndex index)
      : snapshot_(&snapshot), index_(std::move(index)) {}
  Result<bool> Exists(const std::string& key) const;

  const store::Snapshot* snapshot_;
  records::AccountIndex index_;
  store::Transaction transaction_;
};

}  // namespace vexa::cluster
