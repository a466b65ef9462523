// Takes images that users upload: the bytes arrive in pieces, in order, and are checked before the image is added.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/descriptor.h"
#include "host/base/mutex.h"
#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/disks/disk_files.h"
#include "host/storage/bounded_calls.h"
#include "host/storage/image_folder.h"
#include "host/storage/upload_record.h"
#include "host/storage/uploaded_file.h"
#include "host/store/store.h"

namespace vexa::storage {

inline constexpr std::uint64_t kGib = std::uint64_t{1} << 30;

// What this host takes.
struct UploadLimits {
  std::size_t count = 8;                 // uploads in progress
  std::uint64_t size = 64 * kGib;        // of one upload
  std::uint64_t total = 256 * kGib;      // of all uploads that are not finished
  std::uint64_t reserve = kGib;          // stays free on the file system
  std::chrono::seconds idle{24 * 3600};  // after so long without a byte an upload is removed
  // The last part of that must pass while this process runs, because the clock can be set forward.
  std::chrono::seconds observed_idle{3600};
};

struct UploadOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;             // of this host
  std::vector<std::string> roots;  // the image folders; new images are in the first one unless another is named
  UploadLimits limits;
  QemuAccess access;
  std::chrono::milliseconds timeout = std::chrono::seconds(5);  // for the first response of a file system
  std::function<bool()> is_stopping;                            // asked while a long file is read; not set: never
  // For tests.
  std::function<std::chrono::system_clock::time_point()> now = std::chrono::system_clock::now;
  std::function<std::chrono::steady_clock::time_point()> steady_now = std::chrono::steady_clock::now;
  disks::FileSystemCalls calls;
  std::function<std::optional<std::uint64_t>(int folder)> free_bytes;  // not set: by the system
  std::function<void(const std::string& folder)> probe;                // the same; on threads that may outlive Uploads
  std::function<void(const char* step)> before_step;                   // may throw, as if the process had ended
};

struct NewUpload {
  std::string name;        // of the image
  std::string user;        // who uploads it
  std::string root;        // one of the image folders; empty: the first
  std::uint64_t size = 0;  // bytes, more than 0
  std::string sha256;      // 64 hexadecimal digits in lower case
};

struct UploadProgress {
  std::string id;
  std::uint64_t received = 0;  // bytes that are on disk
  std::uint64_t size = 0;
};

struct ListedUpload {
  Upload upload;
  std::optional<std::uint64_t> received;  // not set: it is on another host, or its folder cannot be read
};

struct UploadPiece {
  std::uint64_t offset = 0;
  std::uint64_t total = 0;  // of the whole upload
  std::string_view bytes;
};

// Why a piece was not taken, and from where the upload continues.
struct PieceRefusal : Refusal {
  std::optional<std::uint64_t> received;
};

// What becomes of the file of an image that was removed.
struct RemovedImage {
  enum class File { kRemoved, kStays, kLater };
  File file = File::kStays;
  std::string reason;  // a clause; "" for kRemoved, and for the file of an image that was not uploaded
};

// Codes of refusals: kBadParameter (401), kNotFoundOrUnreadable (there is no such upload on this host), kRecordExists,
// kRecordFailed, kUploadOffset, kUploadDamaged, kNoRoom, kUploadLimit, kHostBusy (another call works on the upload),
// kUnavailable (the storage is not mounted, or its files cannot be read or written).
//
// One per host. Threads: any, at the same time. Waits for the file system, but never while a snapshot is open. A folder
// that does not respond when a call begins delays it for the timeout at most; few threads hang, however many calls.
class Uploads {
 public:
  explicit Uploads(UploadOptions options);

  // Begins an upload. If one of the same name, size and digest is in progress on this host, that one is continued.
  Result<UploadProgress, Refusal> Begin(const NewUpload& upload);
  // Appends a piece, which is on disk then, and returns the bytes received. On a failure none of the piece is kept.
  Result<std::uint64_t, PieceRefusal> Append(const std::string& id, const UploadPiece& piece);
  Result<UploadProgress, Refusal> ProgressOf(const std::string& id) const;
  // All uploads of the cluster, by id. Errors: those of the store.
  Result<std::vector<ListedUpload>> List() const;
  // Checks what has arrived, gives the file its name, adds the image, and sets `name` to its name ("" when unknown).
  // An upload with another digest is removed. After other refusals it can be called again, and also when the image
  // exists already, since the first answer may have been lost.
  Result<void, Refusal> End(const std::string& id, std::string& name);
  // Removes the upload and what has arrived.
  Result<void, Refusal> Cancel(const std::string& id, std::string& name);

  // Removes the record of an image, and its file when an upload made it and it is still that file. Another host's file
  // is removed by that host. `name` and refusals: see disks::RemoveImage; when it refuses, the file stays.
  Result<RemovedImage, Refusal> RemoveImage(const std::string& id, std::string& name);

  // Removes files of removed images, finishes uploads whose end was interrupted, and removes those without a byte for
  // too long, and those of hosts that the cluster has no more. Logs what it does. `on_added` is called for each image
  // that was added.
  void CleanUp(const std::function<void(const Upload& upload)>& on_added);

 private:
  class Turn;
  Result<Upload, Refusal> Read(const std::string& id) const;
  Result<void, Refusal> CheckLimits(const std::vector<Upload>& uploads, const NewUpload& upload) const;
  Result<void, Refusal> CheckRoom(int root, std::uint64_t bytes, std::uint64_t promised) const;
  Result<void, Refusal> CheckResponds(const std::string& folder) const;
  Result<Descriptor, Refusal> OpenRoot(const Upload& upload) const;
  std::uint64_t PromisedBytes(const std::vector<Upload>& uploads, int root) const;
  Result<std::string, Refusal> Register(const NewUpload& upload);
  Result<std::uint64_t, PieceRefusal> Write(const Upload& upload, int root, const UploadPiece& piece) const;
  Result<void, Refusal> CheckContent(const Upload& upload, int file) const;
  Result<void, Refusal> Seal(Upload& upload, int root);
  Result<void, Refusal> Publish(Upload& upload, int root);
  Result<void, Refusal> Rename(Upload& upload, int root);
  Result<void, Refusal> AddImage(Upload& upload, int root);
  Result<void, Refusal> Reopen(Upload& upload, Refusal why);
  Status Store(Upload& upload);
  Result<void, Refusal> Remove(const Upload& upload, int root);
  void CleanUp(const std::string& id, const std::function<void(const Upload& upload)>& on_added);
  void RemoveIfAbandoned(const std::string& id);
  bool HasBeenIdle(const Upload& upload, int root);
  void ForgetForeign(const Upload& upload);
  RemovedImage RemoveFileOf(const std::string& image_id);
  RemovedImage RemoveFile(const UploadedFile& file) const;
  void CleanUpFiles();
  std::optional<UploadedFile> Describe(const Upload& upload, int root) const;
  void BeforeStep(const char* step) const;

  const UploadOptions options_;
  mutable BoundedCalls calls_;
  Mutex beginning_;  // locked while an upload is begun
  Mutex mutex_;
  std::set<std::string> busy_ VEXA_GUARDED_BY(mutex_);  // ids of uploads that a call works on
  struct Idle {
    std::uint64_t received = 0;
    std::chrono::steady_clock::time_point since;
  };
  std::map<std::string, Idle> idle_ VEXA_GUARDED_BY(mutex_);  // uploads without a byte for long, by id
};

}  // namespace vexa::storage
