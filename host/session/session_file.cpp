#include "host/session/session_file.h"

#include <json/value.h>

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <set>
#include <utility>

#include "host/accounts/accounts.h"
#include "host/base/json_parse.h"

namespace vexa::session {
namespace {

Error Damaged(std::string reason) {
  return Error(ErrorCode::kCorrupt, "The session file is damaged", std::move(reason));
}

bool HasOnlyMembers(const Json::Value& object, std::initializer_list<std::string_view> known) {
  if (!object.isObject()) return false;
  for (const std::string& name : object.getMemberNames()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) return false;
  }
  return true;
}

// Accepts integers only: jsoncpp would also convert 1.0, true and null to an integer.
std::optional<std::int64_t> ReadTime(const Json::Value& value) {
  if (value.type() != Json::intValue && value.type() != Json::uintValue) return std::nullopt;
  // Later than any clock shows, and small enough that the difference of two times does not overflow.
  constexpr std::int64_t kLatest = std::int64_t{1} << 60;
  if (!value.isInt64() || value.asInt64() < 0 || value.asInt64() > kLatest) return std::nullopt;
  return value.asInt64();
}

std::optional<Hash> ReadHash(const Json::Value& value) {
  return value.isString() ? DecodeHash(value.asString()) : std::nullopt;
}

// UINT32_MAX is refused because it means "no id" to system calls.
std::optional<std::uint32_t> ReadUid(const Json::Value& value) {
  if (value.type() != Json::intValue && value.type() != Json::uintValue) return std::nullopt;
  if (!value.isUInt() || value.asUInt() == UINT32_MAX) return std::nullopt;
  return value.asUInt();
}

// Not set for a session that an older version wrote.
Result<std::optional<SessionRecord>> ReadSession(const Json::Value& object) {
  if (!HasOnlyMembers(object, {"hash", "csrf_hash", "user", "uid", "created", "last_used"})) {
    return Damaged("a session is not an object or has an unknown member");
  }
  const auto hash = ReadHash(object["hash"]);
  const auto csrf_hash = ReadHash(object["csrf_hash"]);
  if (!hash || !csrf_hash) return Damaged("a session has an invalid hash");
  const Json::Value& user = object["user"];
  if (!user.isString() || !accounts::IsValidAccountName(user.asString()))
    return Damaged("a session has an invalid user");
  const auto created = ReadTime(object["created"]);
  const auto last_used = ReadTime(object["last_used"]);
  if (!created || !last_used) return Damaged("a session has an invalid time");
  if (!object.isMember("uid")) return std::optional<SessionRecord>();
  const auto uid = ReadUid(object["uid"]);
  if (!uid) return Damaged("a session has an invalid uid");
  return std::optional(SessionRecord{*hash, *csrf_hash, user.asString(), *uid, *created, *last_used});
}

}  // namespace

Result<std::vector<SessionRecord>> ParseSessions(std::string_view text) {
  auto json = ParseJson(text);
  if (!json.ok()) return Damaged(json.error().ToString());
  const Json::Value& root = *json;
  if (!HasOnlyMembers(root, {"version", "sessions"})) return Damaged("it is not an object or has an unknown member");
  if (root["version"].type() != Json::intValue || root["version"] != 1) return Damaged("its version is not 1");
  if (!root["sessions"].isArray()) return Damaged("'sessions' is not a list");
  std::vector<SessionRecord> sessions;
  std::set<Hash> hashes;
  for (const Json::Value& entry : root["sessions"]) {
    auto session = ReadSession(entry);
    if (!session.ok()) return session.error();
    if (!*session) continue;
    if (!hashes.insert((*session)->hash).second) return Damaged("a session occurs twice");
    sessions.push_back(std::move(**session));
  }
  return sessions;
}

// Written by hand for speed: a file of up to 100,000 sessions is written at every login, and building a tree of JSON
// values would take a second.
std::string SerializeSessions(const std::vector<SessionRecord>& sessions) {
  std::string text = R"({"version":1,"sessions":[)";
  text.reserve(text.size() + sessions.size() * 256 + 16);
  bool is_first = true;
  for (const SessionRecord& session : sessions) {
    if (!std::exchange(is_first, false)) text += ',';
    text += "\n{\"hash\":\"" + EncodeHash(session.hash) + "\",\"csrf_hash\":\"" + EncodeHash(session.csrf_hash);
    text += "\",\"user\":\"";
    // The backslash is the only character of valid names that JSON escapes.
    for (const char c : session.user) {
      if (c == '\\') text += '\\';
      text += c;
    }
    text += "\",\"uid\":" + std::to_string(session.uid);
    text += ",\"created\":" + std::to_string(session.created);
    text += ",\"last_used\":" + std::to_string(session.last_used) + "}";
  }
  return text + "\n]}\n";
}

}  // namespace vexa::session
