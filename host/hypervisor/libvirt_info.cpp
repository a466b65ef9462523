// Addresses, agents and files of running guests, and the properties of the machine that libvirt runs on.
#include <fmt/format.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <pugixml.hpp>
#include <string_view>

#include "host/base/uuid.h"
#include "host/hypervisor/libvirt_hypervisor.h"
#include "host/hypervisor/qemu_process.h"

namespace vexa::hypervisor {
namespace {

constexpr std::string_view kAgentChannel = "org.qemu.guest_agent.0";
constexpr std::uint64_t kKib = 1024;

// The interfaces of a running guest with their addresses, from one of libvirt's sources.
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
bool IsRoutable(std::string_view address) {
  const auto starts = [&](std::string_view prefix) { return address.starts_with(prefix); };
  return !address.empty() && address != "::1" && !starts("127.") && !starts("169.254.") && !starts("fe80:");
}

std::vector<std::string> RoutableAddresses(const Interfaces& interfaces) {
  std::vector<std::string> found;
  for (const virDomainInterface* const interface : interfaces) {
    for (unsigned i = 0; i < interface->naddrs; ++i) {
      const char* const text = interface->addrs[i].addr;
      const std::string address = text != nullptr ? text : "";
      if (IsRoutable(address) && std::find(found.begin(), found.end(), address) == found.end())
        found.push_back(address);
    }
  }
  return found;
}

// The memory of this machine in bytes, for drivers that invent a number or do not report one.
std::uint64_t LocalFreeMemory() {
  struct sysinfo memory {};
  sysinfo(&memory);
  return (std::uint64_t{memory.freeram} + memory.bufferram) * memory.mem_unit;
}

std::uint64_t LocalTotalMemory() {
  struct sysinfo memory {};
  sysinfo(&memory);
  return std::uint64_t{memory.totalram} * memory.mem_unit;
}

bool IsAgentConnected(const char* xml) {
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

Result<std::vector<std::vector<HeldFile>>, Failure> LibvirtHypervisor::FilesHeldBy(const std::string& id) {
  const std::string failed = fmt::format("Cannot read which files the guest {} has open", id);
  // "qemu:///system" is on this machine, "qemu+ssh://other/system" is not.
  const bool is_here = target_.kind == DriverKind::kEmbed ||
                       (target_.kind == DriverKind::kUri && target_.uri.find(":///") != std::string::npos);
  if (!is_here) return Failure(FailureKind::kUnsupported, failed, "Its process is not on this machine");
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  const Result<StringHandle, Failure> xml = RunningXml(*guest, failed);
  if (!xml) return xml.error();
  auto files = FilesOfQemuProcesses(NormalizeUuid(id), target_.root, OwnerOfQemu(xml->get()));
  if (files) return *std::move(files);
  const bool is_denied = files.error().code() == ErrorCode::kDenied;
  return Failure(is_denied ? FailureKind::kDenied : FailureKind::kUnsupported, failed, files.error().ToString());
}

Result<std::vector<std::string>, Failure> LibvirtHypervisor::AddressesOf(const std::string& id) {
  const std::string failed = fmt::format("Cannot read the addresses of the guest {}", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  for (const auto source : {VIR_DOMAIN_INTERFACE_ADDRESSES_SRC_AGENT, VIR_DOMAIN_INTERFACE_ADDRESSES_SRC_LEASE}) {
    const Interfaces interfaces(guest->domain.get(), source);
    if (interfaces.ok()) {
      std::vector<std::string> addresses = RoutableAddresses(interfaces);
      if (!addresses.empty()) return addresses;
      continue;
    }
    // Without an agent or a libvirt network, the addresses are unknown. A lost guest or connection is an error.
    Failure failure = GuestFailure(*guest, Operation::kRead, failed);
    const FailureKind kind = failure.kind();
    if (kind == FailureKind::kNotRunning || kind == FailureKind::kNoSuchGuest || kind == FailureKind::kDisconnected) {
      // An agent that is not connected has the same code as a guest that does not run.
      const std::optional<GuestState> now = StateOfDomain(guest->domain.get());
      if (!now || !IsActive(*now)) return failure;
    }
  }
  return std::vector<std::string>{};
}

Result<bool, Failure> LibvirtHypervisor::HasAgent(const std::string& id) {
  const std::string failed = fmt::format("Cannot read whether the agent of the guest {} is connected", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  const Result<StringHandle, Failure> xml = RunningXml(*guest, failed);
  if (!xml) return xml.error();
  return IsAgentConnected(xml->get());
}

Result<std::uint64_t, Failure> LibvirtHypervisor::FreeMemoryOf(const std::shared_ptr<virConnect>& connection) const {
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
  if (target_.kind == DriverKind::kTest) return LocalFreeMemory();
  return MakeFailure(connection, Operation::kRead, "Cannot read how much memory is free");
}

Result<std::uint64_t, Failure> LibvirtHypervisor::FreeMemory() {
  Result<std::shared_ptr<virConnect>, Failure> connection = Connection();
  if (!connection) return connection.error();
  return FreeMemoryOf(*connection);
}

Result<NodeInfo, Failure> LibvirtHypervisor::GetNodeInfo() {
  Result<std::shared_ptr<virConnect>, Failure> connection = Connection();
  if (!connection) return connection.error();
  virNodeInfo info{};
  if (virNodeGetInfo(connection->get(), &info) != 0) {
    return MakeFailure(*connection, Operation::kRead, "Cannot read the host's hardware information");
  }
  NodeInfo node;
  node.cpu_model = info.model;
  node.cpus = info.cpus;
  node.cores = info.nodes * info.sockets * info.cores;
  node.threads_per_core = info.threads;
  node.mhz = info.mhz;
  // libvirt adds up the memory of NUMA nodes, which on virtual machines can be less than the total.
  node.memory_mib = target_.kind == DriverKind::kEmbed ? LocalTotalMemory() >> 20 : info.memory / kKib;
  return node;
}

Result<std::string, Failure> LibvirtHypervisor::Version() {
  Result<std::shared_ptr<virConnect>, Failure> connection = Connection();
  if (!connection) return connection.error();
  constexpr unsigned long kMajor = 1'000'000;
  constexpr unsigned long kMinor = 1'000;
  unsigned long version = 0;
  if (virConnectGetVersion(connection->get(), &version) != 0) {
    return MakeFailure(*connection, Operation::kRead, "Cannot read the version of the hypervisor");
  }
  return fmt::format("{}.{}.{}", version / kMajor, version / kMinor % kMinor, version % kMinor);
}

}  // namespace vexa::hypervisor
