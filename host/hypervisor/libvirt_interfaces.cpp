// What the interfaces of running guests are plugged into.
#include <fmt/format.h>

#include "host/hypervisor/libvirt_hypervisor.h"

namespace vexa::hypervisor {
namespace {

// Sets the bridge or device of the host that the interface's network leads to. If libvirt does not return the network,
// the interface keeps what the domain's XML says.
void ResolveByName(virConnectPtr connection, domain_xml::GuestInterface& interface) {
  const NetworkHandle network(virNetworkLookupByName(connection, interface.network.c_str()));
  if (!network) return;
  const StringHandle xml(virNetworkGetXMLDesc(network.get(), 0));
  const StringHandle bridge(virNetworkGetBridgeName(network.get()));
  domain_xml::ResolveNetwork(xml ? xml.get() : "", bridge ? bridge.get() : "", interface);
}

}  // namespace

Result<std::vector<domain_xml::GuestInterface>, Failure> LibvirtHypervisor::InterfacesOf(const std::string& id) {
  const std::string failed = fmt::format("Cannot read the network interfaces of the guest {}", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  const Result<StringHandle, Failure> xml = RunningXml(*guest, failed);
  if (!xml) return xml.error();
  Result<std::vector<domain_xml::GuestInterface>> interfaces = domain_xml::ParseGuestInterfaces(xml->get());
  if (!interfaces) return Failure(FailureKind::kFailed, failed, interfaces.error().ToString());

  for (domain_xml::GuestInterface& interface : *interfaces) {
    const bool is_unresolved =
        interface.attachment_kind == domain_xml::NicAttachment::kNetwork && interface.device.empty();
    if (is_unresolved && !interface.network.empty()) ResolveByName(guest->connection.get(), interface);
  }
  return std::move(*interfaces);
}

}  // namespace vexa::hypervisor
