// vexa user add, passwd, group, del, list: the accounts in the store of a host and its cluster.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/account_places.h"
#include "cli/client_options.h"
#include "cli/password.h"

namespace vexa::cli {

struct NewUserOptions {
  std::string name;
  std::vector<std::string> groups;
  std::optional<std::uint32_t> uid;
  PasswordSource password = PasswordSource::kTerminal;
  bool advanced = false;
};

// Creates the store when it does not exist.
ExitCode RunUserAdd(const GlobalOptions& global, const AccountPlaces& places, const NewUserOptions& options);
ExitCode RunUserPasswd(const GlobalOptions& global, const AccountPlaces& places, const std::string& name,
                       PasswordSource source);
// Replaces the user's groups.
ExitCode RunUserGroup(const GlobalOptions& global, const AccountPlaces& places, const std::string& name,
                      const std::vector<std::string>& groups);
// With what was granted to the user.
ExitCode RunUserDel(const GlobalOptions& global, const AccountPlaces& places, const std::string& name);
ExitCode RunUserList(const GlobalOptions& global, const AccountPlaces& places);

}  // namespace vexa::cli
