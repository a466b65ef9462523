// vexa user add, passwd, group, del, list without a daemon: on the store of this host, before the daemon's first start
// and for repairs. Each change is in the system log and the cluster log.
#pragma once

#include <string>
#include <vector>

#include "cli/account_paths.h"
#include "cli/client_options.h"
#include "cli/password.h"
#include "cli/user_command.h"

namespace vexa::cli {

// Creates the store if it does not exist. The other commands never create one.
ExitCode RunLocalUserAdd(const GlobalOptions& global, const AccountPaths& paths, const NewUserOptions& options);
ExitCode RunLocalUserPasswd(const GlobalOptions& global, const AccountPaths& paths, const std::string& name,
                            PasswordSource source);
// Replaces the user's groups.
ExitCode RunLocalUserGroup(const GlobalOptions& global, const AccountPaths& paths, const std::string& name,
                           const std::vector<std::string>& groups);
// Also deletes the user's grants.
ExitCode RunLocalUserDel(const GlobalOptions& global, const AccountPaths& paths, const std::string& name);
ExitCode RunLocalUserList(const GlobalOptions& global, const AccountPaths& paths);

}  // namespace vexa::cli
