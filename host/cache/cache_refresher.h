// Refreshes of caches in the background, for processes that want them.
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
  // A refresh that failed is not tried again for so long; twice as long after each further failure, up to the last.
  std::chrono::milliseconds first_pause{1000};
  std::chrono::milliseconds last_pause{300'000};
  // Of caches that are kept fresh: how often it is looked whether there is something new, how old a value may become,
  // and for how long after the last read.
  std::chrono::milliseconds look_every{1'000};
  std::chrono::milliseconds refresh_after{4'000};
  std::chrono::milliseconds keep_for{60'000};
};

// Refreshes caches of the installed environment's folder on a thread of its own, which is started at the first request.
// Caches with a version are also kept fresh while this process reads them: refreshed when the version is another one,
// or the value has become a few seconds old, until a minute after the last read.
// One cache is refreshed at a time; a refresh is a cluster::RequestScope. Failures are logged once until a refresh
// succeeds.
// Threads: any, at the same time. The environment must outlive it.
class CacheRefresher {
 public:
  // Makes the object whose GetUpdatedData finds the value out. Called on the refresher's thread.
  using Factory = std::function<std::unique_ptr<VexaDR::Cache::DRCache>()>;

  explicit CacheRefresher(CacheRefresherOptions options = {});
  // As Stop.
  ~CacheRefresher();
  CacheRefresher(const CacheRefresher&) = delete;
  CacheRefresher& operator=(const CacheRefresher&) = delete;

  // The version of what a cache's value is made of. Called on the refresher's thread, in a cluster::RequestScope.
  using Version = std::function<std::uint64_t()>;

  // The factory's objects must be of this group and name. With `version` the cache is kept fresh.
  void Add(const std::string& group, const std::string& name, Factory factory, Version version = {});

  // Notes that the cache was read, whatever its age. Never waits.
  void NoteRead(const std::string& group, const std::string& name);

  // Refreshes the cache soon, unless its value has become current by then. Never waits. Nothing happens when there is
  // no factory for it, it waits its turn or runs already, or it has failed a short while ago.
  void Request(const std::string& group, const std::string& name);

  // Waits for the refresh that runs; those that wait their turn are dropped. Requests do nothing from then on.
  void Stop();
  // The same, but waits at most so long. False: it still runs, and the environment must stay until Stop.
  bool Stop(std::chrono::milliseconds deadline);

 private:
  using Clock = std::chrono::steady_clock;
  enum class State { kIdle, kWaiting, kRunning };
  struct Job {
    Factory factory;
    State state = State::kIdle;
    Clock::time_point not_before{};
    std::chrono::milliseconds pause{0};  // 0: it did not fail last time
    bool has_no_object = false;          // the factory failed, which has been logged
    // Of caches that are kept fresh:
    Version version;
    Clock::time_point kept_until{};
    Clock::time_point next_look{};
    Clock::time_point refreshed{};
    std::uint64_t refreshed_version = 0;
  };
  using Key = std::pair<std::string, std::string>;
  using Entry = std::map<Key, Job>::value_type;

  // What a refresh is made for.
  enum class Cause { kRequest, kLook };

  void StartThread();
  void Run();
  void RunOne(Entry& entry, Cause cause, std::unique_lock<std::mutex>& lock);
  Entry* NextKept(Clock::time_point now);

  const CacheRefresherOptions options_;
  std::mutex mutex_;  // never held while something is refreshed
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::map<Key, Job> jobs_;
  std::deque<Entry*> waiting_;
  bool is_stopped_ = false;
  bool is_running_ = false;  // something is refreshed
  std::thread thread_;
};

// Makes non-blocking reads of this process ask `refresher` for refreshes. One at a time.
void InstallCacheRefresher(std::unique_ptr<CacheRefresher> refresher);
// Stops it, which waits for the refresh that runs. Before RemoveEnvironment; nothing happens when none is installed.
void RemoveCacheRefresher();
// The same, but waits at most so long. False: the refresh still runs, and the environment must stay. No further one
// begins, and a later removal waits for it.
bool RemoveCacheRefresher(std::chrono::milliseconds deadline);

// Tells the installed refresher that a cache was read; without one nothing happens. Never waits.
void NoteCacheRead(const std::string& group, const std::string& name);

// Asks the installed refresher; without one nothing happens. Never waits.
void RequestCacheRefresh(const std::string& group, const std::string& name);

}  // namespace vexa::cluster
