#include "host/guests/abandoned_jobs.h"

#include <fmt/format.h>

#include "host/base/sanitize_for_log.h"
#include "host/guests/creation/creation_undo.h"
#include "host/guests/jobs/creation_record.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/guests/jobs/edit_record.h"
#include "host/store/key.h"

namespace vexa::guests {
namespace {

// Adds a sentence for each file that the job may have changed and that somebody has to look at: the log cuts longer
// ones.
void AddNotes(const JobKind& kind, const std::string& guest_id, const JobRecord& job, std::vector<std::string>& notes) {
  const bool is_completed = job.stage == JobStage::kPurging;
  const auto add = [&](const std::string& path, const std::string& state) {
    notes.push_back(fmt::format("The {} of guest[{}] {}. If the host's storage still exists, look at [{}], {}",
                                kind.noun, SanitizeForLog(guest_id, kMaxLoggedIdBytes),
                                is_completed ? "was completed, but files that it removes may be left on its host"
                                             : "was given up with its host",
                                SanitizePathForLog(path), state));
  };
  for (const auto& [path, hidden] : job.files.hidden) add(path, fmt::format("maybe named [{}]", hidden));
  if (is_completed) return;  // the guest's records name its other files by now
  for (const std::string& path : job.files.made) add(path, "new");
  for (const disks::Growth& growth : job.files.grown) add(growth.path, "maybe grown");
}

Status Add(const store::Snapshot& snapshot, const JobKind& kind, const std::string& guest_id, const StoredJob& job,
           std::chrono::system_clock::time_point now, store::Transaction& transaction, AbandonedJobs& abandoned) {
  transaction.compares.push_back({kind.key(guest_id), job.revision});
  transaction.operations.push_back({kind.key(guest_id), std::nullopt});
  AddNotes(kind, guest_id, *job.record, abandoned.notes);
  if (&kind != &kCreationKind || job.record->stage != JobStage::kChanging) return {};
  const Refusal refusal{host_error::kFailed, "The host that created the guest was removed from the cluster"};
  const Result<bool> is_found = AddCreationUndo(snapshot, guest_id, refusal, now, transaction);
  if (!is_found) return is_found.error();
  if (*is_found) abandoned.removed_guests.insert(guest_id);
  return {};
}

}  // namespace

Result<AbandonedJobs> AddAbandonedJobs(const store::Snapshot& snapshot, const std::string& host_id,
                                       std::chrono::system_clock::time_point now, store::Transaction& transaction) {
  AbandonedJobs abandoned;
  for (const JobKind* kind : {&kCreationKind, &kEditKind, &kDeletionKind}) {
    const auto guest_ids = snapshot.Children(store::MakeKey({kind->folder}));
    if (!guest_ids) return guest_ids.error();
    for (const std::string& guest_id : *guest_ids) {
      const auto job = ReadJob(snapshot, *kind, guest_id);
      if (!job) return job.error();
      if (!*job || !(*job)->record || (*job)->record->host_id != host_id) continue;
      const Status added = Add(snapshot, *kind, guest_id, **job, now, transaction, abandoned);
      if (!added) return added.error();
    }
  }
  return abandoned;
}

}  // namespace vexa::guests
