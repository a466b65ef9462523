// Undoes an edit that touched files. It repeats the checks of the edit, because files may have other users by now.
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "host/base/log_text.h"
#include "host/guests/edit/edit_job.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::DashCate;

}  // namespace

Refused EditJob::RefuseStorage() const {
  if (files_ && !files_->removed.empty()) {
    const std::vector<std::string> paths = PathsOf(files_->removed);
    if (Refused storage = job_.RefuseStorage(files_->repository_id, paths, StorageUse::kExisting)) return storage;
  }
  return job_.RefuseTrail();
}

EditJob::Outcome EditJob::Undo(const Refusal& refusal, Outcome outcome) {
  refusal_ = refusal;
  cluster::RequestScope::ReleaseSnapshot();
  const bool is_undone = job_.Undo(RefuseStorage(), refusal_, [this] { return UndoFiles(); });
  return is_undone ? outcome : Outcome::kRefused;
}

// An image that must stay grown for now does not prevent undoing everything else.
Status EditJob::UndoFiles() {
  const Status shrunk = UndoGrown();
  if (!shrunk && !IsCode(shrunk, ErrorCode::kUnavailable)) return shrunk;
  if (Status shown = job_.ShowAll(FileJob::Order::kBackwards); !shown) return shown;
  if (Status removed = job_.UnmakeAll(); !removed) return removed;
  if (Status synced = job_.SyncAll("sync undone"); !synced) return synced;
  return shrunk;
}

// kUnavailable: the guest runs, or that is unknown, so the image stays grown until the next attempt.
Status EditJob::UndoGrown() {
  std::optional<std::set<std::string>> own_disks;
  std::optional<Refused> active;
  const std::vector<Growth>& grown = job_.record().files.grown;
  for (std::size_t i = grown.size(); i-- > 0;) {
    const Growth& growth = grown[i];
    job_.Step("shrink", i);
    const auto state = StateOf(job_.disk_files(), growth);
    if (state && *state == GrowthState::kBefore) continue;
    if (!active) active = job_.RefuseActive();
    if (state && *active) {
      return Error(ErrorCode::kUnavailable, "The image '" + cluster::ShownPath(growth.path) + "' stays grown for now",
                   (*active)->reason);
    }
    if (!own_disks) {
      auto own = OwnDisks();
      if (!own) return own.error();
      own_disks = std::move(*own);
    }
    const Status shrunk = Shrink(growth, *own_disks);
    // It was changed or removed meanwhile, or is in use: it must not be touched.
    const bool is_left = IsCode(shrunk, ErrorCode::kConflict) || IsCode(shrunk, ErrorCode::kNotFound) ||
                         IsCode(shrunk, ErrorCode::kBusy);
    if (is_left) {
      job_.LogFailure("A file is left as it is: " + shrunk.error().ToString());
    } else if (!shrunk) {
      return shrunk;
    }
  }
  return {};
}

Status EditJob::Shrink(const Growth& growth, const std::set<std::string>& own_disks) {
  const Result<SoughtFile> sought = job_.Seek(growth.path);
  if (!sought) return sought.error();
  const Result<bool> is_named = job_.AreNamed({{growth.path, *sought}}, job_.Question(own_disks));
  if (!is_named) return Error(ErrorCode::kInternal, is_named.error().ToString());
  if (*is_named) {
    return Error(ErrorCode::kConflict,
                 "Another record names the image '" + cluster::ShownPath(growth.path) + "' by now");
  }
  return UndoGrowth(job_.disk_files(), growth);
}

// The disks that the guest lists and whose records name the guest.
Result<std::set<std::string>> EditJob::OwnDisks() const {
  std::set<std::string> own;
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  const auto guest = cluster::LoadObject(**snapshot, GuestObjectKey(guest_id_));
  if (!guest && guest.error().code() != ErrorCode::kCorrupt) return guest.error();
  if (!guest) return own;
  for (const Json::Value& id : json::Elements(json::Member(guest->record, keys::vdisks))) {
    if (!id.isString()) continue;
    const auto disk = cluster::LoadObject(
        **snapshot, store::MakeKey({"dash", DashCate::vDisk.name(), json::String(id), keys::object}));
    if (!disk && disk.error().code() != ErrorCode::kCorrupt) return disk.error();
    if (!disk) continue;
    const Json::Value& owner = json::Member(disk->record, keys::guest_id);
    if (owner.isString() && json::String(owner) == guest_id_) own.insert(json::String(id));
  }
  return own;
}

}  // namespace vexa::guests
