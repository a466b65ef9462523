#include "host/api/user/image_api.h"

#include <utility>

#include "host/api/rows.h"
#include "host/api/user/record_calls.h"
#include "host/disks/image_records.h"
#include "host/records/named_record.h"
#include "host/storage/image_sizes.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::services {
namespace {

using guests::Refused;
using webapi::Call;

// Ids of records may have been given by other programs.
bool IsId(const std::string& text) { return cluster::IsRecordName(text); }

Json::Value Describe(const guests::ListedImage& image, bool with_path) {
  Json::Value shown(Json::objectValue);
  shown["image_id"] = image.id;
  shown["name"] = image.name;
  shown["present"] = image.size.has_value();
  if (image.size) shown["size"] = Json::UInt64{*image.size};
  if (with_path) shown["path"] = image.path;
  return shown;
}

void List(const store::Store& store, guests::ImageSizes& sizes, const Call& call) {
  auto images = guests::ListImages(store);
  if (!images) return FailToList(call, "images", images.error());
  sizes.Measure(*images);
  Json::Value data(Json::objectValue);
  Json::Value& list = data["images"] = Json::Value(Json::arrayValue);
  for (const guests::ListedImage& image : *images) list.append(Describe(image, call.request->IsAdmin()));
  call.response->SetSuccess(data);
}

void LogAddition(const std::string& user, bool is_done, const std::string& name) {
  using namespace VexaCCC;
  if (is_done) {
    ClusterLogAdd(user, CLOG_PRIORITY_SUCCESS, "The image [%s] has been added.", name.c_str());
  } else {
    ClusterLogAdd(user, CLOG_PRIORITY_FAILURE, "Failed to add the image [%s].", name.c_str());
  }
}

void Add(store::Store& store, const std::vector<std::string>& image_roots, const Call& call) {
  const auto name = call.request->GetAndCheckString("name", kRequired);
  const auto path = call.request->GetAndCheckString("path", kRequired);
  const auto id = call.request->GetAndCheckString("image_id", kOptional, VexaCCC::Utils::IsNotEmpty);
  if (name.IsInvalid() || path.IsInvalid() || id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  const guests::NewImage image{name.Get(), path.Get(), id.Get()};
  const Status checked = guests::CheckImage(image);
  if (!checked) return Fail(call, webapi::kErrorBadParameter, checked.error().message());
  std::string new_id;
  const Refused refused = guests::AddImage(store, image_roots, image, new_id);
  LogAddition(call.request->GetLoginUserName(), !refused, image.name);
  if (refused) return Fail(call, refused->code, refused->reason);
  Json::Value data(Json::objectValue);
  data["image_id"] = new_id;
  call.response->SetSuccess(data);
}

void LogRemoval(const std::string& user, bool is_done, const std::string& name) {
  using namespace VexaCCC;
  if (is_done) {
    ClusterLogAdd(user, CLOG_PRIORITY_SUCCESS, "The image [%s] has been removed.", name.c_str());
  } else {
    ClusterLogAdd(user, CLOG_PRIORITY_FAILURE, "Failed to remove the image [%s].", name.c_str());
  }
}

void Remove(store::Store& store, const Call& call) {
  const auto id = call.request->GetAndCheckString("image_id", kRequired, IsId);
  if (id.IsInvalid()) return Fail(call, webapi::kErrorBadParameter);
  std::string name;
  const Refused refused = guests::RemoveImage(store, id.Get(), name);
  LogRemoval(call.request->GetLoginUserName(), !refused, name.empty() ? id.Get() : name);
  if (refused) return Fail(call, refused->code, refused->reason);
  call.response->SetSuccess(Json::Value());
}

}  // namespace

std::vector<webapi::ApiRow> ImageRows(std::shared_ptr<store::Store> store, std::vector<std::string> image_roots) {
  using webapi::Access;
  using webapi::LaneKind;
  const auto sizes = std::make_shared<guests::ImageSizes>(image_roots);
  return {{.api = "VEXA.Virtualization.Image",
           .method = "list",
           .version = 1,
           .access = Access::kUser,
           .lane = LaneKind::kLong,
           .handler = [store, sizes](const Call& call) { List(*store, *sizes, call); },
           .summary = "The ISO images that drives of guests can hold: id, name, and the size of the file when this "
                      "host has it. Administrators also see the path.",
           .parameters = {},
           .errors = {cluster::kRecordFailed}},
          {.api = "VEXA.Virtualization.Image",
           .method = "add",
           .version = 1,
           .access = Access::kAdministrator,
           .lane = LaneKind::kLong,
           .handler = [store, roots = std::move(image_roots)](const Call& call) { Add(*store, roots, call); },
           .summary = "Add an image, and get its id. The file is a regular one below a folder that this host is "
                      "configured to take images from, reached without symbolic links.",
           .parameters = {Text("name", "The image's name, 1 to 128 bytes; no other image may have it."),
                          Text("path", "The file's absolute path on this host; no other image may have it."),
                          OptionalText("image_id", "The image's id, a UUID; a new one without it.")},
           .errors = {webapi::kErrorBadParameter, guests::kNotAnImage, cluster::kRecordExists, cluster::kRecordFailed}},
          {.api = "VEXA.Virtualization.Image",
           .method = "remove",
           .version = 1,
           .access = Access::kAdministrator,
           .lane = LaneKind::kLong,
           .handler = [store](const Call& call) { Remove(*store, call); },
           .summary = "Remove an image that is in no guest's drive. Its file stays.",
           .parameters = {Text("image_id", "The image's id.")},
           .errors = {webapi::kErrorBadParameter, kErrorUnreadable, cluster::kRecordInUse, cluster::kRecordFailed}}};
}

}  // namespace vexa::services
