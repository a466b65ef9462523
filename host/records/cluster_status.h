// The cluster's status, determined at most once in a while, because it is requested for every guest of a list.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>

#include "host/store/store.h"

namespace vexa::cluster {

// The value of "state" while the cluster database can be read. Its counterpart is VexaCCC::State::Etcd::inaccessible.
inline constexpr char kDatabaseAccessible[] = "etcd_accessible";

inline constexpr std::chrono::seconds kStatusAge{1};

// Invalidates what is known about the database. Threads: any, at any time.
void NoteConditionChanged();

// Threads: any, at the same time.
class ClusterStatus {
 public:
  // The health of the store: at most kStatusAge old, or `max_age` when that is less, and not from before the last
  // NoteConditionChanged.
  store::Health HealthOf(const store::Store& store, std::chrono::seconds max_age);

 private:
  std::mutex mutex_;
  std::optional<store::Health> health_;
  std::uint64_t changes_seen_ = 0;
  std::chrono::steady_clock::time_point found_;
};

}  // namespace vexa::cluster
