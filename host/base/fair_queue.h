// The queue behind a lane: the jobs that wait, whose turn it is, and whose jobs are too many.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace vexa {

// Whose job it is.
struct JobOwner {
  std::string user;    // the owners take turns; a host's calls on behalf of two users have two owners
  std::string host{};  // the jobs of all owners with this host also count together; empty: they do not
};

// 0: unlimited.
struct QueueLimits {
  std::size_t queued = 0;            // jobs that wait
  std::size_t per_user = 0;          // jobs of one owner, waiting and running
  std::size_t per_host = 0;          // jobs of one host, waiting and running
  std::size_t running_per_user = 0;  // more jobs of an owner wait, even when a thread is free
  // The same while jobs of the owner keep ending. One whose jobs do not end is given more room, by AdmitStuck(): they
  // wait for something, and do not take the processors from others.
  std::size_t active_per_user = 0;
};

// Owners take turns: each is given one job at a time. The jobs of one owner start in the order in which they came.
// Threads: one at a time.
class FairQueue {
 public:
  using Clock = std::chrono::steady_clock;
  enum class PushResult { kQueued, kFull, kOverQuota };
  struct Owner;
  struct Job {
    std::function<void()> run;
    Owner* owner = nullptr;  // exists as long as the job
    Clock::time_point submitted;
    bool has_successors = false;  // its owner had more jobs waiting when it started
  };
  // What an owner has in the queue. For the queue itself.
  struct Owner {
    const std::string* name = nullptr;
    std::pair<const std::string, std::size_t>* host = nullptr;
    std::deque<Job> waiting{};
    std::size_t running = 0;
    std::size_t allowed = 0;       // how many may run now
    Clock::time_point progress{};  // when the last of its jobs started or ended
    std::size_t ready = 0;         // jobs in `waiting` that may start now; the owner has a turn when there is one
  };

  explicit FairQueue(const QueueLimits& limits);
  FairQueue(const FairQueue&) = delete;
  FairQueue& operator=(const FairQueue&) = delete;

  PushResult Push(const JobOwner& owner, std::function<void()> run);
  // The next job, which counts as running until Finish(). Requires that one is ready.
  Job Take();
  void Finish(const Job& job);
  // Allows one more job to each owner whose running jobs have neither started nor ended for `patience`, up to
  // running_per_user. Returns when the next owner may be due; nothing when no job waits for this.
  std::optional<Clock::time_point> AdmitStuck(std::chrono::milliseconds patience);
  // Empties the queue and returns the jobs that waited. Running jobs are still to be finished.
  std::deque<Job> Clear();

  std::size_t waiting() const { return waiting_; }
  // Jobs that wait for nothing but a thread.
  std::size_t ready() const { return ready_; }
  // When the job was submitted before which `ahead` others start; exact while the owners have equally many jobs.
  // Requires that more than `ahead` are ready.
  Clock::time_point SubmittedAt(std::size_t ahead) const;

 private:
  Owner& Find(const JobOwner& owner);
  bool IsOverQuota(const Owner& owner) const;
  void Update(Owner& owner);
  void Release(Owner& owner);

  QueueLimits limits_;
  std::unordered_map<std::string, Owner> owners_;       // those with jobs; map nodes do not move
  std::unordered_map<std::string, std::size_t> hosts_;  // jobs, waiting and running
  std::deque<Owner*> turns_;                            // the owners with ready jobs
  std::size_t waiting_ = 0;
  std::size_t ready_ = 0;
};

}  // namespace vexa
