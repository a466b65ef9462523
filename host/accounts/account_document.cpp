#include "host/accounts/account_document.h"

#include <fmt/format.h>
#include <json/value.h>

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <optional>
#include <unordered_set>
#include <utility>

#include "host/accounts/account_password.h"
#include "host/base/json_parse.h"

namespace vexa::accounts {
namespace {

constexpr std::uint32_t kVersion = 1;
// (uid_t)-1 means "no id" to system calls.
constexpr std::uint32_t kLastId = std::numeric_limits<std::uint32_t>::max() - 1;

Error Damaged(std::string reason) {
  return Error(ErrorCode::kCorrupt, "The account file is damaged", std::move(reason));
}

// A name from the file, for messages. Invalid names are not quoted, because they may be long and contain anything.
std::string QuotedName(const std::string& name) {
  return IsValidAccountName(name) ? fmt::format("'{}'", name) : "with an invalid name";
}

Status CheckMembers(const Json::Value& object, const std::string& subject,
                    std::initializer_list<std::string_view> known) {
  if (!object.isObject()) return Damaged(fmt::format("{} is not an object", subject));
  for (const std::string& name : object.getMemberNames()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      return Damaged(fmt::format("{} has an unknown member: {}", subject, QuotedName(name)));
    }
  }
  return {};
}

// Accepts integers only: jsoncpp would also convert 1.0, true and null to an integer.
std::optional<std::uint32_t> ReadId(const Json::Value& value) {
  if (value.type() != Json::intValue && value.type() != Json::uintValue) return std::nullopt;
  if (!value.isUInt() || value.asUInt() > kLastId) return std::nullopt;
  return value.asUInt();
}

Result<std::string> ReadName(const Json::Value& object, const std::string& subject) {
  const Json::Value& name = object["name"];
  if (!name.isString() || !IsValidAccountName(name.asString()))
    return Damaged(fmt::format("{} has an invalid name", subject));
  return name.asString();
}

Result<Group> ReadGroup(const Json::Value& object) {
  if (Status status = CheckMembers(object, "a group", {"name", "gid"}); !status.ok()) return status.error();
  auto name = ReadName(object, "a group");
  if (!name.ok()) return name.error();
  const auto gid = ReadId(object["gid"]);
  if (!gid) return Damaged(fmt::format("the gid of the group {} is not an id", QuotedName(*name)));
  return Group{*name, *gid};
}

Result<AccountRecord> ReadUser(const Json::Value& object) {
  if (Status status = CheckMembers(object, "a user", {"name", "uid", "gid", "password", "groups"}); !status.ok()) {
    return status.error();
  }
  auto name = ReadName(object, "a user");
  if (!name.ok()) return name.error();
  const std::string subject = fmt::format("the user {}", QuotedName(*name));
  const auto uid = ReadId(object["uid"]);
  const auto gid = ReadId(object["gid"]);
  if (!uid) return Damaged(fmt::format("the uid of {} is not an id", subject));
  if (!gid) return Damaged(fmt::format("the gid of {} is not an id", subject));
  const Json::Value& password = object["password"];
  if (!password.isString() || !IsStoredHashValid(password.asString())) {
    return Damaged(
        fmt::format("the password of {} is neither a yescrypt hash nor a value that disables login", subject));
  }
  const Json::Value& groups = object["groups"];
  if (!groups.isArray()) return Damaged(fmt::format("the groups of {} are not a list", subject));
  AccountRecord user{*name, *uid, *gid, password.asString(), {}};
  for (const Json::Value& group : groups) {
    if (!group.isString()) return Damaged(fmt::format("the groups of {} are not a list of names", subject));
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
    if (!names.insert(group->name).second)
      return Damaged(fmt::format("there are two groups {}", QuotedName(group->name)));
    if (!gids.insert(group->gid).second) return Damaged(fmt::format("two groups have the gid {}", group->gid));
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
    if (!names.insert(user->name).second) return Damaged(fmt::format("there are two users {}", QuotedName(user->name)));
    if (!uids.insert(user->uid).second) return Damaged(fmt::format("two users have the uid {}", user->uid));
    if (gids.count(user->gid) == 0)
      return Damaged(fmt::format("the gid of the user {} belongs to no group", QuotedName(user->name)));
    std::unordered_set<std::string> own;
    for (const std::string& group : user->groups) {
      if (group_names.count(group) == 0) {
        return Damaged(fmt::format("the user {} is in a group that does not exist: {}", QuotedName(user->name),
                                   QuotedName(group)));
      }
      if (!own.insert(group).second) {
        return Damaged(fmt::format("the user {} is twice in the group {}", QuotedName(user->name), QuotedName(group)));
      }
    }
    document.users.push_back(std::move(user).value());
  }
  return {};
}

// Ensures that `id` is not assigned again, if it is in the range that hosts assign.
void RaiseNextId(std::uint32_t id, AccountDocument& document) {
  if (id >= kFirstAssignedId && id <= kLastAssignedId) document.next_id = std::max(document.next_id, id + 1);
}

Status ReadNextId(const Json::Value& value, AccountDocument& document) {
  document.next_id = kFirstAssignedId;
  for (const Group& group : document.groups) RaiseNextId(group.gid, document);
  for (const AccountRecord& user : document.users) RaiseNextId(user.uid, document);
  if (value.isNull()) return {};
  const auto next_id = ReadId(value);
  if (!next_id || *next_id < kFirstAssignedId || *next_id > kLastAssignedId + 1)
    return Damaged("'next_id' is outside the range of assigned ids");
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
  if (root.isMember("next_id") && root["next_id"].isNull())
    return Damaged("'next_id' is outside the range of assigned ids");
  if (Status status = ReadNextId(root["next_id"], document); !status.ok()) return status.error();
  return document;
}

}  // namespace vexa::accounts
