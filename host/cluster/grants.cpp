#include "host/cluster/grants.h"

#include <algorithm>
#include <functional>
#include <set>
#include <utility>

#include "host/accounts/account_nss.h"
#include "host/base/uuid.h"
#include "host/cluster/account_commit.h"
#include "host/records/guest_admin.h"
#include "host/records/guest_admin_record.h"
#include "host/records/object_edit.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;

using Edit = std::function<void(Json::Value& record)>;

constexpr char kName[] = "name";

std::string_view KindOf(AccountKind kind) { return kind == AccountKind::kUser ? kUsersKind : kGroupsKind; }

std::string KeyOf(AccountKind kind, std::uint32_t id) { return GuestAdminKey(GuestAdminIdentifier(KindOf(kind), id)); }

// Members of the record that are not known stay.
Result<store::Transaction> PlanEdit(const store::Store& store, const GrantPrincipal& principal, const Edit& edit) {
  const auto snapshot = store.Read();
  if (!snapshot) return StoreFailure(snapshot.error());
  const std::string key = KeyOf(principal.kind, principal.id);
  Result<StoredObject> stored = LoadObject(**snapshot, key);
  if (!stored) return stored.error();
  if (const Status given = CheckGivenTo(stored->record, key, principal.name); !given) return given.error();
  Json::Value record = NewGrantRecord(principal.name, WordOf(GrantLevel::kUser));
  for (const std::string& member : json::MemberNames(stored->record)) {
    if (!stored->record[member].isNull()) record[member] = stored->record[member];
  }
  edit(record);
  stored->record = std::move(record);
  store::Transaction transaction;
  PutObject(transaction, key, *stored);
  const Status compared = CompareAccount(**snapshot, KindOf(principal.kind), principal.id, principal.seen, transaction);
  if (!compared) return compared.error();
  return transaction;
}

Status Change(store::Store& store, const GrantPrincipal& principal, const Edit& edit) {
  return CommitAccountChange(store, [&] { return PlanEdit(store, principal, edit); });
}

// Guests' ids are in lower case; records of older versions may have others.
std::string NormalId(const std::string& id) {
  std::string normal = NormalizeUuid(id);
  return normal.empty() ? id : normal;
}

template <class Found>
GrantPrincipal PrincipalOf(AccountKind kind, const Found& found, std::uint32_t id, store::Revision seen) {
  return {kind, id, found.name, seen};
}

Result<GrantRecord> Understand(AccountKind kind, std::uint32_t id, const std::string& key, const Json::Value& stored) {
  if (const Status whole = CheckGivenTo(stored, key, ""); !whole) return whole.error();
  GrantRecord record;
  record.kind = kind;
  record.id = id;
  record.name = json::String(json::Member(stored, kName));
  const bool is_advanced = json::String(json::Member(stored, keys::authlevel)) == kAdvancedLevel;
  record.level = is_advanced ? GrantLevel::kAdvanced : GrantLevel::kUser;
  record.guest_ids = json::MemberNames(json::Member(stored, keys::guests));
  return record;
}

}  // namespace

std::string_view WordOf(GrantLevel level) { return level == GrantLevel::kAdvanced ? kAdvancedLevel : "user"; }

Result<GrantPrincipal> FindPrincipal(const AccountStore& accounts, const store::Store& store, AccountKind kind,
                                     const PrincipalWord& word) {
  const store::Revision seen = RevisionBeforeLookup(store);
  const auto* const name = std::get_if<std::string>(&word);
  const std::uint32_t id = name ? 0 : std::get<std::uint32_t>(word);
  if (kind == AccountKind::kUser) {
    const Result<base::User> user = name ? accounts.FindUser(*name) : accounts.FindUserByUid(id);
    if (!user) return user.error();
    return PrincipalOf(kind, *user, user->uid, seen);
  }
  const Result<base::Group> group = name ? accounts.FindGroup(*name) : accounts.FindGroupByGid(id);
  if (!group) return group.error();
  return PrincipalOf(kind, *group, group->gid, seen);
}

Result<GrantPrincipal> FindSystemPrincipal(AccountKind kind, const PrincipalWord& word) {
  // Whoever was deleted in the store has nothing to do with the machine's own.
  constexpr store::Revision kSeenAll = UINT64_MAX;
  const auto* const name = std::get_if<std::string>(&word);
  const std::uint32_t id = name ? 0 : std::get<std::uint32_t>(word);
  if (kind == AccountKind::kUser) {
    const auto user = name ? base::NssFindUser(*name) : base::NssFindUserByUid(id);
    if (!user) return user.error();
    return PrincipalOf(kind, *user, user->uid, kSeenAll);
  }
  const auto group = name ? base::NssFindGroup(*name) : base::NssFindGroupByGid(id);
  if (!group) return group.error();
  return PrincipalOf(kind, *group, group->gid, kSeenAll);
}

Status GrantGuests(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids) {
  return Change(store, principal, [&](Json::Value& record) {
    for (const std::string& id : guest_ids) record[keys::guests][NormalId(id)] = true;
  });
}

Status RevokeGuests(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids) {
  std::set<std::string> revoked;
  for (const std::string& id : guest_ids) revoked.insert(NormalId(id));
  return Change(store, principal, [&](Json::Value& record) {
    Json::Value& guests = record[keys::guests];
    for (const std::string& id : json::MemberNames(guests)) {
      // The overload for C strings stops at a NUL.
      if (revoked.contains(NormalId(id))) guests.removeMember(id.data(), id.data() + id.size(), nullptr);
    }
  });
}

Status SetGrantLevel(store::Store& store, const GrantPrincipal& principal, GrantLevel level) {
  return Change(store, principal, [&](Json::Value& record) { record[keys::authlevel] = std::string(WordOf(level)); });
}

Status DropGrants(store::Store& store, AccountKind kind, std::uint32_t id) {
  const auto committed = store.Commit({{}, {{KeyOf(kind, id), std::nullopt}}});
  if (!committed) return StoreFailure(committed.error());
  return {};
}

Result<std::optional<GrantRecord>> ReadGrants(const store::Snapshot& snapshot, AccountKind kind, std::uint32_t id) {
  const std::string key = KeyOf(kind, id);
  const Result<StoredObject> stored = LoadObject(snapshot, key);
  if (!stored) return stored.error();
  if (stored->revision == 0) return std::optional<GrantRecord>();
  Result<GrantRecord> record = Understand(kind, id, key, stored->record);
  if (!record) return record.error();
  return std::optional<GrantRecord>(*std::move(record));
}

Result<AllGrants> ReadAllGrants(const store::Snapshot& snapshot) {
  const auto identifiers = snapshot.Children(store::MakeKey({"dash", VexaCCC::DB::DashCate::GuestAdmin.name()}));
  if (!identifiers) return identifiers.error();
  AllGrants all;
  for (const std::string& identifier : *identifiers) {
    const auto owner = ParseGuestAdminIdentifier(identifier);
    if (!owner) {
      all.damaged.push_back(identifier);
      continue;
    }
    const AccountKind kind = owner->kind == kUsersKind ? AccountKind::kUser : AccountKind::kGroup;
    Result<std::optional<GrantRecord>> record = ReadGrants(snapshot, kind, owner->id);
    if (!record && record.error().code() != ErrorCode::kCorrupt) return record.error();
    if (!record) {
      all.damaged.push_back(identifier);
    } else if (*record) {
      all.records.push_back(**std::move(record));
    }
  }
  std::stable_sort(all.records.begin(), all.records.end(),
                   [](const GrantRecord& a, const GrantRecord& b) { return a.kind < b.kind; });
  return all;
}

}  // namespace vexa::cluster
