#include "cli/grant_command.h"

#include <functional>
#include <iostream>

#include "cli/printable.h"
#include "host/accounts/account_nss.h"
#include "host/base/uuid.h"
#include "host/records/guest_admin.h"
#include "host/records/guest_admin_record.h"
#include "host/records/object_edit.h"

namespace vexa::cli {
namespace {

using Edit = std::function<void(Json::Value& record)>;

std::string_view WordOf(AccountKind kind) {
  return kind == AccountKind::kUser ? cluster::kUsersKind : cluster::kGroupsKind;
}

std::string KeyOf(AccountKind kind, std::uint32_t id) {
  return cluster::GuestAdminKey(cluster::GuestAdminIdentifier(WordOf(kind), id));
}

Result<store::Transaction> PlanEdit(const store::Store& store, AccountKind kind, const FoundAccount& account,
                                    const Edit& edit) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const std::string key = KeyOf(kind, account.id);
  Result<cluster::StoredObject> stored = cluster::LoadObject(**snapshot, key);
  if (!stored) return stored.error();
  if (const Status given = cluster::CheckGivenTo(stored->record, key, account.name); !given) return given.error();
  Json::Value record = cluster::NewGrantRecord(account.name, "user");
  for (const std::string& member : stored->record.getMemberNames()) {
    if (!stored->record[member].isNull()) record[member] = stored->record[member];
  }
  edit(record);
  stored->record = std::move(record);
  store::Transaction transaction;
  cluster::PutObject(transaction, key, *stored);
  const Status compared = cluster::CompareAccount(**snapshot, WordOf(kind), account.id, account.seen, transaction);
  if (!compared) return compared.error();
  return transaction;
}

Result<FoundAccount> FindInSystem(const GrantTarget& target) {
  // Whoever was deleted in the store has nothing to do with the machine's own.
  constexpr store::Revision kSeenAll = UINT64_MAX;
  if (target.kind == AccountKind::kUser) {
    const auto user = base::NssFindUser(target.name);
    if (!user) return user.error();
    return FoundAccount{user->uid, user->name, kSeenAll};
  }
  const auto group = base::NssFindGroup(target.name);
  if (!group) return group.error();
  return FoundAccount{group->gid, group->name, kSeenAll};
}

ExitCode RunEdit(const GlobalOptions& global, const GrantTarget& target, const Edit& edit, const std::string& done) {
  const Result<FoundAccount> account = FindAccount(target);
  if (!account) return Report(account.error());
  const auto store = OpenStore(target.places, MissingStore::kCreate);
  if (!store) return Report(store.error());
  const Status status = cluster::CommitPlanned(**store, [&] { return PlanEdit(**store, target.kind, *account, edit); });
  if (!status) return Report(status.error());
  if (!global.quiet) std::cout << done << '\n';
  return ExitCode::kOk;
}

ExitCode RunEditGuests(const GlobalOptions& global, const GrantTarget& target,
                       const std::vector<std::string>& guest_ids,
                       const std::function<void(Json::Value& guests, const std::string& id)>& edit,
                       const std::string& done) {
  for (const std::string& id : guest_ids) {
    if (!IsUuidForm(id)) return Report(Error(ErrorCode::kInvalid, "'" + id + "' is not the id of a guest (a UUID)"));
  }
  const auto edit_all = [&](Json::Value& record) {
    for (const std::string& id : guest_ids) edit(record["guests"], id);
  };
  return RunEdit(global, target, edit_all, done);
}

}  // namespace

Result<FoundAccount> FindAccount(const GrantTarget& target) {
  if (target.source == NameSource::kSystem) return FindInSystem(target);
  const auto accounts = OpenAccounts(target.places, MissingStore::kRefuse);
  if (!accounts) return accounts.error();
  const auto store = OpenStore(target.places, MissingStore::kRefuse);
  if (!store) return store.error();
  const store::Revision seen = cluster::RevisionBeforeLookup(**store);
  if (target.kind == AccountKind::kUser) {
    const auto user = (*accounts)->FindUser(target.name);
    if (!user) return user.error();
    return FoundAccount{user->uid, user->name, seen};
  }
  const auto group = (*accounts)->FindGroup(target.name);
  if (!group) return group.error();
  return FoundAccount{group->gid, group->name, seen};
}

ExitCode RunGrant(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids) {
  return RunEditGuests(
      global, target, guest_ids, [](Json::Value& guests, const std::string& id) { guests[id] = true; },
      "Granted to '" + Printable(target.name) + "'.");
}

ExitCode RunRevoke(const GlobalOptions& global, const GrantTarget& target, const std::vector<std::string>& guest_ids) {
  return RunEditGuests(
      global, target, guest_ids, [](Json::Value& guests, const std::string& id) { guests.removeMember(id); },
      "Revoked from '" + Printable(target.name) + "'.");
}

ExitCode RunSetLevel(const GlobalOptions& global, const GrantTarget& target, AuthLevel level) {
  const char* word = level == AuthLevel::kAdvanced ? "advanced" : "user";
  return RunEdit(
      global, target, [&](Json::Value& record) { record["authlevel"] = word; },
      "The level of '" + Printable(target.name) + "' is now '" + word + "'.");
}

ExitCode RunDropGrants(const GlobalOptions& global, const GrantTarget& target) {
  const Result<FoundAccount> account = FindAccount(target);
  if (!account) return Report(account.error());
  const auto store = OpenStore(target.places, MissingStore::kRefuse);
  if (!store) return Report(store.error());
  const auto committed = (*store)->Commit({{}, {{KeyOf(target.kind, account->id), std::nullopt}}});
  if (!committed) return Report(committed.error());
  if (!global.quiet) std::cout << "Dropped what was granted to '" << Printable(account->name) << "'.\n";
  return ExitCode::kOk;
}

}  // namespace vexa::cli
