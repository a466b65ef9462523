// vexa user add, passwd, group, del, list: the account file of this host.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/client_options.h"
#include "cli/password.h"

namespace vexa::cli {

// The daemon's data folder, and the account file when it is not the one in there.
struct AccountPlaces {
  std::string data_directory = "/var/lib/vexa";
  std::string other_accounts_path;

  std::string accounts_path() const {
    return other_accounts_path.empty() ? data_directory + "/accounts.json" : other_accounts_path;
  }
};

struct NewUserOptions {
  std::string name;
  std::vector<std::string> groups;
  std::optional<std::uint32_t> uid;
  PasswordSource password = PasswordSource::kTerminal;
  bool advanced = false;
};

// Creates the account file when there is none.
ExitCode RunUserAdd(const GlobalOptions& global, const AccountPlaces& places, const NewUserOptions& options);
ExitCode RunUserPasswd(const GlobalOptions& global, const AccountPlaces& places, const std::string& name,
                       PasswordSource source);
// Replaces the user's groups.
ExitCode RunUserGroup(const GlobalOptions& global, const AccountPlaces& places, const std::string& name,
                      const std::vector<std::string>& groups);
// The user's guest-admin record goes first, so that nobody who gets the same id later inherits it.
ExitCode RunUserDel(const GlobalOptions& global, const AccountPlaces& places, const std::string& name);
ExitCode RunUserList(const GlobalOptions& global, const AccountPlaces& places);

}  // namespace vexa::cli
