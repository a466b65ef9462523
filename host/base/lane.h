// A lane: a bounded queue with a pool of threads that grows when jobs wait and shrinks when they do not.
//
// Written by hand because handlers block: a pool with a fixed number of threads and an unbounded queue, such as
// boost::asio::thread_pool, would either stand still behind a few of them or keep a thousand threads for nothing.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace vexa::daemon {

struct LaneOptions {
  std::string name;     // for thread names and metrics; at most 8 characters
  int min_threads = 1;  // kept alive from the start; 0 is allowed
  int max_threads = 64;
  std::size_t max_queued = 4096;             // jobs that wait for a thread
  std::size_t max_per_user = 0;              // jobs of one user, waiting and running; 0: no quota
  std::chrono::milliseconds grow_after{20};  // the head of the queue waits this long before a thread is added
  std::chrono::seconds idle_exit{10};        // a thread above min_threads ends after this long without a job
  std::size_t stack_bytes = std::size_t{1} << 20;
};

struct LaneStats {
  int threads = 0;
  int busy = 0;
  std::size_t queued = 0;
  std::uint64_t done = 0;
  std::uint64_t refused = 0;
};

// Jobs start in the order in which they were submitted. A job must not throw.
// Threads: any, at the same time.
class Lane {
 public:
  enum class Submitted { kAccepted, kQueueFull, kOverQuota, kStopped };

  explicit Lane(const LaneOptions& options);
  // Same as Stop(0 s).
  ~Lane();

  Submitted Submit(const std::string& user, std::function<void()> job);

  // Stops accepting jobs and waits at most `deadline` for the accepted ones. True when all are done. Otherwise running
  // jobs keep their threads until the process ends, and waiting jobs are dropped.
  bool Stop(std::chrono::milliseconds deadline);

  LaneStats stats() const;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace vexa::daemon
