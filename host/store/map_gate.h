// Who may use the memory map of a store, and who may replace it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace vexa::store {

// Many users of the map, or one who replaces it. A waiting replacement holds newcomers back, so that a stream of short
// users cannot keep it out for ever; but never a thread that is inside already, which would then wait for itself. Every
// wait for the replacement has an end, so a user who waits for another thread's commit delays it and cannot block it.
// Threads: any, at the same time.
class MapGate {
 public:
  // The right to use the map, given back when destroyed, on any thread.
  class Pass {
   public:
    Pass() = default;
    Pass(Pass&& other) noexcept;
    Pass& operator=(Pass&& other) noexcept;
    ~Pass() { Leave(); }
    void Leave();
    // For the child of a fork, where the gate's lock may be held by a thread that does not exist: leaves nothing.
    void Forget() { gate_ = nullptr; }

   private:
    friend class MapGate;
    Pass(MapGate* gate, std::thread::id holder) : gate_(gate), holder_(holder) {}
    MapGate* gate_ = nullptr;
    std::thread::id holder_;
  };

  Pass Enter();

  // Whether a pass that this thread was given is still in use, wherever it is now.
  bool ThisThreadIsInside();

  // Whether nobody was inside within `patience`, so that the caller now has the map alone, until OpenAgain(). Does not
  // wait when the calling thread itself is inside.
  bool Close(std::chrono::milliseconds patience);
  void OpenAgain();

 private:
  void Leave(std::thread::id holder);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::unordered_map<std::thread::id, int> inside_;  // passes by the thread that entered
  int closing_ = 0;                                  // callers that wait in Close()
  bool closed_ = false;
};

}  // namespace vexa::store
