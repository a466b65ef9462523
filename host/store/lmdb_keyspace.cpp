#include "host/store/lmdb_keyspace.h"

#include <fmt/format.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "host/store/lmdb_error.h"
#include "host/store/lmdb_snapshot.h"

namespace vexa::store {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kCheckInterval{50};  // for commits of other processes, which must be seen within 100 ms
constexpr milliseconds kMaxWait = std::chrono::hours(24);
constexpr std::size_t kMaxChangesPerBatch = 10'000;

}  // namespace

Result<std::unique_ptr<LmdbKeyspace>> LmdbKeyspace::Open(const LmdbOptions& options) {
  auto environment = LmdbEnvironment::Open(options);
  if (!environment.ok()) return environment.error();
  try {
    return std::unique_ptr<LmdbKeyspace>(new LmdbKeyspace(std::move(environment).value(), options));
  } catch (const std::system_error& failure) {
    return ThreadError(fmt::format("The thread that writes to the store in '{}' cannot be started", options.directory),
                       failure);
  }
}

LmdbKeyspace::LmdbKeyspace(std::shared_ptr<LmdbEnvironment> environment, const LmdbOptions& options)
    : environment_(environment),
      commits_(std::move(environment), {std::max<std::size_t>(options.change_log_length, 1), options.commit_timeout,
                                        options.reader_check_interval}) {}

Result<std::unique_ptr<Snapshot>> LmdbKeyspace::Read() const {
  Result<std::unique_ptr<LmdbSnapshot>> snapshot = LmdbSnapshot::Take(environment_);
  if (snapshot.ok()) return std::unique_ptr<Snapshot>(std::move(snapshot).value());
  commits_.RecordFailure(snapshot.error(), Health::kInaccessible);
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

Status LmdbKeyspace::Update(const std::function<Status(KeyspaceWriter&)>& body, std::size_t bytes) {
  return commits_.Commit(body, bytes);
}

Health LmdbKeyspace::health() const {
  return environment_->CheckFileUnchanged().ok() ? commits_.health() : Health::kInaccessible;
}

Result<ChangeBatch> LmdbKeyspace::Watch(std::string_view prefix, Revision from, milliseconds timeout) const {
  const auto deadline = steady_clock::now() + std::clamp(timeout, milliseconds(0), kMaxWait);
  while (true) {
    const std::uint64_t seen = commits_.commits();
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
  while (commits_.commits() == seen && steady_clock::now() < deadline) {
    commits_.WaitForCommit(seen, std::min(deadline, steady_clock::now() + kCheckInterval));
    if (environment_->LastTransactionNumber() != seen_transaction) return;
  }
}

}  // namespace vexa::store
