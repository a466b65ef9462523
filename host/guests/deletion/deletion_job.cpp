#include "host/guests/deletion/deletion_job.h"

#include <fmt/format.h>
#include <syslog.h>

#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/guests/jobs/job_record.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kMaxNotes = 256;
constexpr std::size_t kMaxLoggedNoteBytes = 1024;

}  // namespace

DeletionJob::DeletionJob(const DeletionOptions& options, std::string guest_id)
    : options_(options), guest_id_(std::move(guest_id)), job_(kDeletionKind, options, guest_id_) {}

Result<void, Refusal> DeletionJob::Start(const Requester& requester) {
  for (int attempt = 0; attempt < kMaxJobAttempts; ++attempt) {
    if (Begin(requester) == Outcome::kRefused) return refusal_;
    const Outcome outcome = Continue(Started::kNow);
    if (outcome == Outcome::kDeleted) return {};
    if (outcome == Outcome::kRefused) return refusal_;
  }
  return refusal_;
}

Result<void, Refusal> DeletionJob::Resume(const StoredJob& unfinished) {
  job_.ResumeFrom(unfinished);
  if (const auto allowed = CheckStorage(); !allowed.ok()) return allowed;
  if (unfinished.record->stage == JobStage::kPurging) {
    job_.Purge(CheckStorage());
    return {};
  }
  const auto allowed = job_.CheckNotRunning();
  if (!allowed.ok() && allowed.error().code == host_error::kUnavailable) return allowed;
  Outcome outcome = ResumeFrom(unfinished);
  if (outcome == Outcome::kReady) outcome = Continue(Started::kEarlier);
  if (outcome == Outcome::kDeleted) return {};
  if (outcome == Outcome::kRefused) return refusal_;
  return Start({unfinished.record->user, unfinished.record->host_id, unfinished.record->request_id});
}

// A resumed deletion waits while it is unknown whether the guest runs: its files are already hidden, and an undo would
// bring back a guest that a user wanted to delete.
DeletionJob::Outcome DeletionJob::Continue(Started started) {
  if (const auto allowed = job_.CheckNotRunning(); !allowed.ok()) {
    if (started == Started::kEarlier && allowed.error().code == host_error::kUnavailable)
      return Refuse(allowed.error());
    return Undo(allowed.error(), Outcome::kRefused);
  }
  const Status hidden = HideAll();
  if (!hidden) return Undo(FileRefusalFor(hidden.error()), Outcome::kRefused);
  return CommitRecords();
}

Result<void, Refusal> DeletionJob::CheckStorage() const {
  if (plan_ && !IsRemote()) {
    // All files of the plan, including missing ones, because their storage may have been missing.
    const std::vector<std::string> paths = PathsOf(plan_->files);
    if (const auto allowed = job_.CheckStorage(plan_->repository_id, paths, storage::StorageUse::kExisting);
        !allowed.ok())
      return allowed;
  }
  return job_.CheckStoredFolders();
}

// A repository's host that is alive has to delete the guest itself: it may be starting the guest at this moment.
Result<void, Refusal> DeletionJob::CheckRepositoryHostGone() const {
  if (!IsRemote() || !options_.is_alive || !options_.is_alive(plan_->repository_host_id)) return {};
  return Refusal{host_error::kFailed,
                 fmt::format("The guest's repository belongs to the host '{}', which is alive. Delete the guest there",
                             SanitizeForLog(plan_->repository_host_id, kMaxLoggedIdBytes))};
}

Status DeletionJob::HideAll() {
  later_notes_.clear();
  for (std::size_t i = 0; i < selection_.files.size(); ++i) {
    const auto& [path, hidden] = selection_.files[i];
    const Status done = job_.Hide(selection_.files[i], i);
    if (done) continue;
    if (HasErrorCode(done, ErrorCode::kConflict)) {
      return Error(
          ErrorCode::kConflict,
          fmt::format("Cannot rename '{}', because there is a file '{}' next to it. Check what it is and move it away",
                      SanitizePathForLog(path), hidden));
    }
    if (HasErrorCode(done, ErrorCode::kNotFound)) {
      later_notes_.push_back(fmt::format("the file [{}] no longer exists", SanitizePathForLog(path)));
    } else if (HasErrorCode(done, ErrorCode::kInvalid)) {
      later_notes_.push_back(KeptFile(path, done.error().message()));
    } else {
      return done;
    }
  }
  return job_.SyncAll("sync hidden");
}

// Decides how to go on after the record of the deletion was removed or changed elsewhere.
DeletionJob::Outcome DeletionJob::HandleLostRecord() {
  const auto now = job_.ReadNow();
  if (!now) return Refuse(RefusalFor(now.error()));
  if (!*now) {
    const auto guest = GuestExists();
    if (!guest) return Refuse(RefusalFor(guest.error()));
    if (!*guest) return Outcome::kDeleted;
    return Undo({host_error::kFailed, "The record of the guest's deletion was removed"}, Outcome::kRefused);
  }
  const std::optional<JobRecord>& record = (*now)->record;
  const bool is_of_this_host = record && record->host_id == options_.host_id;
  if (record && record->stage == JobStage::kPurging) {
    if (is_of_this_host) job_.Purge(CheckStorage());
    return Outcome::kDeleted;
  }
  // Another deletion on this host would use the same hidden names. One on another host cannot restore the names, so
  // this one does.
  if (!is_of_this_host) {
    const Status shown = RestoreNames();
    if (!shown) job_.LogFailure(fmt::format("Files stay hidden: {}", shown.error().ToString()));
  }
  return Refuse(HeldByDeletion(**now));
}

DeletionJob::Outcome DeletionJob::HandleFailedCommit(const Error& error) {
  using State = FileJob::FailedCommit::State;
  FileJob::FailedCommit failed_commit = job_.InspectFailedCommit(error);
  if (failed_commit.state == State::kUnknown) return Refuse(std::move(failed_commit.refusal));
  if (failed_commit.state == State::kNotDone) return Undo(failed_commit.refusal, Outcome::kRefused);
  return HandleLostRecord();
}

DeletionJob::Outcome DeletionJob::Undo(const Refusal& refusal, Outcome outcome) {
  refusal_ = refusal;
  const bool is_undone = job_.Undo(CheckStorage(), refusal_, [this] { return RestoreNames(); });
  return is_undone ? outcome : Outcome::kRefused;
}

Status DeletionJob::RestoreNames() {
  if (Status shown = job_.RestoreNames(FileJob::Order::kForwards); !shown) return shown;
  return job_.SyncAll("sync shown");
}

DeletionJob::Outcome DeletionJob::Refuse(Refusal refusal) {
  refusal_ = std::move(refusal);
  return Outcome::kRefused;
}

Result<bool> DeletionJob::GuestExists() const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  const auto value = (*snapshot)->Get(records::GuestObjectKey(guest_id_));
  if (!value) return value.error();
  return value->has_value();
}

bool DeletionJob::IsRemote() const {
  return !plan_->repository_host_id.empty() && plan_->repository_host_id != options_.host_id;
}

void DeletionJob::LogNotes() const {
  const std::string id = SanitizeForLog(guest_id_, kMaxLoggedIdBytes);
  std::size_t count = 0;
  for (const Notes* notes : {&plan_->notes, &selection_.notes, &later_notes_}) {
    for (const std::string& note : *notes) {
      if (++count > kMaxNotes) continue;
      ::syslog(LOG_WARNING, "Deleted guest[%s]: %s.", id.c_str(), SanitizeForLog(note, kMaxLoggedNoteBytes).c_str());
    }
  }
  if (count > kMaxNotes) {
    ::syslog(LOG_WARNING, "Deleted guest[%s]: there are %zu more lines of this kind.", id.c_str(), count - kMaxNotes);
  }
}

}  // namespace vexa::guests
