// The health of the cluster database, cached for up to a second, because it is requested for every guest of a list.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "host/base/mutex.h"
#include "host/store/store.h"

namespace vexa::records {

// The value of "state" while the cluster database can be read. Its counterpart is VexaCCC::State::Etcd::inaccessible.
inline constexpr char kDatabaseAccessible[] = "etcd_accessible";

inline constexpr std::chrono::seconds kMaxStatusAge{1};

// Makes the next call of every ClusterStatus ask the store again. Threads: any, at any time.
void InvalidateClusterStatus();

// Threads: any, at the same time.
class ClusterStatus {
 public:
  // The health of the store, at most as old as the smaller of kMaxStatusAge and `max_age`, and checked after the last
  // InvalidateClusterStatus. May block while the store's disk hangs.
  store::Health HealthOf(const store::Store& store, std::chrono::seconds max_age);

 private:
  Mutex mutex_;
  std::optional<store::Health> health_ VEXA_GUARDED_BY(mutex_);
  std::uint64_t seen_invalidations_ VEXA_GUARDED_BY(mutex_) = 0;
  std::chrono::steady_clock::time_point checked_at_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace vexa::records
