// Changes of the groups in the store, beside the changes that come with a user.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/base/result.h"
#include "host/cluster/account_edit.h"
#include "host/records/account_records.h"

namespace vexa::cluster {

// kNotFound, for a name that no group has.
Error NoGroup(const std::string& name);

// The names of the users in each group, in order.
std::unordered_map<std::uint32_t, std::vector<std::string>> MembersOfGroups(const AccountIndex& accounts);

// Plans what AccountStore::DeleteGroup promises, with its errors.
Status PlanGroupDeletion(AccountEdit& edit, const std::string& name);

}  // namespace vexa::cluster
