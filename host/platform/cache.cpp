// The caches of webapi/platform/dr_cache.h.
#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "host/cache/cache_entry.h"
#include "host/cache/cache_refresher.h"
#include "host/records/environment.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/dr_cache.h"

namespace vexa::platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A caller that waits for a refresh polls with back-off.
constexpr milliseconds kInitialBackoff{1};
constexpr milliseconds kMaxBackoff{50};

// Waits until another thread or process has refreshed this cache, or refreshes it itself if no other does. Nothing when
// that fails or takes longer than cache_wait. `before` is what the caller loaded.
std::optional<Json::Value> WaitForRefresh(const cache::CacheEntry& entry, const cache::LoadedCache& before) {
  const records::RequestPause pause_reader;
  const auto deadline = steady_clock::now() + records::CurrentEnvironment()->cache_wait;
  for (milliseconds pause = kInitialBackoff;; pause = std::min(2 * pause, kMaxBackoff)) {
    const Result<cache::CacheLock> lock = entry.TryLock();
    if (!lock && lock.error().code() != ErrorCode::kBusy) {
      entry.RecordFailure(lock.error());
      const records::RequestScope newest;
      return entry.ComputeUnstored();
    }
    const cache::LoadedCache now = entry.Load();
    if (entry.IsFresh(now, before)) return now.record->data;
    if (lock) {
      // The computed value is stored for other requests, so it is computed from the newest data. The snapshot of this
      // request may be older than theirs.
      const records::RequestScope newest;
      return entry.Refresh(*lock).value;
    }
    if (steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(pause);
  }
}

}  // namespace
}  // namespace vexa::platform

namespace VexaDR {

// The codes have no descriptions, so a code is displayed as a number.
std::string DRErrRecorder::GetErrCodeStr(int code) const { return std::to_string(code); }

DRErrRecorder::~DRErrRecorder() = default;

namespace Cache {

using vexa::cache::CacheEntry;
using vexa::cache::LoadedCache;

DRCache::DRCache(const std::string& group, const std::string& name, int valid_s, int)
    : group_(group), name_(name), valid_s_(valid_s) {}

DRCache::~DRCache() = default;

Json::Value DRCache::BlockedRead() const {
  const CacheEntry entry(*this);
  std::optional<Json::Value> value;
  if (entry.is_stored()) {
    const LoadedCache loaded = entry.Load();
    if (entry.IsFresh(loaded, loaded)) return loaded.record->data;
    value = vexa::platform::WaitForRefresh(entry, loaded);
  } else {
    value = entry.ComputeUnstored();
  }
  return value ? std::move(*value) : NonBlockedRead();
}

Json::Value DRCache::NonBlockedRead() const {
  const CacheEntry entry(*this);
  const LoadedCache loaded = entry.Load();
  const bool is_valid = loaded.record && IsValid(loaded.record->data);
  if (entry.is_stored() && (!is_valid || IsDataTimeout(loaded.record->info))) {
    vexa::cache::RequestCacheRefresh(group_, name_);
  }
  if (entry.is_stored()) vexa::cache::MarkCacheRead(group_, name_);
  return is_valid ? loaded.record->data : GetDefaultValue();
}

Json::Value DRCache::ReadCachedData() const {
  const LoadedCache loaded = CacheEntry(*this).Load();
  return loaded.record ? loaded.record->data : Json::Value();
}

Json::Value DRCache::GetInfo() const {
  const LoadedCache loaded = CacheEntry(*this).Load();
  return loaded.record ? loaded.record->info : Json::Value();
}

Json::Value DRCache::GetDefaultValue() const { return {}; }

bool DRCache::GetUpdatedData(Json::Value&) const { return false; }

bool DRCache::IsValid(const Json::Value& value) const { return !value.isNull(); }

bool DRCache::IsDataTimeout(const Json::Value& info) const { return vexa::cache::IsOutdated(info, valid_s_); }

}  // namespace Cache

namespace Utils {

namespace json = VexaVirtualization::json;

bool ParseJsonValueFromField(const Json::Value& object, const std::string& field, std::string& out) {
  const Json::Value& value = json::Member(object, field);
  if (!value.isString()) return false;
  out = json::String(value);
  return true;
}

bool JsonFieldIsArray(const Json::Value& object, const std::string& field) {
  return json::Member(object, field).isArray();
}

}  // namespace Utils

}  // namespace VexaDR
