// The scripted platform: the condition of the cluster, guests' configurations, high availability, caches.
#include "tests/support/scripted_platform.h"
#include "tests/support/scripted_results.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_ha.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/platform/dr_cache.h"

using vexa::test::Platform;
using vexa::test::ProvideScripted;

namespace VexaCCC {

int LoadCache(Json::Value& cache, CACHE_LOAD_TYPE type, int max_age_s) {
  Platform().loads.emplace_back(type, max_age_s);
  const Json::Value& status = Platform().cluster_status;
  if (status.isObject()) {
    for (const std::string& name : status.getMemberNames()) cache[name] = status[name];
  } else {
    cache = status;
  }
  return Platform().load_result;
}

int CCCVersionStateGetAllHosts(std::map<std::string, std::string>& all, std::map<std::string, std::string>& reachable) {
  all = Platform().versions_of_all_hosts;
  reachable = Platform().versions_of_reachable;
  return Platform().versions_result;
}

int haStateGet(const std::string& group_id, std::string& state) {
  return ProvideScripted(Platform().ha_states, group_id, Platform().ha_results, "state", state);
}

int haWarnGet(const std::string& group_id, Json::Value& warn) {
  return ProvideScripted(Platform().ha_warnings, group_id, Platform().ha_results, "warn", warn);
}

int haErrorGet(const std::string& group_id, HA_FAIL_REASON& code) {
  return ProvideScripted(Platform().ha_errors, group_id, Platform().ha_results, "error", code);
}

namespace DB {

std::string DBLocalhostID() { return Platform().local_host_id; }

namespace HostState {
std::string toString(int bit) { return "problem" + std::to_string(bit); }
}  // namespace HostState

}  // namespace DB
}  // namespace VexaCCC

int CCCIsIncompatibleUpgrading() {
  ++Platform().upgrade_calls;
  Platform().calls.emplace_back("upgrading");
  return Platform().upgrading;
}

int vgConfGet(const std::string& guest_id, Json::Value& conf) {
  Platform().conf_reads.push_back("conf/" + guest_id);
  return ProvideScripted(Platform().confs, guest_id, Platform().conf_results, "conf/" + guest_id, conf);
}

int vgConfStateGet(const std::string& guest_id, std::string& state) {
  Platform().conf_reads.push_back("state/" + guest_id);
  return ProvideScripted(Platform().conf_states, guest_id, Platform().conf_results, "state/" + guest_id, state);
}

int vgConfRepoHostIdGet(const std::string& guest_id, std::string& host_id) {
  Platform().conf_reads.push_back("repo_host/" + guest_id);
  return ProvideScripted(Platform().repo_hosts, guest_id, Platform().conf_results, "repo_host/" + guest_id, host_id);
}

namespace VexaDR {

std::string DRErrRecorder::GetErrCodeStr(int) const { return ""; }
DRErrRecorder::~DRErrRecorder() = default;

namespace Cache {

DRCache::DRCache(const std::string& group, const std::string& name, int valid_s, int flags)
    : group_(group), name_(name), valid_s_(valid_s) {
  Json::Value arguments(Json::arrayValue);
  arguments.append(group_);
  arguments.append(name_);
  arguments.append(valid_s_);
  arguments.append(flags);
  Platform().caches.push_back(arguments);
}

DRCache::~DRCache() = default;

// Shows a reading test that the library waited.
Json::Value DRCache::BlockedRead() const { return "waited"; }
Json::Value DRCache::NonBlockedRead() const { return Platform().cached ? *Platform().cached : GetDefaultValue(); }
Json::Value DRCache::ReadCachedData() const { return Platform().cached.value_or(Json::Value()); }
Json::Value DRCache::GetInfo() const { return {}; }
Json::Value DRCache::GetDefaultValue() const { return {}; }
bool DRCache::GetUpdatedData(Json::Value&) const { return false; }
bool DRCache::IsValid(const Json::Value&) const { return false; }
bool DRCache::IsDataTimeout(const Json::Value&) const { return false; }

}  // namespace Cache

namespace Utils {

bool ParseJsonValueFromField(const Json::Value& object, const std::string& field, std::string& out) {
  if (!object.isObject() || !object.isMember(field) || !object[field].isString()) return false;
  out = object[field].asString();
  return true;
}

bool JsonFieldIsArray(const Json::Value& object, const std::string& field) {
  return object.isObject() && object[field].isArray();
}

}  // namespace Utils
}  // namespace VexaDR
