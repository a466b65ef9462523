// vexa image.
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/image_command.h"
#include "cli/image_upload.h"

namespace vexa::cli {
namespace {

constexpr const char* kFooter = R"(
Examples:
  vexa image add debian-12 /var/lib/vexa/images/debian-12.iso
  vexa image add debian-12 ~/Downloads/debian-12.iso --upload
  vexa image list
  vexa image rename debian-12 debian-12.8
  vexa image remove debian-12.8

'vexa guest set --iso' takes the id. The file is on the server's machine, below one of the folders that the daemon's
setting 'image-roots' names. With --upload it is a file of this machine, which is sent to the server. An upload that was
interrupted continues when the same command is run again within a day.)";

}  // namespace

void AddImageCommands(const Command& app) {
  const Command image = app.AddGroup("image", "The ISO images for guests' drives");
  image.Footer(kFooter);

  const Command add = image.AddCommand("add", "Add an image, and print its id (administrators)");
  const auto options = std::make_shared<ImageAddOptions>();
  add.AddOption("NAME", options->name, "Its name").Required();
  add.AddOption("FILE", options->file, "Its file; a relative path is below the current folder").Required();
  add.AddOption("--id", options->id, "Its id (default: a new one)").Placeholder("UUID");
  add.AddFlag("--upload", options->upload, "Send the file from this machine to the server");
  add.AddOption("--folder", options->folder, "With --upload: the server's image folder for it (default: the first one)")
      .Placeholder("FOLDER");
  add.OnRun(options, RunImageAdd);

  image.AddCommand("list", "List the images (paths are shown to administrators only)").OnRunOrWatch(RunImageList);

  image.AddCommand("uploads", "List the uploads in progress (administrators)").OnRunOrWatch(RunUploadList);

  const Command cancel = image.AddCommand("cancel-upload", "Remove an upload in progress (administrators)");
  const auto upload = std::make_shared<std::string>();
  cancel.AddOption("UPLOAD", *upload, "Its id, or the name of its image").Required();
  cancel.OnRun(upload, RunUploadCancel);

  const Command rename = image.AddCommand("rename", "Give an image another name (administrators)");
  rename.Footer("\nIts file keeps its name.");
  const auto renamed = std::make_shared<ImageRenameOptions>();
  rename.AddOption("IMAGE", renamed->image, "Its id or name").Required();
  rename.AddOption("NAME", renamed->name, "Its new name").Required();
  rename.OnRun(renamed, RunImageRename);

  const Command remove = image.AddCommand("remove", "Remove an image that is not in a guest's drive (administrators)");
  remove.Footer(
      "\nThe file of an uploaded image is removed too; other files stay. When drives of guests have the image, the "
      "error names these guests.");
  const auto removed = std::make_shared<std::string>();
  remove.AddOption("IMAGE", *removed, "Its id or name").Required();
  remove.OnRun(removed, RunImageRemove);
}

}  // namespace vexa::cli
