#include "host/guests/jobs/guest_locks.h"

#include <algorithm>
#include <array>

#include "host/guests/jobs/deletion_record.h"
#include "host/guests/jobs/edit_record.h"
#include "host/records/run_record.h"

namespace vexa::guests {
namespace {

struct LockKey {
  GuestLock lock;
  std::string (*key)(const std::string& guest_id);
};

constexpr std::array kLocks = {LockKey{GuestLock::kRun, RunKey}, LockKey{GuestLock::kDeletion, DeletionKey},
                               LockKey{GuestLock::kEdit, EditKey}};

}  // namespace

void CompareFree(store::Transaction& transaction, const std::string& guest_id,
                 std::initializer_list<GuestLock> except) {
  for (const LockKey& entry : kLocks) {
    if (std::ranges::find(except, entry.lock) != except.end()) continue;
    transaction.compares.push_back({entry.key(guest_id), 0});
  }
}

Result<bool> IsHeld(const store::Snapshot& snapshot, const std::string& guest_id) {
  for (const LockKey& entry : kLocks) {
    const auto held = snapshot.Get(entry.key(guest_id));
    if (!held) return held.error();
    if (held->has_value()) return true;
  }
  return false;
}

Result<Refused> FindJob(const store::Snapshot& snapshot, const std::string& guest_id) {
  for (const JobKind* kind : {&kDeletionKind, &kEditKind}) {
    const auto job = ReadJob(snapshot, *kind, guest_id);
    if (!job) return job.error();
    if (*job) return Refused(HeldByJob(*kind, **job));
  }
  return Refused();
}

Refused JobUnderWay(const store::Store& store, const std::string& guest_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return FailedBecause(snapshot.error());
  Result<Refused> job = FindJob(**snapshot, guest_id);
  if (!job) return FailedBecause(job.error());
  return std::move(*job);
}

}  // namespace vexa::guests
