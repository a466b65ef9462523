// The first half of an edit: determines what it changes, and records the intent.
#include <algorithm>
#include <set>
#include <utility>

#include "host/base/log_text.h"
#include "host/base/uuid.h"
#include "host/cluster/mac_address.h"
#include "host/disks/disk_users.h"
#include "host/guests/edit/edit_job.h"
#include "host/records/object_edit.h"

namespace vexa::guests {
namespace {

// How often the plan's facts are looked up while records change.
constexpr int kLooks = 64;

}  // namespace

// Only once they are known to be needed: addresses are reserved for a day.
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

// What the plan needs to know about files and the hypervisor is looked up between commits: both take time, and a commit
// must not wait for that.
EditJob::Outcome EditJob::Begin(const Requester& requester) {
  facts_ = FileFacts();
  files_.reset();
  refusal_ = Refusal{0, ""};
  if (request_.nics_add.size() > hypervisor::kMaxNics) {
    return Refuse({kBadNic, "A guest has at most " + std::to_string(hypervisor::kMaxNics) + " network interfaces"});
  }
  if (request_.disks_add.size() > hypervisor::kMaxDisks) {
    return Refuse({kTooManyDisks, "A guest has at most " + std::to_string(hypervisor::kMaxDisks) + " disks"});
  }
  if (const Status made = MakeIds(); !made) return Refuse(FailedBecause(made.error()));
  for (int look = 0; look < kLooks; ++look) {
    const Status committed = cluster::CommitPlanned(*options_.store, [&] { return PlanBegin(requester); });
    if (!committed && committed.error().code() == ErrorCode::kConflict) break;
    if (!committed) return SettleFailedBegin(committed.error());
    if (refusal_.code != 0) return Outcome::kRefused;
    if (!facts_.IsLacking() && !unseen_) return TakeBegun();
    if (Refused failed = LookInto()) return Refuse(std::move(*failed));
  }
  return Refuse(KeepsChanging());
}

EditJob::Outcome EditJob::TakeBegun() {
  if (files_->empty()) return Outcome::kDone;
  Refused lost = job_.TakeBegun();
  return lost ? Refuse(std::move(*lost)) : Outcome::kBegun;
}

// Looks up what the last plan did not know.
Refused EditJob::LookInto() {
  cluster::RequestScope::ReleaseSnapshot();
  if (const Status gathered = facts_.Gather(options_, guest_id_); !gathered) return FailedBecause(gathered.error());
  const std::optional<FileChanges> unseen = std::exchange(unseen_, std::nullopt);
  if (!unseen) return std::nullopt;
  if (Refused storage = RefuseStorage(*unseen)) return storage;
  const Status selected = SelectFor(*unseen);
  // Missing files may have disappeared with their storage in between.
  if (selected) return RefuseStorage(*unseen);
  const bool is_about_disk = selected.error().code() != ErrorCode::kInternal;
  return Refusal{is_about_disk ? kBadDisk : kFailed, selected.error().ToString()};
}

Refused EditJob::RefuseStorage(const FileChanges& files) const {
  std::vector<std::string> paths = PathsOf(files.removed);
  for (const GrownFile& file : files.grown) paths.push_back(file.path);
  Refused refused = job_.RefuseStorage(files.repository_id, paths, StorageUse::kExisting);
  if (refused || files.made.empty()) return refused;
  paths.clear();
  for (const NewFile& file : files.made) paths.push_back(file.path);
  return job_.RefuseStorage(files.repository_id, paths, StorageUse::kNew);
}

// A commit that reported a failure may have succeeded all the same, and would block every operation on the guest.
EditJob::Outcome EditJob::SettleFailedBegin(const Error& error) {
  if (!job_.HasBegunAllTheSame()) return Refuse(FailedBecause(error));
  return Undo(FailedBecause(error), Outcome::kRefused);
}

// Nothing to commit when it is refused, when facts are missing, or when the files have not been examined yet (unseen_).
Result<store::Transaction> EditJob::PlanBegin(const Requester& requester) {
  refusal_ = Refusal{0, ""};
  unseen_.reset();
  Result<EditPlan> plan = [&]() -> Result<EditPlan> {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    return PlanEdit(options_, guest_id_, request_, ids_, **snapshot, facts_);
  }();
  if (!plan) return plan.error();
  if (plan->refused) {
    refusal_ = std::move(*plan->refused);
    return store::Transaction();
  }
  if (facts_.IsLacking()) return store::Transaction();
  if (plan->files.empty()) {
    files_ = FileChanges();
    if (!plan->transaction.operations.empty()) job_.Step("commit");
    return std::move(plan->transaction);
  }
  const auto other = job_.ReadNow();
  if (!other) return other.error();
  if (*other) {
    refusal_ = HeldByJob(kEditKind, **other);
    return store::Transaction();
  }
  const bool is_active_at_stake = !plan->files.removed.empty() || !plan->files.grown.empty();
  if (is_active_at_stake) {
    const std::optional<Refused> active = facts_.Active();
    if (active && *active) refusal_ = **active;
    if (!active || *active) return store::Transaction();
  }
  if (files_ != plan->files) {
    unseen_ = std::move(plan->files);
    return store::Transaction();
  }
  if (!plan->files.grown.empty()) {
    const Result<bool> is_current = job_.CompareFiles(FilesRevision(*options_.store), plan->transaction);
    if (!is_current) return is_current.error();
    if (!*is_current) {
      unseen_ = std::move(plan->files);
      return store::Transaction();
    }
  }
  // The records change after the files.
  plan->transaction.operations.clear();
  job_.AddIntent(requester, intent_, plan->transaction);
  return std::move(plan->transaction);
}

Status EditJob::SelectFor(const FileChanges& files) {
  files_.reset();
  intent_ = FileIntent();
  notes_.clear();
  for (const NewFile& file : files.made) intent_.made.push_back(file.path);
  if (Status selected = SelectGrown(files); !selected) return selected;
  if (Status selected = SelectRemoved(files); !selected) return selected;
  std::vector<std::string> paths = intent_.made;
  for (const HiddenFile& file : intent_.hidden) paths.push_back(file.path);
  for (const Growth& growth : intent_.grown) paths.push_back(growth.path);
  Result<Trail> storage = TrailOfAll(options_.image_roots, paths);
  if (!storage) return Error(ErrorCode::kInternal, storage.error().ToString());
  intent_.storage = std::move(*storage);
  intent_.repository_id = files.repository_id;
  files_ = files;
  return {};
}

// A file with other users stays as it is: one of them may be running.
Status EditJob::SelectGrown(const FileChanges& files) {
  if (files.grown.empty()) return {};
  if (Status begun = job_.BeginSearch(); !begun) return begun;
  std::set<std::string> disks = files.removed_disks;
  SoughtFiles found;
  for (const GrownFile& file : files.grown) {
    Result<Growth> growth = PlanGrowth(job_.disk_files(), file.path, file.format, file.size_mib << 20);
    if (!growth) return growth.error();
    Result<SoughtFile> sought = job_.Seek(file.path);
    if (!sought) return sought.error();
    const bool is_twice =
        std::ranges::any_of(found, [&](const auto& other) { return other.second.identity == sought->identity; });
    if (is_twice) return Error(ErrorCode::kInvalid, "Two disks have the same file");
    found.emplace(file.path, std::move(*sought));
    disks.insert(file.disk_id);
    intent_.grown.push_back(std::move(*growth));
  }
  const auto others = FindFileUsers(*options_.store, job_.Question(std::move(disks)), found);
  if (!others) return others.error();
  if (others->empty()) return {};
  const auto& [path, user] = *others->begin();
  return Error(ErrorCode::kInvalid, "The file '" + cluster::ShownPath(path) + "' cannot grow, since " + Describe(user));
}

Status EditJob::SelectRemoved(const FileChanges& files) {
  if (files.removed.empty()) return {};
  Result<Selection> selection = SelectFiles(guest_id_, files.removed, files.images, job_.Question(files.removed_disks),
                                            job_.disk_files(), *options_.store);
  if (!selection) return selection.error();
  intent_.hidden = std::move(selection->files);
  notes_ = std::move(selection->notes);
  return {};
}

}  // namespace vexa::guests
