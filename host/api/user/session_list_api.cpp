#include "host/api/user/session_list_api.h"

#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/session/session_token.h"

namespace vexa::api {
namespace {

bool IsUserName(const std::string& name) { return accounts::IsValidAccountName(name); }
bool IsId(const std::string& id) { return session::IsSessionId(id); }

bool IsOwnName(const Call& call, const std::string& name) {
  return accounts::LowerCaseName(name) == accounts::LowerCaseName(call.caller.user.name);
}

// The name that the sessions of the user in the parameter "user" have: that of the account or, when it has been
// deleted, the name as it is given. Not set when the caller may not ask for it; the call has then been answered.
std::optional<std::string> ReadUser(const SessionServices& services, const Call& call, const std::string& name) {
  if (IsOwnName(call, name)) return call.caller.user.name;
  if (!call.request->IsAdmin()) {
    Fail(call, user_error::kDenied, "The sessions of other users are for administrators.");
    return std::nullopt;
  }
  const auto account = services.accounts->FindUser(name);
  return account ? account->name : name;
}

// Finds out whether sessions can still be used. Each account is looked up once.
class CurrentSessions {
 public:
  explicit CurrentSessions(const accounts::AccountProvider& accounts) : accounts_(accounts) {}

  // Also true while the accounts cannot be read.
  bool Has(const session::SessionUser& user) {
    const auto [found, is_new] = accounts_by_name_.try_emplace(user.name);
    if (is_new) found->second = Find(user.name);
    const auto& account = found->second;
    return !account || (account->uid == user.uid && account->stamp == user.stamp);
  }

 private:
  // An unknown user has no session; not set when the accounts cannot be read.
  std::optional<session::SessionUser> Find(const std::string& name) {
    const auto account = accounts_.FindUser(name);
    if (account) return session::SessionUser{account->name, account->uid, account->stamp};
    if (account.error().code() != ErrorCode::kNotFound) return std::nullopt;
    return session::SessionUser{name, UINT32_MAX};
  }

  const accounts::AccountProvider& accounts_;
  std::map<std::string, std::optional<session::SessionUser>> accounts_by_name_;
};

void List(const SessionServices& services, const Call& call) {
  const auto user = call.request->GetAndCheckString("user", kOptional, IsUserName);
  const auto all = ReadFlag(call, "all");
  if (!all) return;
  if (user.IsInvalid()) return Fail(call, user_error::kBadParameter, "The parameter 'user' is not the name of a user.");
  if (user.IsSet() && *all) {
    return Fail(call, user_error::kBadParameter, "The parameters 'user' and 'all' exclude each other.");
  }
  if (*all && !call.request->IsAdmin()) {
    return Fail(call, user_error::kDenied, "The sessions of other users are for administrators.");
  }
  std::optional<std::string> name;
  if (!*all) {
    name = ReadUser(services, call, user.IsSet() ? user.Get() : call.caller.user.name);
    if (!name) return;
  }
  const std::string own_id = session::SessionIdOfToken(call.caller.session_token);
  CurrentSessions current(*services.accounts);
  Json::Value data(Json::objectValue);
  Json::Value& list = data["sessions"] = Json::Value(Json::arrayValue);
  for (const session::SessionInfo& session : services.sessions->List(name)) {
    if (session.id != own_id && !current.Has(session.user)) continue;
    Json::Value& entry = list.append(Json::Value(Json::objectValue));
    entry["id"] = session.id;
    entry["user"] = session.user.name;
    entry["uid"] = session.user.uid;
    entry["from"] = session.from;
    entry["created"] = static_cast<Json::Int64>(session.created);
    entry["last_used"] = static_cast<Json::Int64>(session.last_used);
    entry["current"] = session.id == own_id;
  }
  call.response->SetSuccess(data);
}

void AnswerEnd(const Call& call, const session::EndResult& result, const std::string& done) {
  ::syslog(LOG_NOTICE, "%s By user[%s] from [%s].", done.c_str(), call.caller.user.name.c_str(),
           call.caller.peer.c_str());
  LogIfNotStored(result);
  if (!result.stored) {
    return Fail(call, user_error::kInternal,
                "The sessions have ended, but the file of the sessions cannot be written. They end there with the next "
                "write that succeeds; if the host is restarted before, they are back.");
  }
  Json::Value data(Json::objectValue);
  data["ended"] = static_cast<Json::UInt64>(result.ended);
  call.response->SetSuccess(data);
}

void End(const SessionServices& services, const Call& call) {
  const auto id = call.request->GetAndCheckString("id", kOptional, IsId);
  const auto user = call.request->GetAndCheckString("user", kOptional, IsUserName);
  if (id.IsInvalid()) return Fail(call, user_error::kBadParameter, "The parameter 'id' is not the id of a session.");
  if (user.IsInvalid()) return Fail(call, user_error::kBadParameter, "The parameter 'user' is not the name of a user.");
  if (id.IsSet() == user.IsSet()) {
    return Fail(call, user_error::kBadParameter, "Either 'id' or 'user' is needed, and only one of them.");
  }
  if (user.IsSet()) {
    const auto name = ReadUser(services, call, user.Get());
    if (!name) return;
    const session::EndResult result = services.sessions->EndAllOfUser(*name);
    return AnswerEnd(call, result, fmt::format("Sessions of the user [{}] have been ended: {}.", *name, result.ended));
  }
  std::optional<session::SessionUser> owner;
  if (!call.request->IsAdmin()) owner = {call.caller.user.name, call.caller.user.uid};
  const session::EndResult result = services.sessions->EndById(id.Get(), owner);
  // The same answer for the sessions of others, so that it does not reveal whether there is one.
  if (result.ended == 0) return Fail(call, user_error::kNoSession);
  AnswerEnd(call, result, fmt::format("The session [{}] has been ended.", id.Get()));
}

}  // namespace

// Both may wait: for the system's user database, and for the file.
std::vector<ApiRow> SessionListRows(const SessionServices& services) {
  constexpr std::string_view kApi = "VEXA.Core.Session";
  return {
      UserRow(kApi, "list", LaneKind::kLong, [services](const Call& call) { List(services, call); },
              "The sessions on this host: the caller's own or, for administrators, those of any user or of all.",
              {OptionalString("user", "The user whose sessions to list; default: the caller."),
               OptionalFlag("all", "true: the sessions of all users, for administrators.")},
              {user_error::kBadParameter, user_error::kDenied}),
      UserRow(kApi, "end", LaneKind::kLong, [services](const Call& call) { End(services, call); },
              "End one session or all sessions of a user on this host: the caller's own or, for administrators, those "
              "of others.",
              {OptionalString("id", "The id of the session from \"list\", unless the user is given."),
               OptionalString("user", "The user all of whose sessions end, unless the id is given.")},
              {user_error::kBadParameter, user_error::kDenied, user_error::kNoSession}),
  };
}

}  // namespace vexa::api
