// Cluster control: the cluster's status, and this host's own copy of every guest's configuration.
#pragma once

#include <json/value.h>

#include <map>
#include <string>

#pragma GCC visibility push(default)

namespace VexaCCC {

enum CACHE_LOAD_TYPE : int {
  CACHE_LOAD_CLUSTER = 0,  // the cluster's status: {"state"}, the state of the cluster database
};

// Adds the cached status, at most `max_age_s` seconds old, to `cache`. Returns 0, or a negative number with `cache`
// unchanged. Must be cheap, since lists call it for every guest.
int LoadCache(Json::Value& cache, CACHE_LOAD_TYPE type, int max_age_s);

// Maps host ids to version states, for all hosts and for the reachable ones. Returns 0, or a negative number with both
// maps empty.
int CCCVersionStateGetAllHosts(std::map<std::string, std::string>& all, std::map<std::string, std::string>& reachable);

// Whether the cluster's settings allow it to select a host for a guest without one.
bool ClConfAutoSelHostGet();

}  // namespace VexaCCC

// Returns 1 while the cluster is being upgraded between two incompatible versions, 0 when it is not, and a negative
// number on failure.
int CCCIsIncompatibleUpgrading();

// The local guest configuration: this host's copy of every guest's configuration, with the live state of the guests
// that it runs. It can be read even when the cluster database cannot. These return 0, or a negative number with the
// output unchanged.
int vgConfGet(const std::string& guest_id, Json::Value& conf);
int vgConfStateGet(const std::string& guest_id, std::string& state);
// Returns -2 when the guest has no host.
int vgConfHostGet(const std::string& guest_id, std::string& host_id);
// The host that owns the guest's repository.
int vgConfRepoHostIdGet(const std::string& guest_id, std::string& host_id);

#pragma GCC visibility pop
