#include "host/guests/deletion/deletion_job.h"

#include <syslog.h>

#include <utility>

#include "host/base/log_text.h"
#include "host/guests/jobs/job_record.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kMaxNotes = 256;
constexpr std::size_t kShownNote = 1024;

}  // namespace

DeletionJob::DeletionJob(const DeletionOptions& options, std::string guest_id)
    : options_(options), guest_id_(std::move(guest_id)), job_(kDeletionKind, options, guest_id_) {}

Refused DeletionJob::Start(const Requester& requester) {
  // Work on files can take long.
  cluster::RequestScope::ReleaseSnapshot();
  for (int turn = 0; turn < kJobTurns; ++turn) {
    if (Begin(requester) == Outcome::kRefused) return refusal_;
    const Outcome outcome = GoOn(Begun::kNow);
    if (outcome == Outcome::kDeleted) return std::nullopt;
    if (outcome == Outcome::kRefused) return refusal_;
  }
  return refusal_;
}

Refused DeletionJob::Resume(const StoredJob& begun) {
  job_.TakeUp(begun);
  if (Refused storage = RefuseStorage()) return storage;
  if (begun.record->stage == JobStage::kPurging) {
    job_.Purge(RefuseStorage());
    return std::nullopt;
  }
  cluster::RequestScope::ReleaseSnapshot();
  if (Refused active = job_.RefuseActive(); active && active->code == kUnavailable) return active;
  Outcome outcome = TakeUp(begun);
  if (outcome == Outcome::kReady) outcome = GoOn(Begun::kBefore);
  if (outcome == Outcome::kDeleted) return std::nullopt;
  if (outcome == Outcome::kRefused) return refusal_;
  return Start({begun.record->user, begun.record->host_id, begun.record->request_id});
}

// A resumed deletion that cannot be decided now waits: its files are already hidden, and undoing it would bring back a
// guest that a user wanted to delete.
DeletionJob::Outcome DeletionJob::GoOn(Begun begun) {
  if (Refused active = job_.RefuseActive()) {
    if (begun == Begun::kBefore && active->code == kUnavailable) return Refuse(std::move(*active));
    return Undo(*active, Outcome::kRefused);
  }
  const Status hidden = HideAll();
  if (!hidden) return Undo(FileFailedBecause(hidden.error()), Outcome::kRefused);
  return CommitRecords();
}

Refused DeletionJob::RefuseStorage() const {
  if (plan_ && !IsRemote()) {
    // Includes files that did not exist when they were searched for.
    const std::vector<std::string> paths = PathsOf(plan_->files);
    if (Refused storage = job_.RefuseStorage(plan_->repository_id, paths, StorageUse::kExisting)) return storage;
  }
  return job_.RefuseTrail();
}

// That host has to remove the files, and it may be deciding about the guest at this moment.
Refused DeletionJob::RefuseAlive() const {
  if (!IsRemote() || !options_.is_alive || !options_.is_alive(plan_->repository_host_id)) return std::nullopt;
  return Refusal{kFailed, "The guest's repository belongs to the host '" +
                              cluster::LogText(plan_->repository_host_id, kShownId) +
                              "', which is alive: delete the guest there"};
}

Status DeletionJob::HideAll() {
  later_notes_.clear();
  for (std::size_t i = 0; i < selection_.files.size(); ++i) {
    const auto& [path, hidden] = selection_.files[i];
    const Status done = job_.Hide(selection_.files[i], i);
    if (done) continue;
    if (IsCode(done, ErrorCode::kConflict)) {
      return Error(ErrorCode::kConflict, "Cannot rename '" + cluster::ShownPath(path) + "', since there is a file '" +
                                             hidden + "' beside it: look what it is and move it away");
    }
    if (IsCode(done, ErrorCode::kNotFound)) {
      later_notes_.push_back("there is no file [" + cluster::ShownPath(path) + "] any more");
    } else if (IsCode(done, ErrorCode::kInvalid)) {
      later_notes_.push_back("the file [" + cluster::ShownPath(path) + "] is left: " + done.error().message());
    } else {
      return done;
    }
  }
  return job_.SyncAll("sync hidden");
}

// The record of the deletion was changed elsewhere.
DeletionJob::Outcome DeletionJob::Lost() {
  const auto now = job_.ReadNow();
  if (!now) return Refuse(FailedBecause(now.error()));
  if (!*now) {
    const auto guest = GuestExists();
    if (!guest) return Refuse(FailedBecause(guest.error()));
    if (!*guest) return Outcome::kDeleted;
    return Undo({kFailed, "Somebody has removed the record of the guest's deletion"}, Outcome::kRefused);
  }
  const std::optional<JobRecord>& record = (*now)->record;
  const bool is_of_this_host = record && record->host_id == options_.host_id;
  if (record && record->stage == JobStage::kPurging) {
    if (is_of_this_host) job_.Purge(RefuseStorage());
    return Outcome::kDeleted;
  }
  // A deletion on this host hides the same files under the same names; on another host, it cannot restore the names.
  if (!is_of_this_host) {
    const Status shown = ShowAll();
    if (!shown) job_.LogFailure("Files stay hidden: " + shown.error().ToString());
  }
  return Refuse(DeletedByOther(**now));
}

DeletionJob::Outcome DeletionJob::SettleFailedCommit(const Error& error) {
  using State = FileJob::FailedCommit::State;
  FileJob::FailedCommit settled = job_.SettleFailedCommit(error);
  if (settled.state == State::kUnknown) return Refuse(std::move(settled.refusal));
  if (settled.state == State::kNotDone) return Undo(settled.refusal, Outcome::kRefused);
  return Lost();
}

DeletionJob::Outcome DeletionJob::Undo(const Refusal& refusal, Outcome outcome) {
  refusal_ = refusal;
  const bool is_undone = job_.Undo(RefuseStorage(), refusal_, [this] { return ShowAll(); });
  return is_undone ? outcome : Outcome::kRefused;
}

Status DeletionJob::ShowAll() {
  if (Status shown = job_.ShowAll(FileJob::Order::kForwards); !shown) return shown;
  return job_.SyncAll("sync shown");
}

DeletionJob::Outcome DeletionJob::Refuse(Refusal refusal) {
  refusal_ = std::move(refusal);
  return Outcome::kRefused;
}

Result<bool> DeletionJob::GuestExists() const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  const auto value = (*snapshot)->Get(GuestObjectKey(guest_id_));
  if (!value) return value.error();
  return value->has_value();
}

bool DeletionJob::IsRemote() const {
  return !plan_->repository_host_id.empty() && plan_->repository_host_id != options_.host_id;
}

void DeletionJob::LogNotes() const {
  const std::string id = cluster::LogText(guest_id_, kShownId);
  std::size_t count = 0;
  for (const Notes* notes : {&plan_->notes, &selection_.notes, &later_notes_}) {
    for (const std::string& note : *notes) {
      if (++count > kMaxNotes) continue;
      ::syslog(LOG_WARNING, "Deleted guest[%s]: %s.", id.c_str(), cluster::LogText(note, kShownNote).c_str());
    }
  }
  if (count > kMaxNotes) {
    ::syslog(LOG_WARNING, "Deleted guest[%s]: there are %zu lines more of this kind.", id.c_str(), count - kMaxNotes);
  }
}

}  // namespace vexa::guests
