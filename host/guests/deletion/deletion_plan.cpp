#include "host/guests/deletion/deletion_plan.h"

#include <fmt/format.h>

#include <map>

#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/disks/file_referrers.h"
#include "host/guests/jobs/job_record.h"
#include "host/records/keys.h"
#include "host/records/live_state.h"
#include "host/records/object_edit.h"
#include "host/records/repository_host.h"
#include "host/storage/storage_disks.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::DashCate;

bool IsString(const Json::Value& value, const std::string& text) {
  return value.isString() && json::String(value) == text;
}

Status AddRemovals(const store::Snapshot& snapshot, const DashCate& category, const std::string& id,
                   DeletionPlan& plan) {
  return snapshot.Scan(records::RecordKey(category.name(), id), [&](std::string_view key, const store::ValueView&) {
    plan.removals.push_back({std::string(key), std::nullopt});
    return true;
  });
}

void AddLiveStateRemoval(const std::string& guest_id, DeletionPlan& plan) {
  store::Transaction live;
  records::AddLiveStateRemoval(live, guest_id);
  plan.removals.insert(plan.removals.end(), live.operations.begin(), live.operations.end());
}

void AddPath(const Json::Value& disk, std::size_t index, DeletionPlan& plan) {
  const Json::Value& path = json::Member(disk, disks::kDiskPath);
  if (path.isString() && !json::String(path).empty()) {
    plan.files.push_back({index, json::String(path)});
  } else if (!path.isNull() && !path.isString()) {
    plan.notes.push_back(
        fmt::format("the path of its disk {} is not a string, so no file of the disk is removed", index));
  }
}

// One disk or interface that the guest lists.
Status PlanListed(const store::Snapshot& snapshot, const std::string& guest_id, const DashCate& category,
                  const std::string& id, std::size_t index, DeletionPlan& plan) {
  const std::string key = records::ObjectKey(category.name(), id);
  const Result<records::StoredObject> stored = records::LoadObject(snapshot, key);
  if (!stored && stored.error().code() != ErrorCode::kCorrupt) return stored.error();
  if (stored && stored->revision == 0) return {};
  if (!stored || !IsString(json::Member(stored->record, keys::guest_id), guest_id)) {
    plan.notes.push_back(fmt::format("it lists the {} [{}], {} and is kept", category.name(),
                                     SanitizeForLog(id, kMaxLoggedIdBytes),
                                     stored ? "which does not belong to it" : "whose record is damaged"));
    return {};
  }
  plan.compares.push_back({key, stored->revision});
  if (&category == &DashCate::vDisk) {
    plan.disks.insert(id);
    AddPath(stored->record, index, plan);
    // Removed even if absent now: the disk's host may write the state at any time.
    plan.removals.push_back({storage::DiskStateKey(id), std::nullopt});
  }
  return AddRemovals(snapshot, category, id, plan);
}

void AddNvram(const Json::Value& guest, DeletionPlan& plan) {
  const Json::Value& path = json::Member(guest, records::kNvramMember);
  if (path.isString() && !json::String(path).empty()) {
    plan.files.push_back({kNvramIndex, json::String(path)});
  } else if (!path.isNull() && !path.isString()) {
    plan.notes.emplace_back("the path of its UEFI variables is not a string, so no file of them is removed");
  }
}

Status PlanAllListed(const store::Snapshot& snapshot, const std::string& guest_id, const Json::Value& list,
                     const DashCate& category, DeletionPlan& plan) {
  const Json::Value& elements = json::Elements(list);
  if (elements.size() > kMaxListedParts) {
    return Error(ErrorCode::kInvalid, fmt::format("The guest's record lists {} entries of the kind '{}', and at most "
                                                  "{} are deleted with a guest. Repair the record",
                                                  elements.size(), category.name(), kMaxListedParts));
  }
  std::set<std::string> seen;
  for (Json::ArrayIndex i = 0; i < elements.size(); ++i) {
    const Json::Value& id = json::Element(elements, i);
    if (!id.isString() || !seen.insert(json::String(id)).second) continue;
    const Status one = PlanListed(snapshot, guest_id, category, json::String(id), i, plan);
    if (!one) return one;
  }
  return {};
}

std::set<std::string> ImagesOf(const Json::Value& guest) {
  std::set<std::string> images;
  for (const Json::Value& image : json::Elements(json::Member(guest, keys::iso_images))) {
    if (!image.isString()) continue;
    if (std::optional<std::string> path = disks::NormalPath(json::String(image))) images.insert(std::move(*path));
  }
  return images;
}

}  // namespace

Result<DeletionPlan> PlanDeletion(const store::Snapshot& snapshot, const std::string& guest_id) {
  const Result<records::StoredObject> guest = records::LoadObject(snapshot, records::GuestObjectKey(guest_id));
  if (!guest) return guest.error();
  if (guest->revision == 0) return Error(ErrorCode::kNotFound, "There is no such guest");
  DeletionPlan plan;
  plan.compares.push_back({records::GuestObjectKey(guest_id), guest->revision});
  Status planned = AddRemovals(snapshot, DashCate::Guest, guest_id, plan);
  if (!planned) return planned.error();
  planned = PlanAllListed(snapshot, guest_id, json::Member(guest->record, keys::vdisks), DashCate::vDisk, plan);
  if (!planned) return planned.error();
  planned = PlanAllListed(snapshot, guest_id, json::Member(guest->record, keys::vnics), DashCate::vNic, plan);
  if (!planned) return planned.error();
  AddNvram(guest->record, plan);
  AddLiveStateRemoval(guest_id, plan);
  Result<std::string> repository_host = records::RepositoryHost(snapshot, guest->record);
  if (!repository_host) return repository_host.error();
  plan.repository_host_id = std::move(*repository_host);
  const Json::Value& host_id = json::Member(guest->record, keys::host_id);
  const Json::Value& repository_id = json::Member(guest->record, keys::repository_id);
  if (host_id.isString()) plan.host_id = json::String(host_id);
  if (repository_id.isString()) plan.repository_id = json::String(repository_id);
  plan.images = ImagesOf(guest->record);
  return plan;
}

Result<DeletionPlan> PlanDeletedGuest(const store::Snapshot& snapshot, const std::string& guest_id) {
  DeletionPlan plan;
  plan.compares.push_back({records::GuestObjectKey(guest_id), 0});
  const Status planned = AddRemovals(snapshot, DashCate::Guest, guest_id, plan);
  if (!planned) return planned.error();
  AddLiveStateRemoval(guest_id, plan);
  return plan;
}

}  // namespace vexa::guests
