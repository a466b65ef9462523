// The first half of a deletion: determines what is deleted with the guest, and records the intent.
#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/guests/deletion/deletion_job.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kMaxStoredNameBytes = 256;
// How often facts for the plan are gathered, at most, while the guest's disks change.
constexpr int kMaxPlanAttempts = 16;

// Errors about the guest's record, as opposed to the store.
bool IsAboutRecord(const Error& error) {
  return error.code() == ErrorCode::kNotFound || error.code() == ErrorCode::kCorrupt ||
         error.code() == ErrorCode::kInvalid;
}

bool IsAmong(const std::vector<HiddenFile>& files, const std::string& path) {
  return std::ranges::find(files, path, &HiddenFile::path) != files.end();
}

}  // namespace

// Facts about files and the hypervisor are gathered between attempts to commit, because gathering takes time and a plan
// must not wait.
DeletionJob::Outcome DeletionJob::Begin(const Requester& requester) {
  // The results of an earlier attempt may have been undone.
  plan_.reset();
  is_gone_ = false;
  for (int attempt = 0; attempt < kMaxPlanAttempts; ++attempt) {
    std::optional<Refusal> refused;
    std::optional<DeletionPlan> unexamined;
    const Status committed = records::CommitWithRetry(*options_.store, [&](const records::Reader& reader) {
      return PlanBegin(reader, requester, refused, unexamined);
    });
    if (!committed && committed.error().code() == ErrorCode::kConflict) break;
    if (!committed) return Refuse(RefusalFor(committed.error()));
    if (refused) return Refuse(std::move(*refused));
    if (!unexamined) {
      Result<void, Refusal> loaded = job_.LoadUnfinished();
      return !loaded.ok() ? Refuse(loaded.error()) : Outcome::kReady;
    }
    if (const auto allowed = GatherFacts(std::move(*unexamined)); !allowed.ok()) return Refuse(allowed.error());
  }
  return Refuse(GuestKeepsChanging());
}

// Returns an empty transaction when the deletion is refused (`refused`), or when the files of the plan have not been
// examined yet (`unexamined`).
Result<store::Transaction> DeletionJob::PlanBegin(const records::Reader& reader, const Requester& requester,
                                                  std::optional<Refusal>& refused,
                                                  std::optional<DeletionPlan>& unexamined) {
  refused.reset();
  unexamined.reset();
  Result<DeletionPlan> plan = PlanDeletion(reader, guest_id_);
  if (!plan && !IsAboutRecord(plan.error())) return plan.error();
  if (!plan) {
    refused = Refusal{host_error::kNotFoundOrUnreadable, plan.error().ToString()};
    return store::Transaction();
  }
  Result<std::optional<Refusal>> holder = FindHolder(reader);
  if (!holder) return holder.error();
  refused = std::move(*holder);
  if (refused) return store::Transaction();
  if (!IsExamined(*plan)) {
    unexamined = std::move(*plan);
    return store::Transaction();
  }
  plan_ = std::move(*plan);
  store::Transaction transaction;
  transaction.compares = {{records::RunKey(guest_id_), run_revision_}, plan_->compares.front()};
  CompareFree(transaction, guest_id_, {GuestLock::kRun, GuestLock::kDeletion});
  job_.AddIntent(requester, {{}, selection_.files, {}, plan_->repository_id, storage_}, transaction);
  return transaction;
}

Result<std::optional<Refusal>> DeletionJob::FindHolder(const store::Snapshot& snapshot) {
  run_revision_ = 0;
  Result<std::optional<Refusal>> job = FindJob(snapshot, guest_id_);
  if (!job || *job) return job;
  const auto run = records::ReadRun(snapshot, guest_id_);
  if (!run) return run.error();
  if (!*run) return std::optional<Refusal>();
  // Saved memory is not an obstacle: its host removes it with the guest.
  if ((*run)->run.saved) {
    run_revision_ = (*run)->revision;
    return std::optional<Refusal>();
  }
  const std::string& host_id = (*run)->run.host_id;
  if (host_id.empty())
    return std::optional<Refusal>(
        {host_error::kAlreadyRunning,
         "The run record of the guest is damaged, so a host may still be running it. Restore the store from a backup"});
  return std::optional<Refusal>(
      {host_error::kAlreadyRunning,
       fmt::format("The guest may be running on the host '{}'", SanitizeForLog(host_id, kMaxStoredNameBytes))});
}

bool DeletionJob::IsExamined(const DeletionPlan& plan) const {
  return plan_ && plan_->files == plan.files && plan_->disks == plan.disks && plan_->images == plan.images &&
         plan_->repository_host_id == plan.repository_host_id;
}

// Checks whether the deletion may continue, and selects the files.
Result<void, Refusal> DeletionJob::GatherFacts(DeletionPlan plan) {
  if (const auto allowed = job_.CheckNotRunning(); !allowed.ok()) return allowed;
  const bool is_remote = !plan.repository_host_id.empty() && plan.repository_host_id != options_.host_id;
  if (!is_remote) {
    const std::vector<std::string> paths = PathsOf(plan.files);
    if (const auto allowed = job_.CheckStorage(plan.repository_id, paths, storage::StorageUse::kExisting);
        !allowed.ok())
      return allowed;
  }
  const Status selected = SelectFor(std::move(plan));
  if (!selected) return RefusalFor(selected.error());
  // Files that were not found may have disappeared together with their storage.
  if (const auto allowed = CheckStorage(); !allowed.ok()) return allowed;
  return CheckRepositoryHostGone();
}

Status DeletionJob::SelectFor(DeletionPlan plan) {
  plan_ = std::move(plan);
  selection_ = Selection();
  if (IsRemote()) return {};
  Result<Selection> selection =
      SelectFiles(guest_id_, plan_->files, plan_->images, MakeReferrerQuery(), job_.disk_files(), *options_.store);
  if (!selection) {
    plan_.reset();
    return selection.error();
  }
  selection_ = std::move(*selection);
  Result<storage::FolderChain> storage = storage::ReadFolderChains(options_.image_roots, PathsOf(selection_.files));
  if (!storage) return storage.error();
  storage_ = std::move(*storage);
  return {};
}

// Plans again, to continue a deletion that this host started earlier.
DeletionJob::Outcome DeletionJob::ResumeFrom(const StoredJob& unfinished) {
  const std::vector<HiddenFile>& recorded_files = unfinished.record->files.hidden;
  std::optional<Result<DeletionPlan>> plan;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return Refuse(RefusalFor(snapshot.error()));
    plan = PlanDeletion(**snapshot, guest_id_);
    is_gone_ = !*plan && plan->error().code() == ErrorCode::kNotFound;
    if (is_gone_) plan = PlanDeletedGuest(**snapshot, guest_id_);
  }
  if (!*plan && !IsAboutRecord(plan->error())) return Refuse(RefusalFor(plan->error()));
  if (!*plan) return Undo({host_error::kNotFoundOrUnreadable, plan->error().ToString()}, Outcome::kRefused);
  if (is_gone_) {
    for (const HiddenFile& file : recorded_files) (*plan)->files.push_back({(*plan)->files.size(), file.path});
  }
  const Status selected = SelectFor(std::move(**plan));
  if (!selected) return Undo(RefusalFor(selected.error()), Outcome::kRefused);
  // Files that are already hidden are not at their original paths, so these notes are wrong.
  std::erase_if(selection_.notes, [](const std::string& note) { return note.starts_with("there is no file"); });
  if (!is_gone_ && !MatchesRecord())
    return Undo({host_error::kBusy, "The guest's record was changed"}, Outcome::kChanged);
  for (HiddenFile& file : selection_.files) {
    file.hidden = std::ranges::find(recorded_files, file.path, &HiddenFile::path)->hidden;
  }
  return Outcome::kReady;
}

// Whether the guest's records still refer to the files in the job's record, and to no others.
bool DeletionJob::MatchesRecord() const {
  std::set<std::string> named;
  for (const RecordedFile& file : plan_->files) {
    if (std::optional<std::string> path = disks::NormalPath(file.path)) named.insert(std::move(*path));
  }
  const std::vector<HiddenFile>& recorded = job_.record().files.hidden;
  const bool all_still_named =
      std::ranges::all_of(recorded, [&](const HiddenFile& file) { return named.contains(file.path); });
  const bool all_recorded =
      std::ranges::all_of(selection_.files, [&](const HiddenFile& file) { return IsAmong(recorded, file.path); });
  return all_still_named && all_recorded && !(IsRemote() && !recorded.empty());
}

}  // namespace vexa::guests
