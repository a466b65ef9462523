#include "host/cluster/settings.h"

#include <fmt/format.h>

#include <string>

#include "host/cluster/versions.h"
#include "host/records/object_edit.h"
#include "host/records/request_scope.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::cluster {
namespace {

constexpr char kAutoSelectHost[] = "auto_select_host";
constexpr char kIncompatible[] = "incompatible";

std::string ClusterKey() { return store::MakeKey({"settings", "cluster"}); }
std::string UpgradeKey() { return store::MakeKey({"settings", "upgrade"}); }
std::string PlacementKey() { return store::MakeKey({"settings", "placement"}); }

Result<bool> ReadSetting(const records::Reader& reader, const std::string& key, const std::string& name,
                         bool default_value) {
  const Result<records::Record> record = reader.ReadRecord(key);
  if (!record) return record.error();
  if (!*record) return default_value;
  const Json::Value* setting = json::FindMember(**record, name);
  if ((*record)->isObject() && !setting) return default_value;
  if (setting && setting->isBool()) return setting->asBool();
  return Error(ErrorCode::kCorrupt, fmt::format("The setting '{}' in '{}' is neither true nor false", name, key));
}

Status WriteSetting(store::Store& store, const std::string& key, const std::string& name, const Json::Value& value) {
  return records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    Result<records::StoredObject> stored = records::LoadObject(reader, key);
    if (!stored) return stored.error();
    store::Transaction transaction;
    if (stored->revision != 0 && json::Member(stored->record, name) == value) return transaction;
    stored->record[name] = value;
    records::PutObject(transaction, key, *stored);
    return transaction;
  });
}

int ReadUpgradeFlag() {
  const auto reader = records::ReaderOfRequest();
  if (!reader) return -1;
  const Result<UpgradeSettings> settings = ReadUpgradeSettings(**reader);
  if (!settings) return -1;
  if (settings->incompatible) return 1;
  const Result<bool> found = HasIncompatibleHosts(**reader);
  if (!found) return -1;
  return *found ? 1 : 0;
}

}  // namespace

Result<ClusterSettings> ReadClusterSettings(const records::Reader& reader) {
  const Result<bool> setting = ReadSetting(reader, ClusterKey(), kAutoSelectHost, ClusterSettings().auto_select_host);
  if (!setting) return setting.error();
  return ClusterSettings{*setting};
}

Result<UpgradeSettings> ReadUpgradeSettings(const records::Reader& reader) {
  const Result<bool> setting = ReadSetting(reader, UpgradeKey(), kIncompatible, UpgradeSettings().incompatible);
  if (!setting) return setting.error();
  return UpgradeSettings{*setting};
}

Result<bool> ReadPlacement(const records::Reader& reader, const std::string& host_id) {
  return ReadSetting(reader, PlacementKey(), host_id, true);
}

Status WriteClusterSettings(store::Store& store, const ClusterSettings& settings) {
  return WriteSetting(store, ClusterKey(), kAutoSelectHost, settings.auto_select_host);
}

Status WriteUpgradeSettings(store::Store& store, const UpgradeSettings& settings) {
  return WriteSetting(store, UpgradeKey(), kIncompatible, settings.incompatible);
}

Status WritePlacement(store::Store& store, const std::string& host_id, bool placement) {
  return WriteSetting(store, PlacementKey(), host_id, placement);
}

}  // namespace vexa::cluster

namespace VexaCCC {

// An unreadable setting counts as false: a guest on a wrong host is harder to fix than one that was not started.
bool ClConfAutoSelHostGet() {
  const auto reader = vexa::records::ReaderOfRequest();
  if (!reader) return false;
  const auto settings = vexa::cluster::ReadClusterSettings(**reader);
  return settings && settings->auto_select_host;
}

}  // namespace VexaCCC

// Called for every guest of a list, so the flag is read once per request, and is the same for all its guests.
int CCCIsIncompatibleUpgrading() {
  using vexa::records::RequestScope;
  struct Cached {
    std::uint64_t scope = 0;  // RequestScope::Number
    int flag = 0;
  };
  thread_local Cached cached;
  const std::uint64_t scope = RequestScope::Number();
  if (scope == 0) return vexa::cluster::ReadUpgradeFlag();
  if (cached.scope != scope) cached = {scope, vexa::cluster::ReadUpgradeFlag()};
  return cached.flag;
}
