#include "host/api/user/session_api.h"

#include <fmt/format.h>
#include <syslog.h>

#include "host/accounts/account_password.h"
#include "host/api/identity.h"
#include "host/api/rows.h"
#include "host/api/user/login_throttle.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

std::string SessionCookie(std::string_view token, const Caller& caller, std::chrono::seconds max_age) {
  return fmt::format("{}={}; Path=/; HttpOnly; SameSite=Strict; Max-Age={}{}", kSessionCookie, token, max_age.count(),
                     caller.tls ? "; Secure" : "");
}

// A wrong name and a wrong password get the same response. Failures are logged with the name, but never the password.
void Login(const SessionServices& services, const Call& call) {
  const auto user = call.request->GetAndCheckString(
      "user", kRequired, [](const std::string& name) { return accounts::IsValidAccountName(name); });
  const auto password = call.request->GetAndCheckString("password", kRequired, [](const std::string& text) {
    return !text.empty() && text.size() <= accounts::kMaxPasswordBytes;
  });
  const auto as_cookie = call.request->GetAndCheckBool("cookie", kOptional);
  if (user.IsInvalid()) return Fail(call, user_error::kBadParameter, "The parameter 'user' is not the name of a user.");
  if (password.IsInvalid()) {
    return Fail(call, user_error::kBadParameter,
                fmt::format("The parameter 'password' is missing, empty or longer than {} bytes.",
                            accounts::kMaxPasswordBytes));
  }
  if (as_cookie.IsInvalid()) return Fail(call, user_error::kBadParameter);
  const auto attempt = BeginAttempt(*services.limiter, *services.sessions, call, user.Get());
  if (!attempt) return;
  const Result<accounts::User> verified = services.accounts->VerifyPassword(user.Get(), password.Get());
  if (!verified) {
    const bool denied = verified.error().code() == ErrorCode::kDenied;
    ::syslog(denied ? LOG_WARNING : LOG_ERR, "Login of user[%s] from [%s] failed: %s", user.Get().c_str(),
             call.caller.peer.c_str(), verified.error().ToString().c_str());
    if (denied) return Fail(call, user_error::kWrongPassword);
    return Fail(call, user_error::kInternal,
                "The host could not check the password, because its accounts cannot be read.");
  }
  services.limiter->ReturnToken(*attempt);
  const Result<session::NewSession> session =
      services.sessions->Create({verified->name, verified->uid, verified->stamp}, call.caller.peer);
  if (!session) {
    ::syslog(LOG_ERR, "No session could be created for user[%s]: %s", verified->name.c_str(),
             session.error().ToString().c_str());
    if (session.error().code() == ErrorCode::kBusy) {
      return Fail(call, user_error::kHostBusy,
                  "As many users as the host takes are logged in. Some sessions must end.");
    }
    return Fail(call, user_error::kInternal);
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
    LogIfNotStored(services.sessions->End(call.caller.session_token));
    call.headers->emplace_back("Set-Cookie", SessionCookie("", call.caller, std::chrono::seconds(0)));
  }
  call.response->SetSuccess(Json::Value(Json::objectValue));
}

void Info(const Call& call) {
  const accounts::User& user = call.caller.user;
  Json::Value data(Json::objectValue);
  data["user"] = user.name;
  data["uid"] = user.uid;
  data["administrator"] = user.is_administrator;
  data["advanced"] = VexaCCC::gaIsAdvancedUser(user.name) == 1;
  call.response->SetSuccess(data);
}

}  // namespace

void LogIfNotStored(const session::EndResult& result) {
  if (result.stored) return;
  ::syslog(LOG_ERR, "The sessions cannot be written: %s", result.stored.error().ToString().c_str());
}

std::vector<ApiRow> SessionRows(const SessionServices& services) {
  constexpr std::string_view kApi = "VEXA.Core.Session";
  return {
      {.api = kApi,
       .method = "login",
       .version = 1,
       .access = Access::kAnyone,
       .lane = LaneKind::kLong,
       .handler = [services](const Call& call) { Login(services, call); },
       .summary = "Log in. The reply has a token for the Authorization header, or sets a cookie.",
       .parameters =
           {{"user", ParameterType::kString, Necessity::kRequired, "The user's name."},
            {"password", ParameterType::kString, Necessity::kRequired, "The password."},
            {"cookie", ParameterType::kBoolean, Necessity::kOptional,
             "true: the token is set as a cookie, and calls must send \"csrf_token\" in the header X-Vexa-CSRF."}},
       .errors = {user_error::kBadParameter, user_error::kWrongPassword, user_error::kTooManyLogins}},
      UserRow(kApi, "logout", LaneKind::kLong, [services](const Call& call) { Logout(services, call); },
              "End the caller's session.", {}, {}),
      UserRow(kApi, "info", LaneKind::kQuick, Info, "The caller's name, id and rights.", {}, {}),
  };
}

}  // namespace vexa::api
