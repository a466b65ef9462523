// Determines the version states of the cluster's hosts from their records.
#include <chrono>
#include <utility>

#include "host/cluster/versions.h"
#include "host/records/host_life.h"
#include "host/records/keys.h"
#include "host/records/reading.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::cluster {
namespace {

// The object of a host under `key`; null when absent. A damaged one reads as empty: it says nothing about its
// host, and must not hide the states of the others.
Result<Json::Value> ReadHostObject(const std::string& host_id, std::string_view key) {
  const Result<Record> record = ReadRecord(MemberKey(VexaCCC::DB::DashCate::Host.name(), host_id, key));
  if (record) return *record ? **record : Json::Value();
  if (record.error().code() == ErrorCode::kCorrupt) return Json::Value();
  return record.error();
}

// A value that is not a text cannot be understood either.
std::optional<std::string> Published(const Json::Value& record, const char* name) {
  const Json::Value* member = json::FindMember(record, name);
  if (!member) return std::nullopt;
  return member->isString() ? json::String(*member) : std::string();
}

struct Hosts {
  std::map<std::string, HostVersions> all;
  std::vector<std::string> reachable;
};

Result<Hosts> ReadHosts() {
  const CallScope scope;
  const auto ids = ReadChildren(CategoryKey(VexaCCC::DB::DashCate::Host.name()));
  if (!ids) return ids.error();
  const auto now = std::chrono::system_clock::now();
  Hosts hosts;
  for (const std::string& id : *ids) {
    const Result<Json::Value> record = ReadHostObject(id, keys::object);
    if (!record) return record.error();
    const Result<Json::Value> seen = ReadHostObject(id, "seen");
    if (!seen) return seen.error();
    hosts.all[id] = {Published(*record, "version"), Published(*record, "package_version")};
    const Json::Value& state = json::Member(*record, keys::state);
    const bool up = state.isString() && json::String(state) != VexaCCC::State::Host::inaccessible;
    if (up && IsSignOfLife(*seen, now)) hosts.reachable.push_back(id);
  }
  return hosts;
}

}  // namespace

Result<bool> HasIncompatibleHosts() {
  const CallScope scope;
  const auto ids = ReadChildren(CategoryKey(VexaCCC::DB::DashCate::Host.name()));
  if (!ids) return ids.error();
  std::vector<std::string> versions;
  for (const std::string& id : *ids) {
    const Result<HostLife> life = LifeOf(id);
    if (!life) return life.error();
    if (life->is_gone) continue;
    const Result<Json::Value> record = ReadHostObject(id, keys::object);
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
  const auto hosts = vexa::cluster::ReadHosts();
  if (!hosts) return -1;
  all = vexa::cluster::VersionStates(hosts->all);
  for (const std::string& id : hosts->reachable) reachable[id] = all[id];
  return 0;
}

}  // namespace VexaCCC
