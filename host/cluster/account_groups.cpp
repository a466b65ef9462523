#include "host/cluster/account_groups.h"

#include <algorithm>

namespace vexa::cluster {
namespace {

// "'alice', 'bob' and 3 more"
std::string ShownNames(const std::vector<std::string>& names) {
  constexpr std::size_t kMostShown = 10;
  std::string text;
  for (std::size_t i = 0; i < names.size() && i < kMostShown; ++i) text += (i == 0 ? "'" : ", '") + names[i] + "'";
  if (names.size() > kMostShown) text += " and " + std::to_string(names.size() - kMostShown) + " more";
  return text;
}

}  // namespace

Error NoGroup(const std::string& name) {
  return Error(ErrorCode::kNotFound, base::IsValidAccountName(name) ? "There is no group '" + name + "'"
                                                                    : std::string("The group name is invalid"));
}

std::unordered_map<std::uint32_t, std::vector<std::string>> MembersOfGroups(const AccountIndex& accounts) {
  std::unordered_map<std::uint32_t, std::vector<std::string>> members;
  for (const auto& [uid, account] : accounts.users) {
    for (const base::Group& group : account.user.groups) members[group.gid].push_back(account.user.name);
  }
  for (auto& [gid, names] : members) std::sort(names.begin(), names.end());
  return members;
}

Status PlanGroupDeletion(AccountEdit& edit, const std::string& name) {
  const base::Group* const found = edit.accounts().FindGroup(name);
  if (found == nullptr) {
    // It may be what the damaged record is about.
    const Status whole = edit.CheckWhole();
    return whole ? NoGroup(name) : whole.error();
  }
  if (found->name == base::kAdministratorsGroup || found->name == base::kUsersGroup) {
    return Error(ErrorCode::kDenied, "The group '" + found->name + "' cannot be deleted: every cluster has it");
  }
  if (Status whole = edit.CheckWhole(); !whole) return whole;
  const auto members = MembersOfGroups(edit.accounts()).extract(found->gid);
  if (!members.empty()) {
    return Error(ErrorCode::kDenied, "The group '" + found->name + "' has members: " + ShownNames(members.mapped()) +
                                         ". Take them out of it with 'vexa user group' first");
  }
  edit.DeleteGroup(found->gid);
  return {};
}

}  // namespace vexa::cluster
