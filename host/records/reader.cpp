#include "host/records/reader.h"

#include <atomic>
#include <utility>

#include "host/records/environment_internal.h"
#include "host/records/keys.h"

namespace vexa::records {

Result<Reader> Reader::Open(const store::Store& store, std::uint64_t number) {
  Result<std::unique_ptr<store::Snapshot>> snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return Reader(store, std::move(*snapshot), number);
}

Result<Reader> Reader::OpenCurrent(std::uint64_t number) {
  const Environment* const environment = CurrentEnvironment();
  if (!environment) return Error(ErrorCode::kUnavailable, "The cluster database is not open");
  return Open(*environment->store, number);
}

std::uint64_t Reader::NewReaderId() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

// Null when the records of this store are not cached.
RecordCache* Reader::Cache() const {
  const Environment* const environment = CurrentEnvironment();
  return environment && environment->store.get() == store_ ? &CurrentRecordCache() : nullptr;
}

Result<Record> Reader::ReadRecord(std::string_view key) const {
  const Result<std::optional<store::ValueView>> value = Get(key);
  if (!value) return value.error();
  if (!value->has_value()) return Record();
  if (RecordCache* const cache = Cache()) return cache->Parse(key, **value, number_);
  Result<Json::Value> parsed = ParseRecord(key, (*value)->text);
  if (!parsed) return parsed.error();
  return std::make_shared<const Json::Value>(std::move(*parsed));
}

Result<std::optional<Json::Value>> Reader::ReadUncached(std::string_view key) const {
  const Result<std::optional<store::ValueView>> value = Get(key);
  if (!value) return value.error();
  if (!value->has_value()) return std::optional<Json::Value>();
  RecordCache* const cache = Cache();
  const Record cached = cache ? cache->Find(key, (*value)->revision, number_) : nullptr;
  if (cached) return std::optional<Json::Value>(*cached);
  Result<Json::Value> parsed = ParseRecord(key, (*value)->text);
  if (!parsed) return parsed.error();
  return std::optional<Json::Value>(std::move(*parsed));
}

Result<Record> Reader::ReadObject(std::string_view category, std::string_view id) const {
  Result<Record> record = ReadRecord(ObjectKey(category, id));
  if (!record) return record;
  if (!*record) return Error(ErrorCode::kNotFound, "There is no such record");
  if (!(*record)->isObject()) return Error(ErrorCode::kCorrupt, "The record is not an object");
  return record;
}

Result<store::Revision> Reader::RevisionOf(std::string_view key) const {
  const Result<std::optional<store::ValueView>> value = Get(key);
  if (!value) return value.error();
  return value->has_value() ? (*value)->revision : 0;
}

}  // namespace vexa::records
