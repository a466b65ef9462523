#include "host/storage/storage_watch.h"

#include <syslog.h>

#include <utility>

#include "host/base/log_text.h"
#include "host/records/run_record.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kShown = 128;
constexpr char kNoAnswer[] = "it does not answer";

std::string Quoted(const std::string& text) { return "'" + cluster::LogText(text, kShown) + "'"; }

namespace states = VexaCCC::State::Repo;

// How long the files of a repository are checked in one pass; the rest waits for the next one.
constexpr std::chrono::seconds kTimeForFiles{2};

// A sentence without its end.
std::string WhatIsWrong(const std::string& repository, const std::string& state, const std::string& reason) {
  const std::string storage = "The storage of the repository " + Quoted(repository);
  if (reason == kNoAnswer) return storage + " does not answer";
  if (state == states::crashed) return storage + " fails: " + reason;
  if (state == states::full) return storage + " is full: " + reason;
  if (state == states::degraded) return storage + " cannot be written: " + reason;
  if (state == states::provision_warning) return storage + " runs out of space: " + reason;
  return storage + " is not mounted: " + reason;
}

const char* StateOf(const TrailCheck& check) {
  return IsFailure(check.error_number) ? states::crashed : states::unavailable;
}

bool IsWarning(const std::string& state) { return state == states::degraded || state == states::provision_warning; }

Refused Unavailable(const std::string& repository_id, const TrailCheck& check, StorageUse use) {
  using Outcome = TrailCheck::Outcome;
  const bool is_refused =
      check.outcome == Outcome::kNotMounted || (check.outcome == Outcome::kFolderGone && use == StorageUse::kNew);
  if (!is_refused) return std::nullopt;
  const std::string wrong = WhatIsWrong(repository_id, StateOf(check), check.reason);
  if (IsFailure(check.error_number)) return Refusal{kUnavailable, wrong + ". Repair it and try again"};
  return Refusal{kUnavailable, wrong + ". Mount it or, when it was replaced for good, run 'vexa repository accept " +
                                   cluster::LogText(repository_id, kShown) + "'"};
}

Refusal NoAnswerRefusal(const std::string& repository_id) {
  return {kUnavailable, WhatIsWrong(repository_id, states::unavailable, kNoAnswer) + ". Try again once it does"};
}

Refused RefuseDamaged(const std::string& repository_id, const Error& error) {
  return Refusal{kUnavailable, "The stored state of the storage of the repository " + Quoted(repository_id) +
                                   " cannot be read (" + error.ToString() + ")"};
}

}  // namespace

// A question in progress, with a place for its answer that outlives the watch.
struct StorageWatch::Asked {
  std::string repository_id;
  std::string name;
  Storage storage;
  std::shared_ptr<StorageAnswer> answer;
  BoundedCalls::Call call;
};

StorageWatch::StorageWatch(StorageOptions options) : options_(std::move(options)), calls_(options_.deadline) {}

void StorageWatch::Stop() {
  is_stopped_ = true;
  calls_.Stop();
}

StorageWatch::Asked StorageWatch::Begin(const std::string& repository_id, const std::string& name,
                                        const Storage& storage, const std::vector<std::string>& paths) {
  const bool is_needed = options_.files == StorageOptions::Files::kNeeded;
  StorageQuestion question{
      options_.roots, {}, paths, repository_id, is_needed ? UnlearnedRoots::kMissing : UnlearnedRoots::kIgnored};
  // Another host's knowledge is about its own folders.
  if (storage.host_id == options_.host_id) question.known = storage.folders;
  auto answer = std::make_shared<StorageAnswer>();
  BoundedCalls::Call call = calls_.Begin(
      repository_id, [answer, ask = options_.ask, question = std::move(question)] { *answer = ask(question); });
  return {repository_id, name, storage, std::move(answer), std::move(call)};
}

std::optional<StorageTrouble> StorageWatch::TroubleIn(Asked& asked) const {
  const TrailCheck& check = asked.answer->check;
  std::optional<StorageTrouble> trouble;
  if (check.outcome == TrailCheck::Outcome::kNotMounted) {
    trouble = StorageTrouble{check.folders, check.reason, {}, StateOf(check)};
  } else {
    const auto& before = asked.storage.trouble;
    trouble = WorstTrouble(asked.answer->conditions, options_.limits, before ? before->state : "");
  }
  if (trouble) trouble->since = options_.now();
  return trouble;
}

std::string StorageWatch::Take(Asked& asked) {
  StorageNews news;
  news.seen = asked.storage.revision;
  const bool has_answered = asked.call.Wait();
  if (is_stopped_) return "";
  if (!has_answered) {
    news.trouble = StorageTrouble{{}, kNoAnswer, options_.now()};
    for (const auto& [folder, identity] : asked.storage.folders) news.used.insert(folder);
  } else {
    news.learned = asked.answer->learned;
    news.used = asked.answer->used;
    news.trouble = TroubleIn(asked);
  }
  const Result<StorageChange> change = UpdateStorage(*options_.store, asked.repository_id, options_.host_id, news);
  if (!change) {
    Complain(asked.repository_id, change.error().ToString());
    return "";
  }
  complaints_.erase(asked.repository_id);
  Log(asked.repository_id, asked.name, *change);
  return change->state;
}

// A check of the files of a repository's disks, with a place for its results that outlives the watch.
struct StorageWatch::Checked {
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

StorageWatch::Checked StorageWatch::BeginFiles(const std::string& repository_id, const std::string& state,
                                               const std::vector<DiskFile>& disks) {
  Checked checked{repository_id, state, &disks, std::make_shared<std::vector<Checked::Found>>(), std::nullopt};
  DiskStates& known = disks_[repository_id];
  if (options_.files == StorageOptions::Files::kNotNeeded) {
    for (const DiskFile& disk : disks) known.Take(disk.id, FileState::kFine);
    return checked;
  }
  // What exists in place of missing storage means nothing.
  if (state == states::unavailable || state == states::crashed || state == states::inaccessible) return checked;
  std::vector<DiskFile> chosen = known.Choose(disks, RunningGuests());
  if (chosen.empty()) return checked;
  const auto look = [found = checked.found, look_at = options_.look, chosen = std::move(chosen)] {
    const auto end = std::chrono::steady_clock::now() + kTimeForFiles;
    for (const DiskFile& disk : chosen) {
      found->push_back({disk.id, look_at(disk)});
      if (std::chrono::steady_clock::now() >= end) return;
    }
  };
  checked.call = calls_.Begin(repository_id + "/files", look);
  return checked;
}

void StorageWatch::TakeFiles(Checked& checked) {
  // Without an answer the files count as unchanged; the repository's own state will show it soon.
  if (checked.call && checked.call->Wait()) {
    for (const auto& [disk_id, state] : *checked.found) disks_[checked.repository_id].Take(disk_id, state);
  }
  if (is_stopped_) return;
  const Status written = disks_[checked.repository_id].Write(*options_.store, *checked.disks, checked.state);
  if (!written) Complain(checked.repository_id, written.error().ToString());
}

std::set<std::string> StorageWatch::RunningGuests() const {
  std::set<std::string> ids;
  if (const auto runs = RunsOf(*options_.store, options_.host_id)) {
    for (const auto& [id, stored] : *runs) {
      if (!stored.run.saved) ids.insert(id);
    }
  }
  return ids;
}

void StorageWatch::Log(const std::string& repository_id, const std::string& name, const StorageChange& change) const {
  const std::string& shown = name.empty() ? repository_id : name;
  const auto& before = change.before.trouble;
  const auto& after = change.after.trouble;
  if (after && (!before || before->state != after->state || before->reason != after->reason)) {
    const int priority = IsWarning(after->state) ? LOG_WARNING : LOG_ERR;
    ::syslog(priority, "%s.", WhatIsWrong(shown, after->state, after->reason).c_str());
  } else if (before && !after) {
    const char* const what = IsWarning(before->state) ? "is in order again" : "can be used again";
    ::syslog(LOG_NOTICE, "The storage of the repository %s %s.", Quoted(shown).c_str(), what);
  }
}

void StorageWatch::Complain(const std::string& about, const std::string& what) {
  std::string& last = complaints_[about];
  if (last == what) return;
  last = what;
  const std::string storage = about.empty() ? "repositories" : "the repository " + Quoted(about);
  ::syslog(LOG_ERR, "The storage of %s cannot be checked: %s.", storage.c_str(), what.c_str());
}

void StorageWatch::Refresh() {
  const std::lock_guard refreshing(refreshing_);
  const Result<const FilesByRepository::Files*> files = files_.Find(*options_.store);
  if (!files) return Complain("", files.error().ToString());
  static const RepositoryFiles kNone;
  const auto files_of = [&](const std::string& id) -> const RepositoryFiles& {
    const auto found = (*files)->find(id);
    return found == (*files)->end() ? kNone : found->second;
  };
  std::vector<Asked> all;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return Complain("", snapshot.error().ToString());
    const auto repositories = RepositoriesOf(**snapshot, options_.host_id);
    if (!repositories) return Complain("", repositories.error().ToString());
    std::erase_if(complaints_, [&](const auto& one) { return !repositories->contains(one.first); });
    std::erase_if(disks_, [&](const auto& one) { return !repositories->contains(one.first); });
    for (const auto& [id, name] : *repositories) {
      const Result<Storage> storage = ReadStorage(**snapshot, id);
      if (!storage) {
        Complain(id, storage.error().ToString());
        continue;
      }
      all.push_back(Begin(id, name, *storage, files_of(id).paths));
    }
  }
  std::vector<Checked> checked;
  for (Asked& asked : all) {
    const std::string state = Take(asked);
    if (is_stopped_) return;
    if (!state.empty()) checked.push_back(BeginFiles(asked.repository_id, state, files_of(asked.repository_id).disks));
  }
  for (Checked& one : checked) TakeFiles(one);
}

Refused StorageWatch::RefuseStart(const std::string& repository_id) const {
  if (repository_id.empty()) return std::nullopt;
  const auto snapshot = options_.store->Read();
  if (!snapshot) return std::nullopt;
  const Result<Storage> storage = ReadStorage(**snapshot, repository_id);
  if (!storage || !storage->trouble || storage->host_id != options_.host_id) return std::nullopt;
  const StorageTrouble& trouble = *storage->trouble;
  const std::string wrong = WhatIsWrong(repository_id, trouble.state, trouble.reason);
  if (trouble.state == states::full) {
    return Refusal{kUnavailable, wrong + ". Make room in it, or move disks to another repository, and try again"};
  }
  // Intentional: read-only does not refuse. This process may see another mount than a libvirt elsewhere.
  return std::nullopt;
}

Refused StorageWatch::CheckWithin(const std::string& repository_id, const Trail& part, StorageUse use) {
  if (part.empty()) return std::nullopt;
  const auto answer = std::make_shared<TrailCheck>();
  BoundedCalls::Call call =
      calls_.Begin(repository_id, [answer, part, check = options_.check] { *answer = check(part); });
  if (!call.Wait()) return NoAnswerRefusal(repository_id);
  return Unavailable(repository_id, *answer, use);
}

Refused StorageWatch::Refuse(const std::string& repository_id, const std::vector<std::string>& paths, StorageUse use) {
  if (repository_id.empty()) return std::nullopt;
  const Result<Trail> known = KnownFolders(*options_.store, repository_id, options_.host_id);
  if (!known) return RefuseDamaged(repository_id, known.error());
  Trail part;
  for (const std::string& path : paths) part.merge(PartOf(*known, options_.roots, path));
  return CheckWithin(repository_id, part, use);
}

Refused StorageWatch::RefuseTrail(const std::string& repository_id, const Trail& remembered, StorageUse use) {
  return CheckWithin(repository_id, remembered, use);
}

}  // namespace vexa::guests
