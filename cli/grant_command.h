// vexa user|group grant, revoke, advanced: guest-admin records in this host's store.
//
// One record per user or group: {"authlevel": "advanced" | "user", "guests": {"<guest id>": true, …}}. The presence of
// a guest's id is the grant.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/client_options.h"

namespace vexa::cli {

enum class AccountKind { kUser, kGroup };
enum class AccountSource { kAccountFile, kSystem };  // the account file, or the machine's own users and groups (NSS)

struct GrantTarget {
  AccountKind kind = AccountKind::kUser;
  std::string name;
  AccountSource source = AccountSource::kAccountFile;
  std::string accounts_path;
  std::string data_directory;  // the daemon's; the store is in "store" there
};

enum class AuthLevel { kUser, kAdvanced };

ExitCode RunGrant(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids);
ExitCode RunRevoke(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids);
ExitCode RunSetLevel(const GlobalOptions& global, const GrantTarget& target, AuthLevel level);

// The numeric id of the user or group. kNotFound when nobody is called that; kDenied as for the commands.
Result<std::uint32_t> FindAccountId(const GrantTarget& target);

// The level by numeric id. Editing is by compare and retry, so other writers lose nothing.
Status SetAuthLevel(const std::string& data_directory, AccountKind kind, std::uint32_t id, AuthLevel level);
// Removes the record, so that a later account with the same id inherits nothing. Not an error: no store, no record.
Status DropGrants(const std::string& data_directory, AccountKind kind, std::uint32_t id);

}  // namespace vexa::cli
