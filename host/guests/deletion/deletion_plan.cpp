#include "host/guests/deletion/deletion_plan.h"

#include <map>

#include "host/base/json_parse.h"
#include "host/base/log_text.h"
#include "host/disks/disk_users.h"
#include "host/guests/jobs/job_record.h"
#include "host/records/keys.h"
#include "host/records/live_state.h"
#include "host/records/object_edit.h"
#include "host/records/repository_host.h"
#include "host/storage/storage_disks.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::DashCate;

bool IsText(const Json::Value& value, const std::string& text) {
  return value.isString() && json::String(value) == text;
}

Status RemoveAllOf(const store::Snapshot& snapshot, const DashCate& category, const std::string& id,
                   DeletionPlan& plan) {
  return snapshot.Scan(store::MakeKey({"dash", category.name(), id}),
                       [&](std::string_view key, const store::ValueView&) {
                         plan.removals.push_back({std::string(key), std::nullopt});
                         return true;
                       });
}

void RemoveLiveState(const std::string& guest_id, DeletionPlan& plan) {
  store::Transaction live;
  cluster::ForgetLiveState(live, guest_id);
  plan.removals.insert(plan.removals.end(), live.operations.begin(), live.operations.end());
}

void TakePath(const Json::Value& disk, std::size_t index, DeletionPlan& plan) {
  const Json::Value& path = json::Member(disk, kDiskPath);
  if (path.isString() && !json::String(path).empty()) {
    plan.files.push_back({index, json::String(path)});
  } else if (!path.isNull() && !path.isString()) {
    plan.notes.push_back("the path of its disk " + std::to_string(index) + " is no text; no file of it is removed");
  }
}

// One disk or interface that the guest lists.
Status TakeListed(const store::Snapshot& snapshot, const std::string& guest_id, const DashCate& category,
                  const std::string& id, std::size_t index, DeletionPlan& plan) {
  const std::string key = store::MakeKey({"dash", category.name(), id, keys::object});
  const Result<cluster::StoredObject> stored = cluster::LoadObject(snapshot, key);
  if (!stored && stored.error().code() != ErrorCode::kCorrupt) return stored.error();
  if (stored && stored->revision == 0) return {};
  if (!stored || !IsText(json::Member(stored->record, keys::guest_id), guest_id)) {
    plan.notes.push_back("it lists the " + std::string(category.name()) + " [" + cluster::LogText(id, kShownId) +
                         "], " + (stored ? "which is not its own" : "whose record is damaged") + " and is left");
    return {};
  }
  plan.compares.push_back({key, stored->revision});
  if (&category == &DashCate::vDisk) {
    plan.disks.insert(id);
    TakePath(stored->record, index, plan);
    // Includes a state that its host writes only after this was read.
    plan.removals.push_back({DiskStateKey(id), std::nullopt});
  }
  return RemoveAllOf(snapshot, category, id, plan);
}

void TakeNvram(const Json::Value& guest, DeletionPlan& plan) {
  const Json::Value& path = json::Member(guest, kNvramMember);
  if (path.isString() && !json::String(path).empty()) {
    plan.files.push_back({kNvramIndex, json::String(path)});
  } else if (!path.isNull() && !path.isString()) {
    plan.notes.emplace_back("the path of its UEFI variables is not a text; no file of them is removed");
  }
}

Status TakeAllListed(const store::Snapshot& snapshot, const std::string& guest_id, const Json::Value& list,
                     const DashCate& category, DeletionPlan& plan) {
  const Json::Value& elements = json::Elements(list);
  if (elements.size() > kMaxListed) {
    return Error(ErrorCode::kInvalid, "The guest's record names " + std::to_string(elements.size()) + " of the kind '" +
                                          category.name() + "', and at most " + std::to_string(kMaxListed) +
                                          " are deleted with a guest: repair the record");
  }
  std::set<std::string> taken;
  for (Json::ArrayIndex i = 0; i < elements.size(); ++i) {
    const Json::Value& id = json::Element(elements, i);
    if (!id.isString() || !taken.insert(json::String(id)).second) continue;
    const Status one = TakeListed(snapshot, guest_id, category, json::String(id), i, plan);
    if (!one) return one;
  }
  return {};
}

std::set<std::string> ImagesOf(const Json::Value& guest) {
  std::set<std::string> images;
  for (const Json::Value& image : json::Elements(json::Member(guest, keys::iso_images))) {
    if (!image.isString()) continue;
    if (std::optional<std::string> path = NormalPath(json::String(image))) images.insert(std::move(*path));
  }
  return images;
}

}  // namespace

Result<DeletionPlan> PlanDeletion(const store::Snapshot& snapshot, const std::string& guest_id) {
  const Result<cluster::StoredObject> guest = cluster::LoadObject(snapshot, GuestObjectKey(guest_id));
  if (!guest) return guest.error();
  if (guest->revision == 0) return Error(ErrorCode::kNotFound, "There is no such guest");
  DeletionPlan plan;
  plan.compares.push_back({GuestObjectKey(guest_id), guest->revision});
  Status taken = RemoveAllOf(snapshot, DashCate::Guest, guest_id, plan);
  if (!taken) return taken.error();
  taken = TakeAllListed(snapshot, guest_id, json::Member(guest->record, keys::vdisks), DashCate::vDisk, plan);
  if (!taken) return taken.error();
  taken = TakeAllListed(snapshot, guest_id, json::Member(guest->record, keys::vnics), DashCate::vNic, plan);
  if (!taken) return taken.error();
  TakeNvram(guest->record, plan);
  RemoveLiveState(guest_id, plan);
  Result<std::string> repository_host = RepositoryHost(snapshot, guest->record);
  if (!repository_host) return repository_host.error();
  plan.repository_host_id = std::move(*repository_host);
  const Json::Value& host_id = json::Member(guest->record, keys::host_id);
  const Json::Value& repository_id = json::Member(guest->record, keys::repository_id);
  if (host_id.isString()) plan.host_id = json::String(host_id);
  if (repository_id.isString()) plan.repository_id = json::String(repository_id);
  plan.images = ImagesOf(guest->record);
  return plan;
}

Result<DeletionPlan> PlanGoneGuest(const store::Snapshot& snapshot, const std::string& guest_id) {
  DeletionPlan plan;
  plan.compares.push_back({GuestObjectKey(guest_id), 0});
  const Status taken = RemoveAllOf(snapshot, DashCate::Guest, guest_id, plan);
  if (!taken) return taken.error();
  RemoveLiveState(guest_id, plan);
  return plan;
}

}  // namespace vexa::guests
