#include "host/storage/upload_record.h"

#include <algorithm>
#include <array>
#include <utility>

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::storage {
namespace {

constexpr char kUser[] = "user";
constexpr char kRoot[] = "root";
constexpr char kFolders[] = "folders";
constexpr char kSha256[] = "sha256";
constexpr char kBegan[] = "began";
constexpr char kInode[] = "inode";

// A file with another name gets the first of these, so that drives can name it by its path.
constexpr std::array<std::string_view, 6> kEndings{".iso", ".img", ".raw", ".qcow2", ".vmdk", ".vdi"};

Upload Parse(const std::string& id, const store::ValueView& value) {
  Upload upload;
  upload.id = id;
  upload.revision = value.revision;
  const Result<Json::Value> parsed = ParseJson(value.text);
  if (!parsed) return upload;
  upload.host_id = json::StringMember(*parsed, keys::host_id);
  upload.name = json::StringMember(*parsed, keys::name);
  upload.user = json::StringMember(*parsed, kUser);
  upload.root = json::StringMember(*parsed, kRoot);
  upload.folders = FolderChainFromJson(json::Member(*parsed, kFolders));
  upload.size = json::UInt64(json::Member(*parsed, keys::size));
  upload.sha256 = json::StringMember(*parsed, kSha256);
  upload.began = records::TimeFromJson(json::Member(*parsed, kBegan));
  if (json::FindMember(*parsed, kInode)) upload.inode = json::UInt64(json::Member(*parsed, kInode));
  return upload;
}

}  // namespace

std::string Upload::FileName() const {
  const auto ends_like = [this](std::string_view ending) {
    return name.size() > ending.size() && name.ends_with(ending);
  };
  return std::ranges::any_of(kEndings, ends_like) ? name : name + std::string(kEndings.front());
}

std::string UploadKey(const std::string& id) { return store::MakeKey({"upload", id}); }

std::string UploadsGuardKey() { return store::MakeKey({"uploads"}); }

std::string UploadText(const Upload& upload) {
  Json::Value record(Json::objectValue);
  record[keys::host_id] = upload.host_id;
  record[keys::name] = upload.name;
  record[kUser] = upload.user;
  record[kRoot] = upload.root;
  record[kFolders] = FolderChainJson(upload.folders);
  record[keys::size] = Json::UInt64{upload.size};
  record[kSha256] = upload.sha256;
  record[kBegan] =
      Json::Int64{std::chrono::duration_cast<std::chrono::seconds>(upload.began.time_since_epoch()).count()};
  if (upload.inode) record[kInode] = Json::UInt64{*upload.inode};
  return json::ToText(record);
}

bool CanBeFileName(std::string_view name) {
  return !name.empty() && name.front() != '.' && name.find('/') == std::string_view::npos;
}

Result<std::optional<Upload>> ReadUpload(const store::Snapshot& snapshot, const std::string& id) {
  const auto value = snapshot.Get(UploadKey(id));
  if (!value) return value.error();
  if (!value->has_value()) return std::optional<Upload>();
  return std::optional<Upload>(Parse(id, **value));
}

Result<std::vector<Upload>> ReadUploads(const store::Snapshot& snapshot) {
  const auto ids = snapshot.Children(store::MakeKey({"upload"}));
  if (!ids) return ids.error();
  std::vector<Upload> uploads;
  for (const std::string& id : *ids) {
    Result<std::optional<Upload>> one = ReadUpload(snapshot, id);
    if (!one) return one.error();
    if (*one) uploads.push_back(std::move(**one));
  }
  return uploads;
}

}  // namespace vexa::storage
