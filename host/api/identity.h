// Identifies the caller of a request.
#pragma once

#include <variant>

#include "host/accounts/accounts.h"
#include "host/api/api_table.h"
#include "host/base/log_interval.h"
#include "host/http/http_server.h"
#include "host/records/member_list.h"
#include "host/session/sessions.h"

namespace vexa::api {

inline constexpr std::string_view kSessionCookie = "vexa_session";

// The caller, or the error code to return.
using IdentifyResult = std::variant<Caller, int>;

// Identifies the caller. On a listener for hosts, it is the host that the certificate names: one that has not expired,
// of a member of the cluster, and not revoked. Tokens are not accepted there. Elsewhere, certificates are not used, and
// the caller is identified in this order: a bearer token or a session cookie (which also needs the session's CSRF
// token), the user id of a Unix socket's peer. A token that is presented but invalid is an error: the other way is then
// not tried. So is the token of a user whose account has been deleted, even when a new account has the name, or whose
// password has changed since the login. On a Unix socket, root and the daemon's own user are administrators unless an
// account has their id, and also while the accounts cannot be read.
// Threads: any.
class Identity {
 public:
  // All must outlive it. Without `members`, no host is accepted.
  Identity(session::SessionTable& sessions, const accounts::AccountProvider& accounts,
           records::MemberList* members = nullptr)
      : sessions_(sessions), accounts_(accounts), members_(members) {}

  // Identifies the caller from the request alone; never waits. Users have a name and uid or, on a Unix socket, only a
  // uid. Whether a host may call is not known yet.
  IdentifyResult Identify(const http::HttpRequest& request) const;

  // Whether the session has not ended. Callers without a session token need none.
  bool IsLoggedIn(std::string_view session_token) const {
    return session_token.empty() || sessions_.IsLive(session_token);
  }

  // Looks a user up, which may wait for the system's user database; reads whether a host may call. 0, or the error code
  // to return.
  int LookUpCaller(Caller& caller) const;

 private:
  IdentifyResult IdentifyHost(const http::HttpRequest& request) const;
  int LookUpUser(Caller& caller) const;
  int CheckHost(const Caller& caller) const;
  void LogInvalid(const http::Peer& peer, std::chrono::system_clock::time_point now) const;

  session::SessionTable& sessions_;
  const accounts::AccountProvider& accounts_;
  records::MemberList* members_;
  mutable LogInterval refusals_{std::chrono::minutes(1)};  // by host
};

// A caller of whom only the address is known.
Caller AnonymousCaller(const http::Peer& peer);

// The value of the cookie `name` in a Cookie header (RFC 6265, section 4.2.1); empty when it is missing.
std::string_view FindCookie(std::string_view header, std::string_view name);

}  // namespace vexa::api
