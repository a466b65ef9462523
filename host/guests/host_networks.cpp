#include "host/guests/host_networks.h"

#include <net/if.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace vexa::guests {
namespace {

constexpr const char* kSwitchPrefix = "ovs_";

// Names that a domain's XML can have for a bridge. None of them leads out of the folder of interfaces.
bool IsInterfaceName(const std::string& name) {
  return !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
         std::ranges::none_of(name, [](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return byte <= ' ' || byte >= 0x7F || c == '/' || c == ':';
         });
}

bool IsFolder(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_directory(path, error);
}

bool IsThere(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

}  // namespace

bool HostNetworks::IsBridge(const std::string& name) const {
  if (!IsInterfaceName(name)) return false;
  const std::string folder = root_ + "/sys/class/net/" + name;
  if (IsFolder(folder + "/bridge")) return true;
  // The kernel does not tell bridges of the virtual switch from its other interfaces; their names do. Hardware, which
  // may have any name, has a device behind it.
  return name.starts_with(kSwitchPrefix) && IsFolder(folder) && !IsThere(folder + "/device");
}

bool HostNetworks::operator()(const std::string& name) const {
  if (name.empty()) return false;
  if (IsBridge(name)) return true;
  if (!libvirt_networks_) return false;
  const std::vector<std::string> networks = libvirt_networks_();
  return std::ranges::find(networks, name) != networks.end();
}

}  // namespace vexa::guests
