// vexa user|group grant, revoke, advanced, drop-grants: guest-admin records in the store of a host and its cluster.
//
// One record per user or group: {"authlevel": "advanced" | "user", "guests": {"<guest id>": true, …}, "name": "…"}. The
// presence of a guest's id is the grant. A record that was given to another name is not changed, only dropped.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/account_places.h"
#include "cli/client_options.h"
#include "host/records/account_records.h"

namespace vexa::cli {

using cluster::AccountKind;
enum class NameSource { kAccounts, kSystem };  // the accounts in the store, or the machine's own users and groups (NSS)

struct GrantTarget {
  AccountKind kind = AccountKind::kUser;
  std::string name;
  NameSource source = NameSource::kAccounts;
  AccountPlaces places;
};

struct FoundAccount {
  std::uint32_t id = 0;
  std::string name;          // as it was created, or as the name service writes it
  store::Revision seen = 0;  // of the store, before the look-up
};

enum class AuthLevel { kUser, kAdvanced };

// Editing is by compare and retry, so other writers lose nothing.
ExitCode RunGrant(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids);
ExitCode RunRevoke(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids);
ExitCode RunSetLevel(const GlobalOptions& global, const GrantTarget& target, AuthLevel level);
// Removes the record of the id that the name has, whoever it was given to.
ExitCode RunDropGrants(const GlobalOptions& global, const GrantTarget& target);

// The user or group of that name. kNotFound when it does not exist; kDenied as for the commands.
Result<FoundAccount> FindAccount(const GrantTarget& target);

}  // namespace vexa::cli
