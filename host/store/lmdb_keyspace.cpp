#include "host/store/lmdb_keyspace.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/store/lmdb_error.h"
#include "host/store/lmdb_files.h"
#include "host/store/lmdb_format.h"
#include "host/store/lmdb_snapshot.h"

namespace vexa::store {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kCheckInterval{50};  // for commits of other processes, which must be seen within 100 ms
constexpr milliseconds kProbeInterval{1000};
constexpr milliseconds kMaxWait = std::chrono::hours(24);
constexpr std::size_t kMaxChangesPerBatch = 10'000;

}  // namespace

Result<std::unique_ptr<LmdbKeyspace>> LmdbKeyspace::Open(const LmdbOptions& options) {
  auto environment = LmdbEnvironment::Open(options);
  if (!environment.ok()) return environment.error();
  return std::unique_ptr<LmdbKeyspace>(
      new LmdbKeyspace(std::move(environment).value(), std::max<std::size_t>(options.change_log_length, 1)));
}

Result<std::unique_ptr<Snapshot>> LmdbKeyspace::Read() const {
  Result<std::unique_ptr<LmdbSnapshot>> snapshot = LmdbSnapshot::Take(environment_);
  if (snapshot.ok()) return std::unique_ptr<Snapshot>(std::move(snapshot).value());
  RecordFailure(snapshot.error(), Health::kInaccessible);
  return snapshot.error();
}

Status LmdbKeyspace::Apply(std::span<const RevisionedOperations> commits) {
  if (commits.empty()) return {};
  return Update([&](KeyspaceWriter& writer) -> Status {
    for (const RevisionedOperations& commit : commits) {
      if (Status applied = writer.Apply(commit.revision, commit.operations); !applied.ok()) return applied;
    }
    return {};
  });
}

Status LmdbKeyspace::Update(const std::function<Status(KeyspaceWriter&)>& body) {
  Status updated = TryUpdate(body);
  if (!updated.ok()) RecordFailure(updated.error(), Health::kReadOnly);
  return updated;
}

Status LmdbKeyspace::TryUpdate(const std::function<Status(KeyspaceWriter&)>& body) {
  Result<WriteTransaction> transaction = environment_->BeginWrite();
  if (!transaction.ok()) return transaction.error();
  KeyspaceWriter writer(*environment_, transaction->get(), change_log_length_);
  int code = writer.Load();
  const Status done = code == 0 ? body(writer) : Status();
  if (code == 0) code = writer.code_;
  if (code == 0 && (!done.ok() || !writer.wrote_)) return done;
  if (code == 0) code = transaction->Commit();
  if (code != 0) return CommitError(code);
  RecordCommit();
  return {};
}

Error LmdbKeyspace::CommitError(int code) const {
  // LMDB reports a write that a full disk cut short as an I/O error.
  if (code == EIO && DiskIsFull(environment_->directory())) code = ENOSPC;
  return LmdbError(fmt::format("Cannot commit to the store in '{}'", environment_->directory()), code);
}

void LmdbKeyspace::RecordCommit() {
  health_ = Health::kReady;
  const MutexLock lock(mutex_);
  ++commits_;
  committed_.NotifyAll();
}

// Errors caused by the input (kInvalid) or by contention (kBusy) do not affect the store's health.
void LmdbKeyspace::RecordFailure(const Error& error, Health consequence) const {
  if (error.code() == ErrorCode::kInvalid || error.code() == ErrorCode::kBusy) return;
  // A missing file is not recorded: health() checks for it each time, so that the store counts as
  // accessible again once the file is back.
  if (!environment_->CheckFileUnchanged().ok()) return;
  const bool unreadable = error.code() == ErrorCode::kUnavailable || error.code() == ErrorCode::kCorrupt;
  health_ = unreadable ? Health::kInaccessible : consequence;
  const MutexLock lock(mutex_);
  next_probe_ = steady_clock::now() + kProbeInterval;
}

Health LmdbKeyspace::health() const {
  if (!environment_->CheckFileUnchanged().ok()) return Health::kInaccessible;
  const Health known = health_;
  if (known == Health::kReady) return known;
  {
    const MutexLock lock(mutex_);
    if (steady_clock::now() < next_probe_) return known;
    next_probe_ = steady_clock::now() + kProbeInterval;
  }
  // The probe overwrites the revision with itself: a normal commit for the disk, but no change for readers.
  auto* const self = const_cast<LmdbKeyspace*>(this);
  static_cast<void>(self->Update([](KeyspaceWriter& writer) -> Status {
    const int code = writer.StoreRevision(writer.revision());
    return code == 0 ? Status() : writer.Fail("Cannot write to the store", code);
  }));
  return health_;
}

Result<ChangeBatch> LmdbKeyspace::Watch(std::string_view prefix, Revision from, milliseconds timeout) const {
  const auto deadline = steady_clock::now() + std::clamp(timeout, milliseconds(0), kMaxWait);
  while (true) {
    std::uint64_t seen = 0;
    {
      const MutexLock lock(mutex_);
      seen = commits_;
    }
    const std::uint64_t seen_transaction = environment_->LastTransactionNumber();
    Result<ChangeBatch> batch = [&]() -> Result<ChangeBatch> {
      const Result<std::unique_ptr<LmdbSnapshot>> snapshot = LmdbSnapshot::Take(environment_);
      if (!snapshot.ok()) return snapshot.error();
      return snapshot.value()->ChangesAfter(from, prefix, kMaxChangesPerBatch);
    }();
    if (!batch.ok() || batch->lost || !batch->changes.empty()) return batch;
    from = batch->revision;
    if (steady_clock::now() >= deadline) return batch;
    WaitForCommit(seen, seen_transaction, deadline);
  }
}

// Waits for a commit newer than those already seen, by this process or another, or until `deadline`.
void LmdbKeyspace::WaitForCommit(std::uint64_t seen, std::uint64_t seen_transaction,
                                 steady_clock::time_point deadline) const {
  ReleasableMutexLock lock(mutex_);
  while (commits_ == seen && steady_clock::now() < deadline) {
    committed_.WaitUntil(mutex_, std::min(deadline, steady_clock::now() + kCheckInterval));
    lock.Unlock();
    const bool other_process_committed = environment_->LastTransactionNumber() != seen_transaction;
    lock.Lock();
    if (other_process_committed) return;
  }
}

}  // namespace vexa::store
