#include "host/daemon/health_probe.h"

#include <exception>
#include <optional>
#include <utility>

#include "host/base/background_thread.h"
#include "host/base/mutex.h"
#include "host/store/key.h"

namespace vexa::daemon {
namespace {

using Clock = std::chrono::steady_clock;

std::string DescribeHealth(store::Health health) {
  switch (health) {
    case store::Health::kReady:
      return "";
    case store::Health::kReadOnly:
      return "the database cannot be written";
    case store::Health::kHeld:
      return "the database is held by another process";
    case store::Health::kInaccessible:
      return "the database cannot be read";
  }
  return "";
}

// The time since a heartbeat last arrived, by the revision of its key: the clock may be set, and other hosts write too.
class HeartbeatWatch {
 public:
  HeartbeatWatch(std::shared_ptr<store::Store> store, const std::string& host_id)
      : store_(std::move(store)), key_(store::MakeKey({"dash", "host", host_id, "seen"})) {}

  // While the database is known to be lost, no heartbeat can arrive.
  void Restart() { changed_ = Clock::now(); }

  // Not set while the database cannot be read.
  std::optional<Clock::duration> Age() {
    const auto snapshot = store_->Read();
    if (!snapshot) return std::nullopt;
    const auto value = (*snapshot)->Get(key_);
    if (!value) return std::nullopt;
    const store::Revision revision = *value ? (*value)->revision : 0;
    if (revision != revision_) changed_ = Clock::now();
    revision_ = revision;
    return Clock::now() - changed_;
  }

 private:
  const std::shared_ptr<store::Store> store_;
  const std::string key_;
  store::Revision revision_ = 0;
  Clock::time_point changed_ = Clock::now();
};

}  // namespace

std::function<std::string()> MakeStoreCheck(std::shared_ptr<store::Store> store, const std::string& host_id,
                                            std::chrono::milliseconds heartbeat_timeout) {
  const auto heartbeats = std::make_shared<HeartbeatWatch>(store, host_id);
  return [store = std::move(store), heartbeats, heartbeat_timeout]() -> std::string {
    if (std::string problem = DescribeHealth(store->health()); !problem.empty()) {
      heartbeats->Restart();
      return problem;
    }
    const std::optional<Clock::duration> age = heartbeats->Age();
    if (!age) return DescribeHealth(store::Health::kInaccessible);
    return *age > heartbeat_timeout ? "the heartbeats of this host do not reach the database" : "";
  };
}

struct HealthProbe::State {
  explicit State(HealthProbeOptions given) : options(std::move(given)) {}

  std::string Check() const {
    try {
      return options.check();
    } catch (const std::exception& exception) {
      return std::string("the database cannot be checked: ") + exception.what();
    }
  }

  void Run() {
    for (;;) {
      {
        const MutexLock lock(mutex);
        if (is_stopping) break;
        checking_since = Clock::now();
      }
      std::string found = Check();
      const MutexLock lock(mutex);
      checking_since.reset();
      problem = std::move(found);
      const auto next = Clock::now() + options.interval;
      while (!is_stopping && changed.WaitUntil(mutex, next)) {
      }
    }
    const MutexLock lock(mutex);
    has_ended = true;
    changed.NotifyAll();
  }

  bool StopWithin(std::chrono::milliseconds timeout) {
    const auto end = Clock::now() + timeout;
    const MutexLock lock(mutex);
    is_stopping = true;
    changed.NotifyAll();
    while (!has_ended && changed.WaitUntil(mutex, end)) {
    }
    return has_ended;
  }

  const HealthProbeOptions options;
  Mutex mutex;
  ConditionVariable changed;
  bool is_stopping VEXA_GUARDED_BY(mutex) = false;
  bool has_ended VEXA_GUARDED_BY(mutex) = false;
  std::string problem VEXA_GUARDED_BY(mutex);
  std::optional<Clock::time_point> checking_since VEXA_GUARDED_BY(mutex);
};

HealthProbe::HealthProbe(HealthProbeOptions options) : state_(std::make_shared<State>(std::move(options))) {
  thread_ = StartThreadBlockingSignals([state = state_] { state->Run(); });
}

// A thread whose check hangs is left alone; it keeps the state alive.
HealthProbe::~HealthProbe() {
  if (state_->StopWithin(state_->options.deadline)) {
    thread_.join();
  } else {
    thread_.detach();
  }
}

std::string HealthProbe::Problem() const {
  State& state = *state_;
  const MutexLock lock(state.mutex);
  const bool hangs = state.checking_since && Clock::now() - *state.checking_since > state.options.deadline;
  return hangs ? "the database does not answer" : state.problem;
}

}  // namespace vexa::daemon
