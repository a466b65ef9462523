// Edits the disks of a guest.
#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <set>

#include "host/base/sanitize_for_log.h"
#include "host/disks/file_referrers.h"
#include "host/guests/edit/edit_plan.h"
#include "host/guests/edit/edit_request.h"
#include "host/guests/jobs/file_intent.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using domain_xml::ImageFormat;

constexpr char kDriver[] = "driver";
constexpr int kTypeRaw = 1;
constexpr int kTypeQcow2 = 2;
constexpr int kUserDiskFormat = 2;  // "format" in the record of every disk that users see

ImageFormat FormatOf(const Json::Value& disk) {
  const std::string driver = json::StringMember(disk, kDriver);
  const bool is_qcow2 = driver.empty() ? json::Int(json::Member(disk, keys::type)) == kTypeQcow2 : driver == "qcow2";
  return is_qcow2 ? ImageFormat::kQcow2 : ImageFormat::kRaw;
}

EditedPart* Find(EditedGuest& edited, const std::string& id) {
  const auto found = std::ranges::find(edited.disks, id, &EditedPart::id);
  const bool is_own = found != edited.disks.end() && json::StringMember(found->before, keys::guest_id) == edited.id;
  if (is_own) return &*found;
  edited.Refuse(host_error::kBadDisk, fmt::format("The guest has no disk {}", QuoteForMessage(id)));
  return nullptr;
}

void Remove(EditedGuest& edited, const std::string& id) {
  EditedPart* const disk = Find(edited, id);
  if (!disk) return;
  if (edited.is_running && !edited.runs_here)
    return edited.Refuse(host_error::kBadDisk,
                         fmt::format("The disk {} cannot be removed while the guest runs", QuoteForMessage(id)));
  const std::string path = json::StringMember(disk->before, disks::kDiskPath);
  if (edited.runs_here) {
    if (auto normal = disks::NormalPath(path)) edited.left_files.push_back(std::move(*normal));
  } else {
    if (!path.empty()) edited.plan.files.removed.push_back({disk->index, path});
    edited.plan.files.removed_disks.insert(id);
  }
  edited.removed_disks.push_back(id);
  std::erase_if(edited.disks, [&](const EditedPart& part) { return part.id == id; });
}

// The first target name that no disk of the guest has: "vda", "vdb", …
std::string FreeTarget(const EditedGuest& edited, Json::Int64 mode) {
  constexpr const char* kPrefixes[] = {"vd", "hd", "sd", "sd"};
  std::set<std::string> taken;
  for (const EditedPart& disk : edited.disks) taken.insert(json::StringMember(disk.stored.record, keys::name));
  const std::string prefix = kPrefixes[mode - 1];
  for (std::size_t index = 0;; ++index) {
    std::string letters;
    for (std::size_t rest = index + 1; rest > 0; rest = (rest - 1) / 26) {
      letters.insert(letters.begin(), static_cast<char>('a' + (rest - 1) % 26));
    }
    if (!taken.contains(prefix + letters)) return prefix + letters;
  }
}

void Grow(EditedGuest& edited, EditedPart& disk, std::uint64_t size_mib) {
  const std::uint64_t now_mib = json::UInt64(json::Member(disk.before, keys::size));
  if (size_mib == now_mib) return;
  const std::string quoted_id = QuoteForMessage(disk.id);
  if (size_mib < now_mib) {
    return edited.Refuse(host_error::kBadDisk,
                         fmt::format("The disk {} has {} MiB and cannot shrink", quoted_id, now_mib));
  }
  if (edited.is_running && !edited.runs_here) {
    return edited.Refuse(host_error::kBadDisk,
                         fmt::format("The size of the disk {} cannot be changed while the guest runs", quoted_id));
  }
  const std::optional<std::string> path = disks::NormalPath(json::StringMember(disk.before, disks::kDiskPath));
  if (!path)
    return edited.Refuse(host_error::kBadDisk, fmt::format("The disk {} has no file that could grow", quoted_id));
  if (edited.runs_here) {
    disk.stored.record[kImageIsSmaller] = true;
    edited.growing_files.insert(*path);
  } else {
    edited.plan.files.grown.push_back({disk.id, *path, FormatOf(disk.before), size_mib});
    disk.stored.record.removeMember(kImageIsSmaller);
  }
  disk.stored.record[keys::size] = static_cast<Json::Int64>(size_mib);
}

void Change(EditedGuest& edited, const DiskChange& change) {
  EditedPart* const disk = Find(edited, change.id);
  if (!disk) return;
  if (disk->stored.record != disk->before)
    return edited.Refuse(host_error::kBadDisk, fmt::format("The disk {} is changed twice", QuoteForMessage(change.id)));
  Grow(edited, *disk, change.size_mib);
  Json::Value& record = disk->stored.record;
  if (change.mode && json::Int64(json::Member(record, keys::vdisk_mode)) != *change.mode) {
    record[keys::vdisk_mode] = *change.mode;
    // The target name depends on the bus. Its old name is free.
    record[keys::name] = "";
    record[keys::name] = FreeTarget(edited, *change.mode);
  }
  if (change.unmap) record[keys::unmap] = *change.unmap;
}

// Puts the disks of the request's order first. The others follow in their existing order.
void Order(EditedGuest& edited) {
  std::vector<EditedPart> ordered;
  for (const std::string& id : edited.request.disks_order) {
    const auto found = std::ranges::find(edited.disks, id, &EditedPart::id);
    if (found == edited.disks.end()) {
      return edited.Refuse(
          host_error::kBadDisk,
          fmt::format("The order names the disk {} twice, or the guest does not have it", QuoteForMessage(id)));
    }
    ordered.push_back(std::move(*found));
    edited.disks.erase(found);
  }
  std::ranges::move(edited.disks, std::back_inserter(ordered));
  edited.disks = std::move(ordered);
}

void Add(EditedGuest& edited, const DiskAddition& addition, std::size_t index) {
  const std::optional<std::string> folder = edited.facts.FolderOf(edited.repository_id);
  if (!folder) return;
  if (folder->empty()) {
    return edited.Refuse(host_error::kUnavailable, fmt::format("The guest's repository {} has no folder here",
                                                               QuoteForMessage(edited.repository_id)));
  }
  EditedPart disk;
  disk.id = edited.ids.disks[index];
  const std::string path = *disks::NormalPath(*folder + "/" + ImageName(disk.id, addition.format));
  const bool is_raw = addition.format == ImageFormat::kRaw;
  Json::Value& record = disk.stored.record;
  record[keys::guest_id] = edited.id;
  record[keys::repository_id] = edited.repository_id;
  record[keys::name] = FreeTarget(edited, addition.mode);
  record[keys::size] = static_cast<Json::Int64>(addition.size_mib);
  record[kDriver] = is_raw ? "raw" : "qcow2";
  record[keys::type] = is_raw ? kTypeRaw : kTypeQcow2;
  record[keys::unmap] = addition.unmap;
  record[disks::kDiskPath] = path;
  record[keys::vdisk_mode] = addition.mode;
  record[keys::format] = kUserDiskFormat;
  record[keys::is_dummy] = false;
  record[keys::is_meta_disk] = false;
  edited.plan.files.made.push_back({path, addition.format, addition.size_mib});
  edited.disks.push_back(std::move(disk));
}

// For disks that a running guest's machine makes larger, together with new ones. The job checks its own files.
void CheckRoom(EditedGuest& edited) {
  if (edited.growing_files.empty() || edited.MustStop()) return;
  std::set<std::string> paths = edited.growing_files;
  for (const NewFile& file : edited.plan.files.made) paths.insert(file.path);
  const auto room = edited.facts.Room(edited.repository_id, paths);
  if (room && !room->ok()) edited.Refuse(room->error().code, room->error().reason);
}

}  // namespace

void EditDisks(EditedGuest& edited) {
  const EditRequest& request = edited.request;
  if (!request.HasDisks() || edited.plan.refused) return;
  const std::string& host_id = edited.repository_host_id;
  if (!host_id.empty() && host_id != edited.options.host_id) {
    return edited.Refuse(host_error::kOnOtherHost,
                         fmt::format("The guest's repository belongs to the host {}", QuoteForMessage(host_id)));
  }
  if (edited.is_suspended)
    return edited.Refuse(host_error::kSuspended, "The disks cannot be changed because the guest is suspended");
  for (const std::string& id : request.disks_del) Remove(edited, id);
  for (const DiskChange& change : request.disks_edit) Change(edited, change);
  if (edited.plan.refused) return;
  Order(edited);
  if (edited.disks.size() + request.disks_add.size() > domain_xml::kMaxDisks && !request.disks_add.empty()) {
    edited.Refuse(host_error::kTooManyDisks,
                  fmt::format("The guest would have more than {} disks", domain_xml::kMaxDisks));
  }
  if (edited.plan.refused) return;
  for (std::size_t i = 0; i < request.disks_add.size(); ++i) Add(edited, request.disks_add[i], i);
  CheckRoom(edited);
}

}  // namespace vexa::guests
