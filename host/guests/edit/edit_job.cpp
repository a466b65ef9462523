#include "host/guests/edit/edit_job.h"

#include <syslog.h>

#include <set>
#include <utility>

#include "host/base/log_text.h"
#include "host/disks/disk_users.h"
#include "host/guests/jobs/job_record.h"
#include "host/records/object_edit.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kShownNote = 1024;
constexpr std::size_t kMaxNotes = 64;

}  // namespace

EditJob::EditJob(const EditOptions& options, std::string guest_id)
    : options_(options), guest_id_(std::move(guest_id)), job_(kEditKind, options, guest_id_) {}

Refused EditJob::Start(const Json::Value& edit, const Requester& requester) {
  auto parsed = ParseEdit(edit);
  if (auto* refusal = std::get_if<Refusal>(&parsed)) return std::move(*refusal);
  request_ = std::move(std::get<EditRequest>(parsed));
  // Work on files can take long.
  cluster::RequestScope::ReleaseSnapshot();
  for (int turn = 0; turn < kJobTurns; ++turn) {
    Outcome outcome = Begin(requester);
    if (outcome == Outcome::kBegun) {
      const Refused failed = DoFiles();
      outcome = failed ? Undo(*failed, Outcome::kRefused) : CommitRecords();
    }
    if (outcome == Outcome::kDone) return std::nullopt;
    if (outcome == Outcome::kRefused) return refusal_;
  }
  return refusal_;
}

Refused EditJob::Resume(const StoredJob& begun) {
  job_.TakeUp(begun);
  if (Refused storage = RefuseStorage()) return storage;
  if (begun.record->stage == JobStage::kPurging) {
    job_.Purge(RefuseStorage());
    return std::nullopt;
  }
  const Refusal because{kFailed, "The host ended in the middle of it"};
  Undo(because, Outcome::kRefused);
  if (refusal_.reason == because.reason) return std::nullopt;
  return refusal_;
}

Refused EditJob::DoFiles() {
  if (Refused failed = job_.Make(files_->made)) return failed;
  if (Refused failed = DoActiveFiles()) return failed;
  if (const Status synced = job_.SyncAll("sync done"); !synced) return FailedBecause(synced.error());
  return std::nullopt;
}

// Files that a machine could have open.
Refused EditJob::DoActiveFiles() {
  const FileIntent& intent = job_.record().files;
  if (intent.hidden.empty() && intent.grown.empty()) return std::nullopt;
  if (Refused active = job_.RefuseActive()) return active;
  for (std::size_t i = 0; i < intent.hidden.size(); ++i) {
    const Status hidden = job_.Hide(intent.hidden[i], i);
    if (!hidden && !IsCode(hidden, ErrorCode::kNotFound)) return FileFailedBecause(hidden.error());
  }
  for (std::size_t i = 0; i < intent.grown.size(); ++i) {
    job_.Step("grow", i);
    const Status grown = Grow(job_.disk_files(), intent.grown[i]);
    if (!grown) return FileFailedBecause(grown.error());
  }
  return std::nullopt;
}

// Passes the point of no return, or returns to the beginning.
EditJob::Outcome EditJob::CommitRecords() {
  facts_.ForgetImages();
  for (int search = 0; search < kFileSearches; ++search) {
    const Outcome outcome = CommitOnce();
    if (outcome != Outcome::kOutdated) return outcome;
  }
  return Undo(FilesKeepChanging(), Outcome::kRefused);
}

EditJob::Outcome EditJob::CommitOnce() {
  cluster::RequestScope::ReleaseSnapshot();
  if (const Refused storage = RefuseStorage()) return Undo(*storage, Outcome::kRefused);
  if (const Status gathered = facts_.Gather(options_, guest_id_); !gathered)
    return SettleFailedCommit(gathered.error());
  const Result<bool> wanted = AreFilesNamedByOthers();
  if (!wanted) return SettleFailedCommit(wanted.error());
  if (*wanted) return Undo(FilesKeepBeingNamed(), Outcome::kChanged);
  std::optional<Outcome> instead;
  const Status committed = cluster::CommitPlanned(*options_.store, [&] { return PlanCommit(instead); });
  if (!committed) return SettleFailedCommit(committed.error());
  if (instead == Outcome::kOutdated) return *instead;
  if (instead == Outcome::kChanged) return Undo(KeepsChanging(), Outcome::kChanged);
  if (instead) return Undo(Refusal(refusal_), Outcome::kRefused);
  std::size_t count = 0;
  for (const std::string& note : notes_) {
    if (++count > kMaxNotes) break;
    ::syslog(LOG_WARNING, "Edited guest[%s]: %s.", cluster::LogText(guest_id_, kShownId).c_str(),
             cluster::LogText(note, kShownNote).c_str());
  }
  job_.Purge(RefuseStorage());
  return Outcome::kDone;
}

// Whether a record added since the files were selected names one that is to be removed or has grown. As for deletions,
// checked before the commit, which must be quick and compares that no other record has been added since.
Result<bool> EditJob::AreFilesNamedByOthers() {
  const FileIntent& intent = job_.record().files;
  if (intent.hidden.empty() && intent.grown.empty()) return false;
  if (const Status begun = job_.BeginSearch(); !begun) return begun.error();
  const Result<SoughtFiles> hidden = job_.SeekHidden();
  if (!hidden) return hidden.error();
  SoughtFiles grown;
  for (const Growth& growth : intent.grown) {
    Result<SoughtFile> sought = job_.Seek(growth.path);
    if (!sought) return sought.error();
    grown.emplace(growth.path, std::move(*sought));
  }
  const Result<bool> is_hidden_named = job_.AreNamed(*hidden, job_.Question(files_->removed_disks));
  if (!is_hidden_named || *is_hidden_named) return is_hidden_named;
  std::set<std::string> own = files_->removed_disks;
  for (const GrownFile& file : files_->grown) own.insert(file.disk_id);
  return job_.AreNamed(grown, job_.Question(std::move(own)));
}

// `instead`: kChanged when the records now name other files, kOutdated when facts are missing or another record has
// come to name files, kRefused when the records no longer allow the edit.
Result<store::Transaction> EditJob::PlanCommit(std::optional<Outcome>& instead) {
  instead.reset();
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  Result<EditPlan> plan = PlanEdit(options_, guest_id_, request_, ids_, **snapshot, facts_);
  if (!plan) return plan.error();
  if (plan->refused) {
    refusal_ = std::move(*plan->refused);
    instead = Outcome::kRefused;
    return store::Transaction();
  }
  if (facts_.IsLacking()) {
    instead = Outcome::kOutdated;
    return store::Transaction();
  }
  if (plan->files != *files_) {
    instead = Outcome::kChanged;
    return store::Transaction();
  }
  const FileIntent& intent = job_.record().files;
  if (!intent.hidden.empty() || !intent.grown.empty()) {
    const Result<bool> is_current = job_.CompareFiles(FilesRevision(**snapshot), plan->transaction);
    if (!is_current) return is_current.error();
    if (!*is_current) {
      instead = Outcome::kOutdated;
      return store::Transaction();
    }
  }
  const Result<bool> is_ours = job_.IsOurs(**snapshot);
  if (!is_ours) return is_ours.error();
  if (!*is_ours) {
    refusal_ = Refusal{kFailed, "Somebody has changed the record of the guest's edit"};
    instead = Outcome::kRefused;
    return store::Transaction();
  }
  job_.AddPurging(plan->transaction);
  return std::move(plan->transaction);
}

EditJob::Outcome EditJob::SettleFailedCommit(const Error& error) {
  using State = FileJob::FailedCommit::State;
  FileJob::FailedCommit settled = job_.SettleFailedCommit(error);
  if (settled.state == State::kUnknown) return Refuse(std::move(settled.refusal));
  if (settled.state != State::kPurging) return Undo(settled.refusal, Outcome::kRefused);
  job_.Purge(RefuseStorage());
  return Outcome::kDone;
}

EditJob::Outcome EditJob::Refuse(Refusal refusal) {
  refusal_ = std::move(refusal);
  return Outcome::kRefused;
}

}  // namespace vexa::guests
