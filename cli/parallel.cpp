#include "cli/parallel.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iostream>
#include <system_error>
#include <thread>
#include <vector>

#include "cli/exit_code.h"
#include "host/base/mutex.h"

namespace vexa::cli {
namespace {

bool IsIgnored(int signal) {
  struct sigaction action {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// During its lifetime, SIGINT is blocked in this thread and in the threads that it starts.
class BlockedInterrupt {
 public:
  BlockedInterrupt() : is_blocked_(!IsIgnored(SIGINT)) {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    if (is_blocked_) ::pthread_sigmask(SIG_BLOCK, &signals_, &original_);
  }
  ~BlockedInterrupt() {
    if (is_blocked_) ::pthread_sigmask(SIG_SETMASK, &original_, nullptr);
  }
  BlockedInterrupt(const BlockedInterrupt&) = delete;
  BlockedInterrupt& operator=(const BlockedInterrupt&) = delete;

  // Whether SIGINT has arrived since the last call.
  bool Consume() const {
    const timespec no_time{};
    return is_blocked_ && ::sigtimedwait(&signals_, nullptr, &no_time) == SIGINT;
  }

 private:
  const bool is_blocked_;
  sigset_t signals_{};
  sigset_t original_{};
};

// Counts the finished pieces of work. Threads: any.
class Progress {
 public:
  void Add() {
    const MutexLock lock(mutex_);
    ++done_;
    changed_.NotifyOne();
  }

  // Waits until the count differs from `seen`, at most `timeout`. Returns the count.
  std::size_t WaitForChange(std::size_t seen, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    const MutexLock lock(mutex_);
    while (done_ == seen && changed_.WaitUntil(mutex_, end)) {
    }
    return done_;
  }

 private:
  Mutex mutex_;
  ConditionVariable changed_;
  std::size_t done_ VEXA_GUARDED_BY(mutex_) = 0;
};

[[noreturn]] void EndInterrupted(const ParallelOptions& options) {
  options.on_interrupt();
  std::cout.flush();
  std::cerr.flush();
  ::_exit(static_cast<int>(ExitCode::kInterrupted));  // the other threads still wait for the server
}

}  // namespace

void RunInParallel(std::size_t count, const ParallelOptions& options, const std::function<void(std::size_t)>& work) {
  constexpr auto kCheckInterval = std::chrono::milliseconds(100);
  constexpr int kChecksPerSecond = 10;
  const BlockedInterrupt interrupt;
  std::atomic<std::size_t> next = 0;
  Progress progress;
  const auto run = [&] {
    for (std::size_t i = next++; i < count; i = next++) {
      work(i);
      progress.Add();
    }
  };
  std::vector<std::jthread> threads;
  try {
    while (threads.size() < std::min(count, options.threads)) threads.emplace_back(run);
  } catch (const std::system_error&) {
    if (threads.empty()) throw;  // otherwise the existing threads do all the work
  }
  for (std::size_t seen = 0, checks = 1; seen < count; ++checks) {
    const std::size_t done = progress.WaitForChange(seen, kCheckInterval);
    const bool has_changed = done != seen;
    seen = done;
    if (interrupt.Consume()) EndInterrupted(options);
    if (has_changed || checks % kChecksPerSecond == 0) options.on_change();
  }
}

}  // namespace vexa::cli
