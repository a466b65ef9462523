// The thread that writes to a store.
//
// LMDB has one writer among all processes, and the next one waits for the lock without a limit: a stopped process that
// holds it would stop every caller. So only this thread waits for the lock, and callers wait for this thread, with a
// limit.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "host/base/result.h"
#include "host/store/lmdb_environment.h"
#include "host/store/store.h"

namespace vexa::store {

class KeyspaceWriter;

struct CommitThreadOptions {
  std::size_t change_log_length = 0;
  std::chrono::milliseconds commit_timeout{0};
  std::chrono::milliseconds reader_check_interval{0};
};

// Commits that wait at the same time share one transaction of LMDB, and so one sync of the disk. The thread takes them
// from the queue only once it has LMDB's lock: until then, a caller whose time is over takes its commit back, and a
// commit that was taken back never happens. Between commits, the thread frees the reader slots of processes that were
// killed, and after a failure probes once a second whether the store can be written again.
// Threads: any, at the same time.
class CommitThread {
 public:
  using Body = std::function<Status(KeyspaceWriter&)>;
  using Clock = std::chrono::steady_clock;

  CommitThread(std::shared_ptr<LmdbEnvironment> environment, const CommitThreadOptions& options);
  // Does not wait while another process holds the lock: the thread then ends, and lets go of the environment, once it
  // has got the lock.
  ~CommitThread();
  CommitThread(const CommitThread&) = delete;
  CommitThread& operator=(const CommitThread&) = delete;

  // Runs `body` in a write transaction on this class's thread and, if it returns success, commits what it wrote,
  // durably. `bytes` is about how much it writes. Errors: that of `body`; kUnavailable (it has not been started within
  // the timeout, or is not tried, because another process has held the lock for that long); those of LmdbError. After
  // an error nothing has changed, and nothing will.
  Status Commit(const Body& body, std::size_t bytes);

  // From now on commits wait at most this long while another process holds the lock. They still wait for the timeout
  // while this thread is busy with others.
  void LimitLockWaits(std::chrono::milliseconds longest);

  // kHeld while another process has held the lock for longer than the timeout; otherwise the result of the last
  // accesses. Never waits.
  Health health() const;
  // Errors caused by the input (kInvalid) or by contention (kBusy) do not affect the store's health.
  void RecordFailure(const Error& error, Health consequence) const;

  // How many transactions this thread has committed.
  std::uint64_t commits() const;
  // Waits until there are more than `seen`, or until `deadline`.
  void WaitForCommit(std::uint64_t seen, Clock::time_point deadline) const;

 private:
  struct State;
  const std::shared_ptr<State> state_;
  std::thread thread_;
};

}  // namespace vexa::store
