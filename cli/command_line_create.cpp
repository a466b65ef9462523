// vexa guest create.
#include <fmt/format.h>

#include <memory>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/guest_create_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter = R"(
The guest is created completely or not at all; without --timeout the server has 3600 s. The NAME=VALUE settings are those
of 'vexa guest set', and what is not set depends on --os:

  linux     1 CPU, 1024 MiB, VirtIO disks and interfaces, BIOS (the default)
  windows   2 CPUs, 4096 MiB, SATA disks, e1000 interfaces, UEFI, Hyper-V features
  other     1 CPU, 512 MiB, SATA disks, e1000 interfaces, BIOS

An empty disk does not boot, so the guest starts from its ISO image until a system is installed. With --request-id the
same command can be repeated within a day: it creates one guest, and prints the first answer.

Examples:
  vexa guest create web-2 --cpus 2 --memory 2GiB --disk 20GiB --net lan --iso debian-12 --start
  vexa guest create win-1 --os windows --disk 64GiB --net none --allow user:alice video_card=qxl
  vexa guest create db-1 --disk 10GiB --disk 100GiB,format=raw --net lan,mac=02:00:5e:10:00:01 --host nas-2)";

void AddRepeated(const Command& command, const char* option, std::vector<std::string>& values, const char* placeholder,
                 const char* help) {
  command.AddOption(option, values, fmt::format("{}; may be repeated", help)).Placeholder(placeholder).TakesOneValue();
}

}  // namespace

void AddCreateCommand(const Command& app) {
  const Command create = app.Group("guest").AddCommand("create", "Create a guest from nothing (administrators)");
  const auto options = std::make_shared<GuestCreateOptions>();
  create.AddOption("GUEST", options->name, "Its name, which no other guest has").Required();
  create.AddOption("NAME=VALUE", options->settings, "Settings, see 'vexa guest set --help'");
  create.AddOption("--os", options->os, "linux, windows or other")
      .Placeholder("OS")
      .OneOf({"linux", "windows", "other"});
  create.AddOption("--cpus", options->cpus, "Virtual CPUs").Placeholder("N");
  create.AddOption("--memory", options->memory, "Memory, such as 512MiB or 2GiB").Placeholder("SIZE");
  AddRepeated(create, "--disk", options->disks, "SIZE|from=IMAGE[,format=raw][,mode=N]",
              "An empty disk, such as 20GiB, or a copy of an image: its name, or the path of a raw, qcow2, vmdk or vdi "
              "file; mode 1 (VirtIO), 2 (IDE), 3 (SATA) or 4 (SCSI)");
  AddRepeated(
      create, "--net", options->nets, "NETWORK[,type=N][,mac=ADDRESS][,sriov=true]",
      "A network interface: the id or name of its network, or 'none'; type 1 (VirtIO), 2 (e1000) or 3 (rtl8139)");
  create.AddOption("--iso", options->iso, "The image in its drive: an id, a name or an absolute path")
      .Placeholder("IMAGE");
  AddRepeated(create, "--usb", options->usbs, "DEVICE", "A USB device of the host: 1234:00ab or 3.14");
  create.AddOption("--repository", options->repository, "The repository of its disks (default: the only one)")
      .Placeholder("REPOSITORY");
  create.AddOption("--host", options->host, "Its host, or 'none' (default: one that can start it)").Placeholder("HOST");
  AddRepeated(create, "--allow", options->allow, "user:NAME|group:NAME", "Grant the guest");
  create.AddOption("--request-id", options->request_id, "A number of your own for the request").Placeholder("ID");
  create.AddFlag(
      "--start", [options] { options->start = StartAfterwards::kYes; }, "Start it once it exists");
  create.Footer(kFooter);
  create.OnRun(options, RunGuestCreate);
}

}  // namespace vexa::cli
