#include "host/cluster/settings.h"

#include <string>

#include "host/cluster/versions.h"
#include "host/records/object_edit.h"
#include "host/records/reading.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::cluster {
namespace {

constexpr char kAutoSelectHost[] = "auto_select_host";
constexpr char kIncompatible[] = "incompatible";

std::string ClusterKey() { return store::MakeKey({"settings", "cluster"}); }
std::string UpgradeKey() { return store::MakeKey({"settings", "upgrade"}); }

Result<bool> ReadSetting(const std::string& key, const char* name, bool otherwise) {
  const Result<Record> record = ReadRecord(key);
  if (!record) return record.error();
  if (!*record) return otherwise;
  const Json::Value* setting = json::FindMember(**record, name);
  if ((*record)->isObject() && !setting) return otherwise;
  if (setting && setting->isBool()) return setting->asBool();
  return Error(ErrorCode::kCorrupt,
               "The setting '" + std::string(name) + "' in '" + key + "' is neither true nor false");
}

Status WriteSetting(store::Store& store, const std::string& key, const char* name, const Json::Value& value) {
  return CommitPlanned(store, [&]() -> Result<store::Transaction> {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    Result<StoredObject> stored = LoadObject(**snapshot, key);
    if (!stored) return stored.error();
    store::Transaction transaction;
    if (stored->revision != 0 && json::Member(stored->record, name) == value) return transaction;
    stored->record[name] = value;
    PutObject(transaction, key, *stored);
    return transaction;
  });
}

int ReadUpgradeFlag() {
  const Result<UpgradeSettings> settings = ReadUpgradeSettings();
  if (!settings) return -1;
  if (settings->incompatible) return 1;
  const Result<bool> found = HasIncompatibleHosts();
  if (!found) return -1;
  return *found ? 1 : 0;
}

}  // namespace

Result<ClusterSettings> ReadClusterSettings() {
  const Result<bool> setting = ReadSetting(ClusterKey(), kAutoSelectHost, ClusterSettings().auto_select_host);
  if (!setting) return setting.error();
  return ClusterSettings{*setting};
}

Result<UpgradeSettings> ReadUpgradeSettings() {
  const Result<bool> setting = ReadSetting(UpgradeKey(), kIncompatible, UpgradeSettings().incompatible);
  if (!setting) return setting.error();
  return UpgradeSettings{*setting};
}

Status WriteClusterSettings(store::Store& store, const ClusterSettings& settings) {
  return WriteSetting(store, ClusterKey(), kAutoSelectHost, settings.auto_select_host);
}

Status WriteUpgradeSettings(store::Store& store, const UpgradeSettings& settings) {
  return WriteSetting(store, UpgradeKey(), kIncompatible, settings.incompatible);
}

}  // namespace vexa::cluster

namespace VexaCCC {

// An unreadable setting may say no, and a guest that was assigned a host against it is harder to fix than one that was
// not started.
bool ClConfAutoSelHostGet() {
  const auto settings = vexa::cluster::ReadClusterSettings();
  return settings && settings->auto_select_host;
}

}  // namespace VexaCCC

// Called for every guest of a list, so it is determined once per request; all its guests are judged alike.
int CCCIsIncompatibleUpgrading() {
  using vexa::cluster::RequestScope;
  struct Found {
    std::uint64_t scope = 0;
    int flag = 0;
  };
  thread_local Found found;
  const std::uint64_t scope = RequestScope::Serial();
  if (scope == 0) return vexa::cluster::ReadUpgradeFlag();
  if (found.scope != scope) found = {scope, vexa::cluster::ReadUpgradeFlag()};
  return found.flag;
}
