// vexa user|group grant, revoke, advanced, drop-grants without a daemon: on the store of this host, before the daemon's
// first start and for repairs. Each change is in the system log and the cluster log. No store is created.
#pragma once

#include <string>
#include <vector>

#include "cli/account_paths.h"
#include "cli/client_options.h"
#include "cli/grant_command.h"
#include "host/cluster/grants.h"

namespace vexa::cli {

ExitCode RunLocalGrant(const GlobalOptions& global, const AccountPaths& paths, const GrantTarget& target,
                       const std::vector<std::string>& guest_ids);
ExitCode RunLocalRevoke(const GlobalOptions& global, const AccountPaths& paths, const GrantTarget& target,
                        const std::vector<std::string>& guest_ids);
ExitCode RunLocalSetLevel(const GlobalOptions& global, const AccountPaths& paths, const GrantTarget& target,
                          cluster::GrantLevel level);
// Removes the grants and the level of the target's id, also when the account no longer exists.
ExitCode RunLocalDropGrants(const GlobalOptions& global, const AccountPaths& paths, const GrantTarget& target);

// Finds the user or group. kNotFound when it does not exist; also the errors of OpenAccounts.
Result<cluster::GrantPrincipal> FindAccount(const AccountPaths& paths, const GrantTarget& target);

}  // namespace vexa::cli
