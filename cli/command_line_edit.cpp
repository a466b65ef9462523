// The commands that edit guests.
#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/guest_edit_command.h"
#include "cli/guest_set_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kSetFooter = R"(
Settings and devices are changed all or none, and rights after that. There is nothing to wait for
beyond the answer; without --timeout the server has 3600 s. Ctrl-C ends immediately; what has been sent is not taken back.
What a guest that runs cannot take counts from its next start. Sizes of disks are in GiB, vram_size is in MiB.

The server looks the names of users and groups up, for administrators. With --system they are this machine's own, with
--data or --store those of a store on this machine. Others give uid:NUMBER or gid:NUMBER.

Examples:
  vexa guest set web-1 vcpu_num=4 vram_size=8192 desc='The shop'
  vexa guest set web-1 --add-disk 100 --grow-disk 0a7c1f52-6b0e-4d8f-9a43-5e2d81c0b7f6=50
  vexa guest set web-1 --add-nic net=3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6,type=1
  vexa guest set web-1 --iso /srv/images/debian.iso boot_from=iso
  vexa guest set web-1 --allow user:alice --revoke group:staff
  vexa guest set web-1 --del-disk 0a7c1f52-6b0e-4d8f-9a43-5e2d81c0b7f6 --dry-run)";

constexpr const char* kEditFooter = R"(
The editor is $VISUAL, else $EDITOR, else the first of sensible-editor, editor and vi. Only what was changed is sent;
nothing is when the editor fails. A text that is refused is kept, and the message says where. For disks, network
interfaces, drives, USB devices and rights there is 'vexa guest set'.)";

std::string SettingsHelp() {
  std::string text = "\nSettings:\n";
  for (const GuestSetting* setting : Settings()) {
    std::string name = std::string("  ") + setting->name + (setting->type == SettingType::kYesNo ? "=true|false" : "=");
    name.resize(std::max<std::size_t>(name.size() + 1, 32), ' ');
    text += name + setting->help + '\n';
  }
  return text;
}

void AddRepeated(CLI::App& command, const std::string& option, std::vector<std::string>& words, const char* type,
                 const char* help) {
  command.add_option(option, words, std::string(help) + "; may be repeated")->type_name(type)->allow_extra_args(false);
}

// The options that name the store, where names are looked up then.
std::vector<const CLI::Option*> AddStoreOptions(CLI::App& set, AccountPlaces& places) {
  return {set.add_option("--accounts", places.other_accounts_path,
                         "An account file of an older version to migrate, when it is not accounts.json in the data "
                         "folder")
              ->type_name("PATH"),
          set.add_option("--store", places.other_store,
                         "Look names up in this store of a daemon, when it is not in the data folder")
              ->type_name("DIR"),
          set.add_option("--data", places.data_directory,
                         "Look names up in the store of this data folder instead of asking the server")
              ->type_name("DIR")};
}

void AddSetOptions(CLI::App& set, GuestSetOptions& options) {
  GuestWords& words = options.words;
  set.add_option("GUEST", options.guest, "Its id or name")->required();
  set.add_option("NAME=VALUE", words.settings, "Settings, see below");
  AddRepeated(set, "--add-disk", words.add_disks, "GIB", "Add a disk of this many GiB");
  AddRepeated(set, "--del-disk", words.del_disks, "ID", "Remove a disk with all that is on it");
  AddRepeated(set, "--grow-disk", words.grow_disks, "ID=GIB", "Make a disk larger, to this many GiB");
  set.add_option("--order-disks", words.order_disks, "The new order of the disks; disks that are not named follow")
      ->type_name("ID,ID,...");
  AddRepeated(set, "--add-nic", words.add_nics, "net=ID[,type=N][,mac=ADDRESS][,sriov=true]",
              "Add a network interface; net=none for no network, type 1 (VirtIO, as without it), 2 (e1000) or 3 "
              "(rtl8139)");
  AddRepeated(set, "--del-nic", words.del_nics, "ID", "Remove a network interface");
  AddRepeated(set, "--edit-nic", words.edit_nics, "ID,net=ID|type=N|mac=ADDRESS|sriov=true,...",
              "Change a network interface");
  AddRepeated(set, "--iso", words.isos, "IMAGE",
              "The new content of a drive: the id of an image, an absolute path, or 'none'; all drives are set, "
              "the first one is the first that is named");
  AddRepeated(set, "--usb", words.usbs, "DEVICE",
              "A USB device of the host to pass through: 1234:00ab (vendor and product), 3.14 (bus and device), or "
              "'none'; all ports are set");
  AddRepeated(set, "--allow", options.allow, "user:NAME|group:NAME|uid:N|gid:N", "Grant the guest");
  AddRepeated(set, "--revoke", options.revoke, "user:NAME|group:NAME|uid:N|gid:N", "Take the guest back");
  set.add_flag_callback(
      "--dry-run", [&options] { options.dry_run = DryRun::kYes; },
      "Check all that can be checked here, print the request as JSON and change nothing");
  set.add_flag("--system", options.from_system, "The users and groups are the machine's own");
}

}  // namespace

void AddEditCommands(CLI::App& app, Invocation& invocation) {
  auto& guest = *app.get_subcommand("guest");
  auto* set = guest.add_subcommand("set", "Change a guest: settings, disks, interfaces, drives, USB devices, rights");
  const auto options = std::make_shared<GuestSetOptions>();
  AddSetOptions(*set, *options);
  const auto store_options = AddStoreOptions(*set, options->places);
  set->footer(SettingsHelp() + kSetFooter);
  set->callback([&invocation, options, store_options] {
    const bool has_store = std::any_of(store_options.begin(), store_options.end(),
                                       [](const CLI::Option* option) { return option->count() > 0; });
    if (has_store) options->names = NamesFrom::kStore;
    invocation.run = [&invocation, options] { return RunGuestSet(invocation.global, *options); };
  });

  auto* edit = guest.add_subcommand("edit", "Change a guest's settings in an editor");
  const auto name = std::make_shared<std::string>();
  edit->add_option("GUEST", *name, "Its id or name")->required();
  edit->footer(kEditFooter);
  edit->callback(
      [&invocation, name] { invocation.run = [&invocation, name] { return RunGuestEdit(invocation.global, *name); }; });
}

}  // namespace vexa::cli
