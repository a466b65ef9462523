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
  // For all items together; less than the 30 s that a caller waits, so that an item that hangs does not cost it the
  // others.
  std::chrono::milliseconds timeout = std::chrono::seconds(25);
  int threads = 16;  // that one request may use, its own included
  // Called on the request's own thread with what each of the others is to do; gives what they do instead, so that they
  // can take along what threads know of their request. Nothing of the kind without it.
  std::function<std::function<void()>(std::function<void()> run)> carry;
};

// `local_call` is called by several threads at once.
std::vector<webapi::ApiRow> CompoundRows(transport::LocalCall local_call, CompoundOptions options = {});

}  // namespace vexa::services
