// This host's own record in the cluster database, and its network interfaces'.
//
//   /dash/host/<host id>/object          {"name", "addresses", "cluster_address", "cpu_cores", "cpu_clock_speed" (MHz),
//                                         "ram_size" (KiB), "state", "started" (Unix seconds), "version",
//                                         "package_version"}
//   /dash/host/<host id>/nics/<nic id>   {"name", "mac_address"}
//   /dash/host/<host id>/seen            {"time" (Unix seconds)}
//
// Members that others put into the first two stay. Interfaces that have gone keep their record: a cable or a driver
// comes back, and others refer to the id.
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
  std::string
      cluster_address;  // "address:port" where other hosts reach this one; empty: nobody can reach it, and removed
  int cpu_cores = 0;
  double cpu_clock_mhz = 0;
  std::uint64_t ram_kib = 0;
  std::string version;
  std::string package_version;  // of the hypervisor; empty: not known, and removed
  // How the host finds itself, a text of VexaCCC::State::Host; empty: as it was, and "running" when it was
  // inaccessible.
  std::string state;
  std::vector<HostNic> nics;
  bool operator==(const HostFacts&) const = default;
};

// Writes the records of a host that has just started in one commit, with the state "running" unless the facts have
// another one. With a claim nothing is written that it does not cover: kDenied.
// Errors: what the store says; kCorrupt when a stored record is no object; kConflict when the record keeps changing.
Status RegisterHost(store::Store& store, const HostFacts& facts, std::chrono::system_clock::time_point now,
                    const HostClaim* claim = nullptr);

struct HostTimes {
  std::chrono::system_clock::time_point started;
  std::chrono::system_clock::time_point now;
};

// The same for a host that has run for a while: a state that others gave it stays, unless it is "inaccessible".
Status UpdateHost(store::Store& store, const HostFacts& facts, const HostTimes& times,
                  const HostClaim* claim = nullptr);

// Tells that the host lives. Only the key "seen" changes, but for a record that says "inaccessible": it gets `state`
// back, or "running" for an empty one. kNotFound, and nothing is written, when the host has no record.
Status TouchHost(store::Store& store, const std::string& host_id, std::chrono::system_clock::time_point now,
                 const std::string& state = "", const HostClaim* claim = nullptr);

// Sets the state to "inaccessible"; nothing to do when the host has no record.
Status LeaveHost(store::Store& store, const std::string& host_id, const HostClaim* claim = nullptr);

// What a host can tell of itself now. What cannot be read is 0 or empty.
using GatherFacts = std::function<HostFacts()>;

struct PresenceOptions {
  std::chrono::milliseconds interval = kPresenceInterval;
  // Null: whoever else writes the record, this host goes on.
  std::shared_ptr<HostClaim> claim{};
  // Guests were taken from this host while it was gone: ends their machines. False: not all of them yet. Nothing is
  // written, and the host stays gone for the others, until it is true.
  std::function<bool()> settle_fenced{};
  // The claim is lost for good: this host must not go on. Called once.
  std::function<void(const std::string& reason)> on_lost{};
};

// Keeps the record current while it lives: registers, and leaves at the end. At every interval it gathers the facts and
// writes them when they have changed or the record has gone; otherwise it touches. A new clock speed alone is not a
// change: many machines report the present one, which is never the same. What cannot be read keeps the value that it
// had. What fails is logged, and tried again at the next interval: a full disk does not keep a host from serving.
// Threads: has one of its own; constructed and destroyed by one. `gather` runs in the constructor, then on that thread.
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
  // Of the constructor, then of the thread:
  HostFacts facts_;  // as they were written last
  std::chrono::system_clock::time_point started_;
  bool registered_ = false;   // whether they ever were
  bool failing_ = false;      // so that a lasting failure is logged once
  bool is_settling_ = false;  // likewise, of what was taken from this host
  bool is_lost_ = false;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace vexa::cluster
