// Runs calls that may never return, in such a way that their callers always do.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace vexa::guests {

// Each call runs on a thread of its own. A call that does not return in time is abandoned: its thread stays until the
// call returns, if it ever does, and nothing waits for it, not even the end of this object. Meanwhile calls of the same
// name are refused immediately, so that few threads hang.
// Threads: any, at the same time.
class BoundedCalls {
 public:
  explicit BoundedCalls(std::chrono::milliseconds deadline);
  // Ends the waits, like Stop().
  ~BoundedCalls();
  BoundedCalls(const BoundedCalls&) = delete;
  BoundedCalls& operator=(const BoundedCalls&) = delete;

  struct State;
  struct Run;
  class Call {
   public:
    // Waits until the call has returned, or its deadline has passed since it began. False: it does not respond.
    bool Wait();

   private:
    friend class BoundedCalls;
    std::shared_ptr<State> state_;
    std::shared_ptr<Run> run_;  // null: refused
    std::chrono::steady_clock::time_point deadline_;
  };

  // `call` may outlive everything else of its caller: it must own what it uses, and must not throw.
  Call Begin(const std::string& name, std::function<void()> call);

  // From now on every call counts as not responding; waiting callers return.
  void Stop();

 private:
  const std::chrono::milliseconds deadline_;
  const std::shared_ptr<State> state_;
};

}  // namespace vexa::guests
