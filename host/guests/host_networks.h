// The networks that guests of this host can be attached to.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "host/machine/network_links.h"

namespace vexa::guests {

// Whether the host has a network or bridge with a given name: a network that libvirt runs, a kernel bridge, or an Open
// vSwitch bridge. A network card does not count, because guests are only put on bridges. Fits
// HostResources::has_network. Threads: any, as far as `libvirt_networks` allows.
class HostNetworks {
 public:
  // `libvirt_networks` returns the names of the networks that libvirt runs now; not set: none. It is called only for
  // names that are not those of bridges. `root` and `driver_of` are those of NetworkLinks.
  explicit HostNetworks(std::function<std::vector<std::string>()> libvirt_networks, std::string root = "",
                        machine::DriverReader driver_of = nullptr)
      : libvirt_networks_(std::move(libvirt_networks)), root_(std::move(root)), driver_of_(std::move(driver_of)) {}

  bool operator()(const std::string& name) const;

  // The kind of the bridge with this name. kNone for names that a domain's XML cannot have.
  machine::BridgeKind KindOf(const std::string& name) const;

 private:
  std::function<std::vector<std::string>()> libvirt_networks_;
  std::string root_;
  machine::DriverReader driver_of_;
};

}  // namespace vexa::guests
