// Jobs that do not end until the test lets them.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

namespace vexa::test {

// Jobs wait here until the test opens it. Shared with the jobs, as they may outlive the test's scope.
class Gate {
 public:
  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    opened_.notify_all();
  }
  void Pass() {
    std::unique_lock lock(mutex_);
    ++waiting_;
    opened_.wait(lock, [this] { return open_; });
    --waiting_;
  }
  int waiting() {
    const std::lock_guard lock(mutex_);
    return waiting_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
  int waiting_ = 0;
};

struct GateOpener {
  std::shared_ptr<Gate> gate = std::make_shared<Gate>();
  ~GateOpener() { gate->Open(); }
  std::function<void()> job() const {
    return [held = gate] { held->Pass(); };
  }
};

}  // namespace vexa::test
