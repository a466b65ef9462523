#include "host/store/embedded_store.h"

#include <fmt/format.h>

#include <utility>

#include "host/store/key.h"

namespace vexa::store {
namespace {

constexpr std::size_t kMaxTextBytes = std::size_t{256} << 20;

std::size_t BytesOf(const Transaction& transaction) {
  std::size_t bytes = 0;
  for (const Operation& operation : transaction.operations) {
    bytes += operation.key.size() + (operation.text ? operation.text->size() : 0);
  }
  return bytes;
}

Status Validate(const Transaction& transaction) {
  for (const Compare& compare : transaction.compares) {
    if (!IsValidKey(compare.key)) return Error(ErrorCode::kInvalid, "A compare names a key that cannot be stored");
  }
  for (const Operation& operation : transaction.operations) {
    if (!IsValidKey(operation.key)) return Error(ErrorCode::kInvalid, "An operation names a key that cannot be stored");
    if (operation.text && operation.text->size() > kMaxTextBytes) {
      return Error(ErrorCode::kInvalid, fmt::format("The value of '{}' is too large", operation.key));
    }
  }
  return {};
}

Error Conflict(const Compare& compare, Revision found) {
  return Error(ErrorCode::kConflict, fmt::format("'{}' has revision {}, not {}", compare.key, found, compare.revision));
}

// One of the transactions that share a transaction of LMDB.
Result<Revision> RunOne(KeyspaceWriter& writer, const Transaction& transaction) {
  for (const Compare& compare : transaction.compares) {
    const Result<Revision> found = writer.RevisionOf(compare.key);
    if (!found.ok()) return found.error();
    if (*found != compare.revision) return Conflict(compare, *found);
  }
  const Revision next = writer.revision() + 1;
  if (Status applied = writer.Apply(next, transaction.operations); !applied.ok()) return applied.error();
  return next;
}

}  // namespace

Result<Revision> EmbeddedStore::Commit(const Transaction& transaction) {
  if (Status valid = Validate(transaction); !valid.ok()) return valid.error();
  if (transaction.operations.empty()) return CheckCompares(transaction);
  Revision written = 0;
  const Status committed = keyspace_->Update(
      [&](KeyspaceWriter& writer) -> Status {
        const Result<Revision> revision = RunOne(writer, transaction);
        if (!revision.ok()) return revision.error();
        written = *revision;
        return {};
      },
      BytesOf(transaction));
  if (!committed.ok()) return committed.error();
  return written;
}

Result<Revision> EmbeddedStore::CheckCompares(const Transaction& transaction) const {
  const Result<std::unique_ptr<Snapshot>> snapshot = Read();
  if (!snapshot.ok()) return snapshot.error();
  for (const Compare& compare : transaction.compares) {
    const Result<std::optional<ValueView>> value = snapshot.value()->Get(compare.key);
    if (!value.ok()) return value.error();
    const Revision found = value->has_value() ? (*value)->revision : 0;
    if (found != compare.revision) return Conflict(compare, found);
  }
  return snapshot.value()->revision();
}

}  // namespace vexa::store
