#include "host/records/object_edit.h"

#include <utility>

#include "host/base/json_parse.h"
#include "json/readers.h"

namespace vexa::cluster {

Result<StoredObject> LoadObject(const store::Snapshot& snapshot, const std::string& key) {
  const auto value = snapshot.Get(key);
  if (!value) return value.error();
  StoredObject stored;
  if (!value->has_value()) return stored;
  Result<Json::Value> parsed = ParseJson((*value)->text);
  if (!parsed || !parsed->isObject()) {
    return Error(ErrorCode::kCorrupt, "The record '" + key + "' is no JSON object: repair or delete it");
  }
  stored.revision = (*value)->revision;
  stored.record = std::move(*parsed);
  return stored;
}

void PutObject(store::Transaction& transaction, const std::string& key, const StoredObject& stored) {
  transaction.compares.push_back({key, stored.revision});
  transaction.operations.push_back({key, VexaVirtualization::json::ToText(stored.record)});
}

std::mutex& RetryMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace vexa::cluster
