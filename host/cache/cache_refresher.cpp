#include "host/cache/cache_refresher.h"

#include <pthread.h>
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <system_error>

#include "host/base/background_thread.h"
#include "host/cache/cache_entry.h"
#include "host/records/reading.h"

namespace vexa::cluster {
namespace {

using std::chrono::milliseconds;

// While another process refreshes a cache, every read requests a refresh. One that hangs must not keep this thread
// busy.
constexpr milliseconds kBusyPause{100};

struct Installed {
  std::mutex mutex;
  std::shared_ptr<CacheRefresher> refresher;
};

// Never destroyed: readers may still use it while the program ends.
Installed& Current() {
  static auto* const current = new Installed;
  return *current;
}

// Null when the factory fails or makes an object of another cache, which would then be refreshed instead.
std::unique_ptr<VexaDR::Cache::DRCache> MakeObject(const CacheRefresher::Factory& factory, const std::string& group,
                                                   const std::string& name) {
  try {
    std::unique_ptr<VexaDR::Cache::DRCache> cache = factory();
    if (!cache) return nullptr;
    const VexaDR::Cache::DRCacheNames names(*cache);
    return names.group == group && names.name == name ? std::move(cache) : nullptr;
  } catch (const std::exception&) {
    return nullptr;
  }
}

std::uint64_t VersionOf(const CacheRefresher::Version& version) {
  try {
    return version();
  } catch (const std::exception&) {
    return 0;  // which the cache's own refresh reports
  }
}

}  // namespace

CacheRefresher::CacheRefresher(CacheRefresherOptions options) : options_(options) {}

CacheRefresher::~CacheRefresher() { Stop(); }

void CacheRefresher::Add(const std::string& group, const std::string& name, Factory factory, Version version) {
  const std::lock_guard lock(mutex_);
  Job& job = jobs_[{group, name}];
  job.factory = std::move(factory);
  job.version = std::move(version);
}

void CacheRefresher::NoteRead(const std::string& group, const std::string& name) {
  const std::lock_guard lock(mutex_);
  const auto found = jobs_.find({group, name});
  if (is_stopped_ || found == jobs_.end() || !found->second.version) return;
  Job& job = found->second;
  const Clock::time_point now = Clock::now();
  const bool was_kept = now < job.kept_until;
  job.kept_until = now + options_.keep_for;
  if (was_kept) return;
  if (!thread_.joinable()) StartThread();
  wake_.notify_one();
}

void CacheRefresher::Request(const std::string& group, const std::string& name) {
  const std::lock_guard lock(mutex_);
  const auto found = jobs_.find({group, name});
  if (is_stopped_ || found == jobs_.end()) return;
  Job& job = found->second;
  if (job.state != State::kIdle || Clock::now() < job.not_before) return;
  if (!thread_.joinable()) StartThread();
  if (!thread_.joinable()) {
    job.not_before = Clock::now() + options_.first_pause;
    return;
  }
  job.state = State::kWaiting;
  waiting_.push_back(&*found);
  wake_.notify_one();
}

bool CacheRefresher::Stop(std::chrono::milliseconds deadline) {
  std::unique_lock lock(mutex_);
  is_stopped_ = true;
  wake_.notify_all();
  return idle_.wait_for(lock, deadline, [this] { return !is_running_; });
}

void CacheRefresher::Stop() {
  std::thread thread;
  {
    const std::lock_guard lock(mutex_);
    is_stopped_ = true;
    thread.swap(thread_);
  }
  wake_.notify_all();
  if (thread.joinable()) thread.join();
}

void CacheRefresher::StartThread() {
  try {
    thread_ = StartWithoutSignals([this] { Run(); });
    ::pthread_setname_np(thread_.native_handle(), "caches");
  } catch (const std::system_error& error) {
    ::syslog(LOG_ERR, "The thread that refreshes caches cannot be started: %s", error.what());
  }
}

void CacheRefresher::Run() {
  std::unique_lock lock(mutex_);
  while (!is_stopped_) {
    Entry* entry = nullptr;
    auto cause = Cause::kRequest;
    if (!waiting_.empty()) {
      entry = waiting_.front();
      waiting_.pop_front();
    } else {
      entry = NextKept(Clock::now());
      if (!entry) {
        wake_.wait(lock, [this] { return is_stopped_ || !waiting_.empty() || NextKept(Clock::now()); });
        continue;
      }
      if (entry->second.next_look > Clock::now()) {
        wake_.wait_until(lock, entry->second.next_look);
        continue;
      }
      cause = Cause::kLook;
    }
    is_running_ = true;
    RunOne(*entry, cause, lock);
    is_running_ = false;
    idle_.notify_all();
  }
}

// The cache to check next, now or later; null when none is kept fresh.
CacheRefresher::Entry* CacheRefresher::NextKept(Clock::time_point now) {
  Entry* next = nullptr;
  for (Entry& entry : jobs_) {
    const Job& job = entry.second;
    if (!job.version || now >= job.kept_until || job.state != State::kIdle) continue;
    if (!next || job.next_look < next->second.next_look) next = &entry;
  }
  return next;
}

void CacheRefresher::RunOne(Entry& entry, Cause cause, std::unique_lock<std::mutex>& lock) {
  Job& job = entry.second;
  job.state = State::kRunning;
  const Factory factory = job.factory;
  const Version version = job.version;
  const Clock::time_point begun = Clock::now();
  const bool is_old = begun - job.refreshed >= options_.refresh_after;
  const std::uint64_t before = job.refreshed_version;
  lock.unlock();
  auto outcome = RefreshOutcome::kFailed;
  bool has_object = false;
  std::uint64_t now_version = 0;
  bool is_due = true;
  {
    const RequestScope scope;
    if (version) now_version = VersionOf(version);
    is_due = cause == Cause::kRequest || is_old || now_version != before;
    if (!is_due) {
      has_object = true;
      outcome = RefreshOutcome::kCurrent;
    } else if (const auto cache = MakeObject(factory, entry.first.first, entry.first.second)) {
      has_object = true;
      outcome = RefreshWhenDue(*cache, version ? WhenDue::kAlways : WhenDue::kOutdated);
    }
  }
  if (!has_object && !job.has_no_object) {
    ::syslog(LOG_ERR, "The cache '%s/%s' cannot be refreshed: there is no object for it", entry.first.first.c_str(),
             entry.first.second.c_str());
  }
  lock.lock();
  job.state = State::kIdle;
  job.has_no_object = !has_object;
  const bool has_failed = outcome == RefreshOutcome::kFailed;
  job.pause = has_failed ? std::clamp(2 * job.pause, options_.first_pause, options_.last_pause) : milliseconds(0);
  job.not_before = Clock::now() + (outcome == RefreshOutcome::kBusy ? kBusyPause : job.pause);
  job.next_look = std::max(job.not_before, Clock::now() + options_.look_every);
  if (is_due && outcome == RefreshOutcome::kCurrent) {
    job.refreshed = begun;
    job.refreshed_version = now_version;
  }
}

void InstallCacheRefresher(std::unique_ptr<CacheRefresher> refresher) {
  RemoveCacheRefresher();
  const std::lock_guard lock(Current().mutex);
  Current().refresher = std::move(refresher);
}

void RemoveCacheRefresher() {
  std::shared_ptr<CacheRefresher> refresher;
  {
    const std::lock_guard lock(Current().mutex);
    refresher.swap(Current().refresher);
  }
  // Stopped here and not by the last reader that releases it: readers never wait.
  if (refresher) refresher->Stop();
}

bool RemoveCacheRefresher(std::chrono::milliseconds deadline) {
  std::shared_ptr<CacheRefresher> refresher;
  {
    const std::lock_guard lock(Current().mutex);
    refresher = Current().refresher;
  }
  // It stays installed while a refresh runs, so that a later removal without a deadline still finds it.
  if (refresher && !refresher->Stop(deadline)) return false;
  RemoveCacheRefresher();
  return true;
}

void NoteCacheRead(const std::string& group, const std::string& name) {
  std::shared_ptr<CacheRefresher> refresher;
  {
    const std::lock_guard lock(Current().mutex);
    refresher = Current().refresher;
  }
  if (refresher) refresher->NoteRead(group, name);
}

void RequestCacheRefresh(const std::string& group, const std::string& name) {
  std::shared_ptr<CacheRefresher> refresher;
  {
    const std::lock_guard lock(Current().mutex);
    refresher = Current().refresher;
  }
  if (refresher) refresher->Request(group, name);
}

}  // namespace vexa::cluster
