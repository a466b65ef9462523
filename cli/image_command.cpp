#include "cli/image_command.h"

#include <filesystem>
#include <iostream>
#include <system_error>

#include "cli/api_paths.h"
#include "cli/listing.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"
#include "host/disks/image_records.h"

namespace vexa::cli {
namespace {

constexpr const char* kAddImage = "/webapi/VEXA.Virtualization.Image/add";
constexpr const char* kRemoveImage = "/webapi/VEXA.Virtualization.Image/remove";

// The data of "list", checked; failures are printed.
CallOutcome ListImages(HttpClient& client) {
  CallOutcome outcome = CallApi(client, kImageList, "{}");
  if (outcome.exit_code == ExitCode::kOk && !Member(outcome.data, "images").isArray()) {
    outcome.exit_code = Report(NotUnderstood("images"));
  }
  return outcome;
}

// "" when it is not a path. "." and ".." stay: the server refuses them.
std::string AbsolutePath(const std::string& file) {
  std::error_code failed;
  const std::string path = std::filesystem::absolute(file, failed);
  return file.empty() || failed ? std::string() : path;
}

}  // namespace

ExitCode RunImageAdd(const GlobalOptions& global, const ImageAddOptions& options) {
  const guests::NewImage image{options.name, AbsolutePath(options.file), options.id};
  if (const Status checked = guests::CheckImage(image); !checked) return Report(checked.error());
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  Json::Value parameters(Json::objectValue);
  parameters["name"] = image.name;
  parameters["path"] = image.path;
  if (!image.id.empty()) parameters["image_id"] = image.id;
  const CallOutcome outcome = CallApi(client, kAddImage, RenderJson(parameters, JsonLayout::kOneLine));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  const std::string id = Text(Member(outcome.data, kImageNaming.id));
  if (id.empty()) return Report(NotUnderstood("id of the image"));
  std::cout << Printable(id) << '\n';
  return ExitCode::kOk;
}

ExitCode RunImageList(const GlobalOptions& global) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  const CallOutcome outcome = ListImages(client);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& images = Member(outcome.data, "images");
  if (global.json) return PrintJson(images);
  Table table{{"IMAGE", "NAME", "BYTES", "PRESENT", "PATH"}, {}};
  for (const Json::Value& image : images) {
    const bool is_present = IsTrue(Member(image, "present"));
    table.rows.push_back({Text(Member(image, kImageNaming.id)), Text(Member(image, kImageNaming.name)),
                          is_present ? Text(Member(image, "size")) : "-", is_present ? "yes" : "no",
                          Text(Member(image, "path"))});
  }
  PrintTable(std::cout, table);
  return ExitCode::kOk;
}

ExitCode RunImageRemove(const GlobalOptions& global, const std::string& image) {
  if (image.empty() || !IsValidUtf8(image)) return Report(NotText("image's id or name"));
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  const CallOutcome listed = ListImages(client);
  if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
  const Result<std::string> id = FindByIdOrName(Member(listed.data, "images"), kImageNaming, image);
  if (!id) return Report(id.error());
  const CallOutcome outcome = CallApi(client, kRemoveImage, OneParameter(kImageNaming.id, *id));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (!global.quiet) std::cout << "Removed the image '" << Printable(image) << "'. Its file stays.\n";
  return ExitCode::kOk;
}

}  // namespace vexa::cli
