#include "host/guests/edit/edit_plan.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/base/guest_settings.h"
#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/disks/file_referrers.h"
#include "host/domain_xml/domain_build.h"
#include "host/guests/jobs/creation_record.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/records/guest_image.h"
#include "host/records/keys.h"
#include "host/records/name_search.h"
#include "host/records/network_record.h"
#include "host/records/repository_host.h"
#include "host/records/run_record.h"
#include "host/storage/storage_disks.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State::Guest;
using VexaCCC::DB::DashCate;

constexpr std::size_t kMaxListedParts = 1024;
constexpr std::size_t kMaxQuoted = 256;

std::string Quoted(const std::string& text) { return "'" + SanitizeForLog(text, kMaxQuoted) + "'"; }

std::string PartKey(const DashCate& category, const std::string& id) { return records::ObjectKey(category.name(), id); }

// Reads the records that the guest lists under `name`. A guest with missing parts is refused.
Status LoadParts(EditedGuest& edited, const char* name, const DashCate& category, std::vector<EditedPart>& parts) {
  const Json::Value& list = json::Elements(json::Member(edited.before, name));
  if (list.size() > kMaxListedParts)
    edited.Refuse(host_error::kNotFoundOrUnreadable, fmt::format("The guest's record lists too many '{}'", name));
  for (Json::ArrayIndex i = 0; i < list.size() && !edited.plan.refused; ++i) {
    const Json::Value& id = json::Element(list, i);
    if (!id.isString()) {
      edited.Refuse(host_error::kNotFoundOrUnreadable,
                    fmt::format("An entry of the guest's '{}' is not a valid id. Repair the record", name));
      break;
    }
    Result<records::StoredObject> stored = records::LoadObject(edited.snapshot, PartKey(category, json::String(id)));
    if (!stored && stored.error().code() != ErrorCode::kCorrupt) return stored.error();
    if (!stored || stored->revision == 0) {
      edited.Refuse(host_error::kNotFoundOrUnreadable, fmt::format("There is no readable record of the guest's {} {}",
                                                                   category.name(), Quoted(json::String(id))));
      break;
    }
    Json::Value before = stored->record;
    parts.push_back({json::String(id), std::move(*stored), std::move(before), i});
  }
  return {};
}

// Reads whether a host holds the guest, and the guest's state. Refuses while the guest is being deleted or created.
Status LoadState(EditedGuest& edited) {
  const auto run = edited.snapshot.Get(records::RunKey(edited.id));
  if (!run) return run.error();
  edited.is_running = run->has_value();
  if (edited.is_running) {
    const records::Run held = records::ParseRun((*run)->text);
    edited.runs_here =
        edited.options.can_change_running && held.host_id == edited.options.host_id && !held.starting && !held.saved;
  }
  edited.plan.transaction.compares.push_back({records::RunKey(edited.id), *run ? (*run)->revision : 0});
  const auto deletion = ReadDeletion(edited.snapshot, edited.id);
  if (!deletion) return deletion.error();
  if (*deletion) {
    Refusal refusal = HeldByDeletion(**deletion);
    edited.Refuse(refusal.code, std::move(refusal.reason));
  }
  edited.plan.transaction.compares.push_back({records::DeletionKey(edited.id), 0});
  if (!edited.request.new_guest) {
    const auto creation = ReadJob(edited.snapshot, kCreationKind, edited.id);
    if (!creation) return creation.error();
    if (*creation) {
      Refusal refusal = HeldByJob(kCreationKind, **creation);
      edited.Refuse(refusal.code, std::move(refusal.reason));
    }
    edited.plan.transaction.compares.push_back({records::CreationKey(edited.id), 0});
  }
  const auto value = edited.snapshot.Get(records::MemberKey(DashCate::Guest.name(), edited.id, keys::state));
  if (!value) return value.error();
  std::string state = json::StringMember(edited.before, keys::state);
  if (value->has_value()) {
    const Result<Json::Value> parsed = ParseJson((*value)->text);
    if (parsed && parsed->isString()) state = json::String(*parsed);
  }
  edited.is_suspended = state == states::saved || state == states::freeze;
  return {};
}

Status Load(EditedGuest& edited) {
  Result<records::StoredObject> guest = records::LoadObject(edited.snapshot, records::GuestObjectKey(edited.id));
  if (!guest && guest.error().code() != ErrorCode::kCorrupt) return guest.error();
  if (guest && edited.request.new_guest) {
    Json::Value record = *edited.request.new_guest;
    if (guest->revision != 0) record[keys::name] = json::StringMember(guest->record, keys::name);
    guest->record = std::move(record);
  }
  if (!guest || (guest->revision == 0 && !edited.request.new_guest)) {
    edited.Refuse(host_error::kNotFoundOrUnreadable, "There is no readable record of the guest");
    return {};
  }
  edited.guest = std::move(*guest);
  edited.before = edited.guest.record;
  if (Status loaded = LoadParts(edited, keys::vdisks, DashCate::vDisk, edited.disks); !loaded) return loaded;
  if (Status loaded = LoadParts(edited, keys::vnics, DashCate::vNic, edited.nics); !loaded) return loaded;
  edited.repository_id = json::StringMember(edited.before, keys::repository_id);
  Result<std::string> host_id = records::RepositoryHost(edited.snapshot, edited.before);
  if (!host_id) return host_id.error();
  edited.repository_host_id = std::move(*host_id);
  return LoadState(edited);
}

Status EditName(EditedGuest& edited) {
  const std::string name = json::StringMember(edited.request.members, keys::name);
  if (name.empty() || name == json::StringMember(edited.before, keys::name)) return {};
  const auto names = edited.snapshot.Get(records::GuestNamesGuardKey());
  if (!names) return names.error();
  edited.plan.transaction.compares.push_back({records::GuestNamesGuardKey(), *names ? (*names)->revision : 0});
  edited.plan.transaction.operations.push_back({records::GuestNamesGuardKey(), json::ToText(Json::Value(edited.id))});
  const Result<bool> is_taken = records::IsNameTaken(edited.snapshot, name, DashCate::Guest);
  if (!is_taken) {
    return Error(ErrorCode::kInternal, "Cannot determine whether the name is taken", is_taken.error().ToString());
  }
  if (*is_taken) edited.Refuse(host_error::kNameTaken, fmt::format("Another guest has the name {}", Quoted(name)));
  return {};
}

// The path of an image to be inserted into a drive; "" when it does not exist.
Result<std::string> ImagePath(EditedGuest& edited, const std::string& image) {
  if (image.starts_with('/')) return disks::NormalPath(image).value_or("");
  const std::string key = records::ObjectKey(records::kImageCategory, image);
  const auto record = records::LoadObject(edited.snapshot, key);
  if (!record && record.error().code() != ErrorCode::kCorrupt) return record.error();
  if (!record) return std::string();
  // An absent record may have an invalid key, which a commit could not compare.
  if (record->revision != 0) edited.plan.transaction.compares.push_back({key, record->revision});
  return disks::NormalPath(json::StringMember(record->record, "path")).value_or("");
}

// Does not check images that stay in a drive: that they are missing must not prevent other edits.
Status CheckImages(EditedGuest& edited) {
  const Json::Value& images = json::Member(edited.request.members, keys::iso_images);
  const Json::Value& before = json::Elements(json::Member(edited.before, keys::iso_images));
  for (const Json::Value& image : json::Elements(images)) {
    const std::string name = json::String(image);
    if (name == kUnmounted || std::find(before.begin(), before.end(), image) != before.end()) continue;
    const Result<std::string> path = ImagePath(edited, name);
    if (!path) return path.error();
    const auto fact = path->empty() ? FileFacts::Image::kMissing : edited.facts.ImageAt(*path);
    if (!fact) continue;
    if (*fact == FileFacts::Image::kMissing)
      edited.Refuse(host_error::kNoImage, fmt::format("There is no image {}", Quoted(name)));
    if (*fact == FileFacts::Image::kDisk)
      edited.Refuse(host_error::kNoImage, fmt::format("{} is a disk of a guest", Quoted(*path)));
  }
  return {};
}

bool Sets(const EditedGuest& edited, const char* name) { return json::FindMember(edited.request.members, name); }

void CheckCombinations(EditedGuest& edited) {
  const Json::Value& guest = edited.guest.record;
  const Json::Value* const version = json::FindMember(guest, keys::usb_version);
  const Json::Value& devices = json::Elements(json::Member(guest, keys::usbs));
  const bool has_device = std::any_of(devices.begin(), devices.end(), [](const Json::Value& device) {
    return device != kUnmounted && !json::String(device).empty();
  });
  if ((Sets(edited, keys::usbs) || Sets(edited, keys::usb_version)) && has_device && version && version->isInt64() &&
      json::Int64(*version) == 0) {
    edited.Refuse(host_error::kNoUsbPort, "The guest has no USB controller ('usb_version' is 0), and USB devices");
  }
  const Json::Int64 pins = json::Int64(json::Member(guest, keys::cpu_pin_num));
  const Json::Int64 vcpus = std::max<Json::Int64>(json::Int64(json::Member(guest, keys::vcpu_num)), 1);
  if ((Sets(edited, keys::cpu_pin_num) || Sets(edited, keys::vcpu_num)) && pins > vcpus) {
    edited.Refuse(kBadEdit,
                  fmt::format("The parameter 'cpu_pin_num' is more than the guest's virtual CPUs: it would be {} of {}",
                              pins, vcpus));
  }
}

// The value that the edit gives to a setting for which only the guest's host knows what is possible. Null: it keeps its
// value, or another host may start the guest. That host says so at the start.
const Json::Value* ChangedHere(const EditedGuest& edited, const char* name) {
  const Json::Value* const value = json::FindMember(edited.request.members, name);
  const bool is_here = json::StringMember(edited.guest.record, keys::host_id) == edited.options.host_id;
  const bool is_kept = !edited.request.new_guest && value && *value == json::Member(edited.before, name);
  return is_here && !is_kept ? value : nullptr;
}

void CheckWhatHostHas(EditedGuest& edited) {
  const Json::Value* const weight = ChangedHere(edited, keys::cpu_weight);
  const Json::Value* const layout = ChangedHere(edited, keys::kb_layout);
  Result<void, Refusal> checked;
  if (weight && edited.options.check_weight) checked = edited.options.check_weight(json::Int64(*weight));
  if (checked.ok() && layout && edited.options.check_layout) {
    checked = edited.options.check_layout(json::String(*layout));
  }
  if (!checked.ok()) edited.Refuse(checked.error().code, checked.error().reason);
}

enum class Version { kBefore, kAfter };

domain_xml::GuestRecords RecordsOf(const EditedGuest& edited, Version version) {
  const bool is_after = version == Version::kAfter;
  domain_xml::GuestRecords records;
  records.id = edited.id;
  records.guest = is_after ? edited.guest.record : edited.before;
  for (const EditedPart& part : edited.disks) {
    records.disks.emplace_back(part.id, is_after ? part.stored.record : part.before);
  }
  for (const EditedPart& part : edited.nics) {
    records.nics.emplace_back(part.id, is_after ? part.stored.record : part.before);
  }
  return records;
}

Result<std::string> Build(const domain_xml::GuestRecords& records) {
  domain_xml::BuildOptions options;
  options.domain_type = "test";
  // Any network name will do: whether the network exists is checked when the guest starts.
  for (const auto& [id, nic] : records.nics) options.libvirt_networks.insert(json::StringMember(nic, "network_name"));
  options.image_path = [](const std::string& image) -> Result<std::string> {
    return image.starts_with('/') ? image : "/image/" + image;
  };
  return domain_xml::BuildDomainXml(records, options);
}

// Refuses an edit after which a guest that can be started could not be started any more, and a new guest that could
// not be started.
void CheckStillStartable(EditedGuest& edited, const domain_xml::GuestRecords& before) {
  const Result<std::string> built = Build(RecordsOf(edited, Version::kAfter));
  if (built) return;
  if (edited.request.new_guest) {
    edited.Refuse(kBadEdit, fmt::format("The guest could not be started: {}", built.error().message()));
  } else if (Build(before)) {
    edited.Refuse(kBadEdit, fmt::format("The guest could no longer be started: {}", built.error().message()));
  }
}

records::Guest Edited(const EditedGuest& edited) {
  records::Guest guest;
  guest.records = RecordsOf(edited, Version::kAfter);
  guest.name = json::StringMember(edited.guest.record, keys::name);
  guest.host_id = json::StringMember(edited.guest.record, keys::host_id);
  guest.repository_id = edited.repository_id;
  guest.repository_host_id = edited.repository_host_id;
  return guest;
}

void CheckAppliesNow(EditedGuest& edited) {
  if (!edited.request.must_apply_now || !edited.is_running || edited.is_suspended) return;
  const std::optional<Result<void, Refusal>> applies = edited.facts.AppliesNow(Edited(edited));
  if (applies && !applies->ok()) edited.Refuse(applies->error().code, applies->error().reason);
}

void CheckPins(EditedGuest& edited) {
  const Json::Value& record = edited.guest.record;
  const bool changes = json::Member(record, keys::cpu_pin_num) != json::Member(edited.before, keys::cpu_pin_num);
  if (!edited.is_running || !changes || !edited.options.check_pins) return;
  const std::optional<Result<void, Refusal>> rated = edited.facts.Pins(Edited(edited));
  if (rated && !rated->ok()) edited.Refuse(rated->error().code, rated->error().reason);
}

void WriteList(EditedGuest& edited, const char* name, const std::vector<EditedPart>& parts) {
  Json::Value list(Json::arrayValue);
  for (const EditedPart& part : parts) list.append(part.id);
  if (list != json::Elements(json::Member(edited.before, name))) edited.guest.record[name] = std::move(list);
}

void WriteParts(EditedGuest& edited, const DashCate& category, const std::vector<EditedPart>& parts) {
  for (const EditedPart& part : parts) {
    if (part.stored.revision == 0 || part.stored.record != part.before) {
      records::PutObject(edited.plan.transaction, PartKey(category, part.id), part.stored);
    } else {
      // The plan is based on this record.
      edited.plan.transaction.compares.push_back({PartKey(category, part.id), part.stored.revision});
    }
  }
}

Status RemoveParts(EditedGuest& edited, const DashCate& category, const std::vector<std::string>& ids) {
  store::Transaction& transaction = edited.plan.transaction;
  for (const std::string& id : ids) {
    const Status scanned = edited.snapshot.Scan(records::RecordKey(category.name(), id),
                                                [&](std::string_view key, const store::ValueView& value) {
                                                  transaction.compares.push_back({std::string(key), value.revision});
                                                  transaction.operations.push_back({std::string(key), std::nullopt});
                                                  return true;
                                                });
    if (!scanned) return scanned;
    // Removed even if absent now: the disk's host may write the state at any time.
    if (&category == &DashCate::vDisk) transaction.operations.push_back({storage::DiskStateKey(id), std::nullopt});
  }
  return {};
}

// Every commit that assigns an address writes the reservation key of that address: of two that assign the same address
// at the same time, one gets a conflict and checks again.
Status WriteMacs(EditedGuest& edited) {
  for (const std::string& mac : edited.taken_macs) {
    const std::string key = records::MacReservationKey(mac);
    const auto reserved = edited.snapshot.Get(key);
    if (!reserved) return reserved.error();
    Json::Value reservation(Json::objectValue);
    const auto now = edited.options.now().time_since_epoch();
    reservation["time"] = static_cast<Json::Int64>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
    edited.plan.transaction.compares.push_back({key, *reserved ? (*reserved)->revision : 0});
    edited.plan.transaction.operations.push_back({key, json::ToText(reservation)});
  }
  return {};
}

// Every commit that makes a record refer to a file writes this key, so that code about to remove the file searches
// again.
void WriteFileReferencesGuard(EditedGuest& edited) {
  const bool changes_drives =
      json::Member(edited.guest.record, keys::iso_images) != json::Member(edited.before, keys::iso_images);
  if (edited.plan.files.made.empty() && !changes_drives) return;
  edited.plan.transaction.operations.push_back(
      {records::FileReferencesGuardKey(), json::ToText(Json::Value(edited.id))});
}

// Leaves the files of disks that the running guest still has to the code that removes leftovers. An image in a drive of
// the guest stays.
Status WriteLeftFiles(EditedGuest& edited) {
  if (edited.left_files.empty()) return {};
  const std::string key = LeftoverKey(edited.options.host_id, edited.id);
  Result<StoredLeftover> stored = ReadLeftover(edited.snapshot, edited.options.host_id, edited.id);
  if (!stored) return stored.error();
  std::vector<std::string> paths = std::move(stored->paths).value_or(std::vector<std::string>());
  for (const std::string& path : edited.left_files) {
    if (!edited.plan.files.images.contains(path)) paths.push_back(path);
  }
  edited.plan.transaction.compares.push_back({key, stored->revision});
  if (!paths.empty())
    edited.plan.transaction.operations.push_back({key, SerializeLeftover(paths, edited.repository_id)});
  return {};
}

// Every commit that puts an interface into a network writes this key, so that code about to remove the network searches
// again.
void WriteNetworksGuard(EditedGuest& edited) {
  if (!edited.names_network) return;
  edited.plan.transaction.operations.push_back({records::NetworksGuardKey(), json::ToText(Json::Value(edited.id))});
}

Status Write(EditedGuest& edited) {
  WriteList(edited, keys::vdisks, edited.disks);
  WriteList(edited, keys::vnics, edited.nics);
  if (edited.guest.record != edited.before) edited.guest.record.removeMember(kOutdatedPending);
  store::Transaction& transaction = edited.plan.transaction;
  if (edited.guest.record != edited.before) {
    records::PutObject(transaction, records::GuestObjectKey(edited.id), edited.guest);
  } else {
    transaction.compares.push_back({records::GuestObjectKey(edited.id), edited.guest.revision});
  }
  WriteParts(edited, DashCate::vDisk, edited.disks);
  WriteParts(edited, DashCate::vNic, edited.nics);
  if (Status removed = RemoveParts(edited, DashCate::vDisk, edited.removed_disks); !removed) return removed;
  if (Status removed = RemoveParts(edited, DashCate::vNic, edited.removed_nics); !removed) return removed;
  WriteFileReferencesGuard(edited);
  WriteNetworksGuard(edited);
  if (Status left = WriteLeftFiles(edited); !left) return left;
  return WriteMacs(edited);
}

void AddImagesToKeep(EditedGuest& edited) {
  for (const Json::Value* record : {&edited.before, &edited.guest.record}) {
    for (const Json::Value& image : json::Elements(json::Member(*record, keys::iso_images))) {
      if (!image.isString()) continue;
      if (auto path = disks::NormalPath(json::String(image))) edited.plan.files.images.insert(std::move(*path));
    }
  }
}

}  // namespace

Result<EditPlan> PlanEdit(const EditOptions& options, const std::string& guest_id, const EditRequest& request,
                          const NewIds& ids, const store::Snapshot& snapshot, FileFacts& facts) {
  EditedGuest edited{options, request, ids, snapshot, facts, guest_id};
  Status done = Load(edited);
  if (!done) return done.error();
  if (edited.plan.refused) return std::move(edited.plan);
  const domain_xml::GuestRecords before = RecordsOf(edited, Version::kBefore);
  if (request.new_guest) edited.guest.record[keys::state] = states::shutdown;
  for (const std::string& name : json::MemberNames(request.members)) {
    edited.guest.record[name] = json::Member(request.members, name);
  }
  using Part = Status (*)(EditedGuest&);
  for (const Part part : {Part(EditName), Part(EditNics), Part(CheckImages)}) {
    done = part(edited);
    if (!done) return done.error();
    if (edited.MustStop()) return std::move(edited.plan);
  }
  for (const auto part : {EditDisks, CheckCombinations, CheckPins, CheckWhatHostHas}) part(edited);
  if (edited.MustStop()) return std::move(edited.plan);
  CheckStillStartable(edited, before);
  if (!edited.plan.refused) CheckAppliesNow(edited);
  if (edited.MustStop()) return std::move(edited.plan);
  AddImagesToKeep(edited);
  edited.plan.files.repository_id = edited.repository_id;
  done = Write(edited);
  if (!done) return done.error();
  return std::move(edited.plan);
}

}  // namespace vexa::guests
