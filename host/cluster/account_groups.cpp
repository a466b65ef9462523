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

const base::Group* GroupOf(const AccountIndex& accounts, const PrincipalWord& group) {
  if (const auto* const name = std::get_if<std::string>(&group)) return accounts.FindGroup(*name);
  const auto found = accounts.groups.find(std::get<std::uint32_t>(group));
  return found == accounts.groups.end() ? nullptr : &found->second;
}

}  // namespace

Error NoGroup(const std::string& name) {
  return Error(ErrorCode::kNotFound, base::IsValidAccountName(name) ? "There is no group '" + name + "'"
                                                                    : std::string("The group name is invalid"));
}

Error NoGroupWithGid(std::uint32_t gid) {
  return Error(ErrorCode::kNotFound, "There is no group with the gid " + std::to_string(gid));
}

std::unordered_map<std::uint32_t, std::vector<std::string>> MembersOfGroups(const AccountIndex& accounts) {
  std::unordered_map<std::uint32_t, std::vector<std::string>> members;
  for (const auto& [uid, account] : accounts.users) {
    for (const base::Group& group : account.user.groups) members[group.gid].push_back(account.user.name);
  }
  for (auto& [gid, names] : members) std::sort(names.begin(), names.end());
  return members;
}

Status PlanGroupDeletion(AccountEdit& edit, const PrincipalWord& group) {
  const base::Group* const found = GroupOf(edit.accounts(), group);
  if (found == nullptr) {
    // It may be what the damaged record is about.
    if (Status whole = edit.CheckWhole(); !whole) return whole;
    const auto* const name = std::get_if<std::string>(&group);
    return name != nullptr ? NoGroup(*name) : NoGroupWithGid(std::get<std::uint32_t>(group));
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
