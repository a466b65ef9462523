#include "host/base/lane.h"

#include <limits.h>
#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vexa::daemon {
namespace {

using Clock = std::chrono::steady_clock;

// How long the monitor waits before it retries after the system refused a thread.
constexpr std::chrono::milliseconds kThreadRetry{100};
// How long Stop() waits for threads without a job. They only have to return.
constexpr std::chrono::seconds kIdleThreadsLeave{5};
// Longer deadlines would overflow the clock.
constexpr std::chrono::hours kLongestStop{24 * 365};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kMinStackBytes = std::size_t{1} << 20;  // instrumented frames are several times larger
#else
constexpr std::size_t kMinStackBytes = 0;
#endif

std::size_t StackBytes(std::size_t wanted) {
  const std::size_t page = 4096;
  const std::size_t floor = std::max<std::size_t>(kMinStackBytes, static_cast<std::size_t>(PTHREAD_STACK_MIN));
  return (std::max(wanted, floor) + page - 1) / page * page;
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
  auto named = std::make_unique<std::function<void()>>([name = std::move(name), run = std::move(body)] {
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    run();
  });
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, &RunThread, named.get()) == 0;
  if (started) (void)named.release();  // RunThread owns it now
  pthread_attr_destroy(&attributes);
  return started;
}

}  // namespace

// Owned by the lane and by each of its threads, so that a thread stuck in a job outlives the lane safely.
// Threads: all members are guarded by `mutex_`. Jobs run, and are destroyed, without it.
class Lane::Impl : public std::enable_shared_from_this<Lane::Impl> {
 public:
  explicit Impl(const LaneOptions& options) : options_(options) {
    options_.min_threads = std::max(options_.min_threads, 0);
    options_.max_threads = std::max({options_.max_threads, options_.min_threads, 1});
    options_.name.resize(std::min<std::size_t>(options_.name.size(), 8));
  }

  void StartMinimum();
  Submitted Submit(const std::string& user, std::function<void()> job);
  bool Stop(std::chrono::milliseconds deadline);
  LaneStats Stats() const;

 private:
  using Users = std::unordered_map<std::string, std::size_t>;
  struct Job {
    std::function<void()> run;
    Users::value_type* user;  // null without a quota; map nodes do not move
    Clock::time_point submitted;
  };
  struct Sleeper {
    std::condition_variable wake;
    bool called = false;
  };

  bool AddWorker();
  void CallSleeper(std::unique_lock<std::mutex>& lock);
  void ArmMonitor();
  void Monitor();
  void Work();
  bool WaitForJob(std::unique_lock<std::mutex>& lock);
  void RunFirst(std::unique_lock<std::mutex>& lock);
  void ReleaseUser(Users::value_type* user);
  // Every waiting job has a thread that is about to take it.
  bool Covered() const { return queue_.size() <= on_their_way_; }

  LaneOptions options_;
  mutable std::mutex mutex_;
  std::condition_variable monitor_;
  std::condition_variable progress_;  // for Stop(): a job ended or a thread left
  std::deque<Job> queue_;
  Users users_;
  std::vector<Sleeper*> sleepers_;  // the last to fall asleep is woken first, so that the idle time of the others can
                                    // run out
  int threads_ = 0;
  int busy_ = 0;
  std::size_t on_their_way_ = 0;  // threads woken or started that have not checked the queue since
  std::uint64_t thread_number_ = 0;
  std::uint64_t done_ = 0;
  std::uint64_t refused_ = 0;
  bool monitor_exists_ = false;
  bool monitor_sleeps_ = false;  // without a timeout: only ArmMonitor() and the end of Stop() wake it
  bool stopping_ = false;        // takes no more jobs
  bool stopped_ = false;         // and no job waits
};

void Lane::Impl::StartMinimum() {
  const std::lock_guard lock(mutex_);
  while (threads_ < options_.min_threads && AddWorker()) {
  }
}

bool Lane::Impl::AddWorker() {
  const std::string name = options_.name + "-" + std::to_string(++thread_number_);
  if (!StartThread(StackBytes(options_.stack_bytes), name, [self = shared_from_this()] { self->Work(); })) return false;
  ++threads_;
  ++on_their_way_;
  return true;
}

Lane::Submitted Lane::Impl::Submit(const std::string& user, std::function<void()> job) {
  const Clock::time_point now = Clock::now();
  std::unique_lock lock(mutex_);
  const auto refuse = [this](Submitted why) {
    ++refused_;
    return why;
  };
  if (stopping_) return refuse(Submitted::kStopped);
  if (queue_.size() >= options_.max_queued) return refuse(Submitted::kQueueFull);
  if (threads_ == 0 && !AddWorker()) return refuse(Submitted::kQueueFull);
  Users::value_type* quota = nullptr;
  if (options_.max_per_user > 0) {
    quota = &*users_.try_emplace(user, 0).first;
    if (quota->second >= options_.max_per_user) return refuse(Submitted::kOverQuota);
    ++quota->second;
  }
  queue_.push_back(Job{std::move(job), quota, now});
  if (Covered()) return Submitted::kAccepted;
  if (!sleepers_.empty()) {
    CallSleeper(lock);
  } else if (threads_ < options_.max_threads) {
    if (options_.grow_after.count() > 0 || !AddWorker()) ArmMonitor();
  }
  return Submitted::kAccepted;
}

void Lane::Impl::CallSleeper(std::unique_lock<std::mutex>& lock) {
  Sleeper* const sleeper = sleepers_.back();
  sleepers_.pop_back();
  sleeper->called = true;
  ++on_their_way_;
  sleeper->wake.notify_one();  // with the lock: without it, the sleeper may no longer exist
  lock.unlock();
}

void Lane::Impl::ArmMonitor() {
  if (!monitor_exists_) {
    monitor_exists_ =
        StartThread(StackBytes(0), options_.name + "-grow", [self = shared_from_this()] { self->Monitor(); });
  } else if (monitor_sleeps_) {
    monitor_sleeps_ = false;
    monitor_.notify_one();
  }
}

// Adds a thread when the first job that no thread is about to take has waited long enough. It has a thread of its own
// because every worker may be stuck. It sleeps without a timeout while there is nothing to watch.
void Lane::Impl::Monitor() {
  std::unique_lock lock(mutex_);
  while (!stopped_) {
    if (Covered() || threads_ >= options_.max_threads) {
      monitor_sleeps_ = true;
      monitor_.wait(lock, [this] { return stopped_ || !monitor_sleeps_; });
      continue;
    }
    const Clock::time_point due = queue_[on_their_way_].submitted + options_.grow_after;
    if (Clock::now() < due) {
      monitor_.wait_until(lock, due);
    } else if (!AddWorker()) {
      monitor_.wait_for(lock, kThreadRetry);
    }
  }
  monitor_exists_ = false;
  progress_.notify_all();
}

void Lane::Impl::Work() {
  std::unique_lock lock(mutex_);
  --on_their_way_;
  for (;;) {
    if (!queue_.empty()) {
      RunFirst(lock);
    } else if (stopping_ || !WaitForJob(lock)) {
      break;
    }
  }
  --threads_;
  progress_.notify_all();
}

// False: no job came within idle_exit, and this thread is surplus.
bool Lane::Impl::WaitForJob(std::unique_lock<std::mutex>& lock) {
  Sleeper self;
  sleepers_.push_back(&self);
  const auto woken = [&] { return self.called || stopping_; };
  bool surplus = false;
  if (threads_ <= options_.min_threads) {
    self.wake.wait(lock, woken);
  } else {
    surplus = !self.wake.wait_for(lock, options_.idle_exit, woken) && threads_ > options_.min_threads;
  }
  if (self.called) {
    --on_their_way_;
  } else {
    sleepers_.erase(std::find(sleepers_.begin(), sleepers_.end(), &self));
  }
  return !surplus;
}

void Lane::Impl::RunFirst(std::unique_lock<std::mutex>& lock) {
  Job job = std::move(queue_.front());
  queue_.pop_front();
  ++busy_;
  lock.unlock();
  job.run();
  job.run = nullptr;  // what the job holds is destroyed before the job counts as done
  lock.lock();
  --busy_;
  ++done_;
  ReleaseUser(job.user);
  if (stopping_) progress_.notify_all();
}

void Lane::Impl::ReleaseUser(Users::value_type* user) {
  if (user != nullptr && --user->second == 0) users_.erase(users_.find(user->first));
}

bool Lane::Impl::Stop(std::chrono::milliseconds deadline) {
  const Clock::time_point until = Clock::now() + std::min<std::chrono::milliseconds>(deadline, kLongestStop);
  std::deque<Job> dropped;
  std::unique_lock lock(mutex_);
  stopping_ = true;
  for (Sleeper* sleeper : sleepers_) sleeper->wake.notify_one();
  const bool all_done = progress_.wait_until(lock, until, [this] { return queue_.empty() && busy_ == 0; });
  for (Job& job : queue_) ReleaseUser(job.user);
  dropped.swap(queue_);
  stopped_ = true;
  monitor_.notify_all();
  progress_.wait_for(lock, kIdleThreadsLeave, [this] { return threads_ <= busy_ && !monitor_exists_; });
  lock.unlock();  // what the dropped jobs hold may call back when destroyed
  return all_done;
}

LaneStats Lane::Impl::Stats() const {
  const std::lock_guard lock(mutex_);
  return LaneStats{threads_, busy_, queue_.size(), done_, refused_};
}

Lane::Lane(const LaneOptions& options) : impl_(std::make_shared<Impl>(options)) { impl_->StartMinimum(); }

Lane::~Lane() { impl_->Stop(std::chrono::milliseconds(0)); }

Lane::Submitted Lane::Submit(const std::string& user, std::function<void()> job) {
  return impl_->Submit(user, std::move(job));
}

bool Lane::Stop(std::chrono::milliseconds deadline) { return impl_->Stop(deadline); }

LaneStats Lane::stats() const { return impl_->Stats(); }

}  // namespace vexa::daemon
