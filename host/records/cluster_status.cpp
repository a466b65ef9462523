#include "host/records/cluster_status.h"

#include <algorithm>
#include <atomic>

#include "host/records/environment_internal.h"
#include "json/readers.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::records {
namespace {

std::atomic<std::uint64_t> invalidations{0};

}  // namespace

void InvalidateClusterStatus() { ++invalidations; }

store::Health ClusterStatus::HealthOf(const store::Store& store, std::chrono::seconds max_age) {
  const auto now = std::chrono::steady_clock::now();
  const std::uint64_t count = invalidations;
  {
    const MutexLock lock(mutex_);
    const bool is_valid =
        health_ && count == seen_invalidations_ && now - checked_at_ < std::min(max_age, kMaxStatusAge);
    if (is_valid) return *health_;
  }
  // Without the lock: a hanging disk delays only the callers that reach it.
  const store::Health health = store.health();
  const MutexLock lock(mutex_);
  health_ = health;
  checked_at_ = now;
  seen_invalidations_ = count;
  return health;
}

}  // namespace vexa::records

namespace VexaCCC {

int LoadCache(Json::Value& cache, CACHE_LOAD_TYPE type, int max_age_s) {
  const vexa::records::Environment* environment = vexa::records::CurrentEnvironment();
  if (!environment || type != CACHE_LOAD_CLUSTER) return -1;
  const vexa::store::Health health =
      vexa::records::CurrentClusterStatus().HealthOf(*environment->store, std::chrono::seconds(max_age_s));
  // A read-only database is not inaccessible: the guests' states are in it.
  VexaVirtualization::json::EnsureObject(cache)[DB::_k::state] =
      health == vexa::store::Health::kInaccessible ? State::Etcd::inaccessible : vexa::records::kDatabaseAccessible;
  return 0;
}

}  // namespace VexaCCC
