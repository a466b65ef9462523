#include "host/api/user/image_api.h"

#include <fmt/format.h>

#include <utility>

#include "host/api/rows.h"
#include "host/api/user/record_calls.h"
#include "host/disks/image_records.h"
#include "host/records/guest_image.h"
#include "host/storage/image_sizes.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

Json::Value Describe(const disks::ListedImage& image, bool with_path) {
  Json::Value entry(Json::objectValue);
  entry["image_id"] = image.id;
  entry["name"] = image.name;
  entry["present"] = image.size.has_value();
  if (image.size) entry["size"] = Json::UInt64{*image.size};
  if (with_path) entry["path"] = image.path;
  return entry;
}

void List(const store::Store& store, storage::ImageSizes& sizes, const Call& call) {
  auto images = disks::ListImages(store);
  if (!images) return RespondListError(call, "images", images.error());
  sizes.Measure(*images);
  Json::Value data(Json::objectValue);
  Json::Value& list = data["images"] = Json::Value(Json::arrayValue);
  for (const disks::ListedImage& image : *images) list.append(Describe(image, call.request->IsAdmin()));
  call.response->SetSuccess(data);
}

void LogAddition(const Call& call, Outcome outcome, const std::string& name) {
  LogOutcome(call, outcome, fmt::format("The image [{}] has been added.", name),
             fmt::format("Failed to add the image [{}].", name));
}

void Add(store::Store& store, const std::vector<std::string>& image_roots, const Call& call) {
  const auto name = call.request->GetAndCheckString("name", kRequired);
  const auto path = call.request->GetAndCheckString("path", kRequired);
  const auto id = call.request->GetAndCheckString("image_id", kOptional, VexaCCC::Utils::IsNotEmpty);
  if (name.IsInvalid() || path.IsInvalid() || id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  const disks::NewImage image{name.Get(), path.Get(), id.Get()};
  const Status checked = disks::CheckImage(image);
  if (!checked) return Fail(call, user_error::kBadParameter, checked.error().message());
  std::string new_id;
  const auto done = disks::AddImage(store, image_roots, image, new_id);
  LogAddition(call, OutcomeOf(done), image.name);
  RespondToAddition(call, done, "image_id", new_id);
}

void LogRemoval(const Call& call, Outcome outcome, const std::string& name) {
  LogOutcome(call, outcome, fmt::format("The image [{}] has been removed.", name),
             fmt::format("Failed to remove the image [{}].", name));
}

// "removed", "stays" or "later".
const char* NameOf(storage::RemovedImage::File file) {
  constexpr const char* kNames[] = {"removed", "stays", "later"};
  return kNames[static_cast<std::size_t>(file)];
}

void Remove(storage::Uploads& uploads, const Call& call) {
  const auto id = call.request->GetAndCheckString("image_id", kRequired, IsId);
  if (id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  std::string name;
  const auto removed = uploads.RemoveImage(id.Get(), name);
  LogRemoval(call, removed.ok() ? Outcome::kDone : Outcome::kFailed, name.empty() ? id.Get() : name);
  if (!removed.ok()) return Fail(call, removed.error().code, removed.error().reason);
  Json::Value data(Json::objectValue);
  data["file"] = NameOf(removed->file);
  if (!removed->reason.empty()) data["reason"] = removed->reason;
  call.response->SetSuccess(data);
}

void Rename(store::Store& store, const Call& call) {
  RenameObject(store, call, {records::kImageCategory, "image", "image_id"});
}

}  // namespace

std::vector<ApiRow> ImageRows(const std::shared_ptr<store::Store>& store, std::vector<std::string> image_roots,
                              const std::shared_ptr<storage::Uploads>& uploads) {
  const auto sizes = std::make_shared<storage::ImageSizes>(image_roots);
  return {UserRow("VEXA.Virtualization.Image", "list", LaneKind::kLong,
                  [store, sizes](const Call& call) { List(*store, *sizes, call); },
                  "The ISO images for the drives of guests: id, name, and the size of the file when this "
                  "host has it. Administrators also see the path.",
                  {}, {user_error::kRecordFailed}),
          AdministratorRow(
              "VEXA.Virtualization.Image", "add", LaneKind::kLong,
              [store, roots = std::move(image_roots)](const Call& call) { Add(*store, roots, call); },
              "Add an image, and get its id. It must be a regular file below one of the folders that this host is "
              "configured to take images from, and be reached without symbolic links.",
              {Text("name", "The image's name, 1 to 128 bytes; no other image may have it."),
               Text("path", "The file's absolute path on this host; no other image may have it."),
               OptionalString("image_id", "The image's id, a UUID (default: a new id).")},
              {user_error::kBadParameter, user_error::kImageUnusable, user_error::kRecordExists,
               user_error::kRecordFailed}),
          AdministratorRow("VEXA.Virtualization.Image", "remove", LaneKind::kLong,
                           [uploads](const Call& call) { Remove(*uploads, call); },
                           "Remove an image that is not in a guest's drive, and its file if it was uploaded. The reply "
                           "has file: removed, stays or later (when its host can remove it), and the reason.",
                           {Text("image_id", "The image's id.")},
                           {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordInUse,
                            user_error::kRecordFailed}),
          AdministratorRow("VEXA.Virtualization.Image", "rename", LaneKind::kLong,
                           [store](const Call& call) { Rename(*store, call); },
                           "Give an image another name. Its file keeps its name.",
                           {Text("image_id", "The image's id."),
                            Text("name", "The new name, 1 to 128 bytes; no other image may have it.")},
                           {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kRecordExists,
                            user_error::kRecordFailed})};
}

}  // namespace vexa::api
