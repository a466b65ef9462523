// CommitThread: one turn of the writer, with the commits that were waiting for it.
#include <fmt/format.h>
#include <syslog.h>

#include <cerrno>
#include <exception>
#include <utility>
#include <vector>

#include "host/store/commit_thread_state.h"
#include "host/store/lmdb_error.h"
#include "host/store/lmdb_files.h"
#include "host/store/lmdb_keyspace.h"

namespace vexa::store {
namespace {

using std::chrono::milliseconds;

constexpr std::size_t kMaxGroup = 256;
constexpr std::size_t kMaxGroupBytes = std::size_t{16} << 20;

Status RunBody(const CommitThread::Body& body, KeyspaceWriter& writer) {
  try {
    return body(writer);
  } catch (const std::exception& exception) {
    return Error(ErrorCode::kInternal, "A change of the store was abandoned", exception.what());
  }
}

}  // namespace

// Without a commit in the queue, this probes whether the store can be written.
void CommitThread::State::RunGroup() {
  {
    const MutexLock lock(mutex);
    next_probe = Clock::now() + kProbeInterval;
    waits_for_lock_since = Clock::now();
    if (lock_timeout < timeout) WakeWaiting();  // their deadlines may be earlier now
    if (stopping) paused.NotifyAll();
  }
  Result<WriteTransaction> transaction = environment->BeginWrite();
  Group group;
  bool was_held = false;
  {
    const MutexLock lock(mutex);
    waits_for_lock_since.reset();
    was_held = transaction.ok() && std::exchange(has_reported_lock, false);
    group = TakeGroup();
  }
  if (was_held) ::syslog(LOG_NOTICE, "The database '%s' can be written again.", environment->directory().c_str());
  std::vector<Status> outcomes;
  Status together;
  if (transaction.ok()) {
    WriteTransaction open = std::move(*transaction);  // ends before the callers go on
    together = RunInTransaction(open, group, outcomes);
  } else {
    together = transaction.error();
  }
  Finish(group, together, outcomes);
}

CommitThread::State::Group CommitThread::State::TakeGroup() {
  Group group;
  std::size_t bytes = 0;
  while (!queue.empty() && group.size() < kMaxGroup) {
    PendingCommit& next = *queue.front();
    bytes += next.bytes;
    if (!group.empty() && (bytes > kMaxGroupBytes || next.needs_own_transaction)) break;
    next.is_started = true;
    group.push_back(&next);
    queue.pop_front();
    if (next.needs_own_transaction) break;
  }
  return group;
}

// Runs the group, and commits what it wrote. The result is that of the transaction; `outcomes` has those of its parts.
// A part that fails before it has written anything fails alone.
Status CommitThread::State::RunInTransaction(WriteTransaction& transaction, const Group& group,
                                             std::vector<Status>& outcomes) {
  // The probe overwrites the revision with itself: a normal commit for the disk, but no change for readers.
  const Body probe = [](KeyspaceWriter& writer) -> Status {
    const int code = writer.StoreRevision(writer.revision());
    return code == 0 ? Status() : writer.Fail("Cannot write to the store", code);
  };
  const bool is_probe = group.empty();
  if (is_probe && health == Health::kReady) return {};  // the commits that this turn was for were taken back
  bool wrote = false;
  for (std::size_t i = 0; i < (is_probe ? 1 : group.size()); ++i) {
    KeyspaceWriter writer(*environment, transaction.get(), change_log_length);
    int code = writer.Load();
    const Status done = code == 0 ? RunBody(is_probe ? probe : *group[i]->body, writer) : Status();
    if (code == 0) code = writer.code_;
    if (code != 0) return CommitError(code);
    if (!done.ok() && (writer.wrote_ || done.error().code() == ErrorCode::kInternal)) return done;
    wrote = wrote || writer.wrote_;
    outcomes.push_back(done);
  }
  if (!wrote) return {};
  if (const int code = transaction.Commit(); code != 0) return CommitError(code);
  health = Health::kReady;
  const MutexLock lock(mutex);
  ++commits;
  committed.NotifyAll();
  return {};
}

void CommitThread::State::Finish(const Group& group, const Status& together, const std::vector<Status>& outcomes) {
  if (!together.ok()) RecordFailure(together.error(), Health::kReadOnly);
  const MutexLock lock(mutex);
  if (!together.ok() && together.error().code() == ErrorCode::kNoSpace && group.size() > 1) {
    // Maybe only one of them is too large.
    for (auto at = group.rbegin(); at != group.rend(); ++at) {
      (*at)->needs_own_transaction = true;
      (*at)->is_started = false;
      queue.push_front(*at);
      (*at)->changed.NotifyOne();
    }
    return;
  }
  for (std::size_t i = 0; i < group.size(); ++i) {
    group[i]->outcome = together.ok() ? outcomes[i] : together;
    group[i]->changed.NotifyOne();
  }
}

Error CommitThread::State::CommitError(int code) const {
  // LMDB reports a write that was cut short as an I/O error.
  if (code == EIO) code = ReasonForShortWrite(environment->directory());
  return LmdbError(fmt::format("Cannot commit to the store in '{}'", environment->directory()), code);
}

}  // namespace vexa::store
