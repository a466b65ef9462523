// How the machine's network interfaces are connected: bridges, their ports, and which ports connect to other machines.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/machine/virtual_switch.h"

namespace vexa::machine {

enum class BridgeKind {
  kNone,    // not a bridge, or no such interface
  kLinux,   // a bridge of the kernel
  kSwitch,  // a bridge of Open vSwitch
};

// A port of a bridge that connects it to more than the guests of this machine.
struct Uplink {
  std::string name;
  bool has_link = false;  // its cable is plugged in
};

// Returns the driver of an interface, as ethtool(8) reports it; "" when it is unknown.
using DriverReader = std::function<std::string(const std::string& interface)>;
std::string SystemDriver(const std::string& interface);

// Reads sysfs at each call, and queries the database of the virtual switch once, when it is first needed. So use one
// object per task. Interfaces are identified by their kernel names; any other string counts as a missing interface.
//
// An uplink is a port of a bridge that is neither the bridge's own device nor a guest's tap device. If some of a
// bridge's ports are hardware or on top of it, only these are its uplinks, because the veth devices of containers on
// the same bridge do not lead outside. A patch port stands for the uplinks of the bridge that it connects to. If the
// database of the switch cannot be read, each of its bridges has all ports that the kernel shows for the switch.
// Threads: one at a time.
class NetworkLinks {
 public:
  // `root` is prepended to "/sys" and "/run"; "" means the real machine. If `driver_of` is null, drivers are read with
  // SystemDriver on the real machine, and are unknown below any other root.
  explicit NetworkLinks(std::string root = "", DriverReader driver_of = nullptr);

  bool Exists(const std::string& name) const;
  // Whether the interface has a hardware device.
  bool IsHardware(const std::string& name) const;
  // Whether the interface is administratively up (ip-link(8)), with or without a carrier.
  bool IsAdminUp(const std::string& name) const;
  bool HasCarrier(const std::string& name) const;
  BridgeKind KindOf(const std::string& name);
  // The bridge, bond or switch that the interface is a port of; "" if it is not a port.
  std::string MasterOf(const std::string& name) const;
  // Whether `port` is a port of this bridge of the switch. Not set if the database of the switch cannot be read.
  std::optional<bool> IsSwitchPort(const std::string& bridge, const std::string& port);
  // Whether the interface is a port of any bridge of the switch.
  bool IsAnySwitchPort(const std::string& port);

  // Empty for an interface that is not a bridge.
  std::vector<Uplink> UplinksOf(const std::string& bridge);
  // Whether frames from the interface can leave the machine now; for a bridge, whether one of its uplinks has a link.
  bool HasLink(const std::string& name);
  // Whether the interface is hardware, or on top of hardware (a bond, a VLAN, a bridge).
  bool IsPhysical(const std::string& name);

  // The outside connections that guests can use, sorted by name: bridges with uplinks, and the interfaces below macvtap
  // devices.
  std::vector<std::string> GuestUplinks();

 private:
  struct PortInfo {
    Uplink uplink;
    bool is_physical = false;
  };
  std::string FolderOf(const std::string& name) const { return root_ + "/sys/class/net/" + name; }
  bool HasFolder(const std::string& name, const char* folder) const;
  // The interfaces directly below this one.
  std::vector<std::string> LowerOf(const std::string& name) const;
  // From the database of the switch; not set if it cannot be read.
  const std::optional<SwitchBridges>& Switch();

  // The functions with `depth` follow at most kMaxStackedInterfaces interfaces, in case these form a loop.
  bool IsPhysical(const std::string& name, int depth);
  bool HasLink(const std::string& name, int depth);
  // All ports of the bridge except taps and the bridge's own device.
  std::vector<PortInfo> PortsOf(const std::string& bridge, int depth);
  void AddKernelPort(const std::string& bridge, const std::string& port, int depth, std::vector<PortInfo>& ports);
  void AddSwitchPorts(const std::string& bridge, std::set<std::string>& visited, int depth,
                      std::vector<PortInfo>& ports);
  std::vector<Uplink> UplinksOf(const std::string& bridge, int depth);

  const std::string root_;
  const DriverReader driver_of_;
  bool is_switch_read_ = false;
  std::optional<SwitchBridges> switch_;
};

}  // namespace vexa::machine
