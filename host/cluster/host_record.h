// This host's own record in the cluster database, and its network interfaces'.
//
//   /dash/host/<host id>/object          {"name", "addresses", "cluster_address", "cpu_cores", "cpu_clock_speed" (MHz),
//                                         "ram_size" (KiB), "state", "started" (Unix seconds), "version"}; others may
//                                         add "package_version"
//   /dash/host/<host id>/nics/<nic id>   {"name", "mac_address"}
//   /dash/host/<host id>/seen            {"time" (Unix seconds)}
//
// Members that others put into the first two stay. Interfaces that have gone keep their record: a cable or a driver
// comes back, and others refer to the id.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

// How often a host tells that it lives.
inline constexpr std::chrono::seconds kPresenceInterval{10};

struct HostNic {
  std::string id;  // stable across restarts
  std::string name;
  std::string mac_address;
};

struct HostFacts {
  std::string host_id;
  std::string name;
  std::vector<std::string> addresses;
  std::string cluster_address;  // "address:port" where other hosts reach this one; empty: not known, and not written
  int cpu_cores = 0;
  double cpu_clock_mhz = 0;
  std::uint64_t ram_kib = 0;
  std::string version;
  std::vector<HostNic> nics;
};

// Writes the records in one commit, with the state "running".
// Errors: what the store says; kCorrupt when a stored record is no object; kConflict when others change it all the
// time.
Status RegisterHost(store::Store& store, const HostFacts& facts, std::chrono::system_clock::time_point now);

// Tells that the host lives. Only the key "seen" changes, but for a record that says "inaccessible": it gets the state
// "running" back. kNotFound, and nothing is written, when the host has no record.
Status TouchHost(store::Store& store, const std::string& host_id, std::chrono::system_clock::time_point now);

// Sets the state to "inaccessible"; nothing to do when the host has no record.
Status LeaveHost(store::Store& store, const std::string& host_id);

// Keeps the record current while it lives: registers, touches at every interval, and leaves at the end. What fails is
// logged, and tried again at the next interval: a full disk keeps no host from serving.
// Threads: has one of its own; constructed and destroyed by one.
class HostPresence {
 public:
  HostPresence(std::shared_ptr<store::Store> store, HostFacts facts,
               std::chrono::milliseconds interval = kPresenceInterval);
  ~HostPresence();
  HostPresence(const HostPresence&) = delete;
  HostPresence& operator=(const HostPresence&) = delete;

 private:
  void Announce();
  void Run();

  const std::shared_ptr<store::Store> store_;
  const HostFacts facts_;
  const std::chrono::milliseconds interval_;
  bool registered_ = false;  // of the constructor, then of the thread
  bool failing_ = false;     // so that a lasting failure is logged once
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace vexa::cluster
