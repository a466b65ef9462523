// Determines who sends a request.
#pragma once

#include <variant>

#include "host/accounts/accounts.h"
#include "host/api/api_table.h"
#include "host/http/http_server.h"
#include "host/session/sessions.h"

namespace vexa::daemon {

inline constexpr std::string_view kSessionCookie = "vexa_session";

// The caller, or the error code to return.
using Identified = std::variant<webapi::Caller, int>;

// Identifies the caller in this order: a bearer token or a session cookie (which also needs the session's CSRF token),
// the certificate of a cluster host, the user id of a Unix socket's peer. A token that is presented but invalid is an
// error, never a fall-back. So is the token of a user whose account has been deleted, even when a new account has the
// name. On a Unix socket, root and the daemon's own user are administrators unless an account has their id, and also
// while the accounts cannot be read. Threads: any.
class Identity {
 public:
  // Both must outlive it.
  Identity(SessionTable& sessions, const base::AccountProvider& accounts) : sessions_(sessions), accounts_(accounts) {}

  // What the request itself shows; never waits. A user is known by name and uid or, from a Unix socket, by uid only.
  Identified Begin(const HttpRequest& request) const;

  // Looks the user up, which may wait for the system's user database. 0, or the error code to return.
  int Complete(webapi::Caller& caller) const;

 private:
  SessionTable& sessions_;
  const base::AccountProvider& accounts_;
};

// A caller about whom only the origin of the request is known.
webapi::Caller Nobody(const Peer& peer);

// The value of the cookie `name` in a Cookie header (RFC 6265, section 4.2.1); empty when it is missing.
std::string_view FindCookie(std::string_view header, std::string_view name);

}  // namespace vexa::daemon
