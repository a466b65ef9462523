// Lines of the log on their way out of the process. Their reader may be slow or have stopped, and no thread that logs
// may wait for it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <thread>

#include "host/base/mutex.h"

namespace vexa::daemon {

// A bounded queue with a thread that writes its lines one after another. When it is full, new lines are dropped and
// counted; a line in their place says how many were lost.
// Threads: any, at the same time, except for the destructor.
class LogQueue {
 public:
  using Write = std::function<void(int priority, const std::string& line)>;

  static constexpr std::size_t kMaxBytes = std::size_t{4} << 20;

  // `write` is called on the queue's thread, without a lock, and may wait for as long as it likes. Each line counts a
  // little more than its length towards `max_bytes`.
  explicit LogQueue(Write write, std::size_t max_bytes = kMaxBytes);
  // Writes what is in the queue.
  ~LogQueue();
  LogQueue(const LogQueue&) = delete;
  LogQueue& operator=(const LogQueue&) = delete;

  // Never waits for a write.
  void Push(int priority, std::string line);

  // Waits until all lines so far have been written or the time has come; false: lines are left.
  bool Flush(std::chrono::steady_clock::time_point until);

 private:
  struct Line {
    int priority;
    std::string text;
  };

  bool IsDone() const VEXA_REQUIRES(mutex_);
  void EnsureThread() VEXA_REQUIRES(mutex_);
  void Enqueue(int priority, std::string line) VEXA_REQUIRES(mutex_);
  void EnqueueLossNotice() VEXA_REQUIRES(mutex_);
  void Run();

  const Write write_;
  const std::size_t max_bytes_;
  Mutex mutex_;
  ConditionVariable changed_;
  std::deque<Line> lines_ VEXA_GUARDED_BY(mutex_);
  std::size_t bytes_ VEXA_GUARDED_BY(mutex_) = 0;
  std::uint64_t lost_ VEXA_GUARDED_BY(mutex_) = 0;  // since the last notice
  bool is_writing_ VEXA_GUARDED_BY(mutex_) = false;
  bool is_ending_ VEXA_GUARDED_BY(mutex_) = false;
  std::thread thread_;  // changed by EnsureThread, under mutex_, and by the destructor
};

}  // namespace vexa::daemon
