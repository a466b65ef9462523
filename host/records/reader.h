// Reads records from one consistent state of the store.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/result.h"
#include "host/records/record_cache.h"
#include "host/store/store.h"

namespace vexa::records {

// A snapshot of the store that also returns parsed records. For the store of the installed environment, they come from
// the environment's record cache. Open one reader for a request or a step, pass it to everything that reads for it, and
// close it soon, because the store cannot reuse space while a snapshot is open: never keep a reader while waiting for
// something else, or during a commit. Threads: one at a time.
class Reader final : public store::Snapshot {
 public:
  // Opens a reader of the latest state of `store`, which must outlive it. Readers with the same `number` count as one
  // for the record cache. Errors: those of store::Store::Read.
  static Result<Reader> Open(const store::Store& store, std::uint64_t number = NewReaderId());
  // The same for the environment's store. Errors: as above, and kUnavailable without an environment.
  static Result<Reader> OpenCurrent(std::uint64_t number = NewReaderId());
  // A number that no other reader of this process has; never 0.
  static std::uint64_t NewReaderId();

  // The parsed record under `key`; null when absent. Errors: those of the store, and kCorrupt.
  Result<Record> ReadRecord(std::string_view key) const;

  // The same, as a value owned by the caller and not put into the cache: for passes over many records that are not read
  // again soon. Not set: absent.
  Result<std::optional<Json::Value>> ReadUncached(std::string_view key) const;

  // The object of the dashboard's `category` and `id`: never null, and a JSON object. Errors: those of ReadRecord,
  // kNotFound, and kCorrupt when it is not an object.
  Result<Record> ReadObject(std::string_view category, std::string_view id) const;

  // The revision that wrote the value under `key`; 0 when absent. Errors: those of the store.
  Result<store::Revision> RevisionOf(std::string_view key) const;

  store::Revision revision() const override { return snapshot_->revision(); }
  Result<std::optional<store::ValueView>> Get(std::string_view key) const override { return snapshot_->Get(key); }
  Result<std::vector<std::string>> Children(std::string_view prefix) const override {
    return snapshot_->Children(prefix);
  }
  Status Scan(std::string_view prefix,
              const std::function<bool(std::string_view key, const store::ValueView& value)>& visit) const override {
    return snapshot_->Scan(prefix, visit);
  }

 private:
  Reader(const store::Store& store, std::unique_ptr<store::Snapshot> snapshot, std::uint64_t number)
      : store_(&store), snapshot_(std::move(snapshot)), number_(number) {}

  RecordCache* Cache() const;

  const store::Store* store_;
  std::unique_ptr<store::Snapshot> snapshot_;
  std::uint64_t number_;
};

}  // namespace vexa::records
