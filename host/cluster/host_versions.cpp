// Determines the version states of the cluster's hosts from their records.
#include <utility>

#include "host/cluster/versions.h"
#include "host/records/host_liveness.h"
#include "host/records/keys.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::cluster {
namespace {

// The host's record; null when absent or damaged. A damaged record must not hide the states of the other hosts.
Result<Json::Value> ReadHostRecord(const records::Reader& reader, const std::string& host_id) {
  const Result<records::Record> record =
      reader.ReadRecord(records::ObjectKey(VexaCCC::DB::DashCate::Host.name(), host_id));
  if (record) return *record ? **record : Json::Value();
  if (record.error().code() == ErrorCode::kCorrupt) return Json::Value();
  return record.error();
}

// The member as a host publishes it; not set when absent. A value that is not a string reads as "", which is not a
// valid version.
std::optional<std::string> Published(const Json::Value& record, const char* name) {
  const Json::Value* member = json::FindMember(record, name);
  if (!member) return std::nullopt;
  return member->isString() ? json::String(*member) : std::string();
}

Result<std::map<std::string, HostVersions>> ReadVersions(const records::Reader& reader) {
  const auto ids = reader.Children(records::CategoryKey(VexaCCC::DB::DashCate::Host.name()));
  if (!ids) return ids.error();
  std::map<std::string, HostVersions> versions;
  for (const std::string& id : *ids) {
    const Result<Json::Value> record = ReadHostRecord(reader, id);
    if (!record) return record.error();
    versions[id] = {Published(*record, "version"), Published(*record, "package_version")};
  }
  return versions;
}

}  // namespace

Result<bool> HasIncompatibleHosts(const records::Reader& reader) {
  const auto ids = reader.Children(records::CategoryKey(VexaCCC::DB::DashCate::Host.name()));
  if (!ids) return ids.error();
  std::vector<std::string> versions;
  for (const std::string& id : *ids) {
    const Result<records::HostLiveness> liveness = records::LivenessOf(reader, id);
    if (!liveness) return liveness.error();
    if (liveness->is_gone) continue;
    const Result<Json::Value> record = ReadHostRecord(reader, id);
    if (!record) return record.error();
    if (std::optional<std::string> version = Published(*record, "version")) versions.push_back(std::move(*version));
  }
  return AreIncompatible(versions);
}

}  // namespace vexa::cluster

namespace VexaCCC {

int CCCVersionStateGetAllHosts(std::map<std::string, std::string>& all, std::map<std::string, std::string>& reachable) {
  all.clear();
  reachable.clear();
  const auto reader = vexa::records::ReaderOfRequest();
  if (!reader) return -1;
  const auto versions = vexa::cluster::ReadVersions(**reader);
  const auto alive = vexa::records::ReachableHosts(**reader);
  if (!versions || !alive) return -1;
  all = vexa::cluster::VersionStates(*versions);
  for (const std::string& id : *alive) reachable[id] = all[id];
  return 0;
}

}  // namespace VexaCCC
