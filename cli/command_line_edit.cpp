// The commands that edit guests.
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/guest_edit_command.h"
#include "cli/guest_pending.h"
#include "cli/guest_set_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kSetFooter = R"(
Settings and devices are changed completely or not at all, and rights after that. Without --timeout the server has
3600 s. Ctrl-C ends immediately; a request that was sent is not cancelled. A running guest takes what it can,
and the rest waits for its next start, as 'vexa guest status' shows. With --now an edit that it cannot take completely
is refused; with --next-start it stays as it is, and 'vexa guest apply' can change it later. Sizes of disks are in GiB, vram_size is in MiB.
DISK and NIC are ids, or numbers in the order of 'vexa guest get': 1 is the first. NIC may also be a MAC address.

The server looks up names of users and groups for administrators. With --system they are those of this machine's
operating system, with --data or --store those of a store on this machine. Others use uid:NUMBER or gid:NUMBER.

Examples:
  vexa guest set web-1 vcpu_num=4 vram_size=8192 desc='The shop'
  vexa guest set web-1 --add-disk 100 --grow-disk 1=50
  vexa guest set web-1 --add-nic net=lan,type=1
  vexa guest set web-1 --iso debian-12 boot_from=iso
  vexa guest set web-1 --allow user:alice --revoke group:staff
  vexa guest set web-1 --del-disk 0a7c1f52-6b0e-4d8f-9a43-5e2d81c0b7f6 --dry-run)";

constexpr const char* kEditFooter = R"(
The editor is $VISUAL, otherwise $EDITOR, otherwise the first of sensible-editor, editor and vi. Only changed settings
are sent, and nothing when the editor fails. A text that is refused is kept in a file that the message names. For disks,
network interfaces, drives, USB devices and rights there is 'vexa guest set'.)";

constexpr const char* kApplyFooter = R"(
Prints what still waits for the guest's next start: what no running guest can take, and devices that the guest has not
given back. The log of its host has the reasons.)";

std::string SettingsHelp() {
  std::string text = "\nSettings:\n";
  for (const GuestSetting* setting : Settings()) {
    const std::string usage =
        fmt::format("  {}{}", setting->name, setting->type == SettingType::kBoolean ? "=true|false" : "=");
    text += fmt::format("{:<31} {}\n", usage, setting->help);
  }
  return text;
}

void AddRepeated(const Command& command, const char* option, std::vector<std::string>& values, const char* placeholder,
                 const char* help) {
  command.AddOption(option, values, fmt::format("{}; may be repeated", help)).Placeholder(placeholder).TakesOneValue();
}

// The options that name a store, in which the names of users and groups are then looked up.
std::vector<Option> AddStoreOptions(const Command& set, AccountPaths& paths) {
  return {set.AddOption("--accounts", paths.account_file_path,
                        "An account file of an older version to migrate, when it is not accounts.json in the data "
                        "folder")
              .Placeholder("PATH"),
          set.AddOption("--store", paths.store_folder,
                        "Look names up in this store of a daemon, when it is not in the data folder")
              .Placeholder("DIR"),
          set.AddOption("--data", paths.data_directory,
                        "Look names up in the store of this data folder instead of asking the server")
              .Placeholder("DIR")};
}

void AddDeviceOptions(const Command& set, GuestSetArguments& arguments) {
  AddRepeated(set, "--add-disk", arguments.add_disks, "GIB", "Add a disk of this many GiB");
  AddRepeated(set, "--del-disk", arguments.del_disks, "DISK", "Remove a disk with all that is on it");
  AddRepeated(set, "--grow-disk", arguments.grow_disks, "DISK=GIB", "Make a disk larger, to this many GiB");
  set.AddOption("--order-disks", arguments.order_disks, "The new order of the disks; disks that are not named follow")
      .Placeholder("DISK,DISK,...");
  AddRepeated(set, "--add-nic", arguments.add_nics, "net=NETWORK[,type=N][,mac=ADDRESS][,sriov=true]",
              "Add a network interface; the network by id or name, net=none for none, type 1 (VirtIO, the default), 2 "
              "(e1000) or 3 "
              "(rtl8139)");
  AddRepeated(set, "--del-nic", arguments.del_nics, "NIC", "Remove a network interface");
  AddRepeated(set, "--edit-nic", arguments.edit_nics, "NIC,net=NETWORK|type=N|mac=ADDRESS|sriov=true,...",
              "Change a network interface");
  AddRepeated(
      set, "--iso", arguments.isos, "IMAGE",
      "The new content of a drive: the id or name of an image, an absolute path, or 'none'; all drives are set, "
      "in the order in which they are named");
  AddRepeated(set, "--usb", arguments.usbs, "DEVICE",
              "A USB device of the host to pass through: 1234:00ab (vendor and product), 3.14 (bus and device), or "
              "'none'; all ports are set");
}

void AddSet(const Command& guest) {
  const Command set =
      guest.AddCommand("set", "Change a guest: settings, disks, interfaces, drives, USB devices, rights");
  const auto options = std::make_shared<GuestSetOptions>();
  set.AddOption("GUEST", options->guest, "Its id or name").Required();
  set.AddOption("NAME=VALUE", options->arguments.settings, "Settings, see below");
  AddDeviceOptions(set, options->arguments);
  AddRepeated(set, "--allow", options->allow, "user:NAME|group:NAME|uid:N|gid:N", "Grant the guest");
  AddRepeated(set, "--revoke", options->revoke, "user:NAME|group:NAME|uid:N|gid:N", "Revoke the guest");
  set.AddFlag(
      "--dry-run", [options] { options->dry_run = DryRun::kYes; },
      "Check all that can be checked here, print the request as JSON and change nothing");
  const Option now = set.AddFlag(
      "--now", [options] { options->apply = "now"; }, "Refuse what a running guest cannot take while it runs");
  set.AddFlag(
         "--next-start", [options] { options->apply = "next_start"; }, "Leave a running guest as it is until then")
      .Excludes(now);
  set.AddFlag("--system", options->from_system, "The users and groups are those of the operating system");
  const std::vector<Option> store_options = AddStoreOptions(set, options->paths);
  set.Footer(SettingsHelp() + kSetFooter);
  set.OnRun([options, store_options](const GlobalOptions& global) {
    if (std::ranges::any_of(store_options, &Option::IsGiven)) options->names = NamesFrom::kStore;
    return RunGuestSet(global, *options);
  });
}

void AddApply(const Command& guest) {
  const Command apply = guest.AddCommand("apply", "Change a running guest as it is set, as far as that is possible");
  const auto options = std::make_shared<GuestApplyOptions>();
  apply.AddOption("GUEST", options->guest, "Its id or name").Required();
  apply.AddFlag("--force-eject", options->force_eject, "Open drives that the guest has locked as well");
  apply.Footer(kApplyFooter);
  apply.OnRun(options, RunGuestApply);
}

void AddEdit(const Command& guest) {
  const Command edit = guest.AddCommand("edit", "Change a guest's settings in an editor");
  const auto name = std::make_shared<std::string>();
  edit.AddOption("GUEST", *name, "Its id or name").Required();
  edit.Footer(kEditFooter);
  edit.OnRun(name, RunGuestEdit);
}

}  // namespace

void AddEditCommands(const Command& app) {
  const Command guest = app.Group("guest");
  AddSet(guest);
  AddEdit(guest);
  AddApply(guest);
}

}  // namespace vexa::cli
