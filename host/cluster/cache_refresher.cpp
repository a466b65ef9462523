#include "host/cluster/cache_refresher.h"

#include <pthread.h>
#include <signal.h>
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <system_error>

#include "host/cluster/cache_entry.h"
#include "host/cluster/reading.h"

namespace vexa::cluster {
namespace {

using std::chrono::milliseconds;

// While another process refreshes a cache, requests for it come with every read; one that hangs must not keep this
// thread busy.
constexpr milliseconds kBusyPause{100};

struct Installed {
  std::mutex mutex;
  std::shared_ptr<CacheRefresher> refresher;
};

// Never destroyed: readers may still ask while the program ends.
Installed& Current() {
  static auto* const current = new Installed;
  return *current;
}

// Null when the factory fails or makes an object of another cache, which would be refreshed in place of this one.
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

}  // namespace

CacheRefresher::CacheRefresher(CacheRefresherOptions options) : options_(options) {}

CacheRefresher::~CacheRefresher() { Stop(); }

void CacheRefresher::Add(const std::string& group, const std::string& name, Factory factory) {
  const std::lock_guard lock(mutex_);
  jobs_[{group, name}].factory = std::move(factory);
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

// Signals are left to the threads that expect them.
void CacheRefresher::StartThread() {
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    thread_ = std::thread([this] { Run(); });
    ::pthread_setname_np(thread_.native_handle(), "caches");
  } catch (const std::system_error& error) {
    ::syslog(LOG_ERR, "The thread that refreshes caches cannot be started: %s", error.what());
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void CacheRefresher::Run() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return is_stopped_ || !waiting_.empty(); });
    if (is_stopped_) return;
    Entry& entry = *waiting_.front();
    waiting_.pop_front();
    is_running_ = true;
    RunOne(entry, lock);
    is_running_ = false;
    idle_.notify_all();
  }
}

void CacheRefresher::RunOne(Entry& entry, std::unique_lock<std::mutex>& lock) {
  Job& job = entry.second;
  job.state = State::kRunning;
  const Factory factory = job.factory;
  lock.unlock();
  auto outcome = RefreshOutcome::kFailed;
  bool has_object = false;
  {
    const RequestScope scope;
    if (const auto cache = MakeObject(factory, entry.first.first, entry.first.second)) {
      has_object = true;
      outcome = RefreshWhenDue(*cache);
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
  // Here and not where the last reader lets go of it: readers never wait.
  if (refresher) refresher->Stop();
}

bool RemoveCacheRefresher(std::chrono::milliseconds deadline) {
  std::shared_ptr<CacheRefresher> refresher;
  {
    const std::lock_guard lock(Current().mutex);
    refresher = Current().refresher;
  }
  // It stays installed while a refresh runs, so that a removal without a deadline still finds it.
  if (refresher && !refresher->Stop(deadline)) return false;
  RemoveCacheRefresher();
  return true;
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
