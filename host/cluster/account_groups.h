// Members and deletion of the groups in the store. Changes that come with a user are in account_store.cpp.
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

// The error kNotFound for a name or an id that no group has.
Error UnknownGroup(const std::string& name);
Error UnknownGid(std::uint32_t gid);

// The names of the users in each group, sorted; by gid. Groups without members are absent.
std::unordered_map<std::uint32_t, std::vector<std::string>> MembersOfGroups(const records::AccountIndex& accounts);

// Plans AccountStore::DeleteGroup, with its errors.
Status PlanGroupDeletion(AccountEdit& edit, const PrincipalNameOrId& group);

}  // namespace vexa::cluster
