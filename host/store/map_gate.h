// Controls who may use the memory map of a store, and who may replace it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace vexa::store {

// Many users of the map, or one thread that replaces it. A waiting replacement holds new users back, so that a stream
// of short users cannot starve it; but it never holds back a thread that is already inside, which would then wait for
// itself. Every wait for the replacement is bounded, so a user that waits for another thread's commit delays it but
// cannot block it.
// Threads: any, at the same time.
class MapGate {
 public:
  // The right to use the map. Returned when destroyed, on any thread.
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

  // Whether a pass that this thread obtained is still in use, wherever it is now.
  bool ThisThreadIsInside();

  // Waits up to `patience` until no thread is inside. True: the caller has the map to itself until OpenAgain(). Does
  // not wait when the calling thread itself is inside.
  bool Close(std::chrono::milliseconds patience);
  void OpenAgain();

 private:
  void Leave(std::thread::id holder);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::unordered_map<std::thread::id, int> inside_;  // passes per thread that entered
  int closing_ = 0;                                  // callers that wait in Close()
  bool closed_ = false;
};

}  // namespace vexa::store
