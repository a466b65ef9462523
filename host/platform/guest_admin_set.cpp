// Changes guest-admin records.
#include <optional>
#include <string>
#include <string_view>

#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "host/records/guest_admin_record.h"
#include "host/records/object_edit.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::cluster {
namespace {

namespace keys = VexaCCC::DB::_k;
using VexaCCC::Rule;

// This host's name for the user or group; empty when absent.
Result<std::string> NameOf(const base::AccountProvider* accounts, const GuestAdminOwner& principal) {
  if (accounts == nullptr) return std::string();
  std::optional<Error> error;
  if (principal.kind == kUsersKind) {
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

bool IsGuestRule(const Rule& rule) { return rule.category == keys::guest && CanBeGuestId(rule.id); }

// What to commit; nothing when the record already agrees with the rules.
Result<store::Transaction> PlanRules(const store::Store& store, const GuestAdminOwner& principal,
                                     const std::string& name, store::Revision seen, const std::vector<Rule>& rules) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const std::string key = GuestAdminKey(GuestAdminIdentifier(principal.kind, principal.id));
  Result<StoredObject> stored = LoadObject(**snapshot, key);
  if (!stored) return stored.error();
  const Result<bool> differs = ApplyRules(*stored, key, name, rules);
  if (!differs) return differs.error();
  store::Transaction transaction;
  if (!*differs) return transaction;
  PutObject(transaction, key, *stored);
  if (Status compared = CompareAccount(**snapshot, principal.kind, principal.id, seen, transaction); !compared) {
    return compared.error();
  }
  return transaction;
}

Status SetRules(const Environment& environment, const std::string& identifier, const std::vector<Rule>& rules) {
  const auto principal = ParseGuestAdminIdentifier(identifier);
  if (!principal) return Error(ErrorCode::kInvalid, "This is the identifier of no user and no group");
  for (const Rule& rule : rules) {
    if (!IsGuestRule(rule)) return Error(ErrorCode::kInvalid, "A rule is not about a guest");
  }
  store::Store& store = *environment.store;
  RequestScope::ReleaseSnapshot();
  const store::Revision seen = RevisionBeforeLookup(store);
  const Result<std::string> name = NameOf(environment.accounts.get(), *principal);
  if (!name) return name.error();
  return CommitPlanned(store, [&] { return PlanRules(store, *principal, *name, seen, rules); });
}

}  // namespace
}  // namespace vexa::cluster

namespace VexaCCC {

std::string gaUUIDGet(int auth_type, const std::string& kind, unsigned int numeric_id) {
  const vexa::cluster::Environment* environment = vexa::cluster::CurrentEnvironment();
  // Local, domain and directory accounts: the account provider knows all of them by the same number.
  if (!environment || (auth_type != 1 && auth_type != 2 && auth_type != 8)) return {};
  const vexa::base::AccountProvider& accounts = *environment->accounts;
  if (kind == vexa::cluster::kUsersKind) {
    if (!accounts.FindUserByUid(numeric_id)) return {};
  } else if (kind == vexa::cluster::kGroupsKind) {
    if (!accounts.FindGroupByGid(numeric_id)) return {};
  } else {
    return {};
  }
  return vexa::cluster::GuestAdminIdentifier(kind, numeric_id);
}

int gaUserSet(const std::string& identifier, const std::string& empty, const std::vector<Rule>& rules) {
  const vexa::cluster::Environment* environment = vexa::cluster::CurrentEnvironment();
  if (!environment || !empty.empty()) return -1;
  return vexa::cluster::SetRules(*environment, identifier, rules) ? 0 : -1;
}

}  // namespace VexaCCC
