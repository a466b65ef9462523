// Changes guest-admin records.
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <syslog.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "host/records/guest_admin_record.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::platform {
namespace {

using VexaCCC::Rule;

// The principal's name on this host; "" if there is no such user or group, or no account provider.
Result<std::string> LocalPrincipalName(const accounts::AccountProvider* accounts,
                                       const records::GuestAdminPrincipal& principal) {
  if (accounts == nullptr) return std::string();
  std::optional<Error> error;
  if (principal.kind == records::kUsersKind) {
    const auto user = accounts->FindUserByUid(principal.id);
    if (user) return user->name;
    error = user.error();
  } else {
    const auto group = accounts->FindGroupByGid(principal.id);
    if (group) return group->name;
    error = group.error();
  }
  if (error->code() == ErrorCode::kNotFound) return std::string();
  return *error;
}

bool IsGuestRule(const Rule& rule) { return rule.category == keys::guest && records::IsValidGuestId(rule.id); }

// Returns what to commit: an empty transaction if the record already agrees with the rules. `lookup_revision` is that
// of the store before `name` was looked up.
Result<store::Transaction> PlanRules(const records::Reader& reader, const records::GuestAdminPrincipal& principal,
                                     const std::string& name, store::Revision lookup_revision,
                                     const std::vector<Rule>& rules) {
  const std::string key = records::GuestAdminKey(records::GuestAdminIdentifier(principal.kind, principal.id));
  Result<records::StoredObject> stored = records::LoadObject(reader, key);
  if (!stored) return stored.error();
  const Result<bool> differs = records::ApplyGrantRules(*stored, key, name, rules);
  if (!differs) return differs.error();
  store::Transaction transaction;
  if (!*differs) return transaction;
  records::PutObject(transaction, key, *stored);
  if (Status checked = records::AddAccountCompare(reader, principal.kind, principal.id, lookup_revision, transaction);
      !checked) {
    return checked.error();
  }
  return transaction;
}

void LogChange(const records::Environment& environment, const std::string& identifier, const std::string& name,
               const std::vector<Rule>& rules) {
  std::vector<std::string> changes;
  for (const Rule& rule : rules)
    changes.push_back(fmt::format("{} [{}]", rule.allow ? "use" : "no longer use", rule.id));
  const std::string user(environment.acting_user ? environment.acting_user() : std::string_view());
  ::syslog(LOG_NOTICE, "User[%s] has changed the rights of [%s] (%s): may %s.", user.c_str(), name.c_str(),
           identifier.c_str(), fmt::format("{}", fmt::join(changes, ", ")).c_str());
}

Status SetRules(const records::Environment& environment, const std::string& identifier,
                const std::vector<Rule>& rules) {
  const auto principal = records::ParseGuestAdminIdentifier(identifier);
  if (!principal) return Error(ErrorCode::kInvalid, "The identifier does not belong to a user or group");
  for (const Rule& rule : rules) {
    if (!IsGuestRule(rule)) return Error(ErrorCode::kInvalid, "A rule is not about a guest");
  }
  store::Store& store = *environment.store;
  const records::RequestPause pause;
  const store::Revision lookup_revision = records::RevisionBeforeLookup(store);
  const Result<std::string> name = LocalPrincipalName(environment.accounts.get(), *principal);
  if (!name) return name.error();
  bool is_changed = false;
  const Status done = records::CommitWithRetry(store, [&](const records::Reader& reader) {
    Result<store::Transaction> planned = PlanRules(reader, *principal, *name, lookup_revision, rules);
    is_changed = planned && !planned->operations.empty();
    return planned;
  });
  if (done && is_changed) LogChange(environment, identifier, *name, rules);
  return done;
}

}  // namespace
}  // namespace vexa::platform

namespace VexaCCC {

std::string gaUUIDGet(int auth_type, const std::string& kind, unsigned int numeric_id) {
  const vexa::records::Environment* environment = vexa::records::CurrentEnvironment();
  // 1, 2 and 8 are local, domain and directory accounts. The account provider knows all of them by the same number.
  if (!environment || (auth_type != 1 && auth_type != 2 && auth_type != 8)) return {};
  const vexa::accounts::AccountProvider& accounts = *environment->accounts;
  if (kind == vexa::records::kUsersKind) {
    if (!accounts.FindUserByUid(numeric_id)) return {};
  } else if (kind == vexa::records::kGroupsKind) {
    if (!accounts.FindGroupByGid(numeric_id)) return {};
  } else {
    return {};
  }
  return vexa::records::GuestAdminIdentifier(kind, numeric_id);
}

int gaUserSet(const std::string& identifier, const std::string& empty, const std::vector<Rule>& rules) {
  const vexa::records::Environment* environment = vexa::records::CurrentEnvironment();
  if (!environment || !empty.empty()) return -1;
  return vexa::platform::SetRules(*environment, identifier, rules) ? 0 : -1;
}

}  // namespace VexaCCC
