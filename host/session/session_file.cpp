#include "host/session/session_file.h"

#include <fmt/format.h>
#include <json/value.h>

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <set>
#include <utility>

#include "host/accounts/accounts.h"
#include "host/base/json_parse.h"

namespace vexa::session {
namespace {

constexpr int kVersion = 2;
constexpr int kVersionWithoutStamps = 1;

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

bool IsUser(const Json::Value& value) { return value.isString() && accounts::IsValidAccountName(value.asString()); }
bool IsPlain(const Json::Value& value) { return value.isString() && IsPlainText(value.asString()); }

Result<SessionRecord> ReadSession(const Json::Value& object) {
  if (!HasOnlyMembers(object, {"hash", "csrf_hash", "user", "uid", "stamp", "from", "created", "last_used"})) {
    return Damaged("a session is not an object or has an unknown member");
  }
  const auto hash = ReadHash(object["hash"]);
  const auto csrf_hash = ReadHash(object["csrf_hash"]);
  if (!hash || !csrf_hash) return Damaged("a session has an invalid hash");
  if (!IsUser(object["user"])) return Damaged("a session has an invalid user");
  const auto uid = ReadUid(object["uid"]);
  if (!uid) return Damaged("a session has an invalid uid");
  if (!IsPlain(object["stamp"])) return Damaged("a session has an invalid stamp");
  if (!IsPlain(object["from"])) return Damaged("a session has an invalid address");
  const auto created = ReadTime(object["created"]);
  const auto last_used = ReadTime(object["last_used"]);
  if (!created || !last_used) return Damaged("a session has an invalid time");
  return SessionRecord{
      *hash,    *csrf_hash, object["user"].asString(), *uid, object["stamp"].asString(), object["from"].asString(),
      *created, *last_used};
}

Status ReadSessions(const Json::Value& list, std::vector<SessionRecord>& sessions) {
  if (!list.isArray()) return Damaged("'sessions' is not a list");
  std::set<Hash> hashes;
  for (const Json::Value& entry : list) {
    auto session = ReadSession(entry);
    if (!session) return session.error();
    if (!hashes.insert(session->hash).second) return Damaged("a session occurs twice");
    sessions.push_back(std::move(*session));
  }
  return {};
}

Status ReadAddresses(const Json::Value& list, std::vector<KnownAddress>& addresses) {
  if (!list.isArray()) return Damaged("'addresses' is not a list");
  for (const Json::Value& entry : list) {
    if (!HasOnlyMembers(entry, {"user", "network"}) || !IsUser(entry["user"]) || !IsPlain(entry["network"])) {
      return Damaged("an address is not valid");
    }
    addresses.push_back({entry["user"].asString(), entry["network"].asString()});
  }
  return {};
}

// A name of an account as a JSON string. The backslash is the only character of valid names that JSON escapes.
std::string Quoted(const std::string& name) {
  std::string text = "\"";
  for (const char c : name) {
    if (c == '\\') text += '\\';
    text += c;
  }
  return text + "\"";
}

}  // namespace

bool IsPlainText(std::string_view text) {
  constexpr std::size_t kMaxBytes = 80;
  return text.size() <= kMaxBytes && std::ranges::all_of(text, [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  std::string_view(".:%_-/").find(c) != std::string_view::npos;
         });
}

Result<SessionFile> ParseSessions(std::string_view text) {
  auto json = ParseJson(text);
  if (!json.ok()) return Damaged(json.error().ToString());
  const Json::Value& root = *json;
  if (!HasOnlyMembers(root, {"version", "sessions", "addresses"})) {
    return Damaged("it is not an object or has an unknown member");
  }
  SessionFile file;
  if (root["version"] == kVersionWithoutStamps) return file;
  if (root["version"].type() != Json::intValue || root["version"] != kVersion) {
    return Damaged(fmt::format("its version is not {}", kVersion));
  }
  if (Status read = ReadSessions(root["sessions"], file.sessions); !read) return read.error();
  if (Status read = ReadAddresses(root["addresses"], file.addresses); !read) return read.error();
  return file;
}

// Written by hand for speed: a file of up to 100,000 sessions is written at every login, and building a tree of JSON
// values would take a second.
std::string SerializeSessions(const SessionFile& file) {
  std::string text = fmt::format(R"({{"version":{},"sessions":[)", kVersion);
  text.reserve(text.size() + file.sessions.size() * 320 + file.addresses.size() * 80);
  const auto out = std::back_inserter(text);
  std::string_view separator = "";
  for (const SessionRecord& session : file.sessions) {
    fmt::format_to(out, R"({}
{{"hash":"{}","csrf_hash":"{}","user":{},"uid":{},"stamp":"{}","from":"{}","created":{},"last_used":{}}})",
                   std::exchange(separator, ","), EncodeHash(session.hash), EncodeHash(session.csrf_hash),
                   Quoted(session.user), session.uid, session.stamp, session.from, session.created, session.last_used);
  }
  text += "\n],\"addresses\":[";
  separator = "";
  for (const KnownAddress& address : file.addresses) {
    fmt::format_to(out, "{}\n{{\"user\":{},\"network\":\"{}\"}}", std::exchange(separator, ","), Quoted(address.user),
                   address.network);
  }
  return text + "\n]}\n";
}

}  // namespace vexa::session
