// Calls this host's own methods without a socket.
#pragma once

#include <string>

#include "host/api/api_table.h"
#include "host/api/metrics.h"
#include "host/base/lane.h"
#include "host/transport/local_call.h"

namespace vexa::daemon {

// Implements transport::LocalCall on the API table. The calls have a lane of their own: callers wait on the threads of
// the lanes for requests, and if callers took all of those, the calls that they wait for would never get one.
// Threads: any, at the same time.
class LocalCaller {
 public:
  struct Parts {
    const webapi::ApiTable* table = nullptr;
    Metrics* metrics = nullptr;
    Lane* lane = nullptr;  // without a quota: the callers were counted where their requests arrived
    std::string host_id;   // of this host
  };
  // What `parts` points to must outlive it, and the lane's threads.
  explicit LocalCaller(Parts parts) : parts_(std::move(parts)) {}

  // See transport::LocalCall. A call that has not begun by the time-out never does; one that has begun continues, and
  // its reply is dropped.
  Json::Value Call(const VexaDRCore::Request& request, std::chrono::milliseconds timeout);

 private:
  struct Job;
  void Run(Job& job) const;

  Parts parts_;
};

}  // namespace vexa::daemon
