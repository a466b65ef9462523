#include "host/api/user/password_api.h"

#include <syslog.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "host/api/rows.h"
#include "host/base/error_table.h"

namespace vexa::services {
namespace {

using webapi::Call;
using webapi::ParameterType;

// The user's hash when the old password is theirs. Guessing is slowed down as at a login. Otherwise the call is
// answered.
std::optional<std::string> VerifyOldPassword(const AccountServices& services, const Call& call, const base::User& user,
                                             const std::string& old_password) {
  const std::string limited_name = base::FoldedName(user.name);
  const std::chrono::milliseconds wait = services.limiter->Begin(call.caller.peer, limited_name);
  if (wait.count() > 0) {
    call.headers->emplace_back("Retry-After", std::to_string((wait.count() + 999) / 1000));
    Fail(call, webapi::kErrorTooManyLogins);
    return std::nullopt;
  }
  const Result<cluster::Account> verified = services.accounts->VerifyAccount(user.name, old_password);
  // Intentional: unlike a login, a success gives no attempt back. Each change writes to the store and the cluster log.
  if (verified && verified->user.uid == user.uid) return verified->password;
  if (!verified && verified.error().code() != ErrorCode::kDenied) {
    Refuse(call, verified.error());
    return std::nullopt;
  }
  ::syslog(LOG_WARNING, "The old password of user[%s] that came from [%s] is wrong.", user.name.c_str(),
           call.caller.peer.c_str());
  Fail(call, webapi::kErrorOldPassword);
  return std::nullopt;
}

// Nothing: the caller's own.
bool IsOwn(const Call& call, const std::optional<cluster::PrincipalWord>& word) {
  if (!word) return true;
  if (const auto* id = std::get_if<std::uint32_t>(&*word)) return *id == call.caller.user.uid;
  return base::FoldedName(std::get<std::string>(*word)) == base::FoldedName(call.caller.user.name);
}

void SetPassword(const AccountServices& services, const Call& call) {
  const auto password = call.request->GetAndCheckString("password", kRequired, IsPasswordLength);
  const auto old_password = call.request->GetAndCheckString("old_password", kOptional, IsPasswordLength);
  if (password.IsInvalid() || old_password.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  std::optional<cluster::PrincipalWord> word;
  if (call.request->HasParam("name") || call.request->HasParam("id")) {
    word = ReadNameOrId(call, IsAccountName);
    if (!word) return;
  }
  if (!call.request->IsAdmin() && !IsOwn(call, word)) return Fail(call, webapi::kErrorDenied);
  if (!HasAccounts(services, call)) return;
  const auto* const id = word ? std::get_if<std::uint32_t>(&*word) : nullptr;
  const auto user = id ? services.accounts->FindUserByUid(*id)
                       : services.accounts->FindUser(word ? std::get<std::string>(*word) : call.caller.user.name);
  if (!user) return Refuse(call, user.error());
  // Users of other accounts than these cannot be meant, whatever they are called.
  const bool is_self = user->uid == call.caller.user.uid && user->name == call.caller.user.name;
  if (!call.request->IsAdmin() && !is_self) return Fail(call, webapi::kErrorDenied);
  const bool needs_old = !call.request->IsAdmin() || !word;
  if (needs_old && !old_password.IsSet()) return Fail(call, webapi::kErrorOldPassword);
  std::optional<std::string> old_hash;
  if (old_password.IsSet()) {
    old_hash = VerifyOldPassword(services, call, *user, old_password.Get());
    if (!old_hash) return;
  }
  // The account may have been deleted, or its password changed, since it was found.
  const Status changed = services.accounts->SetPassword(user->uid, password.Get(), old_hash);
  if (!changed && changed.error().code() == ErrorCode::kDenied) {
    return Refuse(call, changed.error(), webapi::kErrorOldPassword);
  }
  Finish(call, changed, "The password of the user [" + user->name + "] has been changed.");
}

}  // namespace

webapi::ApiRow PasswordRow(const AccountServices& services) {
  constexpr std::string_view kApi = "VEXA.Core.Account";
  return {
      .api = kApi,
      .method = "password_set",
      .version = 1,
      .access = webapi::Access::kUser,
      .lane = webapi::LaneKind::kLong,
      .handler = [services](const Call& call) { SetPassword(services, call); },
      .summary = "Set a password: one's own with the old one, or as an administrator that of the user who is named.",
      .parameters = {Text("password", "The new password, 8 to 512 bytes of UTF-8."),
                     Optional("old_password", ParameterType::kString,
                              "The password until now. Only administrators who name a user may leave it out."),
                     NameOf("The user's name; without name and id the caller's own password is set; or:"),
                     Id("the user's id.")},
      .errors = AccountErrors({webapi::kErrorDenied, webapi::kErrorTooManyLogins, webapi::kErrorOldPassword})};
}

}  // namespace vexa::services
