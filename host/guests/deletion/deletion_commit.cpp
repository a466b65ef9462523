// The point of no return of a deletion: the commit that deletes the guest's records, and the checks before it.
#include <set>
#include <utility>

#include "host/base/log_text.h"
#include "host/disks/disk_users.h"
#include "host/guests/deletion/deletion_job.h"
#include "host/records/domain_record.h"
#include "host/records/guest_admin.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"
#include "host/store/key.h"

namespace vexa::guests {

// Passes the point of no return, or returns to the beginning.
DeletionJob::Outcome DeletionJob::CommitRecords() {
  for (int search = 0; search < kFileSearches; ++search) {
    const Outcome outcome = CommitOnce();
    if (outcome != Outcome::kOutdated) return outcome;
  }
  return Undo(FilesKeepChanging(), Outcome::kRefused);
}

DeletionJob::Outcome DeletionJob::CommitOnce() {
  if (const Refused alive = RefuseAlive()) return Undo(*alive, Outcome::kRefused);
  // Files that could not be found for hiding may exist on storage that has disappeared meanwhile.
  if (const Refused storage = RefuseStorage()) return Undo(*storage, Outcome::kRefused);
  const Result<bool> wanted = AreFilesNamedByOthers();
  if (!wanted) return SettleFailedCommit(wanted.error());
  const Outcome again = is_gone_ ? Outcome::kRefused : Outcome::kChanged;
  if (*wanted) return Undo(FilesKeepBeingNamed(), again);
  std::optional<Outcome> instead;
  const Status committed = cluster::CommitPlanned(*options_.store, [&] { return PlanCommit(instead); });
  if (!committed) return SettleFailedCommit(committed.error());
  if (instead == Outcome::kOutdated) return *instead;
  if (instead == Outcome::kChanged) return Undo(KeepsChanging(), again);
  if (instead) return Lost();
  LogNotes();
  job_.Purge(RefuseStorage());
  return Outcome::kDeleted;
}

// Whether a record added since the files were selected names one of them. Checked before the commit, which must be
// quick and compares that no other record has been added since.
Result<bool> DeletionJob::AreFilesNamedByOthers() {
  if (job_.record().files.hidden.empty()) return false;
  if (const Status begun = job_.BeginSearch(); !begun) return begun.error();
  const Result<SoughtFiles> files = job_.SeekHidden();
  if (!files) return files.error();
  return job_.AreNamed(*files, Question());
}

FileQuestion DeletionJob::Question() const {
  FileQuestion question = job_.Question(plan_->disks);
  question.guest = is_gone_ ? FileQuestion::Guest::kGone : FileQuestion::Guest::kLeaving;
  question.guest_id = guest_id_;
  return question;
}

// `instead`: kChanged when the guest's record now names other files, kOutdated when another record has come to name
// files, kRefused when the deletion no longer belongs to this job.
Result<store::Transaction> DeletionJob::PlanCommit(std::optional<Outcome>& instead) {
  instead.reset();
  store::Transaction transaction;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    const Result<bool> is_ours = job_.IsOurs(**snapshot);
    if (!is_ours) return is_ours.error();
    Result<DeletionPlan> plan = PlanAgain(**snapshot);
    if (!plan) return plan.error();
    // A guest that reappears under the id of a deleted one is another guest.
    const bool is_same = is_gone_
                             ? plan->compares.front().revision == 0
                             : plan->files == plan_->files && plan->repository_host_id == plan_->repository_host_id;
    if (!*is_ours || !is_same) {
      instead = *is_ours ? Outcome::kChanged : Outcome::kRefused;
      return store::Transaction();
    }
    transaction.compares = std::move(plan->compares);
    transaction.operations = std::move(plan->removals);
    plan_->notes = std::move(plan->notes);
    if (!job_.record().files.hidden.empty()) {
      const Result<bool> is_current = job_.CompareFiles(FilesRevision(**snapshot), transaction);
      if (!is_current) return is_current.error();
      if (!*is_current) {
        instead = Outcome::kOutdated;
        return store::Transaction();
      }
    }
    const Status left_over = AddLeftover(**snapshot, transaction);
    if (!left_over) return left_over.error();
    const Result<bool> is_off = AddRun(**snapshot, transaction);
    if (!is_off) return is_off.error();
    if (!*is_off) {
      instead = Outcome::kChanged;
      return store::Transaction();
    }
    const Status grants = RemoveGrants(**snapshot, transaction);
    if (!grants) return grants.error();
  }
  job_.AddPurging(transaction);
  return transaction;
}

// What hosts have of the guest beside its files: saved memory, and libvirt's definition. False: it runs by now.
Result<bool> DeletionJob::AddRun(const store::Snapshot& snapshot, store::Transaction& transaction) {
  std::set<std::string> hosts;
  if (!plan_->host_id.empty()) hosts.insert(plan_->host_id);
  const auto stored = snapshot.Get(RunKey(guest_id_));
  if (!stored) return stored.error();
  transaction.compares.push_back({RunKey(guest_id_), *stored ? (*stored)->revision : 0});
  if (*stored) {
    const Run run = ParseRun((*stored)->text);
    if (!run.saved) return false;
    hosts.insert(run.host_id);
    transaction.operations.push_back({RunKey(guest_id_), std::nullopt});
  }
  for (const std::string& host_id : hosts) {
    const bool has_hypervisor = host_id != options_.host_id || options_.refuse_active;
    if (!has_hypervisor) continue;
    const std::string key = UndefineKey(host_id, guest_id_);
    if (store::IsKey(key)) transaction.operations.push_back({key, "true"});
  }
  return true;
}

// Remaining grants would apply to the next guest with this id.
Status DeletionJob::RemoveGrants(const store::Snapshot& snapshot, store::Transaction& transaction) {
  std::vector<Error> damage;
  const Status added = cluster::AddGrantRemovals(snapshot, guest_id_, transaction, damage);
  for (const Error& error : damage) plan_->notes.push_back("grants may be left: " + error.ToString());
  return added;
}

// If the guest's records have been deleted meanwhile, its files are deleted all the same.
Result<DeletionPlan> DeletionJob::PlanAgain(const store::Snapshot& snapshot) const {
  Result<DeletionPlan> plan = PlanDeletion(snapshot, guest_id_);
  if (plan || plan.error().code() != ErrorCode::kNotFound) return plan;
  plan = PlanGoneGuest(snapshot, guest_id_);
  if (!plan) return plan;
  plan->files = plan_->files;
  plan->repository_host_id = plan_->repository_host_id;
  return plan;
}

// Files in another host's repository are left to that host.
Status DeletionJob::AddLeftover(const store::Snapshot& snapshot, store::Transaction& transaction) {
  if (!IsRemote() || plan_->files.empty()) return {};
  const std::string& host_id = plan_->repository_host_id;
  const std::string key = LeftoverKey(host_id, guest_id_);
  later_notes_.clear();
  if (!store::IsKey(key)) {
    later_notes_.emplace_back("its files are left, since the repository's record names no host");
    return {};
  }
  Result<StoredLeftover> stored = ReadLeftover(snapshot, host_id, guest_id_);
  if (!stored) return stored.error();
  std::vector<std::string> paths = std::move(stored->paths).value_or(std::vector<std::string>());
  std::set<std::string> known(paths.begin(), paths.end());
  for (const NamedFile& file : plan_->files) {
    const std::optional<std::string> path = NormalPath(file.path);
    if (!path) {
      later_notes_.push_back("the file [" + cluster::ShownPath(file.path) +
                             "] is left: it is no absolute path of a file");
    } else if (plan_->images.contains(*path)) {
      later_notes_.push_back("the file [" + cluster::ShownPath(*path) +
                             "] is left: it is an image in a drive of the guest");
    } else if (known.insert(*path).second) {
      paths.push_back(*path);
    }
  }
  if (paths.empty()) return {};
  transaction.compares.push_back({key, stored->revision});
  transaction.operations.push_back({key, LeftoverText(paths, plan_->repository_id)});
  return {};
}

}  // namespace vexa::guests
