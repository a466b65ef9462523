#include "host/records/guest_admin.h"

#include <syslog.h>

#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "host/records/environment.h"
#include "host/records/guest_admin_record.h"
#include "host/records/reading.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

// Requests ask for the same records repeatedly: one line for each id and name is enough.
void LogForeignRecord(const std::string& identifier, const Json::Value& record, const std::string& name) {
  constexpr std::size_t kMaxRemembered = 4096;
  static std::mutex mutex;
  static std::set<std::string> logged;
  {
    const std::lock_guard lock(mutex);
    if (logged.size() >= kMaxRemembered || !logged.insert(identifier + ' ' + name).second) return;
  }
  const Status refused = CheckGivenTo(record, GuestAdminKey(identifier), name);
  if (!refused) ::syslog(LOG_WARNING, "%s.", refused.error().ToString().c_str());
}

// The guest-admin records that apply to `user`: their own first, then those of their groups. Left out are missing
// records, and those given to another name, because hosts may assign an id to different users.
Result<std::vector<Record>> RecordsOf(const std::string& user) {
  const Environment* environment = CurrentEnvironment();
  if (!environment) return Error(ErrorCode::kUnavailable, "The cluster database is not open");
  const Result<base::User> found = environment->accounts->FindUser(user);
  if (!found) return found.error();
  std::vector<std::pair<std::string, std::string>> principals{
      {GuestAdminIdentifier(kUsersKind, found->uid), found->name}};
  for (const base::Group& group : found->groups) {
    principals.emplace_back(GuestAdminIdentifier(kGroupsKind, group.gid), group.name);
  }
  std::vector<Record> records;
  for (const auto& [identifier, name] : principals) {
    Result<Record> record = ReadRecord(GuestAdminKey(identifier));
    if (!record) return record.error();
    if (!*record) continue;
    if (IsGivenTo(**record, name)) {
      records.push_back(std::move(*record));
    } else {
      LogForeignRecord(identifier, **record, name);
    }
  }
  return records;
}

}  // namespace
}  // namespace vexa::cluster

namespace VexaCCC {

int gaIsAdvancedUser(const std::string& user) {
  const auto records = vexa::cluster::RecordsOf(user);
  if (!records) return -1;
  for (const auto& record : *records) {
    if (vexa::json::String(vexa::json::Member(*record, DB::_k::authlevel)) == vexa::cluster::kAdvancedLevel) {
      return 1;
    }
  }
  return 0;
}

int gaUserListAvail(const std::string& user, const std::string& category, std::set<std::string>& ids) {
  // There are no grants for other kinds of objects.
  if (category != DB::_k::guest) return -1;
  const auto records = vexa::cluster::RecordsOf(user);
  if (!records) return -1;
  for (const auto& record : *records) {
    const Json::Value& guests = vexa::json::Member(*record, DB::_k::guests);
    if (!guests.isObject()) continue;
    // The names come in byte order, so the last position is usually right.
    for (auto grant = guests.begin(); grant != guests.end(); ++grant) ids.insert(ids.end(), grant.name());
  }
  return 0;
}

}  // namespace VexaCCC
