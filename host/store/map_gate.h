// Lets many threads use the memory map of a store, or one thread replace it.
#pragma once

#include <chrono>
#include <optional>
#include <thread>
#include <unordered_map>

#include "host/base/mutex.h"

namespace vexa::store {

// Many users of the map, or one thread that replaces it. A waiting replacement holds new users back, so that a stream
// of short users cannot starve it; but it never holds back a thread that is already inside, which would then wait for
// itself. Every wait for the replacement is bounded, so a user that waits for another thread's commit delays the
// replacement but cannot block it.
// Threads: any, at the same time.
class MapGate {
 public:
  // The right to use the map, until it is destroyed. That may happen on another thread.
  class Pass {
   public:
    Pass() = default;
    Pass(Pass&& other) noexcept;
    Pass& operator=(Pass&& other) noexcept;
    ~Pass() { Leave(); }
    void Leave();

   private:
    friend class MapGate;
    Pass(MapGate* gate, std::thread::id holder) : gate_(gate), holder_(holder) {}
    MapGate* gate_ = nullptr;
    std::thread::id holder_;
  };

  Pass Enter();
  // Not set where Enter() would wait.
  std::optional<Pass> TryEnter();

  // Waits up to `timeout` until no thread is inside. True: the caller has the map to itself until Reopen(). Does
  // not wait when the calling thread itself is inside.
  bool Close(std::chrono::milliseconds timeout);
  void Reopen();

 private:
  void Leave(std::thread::id holder);
  bool MustWait(std::thread::id self) const VEXA_REQUIRES(mutex_) {
    return closed_ || (closing_ > 0 && !passes_by_thread_.contains(self));
  }
  bool IsFree() const VEXA_REQUIRES(mutex_) { return !closed_ && passes_by_thread_.empty(); }

  Mutex mutex_;
  ConditionVariable changed_;
  std::unordered_map<std::thread::id, int> passes_by_thread_ VEXA_GUARDED_BY(mutex_);  // by the thread that entered
  int closing_ VEXA_GUARDED_BY(mutex_) = 0;                                            // threads that wait in Close()
  bool closed_ VEXA_GUARDED_BY(mutex_) = false;
};

}  // namespace vexa::store
