// What a CommitThread shares with its thread, which may outlive it. For its two sources only.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "host/base/mutex.h"
#include "host/store/commit_thread.h"

namespace vexa::store {

struct CommitThread::State {
  static constexpr std::chrono::milliseconds kProbeInterval{1000};

  struct PendingCommit {
    const Body* body = nullptr;
    std::size_t bytes = 0;
    // The rest is guarded by the state's mutex.
    bool is_started = false;  // it is not in the queue
    bool needs_own_transaction = false;
    std::optional<Status> outcome;
    ConditionVariable changed;
  };
  using Group = std::vector<PendingCommit*>;
  // Why a commit was not started.
  struct Refusal {
    bool is_held = false;
    bool is_first = false;  // since the lock is held
    std::chrono::milliseconds waited{0};
  };

  State(std::shared_ptr<LmdbEnvironment> opened, const CommitThreadOptions& options)
      : environment(std::move(opened)),
        change_log_length(options.change_log_length),
        reader_check_interval(options.reader_check_interval),
        timeout(options.commit_timeout),
        lock_timeout(options.commit_timeout),
        next_reader_check(Clock::now() + options.reader_check_interval) {}

  // commit_group.cpp: one turn of the writer
  void RunGroup();
  Group TakeGroup() VEXA_REQUIRES(mutex);
  Status RunInTransaction(WriteTransaction& transaction, const Group& group, std::vector<Status>& outcomes);
  void Finish(const Group& group, const Status& together, const std::vector<Status>& outcomes);
  Error CommitError(int code) const;

  // commit_thread.cpp: queue and health
  void Run();
  std::optional<Refusal> Await(PendingCommit& pending, Clock::time_point start);
  Error ErrorOf(const Refusal& refusal) const;
  bool IsHeld(Clock::time_point now) const VEXA_REQUIRES(mutex);
  // For the start of a commit that began to wait at `start`. It changes when the thread begins to wait for the lock.
  Clock::time_point DeadlineFor(Clock::time_point start) const VEXA_REQUIRES(mutex);
  void WakeWaiting() VEXA_REQUIRES(mutex);
  void RecordFailure(const Error& error, Health consequence);

  const std::shared_ptr<LmdbEnvironment> environment;
  const std::size_t change_log_length;
  const std::chrono::milliseconds reader_check_interval;
  std::atomic<Health> health{Health::kReady};

  Mutex mutex;
  ConditionVariable wake;       // for the thread
  ConditionVariable committed;  // for watchers
  ConditionVariable paused;     // the thread has ended, or waits for the lock
  std::deque<PendingCommit*> queue VEXA_GUARDED_BY(mutex);
  std::optional<Clock::time_point> waits_for_lock_since VEXA_GUARDED_BY(mutex);
  const std::chrono::milliseconds timeout;
  std::chrono::milliseconds lock_timeout VEXA_GUARDED_BY(mutex);  // at most `timeout`
  Clock::time_point next_reader_check VEXA_GUARDED_BY(mutex);
  Clock::time_point next_probe VEXA_GUARDED_BY(mutex){};
  std::uint64_t commits VEXA_GUARDED_BY(mutex) = 0;
  bool has_reported_lock VEXA_GUARDED_BY(mutex) = false;
  bool stopping VEXA_GUARDED_BY(mutex) = false;
  bool ended VEXA_GUARDED_BY(mutex) = false;
};

}  // namespace vexa::store
