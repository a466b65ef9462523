// Refreshes caches in the background, in processes that install a refresher.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "host/base/mutex.h"
#include "webapi/platform/dr_cache.h"

namespace vexa::cache {

struct CacheRefresherOptions {
  // The back-off after a failed refresh. It doubles after each consecutive failure.
  std::chrono::milliseconds initial_backoff{1000};
  std::chrono::milliseconds max_backoff{300'000};
  // For caches that are kept fresh: how often to check for changes, how old a value may become, and how long to
  // continue after the last read.
  std::chrono::milliseconds check_interval{1'000};
  std::chrono::milliseconds refresh_after{4'000};
  std::chrono::milliseconds keep_fresh_for{60'000};
};

// Refreshes caches in the installed environment's folder on a thread of its own, which is started when it is first
// needed. Caches with a version are also kept fresh: until `keep_fresh_for` after the last read by this process, they
// are refreshed when the version has changed or the value is older than `refresh_after`. One cache is refreshed at a
// time; each refresh has its own records::RequestScope. Only the first of consecutive failures is logged. Threads: any,
// at the same time. The environment must outlive it.
class CacheRefresher {
 public:
  // Makes the object whose GetUpdatedData computes the value. Called on the refresher's thread.
  using Factory = std::function<std::unique_ptr<VexaDR::Cache::DRCache>()>;

  explicit CacheRefresher(CacheRefresherOptions options = {});
  // Same as Stop.
  ~CacheRefresher();
  CacheRefresher(const CacheRefresher&) = delete;
  CacheRefresher& operator=(const CacheRefresher&) = delete;

  // The version of the data that a cache's value is computed from. Called on the refresher's thread, in a
  // records::RequestScope.
  using Version = std::function<std::uint64_t()>;

  // The factory's objects must have this group and name. With `version`, the cache is kept fresh.
  void Add(const std::string& group, const std::string& name, Factory factory, Version version = {});

  // The cache was read, whatever its age: keeps it fresh from now on if it has a version. Never waits.
  void MarkRead(const std::string& group, const std::string& name);

  // Queues a refresh of the cache, which does nothing if the value is current by then. Never waits. Does nothing when
  // the cache was not added, a refresh is queued or running, or the back-off after a failure has not ended.
  void Request(const std::string& group, const std::string& name);

  // Drops the queued refreshes and waits for the running one. Later requests do nothing.
  void Stop();
  // The same, but waits at most `timeout`. False: a refresh still runs, and the environment must stay until Stop().
  bool Stop(std::chrono::milliseconds timeout);

 private:
  using Clock = std::chrono::steady_clock;
  enum class State { kIdle, kQueued, kRunning };
  struct Job {
    Factory factory;
    State state = State::kIdle;
    Clock::time_point not_before{};
    std::chrono::milliseconds backoff{0};  // 0: the last refresh did not fail
    bool factory_failed = false;           // at the last refresh; this is logged once
    // For caches that are kept fresh:
    Version version;
    Clock::time_point keep_fresh_until{};
    Clock::time_point next_check{};
    Clock::time_point last_refresh{};  // the beginning of the last successful one
    std::uint64_t refreshed_version = 0;
  };
  using Key = std::pair<std::string, std::string>;
  using Entry = std::map<Key, Job>::value_type;

  // Why a job is run: a refresh was requested, or it is time to check a cache that is kept fresh.
  enum class Cause { kRequest, kCheck };

  void StartThread() VEXA_REQUIRES(mutex_);
  void Run();
  void RunJob(Entry& entry, Cause cause) VEXA_REQUIRES(mutex_);
  Entry* NextCacheToCheck(Clock::time_point now) VEXA_REQUIRES(mutex_);

  const CacheRefresherOptions options_;
  Mutex mutex_;  // never held during a refresh
  ConditionVariable wake_;
  ConditionVariable idle_;
  std::map<Key, Job> jobs_ VEXA_GUARDED_BY(mutex_);
  std::deque<Entry*> queue_ VEXA_GUARDED_BY(mutex_);
  bool is_stopped_ VEXA_GUARDED_BY(mutex_) = false;
  bool is_running_ VEXA_GUARDED_BY(mutex_) = false;  // a refresh is running
  std::thread thread_ VEXA_GUARDED_BY(mutex_);
};

// Lets non-blocking reads of this process request refreshes from `refresher`, which replaces the one that was
// installed.
void InstallCacheRefresher(std::unique_ptr<CacheRefresher> refresher);
// Stops the installed refresher and waits for the running refresh. Call it before RemoveEnvironment. Does nothing when
// none is installed.
void RemoveCacheRefresher();
// The same, but waits at most `timeout`. False: a refresh still runs, and the environment must stay. No other refresh
// begins, and a later removal waits for the running one.
bool RemoveCacheRefresher(std::chrono::milliseconds timeout);

// Notifies the installed refresher that a cache was read. Does nothing without a refresher. Never waits.
void MarkCacheRead(const std::string& group, const std::string& name);

// Requests a refresh from the installed refresher. Does nothing without a refresher. Never waits.
void RequestCacheRefresh(const std::string& group, const std::string& name);

}  // namespace vexa::cache
