#include "host/storage/storage_watch.h"

#include <syslog.h>

#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/records/run_record.h"
#include "host/storage/repository_space.h"

namespace vexa::storage {
namespace {

constexpr std::size_t kMaxDisplayed = 128;
constexpr char kNotResponding[] = "it does not answer";

std::string Quoted(const std::string& text) { return "'" + SanitizeForLog(text, kMaxDisplayed) + "'"; }

namespace states = VexaCCC::State::Repo;

// The files of a repository are checked for at most this long in one pass; the others wait for the next pass.
constexpr std::chrono::seconds kMaxFileCheckTime{2};

// A sentence without its full stop.
std::string DescribeProblem(const std::string& repository, const std::string& state, const std::string& reason) {
  const std::string storage = "The storage of the repository " + Quoted(repository);
  if (reason == kNotResponding) return storage + " does not answer";
  if (state == states::crashed) return storage + " fails: " + reason;
  if (state == states::full) return storage + " is full: " + reason;
  if (state == states::degraded) return storage + " cannot be written: " + reason;
  if (state == states::provision_warning) return storage + " runs out of space: " + reason;
  return storage + " is not mounted: " + reason;
}

const char* StateOf(const FolderChainCheck& check) {
  return IsFileSystemFailure(check.error_number) ? states::crashed : states::unavailable;
}

bool IsWarning(const std::string& state) { return state == states::degraded || state == states::provision_warning; }

Result<void, Refusal> CheckFinding(const std::string& repository_id, const FolderChainCheck& check, StorageUse use) {
  using Finding = FolderChainCheck::Finding;
  const bool is_refused =
      check.finding == Finding::kNotMounted || (check.finding == Finding::kFolderGone && use == StorageUse::kNew);
  if (!is_refused) return {};
  const std::string wrong = DescribeProblem(repository_id, StateOf(check), check.reason);
  if (IsFileSystemFailure(check.error_number))
    return Refusal{host_error::kUnavailable, wrong + ". Repair it and try again"};
  return Refusal{host_error::kUnavailable,
                 wrong + ". Mount it or, when it was replaced for good, run 'vexa repository accept " +
                     SanitizeForLog(repository_id, kMaxDisplayed) + "'"};
}

Refusal NotRespondingRefusal(const std::string& repository_id) {
  return {host_error::kUnavailable,
          DescribeProblem(repository_id, states::unavailable, kNotResponding) + ". Try again once it does"};
}

Result<void, Refusal> DamagedStorageRefusal(const std::string& repository_id, const Error& error) {
  return Refusal{host_error::kUnavailable, "The stored state of the storage of the repository " +
                                               Quoted(repository_id) + " cannot be read (" + error.ToString() + ")"};
}

}  // namespace

// A probe in progress. Its result is shared, because the probe may outlive the watch.
struct StorageWatch::PendingProbe {
  std::string repository_id;
  std::string name;
  Storage storage;
  SpaceLimits limits;
  std::shared_ptr<ProbeResult> result;
  BoundedCalls::Call call;
};

StorageWatch::StorageWatch(StorageOptions options) : options_(std::move(options)), calls_(options_.timeout) {}

void StorageWatch::Stop() {
  is_stopped_ = true;
  calls_.Stop();
}

StorageWatch::PendingProbe StorageWatch::BeginProbe(const std::string& repository_id, const std::string& name,
                                                    const Storage& storage, const SpaceLimits& limits,
                                                    const std::vector<std::string>& paths) {
  const bool is_needed = options_.files == StorageOptions::Files::kNeeded;
  ProbeRequest request{
      options_.roots, {}, paths, repository_id, is_needed ? UnusedRootPolicy::kMissing : UnusedRootPolicy::kIgnored};
  // The folders that another host has stored are its own.
  if (storage.host_id == options_.host_id) request.known = storage.folders;
  auto result = std::make_shared<ProbeResult>();
  BoundedCalls::Call call = calls_.Begin(
      repository_id, [result, probe = options_.probe, request = std::move(request)] { *result = probe(request); });
  return {repository_id, name, storage, limits, std::move(result), std::move(call)};
}

std::optional<StorageProblem> StorageWatch::ProblemFound(PendingProbe& pending) const {
  const FolderChainCheck& check = pending.result->check;
  std::optional<StorageProblem> problem;
  if (check.finding == FolderChainCheck::Finding::kNotMounted) {
    problem = StorageProblem{check.folders, check.reason, {}, StateOf(check)};
  } else {
    const auto& before = pending.storage.problem;
    problem = WorstProblem(pending.result->conditions, pending.limits, before ? before->state : "");
  }
  if (problem) problem->since = options_.now();
  return problem;
}

std::string StorageWatch::ApplyProbe(PendingProbe& pending) {
  StorageUpdate update;
  update.based_on = pending.storage.revision;
  const bool has_answered = pending.call.Wait();
  if (is_stopped_) return "";
  if (!has_answered) {
    update.problem = StorageProblem{{}, kNotResponding, options_.now()};
    for (const auto& [folder, identity] : pending.storage.folders) update.used.insert(folder);
  } else {
    update.learned = pending.result->learned;
    update.used = pending.result->used;
    update.problem = ProblemFound(pending);
  }
  const Result<StorageChange> change = UpdateStorage(*options_.store, pending.repository_id, options_.host_id, update);
  if (!change) {
    LogOnce(pending.repository_id, change.error().ToString());
    return "";
  }
  last_logged_.erase(pending.repository_id);
  if (has_answered) StoreSpace(pending);
  LogChange(pending.repository_id, pending.name, *change);
  return change->state;
}

void StorageWatch::StoreSpace(const PendingProbe& pending) {
  std::optional<RepositorySpace> space = SumOf(pending.result->conditions);
  if (!space) return;
  space->host_id = options_.host_id;
  space->limits = pending.limits;
  const Status written = WriteSpace(*options_.store, pending.repository_id, *space);
  if (!written) LogOnce(pending.repository_id, written.error().ToString());
}

// A check of the files of a repository's disks, in progress. Its results are shared, because it may outlive the watch.
struct StorageWatch::PendingFileCheck {
  struct Found {
    std::string disk_id;
    FileState state;
  };
  std::string repository_id;
  std::string state;
  const std::vector<DiskFile>* disks = nullptr;
  std::shared_ptr<std::vector<Found>> found;
  std::optional<BoundedCalls::Call> call;
};

StorageWatch::PendingFileCheck StorageWatch::BeginFileCheck(const std::string& repository_id, const std::string& state,
                                                            const std::vector<DiskFile>& disks) {
  PendingFileCheck pending{repository_id, state, &disks, std::make_shared<std::vector<PendingFileCheck::Found>>(),
                           std::nullopt};
  DiskStates& known = disks_[repository_id];
  if (options_.files == StorageOptions::Files::kNotNeeded) {
    for (const DiskFile& disk : disks) known.RecordCheck(disk.id, FileState::kFine);
    return pending;
  }
  // Files found where storage is missing are not its files.
  if (state == states::unavailable || state == states::crashed || state == states::inaccessible) return pending;
  std::vector<DiskFile> chosen = known.Choose(disks, RunningGuests());
  if (chosen.empty()) return pending;
  const auto check_files = [found = pending.found, check_file = options_.check_file, chosen = std::move(chosen)] {
    const auto end = std::chrono::steady_clock::now() + kMaxFileCheckTime;
    for (const DiskFile& disk : chosen) {
      found->push_back({disk.id, check_file(disk)});
      if (std::chrono::steady_clock::now() >= end) return;
    }
  };
  pending.call = calls_.Begin(repository_id + "/files", check_files);
  return pending;
}

void StorageWatch::ApplyFileCheck(PendingFileCheck& pending) {
  // If the check hangs, the files count as unchanged; the next Refresh will report that the storage does not respond.
  if (pending.call && pending.call->Wait()) {
    for (const auto& [disk_id, state] : *pending.found) disks_[pending.repository_id].RecordCheck(disk_id, state);
  }
  if (is_stopped_) return;
  const Status written = disks_[pending.repository_id].Write(*options_.store, *pending.disks, pending.state);
  if (!written) LogOnce(pending.repository_id, written.error().ToString());
}

std::set<std::string> StorageWatch::RunningGuests() const {
  std::set<std::string> ids;
  if (const auto runs = records::RunsOf(*options_.store, options_.host_id)) {
    for (const auto& [id, stored] : *runs) {
      if (!stored.run.saved) ids.insert(id);
    }
  }
  return ids;
}

void StorageWatch::LogChange(const std::string& repository_id, const std::string& name,
                             const StorageChange& change) const {
  const std::string& displayed = name.empty() ? repository_id : name;
  const auto& before = change.before.problem;
  const auto& after = change.after.problem;
  if (after && (!before || before->state != after->state || before->reason != after->reason)) {
    const int priority = IsWarning(after->state) ? LOG_WARNING : LOG_ERR;
    ::syslog(priority, "%s.", DescribeProblem(displayed, after->state, after->reason).c_str());
  } else if (before && !after) {
    const char* const what = IsWarning(before->state) ? "has recovered" : "can be used again";
    ::syslog(LOG_NOTICE, "The storage of the repository %s %s.", Quoted(displayed).c_str(), what);
  }
}

void StorageWatch::LogOnce(const std::string& repository_id, const std::string& reason) {
  std::string& last = last_logged_[repository_id];
  if (last == reason) return;
  last = reason;
  const std::string storage = repository_id.empty() ? "repositories" : "the repository " + Quoted(repository_id);
  ::syslog(LOG_ERR, "The storage of %s cannot be checked: %s.", storage.c_str(), reason.c_str());
}

void StorageWatch::Refresh() {
  const MutexLock refreshing(refreshing_);
  const Result<const FilesByRepository::Files*> files = files_.Find(*options_.store);
  if (!files) return LogOnce("", files.error().ToString());
  static const RepositoryFiles kNone;
  const auto files_of = [&](const std::string& id) -> const RepositoryFiles& {
    const auto found = (*files)->find(id);
    return found == (*files)->end() ? kNone : found->second;
  };
  std::vector<PendingProbe> probes;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return LogOnce("", snapshot.error().ToString());
    const auto repositories = RepositoriesOf(**snapshot, options_.host_id);
    if (!repositories) return LogOnce("", repositories.error().ToString());
    std::erase_if(last_logged_, [&](const auto& one) { return !repositories->contains(one.first); });
    std::erase_if(disks_, [&](const auto& one) { return !repositories->contains(one.first); });
    for (const auto& [id, name] : *repositories) {
      const Result<Storage> storage = ReadStorage(**snapshot, id);
      if (!storage) {
        LogOnce(id, storage.error().ToString());
        continue;
      }
      const Result<SpaceLimits> limits = LimitsOf(**snapshot, id, options_.limits);
      if (!limits) {
        LogOnce(id, limits.error().ToString());
        continue;
      }
      probes.push_back(BeginProbe(id, name, *storage, *limits, files_of(id).paths));
    }
  }
  std::vector<PendingFileCheck> file_checks;
  for (PendingProbe& probe : probes) {
    const std::string state = ApplyProbe(probe);
    if (is_stopped_) return;
    if (!state.empty())
      file_checks.push_back(BeginFileCheck(probe.repository_id, state, files_of(probe.repository_id).disks));
  }
  for (PendingFileCheck& one : file_checks) ApplyFileCheck(one);
}

Result<void, Refusal> StorageWatch::CheckStorageForStart(const std::string& repository_id) const {
  if (repository_id.empty()) return {};
  const auto snapshot = options_.store->Read();
  if (!snapshot) return {};
  const Result<Storage> storage = ReadStorage(**snapshot, repository_id);
  if (!storage || !storage->problem || storage->host_id != options_.host_id) return {};
  const StorageProblem& problem = *storage->problem;
  const std::string wrong = DescribeProblem(repository_id, problem.state, problem.reason);
  if (problem.state == states::full) {
    return Refusal{
        host_error::kUnavailable,
        wrong + ". Remove files or disks that are no longer needed, or make its file system larger, and try again"};
  }
  // Intentional: read-only storage is not refused. This process may see another mount than a libvirt elsewhere.
  return {};
}

Result<void, Refusal> StorageWatch::CheckWithTimeout(const std::string& repository_id, const FolderChain& part,
                                                     StorageUse use) {
  if (part.empty()) return {};
  const auto result = std::make_shared<FolderChainCheck>();
  BoundedCalls::Call call =
      calls_.Begin(repository_id, [result, part, check_chain = options_.check_chain] { *result = check_chain(part); });
  if (!call.Wait()) return NotRespondingRefusal(repository_id);
  return CheckFinding(repository_id, *result, use);
}

Result<void, Refusal> StorageWatch::CheckFolders(const std::string& repository_id,
                                                 const std::vector<std::string>& paths, StorageUse use) {
  if (repository_id.empty()) return {};
  const Result<FolderChain> known = KnownFolders(*options_.store, repository_id, options_.host_id);
  if (!known) return DamagedStorageRefusal(repository_id, known.error());
  FolderChain part;
  for (const std::string& path : paths) part.merge(SubChain(*known, options_.roots, path));
  return CheckWithTimeout(repository_id, part, use);
}

Result<void, Refusal> StorageWatch::CheckRoom(const std::string& repository_id, const std::set<std::string>& paths) {
  SpaceLimits limits;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return {};
    const Result<SpaceLimits> own = LimitsOf(**snapshot, repository_id, options_.limits);
    if (!own) return {};
    limits = *own;
  }
  if (limits.full_percent == 0 || repository_id.empty()) return {};
  std::set<std::string> folders;
  for (const std::string& path : paths) folders.insert(path.substr(0, path.rfind('/')));
  for (const std::string& folder : folders) {
    const auto conditions = std::make_shared<std::vector<FolderCondition>>();
    BoundedCalls::Call call = calls_.Begin(repository_id + "/room", [conditions, folder] {
      *conditions = ProbeFolders({folder});
      // A new repository's folder is made with its first file.
      if (conditions->empty()) *conditions = ProbeFolders({folder.substr(0, folder.rfind('/'))});
    });
    if (!call.Wait()) return NotRespondingRefusal(repository_id);
    for (const FolderCondition& condition : *conditions) {
      const std::optional<std::string> why = WhyFull(condition, limits);
      if (!why) continue;
      return Refusal{host_error::kUnavailable, "The repository " + Quoted(repository_id) + " is full: " + *why +
                                                   ". Make room in it, or use another repository"};
    }
  }
  return {};
}

Result<void, Refusal> StorageWatch::CheckStoredFolders(const std::string& repository_id, const FolderChain& stored,
                                                       StorageUse use) {
  return CheckWithTimeout(repository_id, stored, use);
}

}  // namespace vexa::storage
