#include "host/guests/jobs/file_job.h"

#include <fmt/format.h>
#include <syslog.h>

#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/guests/jobs/job_record.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kMaxStoredNameBytes = 256;
constexpr std::size_t kMaxLoggedSentenceBytes = 1024;

std::string NotFinished(const std::string& reason) {
  return fmt::format("It is not finished and is retried: {}", reason);
}

}  // namespace

Refusal GuestKeepsChanging() { return {host_error::kBusy, "The guest's record keeps changing. Try again"}; }

Refusal FilesKeepBeingReferenced() {
  return {host_error::kBusy, "Other records keep referring to the guest's files. Try again"};
}

Refusal ReferencesKeepChanging() {
  return {
      host_error::kBusy,
      "Other records keep changing the files that they refer to, so it is unknown which files only the guest uses. Try "
      "again"};
}

FileJob::FileJob(const JobKind& kind, const JobOptions& options, std::string guest_id)
    : kind_(kind),
      options_(options),
      guest_id_(std::move(guest_id)),
      disk_files_(options.image_roots, options.file_calls) {}

void FileJob::AddIntent(const Requester& requester, FileIntent files, store::Transaction& transaction) {
  record_.host_id = options_.host_id;
  record_.user = SanitizeForLog(requester.user, kMaxStoredNameBytes);
  record_.request_id = SanitizeForLog(requester.request_id, kMaxStoredNameBytes);
  record_.since = std::chrono::floor<std::chrono::seconds>(options_.now());
  record_.stage = JobStage::kChanging;
  record_.files = std::move(files);
  revision_ = 0;
  transaction.compares.push_back({kind_.key(guest_id_), 0});
  transaction.operations.push_back({kind_.key(guest_id_), SerializeJob(kind_, record_)});
  BeforeStep("commit " + std::string(kind_.changing_stage));
}

Result<void, Refusal> FileJob::LoadUnfinished() {
  const auto now = ReadNow();
  if (!now) {
    LogFailure(fmt::format("{}: {}", kind_.start_unknown, now.error().ToString()));
    return RefusalFor(now.error());
  }
  if (!*now || (*now)->text != SerializeJob(kind_, record_)) {
    return Refusal{host_error::kBusy, fmt::format("The record of the guest's {} was changed elsewhere", kind_.noun)};
  }
  revision_ = (*now)->revision;
  return {};
}

bool FileJob::HasBegunDespiteFailure() {
  const auto now = ReadNow();
  if (!now || !*now || (*now)->text != SerializeJob(kind_, record_)) return false;
  revision_ = (*now)->revision;
  return true;
}

void FileJob::ResumeFrom(const StoredJob& unfinished) {
  record_ = *unfinished.record;
  revision_ = unfinished.revision;
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

void FileJob::CompareOurs(store::Transaction& transaction) const {
  transaction.compares.push_back({kind_.key(guest_id_), revision_});
}

void FileJob::AddPurging(store::Transaction& transaction) const {
  JobRecord purging = record_;
  purging.stage = JobStage::kPurging;
  CompareOurs(transaction);
  transaction.operations.push_back({kind_.key(guest_id_), SerializeJob(kind_, purging)});
  BeforeStep("commit records");
}

FileJob::FailedCommit FileJob::InspectFailedCommit(const Error& error) const {
  using State = FailedCommit::State;
  const auto now = ReadNow();
  // While the database is lost, reads return a state from before the commit.
  const bool is_old = options_.store->health() == store::Health::kInaccessible;
  if (!now || is_old) {
    LogFailure(fmt::format("{}: {}", kind_.commit_unknown, (now ? error : now.error()).ToString()));
    return {State::kUnknown, RefusalFor(error)};
  }
  const Refusal refusal = error.code() == ErrorCode::kConflict ? GuestKeepsChanging() : RefusalFor(error);
  const bool is_purging = *now && (*now)->record && (*now)->record->stage == JobStage::kPurging;
  if (!is_purging) return {State::kNotDone, refusal};
  return {(*now)->record->host_id == options_.host_id ? State::kPurging : State::kPurgedElsewhere, refusal};
}

Result<void, Refusal> FileJob::CheckNotRunning() const {
  return options_.check_not_running ? options_.check_not_running(guest_id_) : Result<void, Refusal>();
}

Result<void, Refusal> FileJob::CheckStorage(const std::string& repository_id, const std::vector<std::string>& paths,
                                            storage::StorageUse use) const {
  return options_.storage ? options_.storage->CheckFolders(repository_id, paths, use) : Result<void, Refusal>();
}

Result<void, Refusal> FileJob::CheckStoredFolders() const {
  if (!options_.storage) return {};
  return options_.storage->CheckStoredFolders(record_.files.repository_id, record_.files.storage,
                                              storage::StorageUse::kExisting);
}

Status FileJob::BeginSearch() {
  const Result<store::Revision> revision = disks::FileReferencesRevision(*options_.store);
  if (!revision) return revision.error();
  files_revision_ = *revision;
  return {};
}

Result<QueriedFiles> FileJob::QueryHidden() const {
  QueriedFiles files;
  for (const auto& [path, hidden] : record_.files.hidden) {
    Result<disks::QueriedFile> file = QueryFile(path.substr(0, path.rfind('/') + 1) + hidden);
    if (!file) return file.error();
    file->hidden = hidden;
    files.emplace(path, std::move(*file));
  }
  return files;
}

Result<disks::QueriedFile> FileJob::QueryFile(const std::string& path) const {
  const auto found = disk_files_.Examine(path);
  if (!found) return found.error();
  return disks::QueriedFile{found->identity, ""};
}

disks::FileReferrerQuery FileJob::MakeReferrerQuery(std::set<std::string> except_disks) const {
  disks::FileReferrerQuery query;
  query.host_id = options_.host_id;
  query.except_disks = std::move(except_disks);
  return query;
}

Result<bool> FileJob::AreReferenced(const QueriedFiles& files, const disks::FileReferrerQuery& query) const {
  const auto referrers = disks::FindFileReferrers(*options_.store, query, files);
  if (!referrers) return referrers.error();
  return !referrers->empty();
}

Result<bool> FileJob::CompareReferencesRevision(const Result<store::Revision>& now,
                                                store::Transaction& transaction) const {
  if (!now) return now.error();
  if (*now != files_revision_) return false;
  transaction.compares.push_back({records::FileReferencesGuardKey(), *now});
  return true;
}

// Beyond the point of no return, failures are only logged and retried.
void FileJob::Purge(const Result<void, Refusal>& storage) {
  if (!storage.ok()) return LogFailure(NotFinished(storage.error().reason));
  bool all_removed = true;
  for (std::size_t i = 0; i < record_.files.hidden.size(); ++i) {
    const auto& [path, hidden] = record_.files.hidden[i];
    BeforeStep("remove", i);
    const Status removed = disk_files_.RemoveHidden(path, hidden);
    if (removed || HasErrorCode(removed, ErrorCode::kNotFound)) continue;
    all_removed = false;
    LogFailure(fmt::format("The file [{}], which is now named [{}], could not be removed; this is retried: {}",
                           SanitizePathForLog(path), hidden, removed.error().ToString()));
  }
  const Status synced = record_.files.hidden.empty() ? Status() : SyncAll("sync removed");
  if (!synced) LogFailure(NotFinished(synced.error().ToString()));
  if (!all_removed || !synced) return;
  const Status ended = RemoveRecord("commit end");
  if (!ended)
    LogFailure(fmt::format("The record of the {} could not be removed: {}", kind_.noun, ended.error().ToString()));
}

bool FileJob::Undo(const Result<void, Refusal>& storage, Refusal& refusal, const std::function<Status()>& undo_files) {
  Status undone = !storage.ok() ? Status(Error(ErrorCode::kUnavailable, storage.error().reason)) : undo_files();
  if (undone) undone = RemoveRecord("commit undo");
  if (undone) return true;
  const std::string failure = fmt::format("{}: {}", kind_.not_undone, undone.error().ToString());
  LogFailure(failure);
  refusal.reason = fmt::format("{}. {}", refusal.reason, failure);
  return false;
}

// Does nothing if the record was removed or replaced elsewhere.
Status FileJob::RemoveRecord(std::string_view step) const {
  return records::CommitWithRetry(*options_.store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    const auto now = ReadJob(reader, kind_, guest_id_);
    if (!now) return now.error();
    store::Transaction transaction;
    const bool is_ours = *now && (*now)->record && (*now)->record->host_id == options_.host_id &&
                         ((*now)->record->stage == JobStage::kPurging || (*now)->revision == revision_);
    if (!is_ours) return transaction;
    transaction.compares.push_back({kind_.key(guest_id_), (*now)->revision});
    transaction.operations.push_back({kind_.key(guest_id_), std::nullopt});
    BeforeStep(step);
    return transaction;
  });
}

void FileJob::BeforeStep(std::string_view step) const {
  if (options_.before_step) options_.before_step(step);
}

void FileJob::BeforeStep(std::string_view step, std::size_t index) const {
  if (options_.before_step) options_.before_step(std::string(step) + " " + std::to_string(index));
}

void FileJob::LogFailure(const std::string& sentence) const {
  ::syslog(LOG_ERR, "%s of guest[%s]: %s.", kind_.title, SanitizeForLog(guest_id_, kMaxLoggedIdBytes).c_str(),
           SanitizeForLog(sentence, kMaxLoggedSentenceBytes).c_str());
}

}  // namespace vexa::guests
