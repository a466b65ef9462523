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

#include "host/base/fair_queue.h"
#include "host/base/recent_owners.h"

namespace vexa {

struct LaneOptions {
  std::string name;     // for thread names and metrics; at most 8 characters
  int min_threads = 1;  // kept alive from the start; 0 is allowed
  int max_threads = 64;
  QueueLimits limits{.queued = 4096};
  std::chrono::milliseconds grow_after{20};  // the first job waits this long before a thread is added
  std::chrono::seconds idle_exit{10};        // a thread above min_threads ends after this long without a job
  std::size_t stack_bytes = std::size_t{1} << 20;
  std::shared_ptr<RecentOwners> recent_owners{};  // shared with other lanes; null: the lane has its own
};

struct LaneStats {
  int threads = 0;
  int busy = 0;                  // threads that run a job
  std::size_t queued = 0;        // jobs that wait
  std::uint64_t done = 0;        // jobs since the start
  std::uint64_t refused = 0;     // likewise
  std::uint64_t over_quota = 0;  // those of them that were refused because their owner had too many
};

// A thread is added when a job has waited for grow_after, and an owner whose jobs have not ended for that long may have
// more of them running (QueueLimits::active_per_user). Owners take turns (fair_queue.h): one who submits a thousand
// jobs delays another's by one. While there are several owners, a thread yields its processor between the jobs of one
// who has more of them waiting: a thread that has to serve another owner would otherwise wait until the time slice of
// this one ends, which is as long as dozens of jobs. A job must not throw. Threads: any, at the same time.
class Lane {
 public:
  enum class SubmitResult { kAccepted, kQueueFull, kOverQuota, kStopped };

  explicit Lane(const LaneOptions& options);
  // As Stop() with a timeout of 0.
  ~Lane();

  SubmitResult Submit(const JobOwner& owner, std::function<void()> job);

  // Stops accepting jobs and waits at most `timeout` for the accepted ones. True when all are done. Otherwise running
  // jobs continue on their threads, which end with the jobs or the process, and waiting jobs are dropped.
  bool Stop(std::chrono::milliseconds timeout);

  LaneStats stats() const;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace vexa
