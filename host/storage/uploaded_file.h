// The file of an image that was uploaded, so that it is removed with the image, and no other file in its place.
//
//   /dash/image/<id>/object            "uploaded": {"host_id", "path", "folders" (a FolderChain), "identity"}
//   /image_file/<host id>/<image id>   the same, from the removal of the image until that of its file
//
// The identity is a FolderIdentity of the file: like that of a folder, it stays the same over a restart, which a device
// number does not. A later file with the same inode has another time of birth.
// Threads: any.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "host/base/result.h"
#include "host/storage/folder_chain.h"
#include "host/store/store.h"

namespace vexa::storage {

struct UploadedFile {
  std::string host_id;  // the host that has it
  std::string path;     // a normal path
  FolderChain folders;
  std::string identity;
};

Json::Value UploadedFileJson(const UploadedFile& file);
// Not set: the value names no host.
std::optional<UploadedFile> UploadedFileFromJson(const Json::Value& value);

// The identity of the regular file `name` in an open folder; "" when it cannot be examined or is no such file.
std::string IdentityOfFile(int folder, const std::string& name);

std::string RemovedFileKey(const std::string& host_id, const std::string& image_id);

struct RemovedFile {
  store::Revision revision = 0;      // of the record; 0: there is no record
  std::optional<UploadedFile> file;  // not set: the record is absent or damaged
};
// Errors: those of the store.
Result<RemovedFile> ReadRemovedFile(const store::Snapshot& snapshot, const std::string& host_id,
                                    const std::string& image_id);

}  // namespace vexa::storage
