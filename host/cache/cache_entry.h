// One cache in the installed environment: its record on disk and in memory, which all objects of the cache share.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/cache/cache_lock.h"
#include "host/cache/cache_memory.h"
#include "host/cache/cache_paths.h"
#include "webapi/platform/dr_cache.h"

namespace VexaDR::Cache {

// The arguments that a DRCache object was constructed with. The object must outlive it.
struct DRCacheNames {
  explicit DRCacheNames(const DRCache& cache) : group(cache.group_), name(cache.name_), valid_s(cache.valid_s_) {}
  const std::string& group;
  const std::string& name;
  const int valid_s;
};

}  // namespace VexaDR::Cache

namespace vexa::cache {

// Must not outlive the object that it was made from. Threads: any, at the same time.
class CacheEntry {
 public:
  explicit CacheEntry(const VexaDR::Cache::DRCache& cache);

  // False: there is no environment, it has no cache folder, or the group or name cannot be part of a path. Load then
  // returns nothing, and TryLock, Refresh and RecordFailure must not be called.
  bool is_stored() const { return paths_.has_value(); }

  LoadedCache Load() const;
  // Errors: those of CacheLock::Try.
  Result<CacheLock> TryLock() const;

  // Whether the record is valid, and either is not outdated or differs from `before`, because it was refreshed since.
  bool IsFresh(const LoadedCache& loaded, const LoadedCache& before) const;

  struct Refreshed {
    std::optional<Json::Value> value;  // empty: the value could not be computed
    bool was_stored = false;
  };
  // Computes the value and stores it, which needs the lock. Failures are logged.
  Refreshed Refresh(const CacheLock& lock) const;
  // Computes the value for one caller without storing it; also when is_stored() is false.
  std::optional<Json::Value> ComputeUnstored() const;

  // Logs a failure outside of Refresh in the same way, for instance of locking.
  void RecordFailure(const Error& error) const;

 private:
  Result<Json::Value> Compute() const;
  Status Store(const Json::Value& data) const;

  const VexaDR::Cache::DRCache& cache_;
  const VexaDR::Cache::DRCacheNames names_;
  std::optional<CachePaths> paths_;
};

enum class RefreshOutcome {
  kCurrent,  // it has been refreshed here, or elsewhere just now
  kBusy,     // another refresh is in progress
  kFailed,   // logged
};
enum class RefreshMode {
  kIfOutdated,
  kForce,  // even when the record is not outdated
};
// For background refreshes: refreshes the cache unless the mode is kIfOutdated and the record is current, or another
// refresh is in progress. Never waits for other refreshes.
RefreshOutcome RefreshCache(const VexaDR::Cache::DRCache& cache, RefreshMode mode = RefreshMode::kIfOutdated);

}  // namespace vexa::cache
