// This host's own record in the cluster database, and those of its network interfaces.
//
//   /dash/host/<host id>/object          {"name", "addresses", "cluster_address", "cpu_cores", "cpu_clock_speed" (MHz),
//                                         "ram_size" (KiB), "state", "started" (Unix seconds), "version",
//                                         "package_version", "certificate": {"issued", "expires"} (Unix seconds),
//                                         "simulated" (true: guests run nothing here; else absent)}
//   /dash/host/<host id>/nics/<nic id>   {"name", "mac_address"}
//   /dash/host/<host id>/seen            {"time" (Unix seconds)}
//
// Members that other writers add to the first two are kept. Interfaces that disappear keep their record: a cable or a
// driver may come back, and other records refer to the id.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/base/mutex.h"
#include "host/base/result.h"
#include "host/cluster/host_claim.h"
#include "host/records/host_liveness.h"
#include "host/store/store.h"

namespace vexa::cluster {

struct HostNic {
  std::string id;  // stable across restarts
  std::string name;
  std::string mac_address;
  bool operator==(const HostNic&) const = default;
};

// What is stored about a host. Values that could not be read are 0 or empty.
struct HostFacts {
  std::string host_id;
  std::string name;
  std::vector<std::string> addresses;
  std::string cluster_address;  // "address:port" where other hosts reach this one; empty: unreachable, and the member
                                // is removed
  int cpu_cores = 0;
  double cpu_clock_mhz = 0;
  std::uint64_t ram_kib = 0;
  std::string version;
  std::string package_version;  // of the hypervisor; empty: unknown, and the member is removed
  bool is_simulated = false;    // guests are only simulated here
  // The host's own assessment, a value of VexaCCC::State::Host. Empty: unchanged, or "running" when it was
  // inaccessible.
  std::string state;
  // Of the certificate that the host presents to others, in Unix seconds. 0: none, and the member is removed.
  std::int64_t certificate_issued = 0;
  std::int64_t certificate_expires = 0;
  std::vector<HostNic> nics;
  bool operator==(const HostFacts&) const = default;
};

// Writes the records of a host that has just started in one commit, with the state "running" unless the facts contain
// another one. With a claim, nothing is written unless it is held: kDenied.
// Errors: those of the store; kCorrupt when a stored record is not an object; kConflict when the record keeps changing.
Status RegisterHost(store::Store& store, const HostFacts& facts, std::chrono::system_clock::time_point now,
                    const HostClaim* claim = nullptr);

struct HostTimes {
  std::chrono::system_clock::time_point started;
  std::chrono::system_clock::time_point now;
};

// The same for a host that has registered before: a state that others set is kept, unless it is "inaccessible".
Status UpdateHost(store::Store& store, const HostFacts& facts, const HostTimes& times,
                  const HostClaim* claim = nullptr);

// Writes a heartbeat. Only the key "seen" changes, unless the record says "inaccessible": then its state becomes
// `state`, or "running" when `state` is empty. kNotFound, and nothing is written, when the host has no record.
Status WriteHeartbeat(store::Store& store, const std::string& host_id, std::chrono::system_clock::time_point now,
                      const std::string& state = "", const HostClaim* claim = nullptr);

// Sets the state to "inaccessible"; does nothing when the host has no record.
Status SignOffHost(store::Store& store, const std::string& host_id, const HostClaim* claim = nullptr);

// Returns what the host knows about itself now.
using GatherFacts = std::function<HostFacts()>;

struct HeartbeatOptions {
  std::chrono::milliseconds interval = records::kHeartbeatInterval;
  // Null: this host writes its record without checking whether another daemon has the host id.
  std::shared_ptr<HostClaim> claim{};
  // Stops the guests that were taken from this host while it was gone. False while some still run: nothing is written
  // then, so this host stays gone for the other hosts. Null: there is nothing to stop.
  std::function<bool()> stop_fenced_guests{};
  // Called once when the claim is lost for good: this host must stop. `reason` is a sentence.
  std::function<void(const std::string& reason)> on_lost{};
};

// Keeps the host's record current while it lives: registers the host, and signs it off at the end. At every interval it
// gathers the facts and writes them when they have changed or the record has disappeared; otherwise it only writes a
// heartbeat. A new clock speed alone does not count as a change, because many machines report the current one, which
// always differs. Values that cannot be read stay as they were. Failures are logged and retried at the next interval: a
// full disk does not keep a host from serving.
// Threads: one thread constructs and destroys it; it has a thread of its own. `gather` and the callbacks run in the
// constructor, then on its own thread.
class HostHeartbeat {
 public:
  HostHeartbeat(std::shared_ptr<store::Store> store, GatherFacts gather, HeartbeatOptions options = {});
  ~HostHeartbeat();
  HostHeartbeat(const HostHeartbeat&) = delete;
  HostHeartbeat& operator=(const HostHeartbeat&) = delete;

 private:
  // Writes the facts or a heartbeat, if the claim allows it.
  void PublishOnce();
  // Whether this host may write now. If guests were taken from it, stops them and renews the claim first.
  bool EnsureMayWrite();
  // Waits for the next interval. False: this object is being destroyed.
  bool WaitForInterval();
  void LogWriteFailure(const Error& error);
  Status Write(const HostFacts& facts, std::chrono::system_clock::time_point now) const;
  void Run();

  const std::shared_ptr<store::Store> store_;
  const GatherFacts gather_;
  const HeartbeatOptions options_;
  // Used by the constructor, then by the thread:
  HostFacts facts_;  // as last written
  std::chrono::system_clock::time_point started_;
  bool registered_ = false;                 // whether `facts_` were ever written
  bool failing_ = false;                    // the last write failed; so that a lasting failure is logged once
  bool is_stopping_fenced_guests_ = false;  // which is logged once as well
  bool is_lost_ = false;
  Mutex mutex_;
  ConditionVariable wake_;
  bool stop_ VEXA_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace vexa::cluster
