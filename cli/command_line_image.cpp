// vexa image.
#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/image_command.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter =
    "\nExamples:\n  vexa image add debian-12 /var/lib/vexa/images/debian-12.iso\n  vexa image list\n"
    "  vexa image remove debian-12\n\n"
    "The id is what 'vexa guest set --iso' takes. The file is on the server's machine, below one of the folders that\n"
    "'image-roots' in the daemon's settings names.";

}  // namespace

void AddImageCommands(CLI::App& app, Invocation& invocation) {
  auto* image = app.add_subcommand("image", "The ISO images that guests' drives can hold");
  image->require_subcommand(1);
  image->footer(kFooter);

  auto* add = image->add_subcommand("add", "Add an image, and print its id (administrators)");
  const auto added = std::make_shared<ImageAddOptions>();
  add->add_option("NAME", added->name, "Its name")->required();
  add->add_option("FILE", added->file, "Its file; a relative path is below the current folder")->required();
  add->add_option("--id", added->id, "Its id (default: a new one)")->type_name("UUID");
  add->callback([&invocation, added] {
    invocation.run = [&invocation, added] { return RunImageAdd(invocation.global, *added); };
  });

  auto* list = image->add_subcommand("list", "Id, name, size, presence and path of each; paths for administrators");
  list->callback([&invocation] { invocation.run = [&invocation] { return RunImageList(invocation.global); }; });

  auto* remove = image->add_subcommand("remove", "Remove an image that is in no guest's drive (administrators)");
  const auto removed = std::make_shared<std::string>();
  remove->footer("\nThe file stays. When drives of guests have the image, the error names these guests.");
  remove->add_option("IMAGE", *removed, "Its id or name")->required();
  remove->callback([&invocation, removed] {
    invocation.run = [&invocation, removed] { return RunImageRemove(invocation.global, *removed); };
  });
}

}  // namespace vexa::cli
