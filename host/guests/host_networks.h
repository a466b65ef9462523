// Which networks this host has for its guests.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace vexa::guests {

// Whether the host has the network or bridge of a name: a network that libvirt runs, a bridge of the kernel, or one of
// the virtual switch ("ovs_…"). A network card of its own is none, since guests are put on bridges only.
// Fits HostResources::has_network. Threads: any, as far as `libvirt_networks` lets.
class HostNetworks {
 public:
  // `libvirt_networks` gives the names of the networks that libvirt runs now; not set: none. It is called only for
  // names that are no bridge. `root` stands in front of "/sys": "" is the real machine.
  explicit HostNetworks(std::function<std::vector<std::string>()> libvirt_networks, std::string root = "")
      : libvirt_networks_(std::move(libvirt_networks)), root_(std::move(root)) {}

  bool operator()(const std::string& name) const;

 private:
  bool IsBridge(const std::string& name) const;

  std::function<std::vector<std::string>()> libvirt_networks_;
  std::string root_;
};

}  // namespace vexa::guests
