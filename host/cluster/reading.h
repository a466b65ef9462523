// Reads of records, all of one request from the same state of the store.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/cluster/record_cache.h"

namespace vexa::cluster {

// While one lives, the reads of its thread share one snapshot, taken at the first read. Scopes of one thread do not
// nest.
class RequestScope {
 public:
  RequestScope();
  ~RequestScope();
  RequestScope(const RequestScope&) = delete;
  RequestScope& operator=(const RequestScope&) = delete;

  // Gives the snapshot back, so that a request that now waits for something else holds no space in the store; the next
  // read takes a new one. Nothing happens outside of a scope.
  static void ReleaseSnapshot();
};

// The parsed record under `key`; null when there is none. Errors: what the store says, kCorrupt, and kUnavailable
// without an environment.
Result<Record> ReadRecord(std::string_view key);

// The children of `prefix`; see store::Snapshot::Children.
Result<std::vector<std::string>> ReadChildren(std::string_view prefix);

}  // namespace vexa::cluster
