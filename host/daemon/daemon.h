// A running host: all parts of vexad, put together.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/api/api_table.h"
#include "host/base/result.h"
#include "host/daemon/config.h"

namespace vexa::daemon {

// One per process.
class Daemon {
 public:
  // Opens the data folder, starts the lanes and the server. `further_rows` are added to the API table (for tests and
  // benchmarks).
  static Result<std::unique_ptr<Daemon>> Start(const Config& config, std::vector<webapi::ApiRow> further_rows = {});
  // Stops immediately, without time for requests, unless it has been stopped.
  ~Daemon();

  // The port of the network listener `index`, in the order of the configuration.
  std::uint16_t port(std::size_t index) const;

  // Where other hosts reach this one, "address:port" for its record in the database; empty without a cluster.
  std::string cluster_address() const;

  // The work that is due about once a minute: dropping ended sessions.
  void Sweep();

  // Lets requests that have begun finish, for at most `deadline`. False when some are left: their threads still use
  // this object. A second call waits for them again.
  bool Stop(std::chrono::milliseconds deadline);

 private:
  class Impl;
  explicit Daemon(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::daemon
