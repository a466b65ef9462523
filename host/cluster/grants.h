// Grants: which guests a user or group may use, and whether they are advanced (host/records/guest_admin.h has the
// records).
//
// A change is planned on one snapshot and committed with compares, so that other writers lose nothing. A record that
// was given to somebody of another name is not changed, only dropped.
//
// Errors of all that change something: kUnavailable when the store fails in any way. Readers return what it says.
// Threads: any, at the same time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/cluster/account_store.h"
#include "host/records/account_records.h"
#include "host/store/store.h"

namespace vexa::cluster {

enum class GrantLevel { kUser, kAdvanced };

// "user" or "advanced".
std::string_view WordOf(GrantLevel level);

// Whom a grant is for, as the look-up found them.
struct GrantPrincipal {
  AccountKind kind = AccountKind::kUser;
  std::uint32_t id = 0;
  std::string name;          // as it was created, or as the name service writes it
  store::Revision seen = 0;  // of the store, before the look-up
};

// Searches the accounts of the cluster. kNotFound when no account matches; kUnavailable when they cannot be read.
Result<GrantPrincipal> FindPrincipal(const AccountStore& accounts, const store::Store& store, AccountKind kind,
                                     const PrincipalWord& word);

// Among the users and groups of this machine (NSS). The same errors. May wait for the name service.
Result<GrantPrincipal> FindSystemPrincipal(AccountKind kind, const PrincipalWord& word);

// What was granted to somebody.
struct GrantRecord {
  AccountKind kind = AccountKind::kUser;
  std::uint32_t id = 0;
  std::string name;  // whom it was given to; empty in records of older versions
  GrantLevel level = GrantLevel::kUser;
  std::vector<std::string> guest_ids;  // in order
};

// The following three refuse with kDenied when the record was given to another name, kCorrupt when it cannot be
// understood, and kNotFound when the principal was deleted since it was looked up. The record stays as it is then.

// Ids are UUIDs in any case.
Status GrantGuests(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids);
// The same; removes an id in whatever case the record has it. A guest that is not granted is not an error.
Status RevokeGuests(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids);
Status SetGrantLevel(store::Store& store, const GrantPrincipal& principal, GrantLevel level);

// Removes the record of the id, also when the account no longer exists. No record is not an error.
Status DropGrants(store::Store& store, AccountKind kind, std::uint32_t id);

// Nothing when there is no record. kCorrupt when it cannot be understood.
Result<std::optional<GrantRecord>> ReadGrants(const store::Snapshot& snapshot, AccountKind kind, std::uint32_t id);

struct AllGrants {
  std::vector<GrantRecord> records;  // users first, each kind in the order of the store's keys
  std::vector<std::string> damaged;  // identifiers of records that cannot be understood, such as "users-1026"
};
// The records of all users and groups.
Result<AllGrants> ReadAllGrants(const store::Snapshot& snapshot);

}  // namespace vexa::cluster
