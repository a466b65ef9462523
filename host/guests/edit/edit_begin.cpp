// The first half of an edit: determines what it changes, and records the intent.
#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "host/cluster/mac_address.h"
#include "host/disks/file_referrers.h"
#include "host/guests/edit/edit_job.h"
#include "host/records/object_edit.h"

namespace vexa::guests {
namespace {

// How often facts for the plan are gathered, at most, while records change.
constexpr int kMaxPlanAttempts = 64;

}  // namespace

// Called only when the limits have been checked: each new MAC address is reserved for a day.
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

// Facts about files and the hypervisor are gathered between attempts to commit, because gathering takes time and a plan
// must not wait.
EditJob::Outcome EditJob::Begin(const Requester& requester) {
  facts_ = FileFacts();
  files_.reset();
  refusal_ = Refusal{0, ""};
  if (request_.nics_add.size() > domain_xml::kMaxNics) {
    return Refuse({host_error::kBadNic, TooManyNics()});
  }
  if (request_.disks_add.size() > domain_xml::kMaxDisks) {
    return Refuse({host_error::kTooManyDisks, fmt::format("A guest has at most {} disks", domain_xml::kMaxDisks)});
  }
  if (const Status made = MakeIds(); !made) return Refuse(RefusalFor(made.error()));
  for (int attempt = 0; attempt < kMaxPlanAttempts; ++attempt) {
    const Status committed = records::CommitWithRetry(
        *options_.store, [&](const records::Reader& reader) { return PlanBegin(reader, requester); });
    if (!committed && committed.error().code() == ErrorCode::kConflict) break;
    if (!committed) return HandleFailedBegin(committed.error());
    if (refusal_.code != 0) return Outcome::kRefused;
    if (!facts_.HasMissingFacts() && !unexamined_) return LoadUnfinished();
    if (const auto allowed = GatherFacts(); !allowed.ok()) return Refuse(allowed.error());
  }
  return Refuse(GuestKeepsChanging());
}

EditJob::Outcome EditJob::LoadUnfinished() {
  if (files_->empty()) return Outcome::kDone;
  Result<void, Refusal> loaded = job_.LoadUnfinished();
  return !loaded.ok() ? Refuse(loaded.error()) : Outcome::kStarted;
}

// Gathers the facts that the last plan was missing.
Result<void, Refusal> EditJob::GatherFacts() {
  if (const Status gathered = facts_.Gather(options_, guest_id_); !gathered) return RefusalFor(gathered.error());
  const std::optional<FileChanges> unexamined = std::exchange(unexamined_, std::nullopt);
  if (!unexamined) return {};
  if (const auto allowed = CheckStorage(*unexamined); !allowed.ok()) return allowed;
  if (const auto allowed = CheckRoom(*unexamined); !allowed.ok()) return allowed;
  const Status selected = SelectFor(*unexamined);
  // Files that were not found may have disappeared together with their storage.
  if (selected) return CheckStorage(*unexamined);
  const bool is_disk_problem = selected.error().code() != ErrorCode::kInternal;
  return Refusal{is_disk_problem ? host_error::kBadDisk : host_error::kFailed, selected.error().ToString()};
}

Result<void, Refusal> EditJob::CheckStorage(const FileChanges& files) const {
  std::vector<std::string> paths = PathsOf(files.removed);
  for (const GrownFile& file : files.grown) paths.push_back(file.path);
  const auto existing = job_.CheckStorage(files.repository_id, paths, storage::StorageUse::kExisting);
  if (!existing.ok() || files.made.empty()) return existing;
  paths.clear();
  for (const NewFile& file : files.made) paths.push_back(file.path);
  return job_.CheckStorage(files.repository_id, paths, storage::StorageUse::kNew);
}

Result<void, Refusal> EditJob::CheckRoom(const FileChanges& files) const {
  if (!options_.storage) return {};
  std::set<std::string> paths;
  for (const NewFile& file : files.made) paths.insert(file.path);
  for (const GrownFile& file : files.grown) paths.insert(file.path);
  if (paths.empty()) return {};
  return options_.storage->CheckRoom(files.repository_id, paths);
}

// A commit that reported a failure may still have taken effect, and would block every operation on the guest.
EditJob::Outcome EditJob::HandleFailedBegin(const Error& error) {
  if (!job_.HasBegunDespiteFailure()) return Refuse(RefusalFor(error));
  return Undo(RefusalFor(error), Outcome::kRefused);
}

// Returns an empty transaction when the edit is refused (refusal_), when facts are missing, or when the files have not
// been examined yet (unexamined_).
Result<store::Transaction> EditJob::PlanBegin(const records::Reader& reader, const Requester& requester) {
  refusal_ = Refusal{0, ""};
  unexamined_.reset();
  Result<EditPlan> plan = PlanEdit(options_, guest_id_, request_, ids_, reader, facts_);
  if (!plan) return plan.error();
  if (plan->refused) {
    refusal_ = std::move(*plan->refused);
    return store::Transaction();
  }
  if (facts_.HasMissingFacts()) return store::Transaction();
  if (plan->files.empty()) {
    files_ = FileChanges();
    return CompleteOrRefuse(AddToRecords(reader, plan->transaction), plan->transaction);
  }
  const auto other = ReadJob(reader, kind_, guest_id_);
  if (!other) return other.error();
  if (*other) {
    refusal_ = HeldByJob(kind_, **other);
    return store::Transaction();
  }
  const bool changes_existing_files = !plan->files.removed.empty() || !plan->files.grown.empty();
  if (changes_existing_files) {
    const std::optional<Result<void, Refusal>> not_running = facts_.NotRunning();
    if (not_running && !not_running->ok()) refusal_ = not_running->error();
    if (!not_running || !not_running->ok()) return store::Transaction();
  }
  if (files_ != plan->files) {
    unexamined_ = std::move(plan->files);
    return store::Transaction();
  }
  if (!plan->files.grown.empty()) {
    const Result<bool> is_current =
        job_.CompareReferencesRevision(disks::FileReferencesRevision(reader), plan->transaction);
    if (!is_current) return is_current.error();
    if (!*is_current) {
      unexamined_ = std::move(plan->files);
      return store::Transaction();
    }
  }
  // The intent is committed first. The guest's records change after the files, by another commit.
  store::Transaction intent;
  intent.compares = plan->transaction.compares;
  MaybeRefused refused = AddToIntent(reader, intent);
  if (!refused) return refused.error();
  if (*refused) {
    refusal_ = std::move(**refused);
    return store::Transaction();
  }
  job_.AddIntent(requester, intent_, intent);
  return intent;
}

// The only transaction of an edit without files; empty when it is refused.
Result<store::Transaction> EditJob::CompleteOrRefuse(MaybeRefused refused, store::Transaction& transaction) {
  if (!refused) return refused.error();
  if (*refused) {
    refusal_ = std::move(**refused);
    return store::Transaction();
  }
  if (!transaction.operations.empty()) job_.BeforeStep("commit");
  return std::move(transaction);
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
  for (const disks::Growth& growth : intent_.grown) paths.push_back(growth.path);
  Result<storage::FolderChain> storage = storage::ReadFolderChains(options_.image_roots, paths);
  if (!storage) return Error(ErrorCode::kInternal, storage.error().ToString());
  intent_.storage = std::move(*storage);
  intent_.repository_id = files.repository_id;
  files_ = files;
  return {};
}

// A file with other referrers must not grow: one of them may be running.
Status EditJob::SelectGrown(const FileChanges& files) {
  if (files.grown.empty()) return {};
  if (Status started = job_.BeginSearch(); !started) return started;
  std::set<std::string> disks = files.removed_disks;
  QueriedFiles found;
  for (const GrownFile& file : files.grown) {
    Result<disks::Growth> growth = disks::PlanGrowth(job_.disk_files(), file.path, file.format, file.size_mib << 20);
    if (!growth) return growth.error();
    Result<disks::QueriedFile> queried = job_.QueryFile(file.path);
    if (!queried) return queried.error();
    const bool is_duplicate =
        std::ranges::any_of(found, [&](const auto& other) { return other.second.identity == queried->identity; });
    if (is_duplicate) return Error(ErrorCode::kInvalid, "Two disks have the same file");
    found.emplace(file.path, std::move(*queried));
    disks.insert(file.disk_id);
    intent_.grown.push_back(std::move(*growth));
  }
  const auto others = disks::FindFileReferrers(*options_.store, job_.MakeReferrerQuery(std::move(disks)), found);
  if (!others) return others.error();
  if (others->empty()) return {};
  const auto& [path, user] = *others->begin();
  return Error(ErrorCode::kInvalid,
               fmt::format("The file '{}' cannot grow, because {}", SanitizePathForLog(path), disks::Describe(user)));
}

Status EditJob::SelectRemoved(const FileChanges& files) {
  if (files.removed.empty()) return {};
  Result<Selection> selection =
      SelectFiles(guest_id_, files.removed, files.images, job_.MakeReferrerQuery(files.removed_disks),
                  job_.disk_files(), *options_.store);
  if (!selection) return selection.error();
  intent_.hidden = std::move(selection->files);
  notes_ = std::move(selection->notes);
  return {};
}

}  // namespace vexa::guests
