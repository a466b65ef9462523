// Runs calls that may never return, and waits for them with a timeout.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace vexa::storage {

// Each call runs on a separate thread. A call that does not return in time is abandoned: its thread stays until the
// call returns, if it ever does, and nothing waits for it, not even the end of this object. Meanwhile calls of the same
// name are refused immediately, so that few threads hang.
// Threads: any, at the same time.
class BoundedCalls {
 public:
  explicit BoundedCalls(std::chrono::milliseconds timeout);
  // Releases waiting callers, like Stop().
  ~BoundedCalls();
  BoundedCalls(const BoundedCalls&) = delete;
  BoundedCalls& operator=(const BoundedCalls&) = delete;

  struct State;
  struct Run;
  class Call {
   public:
    // Waits until the call has returned, or the timeout has passed since it began. False: it has not returned, or was
    // refused.
    bool Wait();

   private:
    friend class BoundedCalls;
    std::shared_ptr<State> state_;
    std::shared_ptr<Run> run_;  // null when the call was refused
    std::chrono::steady_clock::time_point deadline_;
  };

  // `call` may outlive its caller and this object: it must own everything that it uses, and must not throw.
  Call Begin(const std::string& name, std::function<void()> call);

  // From now on every call counts as not responding; waiting callers return.
  void Stop();

 private:
  const std::chrono::milliseconds timeout_;
  const std::shared_ptr<State> state_;
};

}  // namespace vexa::storage
