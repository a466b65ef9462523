#include "host/guests/storage_watch.h"

#include <syslog.h>

#include <utility>

#include "host/cluster/log_text.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kShown = 128;
constexpr char kNoAnswer[] = "it does not answer";

std::string Quoted(const std::string& text) { return "'" + cluster::LogText(text, kShown) + "'"; }

std::string WhatIsWrong(const std::string& repository, const std::string& reason) {
  const std::string storage = "The storage of the repository " + Quoted(repository);
  return reason == kNoAnswer ? storage + " does not answer" : storage + " is not mounted: " + reason;
}

Refused Unavailable(const std::string& repository_id, const TrailCheck& check, StorageUse use) {
  using Outcome = TrailCheck::Outcome;
  const bool is_refused =
      check.outcome == Outcome::kNotMounted || (check.outcome == Outcome::kFolderGone && use == StorageUse::kNew);
  if (!is_refused) return std::nullopt;
  return Refusal{kUnavailable, WhatIsWrong(repository_id, check.reason) +
                                   ". Mount it or, when it was replaced for good, run 'vexa repository accept " +
                                   cluster::LogText(repository_id, kShown) + "'"};
}

Refusal NoAnswer(const std::string& repository_id) {
  return {kUnavailable, WhatIsWrong(repository_id, kNoAnswer) + ". Try again once it does"};
}

Refused RefuseDamaged(const std::string& repository_id, const Error& error) {
  return Refusal{kUnavailable, "What is known of the storage of the repository " + Quoted(repository_id) +
                                   " cannot be read (" + error.ToString() + ")"};
}

}  // namespace

// A question under way, with a place for its answer that outlives the watch.
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
  StorageQuestion question{options_.roots, {}, paths, repository_id};
  // What another host knew is about its own folders.
  if (storage.host_id == options_.host_id) question.known = storage.folders;
  auto answer = std::make_shared<StorageAnswer>();
  BoundedCalls::Call call = calls_.Begin(
      repository_id, [answer, ask = options_.ask, question = std::move(question)] { *answer = ask(question); });
  return {repository_id, name, storage, std::move(answer), std::move(call)};
}

void StorageWatch::Take(Asked& asked) {
  StorageNews news;
  news.seen = asked.storage.revision;
  const bool has_answered = asked.call.Wait();
  if (is_stopped_) return;
  if (!has_answered) {
    news.trouble = StorageTrouble{{}, kNoAnswer, options_.now()};
    for (const auto& [folder, identity] : asked.storage.folders) news.used.insert(folder);
  } else {
    const TrailCheck& check = asked.answer->check;
    news.learned = asked.answer->learned;
    news.used = asked.answer->used;
    if (check.outcome == TrailCheck::Outcome::kNotMounted) {
      news.trouble = StorageTrouble{check.folders, check.reason, options_.now()};
    }
  }
  const Result<StorageChange> change = UpdateStorage(*options_.store, asked.repository_id, options_.host_id, news);
  if (!change) return Complain(asked.repository_id, change.error().ToString());
  complaints_.erase(asked.repository_id);
  Log(asked.repository_id, asked.name, *change);
}

void StorageWatch::Log(const std::string& repository_id, const std::string& name, const StorageChange& change) const {
  const std::string& shown = name.empty() ? repository_id : name;
  const auto& before = change.before.trouble;
  const auto& after = change.after.trouble;
  if (after && (!before || before->reason != after->reason)) {
    ::syslog(LOG_ERR, "%s.", WhatIsWrong(shown, after->reason).c_str());
  } else if (before && !after) {
    ::syslog(LOG_NOTICE, "The storage of the repository %s can be used again.", Quoted(shown).c_str());
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
  const Result<const FilesByRepository::Paths*> files = files_.Find(*options_.store);
  if (!files) return Complain("", files.error().ToString());
  std::vector<Asked> all;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return Complain("", snapshot.error().ToString());
    const auto repositories = RepositoriesOf(**snapshot, options_.host_id);
    if (!repositories) return Complain("", repositories.error().ToString());
    std::erase_if(complaints_, [&](const auto& one) { return !repositories->contains(one.first); });
    for (const auto& [id, name] : *repositories) {
      const Result<Storage> storage = ReadStorage(**snapshot, id);
      if (!storage) {
        Complain(id, storage.error().ToString());
        continue;
      }
      const auto paths = (*files)->find(id);
      all.push_back(Begin(id, name, *storage, paths == (*files)->end() ? std::vector<std::string>() : paths->second));
    }
  }
  for (Asked& asked : all) Take(asked);
}

Refused StorageWatch::CheckWithin(const std::string& repository_id, const Trail& part, StorageUse use) {
  if (part.empty()) return std::nullopt;
  const auto answer = std::make_shared<TrailCheck>();
  BoundedCalls::Call call =
      calls_.Begin(repository_id, [answer, part, check = options_.check] { *answer = check(part); });
  if (!call.Wait()) return NoAnswer(repository_id);
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
