#include "host/records/object_edit.h"

#include <fmt/format.h>

#include <utility>

#include "host/base/json_parse.h"
#include "json/readers.h"

namespace vexa::records {

Result<StoredObject> LoadObject(const store::Snapshot& snapshot, const std::string& key) {
  const auto value = snapshot.Get(key);
  if (!value) return value.error();
  StoredObject stored;
  if (!value->has_value()) return stored;
  Result<Json::Value> parsed = ParseJson((*value)->text);
  if (!parsed || !parsed->isObject()) {
    return Error(ErrorCode::kCorrupt, fmt::format("The record '{}' is not a JSON object. Repair or delete it", key));
  }
  stored.revision = (*value)->revision;
  stored.record = std::move(*parsed);
  return stored;
}

void PutObject(store::Transaction& transaction, const std::string& key, const StoredObject& stored) {
  transaction.compares.push_back({key, stored.revision});
  transaction.operations.push_back({key, VexaVirtualization::json::ToText(stored.record)});
}

Mutex& RetryMutex() {
  static Mutex mutex;
  return mutex;
}

}  // namespace vexa::records
