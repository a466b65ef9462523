// Undoes an edit that touched files. It repeats the checks of the edit, because files may have other users by now.
#include <algorithm>
#include <map>
#include <set>
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

bool IsCode(const Status& status, ErrorCode code) { return !status && status.error().code() == code; }

}  // namespace

Refused EditJob::RefuseStorage() const {
  if (!options_.storage) return std::nullopt;
  if (files_ && !files_->removed.empty()) {
    std::vector<std::string> paths;
    for (const NamedFile& file : files_->removed) paths.push_back(file.path);
    if (Refused storage = options_.storage->Refuse(files_->repository_id, paths, StorageUse::kExisting)) return storage;
  }
  return options_.storage->RefuseTrail(record_.repository_id, record_.storage, StorageUse::kExisting);
}

EditJob::Outcome EditJob::Undo(const Refusal& refusal, Outcome outcome) {
  refusal_ = refusal;
  cluster::RequestScope::ReleaseSnapshot();
  const Refused storage = RefuseStorage();
  Status undone = storage ? Status(Error(ErrorCode::kUnavailable, storage->reason)) : UndoFiles();
  if (undone) undone = RemoveRecord("commit undo");
  if (undone) return outcome;
  const std::string more = "What was done could not be undone, which is tried again: " + undone.error().ToString();
  LogFailure(more);
  refusal_.reason += ". " + more;
  return Outcome::kRefused;
}

// An image that must stay grown for now does not prevent undoing everything else.
Status EditJob::UndoFiles() {
  const Status shrunk = UndoGrown();
  if (!shrunk && !IsCode(shrunk, ErrorCode::kUnavailable)) return shrunk;
  if (Status shown = ShowAll(); !shown) return shown;
  if (Status removed = UndoMade(); !removed) return removed;
  if (Status synced = SyncAll("sync undone"); !synced) return synced;
  return shrunk;
}

// kUnavailable: the guest runs, or that is unknown, so the image stays grown until the next attempt.
Status EditJob::UndoGrown() {
  std::optional<std::set<std::string>> own_disks;
  std::optional<Refused> active;
  for (std::size_t i = record_.grown.size(); i-- > 0;) {
    const Growth& growth = record_.grown[i];
    Step("shrink", i);
    const auto state = StateOf(disk_files_, growth);
    if (state && *state == GrowthState::kBefore) continue;
    if (!active) active = options_.refuse_active ? options_.refuse_active(guest_id_) : Refused();
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
      LogFailure("A file is left as it is: " + shrunk.error().ToString());
    } else if (!shrunk) {
      return shrunk;
    }
  }
  return {};
}

Status EditJob::Shrink(const Growth& growth, const std::set<std::string>& own_disks) {
  const auto look = disk_files_.Examine(growth.path);
  if (!look) return look.error();
  const Result<bool> is_named = IsNamedByOthers({{growth.path, SoughtFile{look->identity, ""}}}, own_disks);
  if (!is_named) return Error(ErrorCode::kInternal, is_named.error().ToString());
  if (*is_named) {
    return Error(ErrorCode::kConflict,
                 "Another record names the image '" + cluster::ShownPath(growth.path) + "' by now");
  }
  return UndoGrowth(disk_files_, growth);
}

Status EditJob::ShowAll() {
  for (std::size_t i = record_.hidden.size(); i-- > 0;) {
    const auto& [path, hidden] = record_.hidden[i];
    Step("show", i);
    const Status shown = disk_files_.Show(path, hidden);
    if (shown || IsCode(shown, ErrorCode::kNotFound)) continue;
    if (!IsCode(shown, ErrorCode::kConflict)) return shown;
    LogFailure("There are both [" + cluster::ShownPath(path) + "] and [" + hidden + "] beside it; both are left");
  }
  return {};
}

// The guest's own records do not name a file that was created, because they are as before.
Status EditJob::UndoMade() {
  std::map<std::string, SoughtFile> files;
  for (const std::string& path : record_.made) {
    const auto look = disk_files_.Examine(path);
    if (!look) return look.error();
    if (look->kind == DiskFiles::Kind::kRegular) files.emplace(path, SoughtFile{look->identity, ""});
  }
  FileQuestion question;
  question.host_id = options_.host_id;
  const auto named = FindFileUsers(*options_.store, question, files);
  if (!named) return named.error();
  for (std::size_t i = record_.made.size(); i-- > 0;) {
    const std::string& path = record_.made[i];
    Step("unmake", i);
    if (const auto user = named->find(path); user != named->end()) {
      LogFailure("The new file [" + cluster::ShownPath(path) + "] is left: " + Describe(user->second));
      continue;
    }
    const Status removed = disk_files_.Remove(path);
    if (!removed && !IsCode(removed, ErrorCode::kNotFound)) return removed;
  }
  return {};
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
