#include "host/cluster/console_right.h"

#include <utility>
#include <vector>

#include "host/records/guest_admin.h"
#include "host/records/guest_admin_record.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {

Result<bool> MayOpenConsole(const store::Snapshot& snapshot, const accounts::User& user, const std::string& guest_id) {
  if (user.is_administrator) return true;
  std::vector<std::pair<std::string, std::string>> principals{
      {records::GuestAdminIdentifier(records::kUsersKind, user.uid), user.name}};
  for (const accounts::Group& group : user.groups) {
    principals.emplace_back(records::GuestAdminIdentifier(records::kGroupsKind, group.gid), group.name);
  }
  bool may_use = false;
  bool has_console = false;
  for (const auto& [identifier, name] : principals) {
    const Result<records::StoredObject> stored = records::LoadObject(snapshot, records::GuestAdminKey(identifier));
    if (!stored) return stored.error();
    if (!records::BelongsTo(stored->record, name)) continue;
    const auto has = [&](const char* member) {
      return json::FindMember(json::Member(stored->record, member), guest_id) != nullptr;
    };
    may_use = may_use || has(keys::guests);
    has_console = has_console || has(records::kConsoles);
  }
  return may_use && has_console;
}

}  // namespace vexa::cluster
