#include "host/api/user/account_calls.h"

#include <syslog.h>

#include <algorithm>
#include <utility>

#include "host/accounts/account_nss.h"
#include "host/accounts/account_password.h"
#include "host/api/reason.h"
#include "host/api/rows.h"
#include "host/base/error_table.h"
#include "host/base/log_text.h"
#include "json/readers.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
using cluster::AccountKind;
using webapi::Call;

constexpr std::size_t kMaxReason = 1024;
constexpr std::size_t kMaxLine = 1024;

int CodeOf(const Error& error) {
  switch (error.code()) {
    case ErrorCode::kInvalid:
      return webapi::kErrorBadParameter;
    case ErrorCode::kNotFound:
      return webapi::kErrorNoAccount;
    case ErrorCode::kDenied:
      return webapi::kErrorGrantsOfAnother;
    case ErrorCode::kCorrupt:
      return webapi::kErrorAccountDamaged;
    default:
      return webapi::kErrorAccountsUnavailable;
  }
}

}  // namespace

bool IsAccountName(std::string_view name) { return base::IsValidAccountName(name); }

bool IsPasswordLength(const std::string& password) {
  return !password.empty() && password.size() <= base::kMaxPasswordBytes;
}

webapi::Parameter Optional(std::string_view name, webapi::ParameterType type, std::string_view description) {
  return {name, type, webapi::Necessity::kOptional, description};
}

webapi::Parameter NameOf(std::string_view description) {
  return Optional("name", webapi::ParameterType::kString, description);
}

webapi::Parameter Id(std::string_view description) {
  return Optional("id", webapi::ParameterType::kInteger, description);
}

std::vector<int> AccountErrors(std::vector<int> more) {
  more.insert(more.end(), {webapi::kErrorBadParameter, webapi::kErrorNoAccount, webapi::kErrorAccountsFromPam,
                           webapi::kErrorAccountDamaged, webapi::kErrorAccountsUnavailable});
  std::sort(more.begin(), more.end());
  return more;
}

std::string_view WordOf(AccountKind kind) { return kind == AccountKind::kUser ? "user" : "group"; }

std::optional<std::uint32_t> IdOf(const Json::Value& value) {
  const bool is_integer = value.type() == Json::intValue || value.type() == Json::uintValue;
  if (!is_integer || !value.isUInt() || json::UInt(value) == UINT32_MAX) return std::nullopt;
  return json::UInt(value);
}

std::optional<bool> ReadFlag(const Call& call, const char* name) {
  const auto flag = call.request->GetAndCheckBool(name, kOptional);
  if (!flag.IsInvalid()) return flag.IsSet() && flag.Get();
  Fail(call, webapi::kErrorBadParameter);
  return std::nullopt;
}

std::optional<cluster::PrincipalWord> ReadNameOrId(const Call& call, bool is_valid_name(std::string_view)) {
  const auto name = call.request->GetAndCheckString("name", kOptional);
  const bool has_id = call.request->HasParam("id");
  const auto id = IdOf(call.request->GetParam("id", Json::Value()));
  const bool is_wrong =
      name.IsInvalid() || name.IsSet() == has_id || (has_id && !id) || (name.IsSet() && !is_valid_name(name.Get()));
  if (!is_wrong) return has_id ? cluster::PrincipalWord(*id) : cluster::PrincipalWord(name.Get());
  Fail(call, webapi::kErrorBadParameter);
  return std::nullopt;
}

std::optional<std::vector<std::string>> ReadTexts(const Call& call, const char* name, int necessity,
                                                  bool is_valid(std::string_view)) {
  const auto list = call.request->GetAndCheckArray(name, necessity);
  bool is_wrong = list.IsInvalid() || list.Get().size() > kMaxAccountList;
  std::vector<std::string> texts;
  if (!is_wrong) {
    for (const Json::Value& element : json::Elements(list.Get())) {
      texts.push_back(json::String(element));
      is_wrong = is_wrong || !element.isString() || !is_valid(texts.back());
    }
  }
  if (!is_wrong) return texts;
  Fail(call, webapi::kErrorBadParameter);
  return std::nullopt;
}

std::optional<PrincipalParameters> ReadPrincipal(const Call& call) {
  PrincipalParameters principal;
  const auto kind = call.request->GetAndCheckString(
      "kind", kRequired, [](const std::string& text) { return text == "user" || text == "group"; });
  if (kind.IsInvalid()) {
    Fail(call, webapi::kErrorBadParameter);
    return std::nullopt;
  }
  principal.kind = kind.Get() == "user" ? AccountKind::kUser : AccountKind::kGroup;
  const auto is_system = ReadFlag(call, "system");
  if (!is_system) return std::nullopt;
  principal.is_system = *is_system;
  auto word = ReadNameOrId(call, principal.is_system ? base::IsSystemName : IsAccountName);
  if (!word) return std::nullopt;
  principal.word = std::move(*word);
  return principal;
}

bool HasAccounts(const AccountServices& services, const Call& call) {
  if (services.accounts) return true;
  Fail(call, webapi::kErrorAccountsFromPam);
  return false;
}

// Rights count by id alone: those of a system user would be those of whichever account of the store has the same id.
bool IsOfThisDaemon(const AccountServices& services, const Call& call, const PrincipalParameters& principal) {
  if (!principal.is_system) return HasAccounts(services, call);
  if (!services.accounts) return true;
  Refuse(call,
         Error(ErrorCode::kInvalid,
               "The machine's own users and groups have no rights here, because the daemon's setting 'accounts' is "
               "\"store\". Leave 'system' (--system) out"));
  return false;
}

std::optional<cluster::GrantPrincipal> Find(const AccountServices& services, const Call& call,
                                            const PrincipalParameters& principal) {
  if (!IsOfThisDaemon(services, call, principal)) return std::nullopt;
  Result<cluster::GrantPrincipal> found =
      principal.is_system ? cluster::FindSystemPrincipal(principal.kind, principal.word)
                          : cluster::FindPrincipal(*services.accounts, *services.store, principal.kind, principal.word);
  if (found) return std::move(*found);
  Refuse(call, found.error());
  return std::nullopt;
}

void Refuse(const Call& call, const Error& error) { Refuse(call, error, CodeOf(error)); }

void Refuse(const Call& call, const Error& error, int code) {
  const std::string reason = cluster::LogText(error.ToString() + ".", kMaxReason);
  if (code == webapi::kErrorAccountDamaged || code == webapi::kErrorAccountsUnavailable) {
    ::syslog(LOG_WARNING, "An account or grant could not be changed or read for user[%s]: %s",
             call.request->GetLoginUserName().c_str(), reason.c_str());
  }
  // Causes name files and records, which only administrators may see.
  if (call.request->IsAdmin() || error.code() == ErrorCode::kInvalid) webapi::SetReason(call, reason);
  Fail(call, code);
}

void Finish(const Call& call, const Status& status, const std::string& done) {
  if (!status) return Refuse(call, status.error());
  const std::string user = call.request->GetLoginUserName();
  const std::string line = cluster::LogText(done, kMaxLine);
  ::syslog(LOG_NOTICE, "%s By user[%s] from [%s].", line.c_str(), user.c_str(), call.caller.peer.c_str());
  VexaCCC::ClusterLogAdd(user, VexaCCC::CLOG_PRIORITY_SUCCESS, "%s", line.c_str());
  call.response->SetSuccess(Json::Value(Json::objectValue));
}

}  // namespace vexa::services
