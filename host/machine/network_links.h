// How the machine's network interfaces are connected: bridges, their ports, and which of these lead out of the machine.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/machine/virtual_switch.h"

namespace vexa::guests {

enum class BridgeKind {
  kNone,    // not a bridge, or no such interface
  kLinux,   // of the kernel
  kSwitch,  // of Open vSwitch
};

// An interface of a bridge that leads to more than the guests of this machine.
struct Uplink {
  std::string name;
  bool has_link = false;  // its cable is plugged in
};

// The driver of an interface, as ethtool(8) shows it; "" when it is unknown.
using DriverReader = std::function<std::string(const std::string& interface)>;
std::string SystemDriver(const std::string& interface);

// Reads sysfs at each call, and asks the virtual switch at most once, when an answer depends on it: use one object per
// task. Interfaces have kernel names; any other text stands for no interface.
//
// An uplink is a port of a bridge that is neither the bridge's own device nor the end of a guest (a tap). When some of
// a bridge's ports lead to hardware, only these are its uplinks: the ends of containers on the same bridge do not lead
// outside. A patch port leads to the uplinks of the bridge behind it. Without the database of the switch, all of its
// bridges share the ports that the kernel shows. Threads: one at a time.
class NetworkLinks {
 public:
  // `root` is prepended to "/sys" and "/run": "" is the real machine. Without `driver_of`, drivers are read on the real
  // machine and unknown elsewhere.
  explicit NetworkLinks(std::string root = "", DriverReader driver_of = nullptr);

  bool IsThere(const std::string& name) const;
  // Whether it has a device behind it.
  bool IsHardware(const std::string& name) const;
  // Whether it is switched on; its cable need not be plugged in.
  bool IsSwitchedOn(const std::string& name) const;
  bool HasCarrier(const std::string& name) const;
  BridgeKind KindOf(const std::string& name);
  // The bridge, bond or switch that has the interface as a port; "" when absent.
  std::string MasterOf(const std::string& name) const;
  // Whether `port` is on this bridge of the switch. Not set: only the switch knows, and it cannot be asked.
  std::optional<bool> IsSwitchPort(const std::string& bridge, const std::string& port);
  // Whether any bridge of the switch has the interface as a port.
  bool IsAnySwitchPort(const std::string& port);

  // Empty when it is not a bridge.
  std::vector<Uplink> UplinksOf(const std::string& bridge);
  // Whether frames of the interface leave the machine now; for a bridge, whether an uplink has a link.
  bool HasLink(const std::string& name);
  // Whether the interface is hardware or on top of it (a bond, a VLAN, a bridge).
  bool IsPhysical(const std::string& name);

  // The outside connections that guests can use, by name: bridges with uplinks, and interfaces below a macvtap.
  std::vector<std::string> GuestPorts();

 private:
  struct Found {
    Uplink uplink;
    bool is_physical = false;
  };
  std::string FolderOf(const std::string& name) const { return root_ + "/sys/class/net/" + name; }
  bool HasFolder(const std::string& name, const char* folder) const;
  std::vector<std::string> LowerOf(const std::string& name) const;
  const std::optional<SwitchBridges>& Switch();

  bool IsPhysical(const std::string& name, int depth);
  bool HasLink(const std::string& name, int depth);
  // All ports except taps and the bridge's own device.
  std::vector<Found> PortsOf(const std::string& bridge, int depth);
  void AddKernelPort(const std::string& bridge, const std::string& port, int depth, std::vector<Found>& found);
  void AddSwitchPorts(const std::string& bridge, std::set<std::string>& seen, int depth, std::vector<Found>& found);
  std::vector<Uplink> UplinksOf(const std::string& bridge, int depth);

  const std::string root_;
  const DriverReader driver_of_;
  bool is_switch_read_ = false;
  std::optional<SwitchBridges> switch_;
};

}  // namespace vexa::guests
