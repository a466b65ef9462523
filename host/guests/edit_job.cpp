#include "host/guests/edit_job.h"

#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <utility>

#include "host/base/uuid.h"
#include "host/cluster/log_text.h"
#include "host/cluster/mac_address.h"
#include "host/cluster/object_edit.h"
#include "host/guests/deletion_job.h"
#include "host/guests/disk_users.h"
#include "host/guests/run_record.h"

namespace vexa::guests {
namespace {

// How often an edit begins again because the guest's disks were changed under it.
constexpr int kTurns = 8;
constexpr std::size_t kStoredName = 256;
constexpr std::size_t kShownId = 64;
constexpr std::size_t kShownNote = 1024;
constexpr std::size_t kMaxNotes = 64;

bool IsCode(const Status& status, ErrorCode code) { return !status && status.error().code() == code; }

Refusal ChangedAllTheTime() { return {kBusy, "The guest's record is changed all the time"}; }

std::string_view FolderOf(const std::string& path) { return std::string_view(path).substr(0, path.rfind('/')); }

}  // namespace

EditJob::EditJob(const EditOptions& options, std::string guest_id)
    : options_(options), guest_id_(std::move(guest_id)), disk_files_(options.image_roots, options.file_calls) {}

Refused EditJob::Start(const Json::Value& edit, const Requester& requester) {
  auto parsed = ParseEdit(edit);
  if (auto* refusal = std::get_if<Refusal>(&parsed)) return std::move(*refusal);
  request_ = std::move(std::get<EditRequest>(parsed));
  // Files can take long.
  cluster::RequestScope::ReleaseSnapshot();
  for (int turn = 0; turn < kTurns; ++turn) {
    Outcome outcome = Begin(requester);
    if (outcome == Outcome::kBegun) {
      const Status done = DoFiles();
      outcome = done ? CommitRecords() : Undo(FailedBecause(done.error()), Outcome::kRefused);
    }
    if (outcome == Outcome::kDone) return std::nullopt;
    if (outcome == Outcome::kRefused) return refusal_;
  }
  return refusal_;
}

Refused EditJob::Resume(const StoredEdit& begun) {
  record_ = *begun.record;
  revision_ = begun.revision;
  if (record_.stage == EditStage::kPurging) {
    Purge();
    return std::nullopt;
  }
  const Refusal because{kFailed, "The host ended in the middle of it"};
  Undo(because, Outcome::kRefused);
  if (refusal_.reason == because.reason) return std::nullopt;
  return refusal_;
}

// Only once it is known that they are needed: addresses are reserved for a day.
Status EditJob::MakeIds() {
  while (ids_.nics.size() < request_.nics_add.size()) {
    Result<std::string> id = RandomUuid();
    if (!id) return id.error();
    std::string mac;
    if (request_.nics_add[ids_.nics.size()].mac.empty()) {
      Result<std::string> reserved = cluster::ReserveMacAddress(*options_.store, cluster::SystemMacSource());
      if (!reserved) return reserved.error();
      mac = std::move(*reserved);
    }
    ids_.nics.push_back(std::move(*id));
    ids_.macs.push_back(std::move(mac));
  }
  while (ids_.disks.size() < request_.disks_add.size()) {
    Result<std::string> id = RandomUuid();
    if (!id) return id.error();
    ids_.disks.push_back(std::move(*id));
  }
  return {};
}

EditJob::Outcome EditJob::Begin(const Requester& requester) {
  files_.reset();
  revision_ = 0;
  refusal_ = Refusal{0, ""};
  if (request_.nics_add.size() > hypervisor::kMaxNics) {
    return Refuse({kBadNic, "A guest has at most " + std::to_string(hypervisor::kMaxNics) + " network interfaces"});
  }
  if (request_.disks_add.size() > hypervisor::kMaxDisks) {
    return Refuse({kTooManyDisks, "A guest has at most " + std::to_string(hypervisor::kMaxDisks) + " disks"});
  }
  if (const Status made = MakeIds(); !made) return Refuse(FailedBecause(made.error()));
  const Status committed = cluster::CommitPlanned(*options_.store, [&] { return PlanBegin(requester); });
  if (!committed && committed.error().code() == ErrorCode::kConflict) return Refuse(ChangedAllTheTime());
  if (!committed) return SettleFailedBegin(committed.error());
  if (refusal_.code != 0) return Outcome::kRefused;
  if (files_->empty()) return Outcome::kDone;
  const auto now = ReadNow();
  if (!now) {
    LogFailure("It is undone when this host starts again: " + now.error().ToString());
    return Refuse(FailedBecause(now.error()));
  }
  if (!*now || (*now)->text != EditText(record_)) {
    return Refuse({kBusy, "Somebody else has changed the record of the guest's edit"});
  }
  revision_ = (*now)->revision;
  return Outcome::kBegun;
}

// A commit whose failure was reported may have been made all the same, and would keep everybody from the guest.
EditJob::Outcome EditJob::SettleFailedBegin(const Error& error) {
  const auto now = ReadNow();
  if (!now || !*now || (*now)->text != EditText(record_)) return Refuse(FailedBecause(error));
  revision_ = (*now)->revision;
  return Undo(FailedBecause(error), Outcome::kRefused);
}

// Nothing to commit when it is refused.
Result<store::Transaction> EditJob::PlanBegin(const Requester& requester) {
  refusal_ = Refusal{0, ""};
  Result<EditPlan> plan = [&]() -> Result<EditPlan> {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    return PlanEdit(options_, guest_id_, request_, ids_, **snapshot);
  }();
  if (!plan) return plan.error();
  if (plan->refused) {
    refusal_ = std::move(*plan->refused);
    return store::Transaction();
  }
  if (plan->files.empty()) {
    files_ = FileChanges();
    if (!plan->transaction.operations.empty()) Step("commit");
    return std::move(plan->transaction);
  }
  const auto other = ReadNow();
  if (!other) return other.error();
  if (*other) {
    refusal_ = EditedByOther(**other);
    return store::Transaction();
  }
  const Status selected = SelectFor(plan->files);
  if (!selected) {
    const bool is_about_disk = selected.error().code() != ErrorCode::kInternal;
    refusal_ = Refusal{is_about_disk ? kBadDisk : kFailed, selected.error().ToString()};
    return store::Transaction();
  }
  return PlanIntent(requester, std::move(plan->transaction));
}

Result<store::Transaction> EditJob::PlanIntent(const Requester& requester, store::Transaction transaction) {
  record_.host_id = options_.host_id;
  record_.user = cluster::LogText(requester.user, kStoredName);
  record_.request_id = cluster::LogText(requester.request_id, kStoredName);
  record_.since = std::chrono::floor<std::chrono::seconds>(options_.now());
  record_.stage = EditStage::kDoing;
  transaction.compares.push_back({EditKey(guest_id_), 0});
  transaction.operations = {{EditKey(guest_id_), EditText(record_)}};
  Step("commit doing");
  return transaction;
}

// Looks at the files, unless it was done for the same ones.
Status EditJob::SelectFor(const FileChanges& files) {
  if (files_ == files) return {};
  files_.reset();
  record_ = EditRecord();
  notes_.clear();
  for (const NewFile& file : files.made) record_.made.push_back(file.path);
  if (Status selected = SelectGrown(files); !selected) return selected;
  if (Status selected = SelectRemoved(files); !selected) return selected;
  files_ = files;
  return {};
}

// A file that another disk has as well stays as it is: whoever uses that disk may be running.
Status EditJob::SelectGrown(const FileChanges& files) {
  std::set<std::string> disks = files.removed_disks;
  std::map<std::string, FileIdentity> found;
  for (const GrownFile& file : files.grown) {
    Result<Growth> growth = PlanGrowth(disk_files_, file.path, file.format, file.size_mib << 20);
    if (!growth) return growth.error();
    const Result<DiskFiles::Look> look = disk_files_.Examine(file.path);
    if (!look) return look.error();
    const bool is_twice = std::ranges::any_of(found, [&](const auto& other) { return other.second == look->identity; });
    if (is_twice) return Error(ErrorCode::kInvalid, "Two disks have the same file");
    found.emplace(file.path, look->identity);
    disks.insert(file.disk_id);
    record_.grown.push_back(std::move(*growth));
  }
  const Result<std::set<std::string>> others = NamedByOthers(*options_.store, disks, found);
  if (!others) return others.error();
  if (others->empty()) return {};
  return Error(ErrorCode::kInvalid, "The file '" + ShownPath(*others->begin()) + "' belongs to another disk as well");
}

Status EditJob::SelectRemoved(const FileChanges& files) {
  if (files.removed.empty()) return {};
  DeletionPlan removal;
  removal.files = files.removed;
  removal.disks = files.removed_disks;
  removal.images = files.images;
  Result<Selection> selection = SelectFiles(guest_id_, removal, disk_files_, *options_.store);
  if (!selection) return selection.error();
  record_.hidden = std::move(selection->files);
  notes_ = std::move(selection->notes);
  return {};
}

Status EditJob::MakeFile(const NewFile& file) {
  // Only the repository's own folder: its root is made by the administrator.
  const std::string folder(FolderOf(file.path));
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    return SystemError(ErrorCode::kInternal, "Cannot make the folder '" + folder + "'", errno);
  }
  // Also of one that was there: whoever made it may have ended before this.
  if (Status synced = disk_files_.Sync(folder); !synced) return synced;
  const EmptyImage image = MakeEmptyImage(file.format, file.size_mib << 20);
  return disk_files_.Create(file.path, image.length, image.pieces);
}

Status EditJob::DoFiles() {
  for (std::size_t i = 0; i < files_->made.size(); ++i) {
    Step("make", i);
    const Status made = MakeFile(files_->made[i]);
    // What was there before is nobody's to remove.
    if (IsCode(made, ErrorCode::kConflict)) std::erase(record_.made, files_->made[i].path);
    if (!made) return made;
  }
  for (std::size_t i = 0; i < record_.hidden.size(); ++i) {
    Step("hide", i);
    const Status hidden = disk_files_.Hide(record_.hidden[i].path, record_.hidden[i].hidden);
    if (!hidden && !IsCode(hidden, ErrorCode::kNotFound)) return hidden;
  }
  for (std::size_t i = 0; i < record_.grown.size(); ++i) {
    Step("grow", i);
    const Status grown = Grow(disk_files_, record_.grown[i]);
    if (!grown) return grown;
  }
  return SyncAll("sync done");
}

// The point of no return, or back to where it began.
EditJob::Outcome EditJob::CommitRecords() {
  const Result<bool> wanted = AreFilesNamedByOthers();
  if (!wanted) return SettleFailedCommit(wanted.error());
  if (*wanted) return Undo({kBusy, "Other disks get the guest's files all the time"}, Outcome::kChanged);
  std::optional<Outcome> instead;
  const Status committed = cluster::CommitPlanned(*options_.store, [&] { return PlanCommit(instead); });
  if (!committed) return SettleFailedCommit(committed.error());
  if (instead == Outcome::kChanged) return Undo(ChangedAllTheTime(), Outcome::kChanged);
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

// Whether a record that came since the files were selected names one that is to go. As for deletions, asked once
// before the commit, which is to be quick.
Result<bool> EditJob::AreFilesNamedByOthers() const {
  std::map<std::string, FileIdentity> files;
  for (const HiddenFile& file : record_.hidden) files.emplace(file.path, FileIdentity());
  const Result<std::set<std::string>> named = NamedByOthers(*options_.store, files_->removed_disks, files);
  if (!named) return named.error();
  return !named->empty();
}

// `instead`: kChanged when the records now mean other files, kRefused when they do not allow the edit any more.
Result<store::Transaction> EditJob::PlanCommit(std::optional<Outcome>& instead) {
  instead.reset();
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  Result<EditPlan> plan = PlanEdit(options_, guest_id_, request_, ids_, **snapshot);
  if (!plan) return plan.error();
  if (plan->refused) {
    refusal_ = std::move(*plan->refused);
    instead = Outcome::kRefused;
    return store::Transaction();
  }
  if (plan->files != *files_) {
    instead = Outcome::kChanged;
    return store::Transaction();
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

// A commit whose failure was reported may have been made all the same, and then there is no way back.
EditJob::Outcome EditJob::SettleFailedCommit(const Error& error) {
  const auto now = ReadNow();
  if (!now) {
    LogFailure("It cannot be told whether it is done, so its files stay until this host starts: " +
               now.error().ToString());
    return Refuse(FailedBecause(error));
  }
  if (*now && (*now)->record && (*now)->record->stage == EditStage::kPurging &&
      (*now)->record->host_id == options_.host_id) {
    Purge();
    return Outcome::kDone;
  }
  if (error.code() == ErrorCode::kConflict) return Undo(ChangedAllTheTime(), Outcome::kRefused);
  return Undo(FailedBecause(error), Outcome::kRefused);
}

// What fails stays for the next start: the disks are removed all the same.
void EditJob::Purge() {
  bool is_all = true;
  for (std::size_t i = 0; i < record_.hidden.size(); ++i) {
    const auto& [path, hidden] = record_.hidden[i];
    Step("remove", i);
    const Status removed = disk_files_.RemoveHidden(path, hidden);
    if (removed || IsCode(removed, ErrorCode::kNotFound)) continue;
    is_all = false;
    LogFailure("The file [" + ShownPath(path) + "], which now is named [" + hidden +
               "], could not be removed; this is tried again: " + removed.error().ToString());
  }
  const Status synced = record_.hidden.empty() ? Status() : SyncAll("sync removed");
  if (!synced) LogFailure("It is not finished, and tried again: " + synced.error().ToString());
  if (!is_all || !synced) return;
  const Status ended = RemoveRecord("commit end");
  if (!ended) LogFailure("The record of it could not be removed: " + ended.error().ToString());
}

EditJob::Outcome EditJob::Undo(const Refusal& refusal, Outcome outcome) {
  refusal_ = refusal;
  Status undone = UndoFiles();
  if (undone) undone = RemoveRecord("commit undo");
  if (undone) return outcome;
  const std::string more = "What was done could not be undone, which is tried again: " + undone.error().ToString();
  LogFailure(more);
  refusal_.reason += ". " + more;
  return Outcome::kRefused;
}

Status EditJob::UndoFiles() {
  for (std::size_t i = record_.grown.size(); i-- > 0;) {
    Step("shrink", i);
    const Status shrunk = UndoGrowth(disk_files_, record_.grown[i]);
    // Somebody else has done something with it, or has removed it: it is not ours to change.
    if (IsCode(shrunk, ErrorCode::kConflict) || IsCode(shrunk, ErrorCode::kNotFound)) {
      LogFailure("A file is left as it is: " + shrunk.error().ToString());
    } else if (!shrunk) {
      return shrunk;
    }
  }
  for (std::size_t i = record_.hidden.size(); i-- > 0;) {
    const auto& [path, hidden] = record_.hidden[i];
    Step("show", i);
    const Status shown = disk_files_.Show(path, hidden);
    if (shown || IsCode(shown, ErrorCode::kNotFound)) continue;
    if (!IsCode(shown, ErrorCode::kConflict)) return shown;
    LogFailure("There are both [" + ShownPath(path) + "] and [" + hidden + "] beside it; both are left");
  }
  for (std::size_t i = record_.made.size(); i-- > 0;) {
    Step("unmake", i);
    const Status removed = disk_files_.Remove(record_.made[i]);
    if (!removed && !IsCode(removed, ErrorCode::kNotFound)) return removed;
  }
  return SyncAll("sync undone");
}

Status EditJob::SyncAll(std::string_view step) const {
  // One path of each folder.
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

// Unless somebody else has done so.
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
