// A lane: a bounded queue of jobs with a pool of threads that grows when jobs wait and shrinks when they do not.
//
// Written by hand because handlers block. A pool with a fixed number of threads and an unbounded queue, such as
// boost::asio::thread_pool, would either stall behind a few blocked handlers or need a thousand threads that are
// mostly idle.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace vexa {

struct LaneOptions {
  std::string name;     // for thread names and metrics; at most 8 characters
  int min_threads = 1;  // kept alive from the start; 0 is allowed
  int max_threads = 64;
  std::size_t max_queued = 4096;             // jobs that wait for a thread
  std::size_t max_per_user = 0;              // jobs of one user, waiting and running; 0: no quota
  std::chrono::milliseconds grow_after{20};  // the first job waits this long before a thread is added
  std::chrono::seconds idle_exit{10};        // a thread above min_threads ends after this long without a job
  std::size_t stack_bytes = std::size_t{1} << 20;
};

struct LaneStats {
  int threads = 0;
  int busy = 0;               // threads that run a job
  std::size_t queued = 0;     // jobs that wait
  std::uint64_t done = 0;     // jobs since the start
  std::uint64_t refused = 0;  // likewise
};

// Jobs start in the order in which they were submitted. A job must not throw.
// Threads: any, at the same time.
class Lane {
 public:
  enum class SubmitResult { kAccepted, kQueueFull, kOverQuota, kStopped };

  explicit Lane(const LaneOptions& options);
  // As Stop() with a timeout of 0.
  ~Lane();

  SubmitResult Submit(const std::string& user, std::function<void()> job);

  // Stops accepting jobs and waits at most `timeout` for the accepted ones. True when all are done. Otherwise running
  // jobs continue on their threads, which end with the jobs or the process, and waiting jobs are dropped.
  bool Stop(std::chrono::milliseconds timeout);

  LaneStats stats() const;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace vexa
