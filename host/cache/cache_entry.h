// What all objects of one cache share: its record on disk and in memory.
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

// What an object was made with.
struct DRCacheNames {
  explicit DRCacheNames(const DRCache& cache) : group(cache.group_), name(cache.name_), valid_s(cache.valid_s_) {}
  const std::string& group;
  const std::string& name;
  const int valid_s;
};

}  // namespace VexaDR::Cache

namespace vexa::cluster {

// A cache as the installed environment keeps it. Lives no longer than the object it was made of.
class CacheEntry {
 public:
  explicit CacheEntry(const VexaDR::Cache::DRCache& cache);

  // False: there is no environment or it has no cache folder, or the cache's name cannot be a path. Nothing is ever
  // loaded then, and what needs a lock is not to be called.
  bool is_stored() const { return paths_.has_value(); }

  LoadedCache Load() const;
  Result<CacheLock> TryLock() const;

  // Whether the record is there, valid and not outdated, or valid and another one than `before`: found since.
  bool IsFresh(const LoadedCache& loaded, const LoadedCache& before) const;

  struct Refreshed {
    std::optional<Json::Value> value;  // nothing: it could not be found out
    bool was_stored = false;
  };
  // Finds the value out anew and stores it, which needs the lock. What fails is logged.
  Refreshed Refresh(const CacheLock& lock) const;
  // The same without storing it, for one caller; also when is_stored() is false.
  std::optional<Json::Value> RefreshUnstored() const;

  // A refresh failed for a reason outside of it: logged like its own failures.
  void NoteFailure(const Error& error) const;

 private:
  Result<Json::Value> FindOut() const;
  Status Store(const Json::Value& data) const;

  const VexaDR::Cache::DRCache& cache_;
  const VexaDR::Cache::DRCacheNames names_;
  std::optional<CachePaths> paths_;
};

// In the background: when the record is not current and nobody else is at it.
enum class RefreshOutcome {
  kCurrent,  // it has been refreshed, or somebody else has just done so
  kBusy,     // somebody else is at it
  kFailed,   // logged
};
// kAlways: also when the record is current by its age.
enum class WhenDue { kOutdated, kAlways };
RefreshOutcome RefreshWhenDue(const VexaDR::Cache::DRCache& cache, WhenDue when = WhenDue::kOutdated);

}  // namespace vexa::cluster
