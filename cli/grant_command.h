// vexa user|group grant, revoke, advanced, drop-grants, grants and vexa guest grants: which guests users and groups may
// use, and whether they are advanced. Through the API.
#pragma once

#include <string>
#include <vector>

#include "cli/client_options.h"
#include "host/base/result.h"
#include "host/cluster/grants.h"
#include "host/records/account_records.h"

namespace vexa::cli {

using records::AccountKind;
enum class NameSource { kAccounts, kSystem };  // accounts in the store, or in the operating system (NSS)
enum class NameForm { kName, kId };

struct GrantTarget {
  AccountKind kind = AccountKind::kUser;
  std::string name;
  NameSource source = NameSource::kAccounts;
  NameForm form = NameForm::kName;
  bool console = false;  // grant: with the consoles of the guests; revoke: only these
};

ExitCode RunGrant(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids);
ExitCode RunRevoke(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids);
ExitCode RunSetLevel(const GlobalOptions& global, const GrantTarget& target, cluster::GrantLevel level);
ExitCode RunShowLevel(const GlobalOptions& global, const GrantTarget& target);
// Removes the grants and the level of the target's id, also when the account no longer exists.
ExitCode RunDropGrants(const GlobalOptions& global, const GrantTarget& target);
ExitCode RunListGrants(const GlobalOptions& global, const GrantTarget& target);

// The users and groups that a guest, an id or name, was granted to.
ExitCode RunGuestGrants(const GlobalOptions& global, const std::string& guest);

// The name or id of the target, as its form requires. kNotFound for a name that no account can have; kInvalid for a
// string that is neither a name nor an id.
Result<cluster::PrincipalNameOrId> ParsePrincipal(const GrantTarget& target);
// The ids in lower case, as guests have them. kInvalid for a string that is not a UUID, and for more ids than one
// request may have.
Result<std::vector<std::string>> NormalizeGuestIds(const std::vector<std::string>& guest_ids);

}  // namespace vexa::cli
