// Refreshes caches in the background, for processes that want that.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "webapi/platform/dr_cache.h"

namespace vexa::cluster {

struct CacheRefresherOptions {
  // Back-off after a failed refresh: the first pause, doubled after each subsequent failure, up to the last.
  std::chrono::milliseconds first_pause{1000};
  std::chrono::milliseconds last_pause{300'000};
  // For caches that are kept fresh: how often to check for changes, how old a value may become, and how long to
  // continue after the last read.
  std::chrono::milliseconds look_every{1'000};
  std::chrono::milliseconds refresh_after{4'000};
  std::chrono::milliseconds keep_for{60'000};
};

// Refreshes caches in the installed environment's folder on a thread of its own, which is started at the first request.
// Caches with a version are also kept fresh while this process reads them: they are refreshed when the version has
// changed, or the value is a few seconds old, until a minute after the last read.
// One cache is refreshed at a time; each refresh has its own cluster::RequestScope. Failures are logged once until a
// refresh succeeds.
// Threads: any, at the same time. The environment must outlive it.
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
  // cluster::RequestScope.
  using Version = std::function<std::uint64_t()>;

  // The factory's objects must have this group and name. With `version`, the cache is kept fresh.
  void Add(const std::string& group, const std::string& name, Factory factory, Version version = {});

  // Notes that the cache was read, whatever its age. Never waits.
  void NoteRead(const std::string& group, const std::string& name);

  // Refreshes the cache soon, unless its value has become current by then. Never waits. Does nothing when there is no
  // factory for it, a refresh is queued or running, or one failed a short while ago.
  void Request(const std::string& group, const std::string& name);

  // Waits for the refresh that is running and drops the queued ones. Later requests do nothing.
  void Stop();
  // The same, but waits at most `deadline`. False: a refresh still runs, and the environment must stay until Stop.
  bool Stop(std::chrono::milliseconds deadline);

 private:
  using Clock = std::chrono::steady_clock;
  enum class State { kIdle, kWaiting, kRunning };
  struct Job {
    Factory factory;
    State state = State::kIdle;
    Clock::time_point not_before{};
    std::chrono::milliseconds pause{0};  // 0: the last refresh did not fail
    bool has_no_object = false;          // the factory failed, which has been logged
    // For caches that are kept fresh:
    Version version;
    Clock::time_point kept_until{};
    Clock::time_point next_look{};
    Clock::time_point refreshed{};
    std::uint64_t refreshed_version = 0;
  };
  using Key = std::pair<std::string, std::string>;
  using Entry = std::map<Key, Job>::value_type;

  // Why a refresh is done.
  enum class Cause { kRequest, kLook };

  void StartThread();
  void Run();
  void RunOne(Entry& entry, Cause cause, std::unique_lock<std::mutex>& lock);
  Entry* NextKept(Clock::time_point now);

  const CacheRefresherOptions options_;
  std::mutex mutex_;  // never held during a refresh
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::map<Key, Job> jobs_;
  std::deque<Entry*> waiting_;
  bool is_stopped_ = false;
  bool is_running_ = false;  // a refresh is running
  std::thread thread_;
};

// Lets non-blocking reads of this process request refreshes from `refresher`. One at a time.
void InstallCacheRefresher(std::unique_ptr<CacheRefresher> refresher);
// Stops it and waits for the refresh that is running. Call it before RemoveEnvironment. Does nothing when none is
// installed.
void RemoveCacheRefresher();
// The same, but waits at most `deadline`. False: a refresh still runs, and the environment must stay. No other one
// begins, and a later removal waits for it.
bool RemoveCacheRefresher(std::chrono::milliseconds deadline);

// Notifies the installed refresher that a cache was read. Does nothing without a refresher. Never waits.
void NoteCacheRead(const std::string& group, const std::string& name);

// Requests a refresh from the installed refresher. Does nothing without a refresher. Never waits.
void RequestCacheRefresh(const std::string& group, const std::string& name);

}  // namespace vexa::cluster
