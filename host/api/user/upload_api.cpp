#include "host/api/user/upload_api.h"

#include <fmt/format.h>

#include <string>

#include "host/api/rows.h"
#include "host/api/user/record_calls.h"
#include "host/base/uuid.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

constexpr const char* kApi = "VEXA.Virtualization.Image";

Json::Value Describe(const storage::UploadProgress& progress) {
  Json::Value data(Json::objectValue);
  data["upload_id"] = progress.id;
  data["received"] = Json::UInt64{progress.received};
  data["size"] = Json::UInt64{progress.size};
  return data;
}

std::string DoneSentence(const std::string& name) { return fmt::format("The image [{}] has been uploaded.", name); }

// Not set: the parameter is not a UUID; the call has been answered.
std::optional<std::string> ReadId(const Call& call) {
  const auto id = call.request->GetAndCheckString("upload_id", kRequired);
  std::string normal = id.IsInvalid() ? std::string() : NormalizeUuid(id.Get());
  if (!normal.empty()) return normal;
  Fail(call, user_error::kBadParameter);
  return std::nullopt;
}

void Begin(storage::Uploads& uploads, const Call& call) {
  const auto name = call.request->GetAndCheckString("name", kRequired);
  const auto sha256 = call.request->GetAndCheckString("sha256", kRequired);
  const auto folder = call.request->GetAndCheckString("folder", kOptional, VexaCCC::Utils::IsNotEmpty);
  const Json::Value size = call.request->GetParam("size", Json::Value());
  const bool is_number = (size.type() == Json::intValue || size.type() == Json::uintValue) && size.isUInt64();
  if (name.IsInvalid() || sha256.IsInvalid() || folder.IsInvalid() || !is_number) {
    return Fail(call, user_error::kBadParameter);
  }
  const auto begun =
      uploads.Begin({name.Get(), call.request->GetLoginUserName(), folder.Get(), json::UInt64(size), sha256.Get()});
  if (!begun.ok()) {
    LogOutcome(call, Outcome::kFailed, "", fmt::format("Failed to begin the upload of the image [{}].", name.Get()));
    return Fail(call, begun.error().code, begun.error().reason);
  }
  Json::Value data = Describe(*begun);
  data["image_id"] = begun->id;
  call.response->SetSuccess(data);
}

void List(const storage::Uploads& uploads, const Call& call) {
  const auto listed = uploads.List();
  if (!listed) return RespondListError(call, "uploads", listed.error());
  Json::Value data(Json::objectValue);
  Json::Value& list = data["uploads"] = Json::Value(Json::arrayValue);
  for (const storage::ListedUpload& each : *listed) {
    Json::Value& entry = list.append(Json::Value(Json::objectValue));
    entry["upload_id"] = each.upload.id;
    entry["name"] = each.upload.name;
    entry["host_id"] = each.upload.host_id;
    entry["user"] = each.upload.user;
    entry["size"] = Json::UInt64{each.upload.size};
    if (each.received) entry["received"] = Json::UInt64{*each.received};
  }
  call.response->SetSuccess(data);
}

void ShowStatus(const storage::Uploads& uploads, const Call& call) {
  const auto id = ReadId(call);
  if (!id) return;
  const auto progress = uploads.ProgressOf(*id);
  if (!progress.ok()) return Fail(call, progress.error().code, progress.error().reason);
  call.response->SetSuccess(Describe(*progress));
}

void End(storage::Uploads& uploads, const Call& call) {
  const auto id = ReadId(call);
  if (!id) return;
  std::string name;
  const auto done = uploads.End(*id, name);
  const std::string& shown = name.empty() ? *id : name;
  LogOutcome(call, OutcomeOf(done), DoneSentence(shown), fmt::format("Failed to upload the image [{}].", shown));
  RespondToAddition(call, done, "image_id", *id);
}

void LogCancelled(const Call& call, Outcome outcome, const std::string& name) {
  LogOutcome(call, outcome, fmt::format("The upload of the image [{}] has been cancelled.", name),
             fmt::format("Failed to cancel the upload of the image [{}].", name));
}

void Cancel(storage::Uploads& uploads, const Call& call) {
  const auto id = ReadId(call);
  if (!id) return;
  std::string name;
  const auto done = uploads.Cancel(*id, name);
  LogCancelled(call, OutcomeOf(done), name.empty() ? *id : name);
  if (!done.ok()) return Fail(call, done.error().code, done.error().reason);
  call.response->SetSuccess(Json::Value());
}

}  // namespace

std::vector<ApiRow> UploadRows(const std::shared_ptr<storage::Uploads>& uploads) {
  using namespace user_error;  // NOLINT(google-build-using-namespace): the codes of the rows below
  const Parameter id = Text("upload_id", "The upload's id.");
  return {
      AdministratorRow(
          kApi, "upload_begin", LaneKind::kLong, [uploads](const Call& call) { Begin(*uploads, call); },
          "Begin to upload an image to this host, or continue an upload of the same name, size and digest. The reply "
          "has upload_id, image_id, size and received: send the bytes from there on in pieces of at most 8 MiB, each "
          "with PUT /upload/<upload_id> and the header \"Content-Range: bytes FIRST-LAST/TOTAL\".",
          {Text("name",
                "The image's name, 1 to 128 bytes without a slash, and not beginning with a dot; no other "
                "image may have it. The file has this name, and the ending .iso without another one."),
           {"size", ParameterType::kInteger, Necessity::kRequired, "The size of the file in bytes."},
           Text("sha256", "The SHA-256 of the file, 64 hexadecimal digits in lower case."),
           OptionalString("folder", "The image folder that it will be in (default: the first one of this host).")},
          {kBadParameter, kUnavailable, kRecordExists, kRecordFailed, kNoRoom, kUploadLimit, kNotFoundOrUnreadable}),
      AdministratorRow(
          kApi, "upload_list", LaneKind::kLong, [uploads](const Call& call) { List(*uploads, call); },
          "The uploads in progress: id, name, host, user, size, and what this host has received of its own.", {},
          {kRecordFailed}),
      AdministratorRow(kApi, "upload_status", LaneKind::kLong,
                       [uploads](const Call& call) { ShowStatus(*uploads, call); },
                       "How many bytes of an upload this host has received.", {id},
                       {kBadParameter, kNotFoundOrUnreadable, kUnavailable, kNoRoom, kRecordFailed}),
      AdministratorRow(
          kApi, "upload_end", LaneKind::kLong, [uploads](const Call& call) { End(*uploads, call); },
          "Compare the digest of what has arrived, and add the image. With another digest, the upload is removed.",
          {id},
          {kBadParameter, kNotFoundOrUnreadable, kUnavailable, kRecordExists, kRecordFailed, kUploadOffset,
           kUploadDamaged, kNoRoom}),
      AdministratorRow(kApi, "upload_cancel", LaneKind::kLong, [uploads](const Call& call) { Cancel(*uploads, call); },
                       "Remove an upload that is in progress.", {id},
                       {kBadParameter, kNotFoundOrUnreadable, kUnavailable, kRecordFailed, kNoRoom})};
}

UploadTaker TakeUploads(const std::shared_ptr<storage::Uploads>& uploads) {
  return [uploads](const UploadPieceTarget& target, std::string_view bytes) -> UploadAnswer {
    const auto received = uploads->Append(target.upload_id, {target.offset, target.total, bytes});
    if (received.ok()) return {std::nullopt, *received};
    return {Refusal(received.error()), received.error().received};
  };
}

void LogUploadedImage(const storage::Upload& upload) {
  std::string sentence = DoneSentence(upload.name);
  std::erase(sentence, '\0');
  VexaCCC::ClusterLogAdd(upload.user, VexaCCC::CLOG_PRIORITY_SUCCESS, "%s", sentence.c_str());
}

}  // namespace vexa::api
