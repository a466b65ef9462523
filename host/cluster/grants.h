// Grants: which guests a principal (a user or a group) may use, and its level (host/records/guest_admin.h has the
// records).
//
// A change is planned on one snapshot and committed with compares, so that other writers lose nothing. A record of
// another principal name cannot be changed, only dropped.
//
// Errors of all changes: kUnavailable when the store fails in any way. Readers return the store's errors.
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
std::string_view GrantLevelName(GrantLevel level);

// The principal of a grant, as found by the look-up.
struct GrantPrincipal {
  records::AccountKind kind = records::AccountKind::kUser;
  std::uint32_t id = 0;
  std::string name;          // as it was created, or as the name service spells it
  store::Revision seen = 0;  // the store's revision before the look-up; see RevisionBeforeLookup
};

// Searches the accounts of the cluster. kNotFound when no account matches; kUnavailable when they cannot be read.
Result<GrantPrincipal> FindPrincipal(const AccountStore& accounts, const store::Store& store, records::AccountKind kind,
                                     const PrincipalNameOrId& name_or_id);

// Searches the users and groups of this machine (NSS). The same errors. May wait for the name service.
Result<GrantPrincipal> FindSystemPrincipal(records::AccountKind kind, const PrincipalNameOrId& name_or_id);

// What was granted to a principal.
struct GrantRecord {
  records::AccountKind kind = records::AccountKind::kUser;
  std::uint32_t id = 0;
  std::string name;  // the principal's name when the grants were made; empty in records of older versions
  GrantLevel level = GrantLevel::kUser;
  std::vector<std::string> guest_ids;    // sorted
  std::vector<std::string> console_ids;  // sorted: the guests among them whose consoles were granted
};

// The following functions fail with kDenied when the record belongs to another name, kCorrupt when it is damaged,
// and kNotFound when the principal was deleted after it was looked up. The record is then unchanged.

// `guest_ids` are UUIDs in any case.
Status GrantGuests(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids);
// The same as a part of another commit: adds the grant of one guest to `transaction`, with compares. Also fails with
// the errors of the store.
Status AddGrant(const store::Snapshot& snapshot, const GrantPrincipal& principal, const std::string& guest_id,
                store::Transaction& transaction);
// The same, together with the consoles of the guests.
Status GrantConsoles(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids);
// Removes the consoles of the guests, which stay granted.
Status RevokeConsoles(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids);
// Removes the ids from the record, ignoring case, and their consoles. A guest that is not granted is not an error.
Status RevokeGuests(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids);
Status SetGrantLevel(store::Store& store, const GrantPrincipal& principal, GrantLevel level);

// Removes the record of the id, even when the account no longer exists. A missing record is not an error.
Status DropGrants(store::Store& store, records::AccountKind kind, std::uint32_t id);

// Not set: there is no record. kCorrupt when it is damaged.
Result<std::optional<GrantRecord>> ReadGrants(const store::Snapshot& snapshot, records::AccountKind kind,
                                              std::uint32_t id);

struct AllGrants {
  std::vector<GrantRecord> records;  // users first, each kind in the order of the store's keys
  std::vector<std::string> damaged;  // identifiers of damaged records, such as "users-1026"
};
// The records of all users and groups.
Result<AllGrants> ReadAllGrants(const store::Snapshot& snapshot);

}  // namespace vexa::cluster
