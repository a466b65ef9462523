// How a method is called: how long to wait for its reply, and whether to call it on a host that seems gone.
#pragma once

#include <chrono>

#include "host/transport/breaker.h"
#include "webapi/platform/dr.h"

namespace vexa::transport {

struct MethodRule {
  std::chrono::milliseconds timeout;  // of a request that sets none
  // Methods with kSkippable are not called at all on a host that is gone according to its heartbeat.
  Breaker::CallPriority priority = Breaker::CallPriority::kOrdinary;
};

// A compound request has the longest time-out of its items, and is skippable when all of them are. No method has a
// longer time-out than `default_timeout`.
MethodRule RuleOf(const VexaDRCore::Request& request, std::chrono::milliseconds default_timeout);

}  // namespace vexa::transport
