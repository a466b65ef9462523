// VEXA.Entry.Request: several methods of this host in one request.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

#include "host/api/api_table.h"
#include "host/transport/local_call.h"

namespace vexa::services {

inline constexpr Json::ArrayIndex kMaxCompoundItems = 64;

struct CompoundOptions {
  // For all items together; less than the 30 s that a caller waits, so that a hanging item does not make it lose the
  // others.
  std::chrono::milliseconds timeout = std::chrono::seconds(25);
  int threads = 16;  // that one request may use, including its own
  // Called on the request's own thread with the task of each of the other threads; returns the task to run instead, so
  // that the threads can inherit the context of their request. Without it nothing is inherited.
  std::function<std::function<void()>(std::function<void()> run)> carry;
};

// `local_call` is called by several threads at the same time.
std::vector<webapi::ApiRow> CompoundRows(transport::LocalCall local_call, CompoundOptions options = {});

}  // namespace vexa::services
