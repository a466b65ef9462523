#include "host/records/guest_admin.h"

#include <charconv>
#include <system_error>

#include "host/records/guest_admin_record.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {
namespace {

// Returns whether the guest was in the record.
bool RemoveGuestFrom(Json::Value& record, const std::string& guest_id) {
  const bool had_console = RemoveConsole(record, guest_id);
  if (!json::FindMember(json::Member(record, keys::guests), guest_id)) return had_console;
  // The overload for C strings stops at a NUL.
  return record[keys::guests].removeMember(guest_id.data(), guest_id.data() + guest_id.size(), nullptr) || had_console;
}

}  // namespace

std::string GuestAdminIdentifier(std::string_view kind, std::uint32_t numeric_id) {
  return std::string(kind) + "-" + std::to_string(numeric_id);
}

std::optional<GuestAdminPrincipal> ParseGuestAdminIdentifier(std::string_view text) {
  for (const std::string_view kind : {kUsersKind, kGroupsKind}) {
    if (!text.starts_with(kind) || text.size() <= kind.size() + 1) continue;
    const std::string_view digits = text.substr(kind.size() + 1);
    std::uint32_t number = 0;
    const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (parsed.ec != std::errc() || text != GuestAdminIdentifier(kind, number)) return std::nullopt;
    return GuestAdminPrincipal{kind, number};
  }
  return std::nullopt;
}

std::string GuestAdminKey(std::string_view identifier) {
  return ObjectKey(VexaCCC::DB::DashCate::GuestAdmin.name(), identifier);
}

// A damaged record must not hold up the other records until it is repaired.
Status AddGrantRemovals(const store::Snapshot& snapshot, const std::string& guest_id, store::Transaction& transaction,
                        std::vector<Error>& damage) {
  const auto identifiers = snapshot.Children(CategoryKey(VexaCCC::DB::DashCate::GuestAdmin.name()));
  if (!identifiers) return identifiers.error();
  for (const std::string& identifier : *identifiers) {
    const std::string key = GuestAdminKey(identifier);
    Result<StoredObject> stored = LoadObject(snapshot, key);
    if (!stored && stored.error().code() != ErrorCode::kCorrupt) return stored.error();
    if (!stored) {
      damage.push_back(stored.error());
      continue;
    }
    if (const Status intact = CheckBelongsTo(stored->record, key, ""); !intact) {
      damage.push_back(intact.error());
    } else if (RemoveGuestFrom(stored->record, guest_id)) {
      PutObject(transaction, key, *stored);
    }
  }
  return {};
}

}  // namespace vexa::records
