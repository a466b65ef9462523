// A function that is called again and again on a thread of its own, until it is stopped.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace vexa::daemon {

// Threads: one.
class PeriodicCall {
 public:
  // `call` is first called after `interval`, and again that long after each call has returned. It must not throw.
  PeriodicCall(std::chrono::milliseconds interval, std::function<void()> call);
  // Waits for a call in progress unless Stop has given up on it.
  ~PeriodicCall();
  PeriodicCall(const PeriodicCall&) = delete;
  PeriodicCall& operator=(const PeriodicCall&) = delete;

  // Begins no other call, and waits at most `timeout` for one in progress. False: it still runs, and keeps what it
  // uses busy until the process ends.
  bool Stop(std::chrono::milliseconds timeout);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace vexa::daemon
