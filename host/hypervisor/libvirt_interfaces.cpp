// What the interfaces of running guests are plugged into.
#include "host/hypervisor/libvirt_hypervisor.h"

namespace vexa::hypervisor {
namespace {

// If the network cannot be queried, the interface stays as the domain shows it.
void AskNetwork(virConnectPtr connection, GuestInterface& interface) {
  const NetworkHandle network(virNetworkLookupByName(connection, interface.network.c_str()));
  if (!network) return;
  const TextHandle xml(virNetworkGetXMLDesc(network.get(), 0));
  const TextHandle bridge(virNetworkGetBridgeName(network.get()));
  ResolveNetwork(xml ? xml.get() : "", bridge ? bridge.get() : "", interface);
}

}  // namespace

Outcome<std::vector<GuestInterface>> LibvirtHypervisor::InterfacesOf(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  const std::string failed = "Cannot read the network interfaces of the guest " + id;
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (!state) return FailedOn(*guest, Operation::kRead, failed);
  if (!IsActive(*state)) return Failure(Problem::kNotRunning, failed, "It does not run");
  const TextHandle xml(virDomainGetXMLDesc(guest->domain.get(), 0));
  if (!xml) return FailedOn(*guest, Operation::kRead, failed);
  Result<std::vector<GuestInterface>> interfaces = ParseGuestInterfaces(xml.get());
  if (!interfaces) return Failure(Problem::kFailed, failed, interfaces.error().ToString());
  for (GuestInterface& interface : *interfaces) {
    const bool is_open = interface.plugged_into == PluggedInto::kNetwork && interface.device.empty();
    if (is_open && !interface.network.empty()) AskNetwork(guest->connection.get(), interface);
  }
  return std::move(*interfaces);
}

}  // namespace vexa::hypervisor
