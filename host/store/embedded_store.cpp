#include "host/store/embedded_store.h"

#include <fmt/format.h>

#include <utility>

#include "host/store/key.h"

namespace vexa::store {
namespace {

constexpr std::size_t kMaxBatch = 256;
constexpr std::size_t kMaxBatchBytes = std::size_t{16} << 20;
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

// One transaction of a batch, inside its LMDB transaction.
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
  PendingCommit own;
  own.transaction = &transaction;
  if (keyspace_->ThisThreadHoldsSnapshot()) {
    PendingCommit* const alone = &own;
    return RunBatch({&alone, 1}).front();
  }
  ReleasableMutexLock lock(mutex_);
  queue_.push_back(&own);
  while (!own.outcome && (leading_ || queue_.front() != &own)) own.done_or_leader.Wait(mutex_);
  if (own.outcome) return *std::move(own.outcome);
  leading_ = true;
  const std::vector<PendingCommit*> batch = TakeBatch();
  lock.Unlock();
  std::vector<Result<Revision>> outcomes = RunBatch(batch);
  lock.Lock();
  leading_ = false;
  for (std::size_t i = 0; i < batch.size(); ++i) {
    batch[i]->outcome = std::move(outcomes[i]);
    batch[i]->done_or_leader.NotifyOne();
  }
  if (!queue_.empty()) queue_.front()->done_or_leader.NotifyOne();
  return *std::move(own.outcome);
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

std::vector<EmbeddedStore::PendingCommit*> EmbeddedStore::TakeBatch() {
  std::vector<PendingCommit*> batch;
  std::size_t bytes = 0;
  while (!queue_.empty() && batch.size() < kMaxBatch) {
    bytes += BytesOf(*queue_.front()->transaction);
    if (!batch.empty() && bytes > kMaxBatchBytes) break;
    batch.push_back(queue_.front());
    queue_.pop_front();
  }
  return batch;
}

// An exception here would leave every waiting thread without an outcome, so it ends the process instead.
std::vector<Result<Revision>> EmbeddedStore::RunBatch(std::span<PendingCommit* const> batch) noexcept {
  std::vector<Result<Revision>> outcomes;
  const Status together = RunInOneTransaction(batch, outcomes);
  if (together.ok()) return outcomes;
  if (together.error().code() != ErrorCode::kNoSpace || batch.size() == 1) {
    return std::vector<Result<Revision>>(batch.size(), together.error());
  }
  // Maybe only one of them is too large.
  outcomes.clear();
  for (std::size_t i = 0; i < batch.size(); ++i) {
    std::vector<Result<Revision>> single;
    const Status alone = RunInOneTransaction(batch.subspan(i, 1), single);
    outcomes.push_back(alone.ok() ? std::move(single.front()) : Result<Revision>(alone.error()));
  }
  return outcomes;
}

Status EmbeddedStore::RunInOneTransaction(std::span<PendingCommit* const> batch,
                                          std::vector<Result<Revision>>& outcomes) {
  return keyspace_->Update([&](KeyspaceWriter& writer) -> Status {
    for (const PendingCommit* pending : batch) {
      outcomes.push_back(RunOne(writer, *pending->transaction));
      const Result<Revision>& last = outcomes.back();
      // No partial effect of a failed transaction may remain, so the whole batch is abandoned.
      if (!last.ok() && last.error().code() != ErrorCode::kConflict) return last.error();
    }
    return {};
  });
}

}  // namespace vexa::store
