#include "host/guests/edit/edit_job.h"

#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <utility>

#include "host/base/log_text.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"

namespace vexa::guests {
namespace {

// How often an edit starts again because the guest's disks changed during it.
constexpr int kTurns = 8;
// How often the search for other users of the files is repeated while records come to name files.
constexpr int kSearches = 8;
constexpr std::size_t kShownId = 64;
constexpr std::size_t kShownNote = 1024;
constexpr std::size_t kMaxNotes = 64;

bool IsCode(const Status& status, ErrorCode code) { return !status && status.error().code() == code; }

Refusal KeepsChanging() { return {kBusy, "The guest's record keeps changing"}; }

std::string_view FolderOf(const std::string& path) { return std::string_view(path).substr(0, path.rfind('/')); }

}  // namespace

EditJob::EditJob(const EditOptions& options, std::string guest_id)
    : options_(options), guest_id_(std::move(guest_id)), disk_files_(options.image_roots, options.file_calls) {}

Refused EditJob::Start(const Json::Value& edit, const Requester& requester) {
  auto parsed = ParseEdit(edit);
  if (auto* refusal = std::get_if<Refusal>(&parsed)) return std::move(*refusal);
  request_ = std::move(std::get<EditRequest>(parsed));
  // Work on files can take long.
  cluster::RequestScope::ReleaseSnapshot();
  for (int turn = 0; turn < kTurns; ++turn) {
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

Refused EditJob::Resume(const StoredEdit& begun) {
  record_ = *begun.record;
  revision_ = begun.revision;
  if (Refused storage = RefuseStorage()) return storage;
  if (record_.stage == EditStage::kPurging) {
    Purge();
    return std::nullopt;
  }
  const Refusal because{kFailed, "The host ended in the middle of it"};
  Undo(because, Outcome::kRefused);
  if (refusal_.reason == because.reason) return std::nullopt;
  return refusal_;
}

Status EditJob::MakeFile(const NewFile& file) {
  // Only the repository's own folder: the administrator creates its root.
  const std::string folder(FolderOf(file.path));
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    return SystemError(ErrorCode::kInternal, "Cannot make the folder '" + folder + "'", errno);
  }
  // Also when it already existed: its creator may have ended before the sync.
  if (Status synced = disk_files_.Sync(folder); !synced) return synced;
  const EmptyImage image = MakeEmptyImage(file.format, file.size_mib << 20);
  return disk_files_.Create(file.path, image.length, image.pieces);
}

Refused EditJob::DoFiles() {
  for (std::size_t i = 0; i < files_->made.size(); ++i) {
    Step("make", i);
    const Status made = MakeFile(files_->made[i]);
    // A file that existed before must not be removed.
    if (IsCode(made, ErrorCode::kConflict)) std::erase(record_.made, files_->made[i].path);
    if (!made) return FileFailedBecause(made.error());
  }
  if (Refused failed = DoActiveFiles()) return failed;
  if (const Status synced = SyncAll("sync done"); !synced) return FailedBecause(synced.error());
  return std::nullopt;
}

// Files that a machine could have open.
Refused EditJob::DoActiveFiles() {
  if (record_.hidden.empty() && record_.grown.empty()) return std::nullopt;
  if (options_.refuse_active) {
    if (Refused active = options_.refuse_active(guest_id_)) return active;
  }
  for (std::size_t i = 0; i < record_.hidden.size(); ++i) {
    Step("hide", i);
    const Status hidden = disk_files_.Hide(record_.hidden[i].path, record_.hidden[i].hidden);
    if (!hidden && !IsCode(hidden, ErrorCode::kNotFound)) return FileFailedBecause(hidden.error());
  }
  for (std::size_t i = 0; i < record_.grown.size(); ++i) {
    Step("grow", i);
    const Status grown = Grow(disk_files_, record_.grown[i]);
    if (!grown) return FileFailedBecause(grown.error());
  }
  return std::nullopt;
}

// Passes the point of no return, or returns to the beginning.
EditJob::Outcome EditJob::CommitRecords() {
  facts_.ForgetImages();
  for (int search = 0; search < kSearches; ++search) {
    const Outcome outcome = CommitOnce();
    if (outcome != Outcome::kOutdated) return outcome;
  }
  return Undo({kBusy, "Other records keep naming files, so that nobody knows which are the guest's own: try again"},
              Outcome::kRefused);
}

EditJob::Outcome EditJob::CommitOnce() {
  cluster::RequestScope::ReleaseSnapshot();
  if (const Refused storage = RefuseStorage()) return Undo(*storage, Outcome::kRefused);
  if (const Status gathered = facts_.Gather(options_, guest_id_); !gathered)
    return SettleFailedCommit(gathered.error());
  const Result<bool> wanted = AreFilesNamedByOthers();
  if (!wanted) return SettleFailedCommit(wanted.error());
  if (*wanted) return Undo({kBusy, "Other records keep naming the guest's files"}, Outcome::kChanged);
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
  Purge();
  return Outcome::kDone;
}

// Whether a record added since the files were selected names one that is to be removed or has grown. As for deletions,
// checked before the commit, which must be quick and compares that no other record has been added since.
Result<bool> EditJob::AreFilesNamedByOthers() {
  if (record_.hidden.empty() && record_.grown.empty()) return false;
  const Result<store::Revision> revision = FilesRevision(*options_.store);
  if (!revision) return revision.error();
  files_revision_ = *revision;
  std::map<std::string, SoughtFile> hidden;
  for (const HiddenFile& file : record_.hidden) {
    const auto look = disk_files_.Examine(file.path.substr(0, file.path.rfind('/') + 1) + file.hidden);
    if (!look) return look.error();
    hidden.emplace(file.path, SoughtFile{look->identity, file.hidden});
  }
  std::map<std::string, SoughtFile> grown;
  for (const Growth& growth : record_.grown) {
    const auto look = disk_files_.Examine(growth.path);
    if (!look) return look.error();
    grown.emplace(growth.path, SoughtFile{look->identity, ""});
  }
  const Result<bool> is_hidden_named = IsNamedByOthers(hidden, files_->removed_disks);
  if (!is_hidden_named || *is_hidden_named) return is_hidden_named;
  std::set<std::string> own = files_->removed_disks;
  for (const GrownFile& file : files_->grown) own.insert(file.disk_id);
  return IsNamedByOthers(grown, std::move(own));
}

Result<bool> EditJob::IsNamedByOthers(const std::map<std::string, SoughtFile>& files,
                                      std::set<std::string> except_disks) const {
  FileQuestion question;
  question.host_id = options_.host_id;
  question.except_disks = std::move(except_disks);
  const auto named = FindFileUsers(*options_.store, question, files);
  if (!named) return named.error();
  return !named->empty();
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
  if (!record_.hidden.empty() || !record_.grown.empty()) {
    const Result<store::Revision> files_revision = FilesRevision(**snapshot);
    if (!files_revision) return files_revision.error();
    if (*files_revision != files_revision_) {
      instead = Outcome::kOutdated;
      return store::Transaction();
    }
    plan->transaction.compares.push_back({FilesKey(), *files_revision});
  }
  EditRecord purging = record_;
  purging.stage = EditStage::kPurging;
  plan->transaction.compares.push_back({EditKey(guest_id_), revision_});
  plan->transaction.operations.push_back({EditKey(guest_id_), EditText(purging)});
  const auto now = ReadEdit(**snapshot, guest_id_);
  if (!now) return now.error();
  if (!*now || (*now)->revision != revision_) {
    refusal_ = Refusal{kFailed, "Somebody has changed the record of the guest's edit"};
    instead = Outcome::kRefused;
    return store::Transaction();
  }
  Step("commit records");
  return std::move(plan->transaction);
}

// A commit that reported a failure may have succeeded all the same, and then there is no way back.
EditJob::Outcome EditJob::SettleFailedCommit(const Error& error) {
  const auto now = ReadNow();
  // While the database is lost, reads return a state from before the commit.
  const bool is_old = options_.store->health() == store::Health::kInaccessible;
  if (!now || is_old) {
    LogFailure("Whether it is done is unknown, so its files stay until it is taken up again: " +
               (now ? error : now.error()).ToString());
    return Refuse(FailedBecause(error));
  }
  if (*now && (*now)->record && (*now)->record->stage == EditStage::kPurging &&
      (*now)->record->host_id == options_.host_id) {
    Purge();
    return Outcome::kDone;
  }
  if (error.code() == ErrorCode::kConflict) return Undo(KeepsChanging(), Outcome::kRefused);
  return Undo(FailedBecause(error), Outcome::kRefused);
}

// Failures are retried: the disks are removed all the same.
void EditJob::Purge() {
  if (const Refused storage = RefuseStorage()) {
    return LogFailure("It is not finished, and tried again: " + storage->reason);
  }
  bool is_all = true;
  for (std::size_t i = 0; i < record_.hidden.size(); ++i) {
    const auto& [path, hidden] = record_.hidden[i];
    Step("remove", i);
    const Status removed = disk_files_.RemoveHidden(path, hidden);
    if (removed || IsCode(removed, ErrorCode::kNotFound)) continue;
    is_all = false;
    LogFailure("The file [" + cluster::ShownPath(path) + "], which now is named [" + hidden +
               "], could not be removed; this is tried again: " + removed.error().ToString());
  }
  const Status synced = record_.hidden.empty() ? Status() : SyncAll("sync removed");
  if (!synced) LogFailure("It is not finished, and tried again: " + synced.error().ToString());
  if (!is_all || !synced) return;
  const Status ended = RemoveRecord("commit end");
  if (!ended) LogFailure("The record of it could not be removed: " + ended.error().ToString());
}

Status EditJob::SyncAll(std::string_view step) const {
  // One path per folder.
  std::set<std::string_view> folders;
  std::vector<const std::string*> paths;
  for (const std::string& path : record_.made) paths.push_back(&path);
  for (const HiddenFile& file : record_.hidden) paths.push_back(&file.path);
  for (const std::string* path : paths) {
    if (!folders.insert(FolderOf(*path)).second) continue;
    Step(step, folders.size() - 1);
    const Status synced = disk_files_.Sync(*path);
    if (!synced) return synced;
  }
  return {};
}

// Unless it was already removed elsewhere.
Status EditJob::RemoveRecord(std::string_view step) {
  return cluster::CommitPlanned(*options_.store, [&]() -> Result<store::Transaction> {
    const auto now = ReadNow();
    if (!now) return now.error();
    store::Transaction transaction;
    const bool is_ours = *now && (*now)->record && (*now)->record->host_id == options_.host_id &&
                         ((*now)->record->stage == EditStage::kPurging || (*now)->revision == revision_);
    if (!is_ours) return transaction;
    transaction.compares.push_back({EditKey(guest_id_), (*now)->revision});
    transaction.operations.push_back({EditKey(guest_id_), std::nullopt});
    Step(step);
    return transaction;
  });
}

EditJob::Outcome EditJob::Refuse(Refusal refusal) {
  refusal_ = std::move(refusal);
  return Outcome::kRefused;
}

Result<std::optional<StoredEdit>> EditJob::ReadNow() const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  return ReadEdit(**snapshot, guest_id_);
}

void EditJob::Step(std::string_view step) const {
  if (options_.before_step) options_.before_step(step);
}

void EditJob::Step(std::string_view step, std::size_t index) const {
  if (options_.before_step) options_.before_step(std::string(step) + " " + std::to_string(index));
}

void EditJob::LogFailure(const std::string& sentence) const {
  ::syslog(LOG_ERR, "Edit of guest[%s]: %s.", cluster::LogText(guest_id_, kShownId).c_str(),
           cluster::LogText(sentence, kShownNote).c_str());
}

}  // namespace vexa::guests
