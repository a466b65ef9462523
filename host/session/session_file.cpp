#include "host/session/session_file.h"

#include <json/value.h>

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <set>
#include <utility>

#include "host/accounts/accounts.h"
#include "host/base/json_parse.h"

namespace vexa::daemon {
namespace {

Error Damaged(std::string why) {
  return Error(ErrorCode::kCorrupt, "The session file cannot be understood", std::move(why));
}

bool HasOnly(const Json::Value& object, std::initializer_list<std::string_view> known) {
  if (!object.isObject()) return false;
  for (const std::string& name : object.getMemberNames()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) return false;
  }
  return true;
}

// Integers only: jsoncpp would also convert 1.0, true and null to one.
std::optional<std::int64_t> ReadTime(const Json::Value& value) {
  if (value.type() != Json::intValue && value.type() != Json::uintValue) return std::nullopt;
  // Far enough for any clock, and far from an overflow when times are subtracted.
  constexpr std::int64_t kLatest = std::int64_t{1} << 60;
  if (!value.isInt64() || value.asInt64() < 0 || value.asInt64() > kLatest) return std::nullopt;
  return value.asInt64();
}

std::optional<Hash> ReadHash(const Json::Value& value) {
  return value.isString() ? DecodeHash(value.asString()) : std::nullopt;
}

// The largest number means "no id" to system calls.
std::optional<std::uint32_t> ReadUid(const Json::Value& value) {
  if (value.type() != Json::intValue && value.type() != Json::uintValue) return std::nullopt;
  if (!value.isUInt() || value.asUInt() == UINT32_MAX) return std::nullopt;
  return value.asUInt();
}

// Empty: a session of an older version.
Result<std::optional<SessionRecord>> ReadSession(const Json::Value& object) {
  if (!HasOnly(object, {"hash", "csrf_hash", "user", "uid", "created", "last_used"})) {
    return Damaged("a session is not an object of the known members");
  }
  const auto hash = ReadHash(object["hash"]);
  const auto csrf_hash = ReadHash(object["csrf_hash"]);
  if (!hash || !csrf_hash) return Damaged("a session has no valid hashes");
  const Json::Value& user = object["user"];
  if (!user.isString() || !base::IsValidAccountName(user.asString())) return Damaged("a session has no valid user");
  const auto created = ReadTime(object["created"]);
  const auto last_used = ReadTime(object["last_used"]);
  if (!created || !last_used) return Damaged("a session has no valid times");
  if (!object.isMember("uid")) return std::optional<SessionRecord>();
  const auto uid = ReadUid(object["uid"]);
  if (!uid) return Damaged("a session has no valid uid");
  return std::optional(SessionRecord{*hash, *csrf_hash, user.asString(), *uid, *created, *last_used});
}

}  // namespace

Result<std::vector<SessionRecord>> ParseSessions(std::string_view text) {
  auto json = ParseJson(text);
  if (!json.ok()) return Damaged(json.error().ToString());
  const Json::Value& root = *json;
  if (!HasOnly(root, {"version", "sessions"})) return Damaged("it is not an object of the known members");
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

// By hand: a file of 100,000 sessions is written at every login, and building a tree of JSON values would take a
// second.
std::string RenderSessions(const std::vector<SessionRecord>& sessions) {
  std::string text = R"({"version":1,"sessions":[)";
  text.reserve(text.size() + sessions.size() * 256 + 16);
  bool is_first = true;
  for (const SessionRecord& session : sessions) {
    if (!std::exchange(is_first, false)) text += ',';
    text += "\n{\"hash\":\"" + EncodeHash(session.hash) + "\",\"csrf_hash\":\"" + EncodeHash(session.csrf_hash);
    text += "\",\"user\":\"";
    // A valid name contains at most one kind of character that JSON escapes.
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

}  // namespace vexa::daemon
