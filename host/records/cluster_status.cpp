#include "host/records/cluster_status.h"

#include <algorithm>
#include <atomic>

#include "host/records/environment_internal.h"
#include "json/readers.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::cluster {
namespace {

std::atomic<std::uint64_t> condition_changes{0};

}  // namespace

void NoteConditionChanged() { ++condition_changes; }

store::Health ClusterStatus::HealthOf(const store::Store& store, std::chrono::seconds max_age) {
  const auto now = std::chrono::steady_clock::now();
  const std::uint64_t changes = condition_changes;
  {
    const std::lock_guard lock(mutex_);
    const bool is_new = health_ && changes == changes_seen_ && now - found_ < std::min(max_age, kStatusAge);
    if (is_new) return *health_;
  }
  // A hanging disk delays only the caller that asks it.
  const store::Health health = store.health();
  const std::lock_guard lock(mutex_);
  health_ = health;
  found_ = now;
  changes_seen_ = changes;
  return health;
}

}  // namespace vexa::cluster

namespace VexaCCC {

int LoadCache(Json::Value& cache, CACHE_LOAD_TYPE type, int max_age_s) {
  const vexa::cluster::Environment* environment = vexa::cluster::CurrentEnvironment();
  if (!environment || type != CACHE_LOAD_CLUSTER) return -1;
  const vexa::store::Health health =
      vexa::cluster::CurrentClusterStatus().HealthOf(*environment->store, std::chrono::seconds(max_age_s));
  // A read-only database is not inaccessible: the guests' states are in it.
  VexaVirtualization::json::MakeObject(cache)[DB::_k::state] =
      health == vexa::store::Health::kInaccessible ? State::Etcd::inaccessible : vexa::cluster::kDatabaseAccessible;
  return 0;
}

}  // namespace VexaCCC
