#include "host/guests/jobs/guest_locks.h"

#include <algorithm>
#include <array>

#include "host/guests/jobs/creation_record.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/guests/jobs/edit_record.h"
#include "host/records/run_record.h"

namespace vexa::guests {
namespace {

struct Lock {
  GuestLock lock;
  const JobKind* job;  // null: the guest's run, which is not a job
};

// In the order in which they are reported.
constexpr std::array kLocks = {Lock{GuestLock::kRun, nullptr}, Lock{GuestLock::kDeletion, &kDeletionKind},
                               Lock{GuestLock::kEdit, &kEditKind}, Lock{GuestLock::kCreation, &kCreationKind}};

std::string KeyOf(const Lock& entry, const std::string& guest_id) {
  return entry.job != nullptr ? entry.job->key(guest_id) : records::RunKey(guest_id);
}

}  // namespace

void CompareFree(store::Transaction& transaction, const std::string& guest_id,
                 std::initializer_list<GuestLock> except) {
  for (const Lock& entry : kLocks) {
    if (std::ranges::find(except, entry.lock) != except.end()) continue;
    transaction.compares.push_back({KeyOf(entry, guest_id), 0});
  }
}

Result<std::optional<GuestLock>> FindLock(const store::Snapshot& snapshot, const std::string& guest_id) {
  for (const Lock& entry : kLocks) {
    const auto held = snapshot.Get(KeyOf(entry, guest_id));
    if (!held) return held.error();
    if (held->has_value()) return std::optional(entry.lock);
  }
  return std::optional<GuestLock>();
}

Result<std::optional<Refusal>> FindJob(const store::Snapshot& snapshot, const std::string& guest_id) {
  for (const Lock& entry : kLocks) {
    const JobKind* const kind = entry.job;
    if (kind == nullptr) continue;
    const auto job = ReadJob(snapshot, *kind, guest_id);
    if (!job) return job.error();
    if (*job) return std::optional<Refusal>(HeldByJob(*kind, **job));
  }
  return std::optional<Refusal>();
}

Result<void, Refusal> CheckNoUnfinishedJob(const store::Store& store, const std::string& guest_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return RefusalFor(snapshot.error());
  Result<std::optional<Refusal>> job = FindJob(**snapshot, guest_id);
  if (!job) return RefusalFor(job.error());
  return OkUnless(*std::move(job));
}

}  // namespace vexa::guests
