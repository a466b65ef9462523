// The first half of a deletion: determines what is deleted with the guest, and records the intent.
#include <algorithm>
#include <set>
#include <utility>

#include "host/base/log_text.h"
#include "host/guests/deletion/deletion_job.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kStoredName = 256;
// How often the plan's needs are looked up while the guest's disks change.
constexpr int kLooks = 16;

// Errors about the guest's record, as opposed to the store.
bool IsAboutRecord(const Error& error) {
  return error.code() == ErrorCode::kNotFound || error.code() == ErrorCode::kCorrupt ||
         error.code() == ErrorCode::kInvalid;
}

bool IsAmong(const std::vector<HiddenFile>& files, const std::string& path) {
  return std::ranges::find(files, path, &HiddenFile::path) != files.end();
}

}  // namespace

// What the plan needs to know about files and the hypervisor is looked up between commits: both take time, and a commit
// must not wait for that.
DeletionJob::Outcome DeletionJob::Begin(const Requester& requester) {
  // The results of an earlier attempt may have been undone.
  plan_.reset();
  is_gone_ = false;
  for (int look = 0; look < kLooks; ++look) {
    Refused refused;
    std::optional<DeletionPlan> unseen;
    const Status committed =
        cluster::CommitPlanned(*options_.store, [&] { return PlanBegin(requester, refused, unseen); });
    if (!committed && committed.error().code() == ErrorCode::kConflict) break;
    if (!committed) return Refuse(FailedBecause(committed.error()));
    if (refused) return Refuse(std::move(*refused));
    if (!unseen) {
      Refused lost = job_.TakeBegun();
      return lost ? Refuse(std::move(*lost)) : Outcome::kReady;
    }
    if (Refused not_now = LookInto(std::move(*unseen))) return Refuse(std::move(*not_now));
  }
  return Refuse(KeepsChanging());
}

// Nothing to commit when it is refused, or when the files of the plan have not been examined yet (`unseen`).
Result<store::Transaction> DeletionJob::PlanBegin(const Requester& requester, Refused& refused,
                                                  std::optional<DeletionPlan>& unseen) {
  refused.reset();
  unseen.reset();
  std::optional<DeletionPlan> plan;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    Result<DeletionPlan> planned = PlanDeletion(**snapshot, guest_id_);
    if (!planned && !IsAboutRecord(planned.error())) return planned.error();
    if (!planned) {
      refused = Refusal{kUnreadable, planned.error().ToString()};
      return store::Transaction();
    }
    plan = std::move(*planned);
  }
  Result<Refused> taken = RefuseTaken();
  if (!taken) return taken.error();
  refused = std::move(*taken);
  if (refused) return store::Transaction();
  if (!IsSeen(*plan)) {
    unseen = std::move(plan);
    return store::Transaction();
  }
  plan_ = std::move(plan);
  store::Transaction transaction;
  transaction.compares = {{RunKey(guest_id_), run_revision_}, plan_->compares.front()};
  CompareFree(transaction, guest_id_, {GuestLock::kRun, GuestLock::kDeletion});
  job_.AddIntent(requester, {{}, selection_.files, {}, plan_->repository_id, storage_}, transaction);
  return transaction;
}

// One read for everything that is usually absent: the longer it takes, the more often the guest changes meanwhile.
Result<Refused> DeletionJob::RefuseTaken() {
  run_revision_ = 0;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    Result<Refused> job = FindJob(**snapshot, guest_id_);
    if (!job || *job) return job;
    const auto run = (*snapshot)->Get(RunKey(guest_id_));
    if (!run) return run.error();
    if (!*run) return Refused();
  }
  const auto run = ReadRun(*options_.store, guest_id_);
  if (!run) return run.error();
  if (!*run) return Refused();
  // Saved memory is deleted with the guest; its host removes it.
  if ((*run)->run.saved) {
    run_revision_ = (*run)->revision;
    return Refused();
  }
  const std::string& host_id = (*run)->run.host_id;
  if (host_id.empty()) return Refused({kRunsAlready, "A host has the guest, and the record of it is damaged"});
  return Refused({kRunsAlready, "The host '" + cluster::LogText(host_id, kStoredName) + "' has the guest"});
}

bool DeletionJob::IsSeen(const DeletionPlan& plan) const {
  return plan_ && plan_->files == plan.files && plan_->disks == plan.disks && plan_->images == plan.images &&
         plan_->repository_host_id == plan.repository_host_id;
}

// Whether it may continue, and which files exist.
Refused DeletionJob::LookInto(DeletionPlan plan) {
  cluster::RequestScope::ReleaseSnapshot();
  if (Refused active = job_.RefuseActive()) return active;
  const bool is_remote = !plan.repository_host_id.empty() && plan.repository_host_id != options_.host_id;
  if (!is_remote) {
    const std::vector<std::string> paths = PathsOf(plan.files);
    if (Refused storage = job_.RefuseStorage(plan.repository_id, paths, StorageUse::kExisting)) return storage;
  }
  const Status selected = SelectFor(std::move(plan));
  if (!selected) return FailedBecause(selected.error());
  // Missing files may have disappeared with their storage in between.
  if (Refused storage = RefuseStorage()) return storage;
  return RefuseAlive();
}

Status DeletionJob::SelectFor(DeletionPlan plan) {
  plan_ = std::move(plan);
  selection_ = Selection();
  if (IsRemote()) return {};
  Result<Selection> selection =
      SelectFiles(guest_id_, plan_->files, plan_->images, Question(), job_.disk_files(), *options_.store);
  if (!selection) {
    plan_.reset();
    return selection.error();
  }
  selection_ = std::move(*selection);
  Result<Trail> storage = TrailOfAll(options_.image_roots, PathsOf(selection_.files));
  if (!storage) return storage.error();
  storage_ = std::move(*storage);
  return {};
}

// Determines what is left to do of a deletion that was started earlier.
DeletionJob::Outcome DeletionJob::TakeUp(const StoredJob& begun) {
  const std::vector<HiddenFile>& begun_files = begun.record->files.hidden;
  std::optional<Result<DeletionPlan>> plan;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return Refuse(FailedBecause(snapshot.error()));
    plan = PlanDeletion(**snapshot, guest_id_);
    is_gone_ = !*plan && plan->error().code() == ErrorCode::kNotFound;
    if (is_gone_) plan = PlanGoneGuest(**snapshot, guest_id_);
  }
  if (!*plan && !IsAboutRecord(plan->error())) return Refuse(FailedBecause(plan->error()));
  if (!*plan) return Undo({kUnreadable, plan->error().ToString()}, Outcome::kRefused);
  if (is_gone_) {
    for (const HiddenFile& file : begun_files) (*plan)->files.push_back({(*plan)->files.size(), file.path});
  }
  const Status selected = SelectFor(std::move(**plan));
  if (!selected) return Undo(FailedBecause(selected.error()), Outcome::kRefused);
  // Hidden files are missing from their original paths.
  std::erase_if(selection_.notes, [](const std::string& note) { return note.starts_with("there is no file"); });
  if (!is_gone_ && !FitsRecord()) return Undo({kBusy, "The guest's record was changed"}, Outcome::kChanged);
  for (HiddenFile& file : selection_.files) {
    file.hidden = std::ranges::find(begun_files, file.path, &HiddenFile::path)->hidden;
  }
  return Outcome::kReady;
}

// Whether the guest's record still names the recorded files.
bool DeletionJob::FitsRecord() const {
  std::set<std::string> named;
  for (const NamedFile& file : plan_->files) {
    if (std::optional<std::string> path = NormalPath(file.path)) named.insert(std::move(*path));
  }
  const std::vector<HiddenFile>& recorded = job_.record().files.hidden;
  const bool is_all_named =
      std::ranges::all_of(recorded, [&](const HiddenFile& file) { return named.contains(file.path); });
  const bool is_all_known =
      std::ranges::all_of(selection_.files, [&](const HiddenFile& file) { return IsAmong(recorded, file.path); });
  return is_all_named && is_all_known && !(IsRemote() && !recorded.empty());
}

}  // namespace vexa::guests
