#include "host/guests/deletion/leftovers.h"

#include <syslog.h>

#include "host/base/sanitize_for_log.h"
#include "host/guests/deletion/deletion_plan.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/guests/jobs/file_job.h"
#include "host/guests/jobs/job_record.h"
#include "host/records/object_edit.h"
#include "host/store/key.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kMaxLoggedReasonBytes = 1024;

void LogNote(const std::string& guest_id, const std::string& sentence) {
  ::syslog(LOG_WARNING, "Deleted guest[%s]: %s.", SanitizeForLog(guest_id, kMaxLoggedIdBytes).c_str(),
           SanitizeForLog(sentence, kMaxLoggedReasonBytes).c_str());
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
    if (!stored->paths) return Error(ErrorCode::kCorrupt, "the record of them is damaged and was left unchanged");
    // The guest still runs, or is saved, with disks that were removed from it.
    if (options_.has_file_in_machine && options_.has_file_in_machine(guest_id_, *stored->paths)) return {};
    if (options_.storage) {
      const auto storage =
          options_.storage->CheckFolders(stored->repository_id, *stored->paths, storage::StorageUse::kExisting);
      if (!storage.ok()) return Error(ErrorCode::kUnavailable, storage.error().reason);
    }
    DeletionPlan plan;
    for (const std::string& path : *stored->paths) plan.files.push_back({plan.files.size(), path});
    const Result<store::Revision> searched = disks::FileReferencesRevision(*options_.store);
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
  void BeforeStep(const std::string& step) const {
    if (options_.before_step) options_.before_step("leftover " + step);
  }

  // No referrer is excluded: a guest that refers to one of the files by now is another guest, even under the same id.
  // The next call searches again when a record has started to refer to a file meanwhile; see RemoveFiles.
  Result<Selection> Select(const DeletionPlan& plan) const {
    disks::FileReferrerQuery query;
    query.host_id = options_.host_id;
    return SelectFiles(guest_id_, plan.files, plan.images, query, disk_files_, *options_.store);
  }

  Result<StoredLeftover> ReadStored() const {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    return ReadLeftover(**snapshot, options_.host_id, guest_id_);
  }

  // `searched`: the revision of FileReferencesGuardKey() before the search for referrers of the files. It is compared
  // before each removal, because removing a large file takes seconds.
  Status RemoveFiles(const std::vector<HiddenFile>& files, store::Revision searched) const {
    Status first_failure;
    for (std::size_t i = 0; i < files.size(); ++i) {
      BeforeStep("remove " + std::to_string(i));
      const Result<store::Revision> now = disks::FileReferencesRevision(*options_.store);
      if (!now) return now.error();
      if (*now != searched) return Error(ErrorCode::kBusy, "other records have started to refer to files");
      const Status removed = disk_files_.Remove(files[i].path);
      if (!removed && removed.error().code() != ErrorCode::kNotFound && first_failure) first_failure = removed;
    }
    const Status synced = SyncFolders(disk_files_, PathsOf(files),
                                      [&](std::size_t index) { BeforeStep("sync " + std::to_string(index)); });
    return synced ? first_failure : synced;
  }

  // A key that was written again meanwhile stays until the next call.
  Status RemoveKey(store::Revision revision) const {
    const std::string key = LeftoverKey(options_.host_id, guest_id_);
    BeforeStep("commit end");
    const auto committed = options_.store->Commit({{{key, revision}}, {{key, std::nullopt}}});
    if (!committed && committed.error().code() != ErrorCode::kConflict) return committed.error();
    return {};
  }

  const DeletionOptions& options_;
  const std::string guest_id_;
  const disks::DiskFiles disk_files_;
};

Result<std::vector<std::string>> ReadGuestIds(const DeletionOptions& options) {
  const auto snapshot = options.store->Read();
  if (!snapshot) return snapshot.error();
  return (*snapshot)->Children(store::MakeKey({"leftover", options.host_id}));
}

}  // namespace

std::map<std::string, std::string> RemoveLeftovers(const DeletionOptions& options) {
  std::map<std::string, std::string> obstacles;
  const auto ids = ReadGuestIds(options);
  if (!ids) return {{"", ids.error().ToString()}};
  for (const std::string& id : *ids) {
    const Status removed = Leftover(options, id).Remove();
    if (!removed) obstacles.emplace(id, removed.error().ToString());
  }
  return obstacles;
}

}  // namespace vexa::guests
