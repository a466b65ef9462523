#include "host/api/user/session_api.h"

#include <syslog.h>

#include "host/api/identity.h"
#include "host/base/error_table.h"
#include "webapi/platform/ccc.h"

namespace vexa::daemon {
namespace {

using webapi::Access;
using webapi::Call;
using webapi::LaneKind;
using webapi::Necessity;
using webapi::ParameterType;

constexpr int kRequired = 0;
constexpr int kOptional = 1;
constexpr std::size_t kMaxPassword = 512;

void Fail(const Call& call, int code) { call.response->SetError(code, Json::Value()); }

std::string SessionCookie(std::string_view token, const webapi::Caller& caller, std::chrono::seconds max_age) {
  std::string cookie = std::string(kSessionCookie) + "=" + std::string(token) + "; Path=/; HttpOnly; SameSite=Strict";
  cookie += "; Max-Age=" + std::to_string(max_age.count());
  if (caller.tls) cookie += "; Secure";
  return cookie;
}

// A wrong name and a wrong password get the same answer, and are logged with the name but never the password.
void Login(const SessionServices& services, const Call& call) {
  const auto user = call.request->GetAndCheckString(
      "user", kRequired, [](const std::string& name) { return base::IsValidAccountName(name); });
  const auto password = call.request->GetAndCheckString(
      "password", kRequired, [](const std::string& text) { return !text.empty() && text.size() <= kMaxPassword; });
  const auto as_cookie = call.request->GetAndCheckBool("cookie", kOptional);
  if (user.IsInvalid() || password.IsInvalid() || as_cookie.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  // The accounts treat different spellings of a name as one, and so must the limiter.
  const std::string limited_name = base::FoldedName(user.Get());
  const std::chrono::milliseconds wait = services.limiter->Begin(call.caller.peer, limited_name);
  if (wait.count() > 0) {
    call.headers->emplace_back("Retry-After", std::to_string((wait.count() + 999) / 1000));
    return Fail(call, webapi::kErrorTooManyLogins);
  }
  const Result<base::User> verified = services.accounts->VerifyPassword(user.Get(), password.Get());
  if (!verified) {
    const bool denied = verified.error().code() == ErrorCode::kDenied;
    ::syslog(denied ? LOG_WARNING : LOG_ERR, "Login of user[%s] from [%s] failed: %s", user.Get().c_str(),
             call.caller.peer.c_str(), verified.error().ToString().c_str());
    return Fail(call, denied ? webapi::kErrorWrongPassword : webapi::kErrorInternal);
  }
  services.limiter->Succeeded(call.caller.peer, limited_name);
  const Result<NewSession> session = services.sessions->Create({verified->name, verified->uid});
  if (!session) {
    ::syslog(LOG_ERR, "No session for user[%s]: %s", verified->name.c_str(), session.error().ToString().c_str());
    return Fail(call, session.error().code() == ErrorCode::kBusy ? webapi::kErrorBusy : webapi::kErrorInternal);
  }
  ::syslog(LOG_INFO, "User[%s] logged in from [%s].", verified->name.c_str(), call.caller.peer.c_str());
  Json::Value data(Json::objectValue);
  data["user"] = verified->name;
  data["expires_in"] = static_cast<Json::Int64>(services.lifetime.count());
  data["csrf_token"] = session->csrf_token;
  if (as_cookie.Get()) {
    call.headers->emplace_back("Set-Cookie", SessionCookie(session->token, call.caller, services.lifetime));
  } else {
    data["token"] = session->token;
  }
  call.response->SetSuccess(data);
}

void Logout(const SessionServices& services, const Call& call) {
  if (!call.caller.session_token.empty()) {
    services.sessions->End(call.caller.session_token);
    call.headers->emplace_back("Set-Cookie", SessionCookie("", call.caller, std::chrono::seconds(0)));
  }
  call.response->SetSuccess(Json::Value(Json::objectValue));
}

void Info(const Call& call) {
  const base::User& user = call.caller.user;
  Json::Value data(Json::objectValue);
  data["user"] = user.name;
  data["uid"] = user.uid;
  data["administrator"] = user.is_administrator;
  data["advanced"] = VexaCCC::gaIsAdvancedUser(user.name) == 1;
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<webapi::ApiRow> SessionRows(const SessionServices& services) {
  constexpr std::string_view kApi = "VEXA.Core.Session";
  return {
      {.api = kApi,
       .method = "login",
       .version = 1,
       .access = Access::kAnyone,
       .lane = LaneKind::kLong,
       .handler = [services](const Call& call) { Login(services, call); },
       .summary = "Log in. The result holds a token for the Authorization header, or sets a cookie.",
       .parameters = {{"user", ParameterType::kString, Necessity::kRequired, "The user's name."},
                      {"password", ParameterType::kString, Necessity::kRequired, "The password."},
                      {"cookie", ParameterType::kBoolean, Necessity::kOptional,
                       "true: the token comes as a cookie, and calls must show \"csrf_token\" as X-Vexa-CSRF."}},
       .errors = {webapi::kErrorBadParameter, webapi::kErrorWrongPassword, webapi::kErrorTooManyLogins}},
      {.api = kApi,
       .method = "logout",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kLong,
       .handler = [services](const Call& call) { Logout(services, call); },
       .summary = "End the caller's session.",
       .parameters = {},
       .errors = {}},
      {.api = kApi,
       .method = "info",
       .version = 1,
       .access = Access::kUser,
       .lane = LaneKind::kQuick,
       .handler = Info,
       .summary = "Who the caller is.",
       .parameters = {},
       .errors = {}},
  };
}

}  // namespace vexa::daemon
