// Changes who may use one guest, in the records of several users and groups in one commit.
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "host/records/guest_admin_record.h"
#include "host/records/object_edit.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::cluster {
namespace {

using VexaCCC::Rule;
using VexaCCC::tagGuestAdminRule;

constexpr std::uint32_t kNoId = UINT32_MAX;

// The requested change of one user's or group's record.
struct Request {
  std::string known_name;  // this host's name for them
  std::vector<Rule> rules;
  std::set<std::string> names;  // the names that the rules use for the user or group, for messages
};
using PrincipalKey = std::pair<std::string, std::uint32_t>;  // kind and id

std::string NameOf(const tagGuestAdminRule& rule) { return rule.name.empty() ? std::to_string(rule.id) : rule.name; }

// This host's name for the user or group; empty when absent, or when it is unknown.
std::string KnownName(const base::AccountProvider& accounts, const PrincipalKey& principal) {
  if (principal.first == kUsersKind) {
    const auto user = accounts.FindUserByUid(principal.second);
    return user ? user->name : std::string();
  }
  const auto group = accounts.FindGroupByGid(principal.second);
  return group ? group->name : std::string();
}

class GuestRights {
 public:
  GuestRights(const Environment& environment, const std::string& guest_id)
      : environment_(environment), id_(guest_id), seen_(RevisionBeforeLookup(*environment.store)) {}

  void Add(const tagGuestAdminRule& rule) {
    const bool has_kind = rule.kind == kUsersKind || rule.kind == kGroupsKind;
    if (!CanBeGuestId(id_) || !has_kind || rule.id == kNoId) {
      impossible_.insert(NameOf(rule));
      return;
    }
    const PrincipalKey principal{rule.kind, rule.id};
    const std::string name = KnownName(*environment_.accounts, principal);
    if (name.empty()) {
      impossible_.insert(NameOf(rule));
      return;
    }
    Request& request = requests_[principal];
    request.known_name = name;
    request.rules.push_back({VexaCCC::DB::_k::guest, id_, rule.allow});
    request.names.insert(NameOf(rule));
  }

  // Returns the users and groups that could not be set.
  std::vector<std::string> Commit() {
    std::set<std::string> failed;
    if (!CommitPlanned(*environment_.store, [&] { return Plan(failed); })) {
      for (const auto& [principal, request] : requests_) failed.insert(request.names.begin(), request.names.end());
    }
    failed.insert(impossible_.begin(), impossible_.end());
    return {failed.begin(), failed.end()};
  }

 private:
  // What to commit. `failed` includes users who have been deleted meanwhile, and those whose record is damaged or was
  // given to another principal; such a record is left unchanged.
  Result<store::Transaction> Plan(std::set<std::string>& failed) const {
    failed.clear();
    store::Transaction transaction;
    if (requests_.empty()) return transaction;
    const auto snapshot = environment_.store->Read();
    if (!snapshot) return snapshot.error();
    for (const auto& [principal, request] : requests_) {
      const Status put = PutChanged(**snapshot, principal, request, transaction);
      if (put) continue;
      const ErrorCode code = put.error().code();
      const bool is_theirs_alone =
          code == ErrorCode::kCorrupt || code == ErrorCode::kDenied || code == ErrorCode::kNotFound;
      if (!is_theirs_alone) return put.error();
      failed.insert(request.names.begin(), request.names.end());
    }
    return transaction;
  }

  Status PutChanged(const store::Snapshot& snapshot, const PrincipalKey& principal, const Request& request,
                    store::Transaction& transaction) const {
    const std::string key = GuestAdminKey(GuestAdminIdentifier(principal.first, principal.second));
    Result<StoredObject> stored = LoadObject(snapshot, key);
    if (!stored) return stored.error();
    const Result<bool> differs = ApplyRules(*stored, key, request.known_name, request.rules);
    if (!differs) return differs.error();
    if (!*differs) return {};
    // First, so that a refusal leaves nothing in the transaction of the others.
    const Status compared = CompareAccount(snapshot, principal.first, principal.second, seen_, transaction);
    if (compared) PutObject(transaction, key, *stored);
    return compared;
  }

  const Environment& environment_;
  const std::string& id_;
  const store::Revision seen_;
  std::map<PrincipalKey, Request> requests_;
  std::set<std::string> impossible_;
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
