#include "host/records/guest_admin.h"

#include <syslog.h>

#include <set>
#include <utility>
#include <vector>

#include "host/base/mutex.h"
#include "host/records/environment.h"
#include "host/records/guest_admin_record.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::platform {
namespace {

// Logs that `record` belongs to a principal with another name. Requests read the same records repeatedly, so this logs
// each id and name only once.
void LogForeignRecord(const std::string& identifier, const Json::Value& record, const std::string& name) {
  constexpr std::size_t kMaxRemembered = 4096;
  static Mutex mutex;
  static std::set<std::string> logged VEXA_GUARDED_BY(mutex);
  {
    const MutexLock lock(mutex);
    if (logged.size() >= kMaxRemembered || !logged.insert(identifier + ' ' + name).second) return;
  }
  const Status refused = records::CheckBelongsTo(record, records::GuestAdminKey(identifier), name);
  if (!refused) ::syslog(LOG_WARNING, "%s.", refused.error().ToString().c_str());
}

// Returns the guest-admin records that apply to `user`: the user's own first, then those of the user's groups. Skips
// missing records, and records that belong to a principal with another name, because hosts may assign the same id to
// different users.
Result<std::vector<records::Record>> ReadRecordsForUser(const std::string& user) {
  const records::Environment* environment = records::CurrentEnvironment();
  if (!environment) return Error(ErrorCode::kUnavailable, "The cluster database is not open");
  const Result<accounts::User> found = environment->accounts->FindUser(user);
  if (!found) return found.error();
  std::vector<std::pair<std::string, std::string>> principals{
      {records::GuestAdminIdentifier(records::kUsersKind, found->uid), found->name}};
  for (const accounts::Group& group : found->groups) {
    principals.emplace_back(records::GuestAdminIdentifier(records::kGroupsKind, group.gid), group.name);
  }
  const auto reader = records::ReaderOfRequest();
  if (!reader) return reader.error();
  std::vector<records::Record> records;
  for (const auto& [identifier, name] : principals) {
    Result<records::Record> record = (*reader)->ReadRecord(records::GuestAdminKey(identifier));
    if (!record) return record.error();
    if (!*record) continue;
    if (records::BelongsTo(**record, name)) {
      records.push_back(std::move(*record));
    } else {
      LogForeignRecord(identifier, **record, name);
    }
  }
  return records;
}

}  // namespace
}  // namespace vexa::platform

namespace VexaCCC {

int gaIsAdvancedUser(const std::string& user) {
  const auto records = vexa::platform::ReadRecordsForUser(user);
  if (!records) return -1;
  for (const auto& record : *records) {
    if (vexa::json::String(vexa::json::Member(*record, DB::_k::authlevel)) == vexa::records::kAdvancedLevel) {
      return 1;
    }
  }
  return 0;
}

int gaUserListAvail(const std::string& user, const std::string& category, std::set<std::string>& ids) {
  // There are no grants for other kinds of objects.
  if (category != DB::_k::guest) return -1;
  const auto records = vexa::platform::ReadRecordsForUser(user);
  if (!records) return -1;
  for (const auto& record : *records) {
    const Json::Value& guests = vexa::json::Member(*record, DB::_k::guests);
    if (!guests.isObject()) continue;
    // The names come in byte order, so the end is usually the right position.
    for (auto grant = guests.begin(); grant != guests.end(); ++grant) ids.insert(ids.end(), grant.name());
  }
  return 0;
}

}  // namespace VexaCCC
