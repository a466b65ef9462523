// State shared by all objects of one cache: its record on disk and in memory.
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

// The arguments of an object's constructor.
struct DRCacheNames {
  explicit DRCacheNames(const DRCache& cache) : group(cache.group_), name(cache.name_), valid_s(cache.valid_s_) {}
  const std::string& group;
  const std::string& name;
  const int valid_s;
};

}  // namespace VexaDR::Cache

namespace vexa::cluster {

// A cache in the installed environment. Must not outlive the object that it was made from.
class CacheEntry {
 public:
  explicit CacheEntry(const VexaDR::Cache::DRCache& cache);

  // False: there is no environment, it has no cache folder, or the cache's name cannot be a path. Nothing is ever
  // loaded then, and functions that need a lock must not be called.
  bool is_stored() const { return paths_.has_value(); }

  LoadedCache Load() const;
  Result<CacheLock> TryLock() const;

  // Whether the record exists, is valid and is not outdated; or is valid and differs from `before`, so it was refreshed
  // since.
  bool IsFresh(const LoadedCache& loaded, const LoadedCache& before) const;

  struct Refreshed {
    std::optional<Json::Value> value;  // empty: the value could not be computed
    bool was_stored = false;
  };
  // Computes the value and stores it, which needs the lock. Failures are logged.
  Refreshed Refresh(const CacheLock& lock) const;
  // The same without storing it, for one caller; also when is_stored() is false.
  std::optional<Json::Value> RefreshUnstored() const;

  // Logs a refresh that failed for an external reason like the refresh's own failures.
  void NoteFailure(const Error& error) const;

 private:
  Result<Json::Value> FindOut() const;
  Status Store(const Json::Value& data) const;

  const VexaDR::Cache::DRCache& cache_;
  const VexaDR::Cache::DRCacheNames names_;
  std::optional<CachePaths> paths_;
};

// In the background: refreshes when the record is not current and no one else is refreshing it.
enum class RefreshOutcome {
  kCurrent,  // it has been refreshed here, or elsewhere just now
  kBusy,     // another refresh is in progress
  kFailed,   // logged
};
// kAlways: even when the record is young enough to be current.
enum class WhenDue { kOutdated, kAlways };
RefreshOutcome RefreshWhenDue(const VexaDR::Cache::DRCache& cache, WhenDue when = WhenDue::kOutdated);

}  // namespace vexa::cluster
