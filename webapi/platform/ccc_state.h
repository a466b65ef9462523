// Cluster control: the condition of the cluster, and this host's own copy of every guest's configuration.
#pragma once

#include <json/value.h>

#include <map>
#include <string>

#pragma GCC visibility push(default)

namespace VexaCCC {

enum CACHE_LOAD_TYPE : int {
  CACHE_LOAD_CLUSTER = 0,  // the cluster's status: {"state"}, the cluster database's state
};

// Adds the cached status to `cache`, at most `max_age_s` seconds old. 0, or negative: `cache` is untouched. Cheap: it
// is asked for every guest of a list.
int LoadCache(Json::Value& cache, CACHE_LOAD_TYPE type, int max_age_s);

// The version state of each host by host id: of all hosts, and of the reachable ones. 0, or negative: both maps
// are empty.
int CCCVersionStateGetAllHosts(std::map<std::string, std::string>& all, std::map<std::string, std::string>& reachable);

// Whether a guest without a host may be given one by the cluster.
bool ClConfAutoSelHostGet();

}  // namespace VexaCCC

// 1 while the cluster is between two incompatible versions, 0 when not, negative when unknown.
int CCCIsIncompatibleUpgrading();

// The local guest configuration: this host's copy of every guest's configuration, with the live state of the guests it
// runs. It can be read while the cluster database cannot. 0, or negative: the output is untouched.
int vgConfGet(const std::string& guest_id, Json::Value& conf);
int vgConfStateGet(const std::string& guest_id, std::string& state);
// -2: the guest has no host.
int vgConfHostGet(const std::string& guest_id, std::string& host_id);
// The host whose storage holds the guest's repository.
int vgConfRepoHostIdGet(const std::string& guest_id, std::string& host_id);

#pragma GCC visibility pop
