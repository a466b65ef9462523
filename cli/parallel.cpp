#include "cli/parallel.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "cli/exit_code.h"

namespace vexa::cli {
namespace {

bool IsIgnored(int signal) {
  struct sigaction action {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// While it lives, SIGINT is held back in this thread and its children, until it is taken.
class HeldInterrupt {
 public:
  HeldInterrupt() : is_held_(!IsIgnored(SIGINT)) {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    if (is_held_) ::pthread_sigmask(SIG_BLOCK, &signals_, &before_);
  }
  ~HeldInterrupt() {
    if (is_held_) ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  HeldInterrupt(const HeldInterrupt&) = delete;
  HeldInterrupt& operator=(const HeldInterrupt&) = delete;

  // Whether SIGINT came.
  bool Take() const {
    const timespec no_time{};
    return is_held_ && ::sigtimedwait(&signals_, nullptr, &no_time) == SIGINT;
  }

 private:
  const bool is_held_;
  sigset_t signals_{};
  sigset_t before_{};
};

[[noreturn]] void EndInterrupted(const ParallelOptions& options) {
  options.on_interrupt();
  std::cout.flush();
  std::cerr.flush();
  ::_exit(static_cast<int>(ExitCode::kInterrupted));  // the other threads still wait for the server
}

}  // namespace

void RunInParallel(std::size_t count, const ParallelOptions& options, const std::function<void(std::size_t)>& work) {
  constexpr auto kLook = std::chrono::milliseconds(100);
  constexpr int kChecksPerSecond = 10;
  const HeldInterrupt interrupt;
  std::atomic<std::size_t> next = 0;
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t done = 0;  // under mutex
  const auto run = [&] {
    for (std::size_t i = next++; i < count; i = next++) {
      work(i);
      const std::lock_guard lock(mutex);
      ++done;
      changed.notify_one();
    }
  };
  std::vector<std::jthread> threads;
  try {
    while (threads.size() < std::min(count, options.threads)) threads.emplace_back(run);
  } catch (const std::system_error&) {
    if (threads.empty()) throw;  // the existing ones do all the work
  }
  for (std::size_t seen = 0, checks = 1; seen < count; ++checks) {
    bool is_news = false;
    {
      std::unique_lock lock(mutex);
      is_news = changed.wait_for(lock, kLook, [&] { return done != seen; });
      seen = done;
    }
    if (interrupt.Take()) EndInterrupted(options);
    if (is_news || checks % kChecksPerSecond == 0) options.on_change();
  }
}

}  // namespace vexa::cli
