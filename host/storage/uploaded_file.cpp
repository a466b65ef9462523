#include "host/storage/uploaded_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "host/base/descriptor.h"
#include "host/base/json_parse.h"
#include "host/records/guest_image.h"
#include "host/records/keys.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::storage {
namespace {

constexpr char kFolders[] = "folders";
constexpr char kIdentity[] = "identity";

}  // namespace

Json::Value UploadedFileJson(const UploadedFile& file) {
  Json::Value value(Json::objectValue);
  value[keys::host_id] = file.host_id;
  value[records::kImagePath] = file.path;
  value[kFolders] = FolderChainJson(file.folders);
  value[kIdentity] = file.identity;
  return value;
}

std::optional<UploadedFile> UploadedFileFromJson(const Json::Value& value) {
  UploadedFile file;
  file.host_id = json::StringMember(value, keys::host_id);
  file.path = json::StringMember(value, records::kImagePath);
  file.folders = FolderChainFromJson(json::Member(value, kFolders));
  file.identity = json::StringMember(value, kIdentity);
  return file.host_id.empty() ? std::nullopt : std::optional(std::move(file));
}

std::string IdentityOfFile(int folder, const std::string& name) {
  const Descriptor file(::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat info {};
  if (file.get() < 0 || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return "";
  const std::optional<FolderIdentity> identity = ReadIdentity(file);
  return identity ? IdentityString(*identity) : "";
}

std::string RemovedFileKey(const std::string& host_id, const std::string& image_id) {
  return store::MakeKey({"image_file", host_id, image_id});
}

Result<RemovedFile> ReadRemovedFile(const store::Snapshot& snapshot, const std::string& host_id,
                                    const std::string& image_id) {
  const auto value = snapshot.Get(RemovedFileKey(host_id, image_id));
  if (!value) return value.error();
  if (!value->has_value()) return RemovedFile();
  const Result<Json::Value> parsed = ParseJson((*value)->text);
  return RemovedFile{(*value)->revision, parsed ? UploadedFileFromJson(*parsed) : std::nullopt};
}

}  // namespace vexa::storage
