// Definitions of guests: who owns them, and what is removed with them.
#include <fmt/format.h>

#include <pugixml.hpp>
#include <string_view>

#include "host/base/uuid.h"
#include "host/domain_xml/domain_build.h"
#include "host/hypervisor/libvirt_hypervisor.h"

namespace vexa::hypervisor {
namespace {

// According to the ownership tag of the definition in effect now. A guest without metadata, or of a driver without
// metadata, belongs to a user.
Owner OwnerOf(virDomainPtr domain) {
  const StringHandle text(virDomainGetMetadata(domain, VIR_DOMAIN_METADATA_ELEMENT, domain_xml::kOwnershipTagNamespace,
                                               VIR_DOMAIN_AFFECT_CURRENT));
  pugi::xml_document tag;
  if (!text || !tag.load_string(text.get())) return Owner::kUser;
  const std::string_view persistence = tag.document_element().attribute("kept").value();
  return persistence == "yes" ? Owner::kImported : Owner::kHost;
}

std::string NvramIn(const char* xml) {
  pugi::xml_document document;
  if (!document.load_string(xml)) return "";
  const pugi::xml_node nvram = document.document_element().child("os").child("nvram");
  const std::string_view type = nvram.attribute("type").value();
  if (type == "file") return nvram.child("source").attribute("file").value();
  return type.empty() ? nvram.child_value() : "";
}

bool HasSavedMemory(virDomainPtr domain) { return virDomainHasManagedSaveImage(domain, 0) == 1; }

}  // namespace

// A state that the driver does not support counts as absent.
bool LibvirtHypervisor::HasExtraState(const DomainOnConnection& guest) const {
  virDomain* const domain = guest.domain.get();
  return HasSavedMemory(domain) || virDomainSnapshotNum(domain, 0) > 0 ||
         virDomainListAllCheckpoints(domain, nullptr, 0) > 0;
}

Result<void, Failure> LibvirtHypervisor::Undefine(const std::string& id, UndefineScope scope) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  const std::string failed = fmt::format("Cannot undefine the guest {}", id);
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (!state) return GuestFailure(*guest, Operation::kUndefine, failed);
  // libvirt would let it continue to run without a definition.
  if (IsActive(*state)) return Failure(FailureKind::kAlreadyRunning, failed, "It is running. Power it off first");
  const bool removes_state = scope == UndefineScope::kEverything;
  if (!removes_state && HasExtraState(*guest)) {
    return Failure(FailureKind::kHasState, failed, "It has a saved memory image, snapshots or checkpoints");
  }
  constexpr unsigned kRemoveSavedState = VIR_DOMAIN_UNDEFINE_MANAGED_SAVE | VIR_DOMAIN_UNDEFINE_SNAPSHOTS_METADATA |
                                         VIR_DOMAIN_UNDEFINE_CHECKPOINTS_METADATA;
  constexpr unsigned kKeepFiles = VIR_DOMAIN_UNDEFINE_KEEP_NVRAM | VIR_DOMAIN_UNDEFINE_KEEP_TPM;
  // The state of a TPM is kept with its definition and removed with the guest.
  constexpr unsigned kRemoveTpm = VIR_DOMAIN_UNDEFINE_KEEP_NVRAM | VIR_DOMAIN_UNDEFINE_TPM;
  // Drivers refuse flags for features that they lack. Without flags, libvirt keeps what the flags would remove.
  std::vector<unsigned> attempts{kKeepFiles, 0};
  if (removes_state) attempts = {kRemoveSavedState | kRemoveTpm, kRemoveSavedState, VIR_DOMAIN_UNDEFINE_MANAGED_SAVE};
  for (const unsigned flags : attempts) {
    if (virDomainUndefineFlags(guest->domain.get(), flags) == 0) return {};
    const FailureKind kind = LastFailure(Operation::kUndefine, "").kind();
    if (kind != FailureKind::kInvalid && kind != FailureKind::kUnsupported) break;
  }
  return GuestFailure(*guest, Operation::kUndefine, failed);
}

Result<void, Failure> LibvirtHypervisor::DiscardSaved(const std::string& id) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  if (!HasSavedMemory(guest->domain.get())) return {};
  if (virDomainManagedSaveRemove(guest->domain.get(), 0) == 0) return {};
  return GuestFailure(*guest, Operation::kUndefine, fmt::format("Cannot remove the saved memory of the guest {}", id));
}

Result<bool, Failure> LibvirtHypervisor::DiscardOutdatedSaved(const std::string& id) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  if (!HasSavedMemory(guest->domain.get())) return false;
  // A save that has succeeded since then has ended the guest, and one that has failed has removed its file.
  const GuestOperationLocks::Lock lock(guest_locks_, NormalizeUuid(id));
  virDomainJobInfo job{};
  const bool has_no_job = virDomainGetJobInfo(guest->domain.get(), &job) == 0 && job.type == VIR_DOMAIN_JOB_NONE;
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (!has_no_job || !state || !IsActive(*state)) return false;
  if (virDomainManagedSaveRemove(guest->domain.get(), 0) == 0) return true;
  return MakeFailure(guest->connection, Operation::kUndefine,
                     fmt::format("Cannot remove the outdated saved memory of the guest {}, which runs", id));
}

Result<Definition, Failure> LibvirtHypervisor::DefinitionOf(const std::string& id) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  virDomain* const domain = guest->domain.get();
  const std::string failed = fmt::format("Cannot read the definition of the guest {}", id);
  const std::optional<GuestState> state = StateOfDomain(domain);
  if (!state) return MakeFailure(guest->connection, Operation::kRead, failed);
  const int is_persistent = virDomainIsPersistent(domain);
  const StringHandle xml(virDomainGetXMLDesc(domain, VIR_DOMAIN_XML_INACTIVE));
  if (is_persistent < 0 || !xml) return MakeFailure(guest->connection, Operation::kRead, failed);
  Definition definition;
  definition.state = *state;
  const char* const name = virDomainGetName(domain);
  definition.name = name != nullptr ? name : "";
  definition.owner = OwnerOf(domain);
  definition.is_persistent = is_persistent == 1;
  definition.nvram = NvramIn(xml.get());
  return definition;
}

Result<std::string, Failure> LibvirtHypervisor::XmlOf(const std::string& id) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  // Including secrets, because this may be the only remaining copy of the definition.
  const StringHandle xml(virDomainGetXMLDesc(guest->domain.get(), VIR_DOMAIN_XML_INACTIVE | VIR_DOMAIN_XML_SECURE));
  if (!xml)
    return MakeFailure(guest->connection, Operation::kRead, fmt::format("Cannot read the XML of the guest {}", id));
  return std::string(xml.get());
}

Result<std::string, Failure> LibvirtHypervisor::SavedXmlOf(const std::string& id) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  const StringHandle xml(virDomainManagedSaveGetXMLDesc(guest->domain.get(), VIR_DOMAIN_SAVE_IMAGE_XML_SECURE));
  if (xml) return std::string(xml.get());
  return MakeFailure(guest->connection, Operation::kRead,
                     fmt::format("Cannot read the XML that was saved with the memory of the guest {}", id));
}

Result<std::string, Failure> LibvirtHypervisor::RunningXmlOf(const std::string& id) {
  const std::string failed = fmt::format("Cannot read the XML of the guest {}, which runs", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  const Result<StringHandle, Failure> xml = RunningXml(*guest, failed);
  if (!xml) return xml.error();
  return std::string(xml->get());
}

Result<bool, Failure> LibvirtHypervisor::IsAutostarted(const std::string& id) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  int autostart = 0;
  if (virDomainGetAutostart(guest->domain.get(), &autostart) == 0) return autostart != 0;
  return MakeFailure(guest->connection, Operation::kRead,
                     fmt::format("Cannot read whether the guest {} starts automatically", id));
}

Result<void, Failure> LibvirtHypervisor::SetAutostart(const std::string& id, bool autostart) {
  const Result<DomainOnConnection, Failure> guest = Find(id);
  if (!guest) return guest.error();
  if (virDomainSetAutostart(guest->domain.get(), autostart ? 1 : 0) == 0) return {};
  return MakeFailure(guest->connection, Operation::kDefine,
                     fmt::format("Cannot set whether the guest {} starts automatically", id));
}

}  // namespace vexa::hypervisor
