// Starts store_test_worker, a process that uses the same store.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace vexa::store {

// The destructor kills the process, if it still runs, and waits for its end.
class Worker {
 public:
  explicit Worker(const std::vector<std::string>& arguments);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // The next line of its output without the newline; empty at the end.
  std::string ReadLine();
  // Sends SIGKILL. Output from before can still be read.
  void Kill() { Signal(SIGKILL); }
  void Signal(int number);
  pid_t pid() const { return pid_; }
  // Waits for its end. Returns its exit code, or 128 plus the signal.
  int Wait();

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  std::string unread_;
};

}  // namespace vexa::store
