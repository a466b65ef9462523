// Calls that may never return, made so that their callers always do.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace vexa::guests {

// Each call runs on a thread of its own. One that does not return in time is left behind: its thread stays until the
// call returns, if it ever does, and nothing waits for it, not even the end of this object. Meanwhile calls of the same
// name are refused immediately, so that few threads hang.
// Threads: any, at the same time.
class BoundedCalls {
 public:
  explicit BoundedCalls(std::chrono::milliseconds deadline);
  // Ends what waits, as Stop().
  ~BoundedCalls();
  BoundedCalls(const BoundedCalls&) = delete;
  BoundedCalls& operator=(const BoundedCalls&) = delete;

  struct State;
  struct Run;
  class Call {
   public:
    // Waits until the call has returned, or its deadline has passed since it began. False: it does not answer.
    bool Wait();

   private:
    friend class BoundedCalls;
    std::shared_ptr<State> state_;
    std::shared_ptr<Run> run_;  // null: refused
    std::chrono::steady_clock::time_point deadline_;
  };

  // `call` may outlive everything else of its caller: it owns what it uses, and throws nothing.
  Call Begin(const std::string& name, std::function<void()> call);

  // From now on every call counts as one that does not answer; those who wait return.
  void Stop();

 private:
  const std::chrono::milliseconds deadline_;
  const std::shared_ptr<State> state_;
};

}  // namespace vexa::guests
