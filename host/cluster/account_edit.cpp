#include "host/cluster/account_edit.h"

#include <algorithm>
#include <utility>

#include "host/records/guest_admin.h"
#include "json/readers.h"

namespace vexa::cluster {
namespace {

std::string GrantsKey(std::string_view kind, std::uint32_t id) {
  return records::GuestAdminKey(records::GuestAdminIdentifier(kind, id));
}

std::string NameRecord(const std::string& name) {
  Json::Value record(Json::objectValue);
  record["name"] = name;
  return json::ToText(record);
}

}  // namespace

Result<AccountEdit> AccountEdit::Begin(const store::Snapshot& snapshot) {
  auto index = records::LoadAccounts(snapshot);
  if (!index) return index.error();
  return AccountEdit(snapshot, std::move(*index));
}

Status AccountEdit::CheckIntact() const { return index_.damage ? Status(*index_.damage) : Status(); }

Result<bool> AccountEdit::Exists(const std::string& key) const {
  const auto value = snapshot_->Get(key);
  if (!value) return value.error();
  return value->has_value();
}

Result<bool> AccountEdit::IsFree(records::AccountKind kind, std::uint32_t id) const {
  if (records::IsAssignedId(id) && id < index_.next_id) return false;
  const bool is_user = kind == records::AccountKind::kUser;
  if (is_user && (index_.users.contains(id) || index_.damaged_users.contains(id))) return false;
  if (!is_user && (index_.groups.contains(id) || index_.damaged_groups.contains(id))) return false;
  const auto deleted = Exists(is_user ? records::DeletedUserKey(id) : records::DeletedGroupKey(id));
  if (!deleted) return deleted.error();
  return !*deleted;
}

// Ids beyond the next one may have been assigned explicitly. Grants under a free id may be for a user whose account is
// still in the file of another host.
Result<std::uint32_t> AccountEdit::AllocateId() {
  for (; index_.next_id <= accounts::kLastAssignedId; ++index_.next_id) {
    const std::uint32_t id = index_.next_id;
    bool is_free = true;
    for (const records::AccountKind kind : {records::AccountKind::kUser, records::AccountKind::kGroup}) {
      const auto unused = IsFree(kind, id);
      if (!unused) return unused.error();
      const auto has_grants =
          Exists(GrantsKey(kind == records::AccountKind::kUser ? records::kUsersKind : records::kGroupsKind, id));
      if (!has_grants) return has_grants.error();
      is_free = is_free && *unused && !*has_grants;
    }
    if (!is_free) continue;
    ++index_.next_id;
    for (const std::string_view kind : {records::kUsersKind, records::kGroupsKind}) {
      transaction_.compares.push_back({GrantsKey(kind, id), 0});
    }
    return id;
  }
  return Error(ErrorCode::kNoSpace, "All ids for users and groups are used up");
}

void AccountEdit::SkipIdsBelow(std::uint32_t next_id) { index_.next_id = std::max(index_.next_id, next_id); }

Status AccountEdit::EnsureWellKnownGroups() {
  for (const std::string_view name : {accounts::kAdministratorsGroup, accounts::kUsersGroup}) {
    if (const auto group = FindOrCreateGroup(std::string(name)); !group) return group.error();
  }
  return {};
}

Result<accounts::Group> AccountEdit::FindOrCreateGroup(const std::string& name) {
  if (const accounts::Group* group = index_.FindGroup(name)) return *group;
  if (Status intact = CheckIntact(); !intact) return intact.error();
  const auto id = AllocateId();
  if (!id) return id.error();
  const accounts::Group group{name, *id};
  AddGroup(group);
  return group;
}

void AccountEdit::AddGroup(const accounts::Group& group) {
  index_.Put(group);
  transaction_.operations.push_back(
      {records::AccountKey(records::AccountKind::kGroup, group.gid), NameRecord(group.name)});
}

void AccountEdit::DeleteGroup(std::uint32_t gid) {
  const auto found = index_.groups.find(gid);
  if (found == index_.groups.end()) return;
  transaction_.operations.push_back({records::DeletedGroupKey(gid), NameRecord(found->second.name)});
  transaction_.operations.push_back({records::AccountKey(records::AccountKind::kGroup, gid), std::nullopt});
  transaction_.operations.push_back({GrantsKey(records::kGroupsKind, gid), std::nullopt});
  index_.RemoveGroup(gid);
}

void AccountEdit::PutUser(const records::Account& account) {
  index_.Put(account);
  transaction_.operations.push_back({records::AccountKey(records::AccountKind::kUser, account.user.uid),
                                     json::ToText(records::AccountRecordOf(account))});
}

void AccountEdit::DeleteUser(std::uint32_t uid) {
  const auto found = index_.users.find(uid);
  if (found == index_.users.end()) return;
  transaction_.operations.push_back({records::DeletedUserKey(uid), NameRecord(found->second.user.name)});
  transaction_.operations.push_back({records::AccountKey(records::AccountKind::kUser, uid), std::nullopt});
  index_.RemoveUser(uid);
  DropGrantsOf(uid);
}

void AccountEdit::DropGrantsOf(std::uint32_t uid) {
  transaction_.operations.push_back({GrantsKey(records::kUsersKind, uid), std::nullopt});
}

store::Transaction AccountEdit::Finish() && {
  Json::Value state(Json::objectValue);
  state["next_id"] = index_.next_id;
  transaction_.compares.push_back({records::AccountStateKey(), index_.revision});
  transaction_.operations.push_back({records::AccountStateKey(), json::ToText(state)});
  return std::move(transaction_);
}

}  // namespace vexa::cluster
