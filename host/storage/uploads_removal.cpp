// Removes images, with the files of uploaded ones.
//
// The commit that removes the record of an uploaded image also records that its file is to be removed. Then the host
// that has the file removes it, and that record last. A daemon that ends in between, or a file that is in use, leaves
// the record, and a later clean-up continues.
#include <fcntl.h>
#include <fmt/format.h>
#include <syslog.h>

#include <utility>

#include "host/base/descriptor.h"
#include "host/base/sanitize_for_log.h"
#include "host/disks/file_referrers.h"
#include "host/disks/image_records.h"
#include "host/records/guest_image.h"
#include "host/records/keys.h"
#include "host/records/request_scope.h"
#include "host/storage/uploads.h"
#include "host/storage/uploads_turn.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::storage {
namespace {

using VexaCCC::DB::DashCate;

constexpr std::size_t kMaxDisplayed = 128;

RemovedImage Stays(std::string reason) { return {RemovedImage::File::kStays, std::move(reason)}; }
RemovedImage Later(std::string reason) { return {RemovedImage::File::kLater, std::move(reason)}; }
RemovedImage Later(const Error& error) { return Later(error.ToString()); }

}  // namespace

// What is stored of a file that has its name; not set when another file has it.
std::optional<UploadedFile> Uploads::Describe(const Upload& upload, int root) const {
  std::string identity = IdentityOfFile(root, upload.FileName());
  const std::optional<FolderIdentity> parsed = ParseIdentity(identity);
  if (!parsed || parsed->inode != upload.inode) return std::nullopt;
  return UploadedFile{options_.host_id, upload.Path(), upload.folders, std::move(identity)};
}

Result<RemovedImage, Refusal> Uploads::RemoveImage(const std::string& id, std::string& name) {
  const records::RequestPause pause;
  std::optional<UploadedFile> file;
  BeforeStep("remove image");
  const auto also = [&](const records::NamedRecord& image, store::Transaction& transaction) {
    file = UploadedFileFromJson(json::Member(image.record, records::kImageUploaded));
    if (!file) return;
    transaction.operations.push_back({RemovedFileKey(file->host_id, id), json::ToText(UploadedFileJson(*file))});
  };
  if (auto removed = disks::RemoveImage(*options_.store, id, name, also); !removed.ok()) return removed.error();
  if (!file) return Stays("");
  if (file->host_id != options_.host_id) {
    return Later(fmt::format("it is on the host '{}', which removes it", SanitizeForLog(file->host_id, kMaxDisplayed)));
  }
  RemovedImage result = RemoveFileOf(id);
  if (result.file == RemovedImage::File::kLater) {
    ::syslog(LOG_WARNING, "The file %s of the removed image '%s' will be removed later: %s.",
             QuotedPath(file->path).c_str(), SanitizeForLog(name, kMaxDisplayed).c_str(), result.reason.c_str());
  }
  return result;
}

// Removes what is recorded to be removed with the image, and the record of that.
RemovedImage Uploads::RemoveFileOf(const std::string& image_id) {
  const Turn turn(*this, image_id);
  if (!turn.is_taken()) return Later("another call works on it");
  RemovedFile recorded;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return Later(snapshot.error());
    const auto found = ReadRemovedFile(**snapshot, options_.host_id, image_id);
    if (!found) return Later(found.error());
    recorded = *found;
  }
  if (recorded.revision == 0) return {RemovedImage::File::kRemoved, ""};  // by another call
  const RemovedImage result = recorded.file ? RemoveFile(*recorded.file) : Stays("the record of it is damaged");
  if (result.file == RemovedImage::File::kLater) return result;
  BeforeStep("forget file");
  const std::string key = RemovedFileKey(options_.host_id, image_id);
  // If this fails, the next clean-up finds no file of this identity.
  (void)options_.store->Commit({{{key, recorded.revision}}, {{key, std::nullopt}}});
  if (result.file == RemovedImage::File::kStays) {
    ::syslog(LOG_NOTICE, "The file %s of a removed image stays: %s.",
             QuotedPath(recorded.file ? recorded.file->path : "").c_str(), result.reason.c_str());
  }
  return result;
}

RemovedImage Uploads::RemoveFile(const UploadedFile& file) const {
  const std::size_t slash = file.path.rfind('/');
  const std::string parent = file.path.substr(0, slash);
  if (const auto checked = CheckResponds(parent); !checked.ok()) {
    return Later(fmt::format("the file system of {} does not answer", QuotedPath(parent)));
  }
  const FolderChainCheck folders = CheckFolderChain(file.folders);
  if (folders.finding != FolderChainCheck::Finding::kSame) {
    return Later(fmt::format("its folder is not mounted: {}", folders.reason));
  }
  const disks::DiskFiles files(options_.roots, options_.calls);
  const auto examined = files.Examine(file.path);
  if (!examined) return Later(examined.error());
  if (examined->kind == disks::DiskFiles::Kind::kMissing) return {RemovedImage::File::kRemoved, ""};
  if (examined->kind == disks::DiskFiles::Kind::kUntouchable) return Stays(examined->reason);
  const Descriptor folder(::open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!IsSameFolder(IdentityOfFile(folder.get(), file.path.substr(slash + 1)), file.identity)) {
    return Stays("it is not the file that was uploaded");
  }
  const auto searched = disks::FileReferencesRevision(*options_.store);
  if (!searched) return Later(searched.error());
  // Of all hosts: the folder may be one that hosts share.
  const auto referrers = disks::FindFileReferrers(*options_.store, {}, {{file.path, {examined->identity, ""}}});
  if (!referrers) return Later(referrers.error());
  if (!referrers->empty()) return Stays(disks::Describe(referrers->begin()->second));
  BeforeStep("check references");
  const auto now = disks::FileReferencesRevision(*options_.store);
  if (!now) return Later(now.error());
  if (*now != *searched) return Later("other records have started to refer to files");
  BeforeStep("remove file");
  const Status removed = files.Remove(file.path);
  if (!removed && removed.error().code() != ErrorCode::kNotFound) return Later(removed.error());
  BeforeStep("sync removal");
  if (const Status synced = files.Sync(file.path); !synced) return Later(synced.error());
  return {RemovedImage::File::kRemoved, ""};
}

// Continues what RemoveImage began, here or on another host, and forgets the files of hosts that the cluster has no
// more.
void Uploads::CleanUpFiles() {
  std::vector<std::string> own;
  store::Transaction forgotten;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return;  // the next call tries again
    const auto hosts = (*snapshot)->Children(store::MakeKey({"image_file"}));
    if (!hosts) return;
    for (const std::string& host : *hosts) {
      const auto images = (*snapshot)->Children(store::MakeKey({"image_file", host}));
      if (!images) return;
      const auto record = (*snapshot)->Get(records::ObjectKey(DashCate::Host.name(), host));
      const bool is_gone = host != options_.host_id && record && !record->has_value();
      for (const std::string& image : *images) {
        if (host == options_.host_id) own.push_back(image);
        if (is_gone) forgotten.operations.push_back({RemovedFileKey(host, image), std::nullopt});
      }
    }
  }
  if (!forgotten.operations.empty()) (void)options_.store->Commit(forgotten);
  for (const std::string& image : own) {
    if (RemoveFileOf(image).file != RemovedImage::File::kRemoved) continue;
    ::syslog(LOG_NOTICE, "The file of the removed image '%s' has been removed.",
             SanitizeForLog(image, kMaxDisplayed).c_str());
  }
}

}  // namespace vexa::storage
