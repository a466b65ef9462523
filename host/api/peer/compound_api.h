// VEXA.Entry.Request: several methods of this host in one request.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

#include "host/api/api_table.h"
#include "host/transport/local_call.h"

namespace vexa::api {

inline constexpr Json::ArrayIndex kMaxCompoundItems = 64;

struct CompoundOptions {
  // For all items together; less than the 30 s that a caller waits, so that the caller still gets the other results
  // when one item hangs.
  std::chrono::milliseconds timeout = std::chrono::seconds(25);
  int threads = 16;  // that one request may use, including its own
  // Wraps the task of a helper thread so that it runs in the context of the request. Called on the request's own
  // thread. Not set: helper threads have no context.
  std::function<std::function<void()>(std::function<void()> run)> propagate_context;
};

// `local_call` is called by several threads at the same time.
std::vector<ApiRow> CompoundRows(transport::LocalCall local_call, CompoundOptions options = {});

}  // namespace vexa::api
