#include "host/store/commit_thread.h"

#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <utility>

#include "host/base/background_thread.h"
#include "host/store/commit_thread_state.h"

namespace vexa::store {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kMaxWaitForEnd{1000};  // for a lock that another process holds

}  // namespace

void CommitThread::State::Run() {
  ReleasableMutexLock lock(mutex);
  while (!stopping || !queue.empty()) {
    const Clock::time_point now = Clock::now();
    const bool is_ready = health == Health::kReady;
    const bool has_work = !queue.empty() || (!is_ready && now >= next_probe);
    const bool must_check_readers = now >= next_reader_check;
    if (!has_work && !must_check_readers) {
      wake.WaitUntil(mutex, is_ready ? next_reader_check : std::min(next_reader_check, next_probe));
      continue;
    }
    if (must_check_readers) next_reader_check = now + reader_check_interval;
    lock.Unlock();
    if (must_check_readers) environment->CheckReaders();
    if (has_work) RunGroup();
    lock.Lock();
  }
  ended = true;
  paused.NotifyAll();
}

bool CommitThread::State::IsHeld(Clock::time_point now) const {
  return waits_for_lock_since && now - *waits_for_lock_since >= lock_timeout;
}

CommitThread::Clock::time_point CommitThread::State::DeadlineFor(Clock::time_point start) const {
  return waits_for_lock_since ? *waits_for_lock_since + lock_timeout : start + timeout;
}

void CommitThread::State::WakeWaiting() {
  for (PendingCommit* const waiting : queue) waiting->changed.NotifyOne();
}

// Waits for the outcome, or takes the commit back when its time is over before it has been started.
std::optional<CommitThread::State::Refusal> CommitThread::State::Await(PendingCommit& pending,
                                                                       Clock::time_point start) {
  const MutexLock lock(mutex);
  if (!IsHeld(start)) {
    queue.push_back(&pending);
    wake.NotifyOne();
  }
  while (!pending.outcome) {
    if (pending.is_started) {
      pending.changed.Wait(mutex);
      continue;
    }
    const Clock::time_point now = Clock::now();
    const Clock::time_point deadline = DeadlineFor(start);
    if (now >= deadline) {
      std::erase(queue, &pending);
      const bool is_held = IsHeld(now);
      const bool is_first = is_held && !std::exchange(has_reported_lock, true);
      return Refusal{is_held, is_first, is_held ? lock_timeout : timeout};
    }
    pending.changed.WaitUntil(mutex, deadline);
  }
  return std::nullopt;
}

Error CommitThread::State::ErrorOf(const Refusal& refusal) const {
  if (!refusal.is_held) {
    return Error(ErrorCode::kUnavailable,
                 fmt::format("The database is too slow: the change was not started within {} ms, and nothing was "
                             "changed",
                             refusal.waited.count()));
  }
  const std::optional<pid_t> holder = environment->FindWriter();
  Error error(
      ErrorCode::kUnavailable,
      fmt::format("The database is held by another process{} for more than {} ms. Let it continue, or end it. Nothing "
                  "was changed",
                  holder ? fmt::format(" (pid {})", *holder) : ", or its disk does not respond,",
                  refusal.waited.count()));
  if (refusal.is_first) ::syslog(LOG_ERR, "%s.", error.ToString().c_str());
  return error;
}

void CommitThread::State::RecordFailure(const Error& error, Health consequence) {
  if (error.code() == ErrorCode::kInvalid || error.code() == ErrorCode::kBusy) return;
  // A missing file is not recorded: health() checks for it each time, so that the store counts as
  // accessible again once the file is back.
  if (!environment->CheckFileUnchanged().ok()) return;
  const bool unreadable = error.code() == ErrorCode::kUnavailable || error.code() == ErrorCode::kCorrupt;
  const MutexLock lock(mutex);
  health = unreadable ? Health::kInaccessible : consequence;
  next_probe = Clock::now() + kProbeInterval;
  wake.NotifyOne();
}

CommitThread::CommitThread(std::shared_ptr<LmdbEnvironment> environment, const CommitThreadOptions& options)
    : state_(std::make_shared<State>(std::move(environment), options)),
      thread_(StartThreadBlockingSignals([state = state_] { state->Run(); })) {}

CommitThread::~CommitThread() {
  bool ended = false;
  {
    const MutexLock lock(state_->mutex);
    state_->stopping = true;
    state_->wake.NotifyOne();
    while (!state_->ended) {
      const auto since = state_->waits_for_lock_since;
      if (since && Clock::now() >= *since + kMaxWaitForEnd) break;
      if (since) {
        state_->paused.WaitUntil(state_->mutex, *since + kMaxWaitForEnd);
      } else {
        state_->paused.Wait(state_->mutex);
      }
    }
    ended = state_->ended;
  }
  if (ended) {
    thread_.join();
  } else {
    thread_.detach();
  }
}

Status CommitThread::Commit(const Body& body, std::size_t bytes) {
  State::PendingCommit own;
  own.body = &body;
  own.bytes = bytes;
  if (const auto refusal = state_->Await(own, Clock::now())) return state_->ErrorOf(*refusal);
  return *std::move(own.outcome);
}

void CommitThread::LimitLockWaits(milliseconds longest) {
  const MutexLock lock(state_->mutex);
  state_->lock_timeout = std::min(state_->lock_timeout, longest);
  state_->WakeWaiting();
}

Health CommitThread::health() const {
  const MutexLock lock(state_->mutex);
  return state_->IsHeld(Clock::now()) ? Health::kHeld : state_->health.load();
}

void CommitThread::RecordFailure(const Error& error, Health consequence) const {
  state_->RecordFailure(error, consequence);
}

std::uint64_t CommitThread::commits() const {
  const MutexLock lock(state_->mutex);
  return state_->commits;
}

void CommitThread::WaitForCommit(std::uint64_t seen, Clock::time_point deadline) const {
  const MutexLock lock(state_->mutex);
  while (state_->commits == seen && state_->committed.WaitUntil(state_->mutex, deadline)) {
  }
}

}  // namespace vexa::store
