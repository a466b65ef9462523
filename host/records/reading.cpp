#include "host/records/reading.h"

#include <atomic>
#include <memory>
#include <utility>

#include "host/base/json_parse.h"
#include "host/records/environment_internal.h"
#include "host/records/keys.h"
#include "host/records/record_names.h"
#include "host/records/revisions.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::cluster {
namespace {

std::atomic<std::uint64_t> last_serial{0};
thread_local std::uint64_t scope_serial = 0;  // 0: not in a scope
thread_local std::unique_ptr<store::Snapshot> scope_snapshot;

// Calls `read` with the scope's snapshot, or with one of its own outside of a scope.
template <class T>
Result<T> WithSnapshot(const std::function<Result<T>(const store::Snapshot&)>& read) {
  const Environment* environment = CurrentEnvironment();
  if (!environment) return Error(ErrorCode::kUnavailable, "The cluster database is not open");
  if (scope_serial != 0 && scope_snapshot) return read(*scope_snapshot);
  Result<std::unique_ptr<store::Snapshot>> snapshot = environment->store->Read();
  if (!snapshot) return snapshot.error();
  if (scope_serial == 0) return read(**snapshot);
  scope_snapshot = std::move(*snapshot);
  return read(*scope_snapshot);
}

}  // namespace

RequestScope::RequestScope() { scope_serial = ++last_serial; }

RequestScope::~RequestScope() {
  scope_snapshot.reset();
  scope_serial = 0;
}

void RequestScope::ReleaseSnapshot() { scope_snapshot.reset(); }

std::uint64_t RequestScope::Serial() { return scope_serial; }

Result<Record> ReadRecord(std::string_view key) {
  return WithSnapshot<Record>([key](const store::Snapshot& snapshot) -> Result<Record> {
    Result<std::optional<store::ValueView>> value = snapshot.Get(key);
    if (!value) return value.error();
    if (!value->has_value()) return Record();
    return CurrentRecordCache().Parse(key, **value, RequestScope::Serial());
  });
}

Result<std::optional<Json::Value>> ReadOnce(std::string_view key) {
  using Once = std::optional<Json::Value>;
  return WithSnapshot<Once>([key](const store::Snapshot& snapshot) -> Result<Once> {
    const Result<std::optional<store::ValueView>> value = snapshot.Get(key);
    if (!value) return value.error();
    if (!value->has_value()) return Once();
    if (const Record cached = CurrentRecordCache().Find(key, (*value)->revision, RequestScope::Serial())) {
      return Once(*cached);
    }
    Result<Json::Value> parsed = ParseJson((*value)->text, SharedName);
    if (parsed) return Once(std::move(*parsed));
    return Error(ErrorCode::kCorrupt, "The record '" + std::string(key) + "' cannot be read",
                 parsed.error().ToString());
  });
}

Result<bool> Exists(std::string_view key) {
  return WithSnapshot<bool>([key](const store::Snapshot& snapshot) -> Result<bool> {
    const Result<std::optional<store::ValueView>> value = snapshot.Get(key);
    if (!value) return value.error();
    return value->has_value();
  });
}

Result<store::Revision> RevisionOf(std::string_view key) {
  return WithSnapshot<store::Revision>([key](const store::Snapshot& snapshot) -> Result<store::Revision> {
    const Result<std::optional<store::ValueView>> value = snapshot.Get(key);
    if (!value) return value.error();
    return value->has_value() ? (*value)->revision : 0;
  });
}

Result<store::Revision> CurrentRevision() {
  return WithSnapshot<store::Revision>(
      [](const store::Snapshot& snapshot) -> Result<store::Revision> { return snapshot.revision(); });
}

Result<Record> ReadObject(std::string_view category, std::string_view id) {
  Result<Record> record = ReadRecord(ObjectKey(category, id));
  if (!record) return record;
  if (!*record) return Error(ErrorCode::kNotFound, "There is no such record");
  if (!(*record)->isObject()) return Error(ErrorCode::kCorrupt, "The record is not an object");
  return record;
}

Result<std::vector<std::string>> ReadChildren(std::string_view prefix) {
  return WithSnapshot<std::vector<std::string>>(
      [prefix](const store::Snapshot& snapshot) { return snapshot.Children(prefix); });
}

Status ScanValues(std::string_view prefix,
                  const std::function<bool(std::string_view key, const store::ValueView& value)>& visit) {
  struct Done {};
  const Result<Done> done = WithSnapshot<Done>([&](const store::Snapshot& snapshot) -> Result<Done> {
    const Status scanned = snapshot.Scan(prefix, visit);
    if (!scanned) return scanned.error();
    return Done();
  });
  if (!done) return done.error();
  return {};
}

}  // namespace vexa::cluster
