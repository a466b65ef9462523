#include "host/cluster/account_groups.h"

#include <fmt/format.h>

#include <algorithm>

namespace vexa::cluster {
namespace {

// "'alice', 'bob' and 3 more"
std::string FormatNameList(const std::vector<std::string>& names) {
  constexpr std::size_t kMaxListed = 10;
  std::string text;
  for (std::size_t i = 0; i < names.size() && i < kMaxListed; ++i) text += (i == 0 ? "'" : ", '") + names[i] + "'";
  if (names.size() > kMaxListed) text += " and " + std::to_string(names.size() - kMaxListed) + " more";
  return text;
}

const accounts::Group* GroupOf(const records::AccountIndex& accounts, const PrincipalNameOrId& group) {
  if (const auto* const name = std::get_if<std::string>(&group)) return accounts.FindGroup(*name);
  const auto found = accounts.groups.find(std::get<std::uint32_t>(group));
  return found == accounts.groups.end() ? nullptr : &found->second;
}

}  // namespace

Error UnknownGroup(const std::string& name) {
  return Error(ErrorCode::kNotFound, accounts::IsValidAccountName(name) ? fmt::format("There is no group '{}'", name)
                                                                        : std::string("The group name is invalid"));
}

Error UnknownGid(std::uint32_t gid) {
  return Error(ErrorCode::kNotFound, fmt::format("There is no group with the gid {}", gid));
}

std::unordered_map<std::uint32_t, std::vector<std::string>> MembersOfGroups(const records::AccountIndex& accounts) {
  std::unordered_map<std::uint32_t, std::vector<std::string>> members;
  for (const auto& [uid, account] : accounts.users) {
    for (const accounts::Group& group : account.user.groups) members[group.gid].push_back(account.user.name);
  }
  for (auto& [gid, names] : members) std::sort(names.begin(), names.end());
  return members;
}

Status PlanGroupDeletion(AccountEdit& edit, const PrincipalNameOrId& group) {
  const accounts::Group* const found = GroupOf(edit.accounts(), group);
  if (found == nullptr) {
    // The damaged record may be the group's.
    if (Status intact = edit.CheckIntact(); !intact) return intact;
    const auto* const name = std::get_if<std::string>(&group);
    return name != nullptr ? UnknownGroup(*name) : UnknownGid(std::get<std::uint32_t>(group));
  }
  if (found->name == accounts::kAdministratorsGroup || found->name == accounts::kUsersGroup) {
    return Error(ErrorCode::kDenied,
                 fmt::format("The group '{}' cannot be deleted, because it is built in", found->name));
  }
  if (Status intact = edit.CheckIntact(); !intact) return intact;
  const auto members = MembersOfGroups(edit.accounts()).extract(found->gid);
  if (!members.empty()) {
    return Error(ErrorCode::kDenied,
                 fmt::format("The group '{}' has members: {}. Take them out of it with 'vexa user group' first",
                             found->name, FormatNameList(members.mapped())));
  }
  edit.DeleteGroup(found->gid);
  return {};
}

}  // namespace vexa::cluster
