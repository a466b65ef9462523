// vexa network.
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/network_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter = R"(
Kinds:
  bridge     a bridge of the hosts; with --uplink, hosts that lack it make it, with this interface as its port
  nat        a subnet of its own; guests reach what their host reaches
  isolated   a subnet of its own; guests reach each other and their host
  vlan       the VLAN --vlan of --uplink, on a bridge of its own
  macvtap    --uplink itself; guests do not reach their own host

Examples:
  vexa network list
  vexa network add lan                              # guests reach other networks by NAT
  vexa network add --bridge br0                     # an existing bridge of the hosts
  vexa network add office --bridge br1 --uplink eth1
  vexa network add phones --vlan 42 --uplink eth0
  vexa guest set web-1 --add-nic net=lan

Every host of the cluster makes its networks, or uses the ones it has already. 'show' says for each host whether guests can be
started with the network, and why not.)";

void AddSettingOptions(const Command& command, NetworkSettingOptions& settings) {
  command.AddOption("--description", settings.description, "A text").Placeholder("TEXT");
  command.AddOption("--subnet", settings.subnet, "Of nat and isolated: such as 192.168.100.0/24 (default: a free one)")
      .Placeholder("SUBNET");
  command.AddOption("--vlan", settings.vlan_id, "Of vlan: the tag, 1 to 4094").Placeholder("TAG");
  command
      .AddOption("--uplink", settings.uplink,
                 "Of bridge, vlan and macvtap: the interface of the hosts that leads outside")
      .Placeholder("INTERFACE");
  command
      .AddOption("--uplink-of", settings.uplinks, "The uplink of one host, where it has another name; may be repeated")
      .Placeholder("HOST=INTERFACE")
      .TakesOneValue();
  command
      .AddOption(
          "--move-addresses", settings.move_addresses,
          "Of bridge: whether it may take over the addresses and routes of its uplink, which is refused otherwise "
          "(default: off)")
      .Placeholder("on|off")
      .OneOf({"on", "off"});
}

}  // namespace

void AddNetworkCommands(const Command& app) {
  const Command network = app.AddGroup("network", "The networks of guests' interfaces");
  network.Footer(kFooter);

  const Command add = network.AddCommand("add", "Add a network, and print its id (administrators)");
  const auto added = std::make_shared<NetworkAddOptions>();
  add.AddOption("NAME", added->name, "Its name (default: that of --bridge)");
  add.AddOption("--kind", added->kind,
                "bridge, nat, isolated, vlan or macvtap (default: vlan with --vlan, bridge with --bridge, otherwise "
                "nat)")
      .Placeholder("KIND")
      .OneOf({"bridge", "nat", "isolated", "vlan", "macvtap"});
  add.AddOption("--bridge", added->bridge, "Of bridge and vlan: the bridge on the hosts (default: NAME)")
      .Placeholder("BRIDGE");
  AddSettingOptions(add, added->settings);
  add.OnRun(added, RunNetworkAdd);

  const Command edit = network.AddCommand("edit", "Change a network (administrators)");
  const auto edited = std::make_shared<NetworkEditOptions>();
  edit.AddOption("NETWORK", edited->network, "Its id or name").Required();
  edit.AddOption("--name", edited->name, "A new name").Placeholder("NAME");
  AddSettingOptions(edit, edited->settings);
  edit.OnRun(edited, RunNetworkEdit);

  network.AddCommand("list", "List the networks").OnRunOrWatch(RunNetworkList);

  const auto name = std::make_shared<std::string>();
  const Command show = network.AddCommand("show", "Show a network, and what the hosts have made of it");
  show.AddOption("NETWORK", *name, "Its id or name").Required();
  show.OnRunOrWatch(name, RunNetworkShow);

  const Command remove = network.AddCommand("remove", "Remove a network that is not used (administrators)");
  remove.Footer("\nWhen interfaces of guests are in the network, the error names the guests.");
  remove.AddOption("NETWORK", *name, "Its id or name").Required();
  remove.OnRun(name, RunNetworkRemove);
}

}  // namespace vexa::cli
