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
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

using Edit = std::function<void(Json::Value& record)>;

constexpr char kName[] = "name";

std::string_view KindOf(records::AccountKind kind) {
  return kind == records::AccountKind::kUser ? records::kUsersKind : records::kGroupsKind;
}

std::string KeyOf(records::AccountKind kind, std::uint32_t id) {
  return records::GuestAdminKey(records::GuestAdminIdentifier(KindOf(kind), id));
}

// Adds the change of the principal's record to `transaction`. Keeps unknown members of the record.
Status AddEdit(const store::Snapshot& snapshot, const GrantPrincipal& principal, const Edit& edit,
               store::Transaction& transaction) {
  const std::string key = KeyOf(principal.kind, principal.id);
  Result<records::StoredObject> stored = records::LoadObject(snapshot, key);
  if (!stored) return stored.error();
  if (Status owned = records::CheckBelongsTo(stored->record, key, principal.name); !owned) return owned;
  Json::Value record = records::NewGrantRecord(principal.name, GrantLevelName(GrantLevel::kUser));
  for (const std::string& member : json::MemberNames(stored->record)) {
    if (!stored->record[member].isNull()) record[member] = stored->record[member];
  }
  edit(record);
  stored->record = std::move(record);
  records::PutObject(transaction, key, *stored);
  return records::AddAccountCompare(snapshot, KindOf(principal.kind), principal.id, principal.seen, transaction);
}

Status Change(store::Store& store, const GrantPrincipal& principal, const Edit& edit) {
  return CommitAccountChange(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    store::Transaction transaction;
    if (const Status added = AddEdit(reader, principal, edit, transaction); !added) return added.error();
    return transaction;
  });
}

// Guests' ids are in lower case; records of older versions may have others.
std::string NormalizeGuestId(const std::string& id) {
  std::string normal = NormalizeUuid(id);
  return normal.empty() ? id : normal;
}

std::set<std::string> NormalizedIds(const std::vector<std::string>& guest_ids) {
  std::set<std::string> normal;
  for (const std::string& id : guest_ids) normal.insert(NormalizeGuestId(id));
  return normal;
}

void RemoveConsoles(Json::Value& record, const std::set<std::string>& guest_ids) {
  for (const std::string& id : json::MemberNames(json::Member(record, records::kConsoles))) {
    if (guest_ids.contains(NormalizeGuestId(id))) records::RemoveConsole(record, id);
  }
}

template <class Found>
GrantPrincipal PrincipalOf(records::AccountKind kind, const Found& found, std::uint32_t id, store::Revision seen) {
  return {kind, id, found.name, seen};
}

Result<GrantRecord> ParseGrantRecord(records::AccountKind kind, std::uint32_t id, const std::string& key,
                                     const Json::Value& stored) {
  if (const Status intact = records::CheckBelongsTo(stored, key, ""); !intact) return intact.error();
  GrantRecord record;
  record.kind = kind;
  record.id = id;
  record.name = json::String(json::Member(stored, kName));
  const bool is_advanced = json::String(json::Member(stored, keys::authlevel)) == records::kAdvancedLevel;
  record.level = is_advanced ? GrantLevel::kAdvanced : GrantLevel::kUser;
  const Json::Value& guests = json::Member(stored, keys::guests);
  record.guest_ids = json::MemberNames(guests);
  for (const std::string& id_of_guest : json::MemberNames(json::Member(stored, records::kConsoles))) {
    if (json::FindMember(guests, id_of_guest)) record.console_ids.push_back(id_of_guest);
  }
  return record;
}

}  // namespace

std::string_view GrantLevelName(GrantLevel level) {
  return level == GrantLevel::kAdvanced ? records::kAdvancedLevel : "user";
}

Result<GrantPrincipal> FindPrincipal(const AccountStore& accounts, const store::Store& store, records::AccountKind kind,
                                     const PrincipalNameOrId& name_or_id) {
  const store::Revision seen = records::RevisionBeforeLookup(store);
  const auto* const name = std::get_if<std::string>(&name_or_id);
  const std::uint32_t id = name ? 0 : std::get<std::uint32_t>(name_or_id);
  if (kind == records::AccountKind::kUser) {
    const Result<accounts::User> user = name ? accounts.FindUser(*name) : accounts.FindUserByUid(id);
    if (!user) return user.error();
    return PrincipalOf(kind, *user, user->uid, seen);
  }
  const Result<accounts::Group> group = name ? accounts.FindGroup(*name) : accounts.FindGroupByGid(id);
  if (!group) return group.error();
  return PrincipalOf(kind, *group, group->gid, seen);
}

Result<GrantPrincipal> FindSystemPrincipal(records::AccountKind kind, const PrincipalNameOrId& name_or_id) {
  // So that AddAccountCompare finds no deletion after it: accounts deleted in the store are not those of the machine.
  constexpr store::Revision kLatestRevision = UINT64_MAX;
  const auto* const name = std::get_if<std::string>(&name_or_id);
  const std::uint32_t id = name ? 0 : std::get<std::uint32_t>(name_or_id);
  if (kind == records::AccountKind::kUser) {
    const auto user = name ? accounts::NssFindUser(*name) : accounts::NssFindUserByUid(id);
    if (!user) return user.error();
    return PrincipalOf(kind, *user, user->uid, kLatestRevision);
  }
  const auto group = name ? accounts::NssFindGroup(*name) : accounts::NssFindGroupByGid(id);
  if (!group) return group.error();
  return PrincipalOf(kind, *group, group->gid, kLatestRevision);
}

Status GrantGuests(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids) {
  return Change(store, principal, [&](Json::Value& record) {
    for (const std::string& id : guest_ids) record[keys::guests][NormalizeGuestId(id)] = true;
  });
}

Status AddGrant(const store::Snapshot& snapshot, const GrantPrincipal& principal, const std::string& guest_id,
                store::Transaction& transaction) {
  return AddEdit(
      snapshot, principal, [&](Json::Value& record) { record[keys::guests][NormalizeGuestId(guest_id)] = true; },
      transaction);
}

Status GrantConsoles(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids) {
  return Change(store, principal, [&](Json::Value& record) {
    Json::Value& consoles = record[records::kConsoles];
    if (!consoles.isObject()) consoles = Json::Value(Json::objectValue);
    for (const std::string& id : guest_ids) {
      record[keys::guests][NormalizeGuestId(id)] = true;
      consoles[NormalizeGuestId(id)] = true;
    }
  });
}

Status RevokeConsoles(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids) {
  return Change(store, principal, [&](Json::Value& record) { RemoveConsoles(record, NormalizedIds(guest_ids)); });
}

Status RevokeGuests(store::Store& store, const GrantPrincipal& principal, const std::vector<std::string>& guest_ids) {
  const std::set<std::string> revoked = NormalizedIds(guest_ids);
  return Change(store, principal, [&](Json::Value& record) {
    RemoveConsoles(record, revoked);
    Json::Value& guests = record[keys::guests];
    for (const std::string& id : json::MemberNames(guests)) {
      // The overload for C strings stops at a NUL.
      if (revoked.contains(NormalizeGuestId(id))) guests.removeMember(id.data(), id.data() + id.size(), nullptr);
    }
  });
}

Status SetGrantLevel(store::Store& store, const GrantPrincipal& principal, GrantLevel level) {
  return Change(store, principal,
                [&](Json::Value& record) { record[keys::authlevel] = std::string(GrantLevelName(level)); });
}

Status DropGrants(store::Store& store, records::AccountKind kind, std::uint32_t id) {
  const auto committed = store.Commit({{}, {{KeyOf(kind, id), std::nullopt}}});
  if (!committed) return StoreFailure(committed.error());
  return {};
}

Result<std::optional<GrantRecord>> ReadGrants(const store::Snapshot& snapshot, records::AccountKind kind,
                                              std::uint32_t id) {
  const std::string key = KeyOf(kind, id);
  const Result<records::StoredObject> stored = records::LoadObject(snapshot, key);
  if (!stored) return stored.error();
  if (stored->revision == 0) return std::optional<GrantRecord>();
  Result<GrantRecord> record = ParseGrantRecord(kind, id, key, stored->record);
  if (!record) return record.error();
  return std::optional<GrantRecord>(*std::move(record));
}

Result<AllGrants> ReadAllGrants(const store::Snapshot& snapshot) {
  const auto identifiers = snapshot.Children(records::CategoryKey(VexaCCC::DB::DashCate::GuestAdmin.name()));
  if (!identifiers) return identifiers.error();
  AllGrants all;
  for (const std::string& identifier : *identifiers) {
    const auto owner = records::ParseGuestAdminIdentifier(identifier);
    if (!owner) {
      all.damaged.push_back(identifier);
      continue;
    }
    const records::AccountKind kind =
        owner->kind == records::kUsersKind ? records::AccountKind::kUser : records::AccountKind::kGroup;
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
