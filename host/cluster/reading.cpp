#include "host/cluster/reading.h"

#include <functional>
#include <memory>

#include "host/cluster/environment_internal.h"

namespace vexa::cluster {
namespace {

thread_local bool in_scope = false;
thread_local std::unique_ptr<store::Snapshot> scope_snapshot;

// Calls `read` with the scope's snapshot, or with one of its own outside of a scope.
template <class T>
Result<T> WithSnapshot(const std::function<Result<T>(const store::Snapshot&)>& read) {
  const Environment* environment = CurrentEnvironment();
  if (!environment) return Error(ErrorCode::kUnavailable, "The cluster database is not open");
  if (in_scope && scope_snapshot) return read(*scope_snapshot);
  Result<std::unique_ptr<store::Snapshot>> snapshot = environment->store->Read();
  if (!snapshot) return snapshot.error();
  if (!in_scope) return read(**snapshot);
  scope_snapshot = std::move(*snapshot);
  return read(*scope_snapshot);
}

}  // namespace

RequestScope::RequestScope() { in_scope = true; }

RequestScope::~RequestScope() {
  scope_snapshot.reset();
  in_scope = false;
}

void RequestScope::ReleaseSnapshot() { scope_snapshot.reset(); }

Result<Record> ReadRecord(std::string_view key) {
  return WithSnapshot<Record>([key](const store::Snapshot& snapshot) -> Result<Record> {
    Result<std::optional<store::ValueView>> value = snapshot.Get(key);
    if (!value) return value.error();
    if (!value->has_value()) return Record();
    return CurrentRecordCache().Parse(key, **value);
  });
}

Result<std::vector<std::string>> ReadChildren(std::string_view prefix) {
  return WithSnapshot<std::vector<std::string>>(
      [prefix](const store::Snapshot& snapshot) { return snapshot.Children(prefix); });
}

}  // namespace vexa::cluster
