// Sets which users and groups may use one guest, by changing their records in one commit.
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <syslog.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/base/sanitize_for_log.h"
#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "host/records/guest_admin_record.h"
#include "host/records/last_finding.h"
#include "host/records/object_edit.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::platform {
namespace {

using VexaCCC::Rule;
using VexaCCC::tagGuestAdminRule;

constexpr std::uint32_t kNoId = UINT32_MAX;
constexpr std::size_t kMaxShown = 512;

// The requested change of one principal's record.
struct RecordChange {
  std::string local_name;  // the principal's name on this host
  std::vector<Rule> rules;
  std::set<std::string> names;  // the names that the rules use for the principal, for messages
};
using PrincipalKey = std::pair<std::string, std::uint32_t>;  // kind and id

std::string NameOf(const tagGuestAdminRule& rule) { return rule.name.empty() ? std::to_string(rule.id) : rule.name; }

// The principal's name on this host; "" if there is no such user or group, or it cannot be determined.
std::string LocalPrincipalName(const accounts::AccountProvider& accounts, const PrincipalKey& principal) {
  if (principal.first == records::kUsersKind) {
    const auto user = accounts.FindUserByUid(principal.second);
    return user ? user->name : std::string();
  }
  const auto group = accounts.FindGroupByGid(principal.second);
  return group ? group->name : std::string();
}

class GuestRights {
 public:
  GuestRights(const records::Environment& environment, const std::string& guest_id)
      : environment_(environment),
        guest_id_(guest_id),
        lookup_revision_(records::RevisionBeforeLookup(*environment.store)) {}

  void Add(const tagGuestAdminRule& rule) {
    const bool has_kind = rule.kind == records::kUsersKind || rule.kind == records::kGroupsKind;
    if (!records::IsValidGuestId(guest_id_) || !has_kind || rule.id == kNoId) {
      invalid_names_.insert(NameOf(rule));
      return;
    }
    const PrincipalKey principal{rule.kind, rule.id};
    const std::string name = LocalPrincipalName(*environment_.accounts, principal);
    if (name.empty()) {
      invalid_names_.insert(NameOf(rule));
      return;
    }
    RecordChange& change = changes_[principal];
    change.local_name = name;
    change.rules.push_back({VexaCCC::DB::_k::guest, guest_id_, rule.allow});
    change.names.insert(NameOf(rule));
  }

  // Returns the users and groups that could not be set. What was changed is in the system log.
  std::vector<std::string> Commit() {
    std::set<std::string> failed;
    if (!records::CommitWithRetry(*environment_.store,
                                  [&](const records::Reader& reader) { return Plan(reader, failed); })) {
      for (const auto& [principal, change] : changes_) failed.insert(change.names.begin(), change.names.end());
    } else {
      LogChanges();
    }
    failed.insert(invalid_names_.begin(), invalid_names_.end());
    return {failed.begin(), failed.end()};
  }

 private:
  // Returns what to commit. `failed` receives the principals that have been deleted meanwhile, and those whose record
  // is damaged or belongs to another principal; such a record is left unchanged.
  Result<store::Transaction> Plan(const records::Reader& reader, std::set<std::string>& failed) {
    failed.clear();
    changed_.clear();
    store::Transaction transaction;
    if (changes_.empty()) return transaction;
    for (const auto& [principal, change] : changes_) {
      const Status put = PutChangedRecord(reader, principal, change, transaction);
      if (put) continue;
      const ErrorCode code = put.error().code();
      const bool affects_only_this_principal =
          code == ErrorCode::kCorrupt || code == ErrorCode::kDenied || code == ErrorCode::kNotFound;
      if (!affects_only_this_principal) return put.error();
      failed.insert(change.names.begin(), change.names.end());
    }
    return transaction;
  }

  Status PutChangedRecord(const store::Snapshot& snapshot, const PrincipalKey& principal, const RecordChange& change,
                          store::Transaction& transaction) {
    const std::string key = records::GuestAdminKey(records::GuestAdminIdentifier(principal.first, principal.second));
    Result<records::StoredObject> stored = records::LoadObject(snapshot, key);
    if (!stored) return stored.error();
    const Result<bool> differs = records::ApplyGrantRules(*stored, key, change.local_name, change.rules);
    if (!differs) return differs.error();
    if (!*differs) return {};
    // Checked first, so that a refusal adds nothing to the shared transaction.
    const Status checked =
        records::AddAccountCompare(snapshot, principal.first, principal.second, lookup_revision_, transaction);
    if (!checked) return checked;
    records::PutObject(transaction, key, *stored);
    changed_.push_back(fmt::format("the {} [{}] {} use it", principal.first == records::kUsersKind ? "user" : "group",
                                   change.local_name, change.rules.back().allow ? "may" : "may no longer"));
    return {};
  }

  void LogChanges() const {
    if (changed_.empty()) return;
    const std::string user(environment_.acting_user ? environment_.acting_user() : std::string_view());
    ::syslog(LOG_NOTICE, "User[%s] has changed the rights on the virtual machine [%s]: %s.", user.c_str(),
             guest_id_.c_str(), fmt::format("{}", fmt::join(changed_, ", ")).c_str());
  }

  const records::Environment& environment_;
  const std::string& guest_id_;
  const store::Revision lookup_revision_;
  std::map<PrincipalKey, RecordChange> changes_;
  std::vector<std::string> changed_;  // what differs from before, as parts of a sentence
  std::set<std::string> invalid_names_;
};

}  // namespace
}  // namespace vexa::platform

namespace VexaCCC {

int gaGuestSet(const std::string& guest_id, const std::vector<tagGuestAdminRule>& rules,
               std::vector<std::string>& failed_users) {
  failed_users.clear();
  const vexa::records::Environment* environment = vexa::records::CurrentEnvironment();
  if (!environment) return -1;
  vexa::platform::GuestRights rights(*environment, guest_id);
  for (const tagGuestAdminRule& rule : rules) rights.Add(rule);
  failed_users = rights.Commit();
  if (!failed_users.empty()) {
    const std::string names = fmt::format("{}", fmt::join(failed_users, "', '"));
    vexa::records::FindingScope::Add(
        {fmt::format("These users or groups do not exist here, or their records could not be changed: '{}'.",
                     vexa::SanitizeForLog(names, vexa::platform::kMaxShown)),
         true});
  }
  return failed_users.empty() ? 0 : -1;
}

}  // namespace VexaCCC
