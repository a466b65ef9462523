// Calls this host's own methods without a socket.
#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>

#include "webapi/platform/dr.h"

namespace vexa::transport {

// Calls a method of this host's API table with the rights of a cluster host, on behalf of the calling thread's Origin
// (origin.h), on a thread of the method's lane, and waits at most `timeout` for the reply. The reply has the form that
// a host would send: {"success", "data" or "error"}, and top-level members such as "has_fail". Never throws; an unknown
// API, method or version is the error 507, a time-out 102. Threads: any, at the same time.
using LocalCall = std::function<Json::Value(const VexaDRCore::Request& request, std::chrono::milliseconds timeout)>;

}  // namespace vexa::transport
