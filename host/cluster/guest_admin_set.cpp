// Changes of guest-admin records, and the identifiers that lead to them.
#include <charconv>

#include "host/cluster/environment.h"
#include "host/cluster/guest_admin.h"
#include "host/cluster/guest_admin_record.h"
#include "host/cluster/object_edit.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::cluster {
namespace {

namespace keys = VexaCCC::DB::_k;
using VexaCCC::Rule;

// Exactly what GuestAdminIdentifier gives for some number.
bool IsIdentifier(std::string_view text) {
  for (const std::string_view kind : {kUsersKind, kGroupsKind}) {
    if (!text.starts_with(kind) || text.size() <= kind.size() + 1) continue;
    const std::string_view digits = text.substr(kind.size() + 1);
    std::uint32_t number = 0;
    const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return parsed.ec == std::errc() && text == GuestAdminIdentifier(kind, number);
  }
  return false;
}

bool IsGuestRule(const Rule& rule) { return rule.category == keys::guest && CanBeGuestId(rule.id); }

// What to commit; nothing when the record is as the rules want it.
Result<store::Transaction> PlanRules(const store::Store& store, const std::string& key,
                                     const std::vector<Rule>& rules) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  Result<StoredObject> stored = LoadObject(**snapshot, key);
  if (!stored) return stored.error();
  const Result<bool> differs = ApplyRules(*stored, key, rules);
  if (!differs) return differs.error();
  store::Transaction transaction;
  if (*differs) PutObject(transaction, key, *stored);
  return transaction;
}

Status SetRules(store::Store& store, const std::string& identifier, const std::vector<Rule>& rules) {
  if (!IsIdentifier(identifier)) {
    return Error(ErrorCode::kInvalid, "This is the identifier of no user and no group");
  }
  for (const Rule& rule : rules) {
    if (!IsGuestRule(rule)) return Error(ErrorCode::kInvalid, "A rule is not about a guest");
  }
  const std::string key = GuestAdminKey(identifier);
  return CommitPlanned(store, [&] { return PlanRules(store, key, rules); });
}

}  // namespace
}  // namespace vexa::cluster

namespace VexaCCC {

std::string gaUUIDGet(int auth_type, const std::string& kind, unsigned int numeric_id) {
  const vexa::cluster::Environment* environment = vexa::cluster::CurrentEnvironment();
  // Local, domain and directory accounts: the account provider knows all of them by one number.
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
  return vexa::cluster::SetRules(*environment->store, identifier, rules) ? 0 : -1;
}

}  // namespace VexaCCC
