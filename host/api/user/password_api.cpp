#include "host/api/user/password_api.h"
#include "host/accounts/account_password.h"

#include <fmt/format.h>
#include <syslog.h>

#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "host/api/rows.h"
#include "host/api/user/login_throttle.h"
#include "host/api/user/session_api.h"

namespace vexa::api {
namespace {

// The hash of the user's password, if the old password is right. Attempts are limited like logins. Not set when it is
// wrong or cannot be checked; the call has then been answered.
constexpr char kOthersPassword[] = "The passwords of other users are set by administrators.";

std::optional<std::string> VerifyOldPassword(const AccountServices& services, const Call& call,
                                             const accounts::User& user, const std::string& old_password) {
  if (!BeginAttempt(*services.limiter, *services.sessions, call, user.name)) return std::nullopt;
  const Result<records::Account> verified = services.accounts->VerifyAccount(user.name, old_password);
  // Intentional: unlike a login, a success does not return the attempt to the limiter, because each change writes to
  // the store and the cluster log.
  if (verified && verified->user.uid == user.uid) return verified->password;
  if (!verified && verified.error().code() != ErrorCode::kDenied) {
    Refuse(call, verified.error());
    return std::nullopt;
  }
  ::syslog(LOG_WARNING, "Wrong old password for user[%s] from [%s].", user.name.c_str(), call.caller.peer.c_str());
  Fail(call, user_error::kWrongOldPassword, "The old password is not the user's.");
  return std::nullopt;
}

// Whether `name_or_id` is that of the caller. Without one, the caller is meant.
bool IsOwn(const Call& call, const std::optional<cluster::PrincipalNameOrId>& name_or_id) {
  if (!name_or_id) return true;
  if (const auto* id = std::get_if<std::uint32_t>(&*name_or_id)) return *id == call.caller.user.uid;
  return accounts::LowerCaseName(std::get<std::string>(*name_or_id)) == accounts::LowerCaseName(call.caller.user.name);
}

// The session that sets its own user's password, if any. It belongs to the account throughout: other calls with its
// token may come between the commit and the end of the user's other sessions.
class KeptSession {
 public:
  KeptSession(session::SessionTable& sessions, std::string token) : sessions_(sessions), token_(std::move(token)) {}
  ~KeptSession() {
    if (!stamp_.empty()) sessions_.RefuseStamp(token_, stamp_);
  }
  KeptSession(const KeptSession&) = delete;
  KeptSession& operator=(const KeptSession&) = delete;

  // Until the destructor or EndAllOfUser. kBusy when another call with the token is changing the password.
  Status Accept(const std::string& stamp) {
    Status accepted = sessions_.AcceptStamp(token_, stamp);
    if (accepted) stamp_ = stamp;
    return accepted;
  }
  const std::string& token() const { return token_; }

 private:
  session::SessionTable& sessions_;
  const std::string token_;
  std::string stamp_;
};

void SetPassword(const AccountServices& services, const Call& call) {
  const auto password = call.request->GetAndCheckString("password", kRequired, IsPasswordLength);
  const auto old_password = call.request->GetAndCheckString("old_password", kOptional, IsPasswordLength);
  if (password.IsInvalid() || old_password.IsInvalid()) {
    return Fail(call, user_error::kBadParameter,
                fmt::format("A password is missing, empty or longer than {} bytes.", accounts::kMaxPasswordBytes));
  }
  std::optional<cluster::PrincipalNameOrId> name_or_id;
  if (call.request->HasParam("name") || call.request->HasParam("id")) {
    name_or_id = ReadNameOrId(call, IsAccountName);
    if (!name_or_id) return;
  }
  if (!call.request->IsAdmin() && !IsOwn(call, name_or_id)) return Fail(call, user_error::kDenied, kOthersPassword);
  if (!RequireStoreAccounts(services, call)) return;
  const auto* const id = name_or_id ? std::get_if<std::uint32_t>(&*name_or_id) : nullptr;
  const auto user =
      id ? services.accounts->FindUserByUid(*id)
         : services.accounts->FindUser(name_or_id ? std::get<std::string>(*name_or_id) : call.caller.user.name);
  if (!user) return Refuse(call, user.error());
  // Not by name alone: the caller's account may have been replaced by another one with the same name.
  const bool is_self = user->uid == call.caller.user.uid && user->name == call.caller.user.name;
  if (!call.request->IsAdmin() && !is_self) return Fail(call, user_error::kDenied, kOthersPassword);
  const bool needs_old_password = !call.request->IsAdmin() || !name_or_id;
  if (needs_old_password && !old_password.IsSet()) {
    return Fail(call, user_error::kWrongOldPassword,
                "The old password is missing: one's own is not changed without it.");
  }
  std::optional<std::string> old_hash;
  if (old_password.IsSet()) {
    old_hash = VerifyOldPassword(services, call, *user, old_password.Get());
    if (!old_hash) return;
  }
  KeptSession kept(*services.sessions, is_self ? call.caller.session_token : std::string());
  // The account may have been deleted, or its password changed, since it was found.
  const Result<std::string> stamp = services.accounts->SetPassword(
      user->uid, password.Get(), old_hash, [&kept](const std::string& new_stamp) { return kept.Accept(new_stamp); });
  if (!stamp) {
    if (stamp.error().code() == ErrorCode::kDenied) return Refuse(call, stamp.error(), user_error::kWrongOldPassword);
    if (stamp.error().code() == ErrorCode::kBusy) return Refuse(call, stamp.error(), user_error::kHostBusy);
    return Refuse(call, stamp.error());
  }
  // The tokens of the others are refused in any case, here and on other hosts.
  LogIfNotStored(services.sessions->EndAllOfUser(user->name, kept.token(), *stamp));
  Finish(call, Status(), fmt::format("The password of the user [{}] has been changed.", user->name));
}

}  // namespace

ApiRow PasswordRow(const AccountServices& services) {
  constexpr std::string_view kApi = "VEXA.Core.Account";
  return {.api = kApi,
          .method = "password_set",
          .version = 1,
          .access = Access::kUser,
          .lane = LaneKind::kLong,
          .handler = [services](const Call& call) { SetPassword(services, call); },
          .summary =
              "Set a password: the caller's own, with the old one, or, as an administrator, that of any user. "
              "The user's sessions end on every host, except the one that makes the call.",
          .parameters = {Text("password", "The new password, 8 to 512 bytes of UTF-8."),
                         Optional("old_password", ParameterType::kString,
                                  "The current password. Only administrators who name a user may leave it out."),
                         NameParameter("The user's name. Without a name or id, the caller's own password is set."),
                         IdParameter("The user's id, unless the name is given.")},
          .errors = AccountErrors({user_error::kDenied, user_error::kTooManyLogins, user_error::kWrongOldPassword})};
}

}  // namespace vexa::api
