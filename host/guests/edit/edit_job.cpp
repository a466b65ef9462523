#include "host/guests/edit/edit_job.h"

#include <fmt/format.h>
#include <syslog.h>

#include <set>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/disks/file_referrers.h"
#include "host/guests/jobs/job_record.h"
#include "host/records/object_edit.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kMaxLoggedNoteBytes = 1024;
constexpr std::size_t kMaxNotes = 64;

}  // namespace

EditJob::EditJob(const JobKind& kind, const EditOptions& options, std::string guest_id)
    : kind_(kind), options_(options), guest_id_(std::move(guest_id)), job_(kind, options, guest_id_) {}

Result<void, Refusal> EditJob::Start(const EditRequest& request, const Requester& requester) {
  request_ = request;
  for (int attempt = 0; attempt < kMaxJobAttempts; ++attempt) {
    Outcome outcome = Begin(requester);
    if (outcome == Outcome::kStarted) {
      const auto changed = ChangeFiles();
      outcome = !changed.ok() ? Undo(changed.error(), Outcome::kRefused) : CommitRecords();
    }
    if (outcome == Outcome::kDone) return {};
    if (outcome == Outcome::kRefused) return refusal_;
  }
  return refusal_;
}

Result<void, Refusal> EditJob::Resume(const StoredJob& unfinished) {
  job_.ResumeFrom(unfinished);
  if (const auto allowed = CheckStorage(); !allowed.ok()) return allowed;
  if (unfinished.record->stage == JobStage::kPurging) {
    job_.Purge(CheckStorage());
    return {};
  }
  const Refusal interrupted{host_error::kFailed, "The host ended in the middle of it"};
  Undo(interrupted, Outcome::kRefused);
  if (refusal_.reason == interrupted.reason) return {};
  return refusal_;
}

Result<void, Refusal> EditJob::ChangeFiles() {
  if (const auto allowed = job_.Make(files_->made); !allowed.ok()) return allowed;
  if (const auto allowed = FillFiles(files_->made); !allowed.ok()) return allowed;
  if (const auto allowed = ChangeExistingFiles(); !allowed.ok()) return allowed;
  if (const Status synced = job_.SyncAll("sync done"); !synced) return RefusalFor(synced.error());
  return {};
}

// Hides and grows files, which a running guest could have open.
Result<void, Refusal> EditJob::ChangeExistingFiles() {
  const FileIntent& intent = job_.record().files;
  if (intent.hidden.empty() && intent.grown.empty()) return {};
  if (const auto allowed = job_.CheckNotRunning(); !allowed.ok()) return allowed;
  for (std::size_t i = 0; i < intent.hidden.size(); ++i) {
    const Status hidden = job_.Hide(intent.hidden[i], i);
    if (!hidden && !HasErrorCode(hidden, ErrorCode::kNotFound)) return FileRefusalFor(hidden.error());
  }
  for (std::size_t i = 0; i < intent.grown.size(); ++i) {
    job_.BeforeStep("grow", i);
    const Status grown = disks::Grow(job_.disk_files(), intent.grown[i]);
    if (!grown) return FileRefusalFor(grown.error());
  }
  return {};
}

// Commits, and searches again for referrers of the files when new ones may have been added.
EditJob::Outcome EditJob::CommitRecords() {
  facts_.ForgetImages();
  for (int search = 0; search < kMaxFileSearches; ++search) {
    const Outcome outcome = CommitOnce();
    if (outcome != Outcome::kOutdated) return outcome;
  }
  return Undo(ReferencesKeepChanging(), Outcome::kRefused);
}

EditJob::Outcome EditJob::CommitOnce() {
  if (const auto allowed = CheckStorage(); !allowed.ok()) return Undo(allowed.error(), Outcome::kRefused);
  if (const Status gathered = facts_.Gather(options_, guest_id_); !gathered)
    return HandleFailedCommit(gathered.error());
  const Result<bool> is_referenced = AreFilesReferencedElsewhere();
  if (!is_referenced) return HandleFailedCommit(is_referenced.error());
  if (*is_referenced) return Undo(FilesKeepBeingReferenced(), Outcome::kChanged);
  std::optional<Outcome> early_outcome;
  const Status committed = records::CommitWithRetry(
      *options_.store, [&](const records::Reader& reader) { return PlanCommit(reader, early_outcome); });
  if (!committed) return HandleFailedCommit(committed.error());
  if (early_outcome == Outcome::kOutdated) return *early_outcome;
  if (early_outcome == Outcome::kChanged) return Undo(GuestKeepsChanging(), Outcome::kChanged);
  if (early_outcome) return Undo(Refusal(refusal_), Outcome::kRefused);
  std::size_t count = 0;
  for (const std::string& note : notes_) {
    if (++count > kMaxNotes) break;
    ::syslog(LOG_WARNING, "Edited guest[%s]: %s.", SanitizeForLog(guest_id_, kMaxLoggedIdBytes).c_str(),
             SanitizeForLog(note, kMaxLoggedNoteBytes).c_str());
  }
  job_.Purge(CheckStorage());
  return Outcome::kDone;
}

// Whether a record that was added since the files were selected refers to one that is to be removed or has grown. This
// search takes time, so it runs before the commit, which compares that no such record has been added since.
Result<bool> EditJob::AreFilesReferencedElsewhere() {
  const FileIntent& intent = job_.record().files;
  if (intent.hidden.empty() && intent.grown.empty()) return false;
  if (const Status started = job_.BeginSearch(); !started) return started.error();
  const Result<QueriedFiles> hidden = job_.QueryHidden();
  if (!hidden) return hidden.error();
  QueriedFiles grown;
  for (const disks::Growth& growth : intent.grown) {
    Result<disks::QueriedFile> queried = job_.QueryFile(growth.path);
    if (!queried) return queried.error();
    grown.emplace(growth.path, std::move(*queried));
  }
  const Result<bool> is_hidden_referenced = job_.AreReferenced(*hidden, job_.MakeReferrerQuery(files_->removed_disks));
  if (!is_hidden_referenced || *is_hidden_referenced) return is_hidden_referenced;
  std::set<std::string> own = files_->removed_disks;
  for (const GrownFile& file : files_->grown) own.insert(file.disk_id);
  return job_.AreReferenced(grown, job_.MakeReferrerQuery(std::move(own)));
}

// `early_outcome`: kChanged when the records now refer to other files, kOutdated when facts are missing or another
// record has started to refer to files, kRefused when the records no longer allow the edit.
Result<store::Transaction> EditJob::PlanCommit(const records::Reader& reader, std::optional<Outcome>& early_outcome) {
  early_outcome.reset();
  Result<EditPlan> plan = PlanEdit(options_, guest_id_, request_, ids_, reader, facts_);
  if (!plan) return plan.error();
  if (plan->refused) {
    refusal_ = std::move(*plan->refused);
    early_outcome = Outcome::kRefused;
    return store::Transaction();
  }
  if (facts_.HasMissingFacts()) {
    early_outcome = Outcome::kOutdated;
    return store::Transaction();
  }
  if (plan->files != *files_) {
    early_outcome = Outcome::kChanged;
    return store::Transaction();
  }
  const FileIntent& intent = job_.record().files;
  if (!intent.hidden.empty() || !intent.grown.empty()) {
    const Result<bool> is_current =
        job_.CompareReferencesRevision(disks::FileReferencesRevision(reader), plan->transaction);
    if (!is_current) return is_current.error();
    if (!*is_current) {
      early_outcome = Outcome::kOutdated;
      return store::Transaction();
    }
  }
  const Result<bool> is_ours = job_.IsOurs(reader);
  if (!is_ours) return is_ours.error();
  if (!*is_ours) {
    refusal_ = Refusal{host_error::kFailed, fmt::format("The record of the guest's {} was changed", kind_.noun)};
    early_outcome = Outcome::kRefused;
    return store::Transaction();
  }
  MaybeRefused refused = AddToRecords(reader, plan->transaction);
  if (!refused) return refused.error();
  if (*refused) {
    refusal_ = std::move(**refused);
    early_outcome = Outcome::kRefused;
    return store::Transaction();
  }
  job_.AddPurging(plan->transaction);
  return std::move(plan->transaction);
}

EditJob::Outcome EditJob::HandleFailedCommit(const Error& error) {
  using State = FileJob::FailedCommit::State;
  FileJob::FailedCommit failed_commit = job_.InspectFailedCommit(error);
  if (failed_commit.state == State::kUnknown) return Refuse(std::move(failed_commit.refusal));
  if (failed_commit.state != State::kPurging) return Undo(failed_commit.refusal, Outcome::kRefused);
  job_.Purge(CheckStorage());
  return Outcome::kDone;
}

EditJob::Outcome EditJob::Refuse(Refusal refusal) {
  refusal_ = std::move(refusal);
  return Outcome::kRefused;
}

}  // namespace vexa::guests
