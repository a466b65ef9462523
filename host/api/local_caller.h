// Calls this host's own methods without a socket.
#pragma once

#include <string>

#include "host/api/api_table.h"
#include "host/api/metrics.h"
#include "host/base/lane.h"
#include "host/transport/local_call.h"

namespace vexa::api {

// Implements transport::LocalCall on the API table. The calls have a lane of their own, because callers block threads
// of the other lanes while they wait: with all of those blocked, the calls would never run.
// Threads: any, at the same time.
class LocalCaller {
 public:
  struct Parts {
    const ApiTable* table = nullptr;
    Metrics* metrics = nullptr;
    Lane* lane = nullptr;  // the users take turns; without quotas, as they were counted where their requests arrived
    std::string host_id;   // of this host
  };
  // What `parts` points to must outlive it, and the lane's threads.
  explicit LocalCaller(Parts parts) : parts_(std::move(parts)) {}

  // See transport::LocalCall. A call that has not started by the time-out never starts; one that has started
  // continues, and its reply is dropped.
  Json::Value Call(const VexaDRCore::Request& request, std::chrono::milliseconds timeout);

 private:
  struct Job;
  void Run(Job& job) const;

  Parts parts_;
};

}  // namespace vexa::api
