#include "host/api/identity.h"

#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/base/time_text.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

constexpr std::string_view kBearer = "Bearer ";
constexpr std::size_t kMaxLoggedIdBytes = 64;

// Empty when the header does not contain a bearer token (RFC 6750).
std::string_view BearerToken(std::string_view authorization) {
  if (authorization.size() <= kBearer.size() ||
      ::strncasecmp(authorization.data(), kBearer.data(), kBearer.size()) != 0) {
    return {};
  }
  return authorization.substr(kBearer.size());
}

}  // namespace

std::string_view FindCookie(std::string_view header, std::string_view name) {
  while (!header.empty()) {
    std::string_view pair = header.substr(0, header.find(';'));
    header.remove_prefix(std::min(header.size(), pair.size() + 1));
    while (!pair.empty() && pair.front() == ' ') pair.remove_prefix(1);
    while (!pair.empty() && pair.back() == ' ') pair.remove_suffix(1);
    if (pair.size() > name.size() && pair.starts_with(name) && pair[name.size()] == '=') {
      return pair.substr(name.size() + 1);
    }
  }
  return {};
}

Caller AnonymousCaller(const http::Peer& peer) {
  Caller caller;
  caller.peer = peer.kind == http::Peer::Kind::kUnix ? "unix:" + std::to_string(peer.uid) : peer.address;
  caller.tls = peer.tls;
  return caller;
}

IdentifyResult Identity::IdentifyHost(const http::HttpRequest& request) const {
  if (!request.authorization.empty() || !FindCookie(request.cookie, kSessionCookie).empty()) {
    return user_error::kNotLoggedIn;
  }
  const auto now = std::chrono::system_clock::now();
  const CertificateTimes& times = request.peer.certificate_times;
  if (request.peer.certificate_name.empty() || times.HasExpired(now) || times.IsFromFuture(now)) {
    LogInvalid(request.peer, now);
    return user_error::kDenied;
  }
  Caller caller = AnonymousCaller(request.peer);
  caller.kind = Caller::Kind::kHost;
  caller.host_id = request.peer.certificate_name;
  caller.certificate_issued = times.not_before;
  caller.is_known_host = members_ != nullptr && members_->Knows(caller.host_id, caller.certificate_issued);
  return caller;
}

// The certificate was valid when the connection was made.
void Identity::LogInvalid(const http::Peer& peer, std::chrono::system_clock::time_point now) const {
  const std::string name = SanitizeForLog(peer.certificate_name, kMaxLoggedIdBytes);
  if (!refusals_.IsDue("invalid " + name)) return;
  const CertificateTimes& times = peer.certificate_times;
  if (name.empty()) {
    ::syslog(LOG_WARNING, "A call was refused: the certificate of %s does not name a host.", peer.address.c_str());
  } else if (times.HasExpired(now)) {
    ::syslog(LOG_WARNING, "A call was refused: the certificate of '%s' at %s expired on %s.", name.c_str(),
             peer.address.c_str(), FormatUtcTime(times.not_after).c_str());
  } else {
    ::syslog(LOG_WARNING,
             "A call was refused: the certificate of '%s' at %s is valid only from %s. Check the clocks of this host "
             "and of the machine that made it.",
             name.c_str(), peer.address.c_str(), FormatUtcTime(times.not_before).c_str());
  }
}

IdentifyResult Identity::Identify(const http::HttpRequest& request) const {
  if (request.peer.is_certified) return IdentifyHost(request);
  Caller caller = AnonymousCaller(request.peer);
  const bool uses_cookie = request.authorization.empty();
  const std::string_view token =
      uses_cookie ? FindCookie(request.cookie, kSessionCookie) : BearerToken(request.authorization);
  if (!uses_cookie || !token.empty()) {
    std::optional<session::SessionUser> user = sessions_.Find(token);
    if (!user) return user_error::kNotLoggedIn;
    // A page of another site can make a browser send the cookie, but cannot read the CSRF token.
    if (uses_cookie && !sessions_.CheckCsrf(token, request.csrf_token)) return user_error::kBadCsrfToken;
    caller.kind = Caller::Kind::kUser;
    caller.user.name = std::move(user->name);
    caller.user.uid = user->uid;
    caller.user.stamp = std::move(user->stamp);
    caller.session_token = token;
  } else if (request.peer.kind == http::Peer::Kind::kUnix) {
    caller.kind = Caller::Kind::kUser;
    caller.user.uid = request.peer.uid;
  }
  return caller;
}

int Identity::LookUpCaller(Caller& caller) const {
  switch (caller.kind) {
    case Caller::Kind::kAnonymous:
      return 0;
    case Caller::Kind::kUser:
      return LookUpUser(caller);
    case Caller::Kind::kHost:
      return CheckHost(caller);
  }
  return user_error::kDenied;
}

int Identity::CheckHost(const Caller& caller) const {
  if (members_ != nullptr && members_->Accepts(caller.host_id, caller.certificate_issued)) return 0;
  const std::string name = SanitizeForLog(caller.host_id, kMaxLoggedIdBytes);
  if (refusals_.IsDue(name)) {
    ::syslog(LOG_WARNING,
             "A call was refused: '%s' at %s is not a host of this cluster, or its certificate has been revoked.",
             name.c_str(), caller.peer.c_str());
  }
  return user_error::kDenied;
}

int Identity::LookUpUser(Caller& caller) const {
  const bool by_uid = caller.user.name.empty();
  const uid_t uid = caller.user.uid;
  Result<accounts::User> user = by_uid ? accounts_.FindUserByUid(uid) : accounts_.FindUser(caller.user.name);
  if (user) {
    // By name, because a name service may have several names for one id. But the session's account no longer exists
    // when its name now belongs to another id, and the session ends with the password that it was begun with.
    if (user->uid != uid) return user_error::kNotLoggedIn;
    // The session may have changed the password itself since it was identified.
    const bool is_same = user->stamp == caller.user.stamp || sessions_.HasStamp(caller.session_token, user->stamp);
    if (!by_uid && !is_same) return user_error::kNotLoggedIn;
    caller.user = std::move(*user);
    return 0;
  }
  const bool is_unknown = user.error().code() == ErrorCode::kNotFound;
  if (!is_unknown) ::syslog(LOG_ERR, "The accounts cannot be read: %s", user.error().ToString().c_str());
  // Also while the accounts cannot be read: an administrator must be able to see what is wrong.
  if (by_uid && (uid == 0 || uid == ::geteuid())) {
    caller.user.name = "root";
    caller.user.is_administrator = true;
    return 0;
  }
  return is_unknown ? user_error::kNotLoggedIn : user_error::kInternal;
}

}  // namespace vexa::api
