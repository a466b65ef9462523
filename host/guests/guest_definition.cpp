// libvirt's definitions of guests: who owns them, how this host makes its own, and how it hands them back.
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <utility>

#include "host/base/uuid.h"
#include "host/domain_xml/domain_xml.h"
#include "host/guests/deletion/deletion_plan.h"
#include "host/guests/guest_control_impl.h"
#include "host/guests/host_networks.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/guest_admin.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/reading.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using hypervisor::Owner;
using hypervisor::Problem;

std::string FolderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// The path of an image in a drive, which a record names by its path or by the image's id.
Result<std::string> ImagePath(const std::string& image) {
  if (image.starts_with('/')) return image;
  const Result<cluster::Record> record = cluster::ReadObject("image", image);
  if (!record) return record.error();
  const Json::Value& path = json::Member(**record, "path");
  if (path.isString()) return json::String(path);
  return Error(ErrorCode::kCorrupt, "The record of the image '" + image + "' says no path");
}

// The folder of the guest's first image: its machine can access it in any case, and it moves with the guest. "" when it
// has no image.
std::string FolderForNvram(const Guest& guest) {
  for (const auto& [id, disk] : guest.records.disks) {
    const std::optional<std::string> path = NormalPath(json::TextMember(disk, "path"));
    if (path && !path->starts_with("/dev/")) return FolderOf(*path);
  }
  return "";
}

// Determines which networks of the guest's interfaces are bridges of this host.
void AddBridges(const Guest& guest, hypervisor::BuildOptions& build) {
  const HostNetworks networks(nullptr);
  for (const auto& [id, nic] : guest.records.nics) {
    const std::string name = json::TextMember(nic, "network_name");
    const BridgeKind kind = networks.KindOf(name);
    if (kind == BridgeKind::kSwitch) build.switch_bridges.insert(name);
    if (kind == BridgeKind::kLinux) build.kernel_bridges.insert(name);
  }
}

}  // namespace

Result<std::optional<DomainRecord>> LibvirtGuestControl::ImportedDomain(const std::string& guest_id) const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  auto stored = ReadDomain(**snapshot, guest_id);
  if (!stored) return stored.error();
  if (!*stored) return std::optional<DomainRecord>();
  return std::optional(std::move((*stored)->domain));
}

// From now on this host defines the guest. The definition that it replaces may be newer than the imported one.
Status LibvirtGuestControl::KeepOriginal(const std::string& guest_id) {
  auto xml = hypervisor_->XmlOf(guest_id);
  if (!xml) return xml.failure().error();
  const auto autostart = hypervisor_->IsAutostarted(guest_id);
  if (!autostart) return autostart.failure().error();
  return cluster::CommitPlanned(*options_.store, [&]() -> Result<store::Transaction> {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    const auto stored = ReadDomain(**snapshot, guest_id);
    if (!stored) return stored.error();
    store::Transaction transaction;
    // A guest that has disappeared meanwhile does not hand over anything.
    if (!*stored) return transaction;
    const DomainRecord& before = (*stored)->domain;
    // A host that gave the guest away has switched autostart off there.
    const DomainRecord now{*xml, *autostart || before.autostart};
    if (now.xml == before.xml && now.autostart == before.autostart) return transaction;
    transaction.compares.push_back({DomainKey(guest_id), (*stored)->revision});
    transaction.operations.push_back({DomainKey(guest_id), DomainText(now)});
    return transaction;
  });
}

// Where to create the UEFI variables of a guest that has none yet, named by its id; "" to let libvirt choose.
std::string LibvirtGuestControl::NewNvramPath(const Guest& guest) const {
  std::string folder = FolderForNvram(guest);
  if (folder.empty() && !options_.image_roots.empty() && VexaCCC::Utils::isUUID(guest.repository_id)) {
    folder = options_.image_roots.front() + "/" + guest.repository_id;
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return "";
  }
  return folder.empty() ? "" : folder + "/" + guest.records.id + "_VARS.fd";
}

Result<std::string> LibvirtGuestControl::DomainXml(const Guest& guest, const std::vector<unsigned>& pinned_cpus,
                                                   Mark mark) {
  hypervisor::BuildOptions build;
  build.domain_type = hypervisor_->DomainType();
  build.cpu_shares = hypervisor_->ProcessorShares();
  build.pinned_cpus = pinned_cpus;
  build.image_path = ImagePath;
  std::error_code error;
  if (!ForgetsGuests() && !std::filesystem::exists("/sys/bus/usb", error)) build.usb_bus = hypervisor::UsbBus::kAbsent;
  if (mark == Mark::kOurs) build.host_id = options_.host_id;
  for (std::string& network : LibvirtNetworks()) build.libvirt_networks.insert(std::move(network));
  if (!ForgetsGuests()) AddBridges(guest, build);
  auto imported = ImportedDomain(guest.records.id);
  if (!imported) return imported.error();
  if (*imported) build.base_xml = std::move((*imported)->xml);
  hypervisor::GuestRecords records = guest.records;
  const std::string name = MachineName(guest);
  if (name.empty()) {
    records.guest.removeMember("name");
  } else {
    records.guest["name"] = name;
  }
  const bool has_variables = json::Bool(json::Member(records.guest, keys::use_ovmf)) && !ForgetsGuests();
  if (has_variables && json::TextMember(records.guest, kNvramMember).empty() && build.base_xml.empty()) {
    const std::string path = NewNvramPath(guest);
    if (!path.empty()) records.guest[kNvramMember] = path;
  }
  return hypervisor::BuildDomainXml(records, build);
}

// A machine that libvirt already has keeps its name, because another one may have the guest's name by now; "" when
// another one has it.
std::string LibvirtGuestControl::MachineName(const Guest& guest) {
  const std::string id = NormalizeUuid(guest.records.id);
  const auto known = hypervisor_->List();
  if (!known) return guest.name;
  const auto own = std::ranges::find(*known, id, &hypervisor::KnownGuest::id);
  if (own != known->end()) return own->name;
  const bool is_taken = std::ranges::find(*known, guest.name, &hypervisor::KnownGuest::name) != known->end();
  return is_taken ? "" : guest.name;
}

// libvirt would create an empty file in place of a missing one, and the guest would lose its variables.
Refused LibvirtGuestControl::RefuseMissingNvram(const Guest& guest) const {
  const std::string path = json::TextMember(guest.records.guest, kNvramMember);
  if (path.empty() || ForgetsGuests() || !json::Bool(json::Member(guest.records.guest, keys::use_ovmf))) return {};
  struct stat info {};
  // The file may be in a place that this process may not read.
  if (::stat(path.c_str(), &info) == 0 || (errno != ENOENT && errno != ENOTDIR)) return {};
  return Refusal{kUnavailable, "The file with the guest's UEFI variables, '" + path +
                                   "', is missing: bring its storage back, or put a file of empty variables there "
                                   "(a copy of the firmware's template)"};
}

Status LibvirtGuestControl::RecordNvram(const std::string& guest_id, const hypervisor::Definition& definition) {
  if (definition.nvram.empty()) return {};
  // An earlier start that failed too soon has not created it, and libvirt will.
  struct stat info {};
  if (::stat(definition.nvram.c_str(), &info) != 0 && (errno == ENOENT || errno == ENOTDIR)) return {};
  return cluster::CommitPlanned(*options_.store, [&]() -> Result<store::Transaction> {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    auto guest = cluster::LoadObject(**snapshot, GuestObjectKey(guest_id));
    if (!guest) return guest.error();
    store::Transaction transaction;
    if (guest->revision == 0 || !json::TextMember(guest->record, kNvramMember).empty()) return transaction;
    guest->record[kNvramMember] = definition.nvram;
    cluster::PutObject(transaction, GuestObjectKey(guest_id), *guest);
    transaction.operations.push_back({FilesKey(), json::ToText(Json::Value(guest_id))});
    return transaction;
  });
}

Refused LibvirtGuestControl::DiscardSaved(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "discard_saved", requester, [&] {
    return Ask(guest_id, [&]() -> Done {
      const auto state = hypervisor_->StateOf(guest_id);
      if (!state) return state.failure();
      if (*state != hypervisor::GuestState::kSaved) {
        return hypervisor::Failure(Problem::kNotRunning, "The guest has no saved memory");
      }
      Step("discard: asked");
      ends_by_.Expect(guest_id, {cluster::ShutdownCause::kPoweredOff, true});
      Done discarded = hypervisor_->DiscardSaved(guest_id);
      if (!discarded) ends_by_.Cancel(guest_id);
      return discarded;
    });
  });
}

Refused LibvirtGuestControl::Release(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "release", requester, [&] {
    // If the guest has only just gone off, the cleanup may not have been done yet.
    Look(guest_id);
    return GiveBack(guest_id);
  });
}

Refused LibvirtGuestControl::DefineGuest(const Guest& guest, const std::vector<unsigned>& pinned_cpus, Mark mark) {
  const Result<std::string> xml = DomainXml(guest, pinned_cpus, mark);
  if (!xml) return Refusal{kFailed, xml.error().ToString()};
  const auto defined = hypervisor_->Define(*xml);
  if (!defined) return RefusalOf(defined.failure());
  return {};
}

// libvirt stores this setting with the definition, and loses it with it.
Refused LibvirtGuestControl::RestoreAutostart(const std::string& guest_id) {
  const auto imported = ImportedDomain(guest_id);
  if (!imported) return RefusalOf(imported.error());
  if (!*imported || !(*imported)->autostart) return {};
  const auto set = hypervisor_->SetAutostart(guest_id, true);
  if (!set) return RefusalOf(set.failure());
  return {};
}

// The definition first: a host that ends in between has handed back what it still knows, and can be asked again.
Refused LibvirtGuestControl::GiveBack(const std::string& guest_id) {
  const Result<Guest> guest = ReadGuest(guest_id);
  if (!guest) return RefusalOf(guest.error());
  cluster::RequestScope::ReleaseSnapshot();
  if (guest->host_id != options_.host_id) {
    return Refusal{kElsewhere, "The guest belongs to the host '" + guest->host_id + "'"};
  }
  if (Refused taken = RefuseTaken(guest_id)) return taken;
  if (Refused active = RefuseActive(guest_id)) return active;
  const auto definition = hypervisor_->DefinitionOf(guest_id);
  if (!definition && definition.failure().problem() != Problem::kNoSuchGuest) return RefusalOf(definition.failure());
  if (!definition || definition->owner != Owner::kUser) {
    // The mark is removed last: until then an interrupted release is repeated completely.
    if (!definition) {
      if (Refused refused = DefineGuest(*guest, {}, Mark::kOurs)) return refused;
      Step("release: marked");
    }
    if (Refused refused = RestoreAutostart(guest_id)) return refused;
    if (Refused refused = DefineGuest(*guest, {}, Mark::kNone)) return refused;
  }
  Step("release: defined");
  if (const Status removed = RemoveRecords(guest_id); !removed) return RefusalOf(removed.error());
  return {};
}

void LibvirtGuestControl::RemoveDefinitions() {
  std::vector<std::string> guest_ids;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return;
    auto children = (*snapshot)->Children(store::MakeKey({"undefine", options_.host_id}));
    if (!children) return;
    guest_ids = std::move(*children);
  }
  for (const std::string& guest_id : guest_ids) {
    // The current holder of the guest may be defining it.
    auto claim = claims_.TakeToLook(guest_id);
    if (!claim) continue;
    RemoveNoted(guest_id);
    LookAndRelease(*std::move(claim), guest_id);
  }
}

void LibvirtGuestControl::RemoveNoted(const std::string& guest_id) {
  const std::string note = UndefineKey(options_.host_id, guest_id);
  store::Revision revision = 0;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return;
    const auto value = (*snapshot)->Get(note);
    if (!value || !*value) return;
    revision = (*value)->revision;
  }
  const Result<bool> removed = RemoveDefinition(guest_id);
  if (!removed) {
    ::syslog(LOG_ERR,
             "The definition of the guest[%s], which this host has no more, could not be removed; it is tried "
             "again: %s",
             guest_id.c_str(), removed.error().ToString().c_str());
  }
  if (!removed || !*removed) return;
  cluster::RequestScope::ReleaseSnapshot();
  // A note that stays, or was written again, is found again.
  (void)options_.store->Commit({{{note, revision}}, {{note, std::nullopt}}});
}

// False: its machine exists, so it is retried.
Result<bool> LibvirtGuestControl::RemoveDefinition(const std::string& guest_id) {
  bool has_moved = false;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    const auto guest = cluster::LoadObject(**snapshot, GuestObjectKey(guest_id));
    if (!guest) return guest.error();
    has_moved = guest->revision != 0;
    // A guest that has returned to this host uses the definition itself.
    if (has_moved && json::TextMember(guest->record, keys::host_id) == options_.host_id) return true;
  }
  const auto definition = hypervisor_->DefinitionOf(guest_id);
  if (!definition) {
    const Problem problem = definition.failure().problem();
    if (problem == Problem::kNoSuchGuest || problem == Problem::kInvalid) return true;
    if (problem == Problem::kDisconnected) return false;
    return definition.failure().error();
  }
  if (IsActive(definition->state)) return false;
  if (definition->owner == Owner::kUser) {
    const auto imported = has_moved ? ImportedDomain(guest_id) : Result<std::optional<DomainRecord>>(std::nullopt);
    if (!imported) return imported.error();
    // It was handed over, and must not start with this host's machine while another host has the guest.
    if (*imported) (void)hypervisor_->SetAutostart(guest_id, false);
    return true;
  }
  const auto scope = has_moved ? hypervisor::UndefineScope::kDefinition : hypervisor::UndefineScope::kEverything;
  if (has_moved) (void)hypervisor_->SetAutostart(guest_id, false);  // in case the definition has to stay
  const auto undefined = hypervisor_->Undefine(guest_id, scope);
  if (undefined) return true;
  const Problem problem = undefined.failure().problem();
  if (problem == Problem::kNoSuchGuest || problem == Problem::kHasState) return true;
  return undefined.failure().error();
}

Status LibvirtGuestControl::RemoveRecords(const std::string& guest_id) {
  return cluster::CommitPlanned(*options_.store, [&]() -> Result<store::Transaction> {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    Result<DeletionPlan> plan = PlanDeletion(**snapshot, guest_id);
    if (!plan) return plan.error();
    store::Transaction transaction;
    transaction.compares = std::move(plan->compares);
    transaction.operations = std::move(plan->removals);
    std::vector<Error> damage;
    if (const Status added = cluster::AddGrantRemovals(**snapshot, guest_id, transaction, damage); !added) {
      return added.error();
    }
    CompareFree(transaction, guest_id);
    return transaction;
  });
}

}  // namespace vexa::guests
