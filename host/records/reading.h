// Reads records; all reads of one request see the same state of the store.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/records/record_cache.h"

namespace vexa::cluster {

// While a scope lives, the reads of its thread share one snapshot, taken at the first read. Scopes of one thread do not
// nest.
class RequestScope {
 public:
  RequestScope();
  ~RequestScope();
  RequestScope(const RequestScope&) = delete;
  RequestScope& operator=(const RequestScope&) = delete;

  // Releases the snapshot, so that a request that now waits for something else does not keep space in the store
  // occupied; the next read takes a new one. Does nothing outside of a scope.
  static void ReleaseSnapshot();

  // Identifies the thread's scope uniquely within this process; 0 outside of a scope. Unchanged when the snapshot is
  // released.
  static std::uint64_t Serial();
};

// A scope for one call that reads several times: the request's, or one of its own outside of a request.
class CallScope {
 public:
  CallScope() {
    if (RequestScope::Serial() == 0) own_.emplace();
  }

 private:
  std::optional<RequestScope> own_;
};

// The parsed record under `key`; null when absent. Errors: those of the store, kCorrupt, and kUnavailable
// without an environment.
Result<Record> ReadRecord(std::string_view key);

// The same, as a value owned by the caller and not put into the cache: for passes over many records that are not read
// again soon. Not set: absent.
Result<std::optional<Json::Value>> ReadOnce(std::string_view key);

// Whether there is a value under `key`, valid or not.
Result<bool> Exists(std::string_view key);

// The object of the dashboard's `category` and `id`: never null, and a JSON object. Errors: those of ReadRecord,
// kNotFound, and kCorrupt when it is not an object.
Result<Record> ReadObject(std::string_view category, std::string_view id);

// The children of `prefix`; see store::Snapshot::Children.
Result<std::vector<std::string>> ReadChildren(std::string_view prefix);

// Passes every value at or below `prefix` as it is stored, without the cache; see store::Snapshot::Scan.
Status ScanValues(std::string_view prefix,
                  const std::function<bool(std::string_view key, const store::ValueView& value)>& visit);

}  // namespace vexa::cluster
