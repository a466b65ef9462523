// Properties of running guests and of the machine.
#include <sys/sysinfo.h>

#include <algorithm>
#include <pugixml.hpp>
#include <string_view>

#include "host/hypervisor/libvirt_hypervisor.h"

namespace vexa::hypervisor {
namespace {

constexpr std::string_view kAgentChannel = "org.qemu.guest_agent.0";
constexpr std::uint64_t kKib = 1024;

class Interfaces {
 public:
  Interfaces(virDomainPtr domain, virDomainInterfaceAddressesSource source)
      : count_(virDomainInterfaceAddresses(domain, &list_, source, 0)) {}
  Interfaces(const Interfaces&) = delete;
  Interfaces& operator=(const Interfaces&) = delete;
  ~Interfaces() {
    for (int i = 0; i < count_; ++i) virDomainInterfaceFree(list_[i]);
    std::free(list_);
  }
  bool ok() const { return count_ >= 0; }
  virDomainInterfacePtr* begin() const { return list_; }
  virDomainInterfacePtr* end() const { return list_ + std::max(count_, 0); }

 private:
  virDomainInterfacePtr* list_ = nullptr;
  int count_;
};

// Excludes addresses that cannot reach the guest: loopback, and those valid only on its own link.
bool IsUseful(std::string_view address) {
  const auto starts = [&](std::string_view prefix) { return address.starts_with(prefix); };
  return !address.empty() && address != "::1" && !starts("127.") && !starts("169.254.") && !starts("fe80:");
}

std::vector<std::string> UsefulAddresses(const Interfaces& interfaces) {
  std::vector<std::string> found;
  for (const virDomainInterfacePtr interface : interfaces) {
    for (unsigned i = 0; i < interface->naddrs; ++i) {
      const char* const text = interface->addrs[i].addr;
      const std::string address = text != nullptr ? text : "";
      if (IsUseful(address) && std::find(found.begin(), found.end(), address) == found.end()) found.push_back(address);
    }
  }
  return found;
}

// The memory of this machine, where the driver invents its own or knows none.
std::uint64_t FreeHere() {
  struct sysinfo memory {};
  sysinfo(&memory);
  return (std::uint64_t{memory.freeram} + memory.bufferram) * memory.mem_unit;
}

std::uint64_t TotalHere() {
  struct sysinfo memory {};
  sysinfo(&memory);
  return std::uint64_t{memory.totalram} * memory.mem_unit;
}

bool SaysAgentConnected(const char* xml) {
  pugi::xml_document document;
  if (!document.load_string(xml)) return false;
  const auto channels = document.document_element().child("devices").children("channel");
  return std::any_of(channels.begin(), channels.end(), [](const pugi::xml_node& channel) {
    const pugi::xml_node target = channel.child("target");
    return target.attribute("name").value() == kAgentChannel &&
           std::string_view(target.attribute("state").value()) == "connected";
  });
}

}  // namespace

Outcome<std::vector<std::string>> LibvirtHypervisor::AddressesOf(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  const std::string failed = "Cannot read the addresses of the guest " + id;
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (!state) return FailedOn(*guest, Operation::kRead, failed);
  if (!IsActive(*state)) return Failure(Problem::kNotRunning, failed, "It does not run");
  for (const auto source : {VIR_DOMAIN_INTERFACE_ADDRESSES_SRC_AGENT, VIR_DOMAIN_INTERFACE_ADDRESSES_SRC_LEASE}) {
    const Interfaces interfaces(guest->domain.get(), source);
    if (interfaces.ok()) {
      std::vector<std::string> addresses = UsefulAddresses(interfaces);
      if (!addresses.empty()) return addresses;
      continue;
    }
    // Without an agent or a libvirt network, the addresses are unknown. But a guest or a connection that is gone is
    // reported.
    Failure failure = FailedOn(*guest, Operation::kRead, failed);
    const Problem problem = failure.problem();
    if (problem == Problem::kNotRunning || problem == Problem::kNoSuchGuest || problem == Problem::kDisconnected) {
      // An agent that is not connected has the same code as a guest that does not run.
      const std::optional<GuestState> now = StateOfDomain(guest->domain.get());
      if (!now || !IsActive(*now)) return failure;
    }
  }
  return std::vector<std::string>{};
}

Outcome<bool> LibvirtHypervisor::HasAgent(const std::string& id) {
  const Outcome<Found> guest = Find(id);
  if (!guest) return guest.failure();
  const std::string failed = "Cannot look for the agent of the guest " + id;
  const std::optional<GuestState> state = StateOfDomain(guest->domain.get());
  if (!state) return FailedOn(*guest, Operation::kRead, failed);
  if (!IsActive(*state)) return Failure(Problem::kNotRunning, failed, "It does not run");
  const TextHandle xml(virDomainGetXMLDesc(guest->domain.get(), 0));
  if (!xml) return FailedOn(*guest, Operation::kRead, failed);
  return SaysAgentConnected(xml.get());
}

Outcome<std::vector<std::string>> LibvirtHypervisor::Networks() {
  Outcome<std::shared_ptr<virConnect>> connection = Connection();
  if (!connection) return connection.failure();
  virNetworkPtr* raw = nullptr;
  const int count = virConnectListAllNetworks(connection->get(), &raw, VIR_CONNECT_LIST_NETWORKS_ACTIVE);
  std::vector<std::string> names;
  if (count < 0) {
    Failure failure = Failed(*connection, Operation::kRead, "Cannot list the networks");
    if (failure.problem() == Problem::kUnsupported) return names;
    return failure;
  }
  const std::vector<NetworkHandle> networks(raw, raw + count);
  std::free(raw);
  for (const NetworkHandle& network : networks) {
    const char* const name = virNetworkGetName(network.get());
    if (name != nullptr) names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

Outcome<std::uint64_t> LibvirtHypervisor::FreeMemoryOf(const std::shared_ptr<virConnect>& connection) const {
  // Free memory alone is small on a host that has read many files: caches make room for guests.
  int count = 0;
  if (virNodeGetMemoryStats(connection.get(), VIR_NODE_MEMORY_STATS_ALL_CELLS, nullptr, &count, 0) == 0 && count > 0) {
    std::vector<virNodeMemoryStats> stats(static_cast<std::size_t>(count));
    if (virNodeGetMemoryStats(connection.get(), VIR_NODE_MEMORY_STATS_ALL_CELLS, stats.data(), &count, 0) == 0) {
      std::uint64_t kib = 0;
      for (const virNodeMemoryStats& stat : stats) {
        const std::string_view field = stat.field;
        const bool counts = field == VIR_NODE_MEMORY_STATS_FREE || field == VIR_NODE_MEMORY_STATS_BUFFERS ||
                            field == VIR_NODE_MEMORY_STATS_CACHED;
        if (counts) kib += stat.value;
      }
      return kib * kKib;
    }
  }
  const std::uint64_t free = virNodeGetFreeMemory(connection.get());
  if (free > 0) return free;
  if (target_.kind == TargetKind::kTest) return FreeHere();
  return Failed(connection, Operation::kRead, "Cannot read how much memory is free");
}

Outcome<std::uint64_t> LibvirtHypervisor::FreeMemory() {
  Outcome<std::shared_ptr<virConnect>> connection = Connection();
  if (!connection) return connection.failure();
  return FreeMemoryOf(*connection);
}

Outcome<Node> LibvirtHypervisor::NodeFigures() {
  Outcome<std::shared_ptr<virConnect>> connection = Connection();
  if (!connection) return connection.failure();
  virNodeInfo info{};
  if (virNodeGetInfo(connection->get(), &info) != 0) {
    return Failed(*connection, Operation::kRead, "Cannot read the figures of the machine");
  }
  Node node;
  node.cpu_model = info.model;
  node.cpus = info.cpus;
  node.cores = info.nodes * info.sockets * info.cores;
  node.threads_per_core = info.threads;
  node.mhz = info.mhz;
  // libvirt adds up the memory of NUMA nodes, which on virtual machines can be less than the total.
  node.memory_mib = target_.kind == TargetKind::kEmbed ? TotalHere() >> 20 : info.memory / kKib;
  return node;
}

Outcome<std::string> LibvirtHypervisor::Version() {
  Outcome<std::shared_ptr<virConnect>> connection = Connection();
  if (!connection) return connection.failure();
  constexpr unsigned long kMajor = 1'000'000;
  constexpr unsigned long kMinor = 1'000;
  unsigned long version = 0;
  if (virConnectGetVersion(connection->get(), &version) != 0) {
    return Failed(*connection, Operation::kRead, "Cannot read the version of the hypervisor");
  }
  return std::to_string(version / kMajor) + "." + std::to_string(version / kMinor % kMinor) + "." +
         std::to_string(version % kMinor);
}

}  // namespace vexa::hypervisor
