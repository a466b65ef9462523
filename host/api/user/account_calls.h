// Shared by the methods of VEXA.Core.Account: their services, and functions that read parameters, refuse and log.
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
#include "host/session/sessions.h"
#include "host/store/store.h"

namespace vexa::api {

inline constexpr std::size_t kMaxAccountList = 1000;  // names or ids in one parameter

struct AccountServices {
  std::shared_ptr<store::Store> store;
  std::shared_ptr<cluster::AccountStore> accounts;  // null: the daemon takes its users from PAM
  session::LoginLimiter* limiter = nullptr;         // outlives the rows' handlers
  session::SessionTable* sessions = nullptr;        // likewise
};

// The user or group that the parameters "kind", "name" or "id", and "system" identify.
struct PrincipalParameters {
  records::AccountKind kind = records::AccountKind::kUser;
  cluster::PrincipalNameOrId name_or_id;
  bool is_system = false;
};

// Not set when a parameter is missing or not valid; the call has then been answered.
std::optional<PrincipalParameters> ReadPrincipal(const Call& call);
// Reads "name" or "id"; exactly one of them must be given.
std::optional<cluster::PrincipalNameOrId> ReadNameOrId(const Call& call, bool is_valid_name(std::string_view));
// Reads a list of at most kMaxAccountList strings; an empty list when it is optional and absent.
std::optional<std::vector<std::string>> ReadStrings(const Call& call, const char* name, int necessity,
                                                    bool is_valid(std::string_view));

// An id in a parameter: 0 to 4294967294.
std::optional<std::uint32_t> ParseId(const Json::Value& value);

// Whether the accounts are in the store. If not, answers the call.
bool RequireStoreAccounts(const AccountServices& services, const Call& call);

// Whether the daemon takes its users from the store, or for a system principal, from the machine. If not, answers the
// call.
bool RequireSupportedPrincipal(const AccountServices& services, const Call& call, const PrincipalParameters& principal);

// Not set when there is no such user or group; the call has then been answered.
std::optional<cluster::GrantPrincipal> FindPrincipal(const AccountServices& services, const Call& call,
                                                     const PrincipalParameters& principal);

// Answers with the code for `error`, or with `code`, and with the error's sentence as the reason.
void Refuse(const Call& call, const Error& error);
void Refuse(const Call& call, const Error& error, int code);

// Refuses with the error in `status`. Without one, writes the sentence `done` and the caller to the system log and the
// cluster log, and answers with success.
void Finish(const Call& call, const Status& status, const std::string& done);

std::string_view AccountKindName(records::AccountKind kind);  // "user" or "group"

bool IsAccountName(std::string_view name);
// Whether its length is allowed for a password. The account store checks everything else about a new one.
bool IsPasswordLength(const std::string& password);

// Parameters of rows.
Parameter NameParameter(std::string_view description);
Parameter IdParameter(std::string_view description);
// The error codes that most of the methods share, and those in `more`, in ascending order.
std::vector<int> AccountErrors(std::vector<int> more);

}  // namespace vexa::api
