#include "host/machine/host_facts.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <set>
#include <string_view>

#include "host/machine/machine_stats.h"

namespace vexa::machine {
namespace {

constexpr std::size_t kMacBytes = 6;

std::string HostName() {
  std::array<char, 257> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) return "";
  return CleanText(name.data());
}

// ethtool_perm_addr with space for one address, because that structure ends in an array without a size.
struct PermanentAddress {
  std::uint32_t command = ETHTOOL_GPERMADDR;
  std::uint32_t size = 32;
  std::array<unsigned char, 32> bytes{};
};
static_assert(offsetof(PermanentAddress, bytes) == sizeof(ethtool_perm_addr));

bool IsCard(const Interface& interface) { return interface.type == "ethernet" || interface.type == "wificlient"; }

}  // namespace

std::string SystemPermanentMac(const std::string& interface) {
  if (interface.size() >= IFNAMSIZ) return "";
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return "";
  PermanentAddress address;
  ifreq request{};
  std::memcpy(request.ifr_name, interface.data(), interface.size());
  request.ifr_data = reinterpret_cast<char*>(&address);
  const bool succeeded = ::ioctl(fd, SIOCETHTOOL, &request) == 0;
  ::close(fd);
  const auto is_zero = [](unsigned char byte) { return byte == 0; };
  if (!succeeded || address.size != kMacBytes || std::all_of(address.bytes.begin(), address.bytes.end(), is_zero)) {
    return "";
  }
  return cluster::HexText(address.bytes.data(), kMacBytes);
}

cluster::HostFacts GatherHostFacts(const std::string& host_id, const std::string& version, const Machine& machine,
                                   const AddressReader& addresses, const PermanentMac& permanent_mac) {
  cluster::HostFacts facts;
  facts.host_id = host_id;
  facts.name = HostName();
  facts.version = version;
  const ProcessorInfo processor = ReadProcessor(machine);
  facts.cpu_cores = processor.cores;
  facts.cpu_clock_mhz = processor.clock_mhz;
  facts.ram_kib = ReadMemory(machine).value_or(MemoryStats()).total;
  const std::vector<Interface> interfaces = HostInterfaces(machine);
  std::set<std::string> ids;
  for (const Interface& interface : interfaces) {
    // All ports of a bond have the bond's address, so only the permanent address distinguishes them.
    const std::string mac = IsCard(interface) ? permanent_mac(interface.name) : "";
    std::string id = cluster::NicId(host_id, mac.empty() ? interface.name : mac);
    // Some cards have the same address for several ports. Their names make the ids differ.
    if (!ids.insert(id).second) ids.insert(id = cluster::NicId(host_id, mac + "/" + interface.name));
    facts.nics.push_back({std::move(id), interface.name, interface.mac});
  }
  for (const InterfaceAddress& address : addresses()) {
    const auto has_address = [&](const Interface& interface) { return interface.name == address.interface; };
    if (std::ranges::any_of(interfaces, has_address)) facts.addresses.push_back(address.ip);
  }
  return facts;
}

}  // namespace vexa::machine
