#include "host/base/lane.h"

#include <limits.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <deque>
#include <utility>
#include <vector>

#include "host/base/mutex.h"

namespace vexa {
namespace {

using Clock = std::chrono::steady_clock;

// After the system refused to start a thread, the monitor retries at this interval.
constexpr std::chrono::milliseconds kThreadRetryInterval{100};
// A user's jobs that have not ended for this long, or for grow_after, count as stuck.
constexpr std::chrono::milliseconds kMinPatience{1};
// How long Stop() waits for threads without a job. They only have to return.
constexpr std::chrono::seconds kIdleThreadExitTimeout{5};
// Longer timeouts would overflow the clock.
constexpr std::chrono::hours kMaxStopTimeout{24 * 365};

#if defined(VEXA_ADDRESS_SANITIZER) || defined(VEXA_THREAD_SANITIZER)
constexpr std::size_t kMinStackBytes = std::size_t{1} << 20;  // instrumented frames are several times larger
#else
constexpr std::size_t kMinStackBytes = 0;
#endif

// `requested`, raised to the minimum and rounded up to whole pages.
std::size_t StackBytes(std::size_t requested) {
  const std::size_t page = 4096;
  const std::size_t floor = std::max<std::size_t>(kMinStackBytes, static_cast<std::size_t>(PTHREAD_STACK_MIN));
  return (std::max(requested, floor) + page - 1) / page * page;
}

// Runs `*body` and deletes it.
void* RunThread(void* body) {
  const std::unique_ptr<std::function<void()>> owned(static_cast<std::function<void()>*>(body));
  (*owned)();
  return nullptr;
}

bool StartThread(std::size_t stack_bytes, std::string name, std::function<void()> body) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, stack_bytes);
  auto thread_body = std::make_unique<std::function<void()>>([name = std::move(name), run = std::move(body)] {
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    run();
  });
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, &RunThread, thread_body.get()) == 0;
  if (started) (void)thread_body.release();  // RunThread owns it now
  pthread_attr_destroy(&attributes);
  return started;
}

}  // namespace

// Owned by the lane and by each of its threads, so that a thread that is stuck in a job may outlive the lane.
// Threads: jobs run, and are destroyed, without `mutex_`.
class Lane::Impl : public std::enable_shared_from_this<Lane::Impl> {
 public:
  explicit Impl(const LaneOptions& options) : options_(options), queue_(options.limits) {
    options_.min_threads = std::max(options_.min_threads, 0);
    options_.max_threads = std::max({options_.max_threads, options_.min_threads, 1});
    if (!options_.recent_owners) options_.recent_owners = std::make_shared<RecentOwners>();
    options_.name.resize(std::min<std::size_t>(options_.name.size(), 8));
  }

  void StartMinimum();
  SubmitResult Submit(const JobOwner& owner, std::function<void()> job);
  bool Stop(std::chrono::milliseconds timeout);
  LaneStats Stats() const;

 private:
  struct IdleWorker {
    ConditionVariable wake;
    bool woken = false;  // guarded by mutex_
  };

  bool AddWorker() VEXA_REQUIRES(mutex_);
  void WakeIdleWorker() VEXA_REQUIRES(mutex_);
  void StartOrWakeMonitor() VEXA_REQUIRES(mutex_);
  void RunMonitor();
  void RunWorker();
  bool WaitForJob() VEXA_REQUIRES(mutex_);
  void RunNextJob() VEXA_REQUIRES(mutex_);
  // Whether enough workers are on their way to take every job that may start.
  bool IsCovered() const VEXA_REQUIRES(mutex_) { return queue_.ready() <= approaching_workers_; }

  LaneOptions options_;
  mutable Mutex mutex_;
  ConditionVariable monitor_wake_;
  ConditionVariable progress_;  // for Stop(): a job ended or a thread left
  FairQueue queue_ VEXA_GUARDED_BY(mutex_);
  // The worker that became idle last is woken first, so that the others reach idle_exit.
  std::vector<IdleWorker*> idle_workers_ VEXA_GUARDED_BY(mutex_);
  int threads_ VEXA_GUARDED_BY(mutex_) = 0;
  int busy_ VEXA_GUARDED_BY(mutex_) = 0;
  // Threads woken or started that have not checked the queue since.
  std::size_t approaching_workers_ VEXA_GUARDED_BY(mutex_) = 0;
  std::uint64_t thread_number_ VEXA_GUARDED_BY(mutex_) = 0;
  std::uint64_t done_ VEXA_GUARDED_BY(mutex_) = 0;
  std::uint64_t refused_ VEXA_GUARDED_BY(mutex_) = 0;
  std::uint64_t over_quota_ VEXA_GUARDED_BY(mutex_) = 0;
  bool monitor_exists_ VEXA_GUARDED_BY(mutex_) = false;
  // It waits without a timeout: only StartOrWakeMonitor() and the end of Stop() wake it. Whatever leaves a job waiting
  // for other jobs of its owner must wake it.
  bool monitor_is_idle_ VEXA_GUARDED_BY(mutex_) = false;
  bool stopping_ VEXA_GUARDED_BY(mutex_) = false;  // accepts no more jobs
  bool stopped_ VEXA_GUARDED_BY(mutex_) = false;   // likewise, and the queue is empty
};

void Lane::Impl::StartMinimum() {
  const MutexLock lock(mutex_);
  while (threads_ < options_.min_threads && AddWorker()) {
  }
}

bool Lane::Impl::AddWorker() {
  const std::string name = options_.name + "-" + std::to_string(++thread_number_);
  if (!StartThread(StackBytes(options_.stack_bytes), name, [self = shared_from_this()] { self->RunWorker(); }))
    return false;
  ++threads_;
  ++approaching_workers_;
  return true;
}

Lane::SubmitResult Lane::Impl::Submit(const JobOwner& owner, std::function<void()> job) {
  const MutexLock lock(mutex_);
  const auto refuse = [this](SubmitResult why) VEXA_REQUIRES(mutex_) {
    ++refused_;
    if (why == SubmitResult::kOverQuota) ++over_quota_;
    return why;
  };
  if (stopping_) return refuse(SubmitResult::kStopped);
  if (threads_ == 0 && !AddWorker()) return refuse(SubmitResult::kQueueFull);
  const FairQueue::PushResult pushed = queue_.Push(owner, std::move(job));
  if (pushed == FairQueue::PushResult::kFull) return refuse(SubmitResult::kQueueFull);
  if (pushed == FairQueue::PushResult::kOverQuota) return refuse(SubmitResult::kOverQuota);
  options_.recent_owners->Note(owner.user, Clock::now());
  if (queue_.waiting() > queue_.ready()) StartOrWakeMonitor();  // it decides when the owner may start more
  if (IsCovered()) return SubmitResult::kAccepted;
  if (!idle_workers_.empty()) {
    WakeIdleWorker();
  } else if (threads_ < options_.max_threads) {
    if (options_.grow_after.count() > 0 || !AddWorker()) StartOrWakeMonitor();
  }
  return SubmitResult::kAccepted;
}

void Lane::Impl::WakeIdleWorker() {
  IdleWorker* const worker = idle_workers_.back();
  idle_workers_.pop_back();
  worker->woken = true;
  ++approaching_workers_;
  worker->wake.NotifyOne();  // with the lock: without it, the worker may no longer exist
}

void Lane::Impl::StartOrWakeMonitor() {
  if (!monitor_exists_) {
    monitor_exists_ =
        StartThread(StackBytes(0), options_.name + "-grow", [self = shared_from_this()] { self->RunMonitor(); });
  } else if (monitor_is_idle_) {
    monitor_is_idle_ = false;
    monitor_wake_.NotifyOne();
  }
}

// Adds a worker when the next job that no worker is about to take has waited for grow_after, and lets owners whose jobs
// are stuck start more. Runs on a thread of its own because every worker may be stuck. Waits without a timeout while
// every job has a worker, or the pool is full, and no owner's jobs wait for others of theirs.
void Lane::Impl::RunMonitor() {
  const MutexLock lock(mutex_);
  while (!stopped_) {
    const auto next_check = queue_.AdmitStuck(std::max(options_.grow_after, kMinPatience));
    while (!IsCovered() && !idle_workers_.empty()) WakeIdleWorker();
    if (IsCovered() || threads_ >= options_.max_threads) {
      if (next_check) {
        monitor_wake_.WaitUntil(mutex_, *next_check);
        continue;
      }
      monitor_is_idle_ = true;
      while (!stopped_ && monitor_is_idle_) monitor_wake_.Wait(mutex_);
      continue;
    }
    const Clock::time_point due = queue_.SubmittedAt(approaching_workers_) + options_.grow_after;
    if (Clock::now() < due) {
      monitor_wake_.WaitUntil(mutex_, due);
    } else if (!AddWorker()) {
      monitor_wake_.WaitUntil(mutex_, Clock::now() + kThreadRetryInterval);
    }
  }
  monitor_exists_ = false;
  progress_.NotifyAll();
}

void Lane::Impl::RunWorker() {
  const MutexLock lock(mutex_);
  --approaching_workers_;
  for (;;) {
    if (queue_.ready() > 0) {
      RunNextJob();
    } else if (stopping_ || !WaitForJob()) {
      break;
    }
  }
  --threads_;
  progress_.NotifyAll();
}

// False if no job came within idle_exit and the pool has more than min_threads: the caller ends.
bool Lane::Impl::WaitForJob() {
  IdleWorker self;
  idle_workers_.push_back(&self);
  bool surplus = false;
  if (threads_ <= options_.min_threads) {
    while (!self.woken && !stopping_) self.wake.Wait(mutex_);
  } else {
    const Clock::time_point until = Clock::now() + options_.idle_exit;
    while (!self.woken && !stopping_ && self.wake.WaitUntil(mutex_, until)) {
    }
    surplus = !self.woken && !stopping_ && threads_ > options_.min_threads;
  }
  if (self.woken) {
    --approaching_workers_;
  } else {
    idle_workers_.erase(std::find(idle_workers_.begin(), idle_workers_.end(), &self));
  }
  return !surplus;
}

void Lane::Impl::RunNextJob() {
  FairQueue::Job job = queue_.Take();
  ++busy_;
  {
    const MutexUnlock unlocked(mutex_);
    job.run();
    job.run = nullptr;  // destroys what the job captured before the job counts as done
    if (job.has_successors && options_.recent_owners->AreSeveral(Clock::now())) ::sched_yield();
  }
  --busy_;
  ++done_;
  queue_.Finish(job);
  // Jobs that still wait for others of their owner are the monitor's again: while the owner ran as many as it may, the
  // monitor had nothing to decide.
  if (queue_.waiting() > queue_.ready()) StartOrWakeMonitor();
  if (stopping_) progress_.NotifyAll();
}

bool Lane::Impl::Stop(std::chrono::milliseconds timeout) {
  const Clock::time_point until = Clock::now() + std::min<std::chrono::milliseconds>(timeout, kMaxStopTimeout);
  std::deque<FairQueue::Job> dropped;  // destroyed without the lock, because what the jobs captured may call back
  const MutexLock lock(mutex_);
  stopping_ = true;
  for (IdleWorker* worker : idle_workers_) worker->wake.NotifyOne();
  while ((queue_.waiting() > 0 || busy_ > 0) && progress_.WaitUntil(mutex_, until)) {
  }
  const bool all_done = queue_.waiting() == 0 && busy_ == 0;
  dropped = queue_.Clear();
  stopped_ = true;
  monitor_wake_.NotifyAll();
  const Clock::time_point idle_until = Clock::now() + kIdleThreadExitTimeout;
  while ((threads_ > busy_ || monitor_exists_) && progress_.WaitUntil(mutex_, idle_until)) {
  }
  return all_done;
}

LaneStats Lane::Impl::Stats() const {
  const MutexLock lock(mutex_);
  return LaneStats{threads_, busy_, queue_.waiting(), done_, refused_, over_quota_};
}

Lane::Lane(const LaneOptions& options) : impl_(std::make_shared<Impl>(options)) { impl_->StartMinimum(); }

Lane::~Lane() { impl_->Stop(std::chrono::milliseconds(0)); }

Lane::SubmitResult Lane::Submit(const JobOwner& owner, std::function<void()> job) {
  return impl_->Submit(owner, std::move(job));
}

bool Lane::Stop(std::chrono::milliseconds timeout) { return impl_->Stop(timeout); }

LaneStats Lane::stats() const { return impl_->Stats(); }

}  // namespace vexa
