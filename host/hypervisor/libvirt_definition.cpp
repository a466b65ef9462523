// Definitions of guests: who owns them, and what is removed with them.
#include <pugixml.hpp>
#include <string_view>

#include "host/domain_xml/domain_build.h"
#include "host/hypervisor/libvirt_hypervisor.h"

namespace vexa::hypervisor {
namespace {

// Based on the definition in effect now. A guest without metadata, or of a driver without metadata, belongs to a user.
Owner OwnerOf(virDomainPtr domain) {
  const TextHandle text(
      virDomainGetMetadata(domain, VIR_DOMAIN_METADATA_ELEMENT, kMarkNamespace, VIR_DOMAIN_AFFECT_CURRENT));
  pugi::xml_document mark;
  if (!text || !mark.load_string(text.get())) return Owner::kUser;
  const std::string_view kept = mark.document_element().attribute("kept").value();
  return kept == "yes" ? Owner::kImported : Owner::kHost;
}

std::string NvramIn(const char* xml) {
  pugi::xml_document document;
  if (!document.load_string(xml)) return "";
  const pugi::xml_node nvram = document.document_element().child("os").child("nvram");
  const std::string_view type = nvram.attribute("type").value();
  if (type == "file") return nvram.child("source").attribute("file").value();
  return type.empty() ? nvram.child_value() : "";
}

bool HasSaved(virDomainPtr domain) { return virDomainHasManagedSaveImage(domain, 0) == 1; }

}  // namespace

// A state that the driver does not support counts as absent.
bool LibvirtHypervisor::HasState(const Found& guest) const {
  const virDomainPtr domain = guest.domain.get();
  return HasSaved(domain) || virDomainSnapshotNum(domain, 0) > 0 || virDomainListAllCheckpoints(domain, nullptr, 0) > 0;
}

Outcome<void> LibvirtHypervisor::Undefine(const std::string& id, UndefineScope scope) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  const std::string failed = "Cannot undefine the guest " + id;
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (!state) return FailedOn(*guest, Operation::kUndefine, failed);
  // libvirt would let it run on without a definition.
  if (IsActive(*state)) return Failure(Problem::kAlreadyRunning, failed, "It runs: power it off first");
  const bool is_all = scope == UndefineScope::kEverything;
  if (!is_all && HasState(*guest)) {
    return Failure(Problem::kHasState, failed, "It has a saved memory image, snapshots or checkpoints");
  }
  constexpr unsigned kAll = VIR_DOMAIN_UNDEFINE_MANAGED_SAVE | VIR_DOMAIN_UNDEFINE_SNAPSHOTS_METADATA |
                            VIR_DOMAIN_UNDEFINE_CHECKPOINTS_METADATA;
  constexpr unsigned kKeepFiles = VIR_DOMAIN_UNDEFINE_KEEP_NVRAM | VIR_DOMAIN_UNDEFINE_KEEP_TPM;
  // The state of a TPM is kept with its definition and removed with the guest.
  constexpr unsigned kRemoveState = VIR_DOMAIN_UNDEFINE_KEEP_NVRAM | VIR_DOMAIN_UNDEFINE_TPM;
  // Drivers refuse flags for features that they lack. Without flags, libvirt keeps what the flags would remove.
  std::vector<unsigned> tries{kKeepFiles, 0};
  if (is_all) tries = {kAll | kRemoveState, kAll, VIR_DOMAIN_UNDEFINE_MANAGED_SAVE};
  for (const unsigned flags : tries) {
    if (virDomainUndefineFlags(guest->domain.get(), flags) == 0) return {};
    const Problem problem = LastFailure(Operation::kUndefine, "").problem();
    if (problem != Problem::kInvalid && problem != Problem::kUnsupported) break;
  }
  return FailedOn(*guest, Operation::kUndefine, failed);
}

Outcome<void> LibvirtHypervisor::DiscardSaved(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  if (!HasSaved(guest->domain.get())) return {};
  if (virDomainManagedSaveRemove(guest->domain.get(), 0) == 0) return {};
  return FailedOn(*guest, Operation::kUndefine, "Cannot remove the saved memory of the guest " + id);
}

Outcome<Definition> LibvirtHypervisor::DefinitionOf(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  const virDomainPtr domain = guest->domain.get();
  const std::string failed = "Cannot read the definition of the guest " + id;
  const std::optional<GuestState> state = StateOfDomain(domain);
  if (!state) return Failed(guest->connection, Operation::kRead, failed);
  const int is_persistent = virDomainIsPersistent(domain);
  const TextHandle xml(virDomainGetXMLDesc(domain, VIR_DOMAIN_XML_INACTIVE));
  if (is_persistent < 0 || !xml) return Failed(guest->connection, Operation::kRead, failed);
  Definition definition;
  definition.state = *state;
  const char* const name = virDomainGetName(domain);
  definition.name = name != nullptr ? name : "";
  definition.owner = OwnerOf(domain);
  definition.is_persistent = is_persistent == 1;
  definition.nvram = NvramIn(xml.get());
  return definition;
}

Outcome<std::string> LibvirtHypervisor::XmlOf(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  // Including secrets: it may be the only copy of the definition that is left.
  const TextHandle xml(virDomainGetXMLDesc(guest->domain.get(), VIR_DOMAIN_XML_INACTIVE | VIR_DOMAIN_XML_SECURE));
  if (!xml) return Failed(guest->connection, Operation::kRead, "Cannot read the XML of the guest " + id);
  return std::string(xml.get());
}

Outcome<bool> LibvirtHypervisor::IsAutostarted(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  int autostart = 0;
  if (virDomainGetAutostart(guest->domain.get(), &autostart) == 0) return autostart != 0;
  return Failed(guest->connection, Operation::kRead, "Cannot read whether the guest " + id + " is started by itself");
}

Outcome<void> LibvirtHypervisor::SetAutostart(const std::string& id, bool autostart) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  if (virDomainSetAutostart(guest->domain.get(), autostart ? 1 : 0) == 0) return {};
  return Failed(guest->connection, Operation::kDefine, "Cannot set whether the guest " + id + " is started by itself");
}

}  // namespace vexa::hypervisor
