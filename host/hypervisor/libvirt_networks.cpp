// libvirt's networks.
#include <fmt/format.h>

#include <algorithm>

#include "host/hypervisor/libvirt_hypervisor.h"

namespace vexa::hypervisor {
namespace {

// All networks with these flags. Not set: see libvirt's last error.
std::optional<std::vector<NetworkHandle>> ListNetworks(virConnectPtr connection, unsigned flags) {
  virNetworkPtr* raw = nullptr;
  const int count = virConnectListAllNetworks(connection, &raw, flags);
  if (count < 0) return std::nullopt;
  std::vector<NetworkHandle> networks(raw, raw + count);
  std::free(raw);
  return networks;
}

std::string NameOf(virNetworkPtr network) {
  const char* const name = virNetworkGetName(network);
  return name != nullptr ? name : "";
}

// Unknown to drivers without ports, such as the test driver.
bool HasPorts(virNetworkPtr network) {
  virNetworkPortPtr* ports = nullptr;
  const int count = virNetworkListAllPorts(network, &ports, 0);
  for (int i = 0; i < count; ++i) virNetworkPortFree(ports[i]);
  std::free(ports);
  return count > 0;
}

KnownNetwork Describe(virNetworkPtr network) {
  KnownNetwork known;
  known.name = NameOf(network);
  known.is_active = virNetworkIsActive(network) == 1;
  known.is_persistent = virNetworkIsPersistent(network) == 1;
  StringHandle xml(virNetworkGetXMLDesc(network, known.is_persistent ? VIR_NETWORK_XML_INACTIVE : 0));
  // The test driver knows no such flag.
  if (!xml) xml.reset(virNetworkGetXMLDesc(network, 0));
  if (xml) known.xml = xml.get();
  int autostart = 0;
  known.is_autostarted = virNetworkGetAutostart(network, &autostart) == 0 && autostart != 0;
  known.is_in_use = known.is_active && HasPorts(network);
  return known;
}

int StartUnlessActive(virNetworkPtr network) {
  return virNetworkIsActive(network) == 1 ? 0 : virNetworkCreate(network);
}
int StopIfActive(virNetworkPtr network) { return virNetworkIsActive(network) == 1 ? virNetworkDestroy(network) : 0; }

}  // namespace

Result<std::vector<std::string>, Failure> LibvirtHypervisor::Networks() {
  Result<std::shared_ptr<virConnect>, Failure> connection = Connection();
  if (!connection) return connection.error();
  const auto networks = ListNetworks(connection->get(), 0);
  std::vector<std::string> names;
  if (!networks) {
    Failure failure = MakeFailure(*connection, Operation::kRead, "Cannot list the networks");
    if (failure.kind() == FailureKind::kUnsupported) return names;
    return failure;
  }
  for (const NetworkHandle& network : *networks) names.push_back(NameOf(network.get()));
  std::sort(names.begin(), names.end());
  return names;
}

Result<std::vector<KnownNetwork>, Failure> LibvirtHypervisor::KnownNetworks() {
  Result<std::shared_ptr<virConnect>, Failure> connection = Connection();
  if (!connection) return connection.error();
  const auto networks = ListNetworks(connection->get(), 0);
  if (!networks) return MakeFailure(*connection, Operation::kRead, "Cannot list the networks");
  std::vector<KnownNetwork> known;
  for (const NetworkHandle& network : *networks) known.push_back(Describe(network.get()));
  std::ranges::sort(known, {}, &KnownNetwork::name);
  return known;
}

Result<void, Failure> LibvirtHypervisor::DefineNetwork(const std::string& xml) {
  Result<std::shared_ptr<virConnect>, Failure> connection = Connection();
  if (!connection) return connection.error();
  const NetworkHandle network(virNetworkDefineXML(connection->get(), xml.c_str()));
  if (!network) return MakeFailure(*connection, Operation::kDefine, "Cannot define the network");
  if (virNetworkSetAutostart(network.get(), 1) != 0) {
    return MakeFailure(*connection, Operation::kDefine,
                       fmt::format("Cannot let libvirt start the network {}", NameOf(network.get())));
  }
  return {};
}

Result<void, Failure> LibvirtHypervisor::ActOnNetwork(const std::string& name, const std::string& message,
                                                      Operation operation, int (*act)(virNetworkPtr network)) const {
  Result<std::shared_ptr<virConnect>, Failure> connection = Connection();
  if (!connection) return connection.error();
  const NetworkHandle network(virNetworkLookupByName(connection->get(), name.c_str()));
  if (!network || act(network.get()) != 0) return MakeFailure(*connection, operation, message);
  return {};
}

Result<void, Failure> LibvirtHypervisor::StartNetwork(const std::string& name) {
  return ActOnNetwork(name, fmt::format("Cannot start the network '{}'", name), Operation::kDefine, StartUnlessActive);
}

Result<void, Failure> LibvirtHypervisor::StopNetwork(const std::string& name) {
  return ActOnNetwork(name, fmt::format("Cannot stop the network '{}'", name), Operation::kStop, StopIfActive);
}

Result<void, Failure> LibvirtHypervisor::UndefineNetwork(const std::string& name) {
  return ActOnNetwork(name, fmt::format("Cannot undefine the network '{}'", name), Operation::kUndefine,
                      virNetworkUndefine);
}

}  // namespace vexa::hypervisor
