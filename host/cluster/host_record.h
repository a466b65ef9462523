// This host's own record in the cluster database, and those of its network interfaces.
//
//   /dash/host/<host id>/object          {"name", "addresses", "cluster_address", "cpu_cores", "cpu_clock_speed" (MHz),
//                                         "ram_size" (KiB), "state", "started" (Unix seconds), "version",
//                                         "package_version"}
//   /dash/host/<host id>/nics/<nic id>   {"name", "mac_address"}
//   /dash/host/<host id>/seen            {"time" (Unix seconds)}
//
// Members that others put into the first two are kept. Interfaces that disappear keep their record: a cable or a driver
// may come back, and other records refer to the id.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/base/result.h"
#include "host/cluster/host_claim.h"
#include "host/records/host_life.h"
#include "host/store/store.h"

namespace vexa::cluster {

struct HostNic {
  std::string id;  // stable across restarts
  std::string name;
  std::string mac_address;
  bool operator==(const HostNic&) const = default;
};

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
  // The host's own assessment, a text of VexaCCC::State::Host. Empty: unchanged, or "running" when it was inaccessible.
  std::string state;
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

// The same for a host that has been running for a while: a state set by others is kept, unless it is "inaccessible".
Status UpdateHost(store::Store& store, const HostFacts& facts, const HostTimes& times,
                  const HostClaim* claim = nullptr);

// Records a sign of life. Only the key "seen" changes, unless the record says "inaccessible": then its state becomes
// `state`, or "running" when `state` is empty. kNotFound, and nothing is written, when the host has no record.
Status TouchHost(store::Store& store, const std::string& host_id, std::chrono::system_clock::time_point now,
                 const std::string& state = "", const HostClaim* claim = nullptr);

// Sets the state to "inaccessible"; does nothing when the host has no record.
Status LeaveHost(store::Store& store, const std::string& host_id, const HostClaim* claim = nullptr);

// What a host knows about itself now. Values that cannot be read are 0 or empty.
using GatherFacts = std::function<HostFacts()>;

struct PresenceOptions {
  std::chrono::milliseconds interval = kPresenceInterval;
  // Null: this host writes its record no matter who else does.
  std::shared_ptr<HostClaim> claim{};
  // Guests were taken from this host while it was gone: ends their machines. False: not all of them yet. Until it is
  // true, nothing is written, and the host stays gone for the others.
  std::function<bool()> settle_fenced{};
  // The claim is lost for good: this host must stop. Called once.
  std::function<void(const std::string& reason)> on_lost{};
};

// Keeps the record current while it lives: registers the host, and signs off at the end. At every interval it gathers
// the facts and writes them when they have changed or the record has disappeared; otherwise it only records a sign of
// life. A new clock speed alone does not count as a change, because many machines report the momentary one, which
// always differs. Values that cannot be read stay as they were. Failures are logged and retried at the next interval: a
// full disk does not keep a host from serving.
// Threads: it has one of its own; constructed and destroyed by one thread. `gather` runs in the constructor, then on
// that thread.
class HostPresence {
 public:
  HostPresence(std::shared_ptr<store::Store> store, GatherFacts gather, PresenceOptions options = {});
  ~HostPresence();
  HostPresence(const HostPresence&) = delete;
  HostPresence& operator=(const HostPresence&) = delete;

 private:
  void Announce();
  // False: this host may not write now.
  bool MayWrite();
  void Complain(const Error& error);
  Status Write(const HostFacts& facts, std::chrono::system_clock::time_point now) const;
  void Run();

  const std::shared_ptr<store::Store> store_;
  const GatherFacts gather_;
  const PresenceOptions options_;
  // Used by the constructor, then by the thread:
  HostFacts facts_;  // as last written
  std::chrono::system_clock::time_point started_;
  bool registered_ = false;   // whether they were ever written
  bool failing_ = false;      // so that a lasting failure is logged once
  bool is_settling_ = false;  // likewise, for guests that were taken from this host
  bool is_lost_ = false;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace vexa::cluster
