// What the methods of VEXA.Core.Account share: their services, how they read parameters, refuse, and log.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/api/api_table.h"
#include "host/base/result.h"
#include "host/cluster/account_store.h"
#include "host/cluster/grants.h"
#include "host/session/login_limiter.h"
#include "host/store/store.h"

namespace vexa::services {

inline constexpr std::size_t kMaxAccountList = 1000;  // names or ids in one parameter

struct AccountServices {
  std::shared_ptr<store::Store> store;
  std::shared_ptr<cluster::AccountStore> accounts;  // null: the daemon takes its users from PAM
  daemon::LoginLimiter* limiter = nullptr;          // outlives the rows' handlers
};

// Whom the parameters "kind", "name" or "id", and "system" name.
struct PrincipalParameters {
  cluster::AccountKind kind = cluster::AccountKind::kUser;
  cluster::PrincipalWord word;
  bool is_system = false;
};

// Each answers the call, and gives nothing, when a parameter is missing or not valid.
std::optional<PrincipalParameters> ReadPrincipal(const webapi::Call& call);
// Of "name" or "id": exactly one of them.
std::optional<cluster::PrincipalWord> ReadNameOrId(const webapi::Call& call, bool is_valid_name(std::string_view));
// A list of at most kMaxAccountList texts. Optional and absent: an empty list.
std::optional<std::vector<std::string>> ReadTexts(const webapi::Call& call, const char* name, int necessity,
                                                  bool is_valid(std::string_view));
std::optional<bool> ReadFlag(const webapi::Call& call, const char* name);

// An id in a parameter: 0 to 4294967294.
std::optional<std::uint32_t> IdOf(const Json::Value& value);

// Whether the accounts are in the store; otherwise the call is answered.
bool HasAccounts(const AccountServices& services, const webapi::Call& call);

// Whether the daemon takes its users from where the principal is; otherwise the call is answered.
bool IsOfThisDaemon(const AccountServices& services, const webapi::Call& call, const PrincipalParameters& principal);

// The principal; otherwise the call is answered.
std::optional<cluster::GrantPrincipal> Find(const AccountServices& services, const webapi::Call& call,
                                            const PrincipalParameters& principal);

// Answers with the code for `error`, or with `code`, and with the error's sentence as the reason.
void Refuse(const webapi::Call& call, const Error& error);
void Refuse(const webapi::Call& call, const Error& error, int code);

// Answers with success when `status` is, after `done`, a sentence, has been written to the system log and the cluster
// log with who did it.
void Finish(const webapi::Call& call, const Status& status, const std::string& done);

std::string_view WordOf(cluster::AccountKind kind);  // "user" or "group"

bool IsAccountName(std::string_view name);
// Whether it has the length that a password may have. The account store says what else is wrong with a new one.
bool IsPasswordLength(const std::string& password);

// Parameters of rows, and the codes that most of the methods can answer with those in `more`, in rising order.
webapi::Parameter Optional(std::string_view name, webapi::ParameterType type, std::string_view description);
webapi::Parameter NameOf(std::string_view description);
webapi::Parameter Id(std::string_view description);
std::vector<int> AccountErrors(std::vector<int> more);

}  // namespace vexa::services
