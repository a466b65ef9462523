#include "host/guests/jobs/file_job.h"

#include <syslog.h>

#include <utility>

#include "host/base/log_text.h"
#include "host/guests/jobs/job_record.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kStoredName = 256;
constexpr std::size_t kShownSentence = 1024;

}  // namespace

Refusal KeepsChanging() { return {kBusy, "The guest's record keeps changing"}; }

Refusal FilesKeepBeingNamed() { return {kBusy, "Other records keep naming the guest's files"}; }

Refusal FilesKeepChanging() {
  return {kBusy, "Other records keep naming files, so that nobody knows which are the guest's own: try again"};
}

FileJob::FileJob(const JobKind& kind, const JobOptions& options, std::string guest_id)
    : kind_(kind),
      options_(options),
      guest_id_(std::move(guest_id)),
      disk_files_(options.image_roots, options.file_calls) {}

void FileJob::AddIntent(const Requester& requester, FileIntent files, store::Transaction& transaction) {
  record_.host_id = options_.host_id;
  record_.user = cluster::LogText(requester.user, kStoredName);
  record_.request_id = cluster::LogText(requester.request_id, kStoredName);
  record_.since = std::chrono::floor<std::chrono::seconds>(options_.now());
  record_.stage = JobStage::kDoing;
  record_.files = std::move(files);
  revision_ = 0;
  transaction.compares.push_back({kind_.key(guest_id_), 0});
  transaction.operations.push_back({kind_.key(guest_id_), JobText(kind_, record_)});
  Step("commit " + std::string(kind_.doing));
}

Refused FileJob::TakeBegun() {
  const auto now = ReadNow();
  if (!now) {
    LogFailure(kind_.begun_unknown + now.error().ToString());
    return FailedBecause(now.error());
  }
  if (!*now || (*now)->text != JobText(kind_, record_)) return Refusal{kBusy, kind_.changed};
  revision_ = (*now)->revision;
  return std::nullopt;
}

bool FileJob::HasBegunAllTheSame() {
  const auto now = ReadNow();
  if (!now || !*now || (*now)->text != JobText(kind_, record_)) return false;
  revision_ = (*now)->revision;
  return true;
}

void FileJob::TakeUp(const StoredJob& begun) {
  record_ = *begun.record;
  revision_ = begun.revision;
}

Result<std::optional<StoredJob>> FileJob::ReadNow() const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  return ReadJob(**snapshot, kind_, guest_id_);
}

Result<bool> FileJob::IsOurs(const store::Snapshot& snapshot) const {
  const auto now = ReadJob(snapshot, kind_, guest_id_);
  if (!now) return now.error();
  return *now && (*now)->revision == revision_;
}

void FileJob::AddPurging(store::Transaction& transaction) const {
  JobRecord purging = record_;
  purging.stage = JobStage::kPurging;
  transaction.compares.push_back({kind_.key(guest_id_), revision_});
  transaction.operations.push_back({kind_.key(guest_id_), JobText(kind_, purging)});
  Step("commit records");
}

FileJob::FailedCommit FileJob::SettleFailedCommit(const Error& error) const {
  using State = FailedCommit::State;
  const auto now = ReadNow();
  // While the database is lost, reads return a state from before the commit.
  const bool is_old = options_.store->health() == store::Health::kInaccessible;
  if (!now || is_old) {
    LogFailure(kind_.done_unknown + (now ? error : now.error()).ToString());
    return {State::kUnknown, FailedBecause(error)};
  }
  const Refusal refusal = error.code() == ErrorCode::kConflict ? KeepsChanging() : FailedBecause(error);
  const bool is_purging = *now && (*now)->record && (*now)->record->stage == JobStage::kPurging;
  if (!is_purging) return {State::kNotDone, refusal};
  return {(*now)->record->host_id == options_.host_id ? State::kPurging : State::kPurgedElsewhere, refusal};
}

Refused FileJob::RefuseActive() const {
  return options_.refuse_active ? options_.refuse_active(guest_id_) : std::nullopt;
}

Refused FileJob::RefuseStorage(const std::string& repository_id, const std::vector<std::string>& paths,
                               StorageUse use) const {
  return options_.storage ? options_.storage->Refuse(repository_id, paths, use) : std::nullopt;
}

Refused FileJob::RefuseTrail() const {
  if (!options_.storage) return std::nullopt;
  return options_.storage->RefuseTrail(record_.files.repository_id, record_.files.storage, StorageUse::kExisting);
}

Status FileJob::BeginSearch() {
  const Result<store::Revision> revision = FilesRevision(*options_.store);
  if (!revision) return revision.error();
  files_revision_ = *revision;
  return {};
}

Result<SoughtFiles> FileJob::SeekHidden() const {
  SoughtFiles files;
  for (const auto& [path, hidden] : record_.files.hidden) {
    Result<SoughtFile> file = Seek(path.substr(0, path.rfind('/') + 1) + hidden);
    if (!file) return file.error();
    file->hidden = hidden;
    files.emplace(path, std::move(*file));
  }
  return files;
}

Result<SoughtFile> FileJob::Seek(const std::string& path) const {
  const auto look = disk_files_.Examine(path);
  if (!look) return look.error();
  return SoughtFile{look->identity, ""};
}

FileQuestion FileJob::Question(std::set<std::string> except_disks) const {
  FileQuestion question;
  question.host_id = options_.host_id;
  question.except_disks = std::move(except_disks);
  return question;
}

Result<bool> FileJob::AreNamed(const SoughtFiles& files, const FileQuestion& question) const {
  const auto named = FindFileUsers(*options_.store, question, files);
  if (!named) return named.error();
  return !named->empty();
}

Result<bool> FileJob::CompareFiles(const Result<store::Revision>& now, store::Transaction& transaction) const {
  if (!now) return now.error();
  if (*now != files_revision_) return false;
  transaction.compares.push_back({FilesKey(), *now});
  return true;
}

// Failures are retried: the point of no return is passed all the same.
void FileJob::Purge(const Refused& storage) {
  if (storage) return LogFailure("It is not finished, and tried again: " + storage->reason);
  bool is_all = true;
  for (std::size_t i = 0; i < record_.files.hidden.size(); ++i) {
    const auto& [path, hidden] = record_.files.hidden[i];
    Step("remove", i);
    const Status removed = disk_files_.RemoveHidden(path, hidden);
    if (removed || IsCode(removed, ErrorCode::kNotFound)) continue;
    is_all = false;
    LogFailure("The file [" + cluster::ShownPath(path) + "], which now is named [" + hidden +
               "], could not be removed; this is tried again: " + removed.error().ToString());
  }
  const Status synced = record_.files.hidden.empty() ? Status() : SyncAll("sync removed");
  if (!synced) LogFailure("It is not finished, and tried again: " + synced.error().ToString());
  if (!is_all || !synced) return;
  const Status ended = RemoveRecord("commit end");
  if (!ended) LogFailure(kind_.not_ended + ended.error().ToString());
}

bool FileJob::Undo(const Refused& storage, Refusal& refusal, const std::function<Status()>& undo_files) {
  Status undone = storage ? Status(Error(ErrorCode::kUnavailable, storage->reason)) : undo_files();
  if (undone) undone = RemoveRecord("commit undo");
  if (undone) return true;
  const std::string more = kind_.not_undone + undone.error().ToString();
  LogFailure(more);
  refusal.reason += ". " + more;
  return false;
}

// Unless it was already removed elsewhere.
Status FileJob::RemoveRecord(std::string_view step) const {
  return cluster::CommitPlanned(*options_.store, [&]() -> Result<store::Transaction> {
    const auto now = ReadNow();
    if (!now) return now.error();
    store::Transaction transaction;
    const bool is_ours = *now && (*now)->record && (*now)->record->host_id == options_.host_id &&
                         ((*now)->record->stage == JobStage::kPurging || (*now)->revision == revision_);
    if (!is_ours) return transaction;
    transaction.compares.push_back({kind_.key(guest_id_), (*now)->revision});
    transaction.operations.push_back({kind_.key(guest_id_), std::nullopt});
    Step(step);
    return transaction;
  });
}

void FileJob::Step(std::string_view step) const {
  if (options_.before_step) options_.before_step(step);
}

void FileJob::Step(std::string_view step, std::size_t index) const {
  if (options_.before_step) options_.before_step(std::string(step) + " " + std::to_string(index));
}

void FileJob::LogFailure(const std::string& sentence) const {
  ::syslog(LOG_ERR, "%s of guest[%s]: %s.", kind_.title, cluster::LogText(guest_id_, kShownId).c_str(),
           cluster::LogText(sentence, kShownSentence).c_str());
}

}  // namespace vexa::guests
