#include "host/records/account_records.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <functional>
#include <utility>
#include <vector>

#include "host/accounts/account_password.h"
#include "host/base/json_parse.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::records {
namespace {

constexpr std::string_view kRoot = "accounts";

Error Damaged(std::string_view key) {
  return Error(ErrorCode::kCorrupt,
               fmt::format("The account record '{}' cannot be understood. Restore the store from a backup", key));
}

std::string_view KindName(AccountKind kind) { return kind == AccountKind::kUser ? "user" : "group"; }

// Integers only: jsoncpp would also convert 1.0, true and null. The largest number means "no id" to system calls.
std::optional<std::uint32_t> ReadId(const Json::Value& value) {
  if (value.type() != Json::intValue && value.type() != Json::uintValue) return std::nullopt;
  if (!value.isUInt() || json::UInt(value) == UINT32_MAX) return std::nullopt;
  return json::UInt(value);
}

std::optional<std::string> ReadName(const Json::Value& record) {
  const Json::Value& name = json::Member(record, "name");
  if (!name.isString() || !accounts::IsValidAccountName(json::String(name))) return std::nullopt;
  return json::String(name);
}

// The id at the end of a key below `prefix`.
std::optional<std::uint32_t> IdOfKey(std::string_view key, std::string_view prefix) {
  if (key.size() <= prefix.size() + 1) return std::nullopt;
  const std::string_view digits = key.substr(prefix.size() + 1);
  std::uint32_t id = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), id);
  if (error != std::errc() || end != digits.data() + digits.size() || id == UINT32_MAX) return std::nullopt;
  return id;
}

std::optional<accounts::Group> ReadGroup(std::uint32_t gid, const Json::Value& record) {
  const auto name = ReadName(record);
  if (!name) return std::nullopt;
  return accounts::Group{*name, gid};
}

std::optional<Account> ReadAccount(std::uint32_t uid, const Json::Value& record, const AccountIndex& index) {
  const auto name = ReadName(record);
  const auto gid = ReadId(json::Member(record, "gid"));
  const Json::Value& password = json::Member(record, "password");
  const Json::Value& groups = json::Member(record, "groups");
  if (!name || !gid || !password.isString() || !groups.isArray()) return std::nullopt;
  Account account{{*name, uid, *gid, {}, false}, json::String(password)};
  if (!accounts::IsStoredHashValid(account.password)) return std::nullopt;
  std::vector<std::uint32_t> gids{*gid};
  for (const Json::Value& entry : groups) {
    const auto other = ReadId(entry);
    if (!other) return std::nullopt;
    if (std::find(gids.begin(), gids.end(), *other) == gids.end()) gids.push_back(*other);
  }
  for (const std::uint32_t id : gids) {
    const auto group = index.groups.find(id);
    if (group == index.groups.end()) return std::nullopt;
    account.user.groups.push_back(group->second);
    account.user.is_administrator |= group->second.name == accounts::kAdministratorsGroup;
  }
  return account;
}

// Calls `read` with the id and the record of every account of one kind. If it returns false, the record is damaged.
Status ReadAll(const store::Snapshot& snapshot, AccountKind kind, AccountIndex& index,
               const std::function<bool(std::uint32_t id, const Json::Value& record)>& read) {
  const std::string prefix = store::MakeKey({kRoot, KindName(kind)});
  return snapshot.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
    const auto id = IdOfKey(key, prefix);
    const Result<Json::Value> record = ParseJson(value.text);
    if (id && record && record->isObject() && read(*id, *record)) return true;
    index.damage = Damaged(key);
    if (id) (kind == AccountKind::kUser ? index.damaged_users : index.damaged_groups).insert(*id);
    return true;
  });
}

}  // namespace

std::string AccountStateKey() { return store::MakeKey({kRoot, "state"}); }

std::string AccountKey(AccountKind kind, std::uint32_t id) {
  return store::MakeKey({kRoot, KindName(kind), std::to_string(id)});
}

std::string DeletedUserKey(std::uint32_t uid) { return store::MakeKey({kRoot, "deleted_user", std::to_string(uid)}); }

std::string DeletedGroupKey(std::uint32_t gid) { return store::MakeKey({kRoot, "deleted_group", std::to_string(gid)}); }

std::string MigratedFileKey(std::string_view fingerprint) { return store::MakeKey({kRoot, "taken_over", fingerprint}); }

Json::Value AccountRecordOf(const Account& account) {
  Json::Value record(Json::objectValue);
  record["name"] = account.user.name;
  record["gid"] = account.user.gid;
  record["groups"] = Json::Value(Json::arrayValue);
  for (const accounts::Group& group : account.user.groups) {
    if (group.gid != account.user.gid) record["groups"].append(group.gid);
  }
  record["password"] = account.password;
  return record;
}

const Account* AccountIndex::FindUser(std::string_view name) const {
  const auto id = user_ids.find(accounts::LowerCaseName(name));
  return id == user_ids.end() ? nullptr : &users.at(id->second);
}

const accounts::Group* AccountIndex::FindGroup(std::string_view name) const {
  const auto id = group_ids.find(accounts::LowerCaseName(name));
  return id == group_ids.end() ? nullptr : &groups.at(id->second);
}

void AccountIndex::Put(Account account) {
  const std::uint32_t uid = account.user.uid;
  account.user.stamp = accounts::StampOfHash(account.password);
  user_ids.insert_or_assign(accounts::LowerCaseName(account.user.name), uid);
  users.insert_or_assign(uid, std::move(account));
}

void AccountIndex::Put(accounts::Group group) {
  const std::uint32_t gid = group.gid;
  group_ids.insert_or_assign(accounts::LowerCaseName(group.name), gid);
  groups.insert_or_assign(gid, std::move(group));
}

void AccountIndex::RemoveUser(std::uint32_t uid) {
  const auto found = users.find(uid);
  if (found == users.end()) return;
  user_ids.erase(accounts::LowerCaseName(found->second.user.name));
  users.erase(found);
}

void AccountIndex::RemoveGroup(std::uint32_t gid) {
  const auto found = groups.find(gid);
  if (found == groups.end()) return;
  group_ids.erase(accounts::LowerCaseName(found->second.name));
  groups.erase(found);
}

Result<store::Revision> AccountRevision(const store::Snapshot& snapshot) {
  static const std::string key = AccountStateKey();
  const auto state = snapshot.Get(key);
  if (!state) return state.error();
  return state->has_value() ? (*state)->revision : store::Revision{0};
}

Result<AccountIndex> LoadAccounts(const store::Snapshot& snapshot) {
  const std::string state_key = AccountStateKey();
  const auto state = snapshot.Get(state_key);
  if (!state) return state.error();
  AccountIndex index;
  if (!state->has_value()) return index;
  index.revision = (*state)->revision;
  const Result<Json::Value> record = ParseJson((*state)->text);
  const auto next_id = record ? ReadId(json::Member(*record, "next_id")) : std::nullopt;
  if (!next_id || *next_id < accounts::kFirstAssignedId || *next_id > accounts::kLastAssignedId + 1)
    return Damaged(state_key);
  index.next_id = *next_id;
  // When two users have the same name, nothing shows which one is valid, so both count as damaged.
  Status read = ReadAll(snapshot, AccountKind::kGroup, index, [&](std::uint32_t gid, const Json::Value& value) {
    auto group = ReadGroup(gid, value);
    if (!group || index.FindGroup(group->name) != nullptr) return false;
    index.Put(std::move(*group));
    return true;
  });
  if (!read) return read.error();
  read = ReadAll(snapshot, AccountKind::kUser, index, [&](std::uint32_t uid, const Json::Value& value) {
    auto account = ReadAccount(uid, value, index);
    if (!account) return false;
    if (const Account* duplicate = index.FindUser(account->user.name)) {
      const std::uint32_t other = duplicate->user.uid;
      index.damaged_users.insert(other);
      index.RemoveUser(other);
      return false;
    }
    index.Put(std::move(*account));
    return true;
  });
  if (!read) return read.error();
  return index;
}

}  // namespace vexa::records
