// The record of an image that is being uploaded.
//
//   /upload/<id>   {"host_id", "name" and "user" of who began it, "root": the image folder, "folders" (a FolderChain of
//                  it), "size" (bytes), "sha256", "began" (Unix seconds), and while it is finished "inode" of the file}
//   /uploads       without a meaning of its own: every commit that begins an upload compares and writes it, so that of
//                  two concurrent ones the second checks names and numbers again
//
// The id is that of the image as well. The bytes that have arrived are in a file whose name begins with a dot, in the
// folder that the image will be in. With "inode", the file is complete and has been checked, and is given its name.
// Threads: any.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/storage/folder_chain.h"
#include "host/store/store.h"

namespace vexa::storage {

struct Upload {
  std::string id;       // a UUID
  std::string host_id;  // the host that has the bytes
  std::string name;     // of the image
  std::string user;
  std::string root;  // a normal path
  FolderChain folders;
  std::uint64_t size = 0;
  std::string sha256;
  std::chrono::system_clock::time_point began;
  std::optional<std::uint64_t> inode;  // set while the checked file is given its name
  store::Revision revision = 0;        // of the stored record

  std::string PartialName() const { return ".vexa-upload-" + id; }
  std::string FileName() const;
  std::string Path() const { return root + "/" + FileName(); }
};

std::string UploadKey(const std::string& id);
std::string UploadsGuardKey();
std::string UploadText(const Upload& upload);

// Whether an image of this name can be a file: it does not begin with a dot and has no slash.
bool CanBeFileName(std::string_view name);

// Not set: there is no such upload. A damaged record has no host. Errors: those of the store.
Result<std::optional<Upload>> ReadUpload(const store::Snapshot& snapshot, const std::string& id);
// All uploads of the cluster, by id. Errors: those of the store.
Result<std::vector<Upload>> ReadUploads(const store::Snapshot& snapshot);

}  // namespace vexa::storage
