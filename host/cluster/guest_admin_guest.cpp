// Changes of who may use one guest, in the records of many users and groups at once.
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/cluster/environment.h"
#include "host/cluster/guest_admin.h"
#include "host/cluster/guest_admin_record.h"
#include "host/cluster/object_edit.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::cluster {
namespace {

using VexaCCC::Rule;
using VexaCCC::tagGuestAdminRule;

constexpr std::uint32_t kNoId = UINT32_MAX;

// What is asked of one record.
struct Wish {
  std::vector<Rule> rules;
  std::set<std::string> names;  // of the user or group, for messages
};
using Wishes = std::map<std::string, Wish>;  // by the store's key

std::string NameOf(const tagGuestAdminRule& rule) { return rule.name.empty() ? std::to_string(rule.id) : rule.name; }

// Whether there is such a user or group. No, when that cannot be told.
bool IsSomebody(const base::AccountProvider& accounts, const tagGuestAdminRule& rule) {
  if (rule.id == kNoId) return false;
  if (rule.kind == kUsersKind) return accounts.FindUserByUid(rule.id).ok();
  return rule.kind == kGroupsKind && accounts.FindGroupByGid(rule.id).ok();
}

class GuestRights {
 public:
  GuestRights(const Environment& environment, const std::string& guest_id) : environment_(environment), id_(guest_id) {}

  void Add(const tagGuestAdminRule& rule) {
    if (!CanBeGuestId(id_) || !IsSomebody(*environment_.accounts, rule)) {
      nobodies_.insert(NameOf(rule));
      return;
    }
    Wish& wish = wishes_[GuestAdminKey(GuestAdminIdentifier(rule.kind, rule.id))];
    wish.rules.push_back({VexaCCC::DB::_k::guest, id_, rule.allow});
    wish.names.insert(NameOf(rule));
  }

  // Who could not be set.
  std::vector<std::string> Commit() {
    std::set<std::string> failed;
    if (!CommitPlanned(*environment_.store, [&] { return Plan(failed); })) {
      for (const auto& [key, wish] : wishes_) failed.insert(wish.names.begin(), wish.names.end());
    }
    failed.insert(nobodies_.begin(), nobodies_.end());
    return {failed.begin(), failed.end()};
  }

 private:
  // What to commit. A record that cannot be understood is left alone, and its owner is among the `failed`.
  Result<store::Transaction> Plan(std::set<std::string>& failed) const {
    failed.clear();
    store::Transaction transaction;
    if (wishes_.empty()) return transaction;
    const auto snapshot = environment_.store->Read();
    if (!snapshot) return snapshot.error();
    for (const auto& [key, wish] : wishes_) {
      const Status put = PutChanged(**snapshot, key, wish, transaction);
      if (!put && put.error().code() != ErrorCode::kCorrupt) return put.error();
      if (!put) failed.insert(wish.names.begin(), wish.names.end());
    }
    return transaction;
  }

  static Status PutChanged(const store::Snapshot& snapshot, const std::string& key, const Wish& wish,
                           store::Transaction& transaction) {
    Result<StoredObject> stored = LoadObject(snapshot, key);
    if (!stored) return stored.error();
    const Result<bool> differs = ApplyRules(*stored, key, wish.rules);
    if (!differs) return differs.error();
    if (*differs) PutObject(transaction, key, *stored);
    return {};
  }

  const Environment& environment_;
  const std::string& id_;
  Wishes wishes_;
  std::set<std::string> nobodies_;
};

}  // namespace
}  // namespace vexa::cluster

namespace VexaCCC {

int gaGuestSet(const std::string& guest_id, const std::vector<tagGuestAdminRule>& rules,
               std::vector<std::string>& failed_users) {
  failed_users.clear();
  const vexa::cluster::Environment* environment = vexa::cluster::CurrentEnvironment();
  if (!environment) return -1;
  vexa::cluster::GuestRights rights(*environment, guest_id);
  for (const tagGuestAdminRule& rule : rules) rights.Add(rule);
  failed_users = rights.Commit();
  return failed_users.empty() ? 0 : -1;
}

}  // namespace VexaCCC
