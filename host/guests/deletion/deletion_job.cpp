#include "host/guests/deletion/deletion_job.h"

#include <syslog.h>

#include <algorithm>
#include <set>
#include <utility>

#include "host/base/log_text.h"
#include "host/disks/disk_users.h"
#include "host/records/domain_record.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"
#include "host/store/key.h"

namespace vexa::guests {
namespace {

// How often a deletion starts again because the guest's disks changed during it.
constexpr int kTurns = 8;
constexpr std::size_t kMaxNotes = 256;
constexpr std::size_t kShownNote = 1024;
constexpr std::size_t kShownId = 64;

bool IsCode(const Status& status, ErrorCode code) { return !status && status.error().code() == code; }

}  // namespace

DeletionJob::DeletionJob(const DeletionOptions& options, std::string guest_id)
    : options_(options), guest_id_(std::move(guest_id)), disk_files_(options.image_roots, options.file_calls) {}

Refused DeletionJob::Start(const Requester& requester) {
  // Work on files can take long.
  cluster::RequestScope::ReleaseSnapshot();
  for (int turn = 0; turn < kTurns; ++turn) {
    if (Begin(requester) == Outcome::kRefused) return refusal_;
    const Outcome outcome = GoOn(Begun::kNow);
    if (outcome == Outcome::kDeleted) return std::nullopt;
    if (outcome == Outcome::kRefused) return refusal_;
  }
  return refusal_;
}

Refused DeletionJob::Resume(const StoredDeletion& begun) {
  record_ = *begun.record;
  if (Refused storage = RefuseStorage()) return storage;
  if (record_.stage == DeletionStage::kPurging) {
    Purge();
    return std::nullopt;
  }
  cluster::RequestScope::ReleaseSnapshot();
  if (Refused active = RefuseActive(); active && active->code == kUnavailable) return active;
  Outcome outcome = TakeUp(begun);
  if (outcome == Outcome::kReady) outcome = GoOn(Begun::kBefore);
  if (outcome == Outcome::kDeleted) return std::nullopt;
  if (outcome == Outcome::kRefused) return refusal_;
  return Start({begun.record->user, begun.record->host_id, begun.record->request_id});
}

// A resumed deletion that cannot be decided now waits: its files are already hidden, and undoing it would bring back a
// guest that a user wanted to delete.
DeletionJob::Outcome DeletionJob::GoOn(Begun begun) {
  if (Refused active = RefuseActive()) {
    if (begun == Begun::kBefore && active->code == kUnavailable) return Refuse(std::move(*active));
    return Undo(*active, Outcome::kRefused);
  }
  const Status hidden = HideAll();
  if (!hidden) return Undo(FileFailedBecause(hidden.error()), Outcome::kRefused);
  return CommitRecords();
}

Refused DeletionJob::RefuseActive() const {
  return options_.refuse_active ? options_.refuse_active(guest_id_) : std::nullopt;
}

Refused DeletionJob::RefuseStorage() const {
  if (!options_.storage) return std::nullopt;
  if (plan_ && !IsRemote()) {
    // Includes files that did not exist when they were searched for.
    std::vector<std::string> paths;
    for (const NamedFile& file : plan_->files) paths.push_back(file.path);
    if (Refused storage = options_.storage->Refuse(plan_->repository_id, paths, StorageUse::kExisting)) return storage;
  }
  return options_.storage->RefuseTrail(record_.repository_id, record_.storage, StorageUse::kExisting);
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
    Step("hide", i);
    const Status done = disk_files_.Hide(path, hidden);
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
  return SyncAll("sync hidden");
}

// The record of the deletion was changed elsewhere.
DeletionJob::Outcome DeletionJob::Lost() {
  const auto now = ReadNow();
  if (!now) return Refuse(FailedBecause(now.error()));
  if (!*now) {
    const auto guest = GuestExists();
    if (!guest) return Refuse(FailedBecause(guest.error()));
    if (!*guest) return Outcome::kDeleted;
    return Undo({kFailed, "Somebody has removed the record of the guest's deletion"}, Outcome::kRefused);
  }
  const std::optional<DeletionRecord>& record = (*now)->record;
  const bool is_of_this_host = record && record->host_id == options_.host_id;
  if (record && record->stage == DeletionStage::kPurging) {
    if (is_of_this_host) Purge();
    return Outcome::kDeleted;
  }
  // A deletion on this host hides the same files under the same names; on another host, it cannot restore the names.
  if (!is_of_this_host) {
    const Status shown = ShowAll();
    if (!shown) LogFailure("Files stay hidden: " + shown.error().ToString());
  }
  return Refuse(DeletedByOther(**now));
}

// A commit that reported a failure may have succeeded all the same, and then there is no way back.
DeletionJob::Outcome DeletionJob::SettleFailedCommit(const Error& error) {
  const auto now = ReadNow();
  // While the database is lost, reads return a state from before the commit.
  const bool is_old = options_.store->health() == store::Health::kInaccessible;
  if (!now || is_old) {
    LogFailure("Whether its records are deleted is unknown, so its files stay hidden until it is taken up again: " +
               (now ? error : now.error()).ToString());
    return Refuse(FailedBecause(error));
  }
  if (*now && (*now)->record && (*now)->record->stage == DeletionStage::kPurging) return Lost();
  if (error.code() == ErrorCode::kConflict) {
    return Undo({kBusy, "The guest's record keeps changing"}, Outcome::kRefused);
  }
  return Undo(FailedBecause(error), Outcome::kRefused);
}

// Failures are retried: the guest is deleted all the same.
void DeletionJob::Purge() {
  if (const Refused storage = RefuseStorage()) {
    return LogFailure("It is not finished, and tried again: " + storage->reason);
  }
  bool is_all = true;
  for (std::size_t i = 0; i < record_.files.size(); ++i) {
    const auto& [path, hidden] = record_.files[i];
    Step("remove", i);
    const Status removed = disk_files_.RemoveHidden(path, hidden);
    if (removed || IsCode(removed, ErrorCode::kNotFound)) continue;
    is_all = false;
    LogFailure("The file [" + cluster::ShownPath(path) + "], which now is named [" + hidden +
               "], could not be removed; this is tried again: " + removed.error().ToString());
  }
  const Status synced = SyncAll("sync removed");
  if (!synced) LogFailure("It is not finished, and tried again: " + synced.error().ToString());
  if (!is_all || !synced) return;
  const Status ended = RemoveRecord("commit end");
  if (!ended) LogFailure("The record of its deletion could not be removed: " + ended.error().ToString());
}

DeletionJob::Outcome DeletionJob::Undo(const Refusal& refusal, Outcome outcome) {
  refusal_ = refusal;
  const Refused storage = RefuseStorage();
  Status undone = storage ? Status(Error(ErrorCode::kUnavailable, storage->reason)) : ShowAll();
  if (undone) undone = RemoveRecord("commit undo");
  if (undone) return outcome;
  const std::string more = "What was done could not be undone, and is taken up again: " + undone.error().ToString();
  LogFailure(more);
  refusal_.reason += ". " + more;
  return Outcome::kRefused;
}

Status DeletionJob::ShowAll() {
  for (std::size_t i = 0; i < record_.files.size(); ++i) {
    const auto& [path, hidden] = record_.files[i];
    Step("show", i);
    const Status shown = disk_files_.Show(path, hidden);
    if (shown || IsCode(shown, ErrorCode::kNotFound)) continue;
    if (!IsCode(shown, ErrorCode::kConflict)) return shown;
    LogFailure("There are both [" + cluster::ShownPath(path) + "] and [" + hidden + "] beside it; both are left");
  }
  return SyncAll("sync shown");
}

Status DeletionJob::SyncAll(std::string_view step) const {
  std::set<std::string_view> folders;
  for (const HiddenFile& file : record_.files) {
    if (!folders.insert(std::string_view(file.path).substr(0, file.path.rfind('/'))).second) continue;
    Step(step, folders.size() - 1);
    const Status synced = disk_files_.Sync(file.path);
    if (!synced) return synced;
  }
  return {};
}

// Unless it was already removed elsewhere.
Status DeletionJob::RemoveRecord(std::string_view step) {
  return cluster::CommitPlanned(*options_.store, [&]() -> Result<store::Transaction> {
    const auto now = ReadNow();
    if (!now) return now.error();
    store::Transaction transaction;
    const bool is_ours = *now && (*now)->record && (*now)->record->host_id == options_.host_id &&
                         ((*now)->record->stage == DeletionStage::kPurging || (*now)->revision == revision_);
    if (!is_ours) return transaction;
    transaction.compares.push_back({DeletionKey(guest_id_), (*now)->revision});
    transaction.operations.push_back({DeletionKey(guest_id_), std::nullopt});
    Step(step);
    return transaction;
  });
}

DeletionJob::Outcome DeletionJob::Refuse(Refusal refusal) {
  refusal_ = std::move(refusal);
  return Outcome::kRefused;
}

Result<std::optional<StoredDeletion>> DeletionJob::ReadNow() const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  return ReadDeletion(**snapshot, guest_id_);
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

void DeletionJob::Step(std::string_view step) const {
  if (options_.before_step) options_.before_step(step);
}

void DeletionJob::Step(std::string_view step, std::size_t index) const {
  if (options_.before_step) options_.before_step(std::string(step) + " " + std::to_string(index));
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

void DeletionJob::LogFailure(const std::string& sentence) const {
  ::syslog(LOG_ERR, "Deletion of guest[%s]: %s.", cluster::LogText(guest_id_, kShownId).c_str(),
           cluster::LogText(sentence, kShownNote).c_str());
}

}  // namespace vexa::guests
