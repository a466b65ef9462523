#include "host/cache/cache_refresher.h"

#include <pthread.h>
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <system_error>

#include "host/base/background_thread.h"
#include "host/cache/cache_entry.h"
#include "host/records/request_scope.h"

namespace vexa::cache {
namespace {

using std::chrono::milliseconds;

// The least time between two attempts while another process refreshes a cache: every read then requests a refresh, and
// if the other process hangs, the attempts must not keep this thread busy.
constexpr milliseconds kBusyRetryInterval{100};

struct Installed {
  Mutex mutex;
  std::shared_ptr<CacheRefresher> refresher VEXA_GUARDED_BY(mutex);
};

// Never destroyed: readers may still use it while the program ends.
Installed& Current() {
  static auto* const current = new Installed;
  return *current;
}

// Null when the factory fails or makes an object of another cache: a refresh would then change that cache.
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
    return 0;  // the refresh itself reports the failure
  }
}

}  // namespace

CacheRefresher::CacheRefresher(CacheRefresherOptions options) : options_(options) {}

CacheRefresher::~CacheRefresher() { Stop(); }

void CacheRefresher::Add(const std::string& group, const std::string& name, Factory factory, Version version) {
  const MutexLock lock(mutex_);
  Job& job = jobs_[{group, name}];
  job.factory = std::move(factory);
  job.version = std::move(version);
}

void CacheRefresher::MarkRead(const std::string& group, const std::string& name) {
  const MutexLock lock(mutex_);
  const auto found = jobs_.find({group, name});
  if (is_stopped_ || found == jobs_.end() || !found->second.version) return;
  Job& job = found->second;
  const Clock::time_point now = Clock::now();
  const bool was_kept_fresh = now < job.keep_fresh_until;
  job.keep_fresh_until = now + options_.keep_fresh_for;
  if (was_kept_fresh) return;
  if (!thread_.joinable()) StartThread();
  wake_.NotifyOne();
}

void CacheRefresher::Request(const std::string& group, const std::string& name) {
  const MutexLock lock(mutex_);
  const auto found = jobs_.find({group, name});
  if (is_stopped_ || found == jobs_.end()) return;
  Job& job = found->second;
  if (job.state != State::kIdle || Clock::now() < job.not_before) return;
  if (!thread_.joinable()) StartThread();
  if (!thread_.joinable()) {
    job.not_before = Clock::now() + options_.initial_backoff;
    return;
  }
  job.state = State::kQueued;
  queue_.push_back(&*found);
  wake_.NotifyOne();
}

bool CacheRefresher::Stop(std::chrono::milliseconds timeout) {
  const Clock::time_point end = Clock::now() + timeout;
  const MutexLock lock(mutex_);
  is_stopped_ = true;
  wake_.NotifyAll();
  while (is_running_ && idle_.WaitUntil(mutex_, end)) {
  }
  return !is_running_;
}

void CacheRefresher::Stop() {
  std::thread thread;
  {
    const MutexLock lock(mutex_);
    is_stopped_ = true;
    thread.swap(thread_);
  }
  wake_.NotifyAll();
  if (thread.joinable()) thread.join();
}

void CacheRefresher::StartThread() {
  try {
    thread_ = StartThreadBlockingSignals([this] { Run(); });
    ::pthread_setname_np(thread_.native_handle(), "caches");
  } catch (const std::system_error& error) {
    ::syslog(LOG_ERR, "The thread that refreshes caches cannot be started: %s", error.what());
  }
}

void CacheRefresher::Run() {
  const MutexLock lock(mutex_);
  while (!is_stopped_) {
    Entry* entry = nullptr;
    auto cause = Cause::kRequest;
    if (!queue_.empty()) {
      entry = queue_.front();
      queue_.pop_front();
    } else {
      entry = NextCacheToCheck(Clock::now());
      if (!entry) {
        wake_.Wait(mutex_);
        continue;
      }
      if (entry->second.next_check > Clock::now()) {
        wake_.WaitUntil(mutex_, entry->second.next_check);
        continue;
      }
      cause = Cause::kCheck;
    }
    is_running_ = true;
    RunJob(*entry, cause);
    is_running_ = false;
    idle_.NotifyAll();
  }
}

// The cache to check next, now or later; null when none is kept fresh.
CacheRefresher::Entry* CacheRefresher::NextCacheToCheck(Clock::time_point now) {
  Entry* next = nullptr;
  for (Entry& entry : jobs_) {
    const Job& job = entry.second;
    if (!job.version || now >= job.keep_fresh_until || job.state != State::kIdle) continue;
    if (!next || job.next_check < next->second.next_check) next = &entry;
  }
  return next;
}

void CacheRefresher::RunJob(Entry& entry, Cause cause) {
  Job& job = entry.second;
  job.state = State::kRunning;
  const Factory factory = job.factory;
  const Version version = job.version;
  const Clock::time_point start = Clock::now();
  const bool is_old = start - job.last_refresh >= options_.refresh_after;
  const std::uint64_t version_before = job.refreshed_version;
  const bool had_factory_failed = job.factory_failed;
  auto outcome = RefreshOutcome::kFailed;
  bool has_object = false;
  std::uint64_t version_now = 0;
  bool is_due = true;
  {
    const MutexUnlock unlocked(mutex_);
    const records::RequestScope scope;
    if (version) version_now = VersionOf(version);
    is_due = cause == Cause::kRequest || is_old || version_now != version_before;
    if (!is_due) {
      has_object = true;
      outcome = RefreshOutcome::kCurrent;
    } else if (const auto cache = MakeObject(factory, entry.first.first, entry.first.second)) {
      has_object = true;
      outcome = RefreshCache(*cache, version ? RefreshMode::kForce : RefreshMode::kIfOutdated);
    }
    if (!has_object && !had_factory_failed) {
      ::syslog(LOG_ERR, "The cache '%s/%s' cannot be refreshed: its factory failed", entry.first.first.c_str(),
               entry.first.second.c_str());
    }
  }
  job.state = State::kIdle;
  job.factory_failed = !has_object;
  const bool has_failed = outcome == RefreshOutcome::kFailed;
  job.backoff =
      has_failed ? std::clamp(2 * job.backoff, options_.initial_backoff, options_.max_backoff) : milliseconds(0);
  job.not_before = Clock::now() + (outcome == RefreshOutcome::kBusy ? kBusyRetryInterval : job.backoff);
  job.next_check = std::max(job.not_before, Clock::now() + options_.check_interval);
  if (is_due && outcome == RefreshOutcome::kCurrent) {
    job.last_refresh = start;
    job.refreshed_version = version_now;
  }
}

void InstallCacheRefresher(std::unique_ptr<CacheRefresher> refresher) {
  RemoveCacheRefresher();
  const MutexLock lock(Current().mutex);
  Current().refresher = std::move(refresher);
}

void RemoveCacheRefresher() {
  std::shared_ptr<CacheRefresher> refresher;
  {
    const MutexLock lock(Current().mutex);
    refresher.swap(Current().refresher);
  }
  // Stopped here and not by the last reader that releases it: readers never wait.
  if (refresher) refresher->Stop();
}

bool RemoveCacheRefresher(std::chrono::milliseconds timeout) {
  std::shared_ptr<CacheRefresher> refresher;
  {
    const MutexLock lock(Current().mutex);
    refresher = Current().refresher;
  }
  // It stays installed while a refresh runs, so that a later removal without a timeout still finds it.
  if (refresher && !refresher->Stop(timeout)) return false;
  RemoveCacheRefresher();
  return true;
}

void MarkCacheRead(const std::string& group, const std::string& name) {
  std::shared_ptr<CacheRefresher> refresher;
  {
    const MutexLock lock(Current().mutex);
    refresher = Current().refresher;
  }
  if (refresher) refresher->MarkRead(group, name);
}

void RequestCacheRefresh(const std::string& group, const std::string& name) {
  std::shared_ptr<CacheRefresher> refresher;
  {
    const MutexLock lock(Current().mutex);
    refresher = Current().refresher;
  }
  if (refresher) refresher->Request(group, name);
}

}  // namespace vexa::cache
