#include "host/api/user/account_calls.h"

#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "host/accounts/account_nss.h"
#include "host/accounts/account_password.h"
#include "host/api/reason.h"
#include "host/api/rows.h"
#include "host/base/sanitize_for_log.h"
#include "json/readers.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::api {
namespace {

using records::AccountKind;

constexpr std::size_t kMaxReason = 1024;
constexpr std::size_t kMaxLine = 1024;

constexpr std::pair<ErrorCode, int> kCodes[] = {{ErrorCode::kInvalid, user_error::kBadParameter},
                                                {ErrorCode::kNotFound, user_error::kNoAccount},
                                                {ErrorCode::kDenied, user_error::kGrantsOfOtherAccount},
                                                {ErrorCode::kCorrupt, user_error::kAccountDamaged}};

int CodeOf(const Error& error) {
  const auto* const row = std::ranges::find(kCodes, error.code(), &std::pair<ErrorCode, int>::first);
  return row == std::end(kCodes) ? user_error::kAccountsUnavailable : row->second;
}

}  // namespace

bool IsAccountName(std::string_view name) { return accounts::IsValidAccountName(name); }

bool IsPasswordLength(const std::string& password) {
  return !password.empty() && password.size() <= accounts::kMaxPasswordBytes;
}

Parameter NameParameter(std::string_view description) { return OptionalString("name", description); }

Parameter IdParameter(std::string_view description) { return Optional("id", ParameterType::kInteger, description); }

std::vector<int> AccountErrors(std::vector<int> more) {
  more.insert(more.end(), {user_error::kBadParameter, user_error::kNoAccount, user_error::kAccountsFromPam,
                           user_error::kAccountDamaged, user_error::kAccountsUnavailable});
  std::sort(more.begin(), more.end());
  return more;
}

std::string_view AccountKindName(AccountKind kind) { return kind == AccountKind::kUser ? "user" : "group"; }

std::optional<std::uint32_t> ParseId(const Json::Value& value) {
  const bool is_integer = value.type() == Json::intValue || value.type() == Json::uintValue;
  if (!is_integer || !value.isUInt() || json::UInt(value) == UINT32_MAX) return std::nullopt;
  return json::UInt(value);
}

std::optional<cluster::PrincipalNameOrId> ReadNameOrId(const Call& call, bool is_valid_name(std::string_view)) {
  const auto name = call.request->GetAndCheckString("name", kOptional);
  const bool has_id = call.request->HasParam("id");
  const auto id = ParseId(call.request->GetParam("id", Json::Value()));
  const bool is_invalid =
      name.IsInvalid() || name.IsSet() == has_id || (has_id && !id) || (name.IsSet() && !is_valid_name(name.Get()));
  if (!is_invalid) return has_id ? cluster::PrincipalNameOrId(*id) : cluster::PrincipalNameOrId(name.Get());
  Fail(call, user_error::kBadParameter,
       "Either 'name', the name of a user or group, or 'id', its number, is needed, and only one of them.");
  return std::nullopt;
}

std::optional<std::vector<std::string>> ReadStrings(const Call& call, const char* name, int necessity,
                                                    bool is_valid(std::string_view)) {
  const auto list = call.request->GetAndCheckArray(name, necessity);
  bool is_invalid = list.IsInvalid() || list.Get().size() > kMaxAccountList;
  std::vector<std::string> strings;
  if (!is_invalid) {
    for (const Json::Value& element : json::Elements(list.Get())) {
      strings.push_back(json::String(element));
      is_invalid = is_invalid || !element.isString() || !is_valid(strings.back());
    }
  }
  if (!is_invalid) return strings;
  Fail(call, user_error::kBadParameter,
       fmt::format("The parameter '{}' is missing, or not a list of at most {} valid texts.", name, kMaxAccountList));
  return std::nullopt;
}

std::optional<PrincipalParameters> ReadPrincipal(const Call& call) {
  PrincipalParameters principal;
  const auto kind = call.request->GetAndCheckString(
      "kind", kRequired, [](const std::string& text) { return text == "user" || text == "group"; });
  if (kind.IsInvalid()) {
    Fail(call, user_error::kBadParameter, "The parameter 'kind' is neither \"user\" nor \"group\".");
    return std::nullopt;
  }
  principal.kind = kind.Get() == "user" ? AccountKind::kUser : AccountKind::kGroup;
  const auto is_system = ReadFlag(call, "system");
  if (!is_system) return std::nullopt;
  principal.is_system = *is_system;
  auto name_or_id = ReadNameOrId(call, principal.is_system ? accounts::IsSystemName : IsAccountName);
  if (!name_or_id) return std::nullopt;
  principal.name_or_id = std::move(*name_or_id);
  return principal;
}

bool RequireStoreAccounts(const AccountServices& services, const Call& call) {
  if (services.accounts) return true;
  Fail(call, user_error::kAccountsFromPam, "The daemon's setting 'accounts' is \"pam\".");
  return false;
}

// Grants are looked up by id alone: a system user would have those of the account in the store with the same id.
bool RequireSupportedPrincipal(const AccountServices& services, const Call& call,
                               const PrincipalParameters& principal) {
  if (!principal.is_system) return RequireStoreAccounts(services, call);
  if (!services.accounts) return true;
  Refuse(
      call,
      Error(ErrorCode::kInvalid,
            "Users and groups of the operating system have no rights here, because the daemon's setting 'accounts' is "
            "\"store\". Leave out 'system' (--system)"));
  return false;
}

std::optional<cluster::GrantPrincipal> FindPrincipal(const AccountServices& services, const Call& call,
                                                     const PrincipalParameters& principal) {
  if (!RequireSupportedPrincipal(services, call, principal)) return std::nullopt;
  Result<cluster::GrantPrincipal> found =
      principal.is_system
          ? cluster::FindSystemPrincipal(principal.kind, principal.name_or_id)
          : cluster::FindPrincipal(*services.accounts, *services.store, principal.kind, principal.name_or_id);
  if (found) return std::move(*found);
  Refuse(call, found.error());
  return std::nullopt;
}

void Refuse(const Call& call, const Error& error) { Refuse(call, error, CodeOf(error)); }

void Refuse(const Call& call, const Error& error, int code) {
  const std::string reason = SanitizeForLog(error.ToString() + ".", kMaxReason);
  if (code == user_error::kAccountDamaged || code == user_error::kAccountsUnavailable) {
    ::syslog(LOG_WARNING, "An account or grant could not be changed or read for user[%s]: %s",
             call.request->GetLoginUserName().c_str(), reason.c_str());
  }
  // Causes name files and records.
  SetReason(call, reason, error.code() == ErrorCode::kInvalid ? Readers::kCaller : Readers::kAdministrators);
  Fail(call, code);
}

void Finish(const Call& call, const Status& status, const std::string& done) {
  if (!status) return Refuse(call, status.error());
  const std::string user = call.request->GetLoginUserName();
  const std::string line = SanitizeForLog(done, kMaxLine);
  ::syslog(LOG_NOTICE, "%s By user[%s] from [%s].", line.c_str(), user.c_str(), call.caller.peer.c_str());
  VexaCCC::ClusterLogAdd(user, VexaCCC::CLOG_PRIORITY_SUCCESS, "%s", line.c_str());
  call.response->SetSuccess(Json::Value(Json::objectValue));
}

}  // namespace vexa::api
