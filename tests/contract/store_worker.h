// Starts store_test_worker: another process on the same store.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vexa::store {

// Killed and reaped when destroyed, if it still runs.
class Worker {
 public:
  explicit Worker(const std::vector<std::string>& arguments);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // The next line of its output without the newline; empty at the end.
  std::string ReadLine();
  // kill -9; what it had written before can still be read.
  void Kill();
  // Its exit code, or 128 and the signal.
  int Wait();

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  std::string unread_;
};

}  // namespace vexa::store
