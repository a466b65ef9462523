// What is wrong with this host's database, found out by a thread of its own, so that callers never wait for a disk.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "host/store/store.h"

namespace vexa::daemon {

struct HealthProbeOptions {
  // Returns the problem, or "". May block; an exception is a problem as well. It must own what it uses, because one
  // that hangs is left alone when the probe is destroyed, which waits for at most `deadline`.
  std::function<std::string()> check;
  std::chrono::milliseconds interval{1'000};
  // A check that takes longer is a problem itself.
  std::chrono::milliseconds deadline{5'000};
};

// Threads: any for Problem; one constructs and destroys it.
class HealthProbe {
 public:
  explicit HealthProbe(HealthProbeOptions options);
  ~HealthProbe();
  HealthProbe(const HealthProbe&) = delete;
  HealthProbe& operator=(const HealthProbe&) = delete;

  // The problem that the last check found, or a sentence that the current check hangs; "" if all is well. Never waits.
  std::string Problem() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::thread thread_;
};

// A check of the host's database: what the store reports about itself, and whether the host's heartbeats, which it
// writes every few seconds, still reach it.
std::function<std::string()> MakeStoreCheck(std::shared_ptr<store::Store> store, const std::string& host_id,
                                            std::chrono::milliseconds heartbeat_timeout = std::chrono::seconds(15));

}  // namespace vexa::daemon
