// The host that runs in this process: owns and connects all parts of vexad.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/api/api_table.h"
#include "host/base/result.h"
#include "host/daemon/config.h"

namespace vexa::daemon {

// At most one per process. Threads: one, except for port(), cluster_address(), Sweep() and IsServing(). Both of the
// latter end before Stop() is called.
class Daemon {
 public:
  // Opens the data folder, starts the lanes and the server. `extra_rows` are added to the API table (for tests and
  // benchmarks).
  static Result<std::unique_ptr<Daemon>> Start(const Config& config, std::vector<api::ApiRow> extra_rows = {});
  // Stops immediately, without time for requests, unless it has been stopped.
  ~Daemon();

  // The port of the network listener `index`, in the order of the configuration.
  std::uint16_t port(std::size_t index) const;

  // Where other hosts reach this one, "address:port" for its record in the database; empty without a cluster.
  std::string cluster_address() const;

  // Call it about once a minute: drops sessions that have ended, which writes and syncs a file.
  void Sweep();

  // Whether requests are served: within `timeout`, each I/O thread handles an event, and the lane for quick calls runs
  // a job. Writes nothing and reads no file.
  bool IsServing(std::chrono::milliseconds timeout);

  // Waits at most `deadline` for requests that have begun. False: some are left, and their threads still use this
  // object; a second call waits for them again.
  bool Stop(std::chrono::milliseconds deadline);

 private:
  class Impl;
  explicit Daemon(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::daemon
