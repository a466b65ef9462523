#include "host/guests/edit/edit_plan.h"

#include <algorithm>

#include "host/base/guest_settings.h"
#include "host/base/json_parse.h"
#include "host/base/log_text.h"
#include "host/disks/disk_users.h"
#include "host/domain_xml/domain_build.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/records/guest_image.h"
#include "host/records/keys.h"
#include "host/records/reading.h"
#include "host/records/repository_host.h"
#include "host/records/run_record.h"
#include "host/storage/storage_disks.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State::Guest;
using VexaCCC::DB::DashCate;

constexpr std::size_t kMaxParts = 1024;
constexpr std::size_t kMaxQuoted = 256;

std::string Quoted(const std::string& text) { return "'" + cluster::LogText(text, kMaxQuoted) + "'"; }

std::string PartKey(const DashCate& category, const std::string& id) {
  return store::MakeKey({"dash", category.name(), id, keys::object});
}

// Reads the records that the guest lists under `name`. A guest with missing parts is refused.
Status LoadParts(EditedGuest& edited, const char* name, const DashCate& category, std::vector<EditedPart>& parts) {
  const Json::Value& list = json::Elements(json::Member(edited.before, name));
  if (list.size() > kMaxParts)
    edited.Refuse(kUnreadable, "The guest's record names too many '" + std::string(name) + "'");
  for (Json::ArrayIndex i = 0; i < list.size() && !edited.plan.refused; ++i) {
    const Json::Value& id = json::Element(list, i);
    if (!id.isString()) {
      edited.Refuse(kUnreadable, "An entry of the guest's '" + std::string(name) + "' is no id: repair the record");
      break;
    }
    Result<cluster::StoredObject> stored = cluster::LoadObject(edited.snapshot, PartKey(category, json::String(id)));
    if (!stored && stored.error().code() != ErrorCode::kCorrupt) return stored.error();
    if (!stored || stored->revision == 0) {
      edited.Refuse(kUnreadable, "There is no readable record of the guest's " + std::string(category.name()) + " " +
                                     Quoted(json::String(id)));
      break;
    }
    Json::Value before = stored->record;
    parts.push_back({json::String(id), std::move(*stored), std::move(before), i});
  }
  return {};
}

// Whether a host has the guest, and the guest's state.
Status LoadCondition(EditedGuest& edited) {
  const auto run = edited.snapshot.Get(RunKey(edited.id));
  if (!run) return run.error();
  edited.is_running = run->has_value();
  edited.plan.transaction.compares.push_back({RunKey(edited.id), *run ? (*run)->revision : 0});
  const auto deletion = ReadDeletion(edited.snapshot, edited.id);
  if (!deletion) return deletion.error();
  if (*deletion) {
    Refusal refusal = DeletedByOther(**deletion);
    edited.Refuse(refusal.code, std::move(refusal.reason));
  }
  edited.plan.transaction.compares.push_back({DeletionKey(edited.id), 0});
  const auto value = edited.snapshot.Get(store::MakeKey({"dash", DashCate::Guest.name(), edited.id, keys::state}));
  if (!value) return value.error();
  std::string state = json::TextMember(edited.before, keys::state);
  if (value->has_value()) {
    const Result<Json::Value> parsed = ParseJson((*value)->text);
    if (parsed && parsed->isString()) state = json::String(*parsed);
  }
  edited.is_suspended = state == states::saved || state == states::freeze;
  return {};
}

Status Load(EditedGuest& edited) {
  Result<cluster::StoredObject> guest = cluster::LoadObject(edited.snapshot, GuestObjectKey(edited.id));
  if (!guest && guest.error().code() != ErrorCode::kCorrupt) return guest.error();
  if (!guest || guest->revision == 0) {
    edited.Refuse(kUnreadable, "There is no readable record of the guest");
    return {};
  }
  edited.guest = std::move(*guest);
  edited.before = edited.guest.record;
  if (Status loaded = LoadParts(edited, keys::vdisks, DashCate::vDisk, edited.disks); !loaded) return loaded;
  if (Status loaded = LoadParts(edited, keys::vnics, DashCate::vNic, edited.nics); !loaded) return loaded;
  edited.repository_id = json::TextMember(edited.before, keys::repository_id);
  Result<std::string> host_id = RepositoryHost(edited.snapshot, edited.before);
  if (!host_id) return host_id.error();
  edited.repository_host_id = std::move(*host_id);
  return LoadCondition(edited);
}

Status EditName(EditedGuest& edited) {
  const std::string name = json::TextMember(edited.request.members, keys::name);
  if (name.empty() || name == json::TextMember(edited.before, keys::name)) return {};
  const auto turn = edited.snapshot.Get(RenamesKey());
  if (!turn) return turn.error();
  edited.plan.transaction.compares.push_back({RenamesKey(), *turn ? (*turn)->revision : 0});
  edited.plan.transaction.operations.push_back({RenamesKey(), json::ToText(Json::Value(edited.id))});
  // Reads the current state of the store, which is at least as new as the turn.
  cluster::RequestScope::ReleaseSnapshot();
  const int conflict = VexaCCC::Utils::CheckNameConflict(name, DashCate::Guest);
  if (conflict < 0) return Error(ErrorCode::kInternal, "It cannot be told whether the name is taken");
  if (conflict > 0) edited.Refuse(kNameTaken, "Another guest has the name " + Quoted(name));
  return {};
}

// The path of an image to be inserted into a drive; "" when it does not exist.
Result<std::string> ImagePath(EditedGuest& edited, const std::string& image) {
  if (image.starts_with('/')) return NormalPath(image).value_or("");
  const std::string key = store::MakeKey({"dash", cluster::kImageCategory, image, keys::object});
  const auto record = cluster::LoadObject(edited.snapshot, key);
  if (!record && record.error().code() != ErrorCode::kCorrupt) return record.error();
  if (!record) return std::string();
  // An absent record may have an invalid key, which a commit could not compare.
  if (record->revision != 0) edited.plan.transaction.compares.push_back({key, record->revision});
  return NormalPath(json::TextMember(record->record, "path")).value_or("");
}

// Images that stay in a drive are not checked: they may be known to be missing.
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
    if (*fact == FileFacts::Image::kMissing) edited.Refuse(kNoImage, "There is no image " + Quoted(name));
    if (*fact == FileFacts::Image::kDisk) edited.Refuse(kNoImage, Quoted(*path) + " is a disk of a guest");
  }
  return {};
}

bool Asks(const EditedGuest& edited, const char* name) { return json::FindMember(edited.request.members, name); }

void CheckTogether(EditedGuest& edited) {
  const Json::Value& guest = edited.guest.record;
  const Json::Value* const version = json::FindMember(guest, keys::usb_version);
  const Json::Value& devices = json::Elements(json::Member(guest, keys::usbs));
  const bool has_device = std::any_of(devices.begin(), devices.end(), [](const Json::Value& device) {
    return device != kUnmounted && !json::String(device).empty();
  });
  if ((Asks(edited, keys::usbs) || Asks(edited, keys::usb_version)) && has_device && version && version->isInt64() &&
      json::Int64(*version) == 0) {
    edited.Refuse(kNoUsbPort, "The guest has no USB controller ('usb_version' is 0), and USB devices");
  }
  const Json::Int64 pins = json::Int64(json::Member(guest, keys::cpu_pin_num));
  const Json::Int64 vcpus = std::max<Json::Int64>(json::Int64(json::Member(guest, keys::vcpu_num)), 1);
  if ((Asks(edited, keys::cpu_pin_num) || Asks(edited, keys::vcpu_num)) && pins > vcpus) {
    edited.Refuse(kBadEdit, "The parameter 'cpu_pin_num' is more than the guest's virtual CPUs: it would be " +
                                std::to_string(pins) + " of " + std::to_string(vcpus));
  }
}

enum class Version { kBefore, kAfter };

hypervisor::GuestRecords RecordsOf(const EditedGuest& edited, Version version) {
  const bool is_after = version == Version::kAfter;
  hypervisor::GuestRecords records;
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

Result<std::string> Build(const hypervisor::GuestRecords& records) {
  hypervisor::BuildOptions options;
  options.domain_type = "test";
  // Any network name will do: whether the network exists is checked when the guest starts.
  for (const auto& [id, nic] : records.nics) options.libvirt_networks.insert(json::TextMember(nic, "network_name"));
  options.image_path = [](const std::string& image) -> Result<std::string> {
    return image.starts_with('/') ? image : "/image/" + image;
  };
  return hypervisor::BuildDomainXml(records, options);
}

// A guest that can run must remain able to run.
void CheckMachine(EditedGuest& edited, const hypervisor::GuestRecords& before) {
  const Result<std::string> built = Build(RecordsOf(edited, Version::kAfter));
  if (built || !Build(before)) return;
  edited.Refuse(kBadEdit, "The guest could not be started any more: " + built.error().message());
}

void CheckPins(EditedGuest& edited) {
  const Json::Value& record = edited.guest.record;
  const bool changes = json::Member(record, keys::cpu_pin_num) != json::Member(edited.before, keys::cpu_pin_num);
  if (!edited.is_running || !changes || !edited.options.rate_pins) return;
  Guest guest;
  guest.records = RecordsOf(edited, Version::kAfter);
  guest.host_id = json::TextMember(record, keys::host_id);
  guest.repository_id = edited.repository_id;
  guest.repository_host_id = edited.repository_host_id;
  const std::optional<Refused> rated = edited.facts.Pins(guest);
  if (rated && *rated) edited.Refuse((*rated)->code, (*rated)->reason);
}

void WriteList(EditedGuest& edited, const char* name, const std::vector<EditedPart>& parts) {
  Json::Value list(Json::arrayValue);
  for (const EditedPart& part : parts) list.append(part.id);
  if (list != json::Elements(json::Member(edited.before, name))) edited.guest.record[name] = std::move(list);
}

bool IsChanged(const EditedGuest& edited, const char* name, const std::vector<EditedPart>& parts) {
  return json::Member(edited.guest.record, name) != json::Member(edited.before, name) ||
         std::any_of(parts.begin(), parts.end(),
                     [](const EditedPart& part) { return part.stored.record != part.before; });
}

// The parts of the edit that wait for the guest's next start.
void WritePending(EditedGuest& edited) {
  Json::Value& guest = edited.guest.record;
  if (!edited.is_running && !edited.is_suspended) {
    guest.removeMember(kPending);
    return;
  }
  std::set<std::string> names;
  for (const Json::Value& name : json::Elements(json::Member(edited.before, kPending))) {
    if (name.isString()) names.insert(json::String(name));
  }
  for (const std::string& name : json::MemberNames(edited.request.members)) {
    const GuestSetting* const setting = FindGuestSetting(name);
    const bool is_immediate = setting && setting->applies == Applies::kImmediately;
    if (!is_immediate && json::Member(guest, name) != json::Member(edited.before, name)) names.insert(name);
  }
  if (IsChanged(edited, keys::vdisks, edited.disks)) names.insert(keys::vdisks);
  if (IsChanged(edited, keys::vnics, edited.nics)) names.insert(keys::vnics);
  if (names.empty()) return;
  Json::Value pending(Json::arrayValue);
  for (const std::string& name : names) pending.append(name);
  guest[kPending] = std::move(pending);
}

void WriteParts(EditedGuest& edited, const DashCate& category, const std::vector<EditedPart>& parts) {
  for (const EditedPart& part : parts) {
    if (part.stored.revision == 0 || part.stored.record != part.before) {
      cluster::PutObject(edited.plan.transaction, PartKey(category, part.id), part.stored);
    } else {
      // Other changes depend on this record.
      edited.plan.transaction.compares.push_back({PartKey(category, part.id), part.stored.revision});
    }
  }
}

Status RemoveParts(EditedGuest& edited, const DashCate& category, const std::vector<std::string>& ids) {
  store::Transaction& transaction = edited.plan.transaction;
  for (const std::string& id : ids) {
    const Status scanned = edited.snapshot.Scan(store::MakeKey({"dash", category.name(), id}),
                                                [&](std::string_view key, const store::ValueView& value) {
                                                  transaction.compares.push_back({std::string(key), value.revision});
                                                  transaction.operations.push_back({std::string(key), std::nullopt});
                                                  return true;
                                                });
    if (!scanned) return scanned;
    // Includes a state that its host writes only after this was read.
    if (&category == &DashCate::vDisk) transaction.operations.push_back({DiskStateKey(id), std::nullopt});
  }
  return {};
}

// Every commit that takes an address writes this key, which is also used to reserve new addresses: of two that take the
// same address at the same time, one gets a conflict and checks again.
Status WriteMacs(EditedGuest& edited) {
  for (const std::string& mac : edited.taken_macs) {
    const std::string key = store::MakeKey({"mac", std::string_view(mac).substr(15), mac});
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

// Every commit that makes a record name a file writes this key, so that code about to remove the file checks again.
void WriteFilesKey(EditedGuest& edited) {
  const bool changes_drives =
      json::Member(edited.guest.record, keys::iso_images) != json::Member(edited.before, keys::iso_images);
  if (edited.plan.files.made.empty() && !changes_drives) return;
  edited.plan.transaction.operations.push_back({FilesKey(), json::ToText(Json::Value(edited.id))});
}

Status Write(EditedGuest& edited) {
  WriteList(edited, keys::vdisks, edited.disks);
  WriteList(edited, keys::vnics, edited.nics);
  WritePending(edited);
  store::Transaction& transaction = edited.plan.transaction;
  if (edited.guest.record != edited.before) {
    cluster::PutObject(transaction, GuestObjectKey(edited.id), edited.guest);
  } else {
    transaction.compares.push_back({GuestObjectKey(edited.id), edited.guest.revision});
  }
  WriteParts(edited, DashCate::vDisk, edited.disks);
  WriteParts(edited, DashCate::vNic, edited.nics);
  if (Status removed = RemoveParts(edited, DashCate::vDisk, edited.removed_disks); !removed) return removed;
  if (Status removed = RemoveParts(edited, DashCate::vNic, edited.removed_nics); !removed) return removed;
  WriteFilesKey(edited);
  return WriteMacs(edited);
}

void NoteImages(EditedGuest& edited) {
  for (const Json::Value* record : {&edited.before, &edited.guest.record}) {
    for (const Json::Value& image : json::Elements(json::Member(*record, keys::iso_images))) {
      if (!image.isString()) continue;
      if (auto path = NormalPath(json::String(image))) edited.plan.files.images.insert(std::move(*path));
    }
  }
}

}  // namespace

Result<EditPlan> PlanEdit(const EditOptions& options, const std::string& guest_id, const EditRequest& request,
                          const NewIds& ids, const store::Snapshot& snapshot, FileFacts& facts) {
  EditedGuest edited{options, request, ids, snapshot, facts, guest_id, {},    {},    {},
                     {},      {},      {},  {},       {},    {},       false, false, {}};
  Status done = Load(edited);
  if (!done) return done.error();
  if (edited.plan.refused) return std::move(edited.plan);
  const hypervisor::GuestRecords before = RecordsOf(edited, Version::kBefore);
  for (const std::string& name : json::MemberNames(request.members)) {
    edited.guest.record[name] = json::Member(request.members, name);
  }
  using Part = Status (*)(EditedGuest&);
  for (const Part part : {Part(EditName), Part(EditNics), Part(CheckImages)}) {
    done = part(edited);
    if (!done) return done.error();
    if (edited.IsOver()) return std::move(edited.plan);
  }
  for (const auto part : {EditDisks, CheckTogether, CheckPins}) part(edited);
  if (edited.IsOver()) return std::move(edited.plan);
  CheckMachine(edited, before);
  if (edited.plan.refused) return std::move(edited.plan);
  NoteImages(edited);
  edited.plan.files.repository_id = edited.repository_id;
  done = Write(edited);
  if (!done) return done.error();
  return std::move(edited.plan);
}

}  // namespace vexa::guests
