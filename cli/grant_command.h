// vexa user|group grant, revoke, advanced, drop-grants, grants and vexa guest grants: which guests users and groups may
// use, and whether they are advanced, by the API.
#pragma once

#include <string>
#include <vector>

#include "cli/client_options.h"
#include "host/base/result.h"
#include "host/cluster/grants.h"
#include "host/records/account_records.h"

namespace vexa::cli {

using cluster::AccountKind;
enum class NameSource { kAccounts, kSystem };  // the accounts in the store, or a machine's own users and groups (NSS)
enum class NameForm { kName, kId };

struct GrantTarget {
  AccountKind kind = AccountKind::kUser;
  std::string name;
  NameSource source = NameSource::kAccounts;
  NameForm form = NameForm::kName;
};

ExitCode RunGrant(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids);
ExitCode RunRevoke(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids);
ExitCode RunSetLevel(const GlobalOptions& global, const GrantTarget& target, cluster::GrantLevel level);
ExitCode RunShowLevel(const GlobalOptions& global, const GrantTarget& target);
// Removes the record of the target's id, also when the account no longer exists.
ExitCode RunDropGrants(const GlobalOptions& global, const GrantTarget& target);
ExitCode RunListGrants(const GlobalOptions& global, const GrantTarget& target);

// The users and groups that a guest, an id or name, was granted to.
ExitCode RunGuestGrants(const GlobalOptions& global, const std::string& guest);

// The name, or the id that it is. kInvalid for a text that can be neither.
Result<cluster::PrincipalWord> WordOf(const GrantTarget& target);
// The ids in lower case, as guests have them. kInvalid, with the first text that is not the id of a guest, and for more
// than one request can hold.
Result<std::vector<std::string>> NormalGuestIds(const std::vector<std::string>& guest_ids);

}  // namespace vexa::cli
