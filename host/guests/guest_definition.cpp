// libvirt's definitions of guests: who owns them, how this host makes its own, and how it hands them back.
#include <fmt/format.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <utility>

#include "host/base/uuid.h"
#include "host/domain_xml/domain_images.h"
#include "host/domain_xml/domain_parse.h"
#include "host/guests/deletion/deletion_plan.h"
#include "host/guests/guest_control_impl.h"
#include "host/guests/host_networks.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/records/guest_admin.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/reader.h"
#include "host/storage/image_folder.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

using hypervisor::FailureKind;
using hypervisor::Owner;

// Once: emulated guests work, and those who wonder why they are slow look here.
void WarnOfEmulation() {
  static std::atomic_flag has_warned;
  if (has_warned.test_and_set()) return;
  ::syslog(LOG_WARNING,
           "KVM does not work on this machine, so its guests are emulated, many times slower. 'sudo vexa setup' shows "
           "what is missing.");
}

std::string FolderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// The path of the image in a CD-ROM drive. A guest's record has the path, or the image's id.
Result<std::string> ImagePath(const store::Store& store, const std::string& image) {
  if (image.starts_with('/')) return image;
  const auto reader = records::Reader::Open(store);
  if (!reader) return reader.error();
  const Result<records::Record> record = reader->ReadObject("image", image);
  if (!record) return record.error();
  const Json::Value& path = json::Member(**record, "path");
  if (path.isString()) return json::String(path);
  return Error(ErrorCode::kCorrupt, fmt::format("The record of the image '{}' has no path", image));
}

// The folder of the guest's first disk image: the domain can access it in any case, and it moves with the guest. ""
// when the guest has no disk image.
std::string FolderForNvram(const records::Guest& guest) {
  for (const auto& [id, disk] : guest.records.disks) {
    const std::optional<std::string> path = disks::NormalPath(json::StringMember(disk, "path"));
    if (path && !path->starts_with("/dev/")) return FolderOf(*path);
  }
  return "";
}

// The owner's definition with the images of an import that has copied them. A disk that was added since keeps its own.
Result<std::string> WithOwnImages(const std::string& xml, const std::string& imported_xml) {
  const auto images = domain_xml::ParseDomainImages(imported_xml);
  if (!images) return images.error();
  return domain_xml::ReplaceDomainImages(xml, images->disks);
}

// Adds to `build` which networks of the guest's interfaces are bridges of this host.
void AddBridges(const records::Guest& guest, domain_xml::BuildOptions& build) {
  const HostNetworks networks(nullptr);
  for (const auto& [id, nic] : guest.records.nics) {
    const std::string name = json::StringMember(nic, "network_name");
    const machine::BridgeKind kind = networks.KindOf(name);
    if (kind == machine::BridgeKind::kSwitch) build.switch_bridges.insert(name);
    if (kind == machine::BridgeKind::kLinux) build.kernel_bridges.insert(name);
  }
}

// Room for four times what a guest has, bounded by its host. More would cost a guest's system memory for nothing, and
// makes licences count processors.
constexpr unsigned kGrowthFactor = 4;
constexpr unsigned kVcpusPerCpu = 2;
// QEMU's machines number processors with 8 bits unless they have an IOMMU.
constexpr unsigned kMaxVcpus = 240;
// Processors that all hosts of a cluster have in common address 1 TiB, and memory modules leave gaps of 1 GiB.
constexpr std::uint64_t kMaxMemoryMib = 512 * 1024;
constexpr unsigned kFreePorts = 8;

domain_xml::HotPlugLimits HotPlugLimitsOf(const records::Guest& guest, const hypervisor::NodeInfo& node) {
  const std::uint64_t vcpus = json::UInt64(json::Member(guest.records.guest, keys::vcpu_num));
  const std::uint64_t memory_mib = json::UInt64(json::Member(guest.records.guest, keys::vram_size));
  domain_xml::HotPlugLimits limits;
  limits.vcpus = static_cast<unsigned>(std::min<std::uint64_t>(
      {kGrowthFactor * vcpus, std::uint64_t{kVcpusPerCpu} * node.cpus, std::uint64_t{kMaxVcpus}}));
  limits.memory_mib = std::min<std::uint64_t>({kGrowthFactor * memory_mib, node.memory_mib, kMaxMemoryMib});
  limits.free_ports = kFreePorts;
  return limits;
}

}  // namespace

Result<std::optional<records::DomainRecord>> LibvirtGuestControl::ImportedDomain(const std::string& guest_id) const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  auto stored = records::ReadDomain(**snapshot, guest_id);
  if (!stored) return stored.error();
  if (!*stored) return std::optional<records::DomainRecord>();
  return std::optional(std::move((*stored)->domain));
}

// Called before this host's first own definition of the guest replaces the owner's, which may be newer than the one
// that was imported.
Status LibvirtGuestControl::SaveOriginalDefinition(const std::string& guest_id) {
  auto xml = hypervisor_->XmlOf(guest_id);
  if (!xml) return xml.error();
  const auto autostart = hypervisor_->IsAutostarted(guest_id);
  if (!autostart) return autostart.error();
  return records::CommitWithRetry(*options_.store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    const auto stored = records::ReadDomain(reader, guest_id);
    if (!stored) return stored.error();
    store::Transaction transaction;
    // The guest was deleted meanwhile.
    if (!*stored) return transaction;
    const records::DomainRecord& before = (*stored)->domain;
    // A host from which the guest was moved away has switched autostart off there.
    records::DomainRecord now{*xml, *autostart || before.autostart, before.has_own_images};
    if (before.has_own_images) {
      Result<std::string> own = WithOwnImages(*xml, before.xml);
      if (!own) return own.error();
      now.xml = *std::move(own);
    }
    if (now.xml == before.xml && now.autostart == before.autostart) return transaction;
    transaction.compares.push_back({records::DomainKey(guest_id), (*stored)->revision});
    transaction.operations.push_back({records::DomainKey(guest_id), records::SerializeDomain(now)});
    return transaction;
  });
}

// The path at which to create the UEFI variables of a guest that has none yet; "" to let libvirt choose.
std::string LibvirtGuestControl::PrepareNvramPath(const records::Guest& guest) const {
  std::string folder = FolderForNvram(guest);
  if (folder.empty() && !options_.image_roots.empty() && VexaCCC::Utils::isUUID(guest.repository_id)) {
    folder = options_.image_roots.front() + "/" + guest.repository_id;
    if (!storage::MakeFolder(folder, storage::QemuAccessFor(options_.hypervisor.mode))) return "";
  }
  return folder.empty() ? "" : folder + "/" + guest.records.id + "_VARS.fd";
}

Result<std::string> LibvirtGuestControl::DomainXml(const records::Guest& guest, const records::Run& run,
                                                   OwnershipTag tag) {
  domain_xml::BuildOptions build;
  auto shared = SharedCpus(run);
  if (!shared) return shared.error();
  build.shared_cpus = *std::move(shared);
  build.max_cpu_weight = hypervisor_->MaxCpuWeight();
  build.keymaps = Keymaps();
  build.domain_type = hypervisor_->DomainType();
  // Without a connection, the type is not known.
  if (build.domain_type == "qemu" && hypervisor_->IsConnected()) WarnOfEmulation();
  build.cpu_shares = hypervisor_->CpuSharesSupport();
  build.pinned_cpus = run.pinned_cpus;
  for (const auto& [nic, function] : run.virtual_functions) build.virtual_functions.emplace(nic, function.address);
  build.image_path = [this](const std::string& image) { return ImagePath(*options_.store, image); };
  std::error_code error;
  if (!IsTestMode() && !std::filesystem::exists("/sys/bus/usb", error)) build.usb_bus = domain_xml::UsbBus::kAbsent;
  if (tag == OwnershipTag::kOurs) build.host_id = options_.host_id;
  for (std::string& network : LibvirtNetworks()) build.libvirt_networks.insert(std::move(network));
  if (!IsTestMode()) AddBridges(guest, build);
  // An owner who gets the guest back gets the machine that the records say.
  if (const auto node = GetNodeInfo(); node && tag == OwnershipTag::kOurs) {
    build.hot_plug = HotPlugLimitsOf(guest, *node);
  }
  if (IsTestMode()) build.hot_plug.memory_mib = 0;  // its driver has no memory modules
  auto imported = ImportedDomain(guest.records.id);
  if (!imported) return imported.error();
  if (*imported) build.base_xml = std::move((*imported)->xml);
  domain_xml::GuestRecords records = guest.records;
  const std::string name = DomainName(guest);
  if (name.empty()) {
    records.guest.removeMember("name");
  } else {
    records.guest["name"] = name;
  }
  const bool uses_uefi = json::Bool(json::Member(records.guest, keys::use_ovmf)) && !IsTestMode();
  if (uses_uefi && json::StringMember(records.guest, records::kNvramMember).empty() && build.base_xml.empty()) {
    const std::string path = PrepareNvramPath(guest);
    if (!path.empty()) records.guest[records::kNvramMember] = path;
  }
  return domain_xml::BuildDomainXml(records, build);
}

// A domain that already exists keeps its name, because another domain may have the guest's name by now. "" when another
// domain has it.
std::string LibvirtGuestControl::DomainName(const records::Guest& guest) {
  const std::string id = NormalizeUuid(guest.records.id);
  const auto known = hypervisor_->List();
  if (!known) return guest.name;
  const auto own = std::ranges::find(*known, id, &hypervisor::KnownGuest::id);
  if (own != known->end()) return own->name;
  const bool is_taken = std::ranges::find(*known, guest.name, &hypervisor::KnownGuest::name) != known->end();
  return is_taken ? "" : guest.name;
}

// libvirt would create an empty file in place of a missing one, and the guest would lose its variables.
Result<void, Refusal> LibvirtGuestControl::CheckNvramExists(const records::Guest& guest) const {
  const std::string path = json::StringMember(guest.records.guest, records::kNvramMember);
  if (path.empty() || IsTestMode() || !json::Bool(json::Member(guest.records.guest, keys::use_ovmf))) return {};
  struct stat info {};
  // On any other error the file may exist: this process may not have access to its folder.
  if (::stat(path.c_str(), &info) == 0 || (errno != ENOENT && errno != ENOTDIR)) return {};
  return Refusal{host_error::kUnavailable,
                 fmt::format("The file with the guest's UEFI variables, '{}', is missing. Bring its storage back, or "
                             "put a file of empty variables there (a copy of the firmware's template)",
                             path)};
}

Status LibvirtGuestControl::RecordNvram(const std::string& guest_id, const hypervisor::Definition& definition) {
  if (definition.nvram.empty()) return {};
  // libvirt creates the file at a start; one that failed too early has not.
  struct stat info {};
  if (::stat(definition.nvram.c_str(), &info) != 0 && (errno == ENOENT || errno == ENOTDIR)) return {};
  return records::CommitWithRetry(*options_.store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    auto guest = records::LoadObject(reader, records::GuestObjectKey(guest_id));
    if (!guest) return guest.error();
    store::Transaction transaction;
    if (guest->revision == 0 || !json::StringMember(guest->record, records::kNvramMember).empty()) return transaction;
    guest->record[records::kNvramMember] = definition.nvram;
    records::PutObject(transaction, records::GuestObjectKey(guest_id), *guest);
    transaction.operations.push_back({records::FileReferencesGuardKey(), json::ToText(Json::Value(guest_id))});
    return transaction;
  });
}

Result<void, Refusal> LibvirtGuestControl::DiscardSaved(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "discard_saved", requester, [&] {
    return CallHypervisor(guest_id, [&]() -> HypervisorStatus {
      const auto state = hypervisor_->StateOf(guest_id);
      if (!state) return state.error();
      if (*state != hypervisor::GuestState::kSaved) {
        return hypervisor::Failure(FailureKind::kNotRunning, "The guest has no saved memory");
      }
      BeforeStep("discard: asked");
      end_reasons_.Expect(guest_id, {records::ShutdownCause::kPoweredOff, true});
      HypervisorStatus discarded = hypervisor_->DiscardSaved(guest_id);
      if (!discarded) end_reasons_.Cancel(guest_id);
      return discarded;
    });
  });
}

Result<void, Refusal> LibvirtGuestControl::Release(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "release", requester, [&] {
    // The cleanup after the guest's last run may not have been done yet.
    Reconcile(guest_id);
    return ReturnToOwner(guest_id);
  });
}

Result<void, Refusal> LibvirtGuestControl::DefineGuest(const records::Guest& guest, const records::Run& run,
                                                       OwnershipTag tag) {
  const Result<std::string> xml = DomainXml(guest, run, tag);
  if (!xml) return Refusal{host_error::kFailed, xml.error().ToString()};
  const auto defined = hypervisor_->Define(*xml);
  if (!defined) return RefusalOf(defined.error());
  if (tag == OwnershipTag::kOurs) ClearAutostart(guest.records.id, Owner::kHost);
  return {};
}

// A libvirt that starts with its machine would start the guest before this host knows whether it still has the guest,
// and beside another host that has taken it.
void LibvirtGuestControl::ClearAutostart(const std::string& guest_id, Owner owner) {
  const auto is_set = hypervisor_->IsAutostarted(guest_id);
  // Drivers without the setting start no guests.
  if (!is_set || !*is_set) return;
  BeforeStep("autostart: found");
  const auto clear = [&]() -> Result<void, Refusal> {
    if (owner == Owner::kUser) {
      if (const Status kept = SaveOriginalDefinition(guest_id); !kept) return RefusalOf(kept.error());
    }
    if (const Status set = SetAutorun(guest_id); !set) return RefusalOf(set.error());
    const auto cleared = hypervisor_->SetAutostart(guest_id, false);
    return cleared ? Result<void, Refusal>() : RefusalOf(cleared.error());
  };
  if (const auto cleared = clear(); cleared.ok()) {
    ::syslog(LOG_NOTICE,
             "libvirt was set to start the guest %s with the machine. The setting was cleared, because VEXA starts its "
             "guests",
             guest_id.c_str());
  } else {
    ::syslog(LOG_ERR, "libvirt is set to start the guest %s with the machine, and the setting could not be cleared: %s",
             guest_id.c_str(), cleared.error().reason.c_str());
  }
}

// The guest goes on starting with its machine.
Status LibvirtGuestControl::SetAutorun(const std::string& guest_id) {
  return records::CommitWithRetry(*options_.store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    auto guest = records::LoadObject(reader, records::GuestObjectKey(guest_id));
    if (!guest) return guest.error();
    store::Transaction transaction;
    if (guest->revision == 0 || json::Int(json::Member(guest->record, keys::autorun)) != 0) return transaction;
    guest->record[keys::autorun] = 1;
    records::PutObject(transaction, records::GuestObjectKey(guest_id), *guest);
    return transaction;
  });
}

void LibvirtGuestControl::ClearAutostartIfOurs(const std::string& guest_id) {
  const auto definition = hypervisor_->DefinitionOf(guest_id);
  if (!definition || !definition->is_persistent) return;
  if (definition->owner == Owner::kUser && !IsImportedHere(guest_id)) return;
  ClearAutostart(guest_id, definition->owner);
}

// Whether the guest belongs to this host, and its owner's definition was handed over.
bool LibvirtGuestControl::IsImportedHere(const std::string& guest_id) const {
  const auto imported = ImportedDomain(guest_id);
  if (!imported || !*imported) return false;
  const Result<records::Guest> guest = ReadGuestNow(guest_id);
  return guest && guest->host_id == options_.host_id;
}

// For the owner to whom the definition is given back.
Result<void, Refusal> LibvirtGuestControl::RestoreAutostart(const std::string& guest_id) {
  const auto imported = ImportedDomain(guest_id);
  if (!imported) return RefusalOf(imported.error());
  if (!*imported || !(*imported)->autostart) return {};
  const auto set = hypervisor_->SetAutostart(guest_id, true);
  if (!set) return RefusalOf(set.error());
  return {};
}

// Writes the definition before it removes the records: if this host stops in between, the release can be repeated.
Result<void, Refusal> LibvirtGuestControl::ReturnToOwner(const std::string& guest_id) {
  const Result<records::Guest> guest = ReadGuestNow(guest_id);
  if (!guest) return RefusalOf(guest.error());
  if (guest->host_id != options_.host_id) {
    return OnOtherHost(guest->host_id);
  }
  if (const auto allowed = CheckNotHeld(guest_id); !allowed.ok()) return allowed;
  if (const auto allowed = CheckNotRunning(guest_id); !allowed.ok()) return allowed;
  const auto definition = hypervisor_->DefinitionOf(guest_id);
  if (!definition && definition.error().kind() != FailureKind::kNoSuchGuest) return RefusalOf(definition.error());
  if (!definition || definition->owner != Owner::kUser) {
    // Defined with the ownership tag first, which is removed last: until then an interrupted release is repeated
    // completely.
    if (!definition) {
      if (const auto allowed = DefineGuest(*guest, {}, OwnershipTag::kOurs); !allowed.ok()) return allowed;
      BeforeStep("release: marked");
    }
    if (const auto allowed = RestoreAutostart(guest_id); !allowed.ok()) return allowed;
    if (const auto allowed = DefineGuest(*guest, {}, OwnershipTag::kNone); !allowed.ok()) return allowed;
  } else if (const auto allowed = RestoreAutostart(guest_id); !allowed.ok()) {
    return allowed;
  }
  BeforeStep("release: defined");
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
    // A guest that is held may be about to be defined.
    auto guard = activities_.TryTakeForReconcile(guest_id);
    if (!guard) continue;
    RemoveListedDefinition(guest_id);
    ReconcileAndRelease(*std::move(guard), guest_id);
  }
}

void LibvirtGuestControl::RemoveListedDefinition(const std::string& guest_id) {
  const std::string key = records::UndefineKey(options_.host_id, guest_id);
  store::Revision revision = 0;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return;
    const auto value = (*snapshot)->Get(key);
    if (!value || !*value) return;
    revision = (*value)->revision;
  }
  const Result<bool> removed = RemoveDefinition(guest_id);
  if (!removed) {
    ::syslog(
        LOG_ERR,
        "The definition of guest[%s], which no longer belongs to this host, could not be removed; this is retried: %s",
        guest_id.c_str(), removed.error().ToString().c_str());
  }
  if (!removed || !*removed) return;
  // A key that could not be removed, or was written again, is found by the next maintenance.
  (void)options_.store->Commit({{{key, revision}}, {{key, std::nullopt}}});
}

// False: the domain is active or the hypervisor cannot be reached, so this is retried.
Result<bool> LibvirtGuestControl::RemoveDefinition(const std::string& guest_id) {
  bool has_record = false;  // the guest was not deleted, but given to another host
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    const auto guest = records::LoadObject(**snapshot, records::GuestObjectKey(guest_id));
    if (!guest) return guest.error();
    has_record = guest->revision != 0;
    // The guest has returned to this host and uses the definition.
    if (has_record && json::StringMember(guest->record, keys::host_id) == options_.host_id) return true;
  }
  const auto definition = hypervisor_->DefinitionOf(guest_id);
  if (!definition) {
    const FailureKind kind = definition.error().kind();
    if (kind == FailureKind::kNoSuchGuest || kind == FailureKind::kInvalid) return true;
    if (kind == FailureKind::kDisconnected) return false;
    return definition.error();
  }
  if (IsActive(definition->state)) return false;
  if (definition->owner == Owner::kUser) {
    const auto imported =
        has_record ? ImportedDomain(guest_id) : Result<std::optional<records::DomainRecord>>(std::nullopt);
    if (!imported) return imported.error();
    // The imported guest must not be started at boot of this host while another host holds it.
    if (*imported) (void)hypervisor_->SetAutostart(guest_id, false);
    return true;
  }
  const auto scope = has_record ? hypervisor::UndefineScope::kDefinition : hypervisor::UndefineScope::kEverything;
  if (has_record) (void)hypervisor_->SetAutostart(guest_id, false);  // in case the definition has to stay
  const auto undefined = hypervisor_->Undefine(guest_id, scope);
  if (undefined) return true;
  const FailureKind kind = undefined.error().kind();
  if (kind == FailureKind::kNoSuchGuest || kind == FailureKind::kHasState) return true;
  return undefined.error();
}

Status LibvirtGuestControl::RemoveRecords(const std::string& guest_id) {
  return records::CommitWithRetry(*options_.store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    Result<DeletionPlan> plan = PlanDeletion(reader, guest_id);
    if (!plan) return plan.error();
    store::Transaction transaction;
    transaction.compares = std::move(plan->compares);
    transaction.operations = std::move(plan->removals);
    std::vector<Error> damage;
    if (const Status added = records::AddGrantRemovals(reader, guest_id, transaction, damage); !added) {
      return added.error();
    }
    CompareFree(transaction, guest_id);
    return transaction;
  });
}

}  // namespace vexa::guests
