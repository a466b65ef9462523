// Undoes an edit that has changed files. Repeats the checks of the edit, because files may have other referrers by now.
#include <fmt/format.h>

#include <optional>
#include <set>
#include <string>
#include <utility>

#include "host/base/sanitize_for_log.h"
#include "host/guests/edit/edit_job.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::DashCate;

}  // namespace

Result<void, Refusal> EditJob::CheckStorage() const {
  if (files_ && !files_->removed.empty()) {
    const std::vector<std::string> paths = PathsOf(files_->removed);
    if (const auto allowed = job_.CheckStorage(files_->repository_id, paths, storage::StorageUse::kExisting);
        !allowed.ok())
      return allowed;
  }
  return job_.CheckStoredFolders();
}

EditJob::Outcome EditJob::Undo(const Refusal& refusal, Outcome outcome) {
  refusal_ = refusal;
  const bool is_undone = job_.Undo(CheckStorage(), refusal_, [this] { return UndoFiles(); });
  return is_undone ? outcome : Outcome::kRefused;
}

// Undoes everything else even when an image cannot be shrunk back yet.
Status EditJob::UndoFiles() {
  const Status shrunk = UndoGrown();
  if (!shrunk && !HasErrorCode(shrunk, ErrorCode::kUnavailable)) return shrunk;
  if (Status shown = job_.RestoreNames(FileJob::Order::kBackwards); !shown) return shown;
  if (Status removed = job_.RemoveCreated(); !removed) return removed;
  if (Status synced = job_.SyncAll("sync undone"); !synced) return synced;
  if (!shrunk) return shrunk;
  return UndoRecords();
}

// kUnavailable: the guest runs, or that is unknown, so the image is shrunk back at the next attempt.
Status EditJob::UndoGrown() {
  std::optional<std::set<std::string>> own_disks;
  std::optional<Result<void, Refusal>> not_running;
  const std::vector<disks::Growth>& grown = job_.record().files.grown;
  for (std::size_t i = grown.size(); i-- > 0;) {
    const disks::Growth& growth = grown[i];
    job_.BeforeStep("shrink", i);
    const auto state = disks::StateOf(job_.disk_files(), growth);
    if (state && *state == disks::GrowthState::kBefore) continue;
    if (!not_running) not_running = job_.CheckNotRunning();
    if (state && !not_running->ok()) {
      return Error(ErrorCode::kUnavailable,
                   fmt::format("The image '{}' was not shrunk back yet", SanitizePathForLog(growth.path)),
                   not_running->error().reason);
    }
    if (!own_disks) {
      auto own = OwnDisks();
      if (!own) return own.error();
      own_disks = std::move(*own);
    }
    const Status shrunk = Shrink(growth, *own_disks);
    // The file was changed or removed meanwhile, or is in use, so it must not be touched.
    const bool stays_grown = HasErrorCode(shrunk, ErrorCode::kConflict) || HasErrorCode(shrunk, ErrorCode::kNotFound) ||
                             HasErrorCode(shrunk, ErrorCode::kBusy);
    if (stays_grown) {
      job_.LogFailure(fmt::format("A file was left unchanged: {}", shrunk.error().ToString()));
    } else if (!shrunk) {
      return shrunk;
    }
  }
  return {};
}

Status EditJob::Shrink(const disks::Growth& growth, const std::set<std::string>& own_disks) {
  const Result<disks::QueriedFile> queried = job_.QueryFile(growth.path);
  if (!queried) return queried.error();
  const Result<bool> is_referenced = job_.AreReferenced({{growth.path, *queried}}, job_.MakeReferrerQuery(own_disks));
  if (!is_referenced) return Error(ErrorCode::kInternal, is_referenced.error().ToString());
  if (*is_referenced) {
    return Error(ErrorCode::kConflict,
                 fmt::format("Another record refers to the image '{}' by now", SanitizePathForLog(growth.path)));
  }
  return disks::UndoGrowth(job_.disk_files(), growth);
}

// The disks that the guest lists and whose records name the guest.
Result<std::set<std::string>> EditJob::OwnDisks() const {
  std::set<std::string> own;
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  const auto guest = records::LoadObject(**snapshot, records::GuestObjectKey(guest_id_));
  if (!guest && guest.error().code() != ErrorCode::kCorrupt) return guest.error();
  if (!guest) return own;
  for (const Json::Value& id : json::Elements(json::Member(guest->record, keys::vdisks))) {
    if (!id.isString()) continue;
    const auto disk = records::LoadObject(**snapshot, records::ObjectKey(DashCate::vDisk.name(), json::String(id)));
    if (!disk && disk.error().code() != ErrorCode::kCorrupt) return disk.error();
    if (!disk) continue;
    const Json::Value& owner = json::Member(disk->record, keys::guest_id);
    if (owner.isString() && json::String(owner) == guest_id_) own.insert(json::String(id));
  }
  return own;
}

}  // namespace vexa::guests
