// Changes of the groups in the store, beside the changes that come with a user.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/base/result.h"
#include "host/cluster/account_edit.h"
#include "host/cluster/account_store.h"
#include "host/records/account_records.h"

namespace vexa::cluster {

// kNotFound, for a name or an id that no group has.
Error NoGroup(const std::string& name);
Error NoGroupWithGid(std::uint32_t gid);

// The names of the users in each group, in order.
std::unordered_map<std::uint32_t, std::vector<std::string>> MembersOfGroups(const AccountIndex& accounts);

// Plans what AccountStore::DeleteGroup promises, with its errors.
Status PlanGroupDeletion(AccountEdit& edit, const PrincipalWord& group);

}  // namespace vexa::cluster
