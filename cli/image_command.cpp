#include "cli/image_command.h"

#include <fmt/format.h>

#include <filesystem>
#include <iostream>
#include <system_error>

#include "cli/image_upload.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/disks/image_records.h"

namespace vexa::cli {
namespace {

constexpr const char* kAddImage = "/webapi/VEXA.Virtualization.Image/add";
constexpr const char* kRenameImage = "/webapi/VEXA.Virtualization.Image/rename";
constexpr const char* kRemoveImage = "/webapi/VEXA.Virtualization.Image/remove";

// "" when `file` is empty or the current folder is unknown. "." and ".." are kept: the server refuses them.
std::string AbsolutePath(const std::string& file) {
  std::error_code failed;
  const std::string path = std::filesystem::absolute(file, failed);
  return file.empty() || failed ? std::string() : path;
}

}  // namespace

ExitCode RunImageAdd(const GlobalOptions& global, const ImageAddOptions& options) {
  if (options.upload) {
    if (!options.id.empty()) return Report(Error(ErrorCode::kInvalid, "An uploaded image gets a new id: omit --id"));
    return RunImageUpload(global, {options.name, options.file, options.folder});
  }
  if (!options.folder.empty()) return Report(Error(ErrorCode::kInvalid, "--folder needs --upload"));
  const disks::NewImage image{options.name, AbsolutePath(options.file), options.id};
  if (const Status checked = disks::CheckImage(image); !checked) return Report(checked.error());
  Json::Value parameters(Json::objectValue);
  parameters["name"] = image.name;
  parameters["path"] = image.path;
  if (!image.id.empty()) parameters["image_id"] = image.id;
  return AddObject(global, kImages, kAddImage, parameters);
}

ExitCode RunImageList(const GlobalOptions& global) {
  const CallOutcome outcome = ListObjects(global, kImages);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& images = Member(outcome.data, "images");
  if (global.json) return PrintJson(images);
  Table table{{"NAME", "BYTES", "PRESENT", "PATH"}, {}};
  if (global.ids) table.header.insert(table.header.begin(), "IMAGE");
  for (const Json::Value& image : images) {
    const bool is_present = IsTrue(Member(image, "present"));
    table.rows.push_back({Text(Member(image, kImages.name)), is_present ? Text(Member(image, "size")) : "-",
                          is_present ? "yes" : "no", Text(Member(image, "path"))});
    if (global.ids) table.rows.back().insert(table.rows.back().begin(), Text(Member(image, kImages.id)));
  }
  PrintTable(std::cout, table);
  return ExitCode::kOk;
}

ExitCode RunImageRename(const GlobalOptions& global, const ImageRenameOptions& options) {
  return RenameObject(global, kImages, kRenameImage, options.image, options.name);
}

ExitCode RunImageRemove(const GlobalOptions& global, const std::string& image) {
  const CallOutcome removed = CallForListedObject(global, kImages, kRemoveImage, image);
  if (removed.exit_code != ExitCode::kOk) return removed.exit_code;
  const std::string file = Text(Member(removed.data, "file"));
  const std::string name = Printable(image);
  if (file == "removed") return PrintConfirmation(global, fmt::format("Removed the image '{}' and its file.", name));
  std::string reason = Printable(Text(Member(removed.data, "reason")));
  if (!reason.empty()) reason.insert(0, ": ");
  const char* const what = file == "later" ? "will be removed later" : "stays";
  return PrintConfirmation(global, fmt::format("Removed the image '{}'. Its file {}{}.", name, what, reason));
}

}  // namespace vexa::cli
