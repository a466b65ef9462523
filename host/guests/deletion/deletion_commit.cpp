// The point of no return of a deletion: the commit that deletes the guest's records, and the checks before it.
#include <fmt/format.h>

#include <set>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/disks/file_referrers.h"
#include "host/guests/deletion/deletion_job.h"
#include "host/records/domain_record.h"
#include "host/records/guest_admin.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"
#include "host/store/key.h"

namespace vexa::guests {

// Commits, and searches again for referrers of the files when new ones may have been added.
DeletionJob::Outcome DeletionJob::CommitRecords() {
  for (int search = 0; search < kMaxFileSearches; ++search) {
    const Outcome outcome = CommitOnce();
    if (outcome != Outcome::kOutdated) return outcome;
  }
  return Undo(ReferencesKeepChanging(), Outcome::kRefused);
}

DeletionJob::Outcome DeletionJob::CommitOnce() {
  if (const auto allowed = CheckRepositoryHostGone(); !allowed.ok()) return Undo(allowed.error(), Outcome::kRefused);
  // Files that could not be found may exist on storage that has disappeared meanwhile.
  if (const auto allowed = CheckStorage(); !allowed.ok()) return Undo(allowed.error(), Outcome::kRefused);
  const Result<bool> is_referenced = AreFilesReferencedElsewhere();
  if (!is_referenced) return HandleFailedCommit(is_referenced.error());
  const Outcome after_undo = is_gone_ ? Outcome::kRefused : Outcome::kChanged;
  if (*is_referenced) return Undo(FilesKeepBeingReferenced(), after_undo);
  std::optional<Outcome> early_outcome;
  const Status committed = records::CommitWithRetry(
      *options_.store, [&](const records::Reader& reader) { return PlanCommit(reader, early_outcome); });
  if (!committed) return HandleFailedCommit(committed.error());
  if (early_outcome == Outcome::kOutdated) return *early_outcome;
  if (early_outcome == Outcome::kChanged) return Undo(GuestKeepsChanging(), after_undo);
  if (early_outcome) return HandleLostRecord();
  LogNotes();
  job_.Purge(CheckStorage());
  return Outcome::kDeleted;
}

// Whether a record that was added since the files were selected refers to one of them. This search takes time, so it
// runs before the commit, which compares that no such record has been added since.
Result<bool> DeletionJob::AreFilesReferencedElsewhere() {
  if (job_.record().files.hidden.empty()) return false;
  if (const Status started = job_.BeginSearch(); !started) return started.error();
  const Result<QueriedFiles> files = job_.QueryHidden();
  if (!files) return files.error();
  return job_.AreReferenced(*files, MakeReferrerQuery());
}

disks::FileReferrerQuery DeletionJob::MakeReferrerQuery() const {
  disks::FileReferrerQuery query = job_.MakeReferrerQuery(plan_->disks);
  query.guest = is_gone_ ? disks::FileReferrerQuery::Guest::kGone : disks::FileReferrerQuery::Guest::kBeingDeleted;
  query.guest_id = guest_id_;
  return query;
}

// `early_outcome`: kChanged when the guest's record now names other files, kOutdated when another record has started to
// refer to files, kRefused when the deletion no longer belongs to this job.
Result<store::Transaction> DeletionJob::PlanCommit(const records::Reader& reader,
                                                   std::optional<Outcome>& early_outcome) {
  early_outcome.reset();
  store::Transaction transaction;
  const Result<bool> is_ours = job_.IsOurs(reader);
  if (!is_ours) return is_ours.error();
  Result<DeletionPlan> plan = PlanAgain(reader);
  if (!plan) return plan.error();
  // A guest that reappears under the id of a deleted one is another guest.
  const bool is_same = is_gone_ ? plan->compares.front().revision == 0
                                : plan->files == plan_->files && plan->repository_host_id == plan_->repository_host_id;
  if (!*is_ours || !is_same) {
    early_outcome = *is_ours ? Outcome::kChanged : Outcome::kRefused;
    return store::Transaction();
  }
  transaction.compares = std::move(plan->compares);
  transaction.operations = std::move(plan->removals);
  plan_->notes = std::move(plan->notes);
  if (!job_.record().files.hidden.empty()) {
    const Result<bool> is_current = job_.CompareReferencesRevision(disks::FileReferencesRevision(reader), transaction);
    if (!is_current) return is_current.error();
    if (!*is_current) {
      early_outcome = Outcome::kOutdated;
      return store::Transaction();
    }
  }
  const Status left_over = AddLeftover(reader, transaction);
  if (!left_over) return left_over.error();
  const Result<bool> is_off = AddRunRemoval(reader, transaction);
  if (!is_off) return is_off.error();
  if (!*is_off) {
    early_outcome = Outcome::kChanged;
    return store::Transaction();
  }
  const Status grants = RemoveGrants(reader, transaction);
  if (!grants) return grants.error();
  job_.AddPurging(transaction);
  return transaction;
}

// Adds the removal of what hosts keep of the guest in addition to its files: saved memory, and libvirt's definition.
// False: the guest runs by now.
Result<bool> DeletionJob::AddRunRemoval(const store::Snapshot& snapshot, store::Transaction& transaction) {
  std::set<std::string> hosts;
  if (!plan_->host_id.empty()) hosts.insert(plan_->host_id);
  const auto stored = snapshot.Get(records::RunKey(guest_id_));
  if (!stored) return stored.error();
  transaction.compares.push_back({records::RunKey(guest_id_), *stored ? (*stored)->revision : 0});
  if (*stored) {
    const records::Run run = records::ParseRun((*stored)->text);
    if (!run.saved) return false;
    hosts.insert(run.host_id);
    transaction.operations.push_back({records::RunKey(guest_id_), std::nullopt});
  }
  for (const std::string& host_id : hosts) {
    const bool has_hypervisor = host_id != options_.host_id || options_.check_not_running;
    if (!has_hypervisor) continue;
    const std::string key = records::UndefineKey(host_id, guest_id_);
    if (store::IsValidKey(key)) transaction.operations.push_back({key, "true"});
  }
  return true;
}

// Grants that remained would apply to the next guest with this id.
Status DeletionJob::RemoveGrants(const store::Snapshot& snapshot, store::Transaction& transaction) {
  std::vector<Error> damage;
  const Status added = records::AddGrantRemovals(snapshot, guest_id_, transaction, damage);
  for (const Error& error : damage) plan_->notes.push_back(fmt::format("grants may remain: {}", error.ToString()));
  return added;
}

// Plans the deletion again. If the guest's record has been deleted meanwhile, the job still deletes the files.
Result<DeletionPlan> DeletionJob::PlanAgain(const store::Snapshot& snapshot) const {
  Result<DeletionPlan> plan = PlanDeletion(snapshot, guest_id_);
  if (plan || plan.error().code() != ErrorCode::kNotFound) return plan;
  plan = PlanDeletedGuest(snapshot, guest_id_);
  if (!plan) return plan;
  plan->files = plan_->files;
  plan->repository_host_id = plan_->repository_host_id;
  return plan;
}

// Leaves files in another host's repository to that host.
Status DeletionJob::AddLeftover(const store::Snapshot& snapshot, store::Transaction& transaction) {
  if (!IsRemote() || plan_->files.empty()) return {};
  const std::string& host_id = plan_->repository_host_id;
  const std::string key = LeftoverKey(host_id, guest_id_);
  later_notes_.clear();
  if (!store::IsValidKey(key)) {
    later_notes_.emplace_back("its files are kept because the repository's record names no host");
    return {};
  }
  Result<StoredLeftover> stored = ReadLeftover(snapshot, host_id, guest_id_);
  if (!stored) return stored.error();
  std::vector<std::string> paths = std::move(stored->paths).value_or(std::vector<std::string>());
  std::set<std::string> known(paths.begin(), paths.end());
  for (const RecordedFile& file : plan_->files) {
    const std::optional<std::string> path = disks::NormalPath(file.path);
    if (!path) {
      later_notes_.push_back(KeptFile(file.path, "the path is not a valid absolute path"));
    } else if (plan_->images.contains(*path)) {
      later_notes_.push_back(KeptFile(*path, "it is an image in a drive of the guest"));
    } else if (known.insert(*path).second) {
      paths.push_back(*path);
    }
  }
  if (paths.empty()) return {};
  transaction.compares.push_back({key, stored->revision});
  transaction.operations.push_back({key, SerializeLeftover(paths, plan_->repository_id)});
  return {};
}

}  // namespace vexa::guests
