#include "host/guests/deletion/leftovers.h"

#include <syslog.h>

#include "host/base/log_text.h"
#include "host/guests/deletion/deletion_plan.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/guests/jobs/file_job.h"
#include "host/guests/jobs/job_record.h"
#include "host/records/object_edit.h"
#include "host/store/key.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kShownReason = 1024;

void LogNote(const std::string& guest_id, const std::string& sentence) {
  ::syslog(LOG_WARNING, "Deleted guest[%s]: %s.", cluster::LogText(guest_id, kShownId).c_str(),
           cluster::LogText(sentence, kShownReason).c_str());
}

// The leftovers of one guest.
class Leftover {
 public:
  Leftover(const DeletionOptions& options, std::string guest_id)
      : options_(options), guest_id_(std::move(guest_id)), disk_files_(options.image_roots, options.file_calls) {}

  Status Remove() {
    const Result<StoredLeftover> stored = ReadStored();
    if (!stored) return stored.error();
    if (stored->revision == 0) return {};
    if (!stored->paths) return Error(ErrorCode::kCorrupt, "the record of them is damaged and is left as it is");
    if (options_.storage) {
      const Refused storage = options_.storage->Refuse(stored->repository_id, *stored->paths, StorageUse::kExisting);
      if (storage) return Error(ErrorCode::kUnavailable, storage->reason);
    }
    DeletionPlan plan;
    for (const std::string& path : *stored->paths) plan.files.push_back({plan.files.size(), path});
    const Result<store::Revision> searched = FilesRevision(*options_.store);
    if (!searched) return searched.error();
    const Result<Selection> selection = Select(plan);
    if (!selection) return selection.error();
    const Status removed = RemoveFiles(selection->files, *searched);
    if (!removed) return removed;
    const Status ended = RemoveKey(stored->revision);
    if (!ended) return ended;
    for (const std::string& note : selection->notes) LogNote(guest_id_, note);
    return {};
  }

 private:
  void Step(const std::string& step) const {
    if (options_.before_step) options_.before_step("leftover " + step);
  }

  // A guest that names one of the files by now is another guest, even under the same id. The search is repeated when a
  // record has come to name a file meanwhile; see RemoveFiles.
  Result<Selection> Select(const DeletionPlan& plan) const {
    FileQuestion question;
    question.host_id = options_.host_id;
    cluster::RequestScope::ReleaseSnapshot();
    return SelectFiles(guest_id_, plan.files, plan.images, question, disk_files_, *options_.store);
  }

  Result<StoredLeftover> ReadStored() const {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    return ReadLeftover(**snapshot, options_.host_id, guest_id_);
  }

  // `searched`: FilesKey()'s revision from before the search for users of the files. It is checked before each file,
  // because removing a large one takes seconds.
  Status RemoveFiles(const std::vector<HiddenFile>& files, store::Revision searched) const {
    Status first_failure;
    for (std::size_t i = 0; i < files.size(); ++i) {
      Step("remove " + std::to_string(i));
      const Result<store::Revision> now = FilesRevision(*options_.store);
      if (!now) return now.error();
      if (*now != searched) return Error(ErrorCode::kBusy, "other records have come to name files");
      const Status removed = disk_files_.Remove(files[i].path);
      if (!removed && removed.error().code() != ErrorCode::kNotFound && first_failure) first_failure = removed;
    }
    const Status synced =
        SyncFolders(disk_files_, PathsOf(files), [&](std::size_t index) { Step("sync " + std::to_string(index)); });
    return synced ? first_failure : synced;
  }

  // A key that was written again meanwhile stays for the next time.
  Status RemoveKey(store::Revision revision) const {
    const std::string key = LeftoverKey(options_.host_id, guest_id_);
    Step("commit end");
    cluster::RequestScope::ReleaseSnapshot();
    const auto committed = options_.store->Commit({{{key, revision}}, {{key, std::nullopt}}});
    if (!committed && committed.error().code() != ErrorCode::kConflict) return committed.error();
    return {};
  }

  const DeletionOptions& options_;
  const std::string guest_id_;
  const DiskFiles disk_files_;
};

Result<std::vector<std::string>> ReadGuestIds(const DeletionOptions& options) {
  const auto snapshot = options.store->Read();
  if (!snapshot) return snapshot.error();
  return (*snapshot)->Children(store::MakeKey({"leftover", options.host_id}));
}

}  // namespace

std::map<std::string, std::string> RemoveLeftovers(const DeletionOptions& options) {
  std::map<std::string, std::string> in_the_way;
  const auto ids = ReadGuestIds(options);
  if (!ids) return {{"", ids.error().ToString()}};
  for (const std::string& id : *ids) {
    const Status removed = Leftover(options, id).Remove();
    if (!removed) in_the_way.emplace(id, removed.error().ToString());
  }
  return in_the_way;
}

}  // namespace vexa::guests
