#include "host/accounts/account_document.h"

#include <json/value.h>

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <optional>
#include <unordered_set>
#include <utility>

#include "host/accounts/account_password.h"
#include "host/base/json_parse.h"

namespace vexa::base {
namespace {

constexpr std::uint32_t kVersion = 1;
// (uid_t)-1 means "no id" to system calls.
constexpr std::uint32_t kLastId = std::numeric_limits<std::uint32_t>::max() - 1;

Error Damaged(std::string why) {
  return Error(ErrorCode::kCorrupt, "The account file cannot be understood", std::move(why));
}

// A name from the file, for a sentence. A malformed name may be of any length and hold anything.
std::string Quoted(const std::string& name) {
  return IsValidAccountName(name) ? "'" + name + "'" : std::string("with an invalid name");
}

Status CheckMembers(const Json::Value& object, const std::string& what, std::initializer_list<std::string_view> known) {
  if (!object.isObject()) return Damaged(what + " is not an object");
  for (const std::string& name : object.getMemberNames()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      return Damaged(what + " has an unknown member: " + Quoted(name));
    }
  }
  return {};
}

// Integers only: jsoncpp would also convert 1.0, true and null to one.
std::optional<std::uint32_t> ReadId(const Json::Value& value) {
  if (value.type() != Json::intValue && value.type() != Json::uintValue) return std::nullopt;
  if (!value.isUInt() || value.asUInt() > kLastId) return std::nullopt;
  return value.asUInt();
}

Result<std::string> ReadName(const Json::Value& object, const std::string& what) {
  const Json::Value& name = object["name"];
  if (!name.isString() || !IsValidAccountName(name.asString())) return Damaged(what + " has no valid name");
  return name.asString();
}

Result<Group> ReadGroup(const Json::Value& object) {
  if (Status status = CheckMembers(object, "a group", {"name", "gid"}); !status.ok()) return status.error();
  auto name = ReadName(object, "a group");
  if (!name.ok()) return name.error();
  const auto gid = ReadId(object["gid"]);
  if (!gid) return Damaged("the gid of the group " + Quoted(*name) + " is not an id");
  return Group{*name, *gid};
}

Result<AccountRecord> ReadUser(const Json::Value& object) {
  if (Status status = CheckMembers(object, "a user", {"name", "uid", "gid", "password", "groups"}); !status.ok()) {
    return status.error();
  }
  auto name = ReadName(object, "a user");
  if (!name.ok()) return name.error();
  const std::string what = "the user " + Quoted(*name);
  const auto uid = ReadId(object["uid"]);
  const auto gid = ReadId(object["gid"]);
  if (!uid) return Damaged("the uid of " + what + " is not an id");
  if (!gid) return Damaged("the gid of " + what + " is not an id");
  const Json::Value& password = object["password"];
  if (!password.isString() || !IsStoredHashValid(password.asString())) {
    return Damaged("the password of " + what + " is neither a yescrypt hash nor a mark that disables login");
  }
  const Json::Value& groups = object["groups"];
  if (!groups.isArray()) return Damaged("the groups of " + what + " are not a list");
  AccountRecord user{*name, *uid, *gid, password.asString(), {}};
  for (const Json::Value& group : groups) {
    if (!group.isString()) return Damaged("the groups of " + what + " are not a list of names");
    user.groups.push_back(group.asString());
  }
  return user;
}

Status ReadGroups(const Json::Value& list, AccountDocument& document) {
  if (!list.isArray()) return Damaged("'groups' is not a list");
  std::unordered_set<std::string> names;
  std::unordered_set<std::uint32_t> gids;
  for (const Json::Value& entry : list) {
    auto group = ReadGroup(entry);
    if (!group.ok()) return group.error();
    if (!names.insert(group->name).second) return Damaged("there are two groups " + Quoted(group->name));
    if (!gids.insert(group->gid).second) return Damaged("two groups have the gid " + std::to_string(group->gid));
    document.groups.push_back(std::move(group).value());
  }
  return {};
}

Status ReadUsers(const Json::Value& list, AccountDocument& document) {
  if (!list.isArray()) return Damaged("'users' is not a list");
  std::unordered_set<std::string> group_names;
  std::unordered_set<std::uint32_t> gids;
  for (const Group& group : document.groups) {
    group_names.insert(group.name);
    gids.insert(group.gid);
  }
  std::unordered_set<std::string> names;
  std::unordered_set<std::uint32_t> uids;
  for (const Json::Value& entry : list) {
    auto user = ReadUser(entry);
    if (!user.ok()) return user.error();
    if (!names.insert(user->name).second) return Damaged("there are two users " + Quoted(user->name));
    if (!uids.insert(user->uid).second) return Damaged("two users have the uid " + std::to_string(user->uid));
    if (gids.count(user->gid) == 0) return Damaged("the gid of the user " + Quoted(user->name) + " is of no group");
    std::unordered_set<std::string> own;
    for (const std::string& group : user->groups) {
      if (group_names.count(group) == 0) {
        return Damaged("the user " + Quoted(user->name) + " is in a group that does not exist: " + Quoted(group));
      }
      if (!own.insert(group).second) {
        return Damaged("the user " + Quoted(user->name) + " is twice in the group " + Quoted(group));
      }
    }
    document.users.push_back(std::move(user).value());
  }
  return {};
}

// Remembers that `id` was assigned, if it is in the range that hosts assign.
void NoteId(std::uint32_t id, AccountDocument& document) {
  if (id >= kFirstOwnId && id <= kLastOwnId) document.next_id = std::max(document.next_id, id + 1);
}

Status ReadNextId(const Json::Value& value, AccountDocument& document) {
  document.next_id = kFirstOwnId;
  for (const Group& group : document.groups) NoteId(group.gid, document);
  for (const AccountRecord& user : document.users) NoteId(user.uid, document);
  if (value.isNull()) return {};
  const auto next_id = ReadId(value);
  if (!next_id || *next_id < kFirstOwnId || *next_id > kLastOwnId + 1) return Damaged("'next_id' is not an id of ours");
  document.next_id = std::max(document.next_id, *next_id);
  return {};
}

}  // namespace

Result<AccountDocument> ParseAccounts(std::string_view text) {
  auto json = ParseJson(text);
  if (!json.ok()) return Damaged(json.error().ToString());
  const Json::Value& root = *json;
  if (Status status = CheckMembers(root, "the file", {"version", "next_id", "groups", "users"}); !status.ok()) {
    return status.error();
  }
  const auto version = ReadId(root["version"]);
  if (version != kVersion) return Damaged("its version is not 1");
  AccountDocument document;
  if (Status status = ReadGroups(root["groups"], document); !status.ok()) return status.error();
  if (Status status = ReadUsers(root["users"], document); !status.ok()) return status.error();
  if (root.isMember("next_id") && root["next_id"].isNull()) return Damaged("'next_id' is not an id of ours");
  if (Status status = ReadNextId(root["next_id"], document); !status.ok()) return status.error();
  return document;
}

}  // namespace vexa::base
